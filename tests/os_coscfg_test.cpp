// os_coscfg_test.cpp: the configuration object: the table of tags, the defaults and what overrides them, the program,
// extensions, the common settings file.
#include "coscfg_support.h"

#include "os_coscfg.h"
#include "os_coslog.h"

#include <pwd.h>
#include <unistd.h>

// ------------------------------------------------------------------------------------------------------ the tags

// Lines of "number|section|name|value", written by hand; "*" is computed.
TEST_F(ConfigurationTest, WithoutFilesAllTagsHaveTheirDefaults)
{
    COsCfg oscfg({});
    std::ifstream stream(TEST_SOURCEFOLDER "/tests/data/configuration_defaults.txt");
    uint32_t u32Tag = 0;
    for (std::string strNumber, strSection, strName, strValue; std::getline(stream, strNumber, '|');)
    {
        std::getline(std::getline(std::getline(stream, strSection, '|'), strName, '|'), strValue);
        ++u32Tag;
        const auto u32Section = static_cast<uint32_t>(std::stoul(strSection));
        EXPECT_EQ(strNumber, std::to_string(u32Tag));
        EXPECT_EQ(OsCfgTagSection(u32Tag), u32Section) << strName;
        EXPECT_EQ(OsCfgTagName(u32Tag), strName);
        if (strValue == "*")
            continue;
        EXPECT_EQ(oscfg.GetString(static_cast<EOSCFGSECTION>(u32Section), static_cast<EOSCFGTAG>(u32Tag)), strValue)
            << strName;
        const bool blCovered = u32Section == OS_CFGSECTION_BRAND;   // by the brand record
        EXPECT_TRUE(!blCovered || OsCfgTagDefault(u32Tag) == strValue) << strName;
    }
    EXPECT_EQ(u32Tag, 344u);
    EXPECT_EQ(u32Tag + 1, static_cast<uint32_t>(OS_CFGTAG_LAST));
    EXPECT_EQ(Tag(oscfg, OS_CFGTAG_DRIVERNAME), "os_coscfg_test");
    EXPECT_EQ(Tag(oscfg, OS_CFGTAG_USERNAME), getpwuid(geteuid())->pw_name);
}

// ------------------------------------------------------------------------------------------------------ the table

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
    EXPECT_EQ(oscfgtable.Set(1002, 1003, "last"), EOSSTS_SUCCESS);
    EXPECT_STREQ(oscfgtable.Get(1002, 1003), "last");
    for (const auto& [u32Section, u32Tag] :
         {std::pair{0u, 38u}, {5u, 38u}, {1u, 0u}, {1u, 345u}, {1003u, 1003u}, {1002u, 1004u}})
    {
        EXPECT_EQ(oscfgtable.Set(u32Section, u32Tag, "x"), EOSSTS_NOTOPEN);
        EXPECT_STREQ(oscfgtable.Get(u32Section, u32Tag), "");
    }

    EXPECT_EQ(oscfgtable.Register(nullptr, nullptr), EOSSTS_SUCCESS);
    EXPECT_EQ(oscfgtable.FindSection("second"), 0u);
    EXPECT_STREQ(oscfgtable.Get(1002, 1003), "");
}

// ------------------------------------------------------------------------------------------------------ the object

using Configuration = ConfigurationTest;

TEST_F(Configuration, StoringAlwaysUsesTheIdentitySection)
{
    COsCfg oscfg({});
    const std::string strBefore = oscfg.GetString(OS_CFGSECTION_BRAND, OS_CFGTAG_COMPANYNAMESHORT);
    EXPECT_EQ(oscfg.SetString(OS_CFGSECTION_BRAND, OS_CFGTAG_COMPANYNAMESHORT, "Changed"), EOSSTS_SUCCESS);
    EXPECT_EQ(Tag(oscfg, OS_CFGTAG_COMPANYNAMESHORT), "Changed");
    EXPECT_EQ(oscfg.GetString(OS_CFGSECTION_BRAND, OS_CFGTAG_COMPANYNAMESHORT), strBefore);
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
    const std::string strLog = ReadWhole(Slashed(oslog.LogFile()));
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
    createargs.eoscfgentity = OS_CFGENTITY_DRIVER;
    {
        COsCfg oscfg(createargs);
        EXPECT_EQ(Tag(oscfg, OS_CFGTAG_OTTER_LOGPATH), Tag(oscfg, OS_CFGTAG_LOGDIRECTORY) + "\\otter\\");
        ExpectTags(oscfg, {{OS_CFGTAG_APPLICATION, "C:\\apps\\HostProgram01.EXE"},
                           {OS_CFGTAG_HOSTPROGRAM01, "1"},
                           {OS_CFGTAG_HOSTPROGRAM02, ""},
                           {OS_CFGTAG_FORCEUNITSBEHAVIOR, "1"}});
        EXPECT_TRUE(logcapture.HasAt(4, "Program is...<C:\\apps\\HostProgram01.EXE>"));
    }
    EXPECT_EQ(OsCfgGet(), nullptr);

    PutConst("[app.dsIdentity]\r\nForceProgramName=hostprogram07.exe\r\n");
    COsCfg oscfg(createargs);
    EXPECT_TRUE(logcapture.HasAt(4, "Real program is...<C:\\apps\\HostProgram01.EXE>"));
    ExpectTags(oscfg, {{OS_CFGTAG_APPLICATION, "hostprogram07.exe"}, {OS_CFGTAG_HOSTPROGRAM07, "1"}});
}

// ------------------------------------------------------------------------------------------- the common settings file

class CommonSettings : public ConfigurationTest
{
protected:
    static std::string Get(const std::string& a_strKey) { return OsCfgCommonGet(a_strKey.c_str(), "default"); }
};

TEST_F(CommonSettings, The129thEntryIsIgnoredAlsoOfTheFileNamedTxt)
{
    std::string strText;
    for (int i = 1; i <= 129; ++i)
        strText += "key" + std::to_string(i) + "=" + std::to_string(i) + "\r\n";
    Put(Resolve(OS_PATH_READABLE_FILE_COMMON_CONSTINI) + ".txt", strText);
    EXPECT_EQ(Get("key128"), "128");
    EXPECT_EQ(Get("key129"), "default");
    OsCfgCommonInstall();
    EXPECT_STREQ(OsCfgGetCommon("KEY1", "0"), "1");
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
