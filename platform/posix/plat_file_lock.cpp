// plat_file_lock.cpp: byte locks, which belong to the open file and not to the process.
#include "plat_posix_file.h"

#include "plat_wait.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <fcntl.h>
#include <pthread.h>

// Locks of bytes stay below the ranges that stand for share modes.
static constexpr uint64_t g_u64Limit = uint64_t{1} << 61;

static bool MakeLock(PlatHandle a_plathandle, uint64_t a_u64Offset, uint64_t a_u64Length, short a_shType,
                     struct flock& a_flock)
{
    const PosixKind posixkind = PosixKindOf(a_plathandle);
    if (posixkind != PosixKind::File && posixkind != PosixKind::FileTemporary)
        return PosixFail(PLAT_ERROR_INVALIDHANDLE);
    if (a_u64Length == 0 || a_u64Offset >= g_u64Limit || a_u64Length > g_u64Limit - a_u64Offset)
        return PosixFail(PLAT_ERROR_INVALIDPARAMETER);
    a_flock = {};
    a_flock.l_type = a_shType;
    a_flock.l_whence = SEEK_SET;
    a_flock.l_start = static_cast<off_t>(a_u64Offset);
    a_flock.l_len = static_cast<off_t>(a_u64Length);
    return true;
}

// True when nobody else holds any of it, whichever way.
static bool IsFree(int a_iDescriptor, struct flock a_flock)
{
    a_flock.l_type = F_WRLCK;
    return fcntl(a_iDescriptor, F_OFD_GETLK, &a_flock) == 0 && a_flock.l_type == F_UNLCK;
}

static bool SetLock(int a_iDescriptor, struct flock a_flock, short a_shType)
{
    a_flock.l_type = a_shType;
    return fcntl(a_iDescriptor, F_OFD_SETLK, &a_flock) == 0;
}

// A descriptor that may not write gets no exclusive lock. A shared one is as good when nobody else holds any: of two
// who try at the same moment at least one sees the other.
static bool LockForReader(int a_iDescriptor, const struct flock& a_flock)
{
    for (PosixPatience posixpatience(2); IsFree(a_iDescriptor, a_flock);)
    {
        if (!SetLock(a_iDescriptor, a_flock, F_RDLCK))
            break;
        if (IsFree(a_iDescriptor, a_flock))
            return true;
        SetLock(a_iDescriptor, a_flock, F_UNLCK);
        if (!posixpatience.Wait())
            break;
    }
    return PosixFail(PLAT_ERROR_LOCK);
}

bool PlatFileLock(PlatHandle a_plathandle, uint64_t a_u64Offset, uint64_t a_u64Length)
{
    struct flock flock;
    if (!MakeLock(a_plathandle, a_u64Offset, a_u64Length, F_WRLCK, flock))
        return false;
    const int iDescriptor = PosixDescriptorOf(a_plathandle);
    if (SetLock(iDescriptor, flock, F_WRLCK))
        return true;
    if (iDescriptor >= 0 && errno == EBADF && (a_plathandle & POSIX_FILE_READ))
        return LockForReader(iDescriptor, flock);
    return errno == EAGAIN || errno == EACCES ? PosixFail(PLAT_ERROR_LOCK) : PosixFailErrno();
}

bool PlatFileUnlock(PlatHandle a_plathandle, uint64_t a_u64Offset, uint64_t a_u64Length)
{
    struct flock flock;
    return MakeLock(a_plathandle, a_u64Offset, a_u64Length, F_UNLCK, flock) &&
           (fcntl(PosixDescriptorOf(a_plathandle), F_OFD_SETLK, &flock) == 0 || PosixFailErrno());
}

// ------------------------------------------------------------------------------------------------------ brief locks

// The handles that hold one, or try to; 0 is a free place. That many threads at once are more than there are.
static std::array<std::atomic<PlatHandle>, 64> g_aatomicBrief;

static void DropInChild()
{
    for (std::atomic<PlatHandle>& atomicBrief : g_aatomicBrief)
    {
        if (const PlatHandle plathandle = atomicBrief.exchange(0))
            close(PosixDescriptorOf(PosixRetire(plathandle)));
    }
}

static bool ReplaceBrief(PlatHandle a_plathandleOld, PlatHandle a_plathandleNew)
{
    return std::any_of(g_aatomicBrief.begin(), g_aatomicBrief.end(), [&](std::atomic<PlatHandle>& a_atomicBrief) {
        PlatHandle plathandleOld = a_plathandleOld;
        return a_atomicBrief.compare_exchange_strong(plathandleOld, a_plathandleNew);
    });
}

bool PlatFileLockBriefly(PlatHandle a_plathandle, uint64_t a_u64Offset, uint64_t a_u64Length,
                         uint32_t a_u32Milliseconds)
{
    [[maybe_unused]] static const int g_iHooked = pthread_atfork(nullptr, nullptr, DropInChild);
    const uint64_t u64End = PlatTicks() + a_u32Milliseconds;
    for (;;)
    {
        const bool blPlace = ReplaceBrief(0, a_plathandle);
        if (blPlace && PlatFileLock(a_plathandle, a_u64Offset, a_u64Length))
            return true;
        if (blPlace)
            ReplaceBrief(a_plathandle, 0);
        if ((blPlace && PlatGetLastError() != PLAT_ERROR_LOCK) || PlatTicks() >= u64End)
            return blPlace ? false : PosixFail(PLAT_ERROR_LOCK);
        PlatSleep(1);
    }
}

bool PlatFileUnlockBriefly(PlatHandle a_plathandle, uint64_t a_u64Offset, uint64_t a_u64Length)
{
    const bool blUnlocked = PlatFileUnlock(a_plathandle, a_u64Offset, a_u64Length);
    ReplaceBrief(a_plathandle, 0);
    return blUnlocked;
}
