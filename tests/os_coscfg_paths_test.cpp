// os_coscfg_paths_test.cpp: where the identifiers lead to, as the environment and the common settings say.
#include "coscfg_support.h"

#include <pwd.h>
#include <set>

class Paths : public ConfigurationTest
{
protected:
    // A folder of the case, as the library writes paths.
    std::string Below(const std::string& a_strName) const { return Backslashed(PathOf(a_strName)); }
    std::string Local() const { return Below("system/LOCALAPPDATA"); }
    std::string Roaming() const { return Below("system/APPDATA"); }
    std::string Legacy() const { return Below("system/PROGRAMDATA"); }
    std::string Readable() const { return Below("system/SYSTEMROOT/lib/") + ReadableName(); }

    static std::string ReadableName()
    {
        const std::string strName = OsCfgBrand("readablefoldername");
        return strName.empty() ? OsCfgBrandFolder() : strName;
    }

    LogCapture m_logcapture;
};

TEST_F(Paths, WriteableFoldersLieBelowTheUsersAndTheMachinesData)
{
    EXPECT_EQ(Resolve(OS_PATH_WRITEABLE_FOLDER_ROOT), Local());
    EXPECT_EQ(Resolve(OS_PATH_WRITEABLE_FOLDER_LEGACY), Legacy());
    EXPECT_EQ(Resolve(OS_PATH_WRITEABLE_FOLDER_BRAND_LEGACY), Legacy() + "\\mvr_orvane");
    EXPECT_EQ(Resolve(OS_PATH_WRITEABLE_FOLDER_BRAND_LOCAL), Local() + "\\mvr_orvane");
    EXPECT_EQ(Resolve(OS_PATH_WRITEABLE_FOLDER_BRAND_ROAMING), Roaming() + "\\mvr_orvane");
    EXPECT_EQ(Resolve(OS_PATH_WRITEABLE_FOLDER_BRAND_USER), Local() + "\\mvr_orvane");

    setenv("LOCALAPPDATA", PathOf("elsewhere").c_str(), 1);
    EXPECT_EQ(Resolve(OS_PATH_WRITEABLE_FOLDER_ROOT), Local()) << "found out once";
}

TEST_F(Paths, CollectorFolderFollowsTheUserAndTheFlushFileDoesNot)
{
    PutCommon("UseLocalOrRoaming=Roaming");
    EXPECT_EQ(Resolve(OS_PATH_WRITEABLE_FOLDER_LOGCOLLECTOR), Roaming() + "\\mvr_orvane\\common\\logcollector");
    EXPECT_EQ(Resolve(OS_PATH_WRITEABLE_FILE_LOGCOLLECTORFLUSH),
              Legacy() + "\\mvr_orvane\\common\\logcollector\\flush");
    EXPECT_TRUE(std::filesystem::is_directory(PathOf("system/APPDATA/mvr_orvane/common/logcollector")));

    const auto pathFlush = m_path / "system/PROGRAMDATA/mvr_orvane/common/logcollector";
    EXPECT_TRUE(std::filesystem::remove(pathFlush));
    Resolve(OS_PATH_WRITEABLE_FILE_LOGCOLLECTORFLUSH);
    EXPECT_TRUE(std::filesystem::is_directory(pathFlush)) << "created again when it is missing";
}

TEST_F(Paths, PrefixOfTheCommonSettingsMovesWriteableFolders)
{
    setenv("LOCALAPPDATA", "C:\\Users\\u\\Local", 1);
    PutCommon("WriteableFolderPrefix = " + PathOf("moved"));
    EXPECT_EQ(Resolve(OS_PATH_WRITEABLE_FOLDER_LOCAL), Below("moved") + "\\Users\\u\\Local");
    EXPECT_EQ(Resolve(OS_PATH_WRITEABLE_FOLDER_BRAND_LEGACY), Below("moved") + Legacy() + "\\mvr_orvane");
    EXPECT_EQ(Resolve(OS_PATH_SPECIALFOLDER_CURRENTUSER_APPDATA), "C:\\Users\\u\\Local");
}

// ------------------------------------------------------------------------------------------------------ INI files

TEST_F(Paths, IniFilesAreNamedByTheProgramUnlessThereIsAModel)
{
    EXPECT_EQ(Resolve(OS_PATH_READABLE_FILE_COMMON_CONSTINI), Readable() + "\\common\\const.ini");
    OsArgumentsSet(OS_ARGUMENT_UNIQUENAME, "");
    char szPath[OS_PATHSIZE] = "x";
    EXPECT_EQ(OsCfgResolvePath(OS_PATH_READABLE_FILE_PROTECTED_CONSTINI, szPath, sizeof szPath), EOSSTS_FAIL);
    EXPECT_STREQ(szPath, "") << "not remembered before there is a name";
    OsArgumentsSet(OS_ARGUMENT_UNIQUENAME, "hvcfgmgr-drvlet-hvcfgmgr");
    EXPECT_EQ(Resolve(OS_PATH_READABLE_FILE_PROTECTED_CONSTINI), Readable() + "\\common\\const\\drvlet_const.ini");
    OsArgumentsSet(OS_ARGUMENT_MODELDIRECTORY, "d100");
    EXPECT_EQ(Resolve(OS_PATH_WRITEABLE_FILE_UNPROTECTED_DEBUGINI),
              Local() + "\\mvr_orvane\\common\\debug\\d100_debug.ini");
}

TEST_F(Paths, WithoutDebugIniTheProtectedFileServesBoth)
{
    PutCommon("UseDebugIni=no");
    OsArgumentsSet(OS_ARGUMENT_UNIQUENAME, "wia");
    EXPECT_EQ(Resolve(OS_PATH_WRITEABLE_FILE_UNPROTECTED_DEBUGINI), Readable() + "\\common\\const\\wia_const.ini");
    EXPECT_EQ(Resolve(OS_PATH_WRITEABLE_FOLDER_LOCALORROAMING), Legacy()) << "works for all users";
}

TEST_F(Paths, ConstIniGetsItsNameBackOrIsUsedUnderTheOther)
{
    char szPath[OS_PATHSIZE];
    OsCfgConstIni(szPath, Below("conf").c_str());
    EXPECT_EQ(szPath, Below("conf\\const.ini")) << "missing";

    Put(Below("conf\\const.ini.txt"), "text");
    OsCfgConstIni(szPath, Below("conf").c_str());
    EXPECT_EQ(szPath, Below("conf\\const.ini"));
    EXPECT_EQ(ReadWhole(m_path / "conf/const.ini"), "text");
    EXPECT_FALSE(std::filesystem::exists(m_path / "conf/const.ini.txt"));

    Put(Below("held\\const.ini.txt"), "text");
    COsFile osfile;
    osfile.Open(Below("held\\const.ini.txt").c_str(), OS_FILEOPEN_EXISTING, OS_FILEACCESS_READ, OS_FILESHARE_EXCLUSIVE);
    OsCfgConstIni(szPath, Below("held").c_str());
    EXPECT_EQ(szPath, Below("held\\const.ini.txt"));

    OsCfgConstIni(szPath, "");
    EXPECT_STREQ(szPath, "");
}

TEST_F(Paths, ProfilesFolderIsMovedByTheEnvironment)
{
    const auto profiles = [] {
        char szPath[OS_PATHSIZE];
        OsCfgProfilesFolder(szPath, sizeof szPath);
        return std::string(szPath);
    };
    EXPECT_EQ(profiles(), "");
    OsArgumentsSet(OS_ARGUMENT_MODELDIRECTORY, "d100");
    EXPECT_EQ(profiles(), Local() + "\\mvr_orvane\\d100\\profiles");
    setenv("MVR_PROFILESDIR", "/p/{MODELDIR}/x/{MODELDIR}", 1);
    EXPECT_EQ(profiles(), "\\p\\d100\\x\\d100");
    setenv("MVR_PROFILESDIR", "{LEGACY}", 1);
    EXPECT_EQ(profiles(), Legacy() + "\\mvr_orvane\\d100\\profiles");
}

// ------------------------------------------------------------------------------------------ tags, programs, numbers

TEST_F(Paths, LogDirectoryRootEndsWithItsLogFolder)
{
    FakeConfiguration fakeconfiguration;
    fakeconfiguration.Set(OS_CFGTAG_LOGDIRECTORY, "/a/log.1/b/log.2/c");
    EXPECT_EQ(Resolve(OS_PATH_WRITEABLE_FOLDER_LOGDIRECTORYROOT), "\\a\\log.1");
    fakeconfiguration.Set(OS_CFGTAG_LOGDIRECTORY, "C:\\a\\prolog.1\\b");
    EXPECT_EQ(Resolve(OS_PATH_WRITEABLE_FOLDER_LOGDIRECTORYROOT), "C:\\a\\prolog.1\\b");
    fakeconfiguration.Set(OS_CFGTAG_ROOTPATHSHARED, "/shared");
    EXPECT_EQ(Resolve(OS_PATH_WRITEABLE_FOLDER_BRAND_SHARED), "\\shared");
}

TEST_F(Paths, InstalledCollectorGoesBeforeTheOneBesideTheProgram)
{
    std::string strBeside = Resolve(OS_PATH_READABLE_FILE_MAINPROGRAM);
    strBeside.erase(strBeside.find_last_of('\\') + 1);
    EXPECT_EQ(Resolve(OS_PATH_READABLE_FILE_LOGCOLLECTOREXE), strBeside + "logcollector");
    Put(Readable() + "\\common\\logcollector", "");
    EXPECT_EQ(Resolve(OS_PATH_READABLE_FILE_LOGCOLLECTOREXE), Readable() + "\\common\\logcollector");
}

TEST_F(Paths, EverySpecialFolderIsSomewhere)
{
    setenv("HOME", PathOf("home").c_str(), 1);
    for (const char* szVariable : {"LOCALAPPDATA", "APPDATA", "PROGRAMDATA", "SYSTEMROOT"})
        unsetenv(szVariable);
    char szPath[OS_PATHSIZE];
    for (uint32_t u32 = 1; u32 <= OS_SPECIALFOLDER_MYDOCUMENTS + 1; ++u32)
    {
        OsCfgSpecialFolder(szPath, sizeof szPath, u32);
        EXPECT_EQ(*szPath == 0, u32 > OS_SPECIALFOLDER_MYDOCUMENTS) << u32;
    }
    EXPECT_TRUE(m_logcapture.HasAt(OS_LOG_CHECK, "unrecognized eosspecialfolder...18"));
    OsCfgSpecialFolder(szPath, sizeof szPath, OS_SPECIALFOLDER_DEFAULTUSER_DESKTOP);
    EXPECT_EQ(szPath, Below("home\\Desktop"));
    unsetenv("HOME");
    OsCfgSpecialFolder(szPath, sizeof szPath, OS_SPECIALFOLDER_CURRENTUSER_PROFILE);
    EXPECT_EQ(szPath, Backslashed(getpwuid(geteuid())->pw_dir)) << "the account's";
}
