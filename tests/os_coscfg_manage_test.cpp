// os_coscfg_manage_test.cpp: the directory set of a process, and what happens to the log folders beside its own.
#include "coscfg_support.h"

#include <regex>

namespace fs = std::filesystem;

class Directories : public ConfigurationTest
{
protected:
    Directories() { setenv("MVR_CLEANLOGFOLDERS", "0", 1); }

    static COsCfg::CreateArgs Program(const char* a_szUniqueName, EOSCFGENTITY a_eoscfgentity)
    {
        COsCfg::CreateArgs createargs;
        createargs.szUniqueName = a_szUniqueName;
        createargs.eoscfgentity = a_eoscfgentity;
        return createargs;
    }
    static std::string LogDirectory(const char* a_szUniqueName, EOSCFGENTITY a_eoscfgentity = OS_CFGENTITY_APPLICATION)
    {
        COsCfg oscfg(Program(a_szUniqueName, a_eoscfgentity));
        return Slashed(Tag(oscfg, OS_CFGTAG_LOGDIRECTORY));
    }
    // Whether it is the folder with a "log." folder in it.
    static bool IsLogFolderBelow(const std::string& a_strLogFolder, const std::string& a_strFolder)
    {
        return std::regex_match(a_strLogFolder, std::regex(a_strFolder + "/log\\.[0-9]{20}"));
    }
    std::string LocalBrand() const { return PathOf("system/LOCALAPPDATA/mvr_orvane"); }
    std::string LegacyBrand() const { return PathOf("system/PROGRAMDATA/mvr_orvane"); }

    LogCapture m_logcapture;
};

TEST_F(Directories, TagsNameTheFoldersOfTheRunAndItsRoots)
{
    setenv("SANETWAIN_VERSION", "01020304", 1);
    COsCfg oscfg(Program("mvr", OS_CFGENTITY_APPLICATION));
    EXPECT_EQ(Tag(oscfg, OS_CFGTAG_SANETWAINVERSION), "01020304");
    const auto tag = [&](EOSCFGTAG a_eoscfgtag) { return Slashed(Tag(oscfg, a_eoscfgtag)); };
    const std::string strLog = tag(OS_CFGTAG_LOGDIRECTORY);
    EXPECT_TRUE(IsLogFolderBelow(strLog, LocalBrand() + "/mvr/twain")) << strLog;
    EXPECT_EQ(tag(OS_CFGTAG_MVRLOG), strLog + "/mvr.log");
    EXPECT_EQ(tag(OS_CFGTAG_TMPDIRECTORY), strLog + "/tmp");
    EXPECT_EQ(tag(OS_CFGTAG_ROOTPATH), LocalBrand());
    EXPECT_EQ(tag(OS_CFGTAG_ROOTCOMMONDIRECTORYLEGACY), LegacyBrand() + "/common");
    EXPECT_EQ(tag(OS_CFGTAG_CONSTINI), LocalBrand() + "/mvr/twain/const.ini");
}

TEST_F(Directories, VariableMovesTheLogAndNewFoldersAreLowerCase)
{
    fs::create_directories(PathOf("Kept"));
    fs::create_directories(PathOf("kept/other"));
    setenv("MVR_LOGDIR", (PathOf("Kept/UPPER/@@@BRAND@@@/@@@BRAND@@@")).c_str(), 1);
    EXPECT_TRUE(IsLogFolderBelow(LogDirectory("app"), PathOf("Kept/upper/orvane/orvane")));
    setenv("MVR_LOGDIR", (PathOf("KEPT/Other")).c_str(), 1);
    EXPECT_TRUE(IsLogFolderBelow(LogDirectory("app"), PathOf("kept/other")));
}

TEST_F(Directories, RelativeLogFolderBeginsWhereTheProcessStarts)
{
    fs::create_directories(PathOf("Here"));
    fs::current_path(PathOf("Here"));
    const std::string strHere = fs::current_path();
    setenv("MVR_LOGDIR", "../Here/Logs/", 1);
    EXPECT_TRUE(IsLogFolderBelow(LogDirectory("app"), strHere + "/logs"));
    setenv("MVR_LOGDIR", "Logs", 1);
    EXPECT_TRUE(IsLogFolderBelow(LogDirectory("app"), strHere + "/logs"));
}

TEST_F(Directories, RootAndModelComeFromSettingsAndArguments)
{
    PutCommon("UseUsersFolder=no");
    EXPECT_TRUE(IsLogFolderBelow(LogDirectory("app"), LegacyBrand() + "/app/app"));
    OsArgumentsSet(OS_ARGUMENT_MODELDIRECTORY, "d100");
    OsArgumentsSet(OS_ARGUMENT_ROOTPATH, PathOf("given").c_str());
    EXPECT_TRUE(IsLogFolderBelow(LogDirectory("app", OS_CFGENTITY_DRIVER), PathOf("given/d100/app")));
    EXPECT_FALSE(fs::exists(LocalBrand()));
}

TEST_F(Directories, FoldersAreMadeOnlyWhereLoggingIsOn)
{
    setenv("MVR_NOLOGGING", "1", 1);
    EXPECT_FALSE(fs::exists(LogDirectory("app")));
    EXPECT_FALSE(fs::exists(LegacyBrand()));
    for (const char* szOn : {"0", "11"})
    {
        setenv("MVR_NOLOGGING", szOn, 1);
        EXPECT_TRUE(fs::is_empty(LogDirectory("app"))) << szOn;
    }
}

TEST_F(Directories, ServiceWorksInTheFolderOfWhoeverWorkedHereLast)
{
    setenv("MVR_SESSION", "0", 1);
    setenv("HOME", PathOf("home/default").c_str(), 1);
    setenv("LOCALAPPDATA", PathOf("home/default/local").c_str(), 1);
    EXPECT_TRUE(IsLogFolderBelow(LogDirectory("app"), LegacyBrand() + "/app/app")) << "nobody yet";

    Put(Resolve(OS_PATH_WRITEABLE_FOLDER_BRAND_LEGACY) + "\\common\\lastuser.txt", "alice\r\n");
    EXPECT_TRUE(IsLogFolderBelow(LogDirectory("app"), PathOf("home/alice/local/mvr_orvane/app/app")));
    Put(Resolve(OS_PATH_WRITEABLE_FOLDER_BRAND_LEGACY) + "\\common\\lastuser.txt", "../alice");
    EXPECT_TRUE(IsLogFolderBelow(LogDirectory("app"), LegacyBrand() + "/app/app")) << "no path";
}

TEST_F(Directories, PathThatDoesNotFitFailsTheConfiguration)
{
    OsArgumentsSet(OS_ARGUMENT_ROOTPATH, ("/" + std::string(480, 'x')).c_str());
    COsCfg oscfg(Program("app", OS_CFGENTITY_APPLICATION));
    EXPECT_TRUE(m_logcapture.HasAt(OS_LOG_ERROR, "SetDirectories failed..."));
    EXPECT_EQ(Tag(oscfg, OS_CFGTAG_LOGDIRECTORY), "");
}

TEST_F(Directories, LogPathOfARoamingModelMovesToTheRoamingFolder)
{
    const auto convert = [](const std::string& a_strPath, const char* a_szModel) {
        char szPath[OS_PATHSIZE];
        SStrCpy(szPath, sizeof szPath, a_strPath.c_str());
        OsCfgLocalLogPath(szPath, sizeof szPath, a_szModel);
        return Slashed(szPath);
    };
    const std::string strLocal = PathOf("system/LOCALAPPDATA/m/a.log");
    EXPECT_EQ(convert(strLocal, nullptr), strLocal);
    EXPECT_TRUE(m_logcapture.HasAt(OS_LOG_NOTE, "LocalLogPath exit:  no modeldir"));
    EXPECT_EQ(convert(strLocal, "m"), strLocal);
    EXPECT_TRUE(m_logcapture.Has("LocalLogPath exit:  no change"));

    EXPECT_TRUE(OsCfgSetModelFlag("M", true));
    EXPECT_EQ(convert(strLocal, "m"), PathOf("system/APPDATA/m/a.log"));
    EXPECT_TRUE(m_logcapture.HasPart("LocalLogPath exit:  changed to roaming: <"));
    EXPECT_EQ(convert(PathOf("system/LOCALAPPDATAx/a"), "m"), PathOf("system/LOCALAPPDATAx/a"));
}

// ------------------------------------------------------------------------------------------------- the log folders

// Log folders beside that of a process, which is the newest of all.
class LogFolders : public Directories
{
protected:
    static constexpr const char* g_szTen = "log.20240101100000000000";
    static constexpr const char* g_szTenTwenty = "log.20240101102000000000";
    static constexpr const char* g_szEleven = "log.20240101110000000000";
    static constexpr const char* g_szTwelve = "log.20240101120000000000";

    LogFolders() : m_oscfg(Program("app", OS_CFGENTITY_APPLICATION))
    {
        fs::create_directories(Own());
        for (const char* szName : {g_szTen, g_szTenTwenty, g_szEleven, g_szTwelve})
            MakeFolder(szName);
    }
    std::string Beside(const std::string& a_strName) const { return PathOf("logs/" + a_strName); }
    std::string Own() const { return Beside("log.20240101120500000000"); }

    void MakeFolder(const std::string& a_strName) const
    {
        fs::create_directories(Beside(a_strName) + "/tmp");
        WriteWhole(Beside(a_strName) + "/tmp/a.log", "text");
    }
    bool Has(const std::string& a_strName) const { return fs::is_directory(Beside(a_strName)); }

    // Looks after the folders as a collector does for another process, keeping a number of runs.
    void Manage(const char* a_szBackup)
    {
        m_oscfg.SetString(OS_CFGSECTION_DSIDENTITY, OS_CFGTAG_LOGBACKUP, a_szBackup);
        OsCfgManageLogDirectories(Own().c_str(), nullptr);
    }
    COsCfg m_oscfg;
};

TEST_F(LogFolders, FoldersOfTheNewestRunsStayAndOlderOnesGo)
{
    const char* const szNine = "log.20240101094900000000";
    MakeFolder(szNine);
    for (const char* szNone : {"-1", ""})
        Manage(szNone);
    EXPECT_TRUE(Has(szNine));
    Manage("3");
    EXPECT_TRUE(Has(g_szTenTwenty) && Has(g_szTen)) << "within half an hour";
    EXPECT_FALSE(Has(szNine)) << "near to 10:00, but too far from 10:20";
    Manage("2");
    EXPECT_TRUE(Has(g_szTwelve) && Has(g_szEleven));
    EXPECT_FALSE(Has(g_szTenTwenty) || Has(g_szTen));
}

TEST_F(LogFolders, LockedFoldersLinksAndNamesThatAreNoTimeStay)
{
    WriteWhole(Beside(g_szTenTwenty) + "/log.lock", "stale");
    COsLogFolderLock oslogfolderlock;
    ASSERT_EQ(oslogfolderlock.Acquire(Beside(g_szTen).c_str()), EOSSTS_SUCCESS);
    fs::create_directories(PathOf("precious"));
    WriteWhole(PathOf("precious/file"), "text");
    fs::create_directory_symlink(PathOf("precious"), Beside("log.20240101000000000000"));
    WriteWhole(Beside("log.20240101000000000001"), "a file");
    const char* const aszName[] = {"log.old", "log.20241301000000000000", "log.2024010110000000000"};
    for (const char* szName : aszName)
        MakeFolder(szName);
    Manage("0");
    for (const char* szName : aszName)
        EXPECT_TRUE(Has(szName)) << szName;
    EXPECT_TRUE(Has(g_szTen) && fs::exists(Own()) && fs::exists(Beside("log.20240101000000000001")));
    EXPECT_EQ(ReadWhole(PathOf("precious/file")), "text");
    EXPECT_FALSE(Has(g_szTenTwenty) || Has(g_szEleven) || Has(g_szTwelve));
}

TEST_F(LogFolders, EmptyFoldersGoUnlessTheyAreYoung)
{
    OsTimeRecord ostimerecord{};
    OsTimeUtc(&ostimerecord, nullptr);
    char szStamp[OS_TIMESTAMPSIZE];
    OsTimeStamp(&ostimerecord, 0, szStamp);
    const std::string strYoung = std::string("log.") + szStamp;
    const std::string strOld = "log.20240101115959000000";
    for (const std::string& strName : {strYoung, strOld, std::string("log.old")})
        fs::create_directories(Beside(strName) + "/a/b");
    Manage("0");
    EXPECT_FALSE(Has(strOld));
    EXPECT_TRUE(Has(strYoung) && Has("log.old")) << "changed just now";
}

TEST_F(LogFolders, FoldersDatedInTheFuturePushOutNoRealOnes)
{
    const char* const aszFuture[] = {"log.29990101120000000000", "log.29990102120000000000",
                                     "log.29990103120000000000"};
    for (const char* szName : aszFuture)
        MakeFolder(szName);
    Manage("2");
    EXPECT_TRUE(Has(g_szTwelve) && Has(g_szEleven));
    EXPECT_FALSE(Has(g_szTen));
    for (const char* szName : aszFuture)
        EXPECT_TRUE(Has(szName)) << szName;
}

// A deleter has the folder when it is to be held; it lets go without deleting it.
TEST_F(LogFolders, OnlyTheOwnFolderIsHeldToTheEnd)
{
    const std::string strOurs = Slashed(Tag(m_oscfg, OS_CFGTAG_LOGDIRECTORY));
    COsFile osfile;
    ASSERT_EQ(osfile.Open((strOurs + "/log.lock").c_str(), OS_FILEOPEN_TEMPORARY, OS_FILEACCESS_READWRITE,
                          OS_FILESHARE_EXCLUSIVE),
              EOSSTS_SUCCESS);
    {
        const std::jthread jthread([&] { OsCfgManageLogDirectories(strOurs.c_str(), nullptr); });
        EXPECT_TRUE(
            WaitFor([&] { return m_logcapture.HasPart("CreateFileW failed...260 0xc0000000 0x3 0x4 0x80 <"); }));
        osfile.Close();
    }
    EXPECT_TRUE(COsLogFolderLock::IsHeldByOthers(strOurs.c_str()));
    Manage("6");
    EXPECT_FALSE(fs::exists(Own() + "/log.lock"));
    EXPECT_TRUE(COsLogFolderLock::IsHeldByOthers(strOurs.c_str()));
}

TEST_F(Directories, OwnerOfTheServicesPrunesLogFolders)
{
    setenv("MVR_CLEANLOGFOLDERS", "1", 1);
    LogDirectory("app");
    EXPECT_FALSE(m_logcapture.HasPart("new COsThread")) << "a child leaves it to the owner";
    OsArgumentsSetServicesOwner(true);
    const std::string strOld = LocalBrand() + "/app/app/log.20200101000000000000";
    fs::create_directories(strOld + "/tmp");
    std::string strLog;
    {
        COsCfg oscfg(Program("app", OS_CFGENTITY_APPLICATION));
        strLog = Slashed(Tag(oscfg, OS_CFGTAG_LOGDIRECTORY));
        EXPECT_TRUE(m_logcapture.HasPart("new COsThread"));
        EXPECT_TRUE(WaitFor([&] { return !fs::exists(strOld); }));
        EXPECT_TRUE(fs::exists(strLog + "/log.lock"));
    }
    EXPECT_FALSE(fs::exists(strLog + "/log.lock"));
}
