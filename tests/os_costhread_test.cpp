// os_costhread_test.cpp: starting, stopping and ending threads, in every way that a thread can end.
#include "os_cosenv.h"
#include "os_costhread.h"
#include "test_support.h"

#include "plat_process.h"
#include "plat_thread.h"

#include <atomic>
#include <cstring>
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
    ASSERT_EQ(osthread.Start("Worker", UntilStopped, &iArgument), EOSSTS_SUCCESS);
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

TEST(Thread, RefusesToStartWithoutProcedureOrTwice)
{
    LogCapture logcapture;
    COsThread osthread;
    EXPECT_EQ(osthread.Start(nullptr, nullptr, nullptr), EOSSTS_NOTOPEN);
    EXPECT_TRUE(logcapture.HasPart("-(noname)>"));
    ASSERT_EQ(osthread.Start("First", UntilStopped, nullptr), EOSSTS_SUCCESS);
    EXPECT_EQ(osthread.Start("Second", ReturnAtOnce, &osthread), EOSSTS_FAIL);
    EXPECT_TRUE(logcapture.HasPart("thr>>> you're already running this thread...<"));
    EXPECT_EQ(osthread.Argument(), nullptr);
    EXPECT_TRUE(PlatThreadIsAlive(osthread.Id()));
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
    EXPECT_FALSE(PlatThreadIsAlive(u64Id));
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

// Two stop the thread, which at the same time stops itself: nobody waits for the other until time runs out.
TEST(Thread, IsStoppedByManyAtOnce)
{
    LogCapture logcapture;
    COsThread osthread;
    const OsThreadProc osthreadproc = [](COsThread* a_posthread) -> uint32_t {
        while (a_posthread->StopState() == 1)
        {
        }
        a_posthread->Stop(true, 0);
        a_posthread->Stop(false, 0);
        return 0;
    };
    ASSERT_EQ(osthread.Start("Popular", osthreadproc, nullptr), EOSSTS_SUCCESS);
    std::thread thread([&] { osthread.Stop(false, OS_INFINITE / 2); });
    osthread.Stop(false, OS_INFINITE / 2);
    thread.join();
    EXPECT_TRUE(osthread.WaitForEnd(0));
    EXPECT_FALSE(logcapture.HasPart("terminating it"));
}

TEST(Thread, MayDestroyItsOwnObject)
{
    static std::atomic<bool> g_blDestroyed{false};
    auto* const posthread = new COsThread;
    const OsThreadProc osthreadproc = [](COsThread* a_posthread) -> uint32_t {
        UntilSet(a_posthread);   // the starter is done with it
        delete a_posthread;
        g_blDestroyed = true;
        return 0;
    };
    std::atomic<bool> blGo{false};
    ASSERT_EQ(posthread->Start("Orphan", osthreadproc, &blGo), EOSSTS_SUCCESS);
    blGo = true;
    EXPECT_TRUE(WaitFor([] { return g_blDestroyed.load(); }));
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

// The ideal processor is the mask minus one: mask 2 suits a machine with two processors, mask 3 names a third one.
TEST(Thread, RunsWhereItIsForcedTo)
{
    if (PlatProcessorCount() != 2 || PlatProcessAffinity() != 3)
        GTEST_SKIP() << "needs a machine with two processors";
    static std::atomic<bool> g_blBound{false};
    const OsThreadProc osthreadproc = [](COsThread*) -> uint32_t {
        g_blBound = ReadWhole("/proc/thread-self/status").find("Cpus_allowed_list:\t1\n") != std::string::npos;
        return 0;
    };
    for (const uint64_t u64Forced : {uint64_t{2}, uint64_t{3}})
    {
        LogCapture logcapture;
        OsThreadSetForcedAffinity(u64Forced);
        COsThread osthread;
        ASSERT_EQ(osthread.Start("Bound", osthreadproc, nullptr), EOSSTS_SUCCESS);
        EXPECT_TRUE(osthread.WaitForEnd(OS_INFINITE));
        EXPECT_EQ(g_blBound, u64Forced == 2);
        EXPECT_EQ(logcapture.HasAt(OS_LOG_CHECK, "SetThreadIdealProcessor failed...87"), u64Forced == 3);
    }
}
