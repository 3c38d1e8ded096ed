// os_coslog_health_test.cpp: what the logger tells of itself: in its answer, in its log, and in the status file,
// through which it can be told other flags.
#include "log_support.h"

#include "os_coscfg.h"
#include "os_coslogstatus_record.h"

#include "plat_fork.h"
#include "plat_process.h"

#include <csignal>
#include <cstddef>
#include <sys/stat.h>

namespace fs = std::filesystem;

class LogHealth : public LoggerTest
{
protected:
    LogHealth() { OsCfgCommonInstall(); }

    fs::path StatusFile(uint64_t a_u64ProcessId = PlatProcessId()) const
    {
        return m_path / "system/LOCALAPPDATA/mvr_orvane/common/logcollector" / ("status." + std::to_string(geteuid())) /
               (std::to_string(a_u64ProcessId) + ".status");
    }
    static std::vector<OsLogStatus> Statuses(bool a_blRemoveStale = false)
    {
        std::vector<OsLogStatus> vecoslogstatus;
        OsLogStatusList(
            [](void* a_pvContext, const OsLogStatus& a_oslogstatus) {
                static_cast<std::vector<OsLogStatus>*>(a_pvContext)->push_back(a_oslogstatus);
                return true;
            },
            &vecoslogstatus, a_blRemoveStale);
        return vecoslogstatus;
    }
    OsLogHealth Health() const { return m_uniqueLog->Health(); }
};

// -------------------------------------------------------------------------------------------------- what is lost

TEST_F(LogHealth, AFolderThatRefusesIsToldWhenItTakesLinesAgain)
{
    m_strLog = PathOf("logs/a.log");
    fs::create_directory(PathOf("logs"));
    Begin();
    uint64_t u64Told = 0;
    for (const char* const szMoved : {"once", "twice"})
    {
        fs::rename(PathOf("logs"), PathOf(szMoved));
        WriteWhole(PathOf("logs"), "a file in the folder's place");
        for (int i = 0; i < 5; ++i)
            Log(OS_LOG_NOTE, "lost");
        EXPECT_EQ(Health().eoslogwhere, OS_LOGWHERE_NOWHERE);
        EXPECT_EQ(Health().au64Lost[OS_LOGLOST_FILE], u64Told + 5);
        EXPECT_NE(Health().u32LastError, 0u);
        EXPECT_EQ(Health().szLastErrorPath, m_strLog);
        EXPECT_EQ(Statuses().front().osloghealth.szLastErrorPath, m_strLog);

        fs::remove(PathOf("logs"));
        ASSERT_TRUE(WaitFor([&] {
            Log(OS_LOG_NOTE, "written");
            return Messages().size() >= 2;
        }));
        const uint64_t u64Lost = Health().au64Lost[OS_LOGLOST_FILE];
        EXPECT_EQ(Messages().back(),
                  "lines were lost..." + std::to_string(u64Lost - u64Told) + " (folder or file cannot be written)");
        u64Told = u64Lost;
    }
}

TEST_F(LogHealth, WithoutAFirstFileLinesCountWithoutRetry)
{
    WriteWhole(PathOf("file"), "");
    m_strLog = PathOf("file/a.log");
    Begin();
    fs::remove(PathOf("file"));
    fs::create_directory(PathOf("file"));
    Log(OS_LOG_NOTE, "x");
    EXPECT_EQ(OsLogGetState(), OS_LOGSTATE_OFF);
    EXPECT_EQ(Health().eoslogwhere, OS_LOGWHERE_NOWHERE);
    EXPECT_EQ(Health().au64Lost[OS_LOGLOST_FILE], 2u);
    EXPECT_EQ(Statuses().front().osloghealth.au64Lost[OS_LOGLOST_FILE], 2u);
}

TEST_F(LogHealth, WhereLoggingIsForbiddenNothingIsLostAndNoFileMade)
{
    setenv("MVR_NOLOGGING", "1", 1);
    Begin();
    EXPECT_EQ(OsLogLostSum(Health()), 0u);
    EXPECT_FALSE(fs::exists(StatusFile()));
}

// ------------------------------------------------------------------------------------------------- the status file

TEST_F(LogHealth, TheStatusFileTellsWhatTheLoggerDoes)
{
    umask(0);
    Begin(OS_LOGFLAG_MILESTONES);
    const std::vector<OsLogStatus> vecoslogstatus = Statuses();
    ASSERT_EQ(vecoslogstatus.size(), 1u);
    const OsLogStatus& oslogstatus = vecoslogstatus[0];
    EXPECT_TRUE(oslogstatus.blRuns);
    EXPECT_EQ(oslogstatus.u64ProcessId, PlatProcessId());
    EXPECT_EQ(oslogstatus.u32Kind, OS_LOGSTATUS_LOGS);
    EXPECT_EQ(oslogstatus.u32Flags, OS_LOGFLAG_MILESTONES);
    EXPECT_EQ(oslogstatus.szLogFile, m_strLog);
    EXPECT_EQ(oslogstatus.osloghealth.eoslogwhere, OS_LOGWHERE_OWNFILE);
    EXPECT_EQ(oslogstatus.osloghealth.u64Written, Lines().size());
    EXPECT_EQ(fs::status(StatusFile()).permissions(), fs::perms::owner_read | fs::perms::owner_write);
    EXPECT_EQ(fs::status(StatusFile().parent_path()).permissions(), fs::perms::owner_all);
    m_uniqueLog.reset();
    EXPECT_FALSE(fs::exists(StatusFile()));
}

TEST_F(LogHealth, FlagsThatAreAskedForHoldUntilTheNextStart)
{
    Begin(OS_LOGFLAG_MILESTONES);
    Log(OS_LOG_NOTE, "suppressed");
    ASSERT_EQ(OsLogStatusAskFlags(PlatProcessId(), 1 | OS_LOGFLAG_LEVEL32), EOSSTS_SUCCESS);
    EXPECT_EQ(OsLogWorkingWord(), 1u);
    Log(32, "raised");
    EXPECT_EQ(Statuses().front().u32Flags, 1 | OS_LOGFLAG_LEVEL32);
    ASSERT_EQ(OsLogStatusAskFlags(PlatProcessId(), OS_LOGFLAG_MILESTONES), EOSSTS_SUCCESS);
    Log(32, "suppressed");
    OsLogSetWorkingWord(1);
    ASSERT_EQ(OsLogStatusAskFlags(PlatProcessId(), OS_LOGFLAG_MILESTONES), EOSSTS_SUCCESS);   // the same again
    EXPECT_EQ(OsLogWorkingWord(), OS_LOGFLAG_MILESTONES);
    m_uniqueLog->Start(nullptr, 0, nullptr);
    Log(OS_LOG_NOTE, "started again");
    EXPECT_EQ(OsLogWorkingWord(), 0u);
    EXPECT_EQ(Messages(), (Texts{"first", "raised", "started again"}));
    EXPECT_EQ(OsLogStatusAskFlags(1, 0), EOSSTS_NOTFOUND);
}

TEST_F(LogHealth, ACutStatusFileCostsNeitherProcessNorLines)
{
    Begin(OS_LOGFLAG_MILESTONES);
    OsLogStatusAskFlags(PlatProcessId(), 1);
    EXPECT_EQ(OsLogWorkingWord(), 1u);
    fs::resize_file(StatusFile(), 0);
    InThreads(2, [](int) { Log(OS_LOG_NOTE, "x"); });
    EXPECT_EQ(OsLogWorkingWord(), 1u);
    EXPECT_EQ(Messages(), (Texts{"first", "x", "x"}));
    EXPECT_EQ(Health().u64Written, Lines().size());
    EXPECT_TRUE(Statuses().empty());
    EXPECT_NE(OsLogStatusAskFlags(PlatProcessId(), 0), EOSSTS_SUCCESS);
}

TEST_F(LogHealth, AForkedProcessLeavesTheFileToItsParent)
{
    Begin();
    const uint64_t u64Written = Statuses().front().osloghealth.u64Written;
    EXPECT_EQ(InOtherProcess([] { return true; },
                             [&] {
                                 Log(OS_LOG_NOTE, "of the child");
                                 m_uniqueLog.reset();
                                 return 0;
                             }),
              0);
    ASSERT_EQ(Statuses().size(), 1u);
    EXPECT_EQ(Statuses().front().osloghealth.u64Written, u64Written);
}

// Its process has gone, or another one has its id; one that says nothing may just be written.
TEST_F(LogHealth, FilesOfProcessesThatHaveGoneAreRemoved)
{
    Begin();
    const auto forked = [](void (*a_pfnDo)()) {
        const pid_t pid = fork();
        if (pid == 0)
            a_pfnDo();
        return pid;
    };
    const pid_t pidGone = forked([] { _exit(0); });
    const pid_t pidWriting = forked([] { pause(); });
    waitpid(pidGone, nullptr, 0);
    const auto u64Gone = static_cast<uint64_t>(pidGone);
    const auto u64Writing = static_cast<uint64_t>(pidWriting);
    const auto u64Other = static_cast<uint64_t>(getppid());
    for (const uint64_t u64ProcessId : {u64Gone, u64Other})
    {
        fs::copy_file(StatusFile(), StatusFile(u64ProcessId));
        Overwrite(StatusFile(u64ProcessId), offsetof(OsLogStatusRecord, u64ProcessId),
                  std::string(reinterpret_cast<const char*>(&u64ProcessId), sizeof u64ProcessId));
    }
    WriteWhole(StatusFile(u64Writing), "");
    size_t sizetRuns = 0;
    for (const OsLogStatus& oslogstatus : Statuses(true))
        sizetRuns += oslogstatus.blRuns;
    EXPECT_EQ(sizetRuns, 1u);
    EXPECT_FALSE(fs::exists(StatusFile(u64Gone)) || fs::exists(StatusFile(u64Other)));
    EXPECT_TRUE(fs::exists(StatusFile(u64Writing)) && fs::exists(StatusFile()));
    kill(pidWriting, SIGKILL);
    waitpid(pidWriting, nullptr, 0);
}

TEST_F(LogHealth, NoStatusFileIsMadeWhereOthersMayWrite)
{
    fs::create_directories(StatusFile().parent_path());
    fs::permissions(StatusFile().parent_path(), fs::perms{0777});
    Begin();
    EXPECT_FALSE(fs::exists(StatusFile()));
    EXPECT_EQ(Messages(), (Texts{"first"}));
}

TEST_F(LogHealth, LinesAreWrittenWithoutSpaceForAStatusFile)
{
    rlimit limit;
    getrlimit(RLIMIT_FSIZE, &limit);
    const rlimit limitSmall{OS_LOGSTATUS_FILESIZE - 1, limit.rlim_max};
    setrlimit(RLIMIT_FSIZE, &limitSmall);
    Begin();
    setrlimit(RLIMIT_FSIZE, &limit);
    EXPECT_EQ(Messages(), (Texts{"first"}));
    EXPECT_TRUE(fs::is_empty(StatusFile().parent_path()));
}
