// os_costhread_launch.cpp: the start parameters of a child process (command line, folder, desktop) and the launch
// itself, as this process's user or the user of a session.
#include "os_costhread_impl.h"

#include "os_cfg.h"
#include "os_cosarguments.h"
#include "os_coslocale.h"
#include "os_cospath.h"
#include "os_cosstring.h"
#include "os_log.h"
#include "os_scope.h"

#include "plat_process.h"

#include <algorithm>
#include <cstring>
#include <utility>

static constexpr char g_szSource[] = "os/source/os_costhread";

static constexpr size_t g_sizetProgram = 509;   // characters, like the others
static constexpr size_t g_sizetCommandLine = 65535;
static constexpr size_t g_sizetShownCommand = 512;
static constexpr size_t g_sizetArguments = 31;
static constexpr uint32_t g_u32ServicesSession = 0;

// The attribute values of these flags on the product's system.
static constexpr std::pair<uint32_t, uint32_t> g_apairAttribute[] = {
    {OS_SPAWNFLAGS_NOWINDOW, 0x08000000},
    {OS_SPAWNFLAGS_NEWCONSOLE, 0x10},
    {OS_SPAWNFLAGS_DETACHED, 0x8},
};

// The child does not share our console: neither its streams nor the signals typed there.
static constexpr uint32_t g_u32OwnConsole = OS_SPAWNFLAGS_NOWINDOW | OS_SPAWNFLAGS_NEWCONSOLE | OS_SPAWNFLAGS_DETACHED;

// ---------------------------------------------------------------------------------------------------- start parameters

// False, and logged, for invalid UTF-8.
static bool ToWide(const char* a_szText, std::u16string* a_pwstrText)
{
    a_pwstrText->resize(std::strlen(a_szText) + 1);
    const size_t sizetWritten = CopyStringFromUtf8(a_pwstrText->data(), a_pwstrText->size(), a_szText);
    a_pwstrText->resize(sizetWritten > 0 ? sizetWritten - 1 : 0);
    return sizetWritten > 0;
}

static void LogOverflow(size_t a_sizetLength, const char* a_szText)
{
    OSLOG(OS_LOG_CHECK, "buffer overflow...%u <%s>", static_cast<unsigned>(a_sizetLength), a_szText);
}

// The quoted program, then each argument, quoted unless the flags say otherwise. A space follows each of them.
static bool PrepareCommandLine(const OsSpawnRequest& a_osspawnrequest, OsSpawn* a_posspawn)
{
    if (!ToWide(a_osspawnrequest.szProgram, &a_posspawn->wstrProgram))
        return false;
    if (a_posspawn->wstrProgram.size() > g_sizetProgram)
    {
        LogOverflow(a_posspawn->wstrProgram.size(), a_osspawnrequest.szProgram);
        return false;
    }
    std::u16string& wstrCommandLine = a_posspawn->wstrCommandLine;
    wstrCommandLine = u'"' + a_posspawn->wstrProgram + u"\" ";
    const char16_t* const wszMark = (a_osspawnrequest.u32Flags & OS_SPAWNFLAGS_NOQUOTES) ? u"" : u"\"";
    size_t sizetArguments = 0;
    for (const char* const szArgument : a_osspawnrequest.aszArgument)
    {
        std::u16string wstrArgument;
        if (!szArgument || !*szArgument || sizetArguments++ == g_sizetArguments)
            break;
        if (!ToWide(szArgument, &wstrArgument))
            return false;
        wstrCommandLine.append(wszMark).append(wstrArgument).append(wszMark).append(u" ");
    }
    if (wstrCommandLine.size() <= g_sizetCommandLine)
        return true;
    LogOverflow(wstrCommandLine.size(), a_osspawnrequest.szProgram);
    return false;
}

// The program's folder, with its last separator.
static void PrepareFolder(const OsSpawnRequest& a_osspawnrequest, OsSpawn* a_posspawn)
{
    if (a_osspawnrequest.u32Flags & OS_SPAWNFLAGS_NOFOLDER)
        return;
    char szFolder[OS_PATHSIZE];
    if (const size_t sizetLength = std::strlen(a_osspawnrequest.szProgram); sizetLength >= sizeof szFolder)
    {
        LogOverflow(sizetLength, a_osspawnrequest.szProgram);
        return;
    }
    OsPathCopy(szFolder, sizeof szFolder, a_osspawnrequest.szProgram);
    const char* szName = nullptr;
    OsPathSplit(szFolder, nullptr, &szName);
    if (szName == szFolder)
        return;
    szFolder[szName - szFolder] = 0;
    ToWide(szFolder, &a_posspawn->wstrFolder);
}

// This system has no such desktops, so there is no name to use.
static void PrepareDesktop(uint32_t a_u32Flags, OsSpawn* a_posspawn)
{
    const char* const szDesktop = OsCfgGetString(OS_CFGTAG_FORCEDESKTOP);
    if ((a_u32Flags & (OS_SPAWNFLAGS_NODESKTOP | OS_SPAWNFLAGS_SHOWNORMAL)) == 0)
        ToWide(*szDesktop ? szDesktop : "WinSta0\\Default", &a_posspawn->wstrDesktop);
}

bool OsSpawnPrepare(const OsSpawnRequest& a_osspawnrequest, OsSpawn* a_posspawn)
{
    a_posspawn->u32Flags = a_osspawnrequest.u32Flags;
    a_posspawn->szProgram = a_osspawnrequest.szProgram;
    for (const auto& [u32Flag, u32Attribute] : g_apairAttribute)
        a_posspawn->u32Attributes |= (a_osspawnrequest.u32Flags & u32Flag) ? u32Attribute : 0;
    PrepareFolder(a_osspawnrequest, a_posspawn);
    PrepareDesktop(a_osspawnrequest.u32Flags, a_posspawn);
    return PrepareCommandLine(a_osspawnrequest, a_posspawn);
}

// ---------------------------------------------------------------------------------------------------------- the launch

static void LogLaunch(const OsSpawn& a_osspawn)
{
    const auto iShown = static_cast<int>(std::min(a_osspawn.wstrCommandLine.size(), g_sizetShownCommand));
    OSLOG(OS_LOG_NOTE, "Spawn: a_lSpawnFlags...0x%08x", static_cast<unsigned>(a_osspawn.u32Flags));
    OSLOG(OS_LOG_MILESTONE, OsWideFormat("Spawn: command.........%*.*S"), iShown, iShown,
          a_osspawn.wstrCommandLine.c_str());
    OSLOG(OS_LOG_NOTE, OsWideFormat("Spawn: directory.......%S"),
          a_osspawn.wstrFolder.empty() ? u"(none)" : a_osspawn.wstrFolder.c_str());
    OSLOG(OS_LOG_NOTE, OsWideFormat("Spawn: desktop.........%S"), a_osspawn.wstrDesktop.c_str());
    OSLOG(OS_LOG_NOTE, "Spawn: attributes......0x%08x", static_cast<unsigned>(a_osspawn.u32Attributes));
}

static bool FindServicesUser(PlatHandle* a_pplathandleUser)
{
    OSLOG(OS_LOG_NOTE, "Spawn: service launch (xp - pretending to be the desktop hvscannerservice)");
    *a_pplathandleUser = PlatSessionUser(g_u32ServicesSession);
    if (*a_pplathandleUser != PLAT_INVALID)
        return true;
    const uint32_t u32Error = PlatGetLastError();
    OSLOG(OS_LOG_ERROR, "WTSQueryUserToken failed...%u", static_cast<unsigned>(u32Error));
    if (u32Error == PLAT_ERROR_PRIVILEGENOTHELD)
        OSLOG(OS_LOG_ERROR, "If GetLastError is 1314, then change the service from LocalService to LocalSystem");
    return false;
}

// Without such a user, uses our own.
static void FindActiveUser(PlatHandle* a_pplathandleUser)
{
    OSLOG(OS_LOG_NOTE, "Spawn: service launch");
    OSLOG(OS_LOG_NOTE, "OS_SPAWNFLAGS_FROMSERVICE requested...");
    const uint32_t u32Session = PlatSessionActive();
    *a_pplathandleUser = PlatSessionUser(u32Session);
    if (*a_pplathandleUser == PLAT_INVALID)
        OSLOG(OS_LOG_ERROR, "pfnwtsqueryusertoken failed...%d", static_cast<int>(u32Session));
    OSLOG(OS_LOG_NOTE, "hSessionToken=%016llX", static_cast<unsigned long long>(*a_pplathandleUser));
}

// False, and logged, when there is no user for the child; PLAT_INVALID means our own.
static bool FindUser(uint32_t a_u32Flags, PlatHandle* a_pplathandleUser)
{
    if (a_u32Flags & OS_SPAWNFLAGS_SERVICESESSION)
        return FindServicesUser(a_pplathandleUser);
    if (a_u32Flags & OS_SPAWNFLAGS_FROMSERVICE)
    {
        FindActiveUser(a_pplathandleUser);
    }
    else
    {
        OSLOG(OS_LOG_NOTE, "Spawn: regular launch");
    }
    return true;
}

// The arguments lock is held from publishing until the child exists, and no longer.
static PlatHandle Create(const PlatProcessStart& a_platprocessstart, uint64_t* a_pu64ProcessId)
{
    OsArgumentsPublish(true);
    const ScopeGuard release([] {
        const uint32_t u32Error = PlatGetLastError();
        OsArgumentsPublish(false);
        PlatSetLastError(u32Error);
    });
    return PlatProcessCreate(&a_platprocessstart, a_pu64ProcessId);
}

static void LogCreated(const OsSpawn& a_osspawn, PlatHandle a_plathandle, uint64_t a_u64ProcessId)
{
    if (a_plathandle == PLAT_INVALID)
    {
        const bool blRegular = (a_osspawn.u32Flags & (OS_SPAWNFLAGS_SERVICESESSION | OS_SPAWNFLAGS_FROMSERVICE)) == 0;
        OSLOG(OS_LOG_ERROR, "Spawn: %s failed...<%s>", blRegular ? "CreateProcessW" : "CreateProcessAsUserW",
              a_osspawn.szProgram);
        OSLOG(OS_LOG_ERROR, "Spawn: Failed to spawn...<%s>", a_osspawn.szProgram);
        return;
    }
    // The thread id equals the process id here; no thread handle is needed.
    OSLOG(OS_LOG_NOTE, "Spawn: dwProcessId.....%u", static_cast<unsigned>(a_u64ProcessId));
    OSLOG(OS_LOG_NOTE, "Spawn: dwThreadId......%u", static_cast<unsigned>(a_u64ProcessId));
    OSLOG(OS_LOG_NOTE, "Spawn: hProcess........%016llX", static_cast<unsigned long long>(a_plathandle));
    OSLOG(OS_LOG_NOTE, "Spawn: hThread.........%016llX", 0ULL);
}

PlatHandle OsSpawnLaunch(const OsSpawn& a_osspawn, const PlatHandle (&a_aplathandleStream)[3],
                         uint64_t* a_pu64ProcessId)
{
    if (OsLogWorkingWord())
        LogLaunch(a_osspawn);
    PlatHandle plathandleUser = PLAT_INVALID;
    const ScopeGuard closeUser([&] {
        if (plathandleUser != PLAT_INVALID)
            PlatClose(plathandleUser);
    });
    if (!FindUser(a_osspawn.u32Flags, &plathandleUser))
        return PLAT_INVALID;

    PlatProcessStart platprocessstart{};
    platprocessstart.wszProgram = a_osspawn.wstrProgram.c_str();
    platprocessstart.wszCommandLine = a_osspawn.wstrCommandLine.c_str();
    platprocessstart.wszFolder = a_osspawn.wstrFolder.empty() ? nullptr : a_osspawn.wstrFolder.c_str();
    std::copy(std::begin(a_aplathandleStream), std::end(a_aplathandleStream), platprocessstart.aplathandle);
    platprocessstart.blDetached = (a_osspawn.u32Flags & g_u32OwnConsole) != 0;
    platprocessstart.blInheritStandard =
        (a_osspawn.u32Flags & OS_SPAWNFLAGS_PIPES) == 0 && !platprocessstart.blDetached;
    platprocessstart.blInheritInput = (a_osspawn.u32Flags & OS_SPAWNFLAGS_OWNINPUT) != 0;
    platprocessstart.plathandleUser = plathandleUser;
    const PlatHandle plathandle = Create(platprocessstart, a_pu64ProcessId);
    LogCreated(a_osspawn, plathandle, *a_pu64ProcessId);
    return plathandle;
}
