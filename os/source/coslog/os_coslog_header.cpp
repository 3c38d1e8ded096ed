// os_coslog_header.cpp: the header block: the run, the machine, the system, the program, its arguments, the log file.
//
// It is written through the slot of the call that triggers it, with that call's prefix. Logging is suppressed
// meanwhile, so functions called here cannot log.
#include "os_coslog_header.h"

#include "os_cfg.h"
#include "os_cosarguments.h"
#include "os_cosenv.h"
#include "os_coslocale.h"
#include "os_coslog.h"
#include "os_coslog_format.h"
#include "os_cosstring.h"

#include "plat_machine.h"
#include "plat_memory.h"
#include "plat_process.h"
#include "plat_system.h"
#include "plat_thread.h"

#include <cstring>
#include <iterator>
#include <memory>
#include <new>

static constexpr size_t g_sizetCommandLine = 65536;
static constexpr size_t g_sizetCommandLineMost = size_t{16} << 20;   // more than the system allows
static constexpr size_t g_sizetArgumentsMargin = 128;   // bytes of the line buffer that the arguments leave free

std::atomic<OsLogTextProc> g_poslogresourceproc{nullptr};
std::atomic<OsLogTextProc> g_poslogsetupproc{nullptr};
std::atomic<OsLogVersionProc> g_poslogversionproc{nullptr};

bool COsLogHeader::WriteIfPending()
{
    if (!m_oslogslot.poslogpath->blHeaderPending)
        return true;
    const COsLogSuppress oslogsuppress;
    if (!oslogsuppress.WasAllowed())
        return false;
    Write();
    m_oslogslot.poslogpath->blHeaderPending = false;
    return true;
}

void COsLogHeader::Write()
{
    m_oslogslot.poslogpath->i32LineCounter = -1;
    RunLine();
    SystemLine();
    OsLine();
    ModuleLines();
    ArgumentsLine();
    Line([&](char* a_sz, size_t a_sizet) {
        return LogSStrCatf(a_sz, a_sizet, "### log <%s>", m_oslogslot.poslogpath->szLogFile);
    });
}

// Writes one line: a_piece appends to it and returns the total length.
template <class Piece>
void COsLogHeader::Line(Piece a_piece)
{
    char* const szMessage = m_oslogslot.Message();
    *szMessage = '\0';
    if (a_piece(szMessage, m_oslogslot.sizetBuffer) < 0)
        return;
    const int iLength = LogSStrCatf(szMessage, m_oslogslot.sizetBuffer, "\r\n");
    if (iLength < 0)
        return;
    m_oslogslot.sizetMessage = static_cast<size_t>(iLength);
    m_oslogdestination.Write(m_oslogslot);
}

// ----------------------------------------------------------------------------------------------------------- run

void COsLogHeader::RunLine()
{
    const OsTimeRecord& ostimerecord = m_oslogslot.osloglinetime.ostimerecord;
    const bool blUsersFolder = StrICmp(OsCfgGetCommon("UseUsersFolder", "yes"), "yes") == 0;
    Line([&](char* a_sz, size_t a_sizet) {
        return LogSStrCatf(a_sz, a_sizet,
                           "### (%.4d/%.2d/%.2d %.2d:%.2d:%.2d.%.3d) Debug=%d DebugFilter=<%s> "
                           "Version=~%s UseUsersFolder=%d logcollector=%s",
                           ostimerecord.u16Year, ostimerecord.u16Month, ostimerecord.u16Day, ostimerecord.u16Hour,
                           ostimerecord.u16Minute, ostimerecord.u16Second, ostimerecord.u16Milliseconds,
                           static_cast<int>(m_run.u32Flags), m_run.szFilter, OS_LIBRARYVERSION, blUsersFolder ? 1 : 0,
                           m_oslogdestination.UsesCollector() ? "true" : "false");
    });
}

// -------------------------------------------------------------------------------------------------------- system

static int InfoInt(EOSCFGINFO a_eoscfginfo)
{
    return static_cast<int>(OsCfgInfoGetLong(a_eoscfginfo));
}

struct StackSearch
{
    uint64_t u64Address;
    uint64_t u64Size;
};

static bool FindStack(void* a_pvSearch, const PlatMemoryRegion* a_pplatmemoryregion)
{
    auto* const pstacksearch = static_cast<StackSearch*>(a_pvSearch);
    if (pstacksearch->u64Address - a_pplatmemoryregion->u64Address >= a_pplatmemoryregion->u64Size)
        return true;
    pstacksearch->u64Size = a_pplatmemoryregion->u64Size;
    return false;
}

uint64_t OsLogStackSize()
{
    static std::atomic<uint64_t> g_u64Size{0};
    if (const uint64_t u64Size = g_u64Size.load(std::memory_order_relaxed))
        return u64Size;
    StackSearch stacksearch{0, 0};
    stacksearch.u64Address = reinterpret_cast<uint64_t>(&stacksearch);
    PlatMemoryListRegions(FindStack, &stacksearch);
    g_u64Size.store(stacksearch.u64Size, std::memory_order_relaxed);
    return stacksearch.u64Size;
}

// No process of this library runs in a browser's protected mode.
static const char* IntegrityText()
{
    static constexpr const char* g_aszIntegrity[] = {"undefined", "protected-low",  "low",  "protected-medium",
                                                     "medium",    "protected-high", "high", "last"};
    static std::atomic<uint32_t> g_u32Index{0};
    uint32_t u32Index = g_u32Index.load(std::memory_order_relaxed);
    if (u32Index == 0)
    {
        uint32_t u32Integrity = 0;
        const bool blRead = PlatProcessIntegrity(&u32Integrity);
        u32Index = !blRead || u32Integrity < PLAT_INTEGRITY_MEDIUM ? 2 : u32Integrity < PLAT_INTEGRITY_HIGH ? 4 : 6;
        g_u32Index.store(u32Index, std::memory_order_relaxed);
    }
    return g_aszIntegrity[u32Index];
}

static int AppendProcessor(char* a_sz, size_t a_sizet)
{
    static constexpr int g_iTypeX64 = 8664;
    const uint64_t u64Affinity = PlatProcessAffinity();
    const int iRevision = InfoInt(OS_CFGINFO_CPU_MODEL) << 8 | InfoInt(OS_CFGINFO_CPU_STEPPING);
    return LogSStrCatf(a_sz, a_sizet,
                       "### systemInfo <arch:%d ps:%d pmask:0x%.8x ncpu:%d cputype:%d cpulevel:%d cpurev:%d "
                       "stack:%llu",
                       InfoInt(OS_CFGINFO_CPU_ARCHITECTURE), static_cast<int>(PlatMemoryPageSize()),
                       static_cast<unsigned>(u64Affinity), static_cast<int>(PlatProcessorCount()), g_iTypeX64,
                       InfoInt(OS_CFGINFO_CPU_LEVEL), iRevision, static_cast<unsigned long long>(OsLogStackSize()));
}

static int AppendMemory(char* a_sz, size_t a_sizet)
{
    PlatMemoryStatus platmemorystatus = {};
    PlatMemoryGetStatus(&platmemorystatus);
    const auto signedOf = [](uint64_t a_u64) { return static_cast<long long>(a_u64); };
    const uint64_t u64Affinity = PlatProcessAffinity();
    const uint32_t u32Processors = PlatProcessorCount();
    const uint64_t u64System = u32Processors < 64 ? (uint64_t{1} << u32Processors) - 1 : ~uint64_t{0};
    return LogSStrCatf(a_sz, a_sizet,
                       " bits:proc-%d/mach-%d spd:~%d pid:%llu pmem:%lld/%lld vmem:%lld/%lld memload:%d "
                       "proc-affinity:0x%.16llX sys-affinity:0x%.16llX",
                       static_cast<int>(sizeof(void*) * 8), InfoInt(OS_CFGINFO_CPU_MACHINEBITS),
                       InfoInt(OS_CFGINFO_CPU_MHZ), static_cast<unsigned long long>(PlatProcessId()),
                       signedOf(platmemorystatus.u64TotalPhysical), signedOf(platmemorystatus.u64AvailPhysical),
                       signedOf(platmemorystatus.u64TotalVirtual), signedOf(platmemorystatus.u64AvailVirtual),
                       static_cast<int>(platmemorystatus.u32Load), static_cast<unsigned long long>(u64Affinity),
                       static_cast<unsigned long long>(u64System));
}

void COsLogHeader::SystemLine()
{
    Line([](char* a_sz, size_t a_sizet) {
        const bool blFits = AppendProcessor(a_sz, a_sizet) >= 0 && AppendMemory(a_sz, a_sizet) >= 0;
        return blFits ? LogSStrCatf(a_sz, a_sizet, " integrity:%s>", IntegrityText()) : -1;
    });
}

void COsLogHeader::OsLine()
{
    PlatVersion platversionRaw = {};
    PlatVersionGet(PLAT_VERSION_RAW, &platversionRaw);
    const int iMajor = InfoInt(OS_CFGINFO_OS_MAJOR);
    const int iMinor = InfoInt(OS_CFGINFO_OS_MINOR);
    const int iBuild = StrToInt32(OsCfgInfoGetString(OS_CFGINFO_OS_BUILDSTRING));
    const int iServicePack = InfoInt(OS_CFGINFO_OS_SERVICEPACK);
    char szInfo[32] = {};
    if (iServicePack > 0)
        SStrPrintf(szInfo, sizeof szInfo, "Service Pack %d", iServicePack / 100);
    Line([&](char* a_sz, size_t a_sizet) {
        return LogSStrCatf(a_sz, a_sizet,
                           "### osInfo <Os:windows Major:%d Minor:%d Build:%d/0x%.8x Platform:%d Info:[%s] "
                           "Raw:%d.%d Cooked:%d.%d>",
                           iMajor, iMinor, iBuild, static_cast<unsigned>(iBuild), InfoInt(OS_CFGINFO_OS_PLATFORM),
                           szInfo, static_cast<int>(platversionRaw.u32Major), static_cast<int>(platversionRaw.u32Minor),
                           iMajor, iMinor);
    });
}

// ------------------------------------------------------------------------------------------------------- modules

// As many fields as the version has, at least two.
static void PutVersion(char* a_szVersion, const uint16_t (&a_au16Version)[4])
{
    SStrPrintf(a_szVersion, OS_LOGVERSIONSIZE, "%d.%d", a_au16Version[0], a_au16Version[1]);
    if (a_au16Version[2] || a_au16Version[3])
        SStrCatf(a_szVersion, OS_LOGVERSIONSIZE, ".%d", a_au16Version[2]);
    if (a_au16Version[3])
        SStrCatf(a_szVersion, OS_LOGVERSIONSIZE, ".%d", a_au16Version[3]);
}

static void FileVersion(const char* a_szModule, char* a_szVersion)
{
    const OsLogVersionProc oslogversionproc = g_poslogversionproc.load(std::memory_order_acquire);
    uint16_t au16Version[4] = {};
    if (!oslogversionproc || !oslogversionproc(a_szModule, au16Version))
        std::memset(au16Version, 0, sizeof au16Version);
    PutVersion(a_szVersion, au16Version);
}

// Cached in an environment variable for later headers.
void OsLogExeVersion(char* a_szVersion)
{
    char szName[64];
    SStrPrintf(szName, sizeof szName, "MVR_EXEVERSIONINFO_%llu", static_cast<unsigned long long>(PlatProcessId()));
    if (OsEnvGet(szName, "", OS_LOGVERSIONSIZE, a_szVersion) == EOSSTS_SUCCESS && *a_szVersion)
        return;
    char szProgram[OS_PATHSIZE];
    OsArgumentsProgramPath(szProgram);
    FileVersion(szProgram, a_szVersion);
    OsEnvSet(szName, a_szVersion);
}

static void ConfiguredVersion(char* a_szVersion)
{
    static constexpr EOSCFGTAG g_aeoscfgtag[] = {OS_CFGTAG_VERSIONMAJORNUM, OS_CFGTAG_VERSIONMINORNUM,
                                                 OS_CFGTAG_VERSIONPATCHNUM, OS_CFGTAG_VERSIONBUILDNUM};
    uint16_t au16Version[4] = {};
    bool blEmpty = true;
    for (size_t sizet = 0; sizet < std::size(g_aeoscfgtag); ++sizet)
    {
        const char* const szNumber = OsCfgGetString(g_aeoscfgtag[sizet]);
        blEmpty &= !*szNumber;
        au16Version[sizet] = static_cast<uint16_t>(StrToInt32(szNumber));
    }
    PutVersion(a_szVersion, au16Version);
    if (blEmpty)
        SStrCpy(a_szVersion, OS_LOGVERSIONSIZE, "(n/a)");
}

static const char* Ask(const std::atomic<OsLogTextProc>& a_oslogtextproc, const char* a_szModule, const char* a_szName,
                       const char* a_szNone)
{
    const OsLogTextProc oslogtextproc = a_oslogtextproc.load(std::memory_order_acquire);
    const char* const szText = oslogtextproc ? oslogtextproc(a_szModule, a_szName) : nullptr;
    return szText && *szText ? szText : a_szNone;
}

void COsLogHeader::ModuleLine(const char* a_szTitle, const char* a_szModule, const char* a_szVersionInfo)
{
    char szConfigured[OS_LOGVERSIONSIZE];
    ConfiguredVersion(szConfigured);
    Line([&](char* a_sz, size_t a_sizet) {
        return LogSStrCatf(a_sz, a_sizet,
                           "### %s <%s> cd=%s versioninfo=%s versioncfg=%s versionresource=%s versionsimple=%s",
                           a_szTitle, a_szModule, Ask(g_poslogsetupproc, a_szModule, "CD", "(n/a)"), a_szVersionInfo,
                           szConfigured, Ask(g_poslogresourceproc, a_szModule, "VERSION", "(none)"),
                           Ask(g_poslogresourceproc, a_szModule, "VERSIONSIMPLE", "(none)"));
    });
}

void COsLogHeader::ModuleLines()
{
    char szProgram[OS_PATHSIZE];
    char szModule[OS_PATHSIZE];
    char szVersion[OS_LOGVERSIONSIZE];
    OsArgumentsProgramPath(szProgram);
    OsArgumentsModulePath(szModule);
    OsLogExeVersion(szVersion);
    ModuleLine("appInfo", szProgram, szVersion);
    if (std::strcmp(szModule, szProgram) == 0)
        return;
    FileVersion(szModule, szVersion);
    ModuleLine("dllInfo", szModule, szVersion);
}

// ----------------------------------------------------------------------------------------------------- arguments

// The complete command line, however long; null without memory, "" when it cannot be read.
static std::unique_ptr<char[]> CommandLine()
{
    for (size_t sizetRoom = g_sizetCommandLine; sizetRoom <= g_sizetCommandLineMost; sizetRoom *= 2)
    {
        const std::unique_ptr<char16_t[]> uniqueWide(new (std::nothrow) char16_t[sizetRoom]);
        std::unique_ptr<char[]> uniqueText(new (std::nothrow) char[sizetRoom]);
        if (!uniqueWide || !uniqueText)
            return nullptr;
        uniqueText[0] = '\0';
        const bool blRead = PlatProcessCommandLine(uniqueWide.get(), sizetRoom);
        if (blRead && CopyStringToUtf8(uniqueText.get(), sizetRoom, uniqueWide.get(), SIZE_MAX))
            return uniqueText;
        if (!blRead && PlatGetLastError() != PLAT_ERROR_INSUFFICIENTBUFFER)
            return uniqueText;
    }
    return nullptr;
}

void COsLogHeader::ArgumentsLine()
{
    const std::unique_ptr<char[]> uniqueText = CommandLine();
    if (!uniqueText)
        return;
    const int iMost = static_cast<int>(m_oslogslot.sizetBuffer - g_sizetArgumentsMargin);
    Line([&](char* a_sz, size_t a_sizet) {
        return LogSStrCatf(a_sz, a_sizet, "### args <%.*s>", iMost, uniqueText.get());
    });
}
