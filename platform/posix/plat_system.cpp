// plat_system.cpp: the clock, the machine, its folders, the modules of this process.
#include "plat_system.h"
#include "plat_posix.h"
#include "plat_user.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <limits.h>
#include <link.h>
#include <new>
#include <time.h>
#include <unistd.h>

// ----------------------------------------------------------------------------------------------------- the clock

static constexpr uint64_t g_u64UnitsPerSecond = 10'000'000;
static constexpr int64_t g_i64SecondsTo1970 = 11'644'473'600;

uint64_t PlatClock()
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<uint64_t>(now.tv_sec + g_i64SecondsTo1970) * g_u64UnitsPerSecond +
           static_cast<uint64_t>(now.tv_nsec) / 100;
}

uint64_t PlatTicks()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_nsec) / 1'000'000;
}

static int64_t UnixSeconds(uint64_t a_u64Clock)
{
    return static_cast<int64_t>(a_u64Clock / g_u64UnitsPerSecond) - g_i64SecondsTo1970;
}

static uint16_t Milliseconds(uint64_t a_u64Clock)
{
    return static_cast<uint16_t>(a_u64Clock % g_u64UnitsPerSecond / 10'000);
}

bool PlatTimeUtc(uint64_t a_u64Clock, PlatTime* a_pplattime)
{
    using namespace std::chrono;
    const sys_seconds sysseconds{seconds{UnixSeconds(a_u64Clock)}};
    const sys_days sysdays = floor<days>(sysseconds);
    const year_month_day date{sysdays};
    const hh_mm_ss time{sysseconds - sysdays};
    if (static_cast<int>(date.year()) > 9999)
        return PosixFail(PLAT_ERROR_INVALIDPARAMETER);
    a_pplattime->u16Year = static_cast<uint16_t>(static_cast<int>(date.year()));
    a_pplattime->u16Month = static_cast<uint16_t>(static_cast<unsigned>(date.month()));
    a_pplattime->u16DayOfWeek = static_cast<uint16_t>(weekday{sysdays}.c_encoding());
    a_pplattime->u16Day = static_cast<uint16_t>(static_cast<unsigned>(date.day()));
    a_pplattime->u16Hour = static_cast<uint16_t>(time.hours().count());
    a_pplattime->u16Minute = static_cast<uint16_t>(time.minutes().count());
    a_pplattime->u16Second = static_cast<uint16_t>(time.seconds().count());
    a_pplattime->u16Milliseconds = Milliseconds(a_u64Clock);
    return true;
}

bool PlatTimeLocal(uint64_t a_u64Clock, PlatTime* a_pplattime)
{
    // The first conversion reads the environment; the later ones do not, but take a lock of the C library that a fork
    // would leave taken.
    const PosixGuard posixguard(POSIX_LOCK_ZONE);
    [[maybe_unused]] static const bool g_blZoneRead = [] {
        const PosixGuard posixguardEnvironment(POSIX_LOCK_ENVIRONMENT);
        tzset();
        return true;
    }();

    const time_t timet = UnixSeconds(a_u64Clock);
    tm calendar{};
    if (!localtime_r(&timet, &calendar) || calendar.tm_year < 1601 - 1900 || calendar.tm_year > 9999 - 1900)
        return PosixFail(PLAT_ERROR_INVALIDPARAMETER);
    a_pplattime->u16Year = static_cast<uint16_t>(calendar.tm_year + 1900);
    a_pplattime->u16Month = static_cast<uint16_t>(calendar.tm_mon + 1);
    a_pplattime->u16DayOfWeek = static_cast<uint16_t>(calendar.tm_wday);
    a_pplattime->u16Day = static_cast<uint16_t>(calendar.tm_mday);
    a_pplattime->u16Hour = static_cast<uint16_t>(calendar.tm_hour);
    a_pplattime->u16Minute = static_cast<uint16_t>(calendar.tm_min);
    a_pplattime->u16Second = static_cast<uint16_t>(calendar.tm_sec);
    a_pplattime->u16Milliseconds = Milliseconds(a_u64Clock);
    return true;
}

bool PlatTimeToSeconds(const PlatTime* a_pplattime, int64_t* a_pi64Seconds, bool* a_pblDaylight)
{
    tm calendar{};
    calendar.tm_year = a_pplattime->u16Year - 1900;
    calendar.tm_mon = a_pplattime->u16Month - 1;
    calendar.tm_mday = a_pplattime->u16Day;
    calendar.tm_hour = a_pplattime->u16Hour;
    calendar.tm_min = a_pplattime->u16Minute;
    calendar.tm_sec = a_pplattime->u16Second;
    calendar.tm_isdst = 0;
    calendar.tm_wday = -1;   // stays when the conversion fails, whose result alone does not tell
    {
        const PosixGuard posixguard(POSIX_LOCK_ENVIRONMENT);   // it reads the environment each time
        *a_pi64Seconds = mktime(&calendar);
    }
    *a_pblDaylight = calendar.tm_isdst > 0;
    return calendar.tm_wday >= 0 || PosixFail(PLAT_ERROR_INVALIDPARAMETER);
}

// --------------------------------------------------------------------------------------------------- the machine

uint32_t PlatProcessorCount()
{
    const long lCount = sysconf(_SC_NPROCESSORS_ONLN);
    return lCount > 0 ? static_cast<uint32_t>(lCount) : 0;
}

// A folder that a variable of this system names; one without its full path does not count.
static bool FolderOf(const char* a_szVariable, std::string& a_strPath)
{
    return PosixEnvGet(a_szVariable, a_strPath) && a_strPath[0] == '/';
}

// Empty for a user without a home: a folder that everybody may write, as the temporary one, would be of whoever makes
// it first.
static std::string BelowHome(const char* a_szFolder)
{
    std::string strHome;
    if (!FolderOf("HOME", strHome))
        strHome = PosixAccountHome();
    return strHome.starts_with('/') ? strHome + a_szFolder : std::string();
}

static std::string SystemRoot()
{
    std::string strPath;
    return FolderOf("SYSTEMROOT", strPath) ? strPath : "/usr";
}

// The product's own variable comes first, in whatever form it is.
static std::string FolderPath(PlatFolder a_platfolder)
{
    std::string strPath;
    switch (a_platfolder)
    {
    case PLAT_FOLDER_LOCAL:
        if (PosixEnvGet("LOCALAPPDATA", strPath) || FolderOf("XDG_DATA_HOME", strPath))
            return strPath;
        return BelowHome("/.local/share");
    case PLAT_FOLDER_ROAMING:
        if (PosixEnvGet("APPDATA", strPath) || FolderOf("XDG_CONFIG_HOME", strPath))
            return strPath;
        return BelowHome("/.config");
    case PLAT_FOLDER_PROGRAM:
        if (PosixEnvGet("PROGRAMDATA", strPath))
            return strPath;
        if (PlatUserId() == 0)
            return "/var/lib";
        return FolderOf("XDG_STATE_HOME", strPath) ? strPath : BelowHome("/.local/state");
    case PLAT_FOLDER_TEMP:
        return FolderOf("TMPDIR", strPath) ? strPath : "/tmp";
    case PLAT_FOLDER_PROFILE:
        return BelowHome("");
    case PLAT_FOLDER_DESKTOP:
        return BelowHome("/Desktop");
    case PLAT_FOLDER_PICTURES:
        return BelowHome("/Pictures");
    case PLAT_FOLDER_DOCUMENTS:
        return BelowHome("/Documents");
    case PLAT_FOLDER_PROGRAMS:
        return "/opt";
    case PLAT_FOLDER_STARTMENU:
        return "/usr/share/applications";
    case PLAT_FOLDER_WINDOWS:
        return SystemRoot();
    case PLAT_FOLDER_SYSTEM:
        return SystemRoot() + "/lib";
    }
    return {};
}

bool PlatFolderPath(PlatFolder a_platfolder, char16_t* a_wszPath, size_t a_sizetPath)
try
{
    const std::string strPath = FolderPath(a_platfolder);
    if (strPath.empty())
        return PosixFail(PLAT_ERROR_INVALIDPARAMETER);
    return PosixToWide(strPath.c_str(), a_wszPath, a_sizetPath);
}
catch (const std::bad_alloc&)
{
    return PosixFail(PLAT_ERROR_NOMEMORY);
}

// --------------------------------------------------------------------------------------------------- the modules

namespace
{
struct ModuleWalk
{
    PlatModuleProc platmoduleproc;
    void* pvContext;
    char szProgram[PATH_MAX];
};
}   // namespace

// The part of the address space that the loader laid out for the module.
static PlatModule ModuleOf(const dl_phdr_info& a_dlphdrinfo, const char* a_szPath)
{
    uint64_t u64Low = UINT64_MAX;
    uint64_t u64High = 0;
    for (size_t sizet = 0; sizet < a_dlphdrinfo.dlpi_phnum; ++sizet)
    {
        const auto& segment = a_dlphdrinfo.dlpi_phdr[sizet];
        if (segment.p_type != PT_LOAD)
            continue;
        u64Low = segment.p_vaddr < u64Low ? segment.p_vaddr : u64Low;
        u64High = segment.p_vaddr + segment.p_memsz > u64High ? segment.p_vaddr + segment.p_memsz : u64High;
    }
    return {a_dlphdrinfo.dlpi_addr + u64Low, u64High - u64Low, a_szPath};
}

// The file that is mapped at an address, as the kernel names it; empty for none.
static std::string FileAt(uint64_t a_u64Address)
{
    const std::string strMaps = PosixReadText("/proc/self/maps");
    std::string_view strviewMaps = strMaps;
    while (!strviewMaps.empty())
    {
        const std::string_view strviewLine = PosixTake(strviewMaps, '\n');
        if (strtoull(std::string(strviewLine).c_str(), nullptr, 16) == a_u64Address)
            return std::string(strviewLine.substr(std::min(strviewLine.find('/'), strviewLine.size())));
    }
    return {};
}

// The loader tells of the program first, and leaves its name empty. A name that is not a full path is the one that the
// loader was given, or the kernel's own module.
static int TellModule(dl_phdr_info* a_pdlphdrinfo, size_t, void* a_pvWalk)
{
    auto* pmodulewalk = static_cast<ModuleWalk*>(a_pvWalk);
    const char* szPath = a_pdlphdrinfo->dlpi_name;
    if (!szPath || !*szPath)
    {
        szPath = pmodulewalk->szProgram;
        if (!*szPath)
            return 0;
        const PlatModule platmodule = ModuleOf(*a_pdlphdrinfo, szPath);
        const bool blGoOn = pmodulewalk->platmoduleproc(pmodulewalk->pvContext, &platmodule);
        pmodulewalk->szProgram[0] = 0;
        return blGoOn ? 0 : 1;
    }
    PlatModule platmodule = ModuleOf(*a_pdlphdrinfo, szPath);
    const std::string strFile = *szPath == '/' ? szPath : FileAt(platmodule.u64Address);
    if (strFile.empty())
        return 0;
    platmodule.szPath = strFile.c_str();
    return pmodulewalk->platmoduleproc(pmodulewalk->pvContext, &platmodule) ? 0 : 1;
}

bool PlatModuleList(PlatModuleProc a_platmoduleproc, void* a_pvContext)
{
    ModuleWalk modulewalk{a_platmoduleproc, a_pvContext, {}};
    if (!PosixProgramPath(modulewalk.szProgram, sizeof modulewalk.szProgram))
        return false;
    dl_iterate_phdr(TellModule, &modulewalk);
    return true;
}
