// os_cosmem_report.cpp: logs the table of live blocks, and writes the crash report after a failed allocation.
//
// Both run when there is no memory: they work on the stack, and hold the manager's lock for one record at a time, never
// during a call. In order: the dump, gathering the report's facts, its text, its file.
#include "os_cosmem_impl.h"

#include "os_cfg.h"
#include "os_coslocale.h"
#include "os_cosspinlock.h"
#include "os_cosstring.h"
#include "os_log.h"
#include "os_scope.h"

#include "plat_file.h"
#include "plat_memory.h"
#include "plat_system.h"

#include <algorithm>
#include <cstdarg>
#include <cstring>
#include <iterator>

static constexpr char g_szSource[] = "os/source/os_cosmem";

// -------------------------------------------------------------------------------------------------------- the dump

static constexpr const char* g_aszMethod[] = {"undefined", "malloc",   "globalalloc", "virtual",
                                              "memorymap", "external", "dsm",         "last"};
static_assert(std::size(g_aszMethod) == OS_MEMTYPE_LAST + 1);

static void DumpRecord(uint32_t a_u32Slot, const void* a_pvSlot, const OsMemRecord& a_osmemrecord)
{
    char szMethod[16];
    const uint32_t u32Method = a_osmemrecord.u32Method;
    SStrPrintf(szMethod, sizeof szMethod, "?%d", static_cast<int>(u32Method));
    const char* const szShown = u32Method < std::size(g_aszMethod) ? g_aszMethod[u32Method] : szMethod;
    OSLOG(OS_LOG_NOTE, "mem>>> %04d %12s %p(%p) s:%llu o:%llu v:%u f:%p m:%p <%s>", static_cast<int>(a_u32Slot),
          szShown, a_osmemrecord.pvAddress, a_pvSlot, static_cast<unsigned long long>(a_osmemrecord.u64Size),
          static_cast<unsigned long long>(a_osmemrecord.u64Offset), a_osmemrecord.u32View,
          OsMemPointer(a_osmemrecord.plathandleFile), OsMemPointer(a_osmemrecord.plathandleMapping),
          a_osmemrecord.szName);
}

static bool IsBlank(const OsMemRecord& a_osmemrecord)
{
    static constexpr OsMemRecord osmemrecordBlank = {};
    return std::memcmp(&a_osmemrecord, &osmemrecordBlank, sizeof a_osmemrecord) == 0;
}

void COsMemImpl::Dump(const void* a_pvBlock)
{
    OSLOG(OS_LOG_NOTE, "mem>>> OsMemDump begin...");
    for (uint32_t u32Slot = 0; m_aosmemrecord && u32Slot < OS_MEMSLOTS; u32Slot++)
    {
        OsMemRecord osmemrecord;
        const void* pvSlot;
        {
            const COsSpinGuard guard(&m_u64Lock);
            if (u32Slot >= m_u32SlotsTouched)
                break;
            osmemrecord = m_aosmemrecord[u32Slot];
            pvSlot = m_apvSlot[u32Slot];
        }
        const bool blWanted = !a_pvBlock || pvSlot == a_pvBlock;
        if (blWanted && !IsBlank(osmemrecord))
            DumpRecord(u32Slot, pvSlot, osmemrecord);
    }
    OSLOG(OS_LOG_NOTE, "mem>>> OsMemDump end...");
}

void OsMemDump(const void* a_pvBlock)
{
    COsMemImpl* const posmemimpl = OsMemImplementation();
    if (!posmemimpl)
    {
        OSLOG(OS_LOG_CHECK, "mem>>> m_posmemimpl is null...");
        return;
    }
    posmemimpl->Dump(a_pvBlock);
}

// ----------------------------------------------------------------------------------------- the facts of the report

static constexpr size_t g_sizetTop = 16;

// The regions of one kind: their number, and the largest ones in descending order.
struct OsMemRegions
{
    int iCount;
    size_t sizetTop;
    PlatMemoryRegion aplatmemoryregion[g_sizetTop];

    void Add(const PlatMemoryRegion& a_platmemoryregion)
    {
        iCount++;
        PlatMemoryRegion* const pEnd = aplatmemoryregion + sizetTop;
        PlatMemoryRegion* const pPlace = std::find_if(aplatmemoryregion, pEnd, [&](const PlatMemoryRegion& region) {
            return region.u64Size < a_platmemoryregion.u64Size;
        });
        if (pPlace == std::end(aplatmemoryregion))
            return;
        sizetTop = std::min(sizetTop + 1, g_sizetTop);
        std::move_backward(pPlace, aplatmemoryregion + sizetTop - 1, aplatmemoryregion + sizetTop);
        *pPlace = a_platmemoryregion;
    }
};

struct OsMemAddressSpace
{
    OsMemRegions osmemregionsFree;
    OsMemRegions osmemregionsUsed;
};

static bool CollectRegion(void* a_pvContext, const PlatMemoryRegion* a_pplatmemoryregion)
{
    OsMemAddressSpace* const posmemaddressspace = static_cast<OsMemAddressSpace*>(a_pvContext);
    (a_pplatmemoryregion->blFree ? posmemaddressspace->osmemregionsFree : posmemaddressspace->osmemregionsUsed)
        .Add(*a_pplatmemoryregion);
    return true;
}

// The program is the first module; the library's module is the one that contains this code.
struct OsMemModules
{
    char szProgram[OS_PATHSIZE];
    char szOurs[OS_PATHSIZE];
};

static bool CollectModule(void* a_pvContext, const PlatModule* a_pplatmodule)
{
    OsMemModules* const posmemmodules = static_cast<OsMemModules*>(a_pvContext);
    if (posmemmodules->szProgram[0] == '\0')
        SStrCpy(posmemmodules->szProgram, sizeof posmemmodules->szProgram, a_pplatmodule->szPath);
    const uint64_t u64Code = reinterpret_cast<uint64_t>(&OsMemWriteCrashReport);
    if (u64Code - a_pplatmodule->u64Address >= a_pplatmodule->u64Size)
        return true;
    SStrCpy(posmemmodules->szOurs, sizeof posmemmodules->szOurs, a_pplatmodule->szPath);
    return false;
}

// ----------------------------------------------------------------------------------------- the text of the report

// Formats a piece of the report on the stack and writes it.
static void OS_PRINTFLIKE(2, 3) Put(PlatHandle a_plathandle, const char* a_szFormat, ...)
{
    char szText[2048];
    va_list valist;
    va_start(valist, a_szFormat);
    const int iLength = OsFormat(szText, sizeof szText, a_szFormat, valist);
    va_end(valist);
    if (iLength >= static_cast<int>(sizeof szText))
    {
        OSLOG(OS_LOG_CHECK, "mem>>> Buffer overflow (we'll keep going)...%ld %ld", static_cast<long>(iLength),
              static_cast<long>(sizeof szText));
        return;
    }
    if (iLength > 0)
        PlatFileWrite(a_plathandle, szText, static_cast<size_t>(iLength), nullptr);
}

static double Megabytes(uint64_t a_u64Bytes)
{
    return static_cast<double>(a_u64Bytes) / 1048576;
}

static void PutSummary(PlatHandle a_plathandle, const OsMemAddressSpace& a_osmemaddressspace)
{
    OsMemModules osmemmodules = {};
    PlatModuleList(CollectModule, &osmemmodules);
    PlatMemoryStatus platmemorystatus = {};
    PlatMemoryGetStatus(&platmemorystatus);
    uint64_t u64Bytes = 0;
    uint64_t u64Pages = 0;
    if (!PlatMemoryWorkingSet(&u64Bytes, &u64Pages))
        OSLOG(OS_LOG_ERROR, "mem>>> sorry, can't load QueryWorkingSet...");

    Put(a_plathandle,
        "Application:          %s\r\nModule:               %s\r\n\r\n"
        "Memory Load:          %d%% in use\r\n"
        "Total Physical:   %12.3f MB\r\nTotal Virtual:    %12.3f MB\r\nTotal Pagefile:   %12.3f MB\r\n"
        "Avail Physical:   %12.3f MB\r\nAvail Virtual:    %12.3f MB\r\nAvail Pagefile:   %12.3f MB\r\n"
        "Avail Extended:   %12.3f MB\r\n\r\n"
        "Bytes:            %12.3f MB\r\nPages:            %12d\r\n"
        "Free Chunks:      %12d\r\nUsed Chunks:      %12d\r\n\r\n",
        osmemmodules.szProgram, osmemmodules.szOurs, static_cast<int>(platmemorystatus.u32Load),
        Megabytes(platmemorystatus.u64TotalPhysical), Megabytes(platmemorystatus.u64TotalVirtual),
        Megabytes(platmemorystatus.u64TotalPagefile), Megabytes(platmemorystatus.u64AvailPhysical),
        Megabytes(platmemorystatus.u64AvailVirtual), Megabytes(platmemorystatus.u64AvailPagefile),
        Megabytes(platmemorystatus.u64AvailExtended), Megabytes(u64Bytes), static_cast<int>(u64Pages),
        a_osmemaddressspace.osmemregionsFree.iCount, a_osmemaddressspace.osmemregionsUsed.iCount);
}

static void PutLargest(PlatHandle a_plathandle, const char* a_szKind, const OsMemRegions& a_osmemregions)
{
    Put(a_plathandle, "Top 16 Largest Contiguous %s Chunks in User-Space:\r\n", a_szKind);
    for (size_t i = 0; i < a_osmemregions.sizetTop; i++)
    {
        const PlatMemoryRegion& platmemoryregion = a_osmemregions.aplatmemoryregion[i];
        Put(a_plathandle, "%p:%p %12.3f MB\r\n", OsMemPointer(platmemoryregion.u64Address),
            OsMemPointer(platmemoryregion.u64Address + platmemoryregion.u64Size), Megabytes(platmemoryregion.u64Size));
    }
    Put(a_plathandle, "\r\n");
}

static bool PutModule(void* a_pvContext, const PlatModule* a_pplatmodule)
{
    Put(*static_cast<PlatHandle*>(a_pvContext), "%p %10d %s\r\n", OsMemPointer(a_pplatmodule->u64Address),
        static_cast<int>(a_pplatmodule->u64Size), a_pplatmodule->szPath);
    return true;
}

static void PutModules(PlatHandle a_plathandle)
{
    Put(a_plathandle, "DLLs\r\nAddress    Size     Filename\r\n~~~~~~~~~~~~~~~~~~~~~~~~~~~~\r\n");
    if (!PlatModuleList(PutModule, &a_plathandle))
        OSLOG(OS_LOG_ERROR, "mem>>> sorry, can't load EnumProcessModules...");
}

static void PutReport(PlatHandle a_plathandle, const PlatTime& a_pplattime)
{
    Put(a_plathandle, "MVR Memory Dump (%04d/%02d/%02d %02d:%02d:%02d.%03d)\r\n\r\n", a_pplattime.u16Year,
        a_pplattime.u16Month, a_pplattime.u16Day, a_pplattime.u16Hour, a_pplattime.u16Minute, a_pplattime.u16Second,
        a_pplattime.u16Milliseconds);

    OsMemAddressSpace osmemaddressspace = {};
    PlatMemoryListRegions(CollectRegion, &osmemaddressspace);
    PutSummary(a_plathandle, osmemaddressspace);
    PutLargest(a_plathandle, "Free", osmemaddressspace.osmemregionsFree);
    PutLargest(a_plathandle, "Used", osmemaddressspace.osmemregionsUsed);
    PutModules(a_plathandle);
}

// ----------------------------------------------------------------------------------------- the file of the report

static PlatHandle CreateReport(const PlatTime& a_pplattime)
{
    const char* const szFolder = OsCfgGetString(OS_CFGTAG_LOGDIRECTORY);
    const bool blJoined =
        szFolder[0] == '\0' || StrEndsWith(szFolder, "\\", false) || StrEndsWith(szFolder, "/", false);
    char szFile[OS_PATHSIZE];
    SStrPrintf(szFile, sizeof szFile, "%s%sMvrMemCrash_%02d%02d%02d%03d.txt", szFolder, blJoined ? "" : "\\",
               a_pplattime.u16Hour, a_pplattime.u16Minute, a_pplattime.u16Second, a_pplattime.u16Milliseconds);

    char16_t wszFile[OS_PATHSIZE];
    PlatHandle plathandle = PLAT_INVALID;
    if (CopyStringFromUtf8(wszFile, std::size(wszFile), szFile) != 0)
        plathandle = PlatFileOpen(wszFile, PLAT_ACCESS_WRITE, PLAT_SHARE_READ, PLAT_DISPOSITION_CREATEALWAYS, 0);
    if (plathandle == PLAT_INVALID)
        OSLOG(OS_LOG_ERROR, "mem>>> error creating...<%s>", szFile);
    return plathandle;
}

void OsMemWriteCrashReport()
{
    OSLOG(OS_LOG_NOTE, "mem>>> DumpSystem running...");
    PlatTime plattime = {};
    PlatTimeLocal(PlatClock(), &plattime);
    const PlatHandle plathandle = CreateReport(plattime);
    if (plathandle == PLAT_INVALID)
        return;
    const ScopeGuard close([plathandle] { PlatClose(plathandle); });
    PutReport(plathandle, plattime);
    OSLOG(OS_LOG_NOTE, "mem>>> DumpSystem complete...");
}

void OsMemLogUsage(const char* a_szFile, uint32_t a_u32Line)
{
    PlatMemoryUsage platmemoryusage;
    if (OsLogWorkingWord() == 0 || !PlatMemoryGetUsage(&platmemoryusage))
        return;
    OSLOG_AT(a_szFile, a_u32Line, OS_LOG_NOTE,
             "mem>>> pagefaults:%u peakworking:%llu pagefileusage:%llu peakpagefileusage:%llu",
             static_cast<unsigned>(platmemoryusage.u32PageFaults),
             static_cast<unsigned long long>(platmemoryusage.u64PeakWorkingSet),
             static_cast<unsigned long long>(platmemoryusage.u64PagefileUsage),
             static_cast<unsigned long long>(platmemoryusage.u64PeakPagefileUsage));
}
