// plat_file_share.cpp: share modes, made of locks that belong to the open file.
//
// Three ranges of bytes, far beyond the end of any file, stand for what handles do with a file. They are adjacent,
// so that an opener who shares reading and writing takes all its locks in one call.
//
//   READERS    who reads locks all of it shared. Who lets nobody else read locks it exclusively: all of it when he
//              reads himself, one byte of it when he does not, for two such openers do not exclude each other.
//   DENIERS    who does not share deletion locks all of it shared. Who deletes locks one byte of it exclusively
//              while he does; who deletes when he closes and does not share deletion locks all of it exclusively.
//   WRITERS    like READERS, for writing.
//
// A deletion or a move lasts a moment. It takes its byte in the upper half of DENIERS, so that an opener who meets it
// knows that waiting is worth it; the byte of an opener whose file goes when it is closed is in the lower half.
//
// The system grants an exclusive lock only to a descriptor that may write, a shared one only to one that may read.
// Where the permissions of the file give no such descriptor, the opener asks whether somebody stands in its way and
// is refused then; but those who come later do not see it. Where a file system has no locks, there are no share modes.
#include "plat_posix_file.h"

#include "plat_wait.h"

#include <atomic>
#include <cerrno>
#include <fcntl.h>
#include <iterator>
#include <sched.h>

static constexpr off_t g_offRange = off_t{1} << 20;
static constexpr off_t g_offReaders = off_t{1} << 62;
static constexpr off_t g_offDeniers = g_offReaders + g_offRange;
static constexpr off_t g_offWriters = g_offDeniers + g_offRange;

// What an opener takes of a range.
enum class Claim
{
    None,
    Shared,   // all of it
    Slot,     // one byte of it, exclusively
    Whole,    // all of it, exclusively
};

static constexpr Claim ClaimOf(bool a_blAccess, bool a_blShare)
{
    if (a_blAccess)
        return a_blShare ? Claim::Shared : Claim::Whole;
    return a_blShare ? Claim::None : Claim::Slot;
}

static constexpr Claim DenierClaimOf(bool a_blDelete, bool a_blShare)
{
    if (a_blDelete)
        return a_blShare ? Claim::Slot : Claim::Whole;
    return a_blShare ? Claim::None : Claim::Shared;
}

static struct flock LockOf(short a_shType, off_t a_offStart, off_t a_offLength)
{
    struct flock flock = {};
    flock.l_type = a_shType;
    flock.l_whence = SEEK_SET;
    flock.l_start = a_offStart;
    flock.l_len = a_offLength;
    return flock;
}

static bool IsPassing(const struct flock& a_flock)
{
    return a_flock.l_type == F_WRLCK && a_flock.l_start >= g_offDeniers + g_offRange / 2 &&
           a_flock.l_start + a_flock.l_len <= g_offWriters;
}

static bool IsSlot(const struct flock& a_flock)
{
    return a_flock.l_type == F_WRLCK && a_flock.l_len == 1;
}

// Takes one lock, or only asks for it where the descriptor is not open for that kind. *a_pflock receives what stands
// in the way.
static PosixShare Take(int a_iDescriptor, short a_shType, off_t a_offStart, off_t a_offLength, struct flock* a_pflock)
{
    for (;;)
    {
        *a_pflock = LockOf(a_shType, a_offStart, a_offLength);
        if (fcntl(a_iDescriptor, F_OFD_SETLK, a_pflock) == 0)
            return PosixShare::Granted;
        const bool blAsk = errno == EBADF;
        if (!blAsk && errno != EAGAIN)
            return PosixShare::Granted;
        if (fcntl(a_iDescriptor, F_OFD_GETLK, a_pflock) != 0)
            return PosixShare::Granted;
        if (a_pflock->l_type != F_UNLCK)
            return IsPassing(*a_pflock) ? PosixShare::Passing : PosixShare::Refused;
        if (blAsk)
            return PosixShare::Granted;
    }
}

// A byte of the half range that begins at a_offStart. Its ends are left free: a lock never grows together with a
// neighbour's.
static off_t NextSlot(off_t a_offStart)
{
    static std::atomic<uint32_t> g_u32Slot{static_cast<uint32_t>(getpid()) * 2654435761u};
    return a_offStart + 1 + static_cast<off_t>(g_u32Slot.fetch_add(40503) % (g_offRange / 2 - 2));
}

static PosixShare TakeSlot(int a_iDescriptor, off_t a_offStart)
{
    struct flock flock;
    PosixShare posixshare = PosixShare::Refused;
    for (int iTry = 0; iTry < 64; ++iTry)
    {
        posixshare = Take(a_iDescriptor, F_WRLCK, NextSlot(a_offStart), 1, &flock);
        if (posixshare == PosixShare::Granted || !IsSlot(flock))
            break;
    }
    return posixshare;
}

static PosixShare TakeWhole(int a_iDescriptor, off_t a_offStart)
{
    struct flock flock;
    const PosixShare posixshare = Take(a_iDescriptor, F_WRLCK, a_offStart, g_offRange, &flock);
    // Where it could only be asked for, the opener is seen at least as one who shares.
    if (posixshare != PosixShare::Granted || flock.l_type == F_WRLCK)
        return posixshare;
    return Take(a_iDescriptor, F_RDLCK, a_offStart, g_offRange, &flock);
}

struct RangeClaim
{
    Claim claim;
    off_t offStart;
    off_t offSlots;   // where a byte of it is taken from
};

// Tells whether a claim would be refused now.
static PosixShare Ask(int a_iDescriptor, const RangeClaim& a_rangeclaim)
{
    if (a_rangeclaim.claim == Claim::None)
        return PosixShare::Granted;
    const short shType = a_rangeclaim.claim == Claim::Shared ? F_RDLCK : F_WRLCK;
    struct flock flock = a_rangeclaim.claim == Claim::Slot ? LockOf(shType, NextSlot(a_rangeclaim.offSlots), 1)
                                                           : LockOf(shType, a_rangeclaim.offStart, g_offRange);
    if (fcntl(a_iDescriptor, F_OFD_GETLK, &flock) != 0 || flock.l_type == F_UNLCK)
        return PosixShare::Granted;
    if (a_rangeclaim.claim == Claim::Slot && IsSlot(flock))
        return PosixShare::Granted;
    return IsPassing(flock) ? PosixShare::Passing : PosixShare::Refused;
}

// Takes the claim, and shared ones that follow it at once with a shared one. Moves on to the next.
static PosixShare TakeNext(int a_iDescriptor, const RangeClaim*& a_prangeclaim, const RangeClaim* a_prangeclaimEnd)
{
    const RangeClaim& rangeclaim = *a_prangeclaim++;
    off_t offLength = g_offRange;
    struct flock flock;
    switch (rangeclaim.claim)
    {
    case Claim::Shared:
        for (; a_prangeclaim != a_prangeclaimEnd && a_prangeclaim->claim == Claim::Shared; ++a_prangeclaim)
            offLength += g_offRange;
        return Take(a_iDescriptor, F_RDLCK, rangeclaim.offStart, offLength, &flock);
    case Claim::Slot:
        return TakeSlot(a_iDescriptor, rangeclaim.offSlots);
    case Claim::Whole:
        return TakeWhole(a_iDescriptor, rangeclaim.offStart);
    case Claim::None:
        break;
    }
    return PosixShare::Granted;
}

PosixShare PosixShareTake(int a_iDescriptor, const PosixShareRequest& a_posixsharerequest)
{
    const uint32_t u32Access = a_posixsharerequest.u32Access;
    const uint32_t u32Share = a_posixsharerequest.u32Share;
    const RangeClaim arangeclaim[] = {
        {ClaimOf(u32Access & PLAT_ACCESS_READ, u32Share & PLAT_SHARE_READ), g_offReaders, g_offReaders},
        {DenierClaimOf(a_posixsharerequest.blDelete, u32Share & PLAT_SHARE_DELETE), g_offDeniers,
         a_posixsharerequest.blPassing ? g_offDeniers + g_offRange / 2 : g_offDeniers},
        {ClaimOf(u32Access & PLAT_ACCESS_WRITE, u32Share & PLAT_SHARE_WRITE), g_offWriters, g_offWriters},
    };
    const RangeClaim* const prangeclaimEnd = std::end(arangeclaim);
    PosixShare posixshare = PosixShare::Granted;

    // An opener who will be refused must not stand in anybody's way even for a moment with what it took before. Who
    // shares everything, or deletes the name and no more, takes it all at once.
    const bool blAtOnce = PosixShareIsOpen(a_posixsharerequest) || a_posixsharerequest.blPassing;
    const RangeClaim* prangeclaim = blAtOnce ? prangeclaimEnd : std::begin(arangeclaim);
    while (prangeclaim != prangeclaimEnd && posixshare == PosixShare::Granted)
        posixshare = Ask(a_iDescriptor, *prangeclaim++);

    prangeclaim = std::begin(arangeclaim);
    while (prangeclaim != prangeclaimEnd && posixshare == PosixShare::Granted)
        posixshare = TakeNext(a_iDescriptor, prangeclaim, prangeclaimEnd);
    return posixshare;
}

bool PosixShareAdmitsAll(int a_iDescriptor)
{
    struct flock flock = LockOf(F_RDLCK, g_offReaders, 3 * g_offRange);
    return fcntl(a_iDescriptor, F_OFD_GETLK, &flock) != 0 || flock.l_type == F_UNLCK;
}

void PosixShareDrop(int a_iDescriptor)
{
    struct flock flock = LockOf(F_UNLCK, g_offReaders, 3 * g_offRange);
    fcntl(a_iDescriptor, F_OFD_SETLK, &flock);
}

bool PosixPatience::Wait()
{
    if (m_u32Yields)
    {
        --m_u32Yields;
        sched_yield();
        return true;
    }
    if (!m_u32Left)
        return false;
    --m_u32Left;
    PlatSleep(1);
    return true;
}
