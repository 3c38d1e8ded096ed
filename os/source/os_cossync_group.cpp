// os_cossync_group.cpp: the group of an event: joining its shared file, leaving it, and what a wait needs of it.
//
// - The group's file is made, joined and removed by one party at a time, so that nobody sees it half made. It goes with
//   the last of its events, whichever that is.
// - The events that this process registered are in a list of its own. What stands in the shared block beside them, of
//   another process, of one that was killed or written by anybody else, is never waited for.
#include "os_cossync_impl.h"

#include "os_cfg.h"
#include "os_coslocale.h"
#include "os_cosmem.h"
#include "os_cosspinlock.h"
#include "os_cosstring.h"
#include "os_log.h"

#include "plat_file.h"
#include "plat_system.h"
#include "plat_wait.h"

#include <cstring>
#include <iterator>
#include <utility>

static constexpr char g_szSource[] = "os/source/os_cossync";

static constexpr uint32_t g_u32FileLockTimeout = 5000;   // milliseconds, like the other
static constexpr uint32_t g_u32LockTimeout = 2000;

// The events of this process that have a slot, and the spin lock of the list. Taken inside a group's lock.
static COsSyncImpl* g_possyncimplFirst = nullptr;
static uint64_t g_u64ListLock = 0;

namespace
{
// Keeps every other party from creating or opening the group's file. The lock is the existence of an event's name:
// whoever made it holds the lock, and it is free again when that handle has gone, also with a killed process.
class GroupFileLock
{
public:
    explicit GroupFileLock(const char* a_szGroup)
    {
        char szName[OS_PATHSIZE + 32];
        char16_t wszName[OS_PATHSIZE + 32];
        SStrPrintf(szName, sizeof szName, "Global\\osgroup-%s", a_szGroup);
        if (!CopyStringFromUtf8(wszName, std::size(wszName), szName))
            return;
        const uint64_t u64End = PlatTicks() + g_u32FileLockTimeout;
        while (!Try(wszName) && PlatTicks() < u64End)
            PlatSleep(1);
    }
    ~GroupFileLock()
    {
        if (IsHeld())
            PlatClose(m_plathandle);
    }
    GroupFileLock(const GroupFileLock&) = delete;
    GroupFileLock& operator=(const GroupFileLock&) = delete;

    bool IsHeld() const { return m_plathandle != PLAT_INVALID; }

private:
    bool Try(const char16_t* a_wszName)
    {
        const PlatHandle plathandle = PlatEventCreate(PLAT_RESET_AUTO, a_wszName);
        if (plathandle == PLAT_INVALID)
            return false;
        if (PlatGetLastError() == PLAT_ERROR_ALREADYEXISTS)
        {
            PlatClose(plathandle);
            return false;
        }
        m_plathandle = plathandle;
        return true;
    }

    PlatHandle m_plathandle = PLAT_INVALID;
};

// Holds the lock of the shared block, which is held for a few instructions at a time. One that stays taken was left so
// by a process that was killed within them: it is taken over.
class GroupGuard
{
public:
    explicit GroupGuard(OsSyncGroup* a_possyncgroup) : m_pu64Lock(&a_possyncgroup->u64Lock)
    {
        const uint64_t u64End = PlatTicks() + g_u32LockTimeout;
        while (!SpinLockTry(m_pu64Lock) && PlatTicks() < u64End)
            PlatSleep(0);
    }
    ~GroupGuard() { SpinLockRelease(m_pu64Lock); }
    GroupGuard(const GroupGuard&) = delete;
    GroupGuard& operator=(const GroupGuard&) = delete;

private:
    uint64_t* m_pu64Lock;
};
}   // namespace

// The file of the group, in the folder that all users share. False when its name is too long.
static bool GroupPath(const char* a_szGroup, char (&a_szPath)[OS_PATHSIZE], char16_t (&a_wszPath)[OS_PATHSIZE])
{
    const char* const szRoot = OsCfgGetString(OS_CFGTAG_ROOTCOMMONDIRECTORY);
    SStrPrintf(a_szPath, sizeof a_szPath, "%s%s%s", szRoot, *szRoot ? "\\" : "", a_szGroup);
    return *a_szPath && CopyStringFromUtf8(a_wszPath, std::size(a_wszPath), a_szPath);
}

// Nobody else has the file open while it is open like this.
static PlatHandle OpenAlone(const char16_t* a_wszPath, PlatDisposition a_platdisposition)
{
    return PlatFileOpen(a_wszPath, PLAT_ACCESS_READ | PLAT_ACCESS_WRITE, PLAT_SHARE_NONE, a_platdisposition, 0);
}

// What the file tells as the size of its block. False when it cannot be opened alone, or tells none. An empty one is
// none: who made it was killed before he had written it.
static bool ReadSizeAlone(const char16_t* a_wszPath, uint64_t* a_pu64Size)
{
    const PlatHandle plathandle = OpenAlone(a_wszPath, PLAT_DISPOSITION_OPENEXISTING);
    if (plathandle == PLAT_INVALID)
        return false;
    size_t sizetRead = 0;
    const bool blRead = PlatFileRead(plathandle, a_pu64Size, sizeof *a_pu64Size, &sizetRead);
    PlatClose(plathandle);
    PlatSetLastError(blRead && sizetRead == 0 ? PLAT_ERROR_FILENOTFOUND : PLAT_ERROR_NONE);
    return blRead && sizetRead == sizeof *a_pu64Size;
}

// True for no file, and for one that nobody has open: the leftover of a killed process, events, lock and all. One that
// is no group is left alone, so that the caller is told.
static bool IsToBeMade(const char16_t* a_wszPath)
{
    uint64_t u64Size = 0;
    if (ReadSizeAlone(a_wszPath, &u64Size))
        return u64Size >= sizeof(OsSyncGroup);
    return PlatGetLastError() == PLAT_ERROR_FILENOTFOUND;
}

static bool MakeFile(const char16_t* a_wszPath)
{
    static constexpr OsSyncGroup ossyncgroup{sizeof(OsSyncGroup), 0, {}, {}};
    const PlatHandle plathandle = OpenAlone(a_wszPath, PLAT_DISPOSITION_CREATEALWAYS);
    if (plathandle == PLAT_INVALID)
        return false;
    const bool blWritten = PlatFileWrite(plathandle, &ossyncgroup, sizeof ossyncgroup, nullptr);
    PlatClose(plathandle);
    return blWritten;
}

// ------------------------------------------------------------------------------------------------------------ join

bool COsSyncImpl::GroupJoin()
{
    m_possyncgroupCopy = static_cast<OsSyncGroup*>(OSMEMALLOC(sizeof(OsSyncGroup), OS_MEMFLAG_BLOCK));
    if (!m_possyncgroupCopy)
    {
        OSLOG(OS_LOG_ERROR, "sync>>> OsMemQuickAlloc failed...");
        return false;
    }

    const GroupFileLock groupfilelock(m_szGroup);
    if (!groupfilelock.IsHeld() || !GroupMap())
    {
        OSLOG(OS_LOG_CHECK, "sync>>> OsMemSharedAlloc failed...<%s> <%s>", m_szName, m_szGroup);
        return false;
    }
    return GroupRegister();
}

bool COsSyncImpl::GroupMap()
{
    char szPath[OS_PATHSIZE];
    char16_t wszPath[OS_PATHSIZE];
    if (!GroupPath(m_szGroup, szPath, wszPath) || (IsToBeMade(wszPath) && !MakeFile(wszPath)))
        return false;
    m_possyncgroupShared = static_cast<OsSyncGroup*>(
        OsMemSharedAlloc(OS_SHAREDALLOC_OPEN, szPath, sizeof(OsSyncGroup), sizeof(OsSyncGroup), OS_SHAREDLOCK_NONE,
                         OS_SHAREDFLAG_FILE, g_szSource, static_cast<uint32_t>(__LINE__)));
    return m_possyncgroupShared != nullptr;
}

bool COsSyncImpl::GroupRegister()
{
    const GroupGuard groupguard(m_possyncgroupShared);
    if (m_possyncgroupShared->u64Size < sizeof(OsSyncGroup))
    {
        OSLOG(OS_LOG_CHECK, "sync>>> mismatch detected in OsSyncGroup...%d < %d",
              static_cast<int>(m_possyncgroupShared->u64Size), static_cast<int>(sizeof(OsSyncGroup)));
        return false;
    }
    for (uint32_t u32Slot = 0; u32Slot < OS_SYNCGROUP_SLOTS; ++u32Slot)
    {
        if (m_possyncgroupShared->au64Handle[u32Slot] != 0)
            continue;
        m_possyncgroupShared->au64Handle[u32Slot] = m_plathandle;
        SStrCpy(m_possyncgroupShared->aszName[u32Slot], OS_PATHSIZE, m_szName);
        m_u64Slot = u32Slot + 1;
        const COsSpinGuard spinguardList(&g_u64ListLock);
        m_possyncimplNext = std::exchange(g_possyncimplFirst, this);
        return true;
    }
    OSLOG(OS_LOG_CHECK, "sync>>> m_possyncgroupShared is full...<%s> <%s>", m_szName, m_szGroup);
    return false;
}

// ----------------------------------------------------------------------------------------------------------- leave

void COsSyncImpl::GroupUnregister()
{
    const GroupGuard groupguard(m_possyncgroupShared);
    m_possyncgroupShared->au64Handle[m_u64Slot - 1] = 0;
    std::memset(m_possyncgroupShared->aszName[m_u64Slot - 1], 0, OS_PATHSIZE);
    const COsSpinGuard spinguardList(&g_u64ListLock);
    COsSyncImpl** ppossyncimpl = &g_possyncimplFirst;
    while (*ppossyncimpl != this)
        ppossyncimpl = &(*ppossyncimpl)->m_possyncimplNext;
    *ppossyncimpl = m_possyncimplNext;
}

// The last one takes the file along, while nobody can join.
static void RemoveFileUnlessOpen(const char* a_szGroup)
{
    char szPath[OS_PATHSIZE];
    char16_t wszPath[OS_PATHSIZE];
    uint64_t u64Size = 0;
    const GroupFileLock groupfilelock(a_szGroup);
    if (groupfilelock.IsHeld() && GroupPath(a_szGroup, szPath, wszPath) && ReadSizeAlone(wszPath, &u64Size) &&
        u64Size == sizeof(OsSyncGroup))
        PlatFileDelete(wszPath);
}

// Undoes as much of the joining as was done.
void COsSyncImpl::GroupLeave()
{
    if (m_u64Slot)
        GroupUnregister();
    if (m_possyncgroupShared)
        OSMEMFREE(m_possyncgroupShared, OS_MEMFLAG_BLOCK);
    if (m_u64Slot)
        RemoveFileUnlessOpen(m_szGroup);
    if (m_possyncgroupCopy)
        OSMEMFREE(m_possyncgroupCopy, OS_MEMFLAG_BLOCK);
}

// ------------------------------------------------------------------------------------------------------------ wait

bool COsSyncImpl::IsRegistered(uint64_t a_u64Handle, uint32_t a_u32Slot)
{
    const COsSpinGuard spinguard(&g_u64ListLock);
    const COsSyncImpl* possyncimpl = g_possyncimplFirst;
    while (possyncimpl && (possyncimpl->m_plathandle != a_u64Handle || possyncimpl->m_u64Slot != a_u32Slot + 1))
        possyncimpl = possyncimpl->m_possyncimplNext;
    return possyncimpl != nullptr;
}

void COsSyncImpl::GroupAppend(OsSyncWaitList& a_ossyncwaitlist) const
{
    const GroupGuard groupguard(m_possyncgroupShared);
    std::memcpy(m_possyncgroupCopy, m_possyncgroupShared, sizeof(OsSyncGroup));
    for (uint32_t u32Slot = 0; u32Slot < OS_SYNCGROUP_SLOTS; ++u32Slot)
    {
        const uint64_t u64Handle = m_possyncgroupCopy->au64Handle[u32Slot];
        if (u64Handle != 0 && IsRegistered(u64Handle, u32Slot))
            a_ossyncwaitlist.Append(u64Handle);
        m_possyncgroupCopy->aszName[u32Slot][OS_PATHSIZE - 1] = 0;
    }
}

// Another thread's wait may renew the copy meanwhile, hence the lock.
bool COsSyncImpl::GroupNameOf(PlatHandle a_plathandle, char* a_szName) const
{
    const GroupGuard groupguard(m_possyncgroupShared);
    for (uint32_t u32Slot = 0; u32Slot < OS_SYNCGROUP_SLOTS; ++u32Slot)
    {
        if (m_possyncgroupCopy->au64Handle[u32Slot] != a_plathandle)
            continue;
        if (a_szName)
            SStrCpy(a_szName, OS_PATHSIZE, m_possyncgroupCopy->aszName[u32Slot]);
        return true;
    }
    return false;
}
