// plat_thread_test.cpp: what threads owe, on whichever system.
#include "plat_support.h"

#include "plat_memory.h"
#include "plat_process.h"
#include "plat_thread.h"

#include <atomic>
#include <csignal>
#include <sys/wait.h>
#include <unistd.h>

namespace
{
// What a thread of these cases tells, and what it waits for.
struct Stage
{
    PlatHandle plathandleGo = PlatEventCreate(PLAT_RESET_MANUAL, nullptr);
    std::atomic<uint64_t> u64ThreadId{0};
    std::atomic<int> iUnwound{0};
    uint64_t u64Begun = 0;

    PlatHandle Begin(PlatThreadProc a_platthreadproc) { return PlatThreadBegin(a_platthreadproc, this, &u64Begun); }
    bool HasStarted() const
    {
        return WaitFor([&] { return u64ThreadId != 0; });
    }
};

Stage& StageOf(void* a_pvStage)
{
    return *static_cast<Stage*>(a_pvStage);
}

uint32_t WaitForGo(void* a_pvStage)
{
    StageOf(a_pvStage).u64ThreadId = PlatThreadId();
    PlatWaitAny(&StageOf(a_pvStage).plathandleGo, 1, PLAT_INFINITE);
    return 7;
}

uint32_t ExitCodeOf(PlatHandle a_plathandle)
{
    uint32_t u32ExitCode = 0;
    EXPECT_TRUE(PlatThreadExitCode(a_plathandle, &u32ExitCode));
    return u32ExitCode;
}

uint32_t ExitCodeAtEndOf(PlatHandle a_plathandle)
{
    EXPECT_TRUE(WaitFor([&] { return ExitCodeOf(a_plathandle) != PLAT_STILLACTIVE; }));
    return ExitCodeOf(a_plathandle);
}

TEST(Thread, IsTerminatedWhereverItStands)
{
    const PlatThreadProc aplatthreadproc[] = {
        WaitForGo,
        [](void* a_pvStage) -> uint32_t {
            for (;;)
                StageOf(a_pvStage).u64ThreadId = 1;
        },
        [](void* a_pvStage) -> uint32_t {
            StageOf(a_pvStage).u64ThreadId = 1;
            PlatHandle aplathandle[2];
            size_t sizetRead = 0;
            PlatPipeCreate(&aplathandle[0], &aplathandle[1], false);
            return PlatPipeRead(aplathandle[0], &sizetRead, 1, &sizetRead);
        },
    };
    for (const PlatThreadProc platthreadproc : aplatthreadproc)
    {
        Stage stage;
        const PlatHandle plathandle = stage.Begin(platthreadproc);
        EXPECT_TRUE(stage.HasStarted());
        EXPECT_TRUE(PlatThreadTerminate(plathandle, 11));
        EXPECT_EQ(ExitCodeOf(plathandle), 11u);
        EXPECT_TRUE(WaitFor([&] { return !PlatThreadIsAlive(stage.u64Begun); }));
        EXPECT_TRUE(PlatThreadTerminate(plathandle, 12));   // has ended already
        EXPECT_EQ(ExitCodeOf(plathandle), 11u);
        EXPECT_TRUE(PlatClose(plathandle));
    }
}

// In every other round the program keeps all signals away from its threads.
TEST(Thread, IsTerminatedInItsFirstInstants)
{
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "that sanitizer hands signals on when it sees fit";
#endif
    sigset_t sigset;
    sigfillset(&sigset);
    for (int i = 0; i < 1000; ++i)
    {
        pthread_sigmask(i % 2 ? SIG_BLOCK : SIG_UNBLOCK, &sigset, nullptr);
        Stage stage;
        const PlatHandle plathandle = PlatThreadBegin(WaitForGo, &stage, nullptr);
        ASSERT_TRUE(PlatThreadTerminate(plathandle, 11));
        ASSERT_EQ(ExitCodeOf(plathandle), 11u);
        PlatClose(plathandle);
        PlatClose(stage.plathandleGo);
    }
}

TEST(Thread, PutsItsEndOffUntilItLeavesTheRegion)
{
    Stage stage;
    const PlatHandle plathandle = stage.Begin([](void* a_pvStage) -> uint32_t {
        PlatThreadDefer(true);
        PlatThreadDefer(true);
        WaitForGo(a_pvStage);
        PlatThreadDefer(false);
        ++StageOf(a_pvStage).iUnwound;
        PlatThreadDefer(false);
        ++StageOf(a_pvStage).iUnwound;
        return 0;
    });
    EXPECT_TRUE(stage.HasStarted());
    EXPECT_FALSE(PlatThreadTerminate(plathandle, 11));
    EXPECT_EQ(PlatGetLastError(), PLAT_ERROR_TIMEDOUT);
    EXPECT_EQ(ExitCodeOf(plathandle), PLAT_STILLACTIVE);
    PlatEventSet(stage.plathandleGo);
    EXPECT_EQ(ExitCodeAtEndOf(plathandle), 11u);
    EXPECT_EQ(stage.iUnwound, 1);
    PlatClose(plathandle);
}

TEST(Thread, OfAForkHasAnIdOfItsOwn)
{
    EXPECT_EQ(PlatThreadId(), PlatProcessId());   // of the first thread
    const pid_t pid = fork();
    if (pid == 0)
        _exit(PlatThreadId() == PlatProcessId() ? 0 : 1);
    int iStatus = 1;
    EXPECT_EQ(waitpid(pid, &iStatus, 0), pid);
    EXPECT_EQ(iStatus, 0);
}

// However a thread ends and whenever its handle goes: it ends, and nothing of it stays.
TEST(Thread, LeavesNoStackBehind)
{
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "the sanitizer keeps memory of its own for each thread";
#endif
    const auto available = [] {
        PlatMemoryStatus platmemorystatus{};
        EXPECT_TRUE(PlatMemoryGetStatus(&platmemorystatus));
        return platmemorystatus.u64AvailVirtual;
    };
    const uint64_t u64Before = available();
    for (int i = 0; i < 4000; ++i)
    {
        Stage stage;
        const PlatHandle plathandle = stage.Begin(WaitForGo);
        if (i % 4 == 0)
            PlatThreadTerminate(plathandle, 1);
        if (i % 4 == 1)
            PlatClose(plathandle);   // and runs on
        PlatEventSet(stage.plathandleGo);
        if (i % 4 == 2)
            ExitCodeAtEndOf(plathandle);
        EXPECT_TRUE(WaitFor([&] { return !PlatThreadIsAlive(stage.u64Begun); }));
        EXPECT_TRUE(i % 4 == 1 || PlatClose(plathandle));
        PlatClose(stage.plathandleGo);
    }
    EXPECT_LT(u64Before, available() + (uint64_t{700} << 20));   // the stacks of a quarter of them are more
}
}   // namespace
