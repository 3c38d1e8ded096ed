// os_costhread_test.cpp: starting, stopping and ending threads, in every way that a thread can end.
#include "os_cosenv.h"
#include "os_costhread.h"
#include "test_support.h"

#include "plat_fork.h"
#include "plat_process.h"
#include "plat_thread.h"

#include <atomic>
#include <csignal>
#include <cstring>
#include <ctime>
#include <functional>
#include <sched.h>
#include <stdexcept>
#include <thread>

static constexpr int32_t g_i32Patience = 20000;   // of a stop that is obeyed

static uint32_t ReturnAtOnce(COsThread*)
{
    return PLAT_STILLACTIVE;   // no exit value may be taken for a running thread
}

static uint32_t ExitAtOnce(COsThread* a_posthread)
{
    a_posthread->Exit();
    return 1;
}

static uint32_t Crash(COsThread*)
{
    throw std::runtime_error("out of the procedure");
}

static uint32_t UntilStopped(COsThread* a_posthread)
{
    while (a_posthread->WaitForStop(OS_INFINITE) != EOSSTS_SUCCESS)
    {
    }
    a_posthread->Exit();
    return 1;
}

static uint32_t UntilSet(COsThread* a_posthread)
{
    while (!static_cast<std::atomic<bool>*>(a_posthread->Argument())->load())
    {
    }
    return 0;
}

TEST(Thread, RunsWithItsArgumentUntilItIsStopped)
{
    LogCapture logcapture;
    logcapture.m_u32WorkingWord = 1;
    COsThread osthread;
    int iArgument = 0;
    EXPECT_EQ(osthread.WaitForStop(0), EOSSTS_FAIL);
    EXPECT_TRUE(logcapture.HasAt(OS_LOG_ERROR, "thr>>> pod.m_hEvent is NULL..."));
    EXPECT_EQ(osthread.Start(nullptr, nullptr, nullptr), EOSSTS_NOTOPEN);
    ASSERT_EQ(osthread.Start("Worker", UntilStopped, &iArgument), EOSSTS_SUCCESS);
    EXPECT_EQ(osthread.Start("Second", ReturnAtOnce, &osthread), EOSSTS_FAIL);
    EXPECT_TRUE(logcapture.HasPart("thr>>> you're already running this thread...<"));
    EXPECT_EQ(osthread.Argument(), &iArgument);
    EXPECT_TRUE(PlatThreadIsAlive(osthread.Id()));
    EXPECT_EQ(osthread.StopState(), 1u);
    EXPECT_EQ(osthread.WaitForStop(1), EOSSTS_TIMEOUT);
    EXPECT_FALSE(osthread.WaitForEnd(0));

    osthread.Stop(false, g_i32Patience);
    EXPECT_EQ(osthread.Argument(), nullptr);
    EXPECT_EQ(osthread.Id(), 0u);
    EXPECT_TRUE(osthread.WaitForEnd(0));
    for (const char* szPart : {"thr>>> starting <Worker>", "thr>>> new thread starting...",
                               "thr>>> id:", "thr>>> stopping...<", "thr>>> Exiting...<", "-Worker>"})
        EXPECT_TRUE(logcapture.HasPart(szPart)) << szPart;
    EXPECT_FALSE(logcapture.HasPart("terminating it"));
}

// However the procedure ends, the object can be stopped, started again at once, and destroyed at once; what has ended
// is not terminated.
TEST(Thread, IsFreeAgainAfterEveryKindOfEnd)
{
    LogCapture logcapture;
    for (const OsThreadProc osthreadproc : {ReturnAtOnce, ExitAtOnce, Crash})
    {
        for (int iRound = 0; iRound < 100; ++iRound)
        {
            COsThread osthread;
            ASSERT_EQ(osthread.Start("Brief", osthreadproc, nullptr), EOSSTS_SUCCESS);
            if (iRound % 2)
                continue;
            EXPECT_TRUE(osthread.WaitForEnd(OS_INFINITE));
            osthread.Stop(false, 0);
            ASSERT_EQ(osthread.Start("Brief", osthreadproc, nullptr), EOSSTS_SUCCESS);
        }
    }
    EXPECT_EQ(logcapture.Count("thr>>> thread crash detected..."), 150u);
    EXPECT_FALSE(logcapture.HasPart("terminating it"));
}

TEST(Thread, IsTerminatedWhenItDoesNotObeyInTime)
{
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "that sanitizer waits for the end of every thread itself";
#endif
    LogCapture logcapture;
    std::atomic<bool> blNever{false};
    COsThread osthread;
    ASSERT_EQ(osthread.Start("Stubborn", UntilSet, &blNever), EOSSTS_SUCCESS);
    const uint64_t u64Id = osthread.Id();
    osthread.Stop(false, 0);
    EXPECT_TRUE(WaitFor([&] { return !PlatThreadIsAlive(u64Id); }));   // the system forgets it a moment later
    EXPECT_TRUE(logcapture.HasPart("isn't terminating, so we're terminating it...<"));
}

TEST(Thread, StopsItself)
{
    LogCapture logcapture;
    std::atomic<bool> blGoesOn{false};
    COsThread osthread;
    const OsThreadProc osthreadproc = [](COsThread* a_posthread) -> uint32_t {
        auto* const pblGoesOn = static_cast<std::atomic<bool>*>(a_posthread->Argument());
        a_posthread->Stop(true, 0);
        *pblGoesOn = true;
        a_posthread->Stop(false, 0);
        *pblGoesOn = false;
        return 0;
    };
    ASSERT_EQ(osthread.Start("Self", osthreadproc, &blGoesOn), EOSSTS_SUCCESS);
    EXPECT_TRUE(osthread.WaitForEnd(OS_INFINITE));
    EXPECT_TRUE(blGoesOn);
    EXPECT_EQ(osthread.Id(), 0u);
    EXPECT_TRUE(logcapture.HasPart("thr>>> ignoring request to stop ourselves (this is okay)...<"));
    EXPECT_TRUE(logcapture.HasPart("thr>>> stop called from thread it's stopping (bad programmer)...<"));
    EXPECT_FALSE(logcapture.HasPart("crash"));
    EXPECT_EQ(osthread.Start("Again", ReturnAtOnce, nullptr), EOSSTS_SUCCESS);
}

TEST(Thread, ExitTakesTheThreadsVariablesAlong)
{
    LogCapture logcapture;
    COsThread osthread;
    ASSERT_EQ(osthread.Start("Exit", UntilStopped, nullptr), EOSSTS_SUCCESS);
    char szName[128];
    SStrPrintf(szName, sizeof szName, "MVR_OSSERVICESARGUMENTSB64_%llx_%llx",
               static_cast<unsigned long long>(PlatProcessId()), static_cast<unsigned long long>(osthread.Id()));
    ASSERT_EQ(OsEnvSet(szName, "document"), EOSSTS_SUCCESS);
    osthread.Exit();
    EXPECT_TRUE(logcapture.HasPart("thr>>> bad exit attempt...<"));
    osthread.Stop(false, g_i32Patience);
    char szValue[32];
    OsEnvGet(szName, "none", sizeof szValue, szValue);
    EXPECT_STREQ(szValue, "none");
}

// A logger that cannot take the thread's first line: the procedure is never called, and the starter is told.
TEST(Thread, ThatBreaksBeforeItsProcedureIsAFailedStart)
{
    struct BrokenSink final : COsLogSink
    {
        void VPrintf(const char*, uint32_t, uint32_t, const char* a_szFormat, va_list) override
        {
            m_blHalted = m_blHalted || std::strstr(a_szFormat, "pthread_create halted while starting...");
            if (std::strstr(a_szFormat, "new thread"))
                throw std::runtime_error("no room");
        }
        uint32_t WorkingWord() const override { return 1; }
        std::atomic<bool> m_blHalted{false};
    };
    BrokenSink brokensink;
    COsThread osthread;
    g_poslogsink = &brokensink;
    EXPECT_EQ(osthread.Start("Broken", UntilStopped, nullptr), EOSSTS_FAIL);
    g_poslogsink = nullptr;
    EXPECT_TRUE(brokensink.m_blHalted);
    EXPECT_EQ(osthread.Start("Whole", UntilStopped, nullptr), EOSSTS_SUCCESS);
}

// ------------------------------------------------------------------------------- threads that do not do as they are
// told

static std::atomic<bool> g_blRelease{false};
static std::atomic<bool> g_blThere{false};

static bool WaitForRelease()
{
    g_blThere = true;
    return WaitFor([] { return g_blRelease.load(); });
}

static uint32_t SwallowExit(COsThread* a_posthread)
{
    try
    {
        a_posthread->Exit();
    }
    catch (...)
    {
    }
    return WaitForRelease();
}

static uint32_t LeaveSlowly(COsThread*)
{
    struct Slow
    {
        ~Slow() { WaitForRelease(); }
    };
    static thread_local const Slow t_slow;
    return reinterpret_cast<uintptr_t>(&t_slow) == 0;   // which makes it
}

static uint32_t BlockAllSignals(COsThread*)
{
    sigset_t sigset;
    sigfillset(&sigset);
    pthread_sigmask(SIG_SETMASK, &sigset, nullptr);
    return WaitForRelease();
}

static uint32_t PutItsEndOff(COsThread*)
{
    const PlatThreadDeferral platthreaddeferral;
    return WaitForRelease();
}

static uint64_t MillisecondsOf(const std::function<void()>& a_function)
{
    const uint64_t u64Start = PlatTicks();
    a_function();
    return PlatTicks() - u64Start;
}

TEST(Thread, StopEndsInTimeWhateverTheThreadDoes)
{
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "one sanitizer waits for the end of every thread itself, one reports what an ended one leaves";
#endif
    LogCapture logcapture;
    for (const OsThreadProc osthreadproc : {SwallowExit, LeaveSlowly, BlockAllSignals, PutItsEndOff})
    {
        g_blRelease = g_blThere = false;
        COsThread osthread;
        const bool blCanBeEnded = osthreadproc == SwallowExit || osthreadproc == LeaveSlowly;
        ASSERT_EQ(osthread.Start("Stubborn", osthreadproc, nullptr), EOSSTS_SUCCESS);
        EXPECT_TRUE(WaitFor([] { return g_blThere.load(); }));
        logcapture.Clear();
        const std::clock_t clockStart = std::clock();
        const uint64_t u64Waited = MillisecondsOf([&] { EXPECT_FALSE(osthread.WaitForEnd(100)); });
        const uint64_t u64Stopped = MillisecondsOf([&] { osthread.Stop(false, 300); });
        EXPECT_GE(u64Waited, 100u);
        EXPECT_LT(u64Waited, 4000u);
        EXPECT_GE(u64Stopped, 300u);
        EXPECT_LT(u64Stopped, 5000u);
        EXPECT_LT(std::clock() - clockStart, CLOCKS_PER_SEC / 8) << "nobody computes while he waits";
        EXPECT_TRUE(logcapture.HasPart("so we're terminating it...<"));
        EXPECT_EQ(logcapture.HasPart("cannot be terminated now, so we're leaving it...<"), !blCanBeEnded);
        EXPECT_EQ(osthread.StopState(), 1u);   // the object is free again
        EXPECT_EQ(osthread.Start("Next", UntilStopped, nullptr), EOSSTS_SUCCESS);
        g_blRelease = true;
    }
}

// Each of the two stoppers asks more than once, and neither computes meanwhile.
TEST(Thread, IsAskedAgainWhileItsStoppersSleep)
{
    LogCapture logcapture;
    COsThread osthread;
    const OsThreadProc osthreadproc = [](COsThread* a_posthread) -> uint32_t {
        EXPECT_EQ(a_posthread->WaitForStop(OS_INFINITE), EOSSTS_SUCCESS);   // taken for something else
        PlatSleep(1000);
        EXPECT_EQ(a_posthread->WaitForStop(OS_INFINITE), EOSSTS_SUCCESS);
        return a_posthread->WaitForStop(OS_INFINITE) != EOSSTS_SUCCESS;
    };
    ASSERT_EQ(osthread.Start("Deaf", osthreadproc, nullptr), EOSSTS_SUCCESS);
    const std::clock_t clockStart = std::clock();
    InThreads(2, [&](int) { osthread.Stop(false, g_i32Patience); });
    EXPECT_LT(std::clock() - clockStart, CLOCKS_PER_SEC / 2);
    EXPECT_FALSE(logcapture.HasPart("terminating it"));
}

// What is destroyed on the way out stops the thread once more, while another thread stops it.
TEST(Thread, StopsItselfOnItsWayOut)
{
    static LogCapture* g_plogcapture = nullptr;
    LogCapture logcapture;
    g_plogcapture = &logcapture;
    g_blThere = false;
    struct StopAgain
    {
        COsThread* posthread;
        ~StopAgain()
        {
            g_blThere = true;
            EXPECT_TRUE(WaitFor([] { return g_plogcapture->HasPart("thr>>> stopping...<"); }));
            posthread->Stop(false, 0);
        }
    };
    COsThread osthread;
    const OsThreadProc osthreadproc = [](COsThread* a_posthread) -> uint32_t {
        const StopAgain stopagain{a_posthread};
        a_posthread->Exit();
        return 0;
    };
    ASSERT_EQ(osthread.Start("Zealous", osthreadproc, nullptr), EOSSTS_SUCCESS);
    EXPECT_TRUE(WaitFor([] { return g_blThere.load(); }));
    EXPECT_LT(MillisecondsOf([&] { osthread.Stop(false, g_i32Patience); }), 10000u);
    EXPECT_FALSE(logcapture.HasPart("terminating it"));
}

TEST(Thread, ObjectIsSharedByThreadsThatUseItAtOnce)
{
    const char* const szSeconds = std::getenv("TEST_SECONDS");
    const uint64_t u64End = PlatTicks() + (szSeconds ? std::strtoull(szSeconds, nullptr, 10) : 2) * 1000;
    COsThread osthread;
    std::atomic<uint32_t> u32Started{0};
    InThreads(8, [&](int a_iThread) {
        while (PlatTicks() < u64End)
        {
            switch (a_iThread)
            {
            case 0:
            case 1:
                u32Started += osthread.Start("Shared", a_iThread ? UntilStopped : ReturnAtOnce, nullptr) == 0;
                break;
            case 2:
            case 3:
                osthread.Stop(false, g_i32Patience);
                break;
            case 4:
                osthread.WaitForEnd(1);
                break;
            case 5:
                osthread.Spawn(OS_SPAWNFLAGS_NORETRY | OS_SPAWNFLAGS_PIPES, "/bin/true", "true");
                break;
            default:
                osthread.ChildIsRunning();
                osthread.WaitForEnd(0);
                osthread.WaitForStop(0);
                osthread.Id();
            }
        }
    });
    EXPECT_GT(u32Started, 0u);
    osthread.Stop(false, g_i32Patience);
    EXPECT_EQ(osthread.Start("Still whole", ReturnAtOnce, nullptr), EOSSTS_SUCCESS);
}

// The fork has the thread's events, which are its parent's as well, and no thread.
TEST(Thread, OfAParentIsNotStoppedByItsFork)
{
    LogCapture logcapture;
    COsThread osthread;
    ASSERT_EQ(osthread.Start("Parent's", UntilStopped, nullptr), EOSSTS_SUCCESS);
    const auto stop = [&] {
        alarm(20);
        osthread.Stop(false, g_i32Patience);
        return !osthread.WaitForEnd(0) || osthread.Id() != 0;
    };
    EXPECT_EQ(InOtherProcess([] { return true; }, stop), 0);
    EXPECT_FALSE(osthread.WaitForEnd(200));
    osthread.Stop(false, g_i32Patience);
    EXPECT_FALSE(logcapture.HasPart("terminating it"));
}

// The ideal processor is the mask minus one, which names a processor that most machines do not have when the mask is of
// all of them.
TEST(Thread, RunsWhereItIsForcedTo)
{
    static std::atomic<uint64_t> g_u64Mask{0};
    const OsThreadProc osthreadproc = [](COsThread*) -> uint32_t {
        cpu_set_t cpuset;
        EXPECT_EQ(sched_getaffinity(0, sizeof cpuset, &cpuset), 0);
        g_u64Mask = 0;
        for (uint32_t u32 = 0; u32 < 64; ++u32)
            g_u64Mask |= CPU_ISSET(u32, &cpuset) ? uint64_t{1} << u32 : 0;
        return 0;
    };
    const uint64_t u64All = PlatProcessAffinity();
    for (const uint64_t u64Forced : {u64All & (0 - u64All), u64All & (u64All - 1), u64All})
    {
        LogCapture logcapture;
        const bool blForced = u64Forced != 0 && PlatProcessorCount() > 1;
        const bool blPossible = u64Forced - 1 < PlatProcessorCount();
        OsThreadSetForcedAffinity(u64Forced);
        COsThread osthread;
        ASSERT_EQ(osthread.Start("Bound", osthreadproc, nullptr), EOSSTS_SUCCESS);
        EXPECT_TRUE(osthread.WaitForEnd(OS_INFINITE));
        EXPECT_EQ(g_u64Mask, blForced && blPossible ? u64Forced : u64All);
        EXPECT_EQ(logcapture.HasAt(OS_LOG_CHECK, "SetThreadIdealProcessor failed...87"), blForced && !blPossible);
    }
    OsThreadSetForcedAffinity(0);
}
