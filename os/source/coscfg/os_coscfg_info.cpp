// os_coscfg_info.cpp: facts about the machine, gathered by the first query of the process and cached.
//
// In order: naming the system, gathering, the tables of answers, the queries.
#include "os_coscfg_impl.h"

#include "os_cosenv.h"
#include "os_coslocale.h"
#include "os_cospath.h"
#include "os_cosstring.h"
#include "os_log.h"

#include "plat_memory.h"
#include "plat_system.h"

#include <cstring>

static constexpr char g_szSource[] = "os/source/os_coscfg";

static constexpr char g_szNoData[] = "(nodata)";
static constexpr char g_szNone[] = "***none***";

// ---------------------------------------------------------------------------------------------- naming the system

namespace
{
// Versions by range of minor numbers; the first matching row gives the name.
struct SystemRow
{
    uint32_t u32Major;
    uint32_t u32MinorFrom;
    uint32_t u32MinorTo;
    uint32_t u32Workstation;   // the ids
    uint32_t u32Server;
    const char* szWorkstation;
    const char* szServer;
};
}   // namespace

static constexpr uint32_t g_u32Any = UINT32_MAX;
static constexpr uint32_t g_u32OtherPlatform = 1;

static constexpr SystemRow g_asystemrow[] = {
    {4, 0, g_u32Any, 6, 6, "WinNT", "WinNT"},    {5, 0, 0, 7, 7, "Win2K", "Win2K"},
    {5, 1, 2, 8, 8, "WinXP", "WinXP"},           {6, 0, 0, 10, 11, "WinVista", "Win2008"},
    {6, 1, 1, 12, 13, "Win7", "Win2008R2"},      {6, 2, 2, 14, 15, "Win8", "Win2012"},
    {6, 3, 3, 16, 17, "Win8.1", "Win2012R2"},    {6, 4, 4, 18, 18, "Win10", "Win10"},
    {10, 0, g_u32Any, 18, 18, "Win10", "Win10"},
};
static constexpr SystemRow g_systemrowLatest = {11, 0, g_u32Any, 19, 19, "Win11", "Win11"};

static const SystemRow& SystemRowOf(const PlatVersion& a_platversion)
{
    for (const SystemRow& systemrow : g_asystemrow)
    {
        if (a_platversion.u32Major == systemrow.u32Major && a_platversion.u32Minor >= systemrow.u32MinorFrom &&
            a_platversion.u32Minor <= systemrow.u32MinorTo)
            return systemrow;
    }
    return g_systemrowLatest;
}

void OsCfgNameSystem(const PlatVersion& a_platversion, char* a_szName, size_t a_sizetName, uint32_t* a_pu32Id)
{
    if (a_platversion.u32Platform != PLAT_PLATFORM_NT)
    {
        SStrPrintf(a_szName, a_sizetName, "WinXX%02d%02d", static_cast<int>(a_platversion.u32Major),
                   static_cast<int>(a_platversion.u32Minor));
        *a_pu32Id = g_u32OtherPlatform;
        return;
    }
    const SystemRow& systemrow = SystemRowOf(a_platversion);
    const bool blWorkstation = a_platversion.u32ProductType == PLAT_PRODUCT_WORKSTATION;
    SStrCpy(a_szName, a_sizetName, blWorkstation ? systemrow.szWorkstation : systemrow.szServer);
    *a_pu32Id = blWorkstation ? systemrow.u32Workstation : systemrow.u32Server;
}

// To a program that it does not know, every later system reports version 6.2, for workstations and servers alike.
static void NameRawSystem(const PlatVersion& a_platversion, char* a_szName, size_t a_sizetName)
{
    PlatVersion platversion = a_platversion;
    if (platversion.u32Major == 6 && platversion.u32Minor == 2)
        platversion.u32ProductType = PLAT_PRODUCT_WORKSTATION;
    uint32_t u32Id = 0;
    OsCfgNameSystem(platversion, a_szName, a_sizetName, &u32Id);
}

// ------------------------------------------------------------------------------------------------------ gathering

// Each group of facts is gathered by the first query for one of them: most processes query few.
namespace
{
struct SystemFacts
{
    PlatVersion platversion = {};
    uint32_t u32Id = 0;
    char szName[OS_SYSTEMNAMESIZE] = {};
    char szNameRaw[OS_SYSTEMNAMESIZE] = {};
    char szBuild[16] = {};
    char szVersion[32] = {};
};

struct ProcessorFacts
{
    PlatProcessor platprocessor = {};
    bool blKnown = false;
    uint32_t u32Count = 1;
};

struct MemoryFacts
{
    PlatMemoryStatus platmemorystatus = {};
};

struct HostFacts
{
    char szName[256] = {};
};

struct VolumeFacts
{
    char szDevice[PLAT_PATHMAX] = {};
    char szSerial[64] = {};
};
}   // namespace

static void CutAt(char* a_szText, char a_ch)
{
    if (char* const szEnd = std::strchr(a_szText, a_ch))
        *szEnd = 0;
}

static void Gather(SystemFacts& a_facts)
{
    PlatVersion platversionRaw = {};
    PlatVersionGet(PLAT_VERSION_COOKED, &a_facts.platversion);
    PlatVersionGet(PLAT_VERSION_RAW, &platversionRaw);
    OsCfgNameSystem(a_facts.platversion, a_facts.szName, sizeof a_facts.szName, &a_facts.u32Id);
    NameRawSystem(platversionRaw, a_facts.szNameRaw, sizeof a_facts.szNameRaw);
    SStrFromNum(a_facts.szBuild, sizeof a_facts.szBuild, a_facts.platversion.u32Build);
    SStrPrintf(a_facts.szVersion, sizeof a_facts.szVersion, "%02d%02d", static_cast<int>(a_facts.platversion.u32Major),
               static_cast<int>(a_facts.platversion.u32Minor));
}

// Reads the facts from the processor that runs the calling thread. They are the same on every processor of the machine,
// because a thread can be moved between any two instructions.
static void Gather(ProcessorFacts& a_facts)
{
    a_facts.blKnown = PlatProcessorGet(&a_facts.platprocessor);
    if (const uint32_t u32Processors = PlatProcessorCount())
        a_facts.u32Count = u32Processors;
}

static void Gather(MemoryFacts& a_facts)
{
    PlatMemoryGetStatus(&a_facts.platmemorystatus);
}

static void Gather(HostFacts& a_facts)
{
    char16_t wszHost[256];
    if (PlatHostName(wszHost, 256))
        CopyStringToUtf8(a_facts.szName, sizeof a_facts.szName, wszHost, SIZE_MAX);
    CutAt(a_facts.szName, '.');
    if (!a_facts.szName[0])
        SStrCpy(a_facts.szName, sizeof a_facts.szName, g_szNoData);
}

static bool FindSystemVolume(PlatVolume* a_pplatvolume)
{
    char szDrive[OS_PATHSIZE];
    char16_t wszDrive[OS_WIDEPATHSIZE];
    if (OsEnvGet("SystemDrive", "", sizeof szDrive, szDrive) != EOSSTS_SUCCESS || !szDrive[0])
        return PlatVolumeGet(nullptr, a_pplatvolume);
    return OsPathToSystem(wszDrive, OS_WIDEPATHSIZE, szDrive) && PlatVolumeGet(wszDrive, a_pplatvolume);
}

static void Gather(VolumeFacts& a_facts)
{
    SStrCpy(a_facts.szDevice, sizeof a_facts.szDevice, g_szNoData);
    SStrCpy(a_facts.szSerial, sizeof a_facts.szSerial, g_szNoData);
    PlatVolume platvolume = {};
    if (!FindSystemVolume(&platvolume))
        return;
    SStrPrintf(a_facts.szSerial, sizeof a_facts.szSerial, "%08x-0000-0000-0000-000000000000",
               platvolume.u32SerialNumber);
    if (!platvolume.wszDevice[0])
        return;
    CopyStringToUtf8(a_facts.szDevice, sizeof a_facts.szDevice, platvolume.wszDevice, SIZE_MAX);
    CutAt(a_facts.szDevice, '{');
}

template <class Facts>
static const Facts& Known()
{
    static std::atomic<const Facts*> g_pfacts;
    return *OsCfgPublished(g_pfacts, [] {
        auto facts = std::make_unique<Facts>();
        Gather(*facts);
        return facts;
    });
}

// Called once, and not while gathering: the logger queries numbers for the header that it writes before its first line.
void OsCfgInfoTellNames()
{
    static std::atomic<bool> g_blTold;
    if (g_blTold.exchange(true))
        return;
    OSLOG(OS_LOG_NOTE, "OS_CFGINFO_NETWORK_HOSTNAME...........%s", Known<HostFacts>().szName);
    OSLOG(OS_LOG_NOTE, "OS_CFGINFO_VOLUME_DEVICEID.............<%s>", Known<VolumeFacts>().szDevice);
    OSLOG(OS_LOG_NOTE, "OS_CFGINFO_VOLUME_SERIALNUMBER.........<%s>", Known<VolumeFacts>().szSerial);
}

// ------------------------------------------------------------------------------------------------------ the answers

namespace
{
struct NumberRow
{
    EOSCFGINFO eoscfginfo;
    int64_t (*pfnAnswer)();
};

struct TextRow
{
    EOSCFGINFO eoscfginfo;
    const char* (*pfnAnswer)();
};

struct VendorRow
{
    const char* szVendor;
    const char* szName;
};
}   // namespace

static constexpr VendorRow g_avendorrow[] = {
    {"GenuineIntel", "Intel"}, {"AuthenticAMD", "AMD"},     {"HygonGenuine", "Hygon"},
    {"CentaurHauls", "VIA"},   {"  Shanghai  ", "Zhaoxin"},
};

static const char* VendorName(const char* a_szVendor)
{
    for (const VendorRow& vendorrow : g_avendorrow)
    {
        if (!std::strcmp(vendorrow.szVendor, a_szVendor))
            return vendorrow.szName;
    }
    return g_szNone;
}

static const char* TextOrNone(const char* a_szText)
{
    return *a_szText ? a_szText : g_szNone;
}

// clang-format off
#define OS_NUMBER(item_, value_) {OS_CFGINFO_##item_, [] { return static_cast<int64_t>(value_); }}
#define OS_TEXT(item_, value_) {OS_CFGINFO_##item_, []() -> const char* { return value_; }}

static constexpr NumberRow g_anumberrow[] = {
    OS_NUMBER(OS_KERNELVERSIONSTRING, StrToInt32(Known<SystemFacts>().szVersion)),
    OS_NUMBER(OS_PLATFORM, Known<SystemFacts>().platversion.u32Platform),
    OS_NUMBER(OS_MAJOR, Known<SystemFacts>().platversion.u32Major),
    OS_NUMBER(OS_MINOR, Known<SystemFacts>().platversion.u32Minor),
    OS_NUMBER(OS_ID, Known<SystemFacts>().u32Id),
    OS_NUMBER(OS_SERVICEPACK, Known<SystemFacts>().platversion.u32ServicePackMajor * 100 + Known<SystemFacts>().platversion.u32ServicePackMinor),
    OS_NUMBER(MEM_TOTALPHYSICAL, Known<MemoryFacts>().platmemorystatus.u64TotalPhysical),
    OS_NUMBER(MEM_AVAILABLEPHYSICAL, Known<MemoryFacts>().platmemorystatus.u64AvailPhysical),
    OS_NUMBER(MEM_TOTALVIRTUAL, Known<MemoryFacts>().platmemorystatus.u64TotalVirtual),
    OS_NUMBER(MEM_AVAILABLEVIRTUAL, Known<MemoryFacts>().platmemorystatus.u64AvailVirtual),
    OS_NUMBER(MEM_TOTALPAGEFILE, Known<MemoryFacts>().platmemorystatus.u64TotalPagefile),
    OS_NUMBER(MEM_AVAILABLEPAGEFILE, Known<MemoryFacts>().platmemorystatus.u64AvailPagefile),
    OS_NUMBER(MEM_LOAD, Known<MemoryFacts>().platmemorystatus.u32Load),
    OS_NUMBER(CPU_CACHESIZE, Known<ProcessorFacts>().platprocessor.u32CacheSize),
    OS_NUMBER(CPU_FAMILY, Known<ProcessorFacts>().platprocessor.u32Family),
    OS_NUMBER(CPU_IS_3DNOW, Known<ProcessorFacts>().platprocessor.bl3dNow),
    OS_NUMBER(CPU_IS_FPU, Known<ProcessorFacts>().platprocessor.blFpu),
    OS_NUMBER(CPU_IS_HYPERTHREADING, Known<ProcessorFacts>().platprocessor.blHyperThreading),
    OS_NUMBER(CPU_IS_MMX, Known<ProcessorFacts>().platprocessor.blMmx),
    OS_NUMBER(CPU_IS_POPCNT, Known<ProcessorFacts>().platprocessor.blPopcnt),
    OS_NUMBER(CPU_IS_SSE, Known<ProcessorFacts>().platprocessor.blSse),
    OS_NUMBER(CPU_IS_SSE2, Known<ProcessorFacts>().platprocessor.blSse2),
    OS_NUMBER(CPU_IS_SSE3, Known<ProcessorFacts>().platprocessor.blSse3),
    OS_NUMBER(CPU_IS_SSE41, Known<ProcessorFacts>().platprocessor.blSse41),
    OS_NUMBER(CPU_IS_SSE42, Known<ProcessorFacts>().platprocessor.blSse42),
    OS_NUMBER(CPU_IS_SSE4A, Known<ProcessorFacts>().platprocessor.blSse4a),
    OS_NUMBER(CPU_LEVEL, Known<ProcessorFacts>().platprocessor.u32Level),
    OS_NUMBER(CPU_MACHINEBITS, Known<ProcessorFacts>().platprocessor.u32MachineBits),
    OS_NUMBER(CPU_MHZ, Known<ProcessorFacts>().platprocessor.u32Mhz),
    OS_NUMBER(CPU_MODEL, Known<ProcessorFacts>().platprocessor.u32Model),
    OS_NUMBER(CPU_PROCESSBITS, sizeof(void*) * 8),
    OS_NUMBER(CPU_STEPPING, Known<ProcessorFacts>().platprocessor.u32Stepping),
    OS_NUMBER(CPU_TOTAL, Known<ProcessorFacts>().u32Count),
    OS_NUMBER(CPU_ARCHITECTURE, Known<ProcessorFacts>().platprocessor.u32Architecture),
};

static constexpr TextRow g_atextrow[] = {
    OS_TEXT(OS_BUILDSTRING, Known<SystemFacts>().szBuild),
    OS_TEXT(OS_NAMESTRING, Known<SystemFacts>().szName),
    OS_TEXT(OS_VERSIONSTRING, Known<SystemFacts>().szVersion),
    OS_TEXT(OS_KERNELVERSIONSTRING, Known<SystemFacts>().szVersion),
    OS_TEXT(OS_NAMERAWSTRING, Known<SystemFacts>().szNameRaw),
    OS_TEXT(CPU_MODELSTRING, TextOrNone(Known<ProcessorFacts>().platprocessor.szModel)),
    OS_TEXT(CPU_VENDORSTRING, TextOrNone(Known<ProcessorFacts>().platprocessor.szVendor)),
    OS_TEXT(CPU_HYPERVENDORSTRING, TextOrNone(Known<ProcessorFacts>().platprocessor.szHypervisor)),
    OS_TEXT(CPU_VENDORNAMESTRING, VendorName(Known<ProcessorFacts>().platprocessor.szVendor)),
    OS_TEXT(VOLUME_DEVICEID, Known<VolumeFacts>().szDevice),
    OS_TEXT(VOLUME_SERIALNUMBER, Known<VolumeFacts>().szSerial),
    OS_TEXT(NETWORK_HOSTNAME, Known<HostFacts>().szName),
};
#undef OS_NUMBER
#undef OS_TEXT
// clang-format on

template <class Row, size_t a_sizetRows>
static const Row* FindRow(const Row (&a_arow)[a_sizetRows], EOSCFGINFO a_eoscfginfo)
{
    for (const Row& row : a_arow)
    {
        if (row.eoscfginfo == a_eoscfginfo)
            return &row;
    }
    return nullptr;
}

// ---------------------------------------------------------------------------------------------------- the questions

// True for facts that come from the processor's own identification instruction.
static bool IsOfProcessor(EOSCFGINFO a_eoscfginfo)
{
    switch (a_eoscfginfo)
    {
    case OS_CFGINFO_CPU_MACHINEBITS:
    case OS_CFGINFO_CPU_PROCESSBITS:
    case OS_CFGINFO_CPU_TOTAL:
    case OS_CFGINFO_CPU_ARCHITECTURE:
        return false;
    case OS_CFGINFO_CPU_VENDORNAMESTRING:
        return true;
    default:
        return a_eoscfginfo >= OS_CFGINFO_CPU_CACHESIZE && a_eoscfginfo <= OS_CFGINFO_CPU_STEPPING;
    }
}

static bool IsName(EOSCFGINFO a_eoscfginfo)
{
    return a_eoscfginfo >= OS_CFGINFO_VOLUME_DEVICEID && a_eoscfginfo <= OS_CFGINFO_NETWORK_HOSTNAME;
}

const char* OsCfgInfoString(EOSCFGINFO a_eoscfginfo)
{
    if (a_eoscfginfo == OS_CFGINFO_OS_USERNAME)
        return OsCfgUserName();
    const TextRow* const ptextrow = FindRow(g_atextrow, a_eoscfginfo);
    if (!ptextrow)
    {
        OSLOG(OS_LOG_ERROR, "COsCfg::InfoGetString: Unsupported...%d", static_cast<int>(a_eoscfginfo));
        return g_szNoData;
    }
    if (IsOfProcessor(a_eoscfginfo) && !Known<ProcessorFacts>().blKnown)
    {
        OSLOG(OS_LOG_ERROR, "COsCfg::InfoGetString: Unsupported...%d %ld >= %ld", static_cast<int>(a_eoscfginfo), 0L,
              0L);
        return g_szNoData;
    }
    if (IsName(a_eoscfginfo))
        OsCfgInfoTellNames();
    return ptextrow->pfnAnswer();
}

int64_t OsCfgInfoLong(EOSCFGINFO a_eoscfginfo)
{
    const NumberRow* const pnumberrow = FindRow(g_anumberrow, a_eoscfginfo);
    if (!pnumberrow)
    {
        OSLOG(OS_LOG_ERROR, "COsCfg::InfoGetLong: Unsupported...%d", static_cast<int>(a_eoscfginfo));
        return 0;
    }
    if (IsOfProcessor(a_eoscfginfo) && !Known<ProcessorFacts>().blKnown)
    {
        OSLOG(OS_LOG_ERROR, "COsCfg::InfoGetLong: Unsupported...%ld >= %ld", 0L, 0L);
        return 0;
    }
    return pnumberrow->pfnAnswer();
}
