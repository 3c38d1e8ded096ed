// log_locks_test.cpp: what a log call holds while its thread is ended by force, or while the process is forked: nothing
// of it is left for others to wait for, and no line is lost, doubled or mixed.
#include "collector_client_support.h"

#include "os_coslogfolder.h"
#include "os_costhread.h"

#include "plat_fork.h"
#include "plat_thread.h"

#include <algorithm>
#include <cstring>
#include <optional>
#include <thread>

namespace
{
struct Numbered
{
    size_t sizetThread;
    size_t sizetLine;
};

// A line of one of the case's threads: who, and its how-maniest.
std::optional<Numbered> NumberedOf(const std::string& a_strLine)
{
    Numbered numbered{};
    char chEnd = '\0';
    const size_t sizetMessage = a_strLine.find(" V. ");
    if (sizetMessage == std::string::npos ||
        sscanf(a_strLine.c_str() + sizetMessage, " V. %zu %zu%c", &numbered.sizetThread, &numbered.sizetLine, &chEnd) !=
            3 ||
        chEnd != '.')
        return std::nullopt;
    return numbered;
}

// Each thread's lines are there once and in order, from the first to the last.
template <size_t sizetThreads>
void ExpectInOrder(const Texts& a_vecstr, const std::atomic<size_t> (&a_asizetLogged)[sizetThreads])
{
    size_t asizetLast[sizetThreads] = {};
    for (const std::string& strLine : a_vecstr)
    {
        const std::optional<Numbered> optionalNumbered = NumberedOf(strLine);
        if (!optionalNumbered)
            continue;
        ASSERT_LT(optionalNumbered->sizetThread, sizetThreads) << strLine;
        ASSERT_EQ(optionalNumbered->sizetLine, ++asizetLast[optionalNumbered->sizetThread]) << strLine;
    }
    for (size_t sizetThread = 0; sizetThread < sizetThreads; ++sizetThread)
        EXPECT_EQ(asizetLast[sizetThread], a_asizetLogged[sizetThread]);
}

void LogNumbered(size_t a_sizetThread, size_t a_sizetLine, size_t a_sizetPadding)
{
    OSLOG_AT("os/source/os_test", 12, OS_LOG_NOTE, "%zu %zu.%*s", a_sizetThread, a_sizetLine,
             static_cast<int>(a_sizetPadding), "");   // nothing of its own: the thread may be ended here
}
}   // namespace

// ----------------------------------------------------------------------------------------------- ended by force

// The collector stands still: one thread is sending, the others wait for it. Whoever stops them does not.
TEST_F(CollectorOfOurs, TerminatedSenderLeavesTheConnectionUsable)
{
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "that sanitizer waits for the end of every thread itself";
#endif
    static constexpr size_t sizetThreads = 3;
    static constexpr int32_t i32Timeout = 100;
    static std::atomic<size_t> g_asizetLogged[sizetThreads + 1];
    static std::atomic<bool> g_blEnd{false};
    BeginAccepted();
    COsThread aosthread[sizetThreads];
    uint64_t au64Id[sizetThreads];
    const OsThreadProc osthreadproc = [](COsThread* a_posthread) -> uint32_t {
        const auto sizetThread = reinterpret_cast<size_t>(a_posthread->Argument());
        while (!g_blEnd)
            LogNumbered(sizetThread, ++g_asizetLogged[sizetThread], 1000);
        return 0;
    };
    for (size_t sizetThread = 0; sizetThread < sizetThreads; ++sizetThread)
    {
        ASSERT_EQ(aosthread[sizetThread].Start("Logs", osthreadproc, reinterpret_cast<void*>(sizetThread)),
                  EOSSTS_SUCCESS);
        au64Id[sizetThread] = aosthread[sizetThread].Id();
    }
    const auto logged = [] { return g_asizetLogged[0] + g_asizetLogged[1] + g_asizetLogged[2]; };
    EXPECT_TRUE(WaitFor([&] {
        const size_t sizetBefore = logged();
        PlatSleep(200);
        return sizetBefore > 0 && logged() == sizetBefore;
    }));

    const uint64_t u64Begin = PlatTicks();
    for (COsThread& osthread : aosthread)
        osthread.Stop(false, i32Timeout);
    EXPECT_LT(PlatTicks() - u64Begin, sizetThreads * (i32Timeout + PLAT_TERMINATEWAIT) + 1700);
    LogNumbered(sizetThreads, ++g_asizetLogged[sizetThreads], 0);   // when the collector is given up
    for (const uint64_t u64Id : au64Id)
        EXPECT_TRUE(WaitFor([u64Id] { return !PlatThreadIsAlive(u64Id); }));
    LogNumbered(sizetThreads, ++g_asizetLogged[sizetThreads], 0);
    m_uniqueLog.reset();

    WriteWhole(PathOf("stream"), ReadStream(m_ossocketStream).substr(Header(m_strLog).size()));
    Texts vecstr = LinesOf(PathOf("stream"));
    const Texts vecstrOwn = LinesOf(PathOf("a-own.log"));
    vecstr.insert(vecstr.end(), vecstrOwn.begin(), vecstrOwn.end());
    ExpectInOrder(vecstr, g_asizetLogged);
    const auto count = [&](const char* a_szPart) {
        return std::count_if(vecstr.begin(), vecstr.end(), [a_szPart](const std::string& a_strLine) {
            return a_strLine.find(a_szPart) != std::string::npos;
        });
    };
    EXPECT_EQ(count("thr>>> stopping...<"), 3);
    EXPECT_EQ(count("cannot be terminated now, so we're leaving it...<"), 3);
}

// -------------------------------------------------------------------------------------------------------- a fork

// Four threads of the parent log while each of its forks logs, ends its logger and exits.
class LogFork : public CollectorClient
{
protected:
    static constexpr size_t sizetThreads = 4, sizetForks = 20, sizetForkLines = 30;

    LogFork() { m_strLog = PathOf("log.1/a.log"); }
    void SetUp() override { fs::create_directory(PathOf("log.1")); }

    // In the fork: whoever waits for ever is ended by the clock.
    void LogAndEnd()
    {
        alarm(20);
        for (size_t sizetLine = 1; sizetLine <= sizetForkLines; ++sizetLine)
            LogNumbered(0, sizetLine, 0);
        m_uniqueLog.reset();
        _exit(0);
    }

    void ForkWhileOthersLog()
    {
        std::atomic<bool> blStop{false};
        std::vector<std::jthread> vecjthread;
        for (size_t sizetThread = 0; sizetThread < sizetThreads; ++sizetThread)
        {
            vecjthread.emplace_back([&, sizetThread] {
                while (!blStop)
                    LogNumbered(sizetThread, ++m_asizetLogged[sizetThread], 0);
            });
        }
        for (size_t sizetFork = 0; sizetFork < sizetForks; ++sizetFork)
        {
            const pid_t pid = fork();
            if (pid == 0)
                LogAndEnd();
            int iStatus = -1;
            EXPECT_EQ(waitpid(pid, &iStatus, 0), pid);
            EXPECT_EQ(iStatus, 0);
            m_vecpid.push_back(pid);
        }
        blStop = true;
    }

    void ExpectTheForksLogs() const
    {
        std::atomic<size_t> asizetLogged[1] = {sizetForkLines};
        for (const pid_t pid : m_vecpid)
        {
            const Texts vecstr = LinesOf(PathOf("log.1/a-" + std::to_string(pid) + ".log"));
            ASSERT_GT(vecstr.size(), sizetForkLines);
            EXPECT_TRUE(Matches(vecstr[0], "00000 \\d{12} os/source/os_coslog .* VP log goes on here, in a fork of its "
                                           "process\\.\\.\\.<" +
                                               m_strLog + ">"));
            EXPECT_TRUE(vecstr[1].starts_with("00001 ")) << vecstr[1];
            ExpectInOrder(vecstr, asizetLogged);
        }
    }

    std::atomic<size_t> m_asizetLogged[sizetThreads] = {};
    std::vector<pid_t> m_vecpid;
};

TEST_F(LogFork, LogsBesideTheFileAndLeavesTheStreamAlone)
{
    BeginCollected();
    ForkWhileOthersLog();
    EXPECT_TRUE(m_uniqueLog->UsesCollector());
    EXPECT_TRUE(COsLogFolderLock::IsHeldByOthers(PathOf("log.1").c_str()));
    m_uniqueLog.reset();
    WaitForCollectorsEnd();
    ExpectInOrder(Lines(), m_asizetLogged);
    ExpectTheForksLogs();
}

// A process that has no collector is forked as well, and forks again.
TEST_F(LogFork, OfAProcessWithItsOwnFileLogsBesideIt)
{
    Begin();
    ForkWhileOthersLog();
    const auto grandchild = [this] {
        return InOtherProcess([] { return true; },
                              [this] {
                                  LogNumbered(0, 1, 0);
                                  m_uniqueLog.reset();
                                  return MessagesOf(PathOf("log.1/a-" + std::to_string(getpid()) + ".log")).size() != 2;
                              });
    };
    EXPECT_EQ(InOtherProcess([] { return true; }, grandchild), 0);
    EXPECT_TRUE(COsLogFolderLock::IsHeldByOthers(PathOf("log.1").c_str()));
    m_uniqueLog.reset();
    EXPECT_FALSE(COsLogFolderLock::IsHeldByOthers(PathOf("log.1").c_str()));
    ExpectInOrder(Lines(), m_asizetLogged);
    ExpectTheForksLogs();
}

// Or the stream of a parent that is killed would end with its fork.
TEST_F(CollectorOfOurs, AForkLetsGoOfTheConnection)
{
    const auto countSockets = [] {
        int iSockets = 0;
        for (const auto& entry : fs::directory_iterator("/proc/self/fd"))
        {
            std::error_code errorcode;
            iSockets += fs::read_symlink(entry.path(), errorcode).string().starts_with("socket:");
        }
        return iSockets;
    };
    BeginAccepted();
    const int iSockets = countSockets();
    EXPECT_EQ(InOtherProcess([] { return true; }, [&] { return countSockets(); }), iSockets - 1);
}

int main(int a_iArguments, char** a_aszArgument)
{
    return RunOutsideTheCollectorsPath(a_iArguments, a_aszArgument);
}
