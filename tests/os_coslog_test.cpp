// os_coslog_test.cpp: the log call: which lines are written, how they look, where they go, and what never happens.
#include "log_support.h"

#include "plat_thread.h"

#include <csignal>
#include <cstring>
#include <set>
#include <sys/time.h>
#include <thread>

static constexpr char g_szSource[] = "os/source/os_test";

// ------------------------------------------------------------------------------------------------------- the line

TEST_F(LoggerTest, ALineIsRightToTheCharacter)
{
    Begin();
    PlatSetLastError(1234);
    OSLOG_AT("c:\\src\\Os_CosSocket.src", 12, OS_LOG_NOTE, OsWideFormat("value <%s> %I64d"), "x", 5LL);
    EXPECT_EQ(PlatGetLastError(), 1234u);
    OSLOG_AT("C:/Some/Where/Quite/Deep/Down/In/A/Tree/x.y.cpp", 123456, OS_LOG_CHECK, OsWideFormat(""), 0);
    const Texts vecstr = Lines();
    ASSERT_EQ(vecstr.size(), 9u);   // six of the header, the first line, two
    char szThread[32];
    snprintf(szThread, sizeof szThread, "%04llu", static_cast<unsigned long long>(PlatThreadId()));
    const std::string strThread(szThread);
    EXPECT_TRUE(Matches(vecstr[6], "00006 \\d{12} os/source/os_test {19}12 +\\d+ T\\d{4,} S9 VE first"));
    EXPECT_TRUE(Matches(vecstr[7], "00007 ([01]\\d|2[0-3])[0-5]\\d[0-5]\\d\\d{6} os_cossocket {24}"
                                   "12  1234 T" +
                                       strThread + " S9 V\\. value <x> 5"))
        << vecstr[7];
    EXPECT_TRUE(
        Matches(vecstr[8], "00008 \\d{12} c:/some/where/quite/deep/down/in 123456  1234 T" + strThread + " S9 VA "))
        << vecstr[8];
}

TEST_F(LoggerTest, ALongMessageIsWrittenWhole)
{
    Begin();
    OSLOG(OS_LOG_NOTE, OsWideFormat("%y"), 0);   // cannot be formatted, and takes no number
    for (const size_t sizet : {7935u, 7936u, 8191u, 20000u, 300000u})
        Log(OS_LOG_NOTE, std::string(sizet, 'x') + "|");
    EXPECT_EQ(Lines().back().substr(0, 5), "00011");
    const Texts vecstr = Messages();
    ASSERT_EQ(vecstr.size(), 6u);
    EXPECT_EQ(vecstr[4], std::string(20000, 'x') + "|");
    EXPECT_EQ(vecstr[5].size(), 300001u);
}

TEST_F(LoggerTest, DeterministicLinesShowNothingThatDiffers)
{
    Begin(OS_LOGFLAG_DETERMINISTIC);
    PlatSetLastError(77);
    Log(OS_LOG_NOTE, "x");
    EXPECT_TRUE(Matches(Lines().back(), "00000 000000000\\d{3} os/source/os_test {19}12     0 "
                                        "T\\d{4,} S9 V\\. x"));
}

// ------------------------------------------------------------------------------------------------ what is written

TEST_F(LoggerTest, FlagsChooseTheLevels)
{
    const std::pair<uint32_t, Texts> apair[] = {
        {0, {"1", "2", "4", "8", "64", "128", "256", "4352"}},
        {OS_LOGFLAG_LEVEL32, {"1", "2", "4", "8", "32", "64", "128", "256", "4352"}},
        {OS_LOGFLAG_ONLY8, {"1", "8", "64"}},
        {OS_LOGFLAG_ONLYMEMORY, {"1", "64", "256", "4352"}},
        {OS_LOGFLAG_MILESTONES, {"1", "64", "128"}},
    };
    for (auto [u32Flags, vecstr] : apair)
    {
        m_strLog = PathOf("flags" + std::to_string(u32Flags) + ".log");
        m_uniqueLog.reset();
        Begin(u32Flags);
        for (const uint32_t u32Level : {1u, 2u, 4u, 8u, 32u, 64u, 128u, 256u, 4352u})
            Log(u32Level, std::to_string(u32Level));
        vecstr.insert(vecstr.begin(), "first");
        EXPECT_EQ(Messages(), vecstr) << u32Flags;
    }
}

TEST_F(LoggerTest, TheWorkingWordHasTheBitsThatMeanNothingTakenOut)
{
    Create({.u32Flags = 0x6702});
    EXPECT_EQ(m_uniqueLog->WorkingWord(), 0x202u);
    m_uniqueLog->Start(m_strLog.c_str(), 0x6F27, "");
    EXPECT_EQ(OsLogWorkingWord(), 0xA21u);   // the line of the start has taken the flush bit
}

TEST_F(LoggerTest, TheFilterChoosesTheSources)
{
    const auto logFrom = [](std::initializer_list<const char*> a_listszSource) {
        for (const char* szSource : a_listszSource)
            Log(OS_LOG_NOTE, szSource, szSource);
    };
    Begin(0, "  SOCK\t ~cossocketssl");
    logFrom({"os_cossocket", "os_CosSocketSsl", "os_cosfile"});
    Log(OS_LOG_ERROR, "errors pass", "os_cosfile");
    m_uniqueLog->Start(nullptr, 0, nullptr);   // keeps both
    logFrom({"os_cosfile", "os_cossocket"});
    m_uniqueLog->Start(nullptr, 0, "~file");
    logFrom({"os_cosfile", "os_cosmem"});

    std::string strTokens;
    for (int i = 0; i < 31; ++i)
        strTokens += "q ";
    m_uniqueLog->Start(nullptr, 0, (strTokens + "mem").c_str());   // one token too many
    logFrom({"os_cosmem"});
    m_uniqueLog->Start(nullptr, 0, "");
    logFrom({"os_cosmem"});
    EXPECT_EQ(Messages(), (Texts{"first", "os_cossocket", "errors pass", "os_cossocket", "os_cosmem", "os_cosmem"}));
}

// The text of a source decides, not the place where it stands, and the filter that is in force now.
TEST_F(LoggerTest, TheFilterSeesThatASourceChanges)
{
    Begin();
    char szFile[128];
    for (const char* szFilter : {"7", "~7", "7"})
    {
        m_uniqueLog->Start(nullptr, 0, szFilter);
        for (int i = 0; i < 40; ++i)
        {
            snprintf(szFile, sizeof szFile, "source%0*d", i < 20 ? 1 : 80, i % 10);   // short and long ones
            Log(OS_LOG_NOTE, szFile + std::strlen(szFile) - 1, szFile);
        }
    }
    const Texts vecstr = Messages();
    EXPECT_EQ(vecstr.size(), 1u + 4 + 36 + 4);
    EXPECT_EQ(std::count(vecstr.begin(), vecstr.end(), "7"), 8);
}

TEST_F(LoggerTest, TheEnvironmentSwitchesTheLoggingOff)
{
    setenv("MVR_NOLOGGING", "11", 1);
    Begin();
    m_uniqueLog.reset();
    setenv("MVR_NOLOGGING", "1", 1);
    OsLogSetState(OS_LOGSTATE_ALLOW);
    Begin();
    EXPECT_EQ(OsLogGetState(), OS_LOGSTATE_OFF);
    EXPECT_EQ(Messages(), (Texts{"first"}));
}

TEST_F(LoggerTest, APathThatIsNoLogFileIsNotWritten)
{
    Create();
    for (const char* szName : {"a.txt", "alog", "log", "a.LOG"})
    {
        m_uniqueLog->Start(PathOf(szName).c_str(), 0, "");
        Log(OS_LOG_ERROR, "x");
        EXPECT_FALSE(std::filesystem::exists(PathOf(szName)));
    }
    EXPECT_EQ(OsLogGetState(), OS_LOGSTATE_ON);
}

// --------------------------------------------------------------------------------------------------- start, paths

TEST_F(LoggerTest, OnlyAnotherPathGetsAHeader)
{
    Begin();
    m_uniqueLog->Start(m_strLog.c_str(), 1, "");   // brings the line of the start
    EXPECT_EQ(Lines().size(), 8u);
    EXPECT_NE(Lines().back().find(" VP ### OsServicesStart..."), std::string::npos);

    m_uniqueLog->Start(PathOf("b.log").c_str(), 0, "");
    Log(OS_LOG_NOTE, "b");
    EXPECT_EQ(LinesOf(PathOf("b.log")).back().substr(0, 5), "00006");
    EXPECT_EQ(Lines().size(), 8u);
    m_uniqueLog->Start(m_strLog.c_str(), 0, "");
    Log(OS_LOG_NOTE, "a again");
    EXPECT_EQ(Lines().size(), 15u);
}

TEST_F(LoggerTest, APathMayBeginWithAVariable)
{
    setenv("MVR_TESTPLACE", m_path.c_str(), 1);
    Create({.szLogFile = "@MVR_TESTPLACE@/x.y.log"});
    EXPECT_EQ(std::string(m_uniqueLog->LogFile()).substr(m_path.string().size()), "\\x.y_os_coslog_test.log");
    m_uniqueLog->Start("@MVR_TESTPLACE@/x.log", 0, "");
    EXPECT_EQ(m_uniqueLog->LogFile(), PathOf("x.log"));
    m_uniqueLog->Start("@MVR_NOSUCHPLACE@/x.log", 0, "");
    EXPECT_STREQ(m_uniqueLog->LogFile(), "./x.log");
    m_uniqueLog->Start("@x.log", 0, "");
    EXPECT_STREQ(m_uniqueLog->LogFile(), "@x.log");
}

TEST_F(LoggerTest, ARunMayBeRedirected)
{
    setenv("MVR_DEBUGDIR", PathOf("deep/down").c_str(), 1);
    Begin();
    EXPECT_FALSE(std::filesystem::exists(m_strLog));
    const std::string strLog = std::filesystem::directory_iterator(PathOf("deep/down"))->path();
    EXPECT_TRUE(Matches(strLog, ".*/20\\d{15}\\.log")) << strLog;
    EXPECT_EQ(LinesOf(strLog).size(), 7u);
}

TEST_F(LoggerTest, APathThatCannotBeCreatedSwitchesTheLoggingOff)
{
    std::filesystem::create_directory(PathOf("folder.log"));
    for (const std::string& strPath : {PathOf("\xFF\xFE.log"), PathOf("folder.log"), std::string()})
    {
        m_uniqueLog.reset();
        Create();
        OsLogSetState(OS_LOGSTATE_ALLOW);
        m_uniqueLog->Start(strPath.c_str(), 0, "");
        Log(OS_LOG_CHECK, "x");
        EXPECT_EQ(OsLogGetState(), OS_LOGSTATE_OFF) << strPath;
    }
}

// -------------------------------------------------------------------------------------------------- whose file it is

TEST_F(LoggerTest, AFileThatIsTakenAwayIsCreatedAnew)
{
    Begin();
    std::filesystem::remove(m_strLog);
    Log(OS_LOG_NOTE, "anew");
    EXPECT_EQ(Messages(), (Texts{"anew"}));
    std::filesystem::rename(m_strLog, PathOf("old"));
    Log(OS_LOG_NOTE, "moved");
    EXPECT_EQ(MessagesOf(PathOf("old")), (Texts{"anew"}));
    WriteWhole(PathOf("other"), "");
    std::filesystem::rename(PathOf("other"), m_strLog);
    Log(OS_LOG_NOTE, "replaced");
    EXPECT_EQ(Messages(), (Texts{"replaced"}));

    std::ofstream(m_strLog, std::ios::app) << "not ours\r\n";
    Log(OS_LOG_NOTE, "behind it");
    EXPECT_TRUE(ReadWhole(m_strLog).ends_with(" V. behind it\r\n"));
    EXPECT_NE(ReadWhole(m_strLog).find(" V. replaced\r\nnot ours\r\n000"), std::string::npos);
}

// ------------------------------------------------------------------------------------------------------- threads

// Whoever comes while another thread writes the header waits for it.
TEST_F(LoggerTest, ThreadsWriteWholeLinesNumberedWithoutAGap)
{
    Log(OS_LOG_ERROR, "no logger");
    Create();
    Log(OS_LOG_ERROR, "not started");
    m_uniqueLog->Start(m_strLog.c_str(), 0, "");
    std::atomic<int> iReady{0};
    InThreads(8, [&iReady](int a_iThread) {
        for (++iReady; iReady < 8;)
            std::this_thread::yield();
        for (int i = 0; i < 5000; ++i)
            OSLOG(OS_LOG_NOTE, "thread %d line %d %s", a_iThread, i, "........................................");
    });

    const Texts vecstr = Lines();
    ASSERT_EQ(vecstr.size(), 40006u);
    std::set<std::string> setstrNumber;
    std::set<std::string> setstrMessage;
    for (size_t sizet = 6; sizet < vecstr.size(); ++sizet)
    {
        setstrNumber.insert(vecstr[sizet].substr(0, 5));
        setstrMessage.insert(vecstr[sizet].substr(vecstr[sizet].find("thread ")));
    }
    EXPECT_EQ(setstrMessage.size(), 40000u);
    EXPECT_EQ(setstrNumber.size(), 40000u);
    EXPECT_EQ(*setstrNumber.begin(), "00006");
    EXPECT_EQ(*setstrNumber.rbegin(), "40005");
}

TEST_F(LoggerTest, ARestartAmongLinesLosesNone)
{
    Begin();
    const std::jthread jthread([&](const std::stop_token& a_stoptoken) {
        for (int i = 0; !a_stoptoken.stop_requested(); ++i)
        {
            m_uniqueLog->Start(m_strLog.c_str(), 0, i % 2 ? "os" : "");
            m_uniqueLog->Flush();
        }
    });
    for (int i = 0; i < 2000; ++i)
        Log(OS_LOG_NOTE, std::to_string(i));
    EXPECT_EQ(Messages().size(), 2001u);
    EXPECT_EQ(std::stoi(Lines().back().substr(0, 5)), static_cast<int>(Lines().size()) - 1);
}

TEST_F(LoggerTest, The65thThreadWaitsForTheEndOfAnother)
{
    Begin();
    std::atomic<int> iLogged{0};
    std::atomic<int> iLeave{0};
    std::vector<std::thread> vecthread;
    vecthread.reserve(64);
    for (int iThread = 0; iThread < 63; ++iThread)
    {
        vecthread.emplace_back([&, iThread] {
            Log(OS_LOG_NOTE, "t");
            ++iLogged;
            WaitFor([&] { return iLeave > iThread; });
        });
    }
    WaitFor([&] { return iLogged == 63; });
    std::thread([] { Log(OS_LOG_CHECK, "dropped"); }).join();
    EXPECT_EQ(m_uniqueLog->Health().au64Lost[OS_LOGLOST_THREADS], 1u);
    iLeave = 1;
    vecthread[0].join();
    std::thread([] { Log(OS_LOG_NOTE, "written"); }).join();
    iLeave = 63;
    for (size_t sizet = 1; sizet < vecthread.size(); ++sizet)
        vecthread[sizet].join();
    const Texts vecstr = Messages();
    ASSERT_EQ(vecstr.size(), 66u);
    EXPECT_EQ(vecstr[64], "written");
    EXPECT_EQ(vecstr[65], "lines were lost...1 (more than 64 threads)");
}

static const char* LogFromInside(const char*, const char*)
{
    OSLOG(OS_LOG_ERROR, "from inside");
    OSLOG(OS_LOG_CHECK, "from inside");
    return nullptr;
}

TEST_F(LoggerTest, ALineFromInsideTheLoggerIsDropped)
{
    g_poslogresourceproc = LogFromInside;
    Begin();
    g_poslogresourceproc = nullptr;
    EXPECT_EQ(Messages(), (Texts{"first"}));
}

static void LogFromSignal(int)
{
    static int g_iCall = 0;
    OSLOG(++g_iCall % 64 ? OS_LOG_NOTE : OS_LOG_CHECK, "signal");
}

TEST_F(LoggerTest, ASignalHandlerThatLogsNeverBlocksNorMixesLines)
{
    setenv("MVR_ASSERT", "1", 1);
    Begin();
    std::signal(SIGALRM, LogFromSignal);
    itimerval timer = {{0, 200}, {0, 200}};
    setitimer(ITIMER_REAL, &timer, nullptr);
    for (int i = 0; i < 3000; ++i)
        Log(i % 64 ? OS_LOG_NOTE : OS_LOG_CHECK, "line");
    timer = {};
    setitimer(ITIMER_REAL, &timer, nullptr);
    const Texts vecstr = Messages();
    EXPECT_EQ(std::count(vecstr.begin(), vecstr.end(), "line"), 3000);
    EXPECT_EQ(std::stoi(Lines().back().substr(0, 5)), static_cast<int>(Lines().size()) - 1);
}

// ------------------------------------------------------------------------------------------------ failed checks

TEST_F(LoggerTest, FailedChecksAreToldOnStandardErrorWhenWanted)
{
    testing::internal::CaptureStderr();
    Begin(1);
    OSLOG_AT("a_file", 7, OS_LOG_CHECK, "check %d", 1);
    m_uniqueLog->Start(nullptr, 0, nullptr);
    OSLOG_AT("a_file", 8, OS_LOG_CHECK, "check");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "<a_file> <7> <check %d>\r\n");
}
