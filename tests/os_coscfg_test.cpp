// os_coscfg_test.cpp: the configuration object: the table of tags, the defaults and what overrides them, the program,
// extensions, the common settings file.
#include "coscfg_support.h"

#include "os_coscfg.h"
#include "os_coslog.h"
#include "traced_process.h"

#include <set>
#include <thread>

// ------------------------------------------------------------------------------------------------------ the tags

TEST(ConfigurationTags, EveryTagButOneHasANameOfItsOwn)
{
    std::set<std::string> setstr;
    for (uint32_t u32Tag = 1; u32Tag < OS_CFGTAG_LAST; ++u32Tag)
        setstr.insert(OsCfgTagName(u32Tag));
    EXPECT_EQ(setstr.size(), 344u);
    EXPECT_STREQ(OsCfgTagName(247), "");
    EXPECT_STREQ(OsCfgTagName(345), "");
}

TEST(ConfigurationTags, TheNumbersSectionsAndDefaultsAreFixed)
{
    static const struct
    {
        uint32_t u32Tag;
        uint32_t u32Section;
        const char* szName;
        const char* szDefault;
    } g_arow[] = {
        {37, 1, "MVR.LOG", nullptr},
        {65, 1, "ForceDesktop", "WinSta0\\Default"},
        {84, 1, "ForceMaxChunkSocket", "-2130706432"},
        {170, 1, "ForceNetCloseDelay", "3000"},
        {207, 1, "ForceTiffDatetimeZone", "0"},
        {239, 2, "ServiceName", "OrvaneScannerService"},
        {272, 4, "JpegQuantization_Y_50",
         "0C1114212A354356111421252D38475A1421272E3743536721252E3B4856677D"
         "2A2D37485A6E839D353843566E89A7CA4347536783A7D1FF565A677D9DCAFFFF"},
        {344, 3, "N50", nullptr},
    };
    for (const auto& row : g_arow)
    {
        EXPECT_STREQ(OsCfgTagName(row.u32Tag), row.szName);
        EXPECT_EQ(OsCfgTagSection(row.u32Tag), row.u32Section) << row.szName;
        EXPECT_STREQ(OsCfgTagDefault(row.u32Tag), row.szDefault) << row.szName;
    }
}

// ------------------------------------------------------------------------------------------------------ the table

TEST(ConfigurationTable, AnAddressOutsideIsRefusedAndReadsEmpty)
{
    OsCfgTable oscfgtable;
    for (const auto& [u32Section, u32Tag] :
         {std::pair<uint32_t, uint32_t>{0, 38}, {5, 38}, {1, 0}, {1, 345}, {1000, 1000}})
    {
        EXPECT_EQ(oscfgtable.Set(u32Section, u32Tag, "x"), EOSSTS_NOTOPEN);
        EXPECT_STREQ(oscfgtable.Get(u32Section, u32Tag), "");
    }
    char* const szText = new char[2]{'x', 0};
    EXPECT_EQ(oscfgtable.Adopt(5, 38, szText), EOSSTS_NOTOPEN);
}

TEST(ConfigurationTable, OnlyAdoptedTextsAreFreed)
{
    OsCfgTable oscfgtable;
    EXPECT_EQ(oscfgtable.Adopt(1, 38, new char[2]{'1', 0}), EOSSTS_SUCCESS);
    EXPECT_EQ(oscfgtable.Adopt(1, 38, new char[2]{'2', 0}), EOSSTS_SUCCESS);
    EXPECT_STREQ(oscfgtable.Get(1, 38), "2");
    EXPECT_EQ(oscfgtable.Set(1, 38, "3"), EOSSTS_SUCCESS);
    EXPECT_STREQ(oscfgtable.Get(1, 38), "3");
    EXPECT_EQ(oscfgtable.Adopt(4, 344, new char[2]{'4', 0}), EOSSTS_SUCCESS);
}

TEST(ConfigurationTable, AnExtensionIsAsLargeAsItsLists)
{
    static const OsCfgExtension g_aSection[] = {{1001, "first"}, {1002, "second"}, {1000, ""}};
    static const OsCfgExtension g_aTag[] = {{1001, "Debug"}, {1003, "other"}, {1000, ""}};
    static const OsCfgExtension g_aWrong[] = {{12, "built-in"}, {1000, ""}};
    static const OsCfgExtension g_aHuge[] = {{0xFFFFFFFF, "far"}, {1000, ""}};
    OsCfgTable oscfgtable;
    EXPECT_EQ(oscfgtable.Register(g_aWrong, g_aTag), EOSSTS_NOTOPEN);
    EXPECT_EQ(oscfgtable.Register(g_aSection, g_aHuge), EOSSTS_NOMEMORY);
    ASSERT_EQ(oscfgtable.Register(g_aSection, g_aTag), EOSSTS_SUCCESS);

    EXPECT_EQ(oscfgtable.FindSection("SECOND"), 1002u);
    EXPECT_EQ(oscfgtable.FindTag(1002, "debug"), 1001u);
    EXPECT_EQ(oscfgtable.FindTag(1, "debug"), 38u);
    EXPECT_EQ(oscfgtable.FindTag(1, ""), 0u);
    EXPECT_EQ(oscfgtable.Set(1002, 1003, "last"), EOSSTS_SUCCESS);
    EXPECT_STREQ(oscfgtable.Get(1002, 1003), "last");
    EXPECT_EQ(oscfgtable.Set(1003, 1003, "x"), EOSSTS_NOTOPEN);
    EXPECT_EQ(oscfgtable.Set(1002, 1004, "x"), EOSSTS_NOTOPEN);
    EXPECT_EQ(oscfgtable.Set(1002, 38, "x"), EOSSTS_NOTOPEN);

    EXPECT_EQ(oscfgtable.Register(nullptr, nullptr), EOSSTS_SUCCESS);
    EXPECT_EQ(oscfgtable.FindSection("second"), 0u);
    EXPECT_STREQ(oscfgtable.Get(1002, 1003), "");
}

// ------------------------------------------------------------------------------------------------------ the object

class Configuration : public ConfigurationTest
{
};

TEST_F(Configuration, WithoutAnyFileEveryTagHasItsDefault)
{
    LogCapture logcapture;
    COsCfg::CreateArgs createargs;
    createargs.szUniqueName = "cfgtest";
    for (size_t sizet = 0; sizet < OS_CFGVERSIONS; ++sizet)
        createargs.aszVersion[sizet] = "12";
    COsCfg oscfg(createargs);

    EXPECT_TRUE(logcapture.HasAt(4, "Setting configuration defaults..."));
    EXPECT_TRUE(logcapture.HasAt(4, "Done setting configuration defaults..."));
    for (uint32_t u32Tag = OS_CFGTAG_DEBUGSOCKETS; u32Tag < OS_CFGTAG_LAST; ++u32Tag)
    {
        const bool blBrand = OsCfgTagSection(u32Tag) == OS_CFGSECTION_BRAND || u32Tag == OS_CFGTAG_MANUFACTURER;
        const char* const szDefault = OsCfgTagDefault(u32Tag);
        if (!szDefault || blBrand)
            continue;
        const auto eoscfgsection = static_cast<EOSCFGSECTION>(OsCfgTagSection(u32Tag));
        EXPECT_STREQ(oscfg.GetString(eoscfgsection, static_cast<EOSCFGTAG>(u32Tag)), szDefault) << OsCfgTagName(u32Tag);
    }
    EXPECT_EQ(Tag(oscfg, OS_CFGTAG_DEBUG), "0");
    EXPECT_EQ(Tag(oscfg, OS_CFGTAG_DEBUGFILTER), "");
    EXPECT_EQ(Tag(oscfg, OS_CFGTAG_DEBUGDISPLAYLENGTH), "512");
    EXPECT_EQ(Tag(oscfg, OS_CFGTAG_UITIMEOUT), "0");
    EXPECT_EQ(Tag(oscfg, OS_CFGTAG_FORCEUSBMONITORTIMEOUT), "10");
    EXPECT_EQ(Tag(oscfg, OS_CFGTAG_VERSIONMAJORNUM), "12");
    EXPECT_EQ(Tag(oscfg, OS_CFGTAG_VERSIONYEAR), "12");
    EXPECT_EQ(OsCfgGetLong(OS_CFGTAG_FORCEMAXCHUNKSOCKET), -2130706432L);
}

TEST_F(Configuration, StoringGoesToTheIdentitySectionWhateverSectionIsNamed)
{
    COsCfg oscfg({});
    const std::string strBefore = oscfg.GetString(OS_CFGSECTION_BRAND, OS_CFGTAG_COMPANYNAMESHORT);
    EXPECT_EQ(oscfg.SetString(OS_CFGSECTION_BRAND, OS_CFGTAG_COMPANYNAMESHORT, "Changed"), EOSSTS_SUCCESS);
    EXPECT_EQ(Tag(oscfg, OS_CFGTAG_COMPANYNAMESHORT), "Changed");
    EXPECT_EQ(oscfg.GetString(OS_CFGSECTION_BRAND, OS_CFGTAG_COMPANYNAMESHORT), strBefore);

    EXPECT_EQ(oscfg.SetString(OS_CFGSECTION_DSIDENTITY, static_cast<EOSCFGTAG>(345), "x"), EOSSTS_NOTOPEN);
    EXPECT_STREQ(oscfg.GetString(static_cast<EOSCFGSECTION>(5), OS_CFGTAG_DEBUG), "");
    EXPECT_STREQ(oscfg.GetString(OS_CFGSECTION_DSIDENTITY, static_cast<EOSCFGTAG>(345)), "");
}

TEST_F(Configuration, ADebuggedProgramIsNotOvertakenByItsTimeouts)
{
    const int iTraced = InTracedProcess([] {
        COsCfg oscfg({});
        return Tag(oscfg, OS_CFGTAG_UITIMEOUT) == "99999" && Tag(oscfg, OS_CFGTAG_FORCEUSBMONITORTIMEOUT) == "99999";
    });
    if (iTraced < 0)
        GTEST_SKIP() << "no tracing on this machine";
    EXPECT_EQ(iTraced, 1);
}

TEST_F(Configuration, WhatIsComputedIsInTheTable)
{
    COsCfg::CreateArgs createargs;
    createargs.szUniqueName = "cfgtest";
    createargs.eoscfgentity = OS_CFGENTITY_DRIVER;
    setenv("SANETWAIN_VERSION", "01020304", 1);
    COsCfg oscfg(createargs);
    EXPECT_NE(Tag(oscfg, OS_CFGTAG_LOGDIRECTORY).find("log."), std::string::npos);
    EXPECT_EQ(Tag(oscfg, OS_CFGTAG_MVRLOG), Tag(oscfg, OS_CFGTAG_LOGDIRECTORY) + "\\cfgtest.log");
    EXPECT_EQ(Tag(oscfg, OS_CFGTAG_TMPDIRECTORY), Tag(oscfg, OS_CFGTAG_LOGDIRECTORY) + "\\tmp");
    EXPECT_EQ(Tag(oscfg, OS_CFGTAG_OTTER_LOGPATH), Tag(oscfg, OS_CFGTAG_LOGDIRECTORY) + "\\otter\\");
    EXPECT_EQ(Tag(oscfg, OS_CFGTAG_MODELDIRECTORYREAL), Tag(oscfg, OS_CFGTAG_MODELDIRECTORY));
    EXPECT_EQ(Tag(oscfg, OS_CFGTAG_SANETWAINVERSION), "01020304");
}

TEST_F(Configuration, LoadingStartsTheLoggerWithWhatTheFilesSay)
{
    PutDebug("[app.dsIdentity]\r\nDebug=0x1000\r\nDebugFilter=OS_COSCFG\r\n");
    COsLog::CreateArgs createargsLog;
    createargsLog.u32Flags = 1;
    COsLog oslog(createargsLog);
    COsCfg::CreateArgs createargs;
    createargs.szUniqueName = "cfgtest";
    COsCfg oscfg(createargs);
    EXPECT_EQ(Tag(oscfg, OS_CFGTAG_MVRLOG), oslog.LogFile());
    EXPECT_EQ(oslog.WorkingWord(), 0x1001u);
    std::string strLogFile = oslog.LogFile();
    std::replace(strLogFile.begin(), strLogFile.end(), '\\', '/');
    const std::string strLog = ReadWhole(strLogFile);
    EXPECT_EQ(strLog.find("Setting configuration defaults..."), std::string::npos);
    EXPECT_NE(strLog.find("Program is...<"), std::string::npos);
    EXPECT_NE(strLog.find("DebugFilter=<os_coscfg>"), std::string::npos);
}

// ------------------------------------------------------------------------------------------------------ the program

TEST_F(Configuration, AHostProgramIsRecognisedByItsFileName)
{
    LogCapture logcapture;
    COsCfg::CreateArgs createargs;
    createargs.szProgram = "C:/apps//HostProgram01.EXE";
    COsCfg oscfg(createargs);
    EXPECT_EQ(Tag(oscfg, OS_CFGTAG_APPLICATION), "C:\\apps\\HostProgram01.EXE");
    EXPECT_TRUE(logcapture.HasAt(4, "Program is...<C:\\apps\\HostProgram01.EXE>"));
    EXPECT_EQ(Tag(oscfg, OS_CFGTAG_HOSTPROGRAM01), "1");
    EXPECT_EQ(Tag(oscfg, OS_CFGTAG_HOSTPROGRAM02), "");
    EXPECT_EQ(Tag(oscfg, OS_CFGTAG_FORCEUNITSBEHAVIOR), "1");
}

TEST_F(Configuration, ThisProgramIsNoHostProgram)
{
    COsCfg oscfg({});
    EXPECT_NE(Tag(oscfg, OS_CFGTAG_APPLICATION), "");
    EXPECT_NE(Tag(oscfg, OS_CFGTAG_MAINPROGRAM).find("os_coscfg_test"), std::string::npos);
    for (uint32_t u32Tag = OS_CFGTAG_HOSTPROGRAM01; u32Tag <= OS_CFGTAG_HOSTPROGRAM20; ++u32Tag)
        EXPECT_EQ(Tag(oscfg, static_cast<EOSCFGTAG>(u32Tag)), "");
}

TEST_F(Configuration, AForcedProgramNameReplacesTheRealOne)
{
    PutConst("[app.dsIdentity]\r\nForceProgramName=hostprogram07.exe\r\n");
    LogCapture logcapture;
    COsCfg::CreateArgs createargs;
    createargs.szProgram = "C:\\apps\\real.exe";
    COsCfg oscfg(createargs);
    EXPECT_TRUE(logcapture.HasAt(4, "Real program is...<C:\\apps\\real.exe>"));
    EXPECT_EQ(Tag(oscfg, OS_CFGTAG_APPLICATION), "hostprogram07.exe");
    EXPECT_EQ(Tag(oscfg, OS_CFGTAG_HOSTPROGRAM07), "1");
}

TEST_F(Configuration, OnlyTheServicesOwnerLooksAfterTheLogFolders)
{
    LogCapture logcapture;
    {
        COsCfg oscfg({});
        EXPECT_EQ(OsCfgGet(), &oscfg);
    }
    EXPECT_EQ(OsCfgGet(), nullptr);
    EXPECT_FALSE(OsCfgExists());
    EXPECT_FALSE(logcapture.HasPart("new COsThread"));

    OsArgumentsSetServicesOwner(true);
    {
        COsCfg oscfg({});
    }
    EXPECT_TRUE(logcapture.HasPart("new COsThread"));

    logcapture.Clear();
    setenv("MVR_CLEANLOGFOLDERS", "0", 1);
    COsCfg oscfg({});
    EXPECT_FALSE(logcapture.HasPart("new COsThread"));
}

// ------------------------------------------------------------------------------------------- the common settings file

class CommonSettings : public ConfigurationTest
{
protected:
    static std::string Get(const char* a_szKey) { return OsCfgCommonGet(a_szKey, "default"); }
};

TEST_F(CommonSettings, WithoutAFileEveryAnswerIsTheDefault)
{
    bool blFound = true;
    EXPECT_STREQ(OsCfgCommonGet("UseDebugIni", "yes", &blFound), "yes");
    EXPECT_FALSE(blFound);
    EXPECT_STREQ(OsCfgCommonGet("UseDebugIni", nullptr), "");
    EXPECT_STREQ(OsCfgCommonGet(nullptr, "d"), "d");
    EXPECT_STREQ(OsCfgCommonGet("", "d"), "d");

    PutCommon("UseDebugIni=no\r\n");
    EXPECT_STREQ(OsCfgCommonGet("UseDebugIni", "yes"), "yes") << "absent stays absent";
}

TEST_F(CommonSettings, KeysAndValuesAreTrimmedAndFoundInAnyCase)
{
    PutCommon("\xEF\xBB\xBF  usedebugini \t= NO \r\n\r\n; Comment=1\n[Header]\n=Nothing\n \x01 Control=1\n"
              "Alone\nTwice=a=b\rTwice=second\n  ;Indented=1\nLogCollector=");
    bool blFound = false;
    EXPECT_STREQ(OsCfgCommonGet("UseDebugIni", "yes", &blFound), "NO");
    EXPECT_TRUE(blFound);
    EXPECT_FALSE(OsCfgCommonIsYes("UseDebugIni", "yes"));
    EXPECT_EQ(Get("Twice"), "a=b");
    EXPECT_EQ(Get("Alone"), "");
    EXPECT_EQ(Get("LogCollector"), "");
    for (const char* szKey : {"Comment", "; Comment", "Control", "Indented", "[Header]"})
        EXPECT_EQ(Get(szKey), "default") << szKey;
}

TEST_F(CommonSettings, The129thEntryIsIgnored)
{
    std::string strText;
    for (int i = 1; i <= 129; ++i)
        strText += "key" + std::to_string(i) + "=" + std::to_string(i) + "\r\n";
    PutCommon(strText);
    EXPECT_EQ(Get("key128"), "128");
    EXPECT_EQ(Get("key129"), "default");
}

TEST_F(CommonSettings, AFileOfBlanksCountsAsAbsentAndALongOneIsCut)
{
    PutCommon(std::string(70000, ' ') + "\r\nkey=1");
    EXPECT_EQ(Get("key"), "default");
}

TEST_F(CommonSettings, TheNameWithTxtServesWhenTheFileIsMissing)
{
    Put(Resolve(OS_PATH_READABLE_FILE_COMMON_CONSTINI) + ".txt", "key=1");
    OsCfgCommonInstall();
    EXPECT_STREQ(OsCfgGetCommon("KEY", "0"), "1");
}

TEST_F(CommonSettings, ThreadsThatAskFirstTogetherGetTheSameAnswer)
{
    PutCommon("key=1");
    std::atomic<int> iRight{0};
    std::vector<std::thread> vecthread(8);
    for (std::thread& thread : vecthread)
        thread = std::thread([&] { iRight += Get("key") == "1"; });
    for (std::thread& thread : vecthread)
        thread.join();
    EXPECT_EQ(iRight, 8);
}
