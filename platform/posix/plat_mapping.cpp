// plat_mapping.cpp: views of files, what is done when somebody cuts the file, and memory without a file.
#include "plat_posix_file.h"

#include "plat_memory.h"

#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/syscall.h>

// The size of the view that was asked for, or what is left of the file. A view beyond the end of the file would be
// memory that kills whoever touches it.
static bool ViewSize(int a_iDescriptor, uint64_t a_u64Offset, size_t& a_sizetView)
{
    struct stat status;
    if (fstat(a_iDescriptor, &status) != 0)
        return PosixFailErrno();
    const auto u64Size = static_cast<uint64_t>(status.st_size);
    if (a_u64Offset >= u64Size || a_sizetView > u64Size - a_u64Offset)
        return PosixFail(PLAT_ERROR_INVALIDPARAMETER);
    if (!a_sizetView)
        a_sizetView = u64Size - a_u64Offset;
    return true;
}

void* PlatMappingView(PlatHandle a_plathandle, uint64_t a_u64Offset, bool a_blWrite, size_t* a_psizetView)
{
    const int iDescriptor =
        PosixFileDescriptor(a_plathandle, a_blWrite ? POSIX_FILE_READ | POSIX_FILE_WRITE : POSIX_FILE_READ);
    if (iDescriptor < 0 || !ViewSize(iDescriptor, a_u64Offset, *a_psizetView))
        return nullptr;
    void* pvView = mmap(nullptr, *a_psizetView, a_blWrite ? PROT_READ | PROT_WRITE : PROT_READ, MAP_SHARED, iDescriptor,
                        static_cast<off_t>(a_u64Offset));
    if (pvView != MAP_FAILED)
        return pvView;
    PosixFailErrno();
    return nullptr;
}

bool PlatMappingFlush(void* a_pvView, size_t a_sizetView)
{
    return msync(a_pvView, a_sizetView, MS_SYNC) == 0 || PosixFailErrno();
}

static std::atomic<uintptr_t> g_uKept{0};   // the view of PlatMappingKeep
static std::atomic<size_t> g_sizetKept{0};

bool PlatMappingRelease(void* a_pvView, size_t a_sizetView)
{
    if (reinterpret_cast<uintptr_t>(a_pvView) == g_uKept.load())
        g_sizetKept.store(0);
    return munmap(a_pvView, a_sizetView) == 0 || PosixFailErrno();
}

// ------------------------------------------------------------------------------------------------- views that are cut

namespace
{

struct GuardedView
{
    uintptr_t uBegin = 0;
    size_t sizetView = 0;
    bool blCut = false;
};

}   // namespace

static thread_local GuardedView t_guardedview;
static struct sigaction g_actionBefore;
static uintptr_t g_uPage;

// Leaves a signal to whoever had it before, as if nobody had taken his place. He may return, jump away, or have left it
// to the system: what an instruction caused comes again then, and ends the process.
static void PassOn(int a_iSignal, siginfo_t* a_psiginfo, void* a_pvContext)
{
    const struct sigaction action = g_actionBefore;
    const bool blSent = a_psiginfo->si_code <= 0;
    if (blSent && action.sa_handler == SIG_IGN)
        return;
    if (action.sa_handler == SIG_DFL || action.sa_handler == SIG_IGN)
    {
        signal(a_iSignal, SIG_DFL);
        if (blSent)
            raise(a_iSignal);
        return;
    }
    if (action.sa_flags & static_cast<int>(SA_RESETHAND))
        g_actionBefore = {};
    sigset_t sigsetBefore;
    pthread_sigmask(SIG_BLOCK, &action.sa_mask, &sigsetBefore);
    if (action.sa_flags & SA_SIGINFO)
    {
        action.sa_sigaction(a_iSignal, a_psiginfo, a_pvContext);
    }
    else
    {
        action.sa_handler(a_iSignal);
    }
    pthread_sigmask(SIG_SETMASK, &sigsetBefore, nullptr);
}

// With the system's own call: the thread sanitizer would take the library's for a write of the page that others read.
static bool PutEmpty(void* a_pvPage, size_t a_sizetBytes)
{
    return syscall(SYS_mmap, a_pvPage, a_sizetBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED,
                   -1, 0) != -1;
}

// Puts an empty page where a touched one of the view has gone.
static void FillGap(int a_iSignal, siginfo_t* a_psiginfo, void* a_pvContext)
{
    const int iError = errno;
    const auto uAddress = reinterpret_cast<uintptr_t>(a_psiginfo->si_addr);
    const bool blSent = a_psiginfo->si_code <= 0;
    void* const pvPage = static_cast<char*>(a_psiginfo->si_addr) - uAddress % g_uPage;
    const bool blOfThread = uAddress - t_guardedview.uBegin < t_guardedview.sizetView;
    const bool blKept = uAddress - g_uKept.load() < g_sizetKept.load();
    const bool blFilled = !blSent && (blOfThread || blKept) && PutEmpty(pvPage, g_uPage);
    t_guardedview.blCut |= blFilled && blOfThread;
    if (!blFilled)
        PassOn(a_iSignal, a_psiginfo, a_pvContext);
    errno = iError;
}

static bool InstallFillGap()
{
    g_uPage = PlatMemoryGranularity();
    struct sigaction action = {};
    action.sa_sigaction = FillGap;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK;
    return sigaction(SIGBUS, nullptr, &g_actionBefore) == 0 && sigaction(SIGBUS, &action, nullptr) == 0;
}

static void NeedFillGap()
{
    [[maybe_unused]] static const bool g_blInstalled = InstallFillGap();
}

// The fences keep the compiler from moving what is guarded out of the guard.
void PlatMappingGuard(const void* a_pvView, size_t a_sizetView)
{
    NeedFillGap();
    t_guardedview = {reinterpret_cast<uintptr_t>(a_pvView), a_sizetView};
    std::atomic_signal_fence(std::memory_order_seq_cst);
}

bool PlatMappingUnguard()
{
    std::atomic_signal_fence(std::memory_order_seq_cst);
    t_guardedview.sizetView = 0;
    return !t_guardedview.blCut;
}

static void EmptyKeptInChild()
{
    if (const size_t sizetKept = g_sizetKept.load())
        PutEmpty(reinterpret_cast<void*>(g_uKept.load()), sizetKept);
}

void PlatMappingKeep(void* a_pvView, size_t a_sizetView)
{
    [[maybe_unused]] static const int g_iHooked = pthread_atfork(nullptr, nullptr, EmptyKeptInChild);
    NeedFillGap();
    g_uKept.store(reinterpret_cast<uintptr_t>(a_pvView));
    g_sizetKept.store(a_sizetView);
}

// --------------------------------------------------------------------------------------------------- memory files

static PlatHandle MakeMemoryHandle(PosixDescriptor& a_posixdescriptor)
{
    return PosixMakeHandle(PosixKind::MemoryFile, a_posixdescriptor.Release()) | POSIX_FILE_READ | POSIX_FILE_WRITE;
}

PlatHandle PlatMemoryFileCreate(uint64_t a_u64Size)
{
    PosixIgnoreFileSizeSignal();
    PosixDescriptor posixdescriptor(memfd_create("memory", MFD_CLOEXEC));
    if (!posixdescriptor.IsOpen() || ftruncate(posixdescriptor.Get(), static_cast<off_t>(a_u64Size)) != 0)
    {
        PosixFailErrno();
        return PLAT_INVALID;
    }
    return MakeMemoryHandle(posixdescriptor);
}

PlatHandle PlatMemoryFileOpen(uint64_t a_u64ProcessId, PlatHandle a_plathandleTheirs)
{
    if (PosixKindOf(a_plathandleTheirs) != PosixKind::MemoryFile)
    {
        PosixFail(PLAT_ERROR_INVALIDPARAMETER);
        return PLAT_INVALID;
    }
    char szLink[64];
    snprintf(szLink, sizeof szLink, "/proc/%llu/fd/%d", static_cast<unsigned long long>(a_u64ProcessId),
             PosixNumberOf(a_plathandleTheirs));
    char szTarget[PATH_MAX] = {};
    const bool blMemory =
        readlink(szLink, szTarget, sizeof szTarget - 1) > 0 && strstr(szTarget, "/memfd:") == szTarget;
    PosixDescriptor posixdescriptor(blMemory ? open(szLink, O_RDWR | O_CLOEXEC) : -1);
    if (!posixdescriptor.IsOpen())
    {
        PosixFail(errno == EACCES || errno == EPERM ? PLAT_ERROR_ACCESSDENIED : PLAT_ERROR_INVALIDPARAMETER);
        return PLAT_INVALID;
    }
    return MakeMemoryHandle(posixdescriptor);
}
