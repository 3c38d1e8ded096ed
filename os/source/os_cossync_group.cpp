// os_cossync_group.cpp: the group of an event: joining its shared file, leaving it, and what a wait needs of it.
//
// - The group's file is created or opened by one party at a time, so that nobody sees it half made.
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

static constexpr uint32_t g_u32FileLockTimeout = 5000;   // milliseconds

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
}   // namespace

// The file of the group, in the folder that all users share.
static void GroupPath(const char* a_szGroup, char (&a_szPath)[OS_PATHSIZE])
{
    const char* const szRoot = OsCfgGetString(OS_CFGTAG_ROOTCOMMONDIRECTORY);
    SStrPrintf(a_szPath, sizeof a_szPath, "%s%s%s", szRoot, *szRoot ? "\\" : "", a_szGroup);
}

// A file that nobody has open is the leftover of a killed process, events, lock and all, and is made anew. One that is
// no group is left alone, so that the caller is told.
static EOSSHAREDALLOC HowToMap(const char* a_szPath)
{
    char16_t wszPath[OS_PATHSIZE];
    if (!CopyStringFromUtf8(wszPath, std::size(wszPath), a_szPath))
        return OS_SHAREDALLOC_OPEN;
    const PlatHandle plathandle =
        PlatFileOpen(wszPath, PLAT_ACCESS_READ, PLAT_SHARE_NONE, PLAT_DISPOSITION_OPENEXISTING, 0);
    if (plathandle == PLAT_INVALID)
        return PlatGetLastError() == PLAT_ERROR_FILENOTFOUND ? OS_SHAREDALLOC_CREATE : OS_SHAREDALLOC_OPEN;
    uint64_t u64Size = 0;
    size_t sizetRead = 0;
    const bool blRead = PlatFileRead(plathandle, &u64Size, sizeof u64Size, &sizetRead);
    PlatClose(plathandle);
    const bool blGroup = blRead && sizetRead == sizeof u64Size && u64Size >= sizeof(OsSyncGroup);
    return blGroup ? OS_SHAREDALLOC_CREATE : OS_SHAREDALLOC_OPEN;
}

static OsSyncGroup* MapGroup(EOSSHAREDALLOC a_eossharedalloc, const char* a_szPath)
{
    return static_cast<OsSyncGroup*>(OsMemSharedAlloc(a_eossharedalloc, a_szPath, sizeof(OsSyncGroup),
                                                      sizeof(OsSyncGroup), OS_SHAREDLOCK_NONE, OS_SHAREDFLAG_FILE,
                                                      g_szSource, static_cast<uint32_t>(__LINE__)));
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
    bool blNew = false;
    if (!groupfilelock.IsHeld() || !GroupMap(&blNew))
    {
        OSLOG(OS_LOG_CHECK, "sync>>> OsMemSharedAlloc failed...<%s> <%s>", m_szName, m_szGroup);
        return false;
    }
    return GroupRegister(blNew);
}

// A file that has gone meanwhile, or that cannot be opened, is created.
bool COsSyncImpl::GroupMap(bool* a_pblNew)
{
    char szPath[OS_PATHSIZE];
    GroupPath(m_szGroup, szPath);
    if (!*szPath)
        return false;
    if (HowToMap(szPath) == OS_SHAREDALLOC_OPEN)
        m_possyncgroupShared = MapGroup(OS_SHAREDALLOC_OPEN, szPath);
    *a_pblNew = !m_possyncgroupShared;
    if (!m_possyncgroupShared)
        m_possyncgroupShared = MapGroup(OS_SHAREDALLOC_CREATE, szPath);
    return m_possyncgroupShared != nullptr;
}

bool COsSyncImpl::GroupRegister(bool a_blNew)
{
    const COsSpinGuard spinguard(&m_possyncgroupShared->u64Lock);
    if (a_blNew)
        m_possyncgroupShared->u64Size = sizeof(OsSyncGroup);
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
    const COsSpinGuard spinguard(&m_possyncgroupShared->u64Lock);
    m_possyncgroupShared->au64Handle[m_u64Slot - 1] = 0;
    std::memset(m_possyncgroupShared->aszName[m_u64Slot - 1], 0, OS_PATHSIZE);
    const COsSpinGuard spinguardList(&g_u64ListLock);
    COsSyncImpl** ppossyncimpl = &g_possyncimplFirst;
    while (*ppossyncimpl != this)
        ppossyncimpl = &(*ppossyncimpl)->m_possyncimplNext;
    *ppossyncimpl = m_possyncimplNext;
}

// Undoes as much of the joining as was done.
void COsSyncImpl::GroupLeave()
{
    if (m_u64Slot)
        GroupUnregister();
    if (m_possyncgroupShared)
        OSMEMFREE(m_possyncgroupShared, OS_MEMFLAG_BLOCK);
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
    const COsSpinGuard spinguard(&m_possyncgroupShared->u64Lock);
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
    const COsSpinGuard spinguard(&m_possyncgroupShared->u64Lock);
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
