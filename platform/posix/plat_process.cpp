// plat_process.cpp: processes: starting a program, and what is asked about one that runs. How a command line is split
// is in plat_process_split.cpp, what becomes of children that nobody waits for in plat_process_left.cpp, pipes and
// standard streams are in plat_process_pipe.cpp.
//
// A child is started in the memory of its parent, which stands still until the program runs: that is as fast as it
// gets, and an error is known at once. What the child does until then is therefore a short list of raw system calls.
#include "plat_process.h"
#include "plat_posix.h"
#include "plat_user.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <fcntl.h>
#include <memory>
#include <mutex>
#include <new>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

static constexpr int g_iNone = -1;

// -------------------------------------------------------------------------------- the limit of open descriptors

static std::mutex g_mutexLimit;
static rlimit g_rlimitOriginal;
static std::atomic<bool> g_blLimitRaised{false};

void PosixRaiseDescriptorLimit()
{
    const std::lock_guard<std::mutex> guard(g_mutexLimit);
    rlimit rlimitNow{};
    if (getrlimit(RLIMIT_NOFILE, &rlimitNow) != 0 || rlimitNow.rlim_cur == rlimitNow.rlim_max)
        return;
    if (!g_blLimitRaised.load(std::memory_order_relaxed))
        g_rlimitOriginal = rlimitNow;
    rlimitNow.rlim_cur = rlimitNow.rlim_max;
    if (setrlimit(RLIMIT_NOFILE, &rlimitNow) == 0)
        g_blLimitRaised.store(true, std::memory_order_release);
}

void PosixRestoreDescriptorLimit()
{
    if (g_blLimitRaised.load(std::memory_order_acquire))
        syscall(SYS_prlimit64, 0, RLIMIT_NOFILE, &g_rlimitOriginal, nullptr);
}

// ------------------------------------------------------------------------------------------ what a child is given

namespace
{
// Everything that the child needs, made ready beforehand.
struct Launch
{
    std::string strProgram;
    std::string strFolder;   // empty: stays
    std::vector<std::string> vecstrArguments;
    std::vector<std::string> vecstrEnvironment;
    std::vector<char*> vecpchArguments;
    std::vector<char*> vecpchEnvironment;
    int aiStream[3] = {g_iNone, g_iNone, g_iNone};
    bool blDetached = false;
    const PosixUser* pposixuser = nullptr;   // null: ours
    PosixDescriptor posixdescriptorNull;     // opened when a stream wants it

    // What the child reports: it runs in our memory.
    int iError = 0;
    bool blFolderFailed = false;
};
}   // namespace

static std::vector<char*> PointersTo(std::vector<std::string>& a_vecstr)
{
    std::vector<char*> vecpch;
    vecpch.reserve(a_vecstr.size() + 1);
    for (std::string& str : a_vecstr)
        vecpch.push_back(str.data());
    vecpch.push_back(nullptr);
    return vecpch;
}

static bool TakeEnvironment(const char16_t* a_wszEnvironment, std::vector<std::string>& a_vecstr)
{
    if (!a_wszEnvironment)
    {
        const PosixGuard posixguard(POSIX_LOCK_ENVIRONMENT);
        for (char** ppch = environ; ppch && *ppch; ++ppch)
            a_vecstr.emplace_back(*ppch);
        return true;
    }
    for (const char16_t* pch = a_wszEnvironment; *pch; pch += std::char_traits<char16_t>::length(pch) + 1)
    {
        if (!PosixToUtf8(pch, a_vecstr.emplace_back()))
            return false;
    }
    return true;
}

static int StreamOf(PlatHandle a_plathandle)
{
    const PosixKind posixkind = PosixKindOf(a_plathandle);
    return posixkind == PosixKind::None || PosixIsPointer(posixkind) ? g_iNone : PosixDescriptorOf(a_plathandle);
}

static bool TakeStreams(const PlatProcessStart& a_platprocessstart, Launch& a_launch)
{
    for (int i = 0; i < 3; ++i)
    {
        const PlatHandle plathandle = a_platprocessstart.aplathandle[i];
        const bool blInherit = a_platprocessstart.blInheritStandard ||
                               (a_platprocessstart.blInheritInput && i == static_cast<int>(PLAT_STANDARD_INPUT));
        int& iStream = a_launch.aiStream[i];
        iStream = blInherit ? i : StreamOf(plathandle);
        if (iStream >= 0 && fcntl(iStream, F_GETFD) >= 0)
            continue;
        if (!blInherit && plathandle != PLAT_INVALID)
            return PosixFail(PLAT_ERROR_INVALIDHANDLE);
        if (!a_launch.posixdescriptorNull.IsOpen())
            a_launch.posixdescriptorNull.Take(open("/dev/null", O_RDWR | O_CLOEXEC));
        iStream = a_launch.posixdescriptorNull.Get();
        if (iStream < 0)
            return PosixFailErrno();
    }
    return true;
}

// The child is in its own folder already when it runs the program.
static bool ProgramFromOurFolder(Launch& a_launch)
{
    if (a_launch.strFolder.empty() || a_launch.strProgram.starts_with('/'))
        return true;
    char szFolder[PATH_MAX];
    if (!getcwd(szFolder, sizeof szFolder))
        return PosixFailErrno();
    a_launch.strProgram = std::string(szFolder) + '/' + a_launch.strProgram;
    return true;
}

static bool TakeUser(PlatHandle a_plathandle, Launch& a_launch)
{
    if (a_plathandle == PLAT_INVALID)
        return true;
    if (PosixKindOf(a_plathandle) != PosixKind::User)
        return PosixFail(PLAT_ERROR_INVALIDHANDLE);
    a_launch.pposixuser = PosixObjectOf<PosixUser>(a_plathandle);
    PosixUserEnvironment(*a_launch.pposixuser, a_launch.vecstrEnvironment);
    return true;
}

static bool Prepare(const PlatProcessStart& a_platprocessstart, Launch& a_launch)
{
    if (!a_platprocessstart.wszProgram || !a_platprocessstart.wszCommandLine)
        return PosixFail(PLAT_ERROR_INVALIDPARAMETER);
    if (!PosixPath(a_platprocessstart.wszProgram, a_launch.strProgram) ||
        (a_platprocessstart.wszFolder && !PosixPath(a_platprocessstart.wszFolder, a_launch.strFolder)) ||
        !PosixSplitCommandLine(a_platprocessstart.wszCommandLine, a_launch.vecstrArguments) ||
        !TakeEnvironment(a_platprocessstart.wszEnvironment, a_launch.vecstrEnvironment) ||
        !TakeUser(a_platprocessstart.plathandleUser, a_launch) || !TakeStreams(a_platprocessstart, a_launch) ||
        !ProgramFromOurFolder(a_launch))
    {
        return false;
    }
    a_launch.vecpchArguments = PointersTo(a_launch.vecstrArguments);
    a_launch.vecpchEnvironment = PointersTo(a_launch.vecstrEnvironment);
    a_launch.blDetached = a_platprocessstart.blDetached;
    return true;
}

// ---------------------------------------------------------------------------- what the child does before it runs
//
// All of this runs in the parent's memory: no allocation, no lock, no library call that keeps a state.

// The kernel's idea of struct sigaction.
struct KernelSigaction
{
    void (*pfnHandler)(int);
    unsigned long ulFlags;
    void (*pfnRestorer)();
    uint64_t u64Mask;
};

// Handlers of ours must not run in the child, and what we ignore is not for it to ignore: except the end of the
// terminal's line, which the user has asked to be ignored by everything that is started.
static void ResetSignals()
{
    for (int iSignal = 1; iSignal <= 64; ++iSignal)
    {
        KernelSigaction action{};
        const long lRead = syscall(SYS_rt_sigaction, iSignal, nullptr, &action, sizeof action.u64Mask);
        const bool blKeep = action.pfnHandler == SIG_DFL || (iSignal == SIGHUP && action.pfnHandler == SIG_IGN);
        if (lRead != 0 || blKeep)
            continue;
        action = {};
        syscall(SYS_rt_sigaction, iSignal, &action, nullptr, sizeof action.u64Mask);
    }
    const uint64_t u64None = 0;
    syscall(SYS_rt_sigprocmask, SIG_SETMASK, &u64None, nullptr, sizeof u64None);
}

// As the kernel writes an entry of a folder.
struct KernelEntry
{
    uint64_t u64Inode;
    int64_t i64Next;
    uint16_t u16Size;
    uint8_t u8Type;
    char szName[1];
};

// The number that the whole text is, -1 for another text.
static int NumberOf(const char* a_sz)
{
    int iNumber = *a_sz ? 0 : g_iNone;
    for (; iNumber >= 0 && *a_sz; ++a_sz)
        iNumber = *a_sz >= '0' && *a_sz <= '9' ? iNumber * 10 + (*a_sz - '0') : g_iNone;
    return iNumber;
}

// One by one, on a system that cannot close them at once or is kept from it. The folder itself closes with the program.
static bool CloseListed()
{
    const auto iFolder =
        static_cast<int>(syscall(SYS_openat, AT_FDCWD, "/proc/self/fd", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (iFolder < 0)
        return false;
    alignas(KernelEntry) char achEntries[4096];
    long lBytes;
    while ((lBytes = syscall(SYS_getdents64, iFolder, achEntries, sizeof achEntries)) > 0)
    {
        for (long l = 0; l < lBytes; l += reinterpret_cast<const KernelEntry*>(achEntries + l)->u16Size)
        {
            const int iDescriptor = NumberOf(reinterpret_cast<const KernelEntry*>(achEntries + l)->szName);
            if (iDescriptor > 2 && iDescriptor != iFolder)
                syscall(SYS_close, iDescriptor);
        }
    }
    return lBytes == 0;
}

// Descriptors 0, 1 and 2 are the streams and nothing else is open. The streams are first moved out of the way, since
// one of them may be 0, 1 or 2 itself.
static bool PlaceStreams(const int* a_aiStream)
{
    int aiMoved[3];
    for (int i = 0; i < 3; ++i)
    {
        aiMoved[i] = static_cast<int>(syscall(SYS_fcntl, a_aiStream[i], F_DUPFD_CLOEXEC, 3));
        if (aiMoved[i] < 0)
            return false;
    }
    for (int i = 0; i < 3; ++i)
    {
        if (syscall(SYS_dup3, aiMoved[i], i, 0) < 0)
            return false;
    }
    return syscall(SYS_close_range, 3u, ~0u, 0u) == 0 || CloseListed();
}

// For this process alone: the C library would change every thread of the parent.
static bool BecomeUser(const PosixUser* a_pposixuser)
{
    if (!a_pposixuser)
        return true;
    const uint32_t u32Id = a_pposixuser->u32Id;
    const uint32_t u32Group = a_pposixuser->u32Group;
    const std::vector<uint32_t>& vecu32Groups = a_pposixuser->vecu32Groups;
    return syscall(SYS_setgroups, vecu32Groups.size(), vecu32Groups.data()) == 0 &&
           syscall(SYS_setresgid, u32Group, u32Group, u32Group) == 0 &&
           syscall(SYS_setresuid, u32Id, u32Id, u32Id) == 0;
}

static int RunChild(void* a_pvLaunch)
{
    auto* plaunch = static_cast<Launch*>(a_pvLaunch);
    if (plaunch->blDetached)
        syscall(SYS_setsid);
    if (PlaceStreams(plaunch->aiStream) && BecomeUser(plaunch->pposixuser))
    {
        plaunch->blFolderFailed = !plaunch->strFolder.empty() && syscall(SYS_chdir, plaunch->strFolder.c_str()) != 0;
        if (!plaunch->blFolderFailed)
        {
            PosixRestoreDescriptorLimit();
            ResetSignals();
            syscall(SYS_execve, plaunch->strProgram.c_str(), plaunch->vecpchArguments.data(),
                    plaunch->vecpchEnvironment.data());
        }
    }
    plaunch->iError = errno;
    syscall(SYS_exit, 127);
    return 0;
}

// --------------------------------------------------------------------------------------------------- the children

namespace
{
struct PosixChild
{
    int iProcess = g_iNone;   // pidfd: a number may be another child's once somebody else has asked for the code
    std::mutex mutex;
    bool blEnded = false;   // and asked for
    bool blTerminated = false;
    uint32_t u32TerminateCode = 0;
    uint32_t u32ExitCode = 0;
};
}   // namespace

static uint32_t CodeOf(bool a_blBySignal, int a_iStatus, const PosixChild& a_posixchild)
{
    if (a_blBySignal && a_iStatus == SIGKILL && a_posixchild.blTerminated)
        return a_posixchild.u32TerminateCode;
    return static_cast<uint32_t>(a_blBySignal ? 128 + a_iStatus : a_iStatus);
}

// The kernel's record of a process, in its first form; not in the headers of this system yet.
struct KernelProcess
{
    uint64_t u64Mask;
    uint64_t u64Group;
    uint32_t au32Ids[11];
    int32_t i32Status;   // as wait() has it
};

// The code of a child that somebody else has asked for: an application that reaps all there is, or wants none kept.
// Newer kernels remember it as long as the process is held. It may have gone an instant before that is written.
static uint32_t CodeOfReaped(const PosixChild& a_posixchild)
{
    constexpr uint64_t u64WantStatus = 8;
    constexpr unsigned long ulGetInfo = _IOWR(0xFF, 11, KernelProcess);
    constexpr int iTries = 1000;
    for (int i = 0; i < iTries; ++i)
    {
        KernelProcess kernelprocess{};
        kernelprocess.u64Mask = u64WantStatus;
        if (ioctl(a_posixchild.iProcess, ulGetInfo, &kernelprocess) != 0 && errno != ESRCH)
            break;
        const int iStatus = kernelprocess.i32Status;
        const bool blExited = WIFEXITED(iStatus);
        if (kernelprocess.u64Mask & u64WantStatus)
            return CodeOf(!blExited, blExited ? WEXITSTATUS(iStatus) : WTERMSIG(iStatus), a_posixchild);
        sched_yield();
    }
    return PLAT_EXITCODEUNKNOWN;
}

static bool IsReady(int a_iProcess)
{
    pollfd pollfdProcess{a_iProcess, POLLIN, 0};
    return PosixRetry([&] { return poll(&pollfdProcess, 1, 0); }) > 0;
}

// Asks for the exit code, once. The caller holds the child's lock.
static bool AskForEnd(PosixChild* a_pposixchild)
{
    const auto process = static_cast<id_t>(a_pposixchild->iProcess);
    siginfo_t siginfo{};
    if (a_pposixchild->blEnded)
        return true;
    if (PosixRetry([&] { return waitid(P_PIDFD, process, &siginfo, WEXITED | WNOHANG); }) == 0)
    {
        a_pposixchild->blEnded = siginfo.si_pid != 0;
        a_pposixchild->u32ExitCode = CodeOf(siginfo.si_code != CLD_EXITED, siginfo.si_status, *a_pposixchild);
        return a_pposixchild->blEnded;
    }
    // Not a child of ours, or not any more.
    if (!IsReady(a_pposixchild->iProcess))
        return false;
    a_pposixchild->u32ExitCode = CodeOfReaped(*a_pposixchild);
    a_pposixchild->blEnded = true;
    return true;
}

int PosixChildDescriptor(PlatHandle a_plathandle)
{
    return PosixObjectOf<PosixChild>(a_plathandle)->iProcess;
}

bool PosixCloseChild(PlatHandle a_plathandle)
{
    const std::unique_ptr<PosixChild> uniqueChild(PosixObjectOf<PosixChild>(a_plathandle));
    if (AskForEnd(uniqueChild.get()))
    {
        close(uniqueChild->iProcess);
    }
    else
    {
        PosixLeaveChild(uniqueChild->iProcess);
    }
    return true;
}

// --------------------------------------------------------------------------------------------------------- create

// The C library's clone() by its other name. A thread checker stands in for the first one, takes every child for a
// process with a memory of its own, and would be blind to the locks of this thread from then on.
extern "C" int PosixClone(int (*a_pfnChild)(void*), void* a_pvStack, int a_iFlags, void* a_pvArgument,
                          ...) __asm__("__clone");

// Runs the child until its program runs, or until it has reported why that cannot be.
static pid_t Start(Launch& a_launch, int* a_piProcess)
{
    constexpr size_t sizetStack = 32768;
    // Not on this thread's stack: what a checker of memory notes about the child's frames stays behind.
    const std::unique_ptr<char[]> uniqueStack(new char[sizetStack]);
    sigset_t sigsetAll;
    sigset_t sigsetBefore;
    sigfillset(&sigsetAll);
    const int iDumpable = prctl(PR_GET_DUMPABLE);
    pthread_sigmask(SIG_SETMASK, &sigsetAll, &sigsetBefore);
    const pid_t pid = PosixClone(RunChild, uniqueStack.get() + sizetStack,
                                 CLONE_VM | CLONE_VFORK | CLONE_PIDFD | SIGCHLD, &a_launch, a_piProcess);
    const int iError = errno;
    pthread_sigmask(SIG_SETMASK, &sigsetBefore, nullptr);
    // The child changed its user in our memory, which the system then no longer shows to debuggers and crash reports.
    if (a_launch.pposixuser)
        prctl(PR_SET_DUMPABLE, iDumpable);
    errno = iError;
    return pid;
}

static uint32_t LaunchError(const Launch& a_launch)
{
    if (a_launch.blFolderFailed)
        return PLAT_ERROR_DIRECTORY;
    const std::string strAbove = a_launch.strProgram.substr(0, a_launch.strProgram.rfind('/') + 1);
    const bool blNoPath = a_launch.iError == ENOENT && !strAbove.empty() && access(strAbove.c_str(), F_OK) != 0;
    return blNoPath ? PLAT_ERROR_PATHNOTFOUND : PosixTranslate(a_launch.iError);
}

PlatHandle PlatProcessCreate(const PlatProcessStart* a_pplatprocessstart, uint64_t* a_pu64ProcessId)
try
{
    Launch launch;
    if (!Prepare(*a_pplatprocessstart, launch))
        return PLAT_INVALID;
    std::unique_ptr<PosixChild> uniqueChild(new (std::nothrow) PosixChild);
    if (!uniqueChild)
    {
        PlatSetLastError(PLAT_ERROR_NOMEMORY);
        return PLAT_INVALID;
    }
    const pid_t pid = Start(launch, &uniqueChild->iProcess);
    if (pid < 0)
    {
        PosixFailErrno();
        return PLAT_INVALID;
    }
    if (launch.iError != 0)
    {
        PosixRetry([&] { return waitpid(pid, nullptr, 0); });
        close(uniqueChild->iProcess);
        PlatSetLastError(LaunchError(launch));
        return PLAT_INVALID;
    }
    *a_pu64ProcessId = static_cast<uint64_t>(pid);
    return PosixMakeHandle(PosixKind::Child, uniqueChild.release());
}
catch (const std::bad_alloc&)
{
    PosixFail(PLAT_ERROR_NOMEMORY);
    return PLAT_INVALID;
}

// ---------------------------------------------------------------------------------- what is asked about a process

PlatHandle PlatProcessOpen(uint64_t a_u64ProcessId)
{
    const bool blPossible = a_u64ProcessId > 0 && a_u64ProcessId <= INT_MAX;
    const long lProcess = blPossible ? syscall(SYS_pidfd_open, static_cast<pid_t>(a_u64ProcessId), 0u) : g_iNone;
    if (lProcess < 0)
    {
        const bool blNone = !blPossible || errno == ENOENT;   // the latter for the id of a mere thread
        PlatSetLastError(blNone ? PLAT_ERROR_INVALIDPARAMETER : PosixTranslate(errno));
        return PLAT_INVALID;
    }
    return PosixMakeHandle(PosixKind::Process, static_cast<int>(lProcess));
}

bool PlatProcessExitCode(PlatHandle a_plathandle, uint32_t* a_pu32ExitCode)
{
    const PosixKind posixkind = PosixKindOf(a_plathandle);
    if (posixkind == PosixKind::Child)
    {
        auto* pposixchild = PosixObjectOf<PosixChild>(a_plathandle);
        const std::lock_guard<std::mutex> guard(pposixchild->mutex);
        *a_pu32ExitCode = AskForEnd(pposixchild) ? pposixchild->u32ExitCode : PLAT_STILLACTIVE;
        return true;
    }
    if (posixkind != PosixKind::Process)
        return PosixFail(PLAT_ERROR_INVALIDHANDLE);
    pollfd pollfdProcess{PosixDescriptorOf(a_plathandle), POLLIN, 0};
    if (poll(&pollfdProcess, 1, 0) < 0)
        return PosixFailErrno();
    if (pollfdProcess.revents & POLLNVAL)
        return PosixFail(PLAT_ERROR_INVALIDHANDLE);
    *a_pu32ExitCode = pollfdProcess.revents ? 0 : PLAT_STILLACTIVE;
    return true;
}

static bool Kill(int a_iProcess)
{
    return syscall(SYS_pidfd_send_signal, a_iProcess, SIGKILL, nullptr, 0u) == 0 || errno == ESRCH || PosixFailErrno();
}

bool PlatProcessTerminate(PlatHandle a_plathandle, uint32_t a_u32ExitCode)
{
    const PosixKind posixkind = PosixKindOf(a_plathandle);
    if (posixkind == PosixKind::Process)
        return Kill(PosixDescriptorOf(a_plathandle));
    if (posixkind != PosixKind::Child)
        return PosixFail(PLAT_ERROR_INVALIDHANDLE);
    auto* pposixchild = PosixObjectOf<PosixChild>(a_plathandle);
    const std::lock_guard<std::mutex> guard(pposixchild->mutex);
    if (AskForEnd(pposixchild))
        return true;
    pposixchild->blTerminated = true;
    pposixchild->u32TerminateCode = a_u32ExitCode;
    return Kill(pposixchild->iProcess);
}

uint64_t PlatProcessId()
{
    return static_cast<uint64_t>(getpid());
}

// This system has no sessions of that kind: everybody is in the first user's. The variable lets a process be in
// another, the services' for one.
static uint32_t OwnSession()
{
    std::string strSession;
    const bool blNumber = PosixEnvGet("MVR_SESSION", strSession) && strSession.size() <= 9 &&
                          strSession.find_first_not_of("0123456789") == std::string::npos;
    return blNumber ? static_cast<uint32_t>(std::stoul(strSession)) : 1;
}

bool PlatProcessIntegrity(uint32_t* a_pu32Integrity)
{
    *a_pu32Integrity = PlatUserId() == 0 ? PLAT_INTEGRITY_HIGH : PLAT_INTEGRITY_MEDIUM;
    return true;
}

bool PlatProcessSession(uint64_t a_u64ProcessId, uint32_t* a_pu32Session)
try
{
    if (a_u64ProcessId == PlatProcessId())
    {
        *a_pu32Session = OwnSession();
        return true;
    }
    const PlatHandle plathandle = PlatProcessOpen(a_u64ProcessId);
    if (plathandle == PLAT_INVALID)
        return false;
    *a_pu32Session = 1;
    return PlatClose(plathandle);
}
catch (const std::bad_alloc&)
{
    return PosixFail(PLAT_ERROR_NOMEMORY);
}
