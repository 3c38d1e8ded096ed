// plat_thread.cpp: threads, their ends, and where they run.
//
// A handle points to an object that the thread and the handle share; who comes last frees it. The system's own thread
// is joined exactly once, by whoever first sees that it has ended, or detached when the handle goes before. Nobody
// waits with a lock held.
#include "plat_thread.h"
#include "plat_posix.h"
#include "plat_system.h"
#include "plat_wait.h"

#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <memory>
#include <mutex>
#include <new>
#include <pthread.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

// ---------------------------------------------------------------------------------------------------- the object

namespace
{
struct PosixThread
{
    explicit PosixThread(uint32_t a_u32Forks) : u32Forks(a_u32Forks) {}

    PlatThreadProc platthreadproc = nullptr;
    void* pvArgument = nullptr;
    pthread_t pthread = 0;
    std::atomic<int> iThreadId{0};   // set by the thread once it can be terminated
    std::atomic<uint32_t> u32ExitCode{0};
    std::atomic<uint32_t> u32TerminateCode{0};
    std::atomic<bool> blTerminate{false};
    std::atomic<bool> blOneHasLeft{false};   // the thread or the handle
    uint32_t u32Forks;                       // that lead to the process that it belongs to
    std::mutex mutex;                        // of the join, which is tried and never waited for
    bool blJoined = false;
};

// What PlatThreadExit throws to unwind the thread.
struct ThreadExit
{
    uint32_t u32ExitCode;
};
}   // namespace

#if defined(__SANITIZE_THREAD__)
static constexpr bool g_blThreadSanitizer = true;
#else
static constexpr bool g_blThreadSanitizer = false;
#endif

static thread_local PosixThread* t_pposixthread = nullptr;
static thread_local std::atomic<uint32_t> t_u32Deferrals{0};   // the thread's own; a signal handler reads it

static std::atomic<uint32_t> g_u32Forks{0};   // that lead to this process

// The thread and the handle leave once each, and who comes second frees the object.
static void Leave(PosixThread* a_pposixthread)
{
    if (a_pposixthread->blOneHasLeft.exchange(true, std::memory_order_acq_rel))
        delete a_pposixthread;
}

// The thread's part of the object lasts until its own objects are destroyed: meanwhile it may still be terminated, and
// may still put that off.
static void Register(PosixThread* a_pposixthread)
{
    static const pthread_key_t g_key = [] {
        pthread_key_t key = 0;
        pthread_key_create(&key, [](void* a_pvThread) {
            t_pposixthread = nullptr;
            std::atomic_signal_fence(std::memory_order_seq_cst);
            Leave(static_cast<PosixThread*>(a_pvThread));
        });
        return key;
    }();
    t_pposixthread = a_pposixthread;
    pthread_setspecific(g_key, a_pposixthread);
}

// ---------------------------------------------------------------------------------------------- ended from outside

// Runs on the thread that is to end: nothing of it is unwound, and the kernel tells the joining thread. Its slots are
// emptied, for the C library hands the stack on to a later thread with what is left in them. The object stays when the
// handle has gone before: here nothing can be freed.
static void EndHere(int)
{
    PosixThread* pposixthread = t_pposixthread;
    if (!pposixthread || !pposixthread->blTerminate || t_u32Deferrals.load(std::memory_order_relaxed) > 0)
        return;
    pposixthread->u32ExitCode = pposixthread->u32TerminateCode.load();
    pposixthread->blOneHasLeft = true;
    for (pthread_key_t key = 0; key < PTHREAD_KEYS_MAX; ++key)
        pthread_setspecific(key, nullptr);
    syscall(SYS_exit, 0);
}

void PlatThreadDefer(bool a_blDefer)
{
    const uint32_t u32Deferrals = t_u32Deferrals.load(std::memory_order_relaxed);
    std::atomic_signal_fence(std::memory_order_seq_cst);
    t_u32Deferrals.store(a_blDefer ? u32Deferrals + 1 : u32Deferrals - 1, std::memory_order_relaxed);
    std::atomic_signal_fence(std::memory_order_seq_cst);
    if (!a_blDefer && u32Deferrals == 1 && t_pposixthread)
        EndHere(0);   // if it is wanted; else the signal is still to come
}

// The signal that has a thread run EndHere; its handler is there from the first use on.
static int TerminateSignal()
{
    static const int g_iSignal = [] {
        struct sigaction action = {};
        action.sa_handler = EndHere;
        sigfillset(&action.sa_mask);
        const int iSignal = SIGRTMAX - 1;
        sigaction(iSignal, &action, nullptr);
        return iSignal;
    }();
    return g_iSignal;
}

// ------------------------------------------------------------------------------------------------ begin and exit

// A program that keeps signals away from its threads does not mean this one.
static void AllowTermination()
{
    sigset_t sigset;
    sigemptyset(&sigset);
    sigaddset(&sigset, TerminateSignal());
    pthread_sigmask(SIG_UNBLOCK, &sigset, nullptr);
}

static uint32_t CallProcedure(const PosixThread* a_pposixthread)
{
    try
    {
        return a_pposixthread->platthreadproc(a_pposixthread->pvArgument);
    }
    catch (const ThreadExit& threadexit)
    {
        return threadexit.u32ExitCode;
    }
}

static void* RunThread(void* a_pvThread)
{
    auto* pposixthread = static_cast<PosixThread*>(a_pvThread);
    Register(pposixthread);
    AllowTermination();
    pposixthread->iThreadId.store(static_cast<int>(PlatThreadId()), std::memory_order_release);
    pposixthread->iThreadId.notify_one();
    pposixthread->u32ExitCode = CallProcedure(pposixthread);
    return nullptr;
}

// Whoever has the handle has it after this, so no request to end can come before the thread knows itself.
static uint64_t WaitUntilItRuns(PosixThread* a_pposixthread)
{
    a_pposixthread->iThreadId.wait(0, std::memory_order_acquire);
    return static_cast<uint64_t>(a_pposixthread->iThreadId.load(std::memory_order_relaxed));
}

PlatHandle PlatThreadBegin(PlatThreadProc a_platthreadproc, void* a_pvArgument, uint64_t* a_pu64Id)
{
    constexpr size_t sizetStack = size_t{1} << 20;
    std::unique_ptr<PosixThread> uniqueThread(new (std::nothrow) PosixThread(g_u32Forks));
    if (!uniqueThread)
    {
        PlatSetLastError(PLAT_ERROR_NOMEMORY);
        return PLAT_INVALID;
    }
    uniqueThread->platthreadproc = a_platthreadproc;
    uniqueThread->pvArgument = a_pvArgument;

    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, sizetStack);
    const int iError = pthread_create(&uniqueThread->pthread, &attributes, RunThread, uniqueThread.get());
    pthread_attr_destroy(&attributes);
    if (iError != 0)
    {
        PlatSetLastError(iError == EAGAIN ? PLAT_ERROR_NOMEMORY : PosixTranslate(iError));
        return PLAT_INVALID;
    }
    PosixThread* pposixthread = uniqueThread.release();
    const uint64_t u64Id = WaitUntilItRuns(pposixthread);
    if (a_pu64Id)
        *a_pu64Id = u64Id;
    return PosixMakeHandle(PosixKind::Thread, pposixthread);
}

void PlatThreadExit(uint32_t a_u32ExitCode)
{
    throw ThreadExit{a_u32ExitCode};
}

// -------------------------------------------------------------------------------------------------- from outside

static PosixThread* ThreadOf(PlatHandle a_plathandle)
{
    if (PosixKindOf(a_plathandle) == PosixKind::Thread)
        return PosixObjectOf<PosixThread>(a_plathandle);
    PlatSetLastError(PLAT_ERROR_INVALIDHANDLE);
    return nullptr;
}

// The thread sanitizer keeps a book of its own and would wait for ever for a thread that ended without its knowledge.
static bool Join(const PosixThread& a_posixthread)
{
    if (!g_blThreadSanitizer || !a_posixthread.blTerminate)
        return pthread_tryjoin_np(a_posixthread.pthread, nullptr) == 0;
    return !PlatThreadIsAlive(static_cast<uint64_t>(a_posixthread.iThreadId)) &&
           pthread_detach(a_posixthread.pthread) == 0;
}

// A fork has left it behind, maybe with its lock taken.
static bool IsOfAParent(const PosixThread& a_posixthread)
{
    return a_posixthread.u32Forks != g_u32Forks;
}

// Only the join tells that the thread is past all code of ours: objects that belong to it are destroyed after its
// procedure. The caller holds the lock.
static bool HasEnded(PosixThread& a_posixthread)
{
    a_posixthread.blJoined = a_posixthread.blJoined || Join(a_posixthread);
    return a_posixthread.blJoined;
}

static bool HasEndedNow(PosixThread& a_posixthread)
{
    if (IsOfAParent(a_posixthread))
        return true;
    const std::lock_guard<std::mutex> guard(a_posixthread.mutex);
    return HasEnded(a_posixthread);
}

bool PlatThreadExitCode(PlatHandle a_plathandle, uint32_t* a_pu32ExitCode)
{
    PosixThread* pposixthread = ThreadOf(a_plathandle);
    if (!pposixthread)
        return false;
    *a_pu32ExitCode = HasEndedNow(*pposixthread) ? pposixthread->u32ExitCode.load() : PLAT_STILLACTIVE;
    return true;
}

// False when it has ended already. By its number, which is no danger when it is another thread's by now.
static bool AskToEnd(PosixThread& a_posixthread, uint32_t a_u32ExitCode)
{
    if (IsOfAParent(a_posixthread))
        return false;
    const std::lock_guard<std::mutex> guard(a_posixthread.mutex);
    if (HasEnded(a_posixthread))
        return false;
    a_posixthread.u32TerminateCode = a_u32ExitCode;
    a_posixthread.blTerminate = true;
    syscall(SYS_tgkill, getpid(), a_posixthread.iThreadId.load(), TerminateSignal());
    return true;
}

bool PlatThreadTerminate(PlatHandle a_plathandle, uint32_t a_u32ExitCode)
{
    PosixThread* pposixthread = ThreadOf(a_plathandle);
    if (!pposixthread)
        return false;
    if (pposixthread == t_pposixthread)
        return PosixFail(PLAT_ERROR_INVALIDPARAMETER);
    if (!AskToEnd(*pposixthread, a_u32ExitCode))
        return true;

    const uint64_t u64Start = PlatTicks();
    while (!HasEndedNow(*pposixthread))
    {
        const uint64_t u64Waited = PlatTicks() - u64Start;
        if (u64Waited > PLAT_TERMINATEWAIT)
            return PosixFail(PLAT_ERROR_TIMEDOUT);
        PlatSleep(u64Waited < 2 ? 0 : 1);
    }
    return true;
}

bool PosixCloseThread(PlatHandle a_plathandle)
{
    PosixThread* pposixthread = ThreadOf(a_plathandle);
    if (!pposixthread)
        return false;
    if (IsOfAParent(*pposixthread))
    {
        delete pposixthread;
        return true;
    }
    {
        const std::lock_guard<std::mutex> guard(pposixthread->mutex);
        if (!HasEnded(*pposixthread))
            pthread_detach(pposixthread->pthread);
    }
    Leave(pposixthread);
    return true;
}

// ------------------------------------------------------------------------------------------------------- who am I

static thread_local uint64_t t_u64ThreadId = 0;   // 0: to be asked

// The thread that a fork leaves in the child is another one.
[[maybe_unused]] static const int g_iForkHook = pthread_atfork(nullptr, nullptr, [] {
    t_u64ThreadId = 0;
    ++g_u32Forks;
    if (t_pposixthread)
    {
        t_pposixthread->u32Forks = g_u32Forks;
        t_pposixthread->iThreadId = static_cast<int>(PlatThreadId());
    }
});

void PlatThreadOnFork(PlatForkProc a_platforkproc)
{
    pthread_atfork(nullptr, nullptr, a_platforkproc);
}

uint64_t PlatThreadId()
{
    if (t_u64ThreadId == 0)
        t_u64ThreadId = static_cast<uint64_t>(syscall(SYS_gettid));
    return t_u64ThreadId;
}

bool PlatThreadIsAlive(uint64_t a_u64ThreadId)
{
    return a_u64ThreadId > 0 && a_u64ThreadId <= INT_MAX &&
           syscall(SYS_tgkill, getpid(), static_cast<pid_t>(a_u64ThreadId), 0) == 0;
}

// ---------------------------------------------------------------------------------------------------- where I run

static constexpr uint32_t g_u32MaskBits = 64;

bool PlatThreadSetIdealProcessor(uint32_t a_u32Processor)
{
    // This system takes no such wish. What it would refuse is refused all the same.
    return (a_u32Processor < g_u32MaskBits && a_u32Processor < PlatProcessorCount()) ||
           PosixFail(PLAT_ERROR_INVALIDPARAMETER);
}

uint64_t PlatProcessAffinity()
{
    // Read once: the process's mask is what its first thread has before it narrows its own.
    static const uint64_t g_u64Mask = [] {
        uint64_t u64Mask = 0;
        cpu_set_t cpuset;
        CPU_ZERO(&cpuset);
        if (sched_getaffinity(getpid(), sizeof cpuset, &cpuset) != 0)
            PosixFailErrno();
        for (uint32_t u32 = 0; u32 < g_u32MaskBits; ++u32)
            u64Mask |= CPU_ISSET(u32, &cpuset) ? uint64_t{1} << u32 : 0;
        return u64Mask;
    }();
    return g_u64Mask;
}

bool PlatThreadSetAffinity(uint64_t a_u64Mask)
{
    if (a_u64Mask == 0 || (a_u64Mask & ~PlatProcessAffinity()) != 0)
        return PosixFail(PLAT_ERROR_INVALIDPARAMETER);
    cpu_set_t cpuset;
    CPU_ZERO(&cpuset);
    for (uint32_t u32 = 0; u32 < g_u32MaskBits; ++u32)
    {
        if ((a_u64Mask >> u32) & 1)
            CPU_SET(u32, &cpuset);
    }
    return sched_setaffinity(0 /*the calling thread*/, sizeof cpuset, &cpuset) == 0 || PosixFailErrno();
}
