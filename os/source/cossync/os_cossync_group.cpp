// os_cossync_group.cpp: the group of an event: the list of groups, joining and leaving a group's shared file.
//
// This process's own registrations are in a list in memory, and waits use only that list: the content of the file
// belongs to other processes or may be forged.
//
// The file is read and written under a byte lock behind its end, for one operation, and never mapped. Each slot has a
// byte that is locked while its event is registered; a slot whose byte is unlocked is free, whatever its content. Both
// locks end with their process.
//
// The last event to leave removes the file.
#include "os_cossync_impl.h"

#include "os_cfg.h"
#include "os_coslocale.h"
#include "os_cospath.h"
#include "os_cosstring.h"
#include "os_log.h"

#include "plat_file.h"
#include "plat_process.h"
#include "plat_system.h"

#include <algorithm>
#include <cstring>
#include <new>

static constexpr char g_szSource[] = "os/source/os_cossync";

static constexpr uint32_t g_u32LockTimeout = 2000;   // milliseconds

// The group's file. Any process that can open it may write anything into it.
struct OsSyncGroupFile
{
    uint64_t u64Size;                          // of this block, written by the process that creates the file
    uint64_t u64Lock;                          // an unused lock word
    uint64_t au64Handle[OS_SYNCGROUP_SLOTS];   // of the registering process; 0: a free slot
    char aszName[OS_SYNCGROUP_SLOTS][OS_PATHSIZE];
};
static_assert(sizeof(OsSyncGroupFile) == 4176);

static constexpr uint64_t g_u64OperationByte = sizeof(OsSyncGroupFile);
static constexpr uint64_t g_u64SlotBytes = g_u64OperationByte + 1;   // one for each slot

// ------------------------------------------------------------------------------------------------ the list of groups

// The groups in which this process has events, and the spin lock of the list and of the events in them.
static OsSyncGroup* g_possyncgroupFirst = nullptr;
static uint64_t g_u64ListLock = 0;

OsSyncGroup::OsSyncGroup(const char* a_szPath)
{
    SStrCpy(szPath, sizeof szPath, a_szPath);
}

uint32_t OsSyncGroup::Events(OsSyncReference<OsSyncEvent>* a_aossyncevent) const
{
    uint32_t u32Events = 0;
    const COsSpinGuard spinguard(&g_u64ListLock);
    for (const OsSyncReference<OsSyncEvent>& ossyncevent : aossyncevent)
    {
        if (ossyncevent)
            a_aossyncevent[u32Events++] = ossyncevent;
    }
    return u32Events;
}

// Adds an event to the group of that path, which becomes the given one if this process has none yet. None when the slot
// is taken by an event that joined before the file was replaced.
static OsSyncReference<OsSyncGroup> Register(const OsSyncReference<OsSyncEvent>& a_ossyncevent,
                                             const OsSyncReference<OsSyncGroup>& a_ossyncgroup, uint32_t a_u32Slot)
{
    const COsSpinGuard spinguard(&g_u64ListLock);
    OsSyncGroup* possyncgroup = g_possyncgroupFirst;
    while (possyncgroup && std::strcmp(possyncgroup->szPath, a_ossyncgroup->szPath) != 0)
        possyncgroup = possyncgroup->possyncgroupNext;
    if (!possyncgroup)
    {
        possyncgroup = a_ossyncgroup.Get();
        possyncgroup->possyncgroupNext = std::exchange(g_possyncgroupFirst, possyncgroup);
    }
    if (possyncgroup->aossyncevent[a_u32Slot])
        return {};
    possyncgroup->aossyncevent[a_u32Slot] = a_ossyncevent;
    return OsSyncReference<OsSyncGroup>(possyncgroup);
}

// A group without events is removed from the list.
static OsSyncReference<OsSyncEvent> Unregister(OsSyncGroup& a_ossyncgroup, uint32_t a_u32Slot)
{
    const COsSpinGuard spinguard(&g_u64ListLock);
    OsSyncReference<OsSyncEvent> ossyncevent = std::exchange(a_ossyncgroup.aossyncevent[a_u32Slot], {});
    if (std::any_of(std::begin(a_ossyncgroup.aossyncevent), std::end(a_ossyncgroup.aossyncevent),
                    [](const OsSyncReference<OsSyncEvent>& a_ossyncevent) { return static_cast<bool>(a_ossyncevent); }))
        return ossyncevent;
    OsSyncGroup** ppossyncgroup = &g_possyncgroupFirst;
    while (*ppossyncgroup != &a_ossyncgroup)
        ppossyncgroup = &(*ppossyncgroup)->possyncgroupNext;
    *ppossyncgroup = a_ossyncgroup.possyncgroupNext;
    return ossyncevent;
}

// ---------------------------------------------------------------------------------------------------------- the file

// The path of the group's file, in a folder shared by all users. False when its name is too long.
static bool GroupPath(const char* a_szGroup, char (&a_szPath)[OS_PATHSIZE], char16_t (&a_wszPath)[OS_PATHSIZE])
{
    const char* const szRoot = OsCfgGetString(OS_CFGTAG_ROOTCOMMONDIRECTORY);
    OsPathCopy(a_szPath, sizeof a_szPath, *szRoot ? szRoot : a_szGroup);
    if (*szRoot)
        OsPathAppend(a_szPath, sizeof a_szPath, a_szGroup);
    return *a_szPath && CopyStringFromUtf8(a_wszPath, std::size(a_wszPath), a_szPath);
}

// Reads the block; missing bytes are zero.
static bool ReadBlock(PlatHandle a_plathandle, OsSyncGroupFile* a_possyncgroupfile, size_t* a_psizetRead)
{
    *a_possyncgroupfile = {};
    return PlatFileSeek(a_plathandle, PLAT_SEEK_START, 0, nullptr) &&
           PlatFileRead(a_plathandle, a_possyncgroupfile, sizeof *a_possyncgroupfile, a_psizetRead);
}

static bool WriteBlock(PlatHandle a_plathandle, const OsSyncGroupFile& a_ossyncgroupfile)
{
    return PlatFileSeek(a_plathandle, PLAT_SEEK_START, 0, nullptr) &&
           PlatFileWrite(a_plathandle, &a_ossyncgroupfile, sizeof a_ossyncgroupfile, nullptr);
}

// Opens or creates the file and locks it. Retries if the previous owner of the lock has removed the file.
bool OsSyncMembership::Open(const char16_t* a_wszPath)
{
    constexpr uint32_t u32Access = PLAT_ACCESS_READ | PLAT_ACCESS_WRITE;
    constexpr uint32_t u32Share = PLAT_SHARE_READ | PLAT_SHARE_WRITE | PLAT_SHARE_DELETE;
    const uint64_t u64End = PlatTicks() + g_u32LockTimeout;
    do
    {
        const PlatHandle plathandle = PlatFileOpen(a_wszPath, u32Access, u32Share, PLAT_DISPOSITION_OPENALWAYS, 0);
        if (plathandle == PLAT_INVALID)
            return false;
        m_plathandleFile = plathandle;
        const bool blLocked = PlatFileLockBriefly(plathandle, g_u64OperationByte, 1, g_u32LockTimeout);
        if (blLocked && PlatFileIsNamed(plathandle, a_wszPath))
            return true;
        const uint32_t u32Error = PlatGetLastError();
        CloseFile();
        if (!blLocked)
        {
            PlatSetLastError(u32Error);
            return false;
        }
    } while (PlatTicks() < u64End);
    PlatSetLastError(PLAT_ERROR_LOCK);
    return false;
}

// Called with the file's lock, which is released explicitly: the descriptor inherited by a forked child would keep it.
void OsSyncMembership::CloseFile()
{
    PlatFileUnlockBriefly(m_plathandleFile, g_u64OperationByte, 1);
    PlatClose(std::exchange(m_plathandleFile, 0));
}

// ------------------------------------------------------------------------------------------------------------ join

bool OsSyncMembership::Join(const OsSyncReference<OsSyncEvent>& a_ossyncevent, const char* a_szGroup)
{
    char szPath[OS_PATHSIZE];
    char16_t wszPath[OS_PATHSIZE];
    const bool blPath = GroupPath(a_szGroup, szPath, wszPath);
    const OsSyncReference<OsSyncGroup> ossyncgroup(new (std::nothrow) OsSyncGroup(szPath));
    if (!ossyncgroup)
    {
        OSLOG(OS_LOG_ERROR, "sync>>> OsMemQuickAlloc failed...");
        return false;
    }
    uint64_t u64Size = 0;
    OsSyncJoin ossyncjoin = OsSyncJoin::Refused;
    if (blPath && Open(wszPath))
    {
        ossyncjoin = TakeSlot(a_ossyncevent, ossyncgroup, &u64Size);
        if (ossyncjoin == OsSyncJoin::Joined)
        {
            PlatFileUnlockBriefly(m_plathandleFile, g_u64OperationByte, 1);
            return true;
        }
        CloseFile();
    }
    else if (blPath && PlatGetLastError() == PLAT_ERROR_LOCK)
    {
        OSLOG(OS_LOG_CHECK, "sync>>> somebody keeps the lock of the group...<%s> <%s>", a_ossyncevent->szName,
              a_szGroup);
    }

    if (ossyncjoin == OsSyncJoin::Refused)
        OSLOG(OS_LOG_CHECK, "sync>>> OsMemSharedAlloc failed...<%s> <%s>", a_ossyncevent->szName, a_szGroup);
    if (ossyncjoin == OsSyncJoin::Mismatched)
    {
        OSLOG(OS_LOG_CHECK, "sync>>> mismatch detected in OsSyncGroup...%d < %d", static_cast<int>(u64Size),
              static_cast<int>(sizeof(OsSyncGroupFile)));
    }
    if (ossyncjoin == OsSyncJoin::Full)
        OSLOG(OS_LOG_CHECK, "sync>>> m_possyncgroupShared is full...<%s> <%s>", a_ossyncevent->szName, a_szGroup);
    return false;
}

// Called with the file's lock held. *a_pu64Size receives the size stored in the file.
OsSyncJoin OsSyncMembership::TakeSlot(const OsSyncReference<OsSyncEvent>& a_ossyncevent,
                                      const OsSyncReference<OsSyncGroup>& a_ossyncgroup, uint64_t* a_pu64Size)
{
    OsSyncGroupFile ossyncgroupfile;
    size_t sizetRead = 0;
    if (!ReadBlock(m_plathandleFile, &ossyncgroupfile, &sizetRead))
        return OsSyncJoin::Refused;
    if (sizetRead == 0)
        ossyncgroupfile.u64Size = sizeof ossyncgroupfile;
    *a_pu64Size = ossyncgroupfile.u64Size;
    if (ossyncgroupfile.u64Size < sizeof ossyncgroupfile)
        return OsSyncJoin::Mismatched;

    for (uint32_t u32Slot = 0; u32Slot < OS_SYNCGROUP_SLOTS; ++u32Slot)
    {
        if (!PlatFileLock(m_plathandleFile, g_u64SlotBytes + u32Slot, 1))
            continue;
        ossyncgroupfile.au64Handle[u32Slot] = a_ossyncevent->plathandle;
        SStrCpy(ossyncgroupfile.aszName[u32Slot], OS_PATHSIZE, a_ossyncevent->szName);
        if (!WriteBlock(m_plathandleFile, ossyncgroupfile))
            return OsSyncJoin::Refused;
        m_ossyncgroup = Register(a_ossyncevent, a_ossyncgroup, u32Slot);
        m_u32Slot = u32Slot;
        m_u32ProcessId = static_cast<uint32_t>(PlatProcessId());
        if (m_ossyncgroup)
            return OsSyncJoin::Joined;
        PlatFileUnlock(m_plathandleFile, g_u64SlotBytes + u32Slot, 1);
    }
    return OsSyncJoin::Full;
}

// ----------------------------------------------------------------------------------------------------------- leave

void OsSyncMembership::Leave()
{
    if (!m_ossyncgroup)
        return;
    const OsSyncReference<OsSyncEvent> ossyncevent = Unregister(*m_ossyncgroup.Get(), m_u32Slot);
    m_ossyncgroup->bell.Ring();
    if (m_u32ProcessId == static_cast<uint32_t>(PlatProcessId()))
        GiveSlotBack(*ossyncevent.Get());
    PlatClose(std::exchange(m_plathandleFile, 0));
    m_ossyncgroup = {};
}

// Clears the slot if it still holds this event. The last event removes the file while the lock prevents joins.
void OsSyncMembership::GiveSlotBack(const OsSyncEvent& a_ossyncevent)
{
    if (!PlatFileLockBriefly(m_plathandleFile, g_u64OperationByte, 1, g_u32LockTimeout))
    {
        OSLOG(OS_LOG_CHECK, "sync>>> somebody keeps the lock of the group...<%s> <%s>", a_ossyncevent.szName,
              m_ossyncgroup->szPath);
        PlatFileUnlock(m_plathandleFile, g_u64SlotBytes + m_u32Slot, 1);
        return;
    }
    OsSyncGroupFile ossyncgroupfile;
    size_t sizetRead = 0;
    if (ReadBlock(m_plathandleFile, &ossyncgroupfile, &sizetRead) &&
        ossyncgroupfile.au64Handle[m_u32Slot] == a_ossyncevent.plathandle)
    {
        ossyncgroupfile.au64Handle[m_u32Slot] = 0;
        std::memset(ossyncgroupfile.aszName[m_u32Slot], 0, OS_PATHSIZE);
        WriteBlock(m_plathandleFile, ossyncgroupfile);
    }
    PlatFileUnlock(m_plathandleFile, g_u64SlotBytes + m_u32Slot, 1);

    char16_t wszPath[OS_PATHSIZE];
    if (CopyStringFromUtf8(wszPath, std::size(wszPath), m_ossyncgroup->szPath) &&
        PlatFileIsNamed(m_plathandleFile, wszPath) &&
        PlatFileLock(m_plathandleFile, g_u64SlotBytes, OS_SYNCGROUP_SLOTS))
    {
        PlatFileDelete(wszPath);
        PlatFileUnlock(m_plathandleFile, g_u64SlotBytes, OS_SYNCGROUP_SLOTS);
    }
    PlatFileUnlockBriefly(m_plathandleFile, g_u64OperationByte, 1);
}

void OsSyncMembership::Swap(OsSyncMembership& a_ossyncmembership)
{
    std::swap(m_ossyncgroup, a_ossyncmembership.m_ossyncgroup);
    std::swap(m_plathandleFile, a_ossyncmembership.m_plathandleFile);
    std::swap(m_u32Slot, a_ossyncmembership.m_u32Slot);
    std::swap(m_u32ProcessId, a_ossyncmembership.m_u32ProcessId);
}
