// os_coscfg_profile_test.cpp: the profile cache: reading, storing and writing back, files that are no INI files, which
// file serves a request.
#include "coscfg_support.h"

#include "plat_file.h"

class Profile : public ConfigurationTest
{
protected:
    std::string Read(const std::string& a_strFile, const char* a_szSection, const char* a_szKey,
                     EOSSTS a_eosstsExpected = EOSSTS_SUCCESS) const
    {
        char szValue[9000] = "not cleared";
        EXPECT_EQ(OsCfgProfileRead(PathOf(a_strFile).c_str(), a_szSection, a_szKey, szValue, sizeof szValue),
                  a_eosstsExpected)
            << a_strFile << " " << a_szSection << " " << a_szKey;
        return szValue;
    }
    EOSSTS Store(const std::string& a_strFile, const char* a_szSection, const char* a_szKey, const char* a_szValue)
    {
        return OsCfgProfileWrite(PathOf(a_strFile).c_str(), a_szSection, a_szKey, a_szValue);
    }
    EOSSTS WriteBack(const std::string& a_strFile) { return OsCfgProfileWriteBack(PathOf(a_strFile).c_str()); }

    // As messages show it.
    std::string Shown(const std::string& a_strFile) const { return Backslashed(PathOf(a_strFile)); }
    LogCapture m_logcapture;
};

// ------------------------------------------------------------------------------------------------------------ reading

TEST_F(Profile, AValueIsFoundBySectionAndKey)
{
    WriteWhole(PathOf("setup.txt"), "\xEF\xBB\xBF[versions]\r\n;note\nCD=1.2\r\n\r\n\r\nplain\r\nWith Blank = x \r\n"
                                    "a=b\r\n[other]\r\nempty=\r\nCD=2\r\n[versions]\r\nlate=1");
    static constexpr struct
    {
        const char* szSection;
        const char* szKey;
        const char* szValue;   // null: not found
    } g_arow[] = {
        {"versions", "CD", "1.2"},
        {"VERSIONS", "cd", "1.2"},
        {"other", "CD", "2"},
        {"versions", "@4", "b"},
        {"versions", "@5", nullptr},
        {"other", "@0", ""},
        {"other", "empty", ""},
        {"versions", "With Blank ", " x "},
        {"versions", "With Blank", nullptr},
        {"versions", "late", nullptr},
        {"none", "CD", nullptr},
        {"versions", "", nullptr},
        {"versions", "@99999999999", nullptr},
    };
    for (const auto& row : g_arow)
    {
        EXPECT_EQ(Read("setup.txt", row.szSection, row.szKey, row.szValue ? EOSSTS_SUCCESS : EOSSTS_FAIL),
                  row.szValue ? row.szValue : "");
    }
    Read("absent.txt", "versions", "CD", EOSSTS_NOTFOUND);

    char szSmall[3] = "";
    EXPECT_EQ(OsCfgProfileRead(PathOf("setup.txt").c_str(), "versions", "CD", szSmall, sizeof szSmall),
              EOSSTS_NOMEMORY);
    EXPECT_STREQ(szSmall, "");
    const std::string strLong(512, 'x');
    EXPECT_EQ(OsCfgProfileRead(strLong.c_str(), "versions", "CD", szSmall, sizeof szSmall), EOSSTS_FAIL);
    EXPECT_TRUE(m_logcapture.HasAt(64, "buffer overflow...512 <" + strLong + ">"));
}

// Also when both versions have one size and lie within one tick of the file's time stamp; it wins over what was stored.
TEST_F(Profile, AFileThatChangedIsReadAgain)
{
    for (const char* szValue : {"1", "2", "3", "4", "5"})
    {
        WriteWhole(PathOf("a.ini"), std::string("[s]\r\nkey=") + szValue + "\r\n");
        EXPECT_EQ(Read("a.ini", "s", "key"), szValue);
        EXPECT_EQ(Store("a.ini", "s", "key", "stored"), EOSSTS_SUCCESS);
    }
    EXPECT_EQ(m_logcapture.Count("we're reloading over a dirty profile..."), 4u);
    std::filesystem::remove(PathOf("a.ini"));
    Read("a.ini", "s", "key", EOSSTS_NOTFOUND);
}

TEST_F(Profile, RubbishIsReadWithoutHarm)
{
    std::string strBytes;
    for (int i = 0; i < 40000; ++i)
        strBytes += static_cast<char>(i * 7 + i / 256);
    std::string strSections;
    for (int i = 0; i < 10000; ++i)
        strSections += "[section" + std::to_string(i) + "]\nkey=1\n";
    const std::string strLong = "[s]\nkey=" + std::string(70000, 'v');
    for (const std::string& strText :
         {strBytes, strSections, strLong, std::string("[s\n[s\nkey=1\n[\n]\n=\n[]"), std::string(8192, '\n'),
          std::string(8192, '\0'), std::string("\xEF\xBB\xBF"), std::string()})
    {
        WriteWhole(PathOf("r.ini"), strText);
        char szValue[OS_PATHSIZE];
        for (const char* szKey : {"key", "@0", "@7", ""})
            OsCfgProfileRead(PathOf("r.ini").c_str(), "s", szKey, szValue, sizeof szValue);
    }
    WriteWhole(PathOf("long.ini"), strLong);
    EXPECT_EQ(Read("long.ini", "s", "key").size(), 8192u - std::string("[s]\nkey=").size());
    EXPECT_EQ(Store("long.ini", "s", "other", "1"), EOSSTS_NOMEMORY);   // the rest of the file would be lost
}

// ---------------------------------------------------------------------------------------- storing and writing back

TEST_F(Profile, WhatIsStoredReachesTheFileWithTheWriteBack)
{
    const std::string strBefore = "[one]\nkey=1\n;off=1\n; why\n[two]\nkey=2\n";
    WriteWhole(PathOf("a.ini"), strBefore);
    EXPECT_EQ(Store("a.ini", "ONE", "KEY", "new"), EOSSTS_SUCCESS);
    EXPECT_EQ(Store("a.ini", "one", "more", ""), EOSSTS_SUCCESS);
    EXPECT_EQ(Store("a.ini", "three", "key", "3"), EOSSTS_SUCCESS);
    EXPECT_EQ(Read("a.ini", "one", "key"), "new");
    EXPECT_EQ(ReadWhole(PathOf("a.ini")), strBefore);

    EXPECT_EQ(WriteBack("a.ini"), EOSSTS_SUCCESS);
    EXPECT_EQ(ReadWhole(PathOf("a.ini")), "[one]\r\nKEY=new\r\nmore=\r\n;off=1\r\n\r\n; why\r\n[two]\r\nkey=2\r\n\r\n"
                                          "[three]\r\nkey=3\r\n");
    EXPECT_EQ(m_logcapture.Count("profile successfully written...<" + Shown("a.ini") + ">"), 1u);
    EXPECT_EQ(WriteBack("a.ini"), EOSSTS_SUCCESS);   // nothing to do
    EXPECT_EQ(m_logcapture.Count("profile successfully written...<" + Shown("a.ini") + ">"), 1u);

    EXPECT_EQ(Store("new.ini", "s", "k1", "1"), EOSSTS_SUCCESS);
    EXPECT_EQ(OsCfgProfileWriteBack(nullptr), EOSSTS_SUCCESS);
    EXPECT_TRUE(m_logcapture.HasAt(4, "trying to write profile...<(all)>"));
    EXPECT_EQ(ReadWhole(PathOf("new.ini")), "[s]\r\nk1=1\r\n");
    EXPECT_EQ(WriteBack("never.ini"), EOSSTS_FAIL);
    EXPECT_TRUE(m_logcapture.HasAt(4, "fail: file not found in our ini profile cache...<" + Shown("never.ini") + ">"));

    for (const auto& [szKey, szValue] :
         {std::pair{"k", "1"}, {"k=1", "1"}, {"[key", "1"}, {"key", "1\n2"}, {"@0", "1"}})
        EXPECT_EQ(Store("new.ini", "s", szKey, szValue), EOSSTS_NOTOPEN) << szKey;
}

TEST_F(Profile, AFileDoesNotGrowBeyondWhatIsReadAgain)
{
    const std::string strValue(8192 - std::string("[s]\r\nkey=\r\n").size(), 'v');
    EXPECT_EQ(Store("a.ini", "s", "key", (strValue + "v").c_str()), EOSSTS_NOMEMORY);
    EXPECT_EQ(Store("a.ini", "s", "key", strValue.c_str()), EOSSTS_SUCCESS);
    EXPECT_EQ(Store("a.ini", "s", "other", ""), EOSSTS_NOMEMORY);
    EXPECT_EQ(Store("a.ini", "t", "key", ""), EOSSTS_NOMEMORY);
    EXPECT_EQ(WriteBack("a.ini"), EOSSTS_SUCCESS);
    EXPECT_EQ(SizeOf("a.ini"), 8192u);
    EXPECT_EQ(Read("a.ini", "s", "key"), strValue);
}

TEST_F(Profile, AFileThatOthersKeepFromWritingIsServedReadOnly)
{
    WriteWhole(PathOf("a.ini"), "[s]\nkey=1\n");
    const std::u16string wstrPath = Wide(PathOf("a.ini"));
    const PlatHandle plathandle =
        PlatFileOpen(wstrPath.c_str(), PLAT_ACCESS_READ, PLAT_SHARE_READ, PLAT_DISPOSITION_OPENEXISTING, 0);
    EXPECT_EQ(Read("a.ini", "s", "key"), "1");
    EXPECT_TRUE(m_logcapture.HasAt(4, "profile opened readonly...<" + Shown("a.ini") + ">"));
    EXPECT_EQ(Store("a.ini", "s", "key", "2"), EOSSTS_SUCCESS);
    EXPECT_EQ(WriteBack("a.ini"), EOSSTS_FAIL);
    EXPECT_TRUE(m_logcapture.HasAt(4, "fail: open failed...<" + Shown("a.ini") + ">"));
    PlatClose(plathandle);
    EXPECT_EQ(WriteBack("a.ini"), EOSSTS_SUCCESS);
    EXPECT_EQ(ReadWhole(PathOf("a.ini")), "[s]\r\nkey=2\r\n");
}

TEST_F(Profile, TheSeventeenthFileEmptiesTheCacheAndLosesNothing)
{
    const auto name = [](int i) { return "f" + std::to_string(i) + ".ini"; };
    for (int i = 0; i < 17; ++i)
        WriteWhole(PathOf(name(i)), "[s]\nkey=1\n");
    for (int i = 0; i < 16; ++i)
        EXPECT_EQ(Store(name(i), "s", "key", "2"), EOSSTS_SUCCESS);
    EXPECT_EQ(ReadWhole(PathOf("f0.ini")), "[s]\nkey=1\n");
    EXPECT_EQ(Read("f16.ini", "s", "key"), "1");
    for (int i = 0; i < 16; ++i)
        EXPECT_EQ(ReadWhole(PathOf(name(i))), "[s]\r\nkey=2\r\n") << i;
    EXPECT_EQ(WriteBack("f0.ini"), EOSSTS_FAIL);   // no longer there
    EXPECT_EQ(WriteBack("f16.ini"), EOSSTS_SUCCESS);
}

TEST_F(Profile, AWrittenProfileTakesItsCompanionAlong)
{
    EXPECT_EQ(Store("m_const.ini", "s", "key", "1"), EOSSTS_SUCCESS);
    EXPECT_EQ(Store("m_debug.ini", "s", "key", "2"), EOSSTS_SUCCESS);
    EXPECT_EQ(Store("other_debug.ini", "s", "key", "3"), EOSSTS_SUCCESS);
    EXPECT_EQ(WriteBack("m_const.ini"), EOSSTS_SUCCESS);
    EXPECT_EQ(ReadWhole(PathOf("m_debug.ini")), "[s]\r\nkey=2\r\n");
    EXPECT_EQ(SizeOf("other_debug.ini"), 0u);
}

// The logger reads a profile for the header of its file, on the thread whose line is the first.
TEST_F(Profile, ALogLineOfTheCacheMayLeadBackToIt)
{
    WriteWhole(PathOf("a.ini"), "[s]\nkey=1\n");
    int iFound = 0;
    const CallingSink callingsink([&] {
        char szValue[16];
        iFound += OsCfgProfileRead(PathOf("a.ini").c_str(), "s", "key", szValue, sizeof szValue) == EOSSTS_SUCCESS;
    });
    Store("a.ini", "s", "key", "2");
    WriteBack("a.ini");
    OsCfgProfileWriteBack(nullptr);
    EXPECT_GE(iFound, 3);
}

TEST_F(Profile, ThreadsShareTheCache)
{
    InThreads(6, [this](int a_iThread) {
        const std::string strFile = "t" + std::to_string(a_iThread) + ".ini";
        for (int iRound = 0; iRound < 40; ++iRound)
        {
            const std::string strValue = std::to_string(iRound);
            EXPECT_EQ(Store(strFile, "s", "key", strValue.c_str()), EOSSTS_SUCCESS);
            EXPECT_EQ(WriteBack(strFile), EOSSTS_SUCCESS);
            EXPECT_EQ(Read(strFile, "s", "key"), strValue);
        }
    });
}

// --------------------------------------------------------------------------------------------- which file serves it

class ProfilePath : public Profile
{
protected:
    static std::string Serving(const std::string& a_strFile, const char* a_szSection, const char* a_szKey)
    {
        char szPath[OS_PATHSIZE];
        EXPECT_EQ(OsCfgProfileResolve(a_strFile.c_str(), a_szSection, a_szKey, szPath, sizeof szPath), EOSSTS_SUCCESS);
        return szPath;
    }
    static std::string Mapped(const std::string& a_strFile, bool a_blDebug)
    {
        char szPath[OS_PATHSIZE];
        OsCfgProfileMap(a_strFile.c_str(), a_blDebug, szPath, sizeof szPath);
        return szPath;
    }
};

TEST_F(ProfilePath, DiagnosticsAreServedFromTheUnprotectedFolder)
{
    OsArgumentsSet(OS_ARGUMENT_UNIQUENAME, "prog");
    const std::string strDebug = Resolve(OS_PATH_WRITEABLE_FOLDER_BRAND_LOCALORROAMING) + "\\common\\debug\\";
    const std::string strLegacy = Resolve(OS_PATH_WRITEABLE_FOLDER_BRAND_LEGACY) + "\\common\\debug\\";
    const std::string strConst = Resolve(OS_PATH_READABLE_FOLDER_BRAND) + "\\common\\const\\";
    EXPECT_EQ(Serving("/x//m_const.ini", "plain", "Debug"), "\\x\\m_const.ini");
    EXPECT_FALSE(OsFileExists(strDebug.c_str()));
    EXPECT_EQ(Serving("/x/m_const.ini", "m.Simulation.1", "key"), strDebug + "m_debug.ini");
    EXPECT_TRUE(OsFileExists(strDebug.c_str()));
    const std::tuple<const char*, const char*, const char*, std::string> atuple[] = {
        {"/x/m.ini", "a.dsIdentity", "debugfilter", strDebug + "m.ini"},
        {"/x/m.ini", "a.dsIdentity", "nodebug", "\\x\\m.ini"},
        {"/x/m_const.ini.txt", "wia.images", "key", strLegacy + "m_debug.ini.txt"},
        {"/x/const.ini", "dsidentity", "key", strConst + "prog_const.ini"},
        {"const.ini", "hvcfgmgr.x.dsidentity", "debug", strDebug + "hvcfgmgr_debug.ini"}};
    for (const auto& [szFile, szSection, szKey, strServing] : atuple)
        EXPECT_EQ(Serving(szFile, szSection, szKey), strServing);
}

TEST_F(ProfilePath, WithoutTheProtectedLayoutEveryNameIsItsOwn)
{
    PutCommon("UseProtectedConstIni=no\r\n");
    EXPECT_EQ(Serving("/x/const.ini", "simulation", "key"), "\\x\\const.ini");
    const std::string strBrand = Resolve(OS_PATH_WRITEABLE_FOLDER_BRAND_LEGACY) + "\\model\\a.ini";
    EXPECT_EQ(Mapped(strBrand, false), strBrand);
}

TEST_F(ProfilePath, ARedirectIsToldAndServesOnlyTheMakersMachines)
{
    WriteWhole(PathOf("mine.ini"), "");
    setenv("MVR_CONSTINI", PathOf("mine.ini").c_str(), 1);
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(Serving("/x/m_const.ini", "s", "key"), "\\x\\m_const.ini");
    EXPECT_EQ(m_logcapture.Count("const redirect=<" + Shown("mine.ini") + ">"), 1u);
    EXPECT_FALSE(m_logcapture.HasPart("debug redirect"));
}

TEST_F(ProfilePath, AProfileBelowABrandFolderHasAProtectedName)
{
    std::string strConst = Resolve(OS_PATH_READABLE_FILE_COMMON_CONSTINI);
    strConst.resize(strConst.size() - 4);
    for (const EOSPATH eospath : {OS_PATH_WRITEABLE_FOLDER_BRAND_LEGACY, OS_PATH_WRITEABLE_FOLDER_BRAND_USER})
        EXPECT_EQ(Mapped(Resolve(eospath) + "\\model\\deep\\a.ini", false), strConst + "\\model_const.ini");
    const std::string strBrand = Resolve(OS_PATH_WRITEABLE_FOLDER_BRAND_LEGACY);
    EXPECT_TRUE(StrEndsWith(Mapped(strBrand + "\\model\\a.ini", true).c_str(), "\\model_debug.ini", false));
    for (const std::string& strSame : {strBrand + "\\m_const.ini", strBrand + "\\log.2020\\a.ini", PathOf("a.ini")})
        EXPECT_EQ(Mapped(strSame, false), strSame);
    EXPECT_EQ(Mapped(strBrand, false), "");
    EXPECT_TRUE(m_logcapture.HasAt(1, "tokenizing failed..."));

    // Whatever its name in the protected layout, what was stored for a file is written to that file.
    const std::string strFile = strBrand + "\\model\\a.ini";
    OsFileCreateDirectory((strBrand + "\\model").c_str());
    char szValue[16] = "";
    EXPECT_EQ(OsCfgProfileWrite(strFile.c_str(), "s", "key", "1"), EOSSTS_SUCCESS);
    EXPECT_EQ(OsCfgProfileWriteBack(strFile.c_str()), EOSSTS_SUCCESS);
    EXPECT_EQ(OsCfgProfileRead(strFile.c_str(), "s", "key", szValue, sizeof szValue), EOSSTS_SUCCESS);
    EXPECT_STREQ(szValue, "1");
}
