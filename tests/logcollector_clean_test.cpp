// logcollector_clean_test.cpp: the program's clean mode: which folders it cleans, and which it refuses.
#include "collector_support.h"

#include "os_coslogfolder.h"

namespace fs = std::filesystem;

class CleanMode : public FolderTest
{
protected:
    CleanMode() { unsetenv("MVR_COMPANYNAMESHORT"); }

    fs::path Brand(const std::string& a_strVariable) const { return m_path / "system" / a_strVariable / "mvr_orvane"; }

    // A log folder below each brand folder, written to so many hours ago.
    void Make(const std::string& a_strFolder, int a_iHoursAgo) const
    {
        for (const char* szVariable : m_aszVariable)
        {
            const fs::path path = Brand(szVariable) / a_strFolder / "log.1/a.log";
            fs::create_directories(path.parent_path());
            WriteWhole(path, "text");
            fs::last_write_time(path, fs::file_time_type::clock::now() - std::chrono::hours(a_iHoursAgo));
        }
    }

    // How many of them are left.
    int Left(const std::string& a_strFolder) const
    {
        int iLeft = 0;
        for (const char* szVariable : m_aszVariable)
            iLeft += fs::exists(Brand(szVariable) / a_strFolder / "log.1");
        return iLeft;
    }

    static void Run(const std::vector<std::string>& a_vecstrArgument)
    {
        CollectorProcess collector;
        ASSERT_TRUE(collector.Start(ProgramPath("logcollector"), a_vecstrArgument));
        EXPECT_EQ(collector.WaitForExit(20000), 0u);
    }

    static constexpr const char* m_aszVariable[] = {"PROGRAMDATA", "LOCALAPPDATA", "APPDATA"};
};

TEST_F(CleanMode, RemovesExpiredFoldersFromAllThreeBrandFolders)
{
    Make("app", 2);
    Make("app/old", 5);
    Run({"--hourstokeep=3", "--clean"});
    EXPECT_EQ(Left("app"), 3);
    EXPECT_EQ(Left("app/old"), 0);
    Run({"--cleanup"});
    EXPECT_EQ(Left("app"), 0);
}

TEST_F(CleanMode, AFolderStaysAsLongAsOneProcessOfSeveralHoldsIt)
{
    Make("app", 5);
    const std::string strHeld = (Brand("APPDATA") / "app/log.1").string();
    COsLogFolderLock oslogfolderlock;
    {
        COsLogFolderLock oslogfolderlockFirst;
        ASSERT_EQ(oslogfolderlockFirst.Acquire(strHeld.c_str()), EOSSTS_SUCCESS);
        ASSERT_EQ(oslogfolderlock.Acquire(strHeld.c_str()), EOSSTS_SUCCESS);
    }
    Run({"--clean"});
    EXPECT_EQ(Left("app"), 1);
    EXPECT_EQ(ReadWhole(strHeld + "/a.log"), "text");
    oslogfolderlock.Release();
    Run({"--clean"});
    EXPECT_EQ(Left("app"), 0);
}

TEST_F(CleanMode, ASubfolderLimitsItButNeverLeadsItOut)
{
    struct Row
    {
        const char* szSubfolder;
        bool blCleaned;
    };
    const Row arow[] = {{"app", true},
                        {"/app\\x/../../app", false},
                        {"D:\\app", true},
                        {"D:..\\mvr_orvane\\app", false},
                        {"none", false},
                        {"../mvr_orvane/app", false},
                        {"app/..", false},
                        {"link", false},
                        {"link/mvr_orvane", false},
                        {"app/.", false},
                        {"//app//", true}};
    fs::create_directories(m_path / "out/mvr_orvane/log.1");
    for (const Row& row : arow)
    {
        Make("app", 5);
        Make("other", 5);
        for (const char* szVariable : m_aszVariable)
        {
            std::error_code error;
            fs::create_directory_symlink(m_path / "out", Brand(szVariable) / "link", error);
        }
        Run({"--clean", "--hourstokeep=3", std::string("--subfolder=") + row.szSubfolder});
        EXPECT_EQ(Left("app"), row.blCleaned ? 0 : 3) << row.szSubfolder;
        EXPECT_EQ(Left("other"), 3) << row.szSubfolder;
    }
    EXPECT_TRUE(fs::exists(m_path / "out/mvr_orvane/log.1"));
}
