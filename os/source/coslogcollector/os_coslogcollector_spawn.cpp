// os_coslogcollector_spawn.cpp: an application starts the collector that serves it and its children.
#include "os_coslogcollector_impl.h"

#include "os_cfg.h"
#include "os_cosarguments.h"
#include "os_cosenv.h"
#include "os_cosfile_system.h"
#include "os_coslogcollector_protocol.h"
#include "os_cosmem.h"
#include "os_cosstring.h"
#include "os_costhread.h"
#include "os_log.h"
#include "os_scope.h"

#include "plat_process.h"
#include "plat_system.h"

#include <cstring>

static constexpr char g_szSource[] = "os/source/os_coslogcollector";

static constexpr uint32_t g_u32SpawnFlags = OS_SPAWNFLAGS_CHECKFILE | OS_SPAWNFLAGS_NOREDIRECTION |
                                            OS_SPAWNFLAGS_PIPES | OS_SPAWNFLAGS_NORETRY | OS_SPAWNFLAGS_NOWINDOW;
static_assert(g_u32SpawnFlags == 0xC601);

static constexpr uint64_t g_u64ReplyTimeout = 10000;   // milliseconds
static constexpr int32_t g_i32PortMost = 65535;
static constexpr uint32_t g_u32GivenUpExitCode = 1;

// ------------------------------------------------------------------------------------------------- preconditions

bool OsLcIsCollectorProgram()
{
    char szProgram[OS_PATHSIZE];
    OsArgumentsProgramPath(szProgram);
    return StrIstr(szProgram, "logcollector") != nullptr;
}

static bool IsWanted()
{
    char szDefault[OS_PATHSIZE];
    OsEnvGet("MVR_LOGCOLLECTORXMLOVERRIDE", "enabled", sizeof szDefault, szDefault);
    return StrICmp(OsCfgGetCommon("LogCollector", szDefault), "enabled") == 0;
}

static bool HasCollector()
{
    const OsCollectorIdentity oscollectoridentity = OsArgumentsCollector();
    return oscollectoridentity.i32Port != 0 && oscollectoridentity.u64ProcessIdApplication != 0;
}

// ----------------------------------------------------------------------------------------------------- the reply

static bool TakeReply(const char* a_szReply, OsCollectorIdentity& a_oscollectoridentity)
{
    char szPort[OS_LC_PORTSIZE];
    if (OsLcReadStartReply(a_szReply, szPort, &a_oscollectoridentity.u64ProcessIdCollector) != EOSSTS_SUCCESS)
        return false;
    a_oscollectoridentity.i32Port = StrToInt32(szPort);
    return a_oscollectoridentity.i32Port > 0 && a_oscollectoridentity.i32Port <= g_i32PortMost;
}

// The reply may come in pieces, late, or never; a_szReply has OS_LC_DOCUMENTSIZE bytes.
static bool ReadReply(COsThread& a_osthread, char* a_szReply, OsCollectorIdentity& a_oscollectoridentity)
{
    const uint64_t u64End = PlatTicks() + g_u64ReplyTimeout;
    uint64_t u64Now = PlatTicks();
    for (size_t sizetReply = 0; sizetReply < OS_LC_DOCUMENTSIZE - 1 && u64Now < u64End; u64Now = PlatTicks())
    {
        size_t sizetRead = 0;
        if (a_osthread.ChildRead(a_szReply + sizetReply, OS_LC_DOCUMENTSIZE - 1 - sizetReply, &sizetRead, true,
                                 static_cast<uint32_t>(u64End - u64Now)) != EOSSTS_SUCCESS)
            return false;
        sizetReply += sizetRead;
        a_szReply[sizetReply] = '\0';
        if (std::strstr(a_szReply, OS_LC_REPLYEND))
            return TakeReply(a_szReply, a_oscollectoridentity);
    }
    return false;
}

// The collector outlives the object that started it. One that is given up is ended: it would wait for streams that
// never come.
static bool StartAndAsk(const char* a_szProgram, OsCollectorIdentity& a_oscollectoridentity)
{
    char szArgument[256];
    auto* const szReply = static_cast<char*>(OSMEMALLOC(OS_LC_DOCUMENTSIZE, OS_MEMFLAG_PAGES));
    if (!szReply)
        return false;
    const ScopeGuard freeReply([szReply] { OSMEMFREE(szReply, OS_MEMFLAG_PAGES); });
    COsThread osthread;
    if (OsLcBuildStartArgument(szArgument, sizeof szArgument, a_oscollectoridentity.u64ProcessIdApplication) !=
            EOSSTS_SUCCESS ||
        osthread.Spawn(g_u32SpawnFlags, a_szProgram, a_szProgram, {szArgument}) != EOSSTS_SUCCESS)
        return false;
    if (ReadReply(osthread, szReply, a_oscollectoridentity))
        return true;
    if (osthread.ChildIsRunning())
        PlatProcessTerminate(osthread.ChildProcess(), g_u32GivenUpExitCode);
    return false;
}

// ----------------------------------------------------------------------------------------------------- the start

// Why no collector was found; "" when there is one or none is wanted. Kept until there is a log.
static char g_szProblem[OS_PATHSIZE + 128];

static bool Fail(const char* a_szProblem, const char* a_szProgram)
{
    SStrPrintf(g_szProblem, sizeof g_szProblem, "%s <%s>", a_szProblem, a_szProgram);
    return false;
}

// For a program that counts as a collector because of its folder's name.
static bool FailAsCollector()
{
    char szProgram[OS_PATHSIZE];
    OsArgumentsProgramPath(szProgram);
    if (!StrIstr(StrFileName(szProgram), "logcollector"))
        return Fail("is not started by a program that has \"logcollector\" in its path", szProgram);
    return false;
}

bool LogCollectorStartCollector()
{
    char szProgram[OS_PATHSIZE];
    g_szProblem[0] = 0;
    if (OsLogGetState() == OS_LOGSTATE_OFF)
        return false;
    if (!IsWanted())
        return true;
    if (OsLcIsCollectorProgram())
        return FailAsCollector();
    if (OsLcIsServicesSession())
        return false;
    const bool blFound =
        OsCfgGetPath(OS_PATH_READABLE_FILE_LOGCOLLECTOREXE, szProgram, sizeof szProgram) == EOSSTS_SUCCESS &&
        OsFileExists(szProgram, true);
    if (HasCollector())
        return blFound;
    if (!blFound)
        return Fail("is not installed, and there is none at", szProgram);

    OsCollectorIdentity oscollectoridentity{};
    oscollectoridentity.u64ProcessIdApplication = PlatProcessId();
    if (!StartAndAsk(szProgram, oscollectoridentity))
        return Fail("does not start or gives no port", szProgram);
    OsArgumentsSetCollector(oscollectoridentity);
    OsArgumentsUpdateCollector();
    OsArgumentsPublishNow();
    return true;
}

void LogCollectorTellProblem()
{
    if (g_szProblem[0])
        OSLOG(OS_LOG_ERROR, "LogCollector %s; this process writes its log itself...", g_szProblem);
}
