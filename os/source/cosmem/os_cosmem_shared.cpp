// os_cosmem_shared.cpp: shared memory: its mode, and the operations on views.
//
// A view's inter-process lock is a lock of the first byte of the file that names the memory. os_cosmem_map.cpp maps
// views.
#include "os_cosmem_impl.h"

#include "os_cfg.h"
#include "os_cosspinlock.h"
#include "os_log.h"

#include "plat_file.h"
#include "plat_memory.h"

#include <algorithm>
#include <iterator>

static constexpr char g_szSource[] = "os/source/os_cosmem";

// --------------------------------------------------------------------------------------------------- the shared mode

static constexpr const char* g_aszSharedMode[] = {
    "mem>>> shared mode is OS_SHAREDMODE_UNDEFINED",      "mem>>> shared mode is OS_SHAREDMODE_MAPFILEASNEEDED",
    "mem>>> shared mode is OS_SHAREDMODE_MAPFILEALL",     "mem>>> shared mode is OS_SHAREDMODE_MAPPAGEFILEASNEEDED",
    "mem>>> shared mode is OS_SHAREDMODE_MAPPAGEFILEALL", "mem>>> shared mode is OS_SHAREDMODE_LAST"};
static_assert(std::size(g_aszSharedMode) == OS_SHAREDMODE_LAST + 1);

static constexpr int64_t g_i64Win7 = 12;   // the id of the system whose page-file mappings are not used

static void TraceSharedMode(EOSSHAREDMODE a_eossharedmode, long a_lForce, int64_t a_i64Platform, int64_t a_i64Version)
{
    if (OsLogWorkingWord() == 0)
        return;
    OSLOG(OS_LOG_NOTE, "mem>>> ForceMemoryMap=%d Platform=%d Windows=%d", static_cast<int>(a_lForce),
          static_cast<int>(a_i64Platform), static_cast<int>(a_i64Version));
    if (a_eossharedmode >= std::size(g_aszSharedMode))
    {
        OSLOG(OS_LOG_NOTE, "mem>>> shared mode is unknown...%d", static_cast<int>(a_eossharedmode));
        return;
    }
    OSLOG(OS_LOG_NOTE, "%s", g_aszSharedMode[a_eossharedmode]);
}

// Decided at the first use.
EOSSHAREDMODE COsMemImpl::SharedMode()
{
    {
        const COsSpinGuard guard(&m_u64Lock);
        if (m_eossharedmode != OS_SHAREDMODE_UNDEFINED)
            return m_eossharedmode;
    }
    const long lForce = OsCfgGetLong(OS_CFGTAG_FORCEMEMORYMAP);
    const int64_t i64Platform = OsCfgInfoGetLong(OS_CFGINFO_OS_PLATFORM);
    const int64_t i64Version = OsCfgInfoGetLong(OS_CFGINFO_OS_ID);
    const EOSSHAREDMODE eossharedmode = lForce != 0               ? static_cast<EOSSHAREDMODE>(lForce)
                                        : i64Version == g_i64Win7 ? OS_SHAREDMODE_MAPFILEASNEEDED
                                                                  : OS_SHAREDMODE_MAPPAGEFILEASNEEDED;
    {
        const COsSpinGuard guard(&m_u64Lock);
        if (m_eossharedmode != OS_SHAREDMODE_UNDEFINED)
            return m_eossharedmode;
        m_eossharedmode = eossharedmode;
    }
    TraceSharedMode(eossharedmode, lForce, i64Platform, i64Version);
    return eossharedmode;
}

bool COsMemImpl::IsFileBacked(const OsMemSharedRequest& a_osmemsharedrequest)
{
    const EOSSHAREDMODE eossharedmode = SharedMode();
    const long lForce = OsCfgGetLong(OS_CFGTAG_FORCEMEMORYMAP);
    const bool blFileMode = eossharedmode == OS_SHAREDMODE_MAPFILEASNEEDED || eossharedmode == OS_SHAREDMODE_MAPFILEALL;
    const bool blPageFileForced = lForce == OS_SHAREDMODE_MAPPAGEFILEASNEEDED || lForce == OS_SHAREDMODE_MAPPAGEFILEALL;
    return (a_osmemsharedrequest.u32Flags & OS_SHAREDFLAG_FILE) || (blFileMode && !blPageFileForced);
}

// ---------------------------------------------------------------------------------------------------- the operations

static void TraceMapping(const OsMemRecord& a_osmemrecord, const COsMem::Counts& a_counts,
                         const OsMemCaller& a_osmemcaller)
{
    if (OsLogWorkingWord() == 0)
        return;
    OSLOG_AT(a_osmemcaller.szFile, a_osmemcaller.u32Line, OS_MEMLEVEL,
             "mem>>> f+   AD:%p   SZ:%-9llu  AC:%-6d  FC:%-6d  CC:%-6d  CB:%-9llu  PB:%-9llu %s",
             a_osmemrecord.pvAddress, static_cast<unsigned long long>(a_osmemrecord.u64Size),
             static_cast<int>(a_counts.u32Allocations), static_cast<int>(a_counts.u32Frees),
             static_cast<int>(a_counts.u32Current), static_cast<unsigned long long>(a_counts.u64CurrentBytes),
             static_cast<unsigned long long>(a_counts.u64PeakBytes), a_osmemrecord.szName);
}

void* COsMemImpl::SharedAlloc(const OsMemSharedRequest& a_osmemsharedrequest, const OsMemCaller& a_osmemcaller)
{
    OsMemRecord osmemrecord;
    if (!OsMemMap(a_osmemsharedrequest, IsFileBacked(a_osmemsharedrequest), &osmemrecord))
        return nullptr;

    void* const pvView = osmemrecord.pvAddress;
    COsMem::Counts counts;
    if (!TrackMapping(osmemrecord, &counts))
    {
        OSLOG(OS_LOG_CHECK, "mem>>> No free slots...");
        OSLOG(OS_LOG_CHECK, "mem>>> Manage failed...<%s>", osmemrecord.szName);
        if (Keep(osmemrecord))
            return pvView;
        OsMemReleaseMapping(osmemrecord);
        return nullptr;
    }
    TraceMapping(osmemrecord, counts, a_osmemcaller);
    return pvView;
}

OsMemRecord* COsMemImpl::FindRecord(const void* a_pvBlock) const
{
    const uint32_t u32Slot = FindSlot(a_pvBlock);
    if (u32Slot != OS_MEMSLOTS)
        return &m_aosmemrecord[u32Slot];
    OsMemUntracked::Node* const pnode = m_osmemuntracked.Find(a_pvBlock);
    return pnode ? &pnode->osmemrecord : nullptr;
}

template <class Action>
bool COsMemImpl::WithMapping(const void* a_pvView, const OsMemCaller& a_osmemcaller, Action a_action)
{
    bool blKnown;
    {
        const COsSpinGuard guard(&m_u64Lock);
        OsMemRecord* const posmemrecord = FindRecord(a_pvView);
        if (posmemrecord && posmemrecord->u32Method == OS_MEMTYPE_MEMORYMAP)
        {
            a_action(*posmemrecord);
            return true;
        }
        blKnown = posmemrecord != nullptr;
    }
    OSLOG(OS_LOG_CHECK, "mem>>> %s...", blKnown ? "This isn't a memory mapped pointer" : "Manage didn't find mapping");
    OSLOG_AT(a_osmemcaller.szFile, a_osmemcaller.u32Line, OS_LOG_CHECK, "mem>>> Error occurred here...");
    return false;
}

// The handle that a record's views map.
static PlatHandle MemoryOf(const OsMemRecord& a_osmemrecord)
{
    return a_osmemrecord.plathandleMapping ? a_osmemrecord.plathandleMapping : a_osmemrecord.plathandleFile;
}

EOSSTS COsMemImpl::SharedLock(void* a_pvView, const OsMemCaller& a_osmemcaller)
{
    bool blHeld = false;
    const bool blMapping = WithMapping(a_pvView, a_osmemcaller, [&](OsMemRecord& a_osmemrecord) {
        if (a_osmemrecord.u32Lock == 0 && PlatFileLock(a_osmemrecord.plathandleFile, 0, 1))
            a_osmemrecord.u32Lock = OS_MEMLOCK_HELD;
        blHeld = a_osmemrecord.u32Lock != 0;
    });
    if (!blMapping)
        return EOSSTS_FAIL;
    return blHeld ? EOSSTS_LOCKED : EOSSTS_NOTLOCKED;
}

EOSSTS COsMemImpl::SharedUnlock(void* a_pvView, const OsMemCaller& a_osmemcaller)
{
    const bool blMapping = WithMapping(a_pvView, a_osmemcaller, [&](OsMemRecord& a_osmemrecord) {
        if (a_osmemrecord.u32Lock != 0)
            PlatFileUnlock(a_osmemrecord.plathandleFile, 0, 1);
        a_osmemrecord.u32Lock = 0;
    });
    return blMapping ? EOSSTS_SUCCESS : EOSSTS_FAIL;
}

uint64_t COsMemImpl::SharedSize(void* a_pvView, const OsMemCaller& a_osmemcaller)
{
    uint64_t u64Size = 0;
    WithMapping(a_pvView, a_osmemcaller, [&](const OsMemRecord& a_osmemrecord) {
        uint64_t u64Length = 0;
        if (PlatFileSize(MemoryOf(a_osmemrecord), &u64Length) && u64Length > a_osmemrecord.u64Offset)
            u64Size = std::min(a_osmemrecord.u64View, u64Length - a_osmemrecord.u64Offset);
    });
    return u64Size;
}

EOSSTS COsMemImpl::SharedFlush(void* a_pvView, const OsMemCaller& a_osmemcaller)
{
    uint64_t u64View = 0;
    if (!WithMapping(a_pvView, a_osmemcaller,
                     [&](const OsMemRecord& a_osmemrecord) { u64View = a_osmemrecord.u64View; }))
        return EOSSTS_FAIL;
    if (PlatMappingFlush(a_pvView, static_cast<size_t>(u64View)))
        return EOSSTS_SUCCESS;
    OSLOG(OS_LOG_CHECK, "mem>>> FlushViewOfFile failed...");
    return EOSSTS_FAIL;
}

// Maps the part of a record's memory that contains the requested bytes; null (logged) on failure.
static void* MapPart(const OsMemRecord& a_osmemrecord, uint64_t a_u64Offset, size_t a_sizetSize,
                     OsMemRecord* a_posmemrecordNew)
{
    const PlatHandle plathandle = MemoryOf(a_osmemrecord);
    uint64_t u64Length = 0;
    if (!PlatFileSize(plathandle, &u64Length) || a_u64Offset > u64Length)
    {
        OSLOG(OS_LOG_CHECK, "mem>>> The offset is larger than the file...");
        return nullptr;
    }
    const uint64_t u64Base = a_u64Offset / PlatMemoryGranularity() * PlatMemoryGranularity();
    const uint64_t u64Rest = u64Length - a_u64Offset;
    const bool blThere = a_sizetSize <= u64Rest && u64Length > u64Base;
    size_t sizetView = static_cast<size_t>((a_sizetSize ? a_sizetSize : u64Rest) + (a_u64Offset - u64Base));
    void* const pvView =
        blThere ? PlatMappingView(plathandle, u64Base, !(a_osmemrecord.u32Traits & OS_MEMTRAIT_READONLY), &sizetView)
                : nullptr;
    if (!pvView)
    {
        OSLOG(OS_LOG_CHECK, "mem>>> MapViewOfFile failed...<%s> 0x%08x %llu", a_osmemrecord.szName,
              static_cast<uint32_t>(a_sizetSize), static_cast<unsigned long long>(a_u64Offset));
        return nullptr;
    }
    *a_posmemrecordNew = a_osmemrecord;
    a_posmemrecordNew->pvAddress = pvView;
    a_posmemrecordNew->u64Offset = u64Base;
    a_posmemrecordNew->u64View = sizetView;
    a_posmemrecordNew->u32View = static_cast<uint32_t>(sizetView);
    return pvView;
}

// Updates the record of a view whose address has changed. Call with the lock held.
void COsMemImpl::Move(const void* a_pvView, const OsMemRecord& a_osmemrecordNew)
{
    if (const uint32_t u32Slot = FindSlot(a_pvView); u32Slot != OS_MEMSLOTS)
    {
        m_aosmemrecord[u32Slot] = a_osmemrecordNew;
        m_apvSlot[u32Slot] = a_osmemrecordNew.pvAddress;
        return;
    }
    OsMemUntracked::Node* const pnode = m_osmemuntracked.Remove(a_pvView);
    pnode->osmemrecord = a_osmemrecordNew;
    m_osmemuntracked.Add(pnode);
}

// Maps the new part before releasing the old one, so that a failure leaves the view unchanged.
void* COsMemImpl::SharedRemap(void* a_pvView, uint64_t a_u64Offset, size_t a_sizetSize,
                              const OsMemCaller& a_osmemcaller)
{
    OsMemRecord osmemrecordOld;
    if (!WithMapping(a_pvView, a_osmemcaller,
                     [&](const OsMemRecord& a_osmemrecord) { osmemrecordOld = a_osmemrecord; }))
        return nullptr;
    OsMemRecord osmemrecordNew;
    void* const pvView = MapPart(osmemrecordOld, a_u64Offset, a_sizetSize, &osmemrecordNew);
    if (!pvView)
        return nullptr;

    if (!WithMapping(a_pvView, a_osmemcaller, [&](const OsMemRecord& a_osmemrecord) {
            osmemrecordNew.u32Lock = a_osmemrecord.u32Lock;
            Move(a_pvView, osmemrecordNew);
        }))
    {
        PlatMappingRelease(pvView, static_cast<size_t>(osmemrecordNew.u64View));
        return nullptr;
    }
    if (!PlatMappingRelease(a_pvView, static_cast<size_t>(osmemrecordOld.u64View)))
        OSLOG(OS_LOG_CHECK, "mem>>> UnmapViewOfFile failed...we'll keep going...");
    OSLOG_AT(a_osmemcaller.szFile, a_osmemcaller.u32Line, OS_MEMLEVEL, "mem>>> remap: %p --> %p %9llu %9d %s", a_pvView,
             pvView, static_cast<unsigned long long>(osmemrecordNew.u64Offset), static_cast<int>(a_sizetSize),
             osmemrecordNew.szName[0] ? osmemrecordNew.szName : "(null file)");
    return pvView;
}

// ---------------------------------------------------------------------------------------------------------- the calls

static COsMemImpl* UsableManager()
{
    COsMemImpl* const posmemimpl = OsMemImplementation();
    if (!posmemimpl)
        OSLOG(OS_LOG_CHECK, "mem>>> m_posmemimpl is null...");
    return posmemimpl;
}

void* OsMemSharedAlloc(EOSSHAREDALLOC a_eossharedalloc, const char* a_szName, uint64_t a_u64Bytes, int64_t a_i64View,
                       EOSSHAREDLOCK a_eossharedlock, uint32_t a_u32Flags, const char* a_szFile, uint32_t a_u32Line)
{
    COsMemImpl* const posmemimpl = UsableManager();
    if (!posmemimpl)
        return nullptr;
    if (a_eossharedalloc != OS_SHAREDALLOC_OPEN && a_u64Bytes == 0 && a_i64View < 1)
    {
        OSLOG(OS_LOG_CHECK, "mem>>> a_u64Bytes and a_sizetView can only be 0 and -1 for OS_SHAREDALLOC_OPEN...");
        OSLOG_AT(a_szFile, a_u32Line, OS_LOG_CHECK, "mem>>> Error occurred here...");
        return nullptr;
    }
    const OsMemSharedRequest osmemsharedrequest = {a_eossharedalloc, a_szName ? a_szName : "", a_u64Bytes,
                                                   a_i64View,        a_eossharedlock,          a_u32Flags};
    return posmemimpl->SharedAlloc(osmemsharedrequest, {a_szFile, a_u32Line});
}

EOSSTS OsMemSharedLock(void* a_pvView, const char* a_szFile, uint32_t a_u32Line)
{
    COsMemImpl* const posmemimpl = UsableManager();
    return posmemimpl ? posmemimpl->SharedLock(a_pvView, {a_szFile, a_u32Line}) : EOSSTS_FAIL;
}

EOSSTS OsMemSharedUnlock(void* a_pvView, const char* a_szFile, uint32_t a_u32Line)
{
    COsMemImpl* const posmemimpl = UsableManager();
    return posmemimpl ? posmemimpl->SharedUnlock(a_pvView, {a_szFile, a_u32Line}) : EOSSTS_FAIL;
}

uint64_t OsMemSharedSize(void* a_pvView, const char* a_szFile, uint32_t a_u32Line)
{
    COsMemImpl* const posmemimpl = UsableManager();
    return posmemimpl ? posmemimpl->SharedSize(a_pvView, {a_szFile, a_u32Line}) : 0;
}

EOSSTS OsMemSharedFlush(void* a_pvView, const char* a_szFile, uint32_t a_u32Line)
{
    COsMemImpl* const posmemimpl = UsableManager();
    return posmemimpl ? posmemimpl->SharedFlush(a_pvView, {a_szFile, a_u32Line}) : EOSSTS_FAIL;
}

void* OsMemSharedRemap(void* a_pvView, uint64_t a_u64Offset, size_t a_sizetSize, const char* a_szFile,
                       uint32_t a_u32Line)
{
    COsMemImpl* const posmemimpl = UsableManager();
    return posmemimpl ? posmemimpl->SharedRemap(a_pvView, a_u64Offset, a_sizetSize, {a_szFile, a_u32Line}) : nullptr;
}
