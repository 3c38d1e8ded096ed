// os_costhread_spawn.cpp: spawning a child process: checks, retries, watching for an early exit. The start parameters
// and the launch are in os_costhread_launch.cpp.
#include "os_costhread_impl.h"

#include "os_cfg.h"
#include "os_cosresource.h"
#include "os_log.h"
#include "os_scope.h"

#include "plat_process.h"
#include "plat_wait.h"

#include <new>
#include <utility>

static constexpr char g_szSource[] = "os/source/os_costhread";

static constexpr uint32_t g_u32EarlyDeathTests = 3;
static constexpr uint32_t g_u32EarlyDeathSlice = 30;   // milliseconds per slice
static constexpr uint32_t g_u32EarlyDeathExitCode = 99;

static bool CheckRequest(const OsSpawnRequest& a_osspawnrequest)
{
    if (!a_osspawnrequest.szProgram || !*a_osspawnrequest.szProgram)
    {
        OSLOG(OS_LOG_ERROR, "Spawn: a_szProgram is NULL or empty...");
        return false;
    }
    if (!a_osspawnrequest.szArgument0)
    {
        OSLOG(OS_LOG_ERROR, "Spawn: a_szArg0 is NULL...");
        return false;
    }
    return true;
}

static bool CheckProgram(const OsSpawnRequest& a_osspawnrequest)
{
    if ((a_osspawnrequest.u32Flags & OS_SPAWNFLAGS_CHECKFILE) == 0 || OsResourceIsIntact(a_osspawnrequest.szProgram))
        return true;
    OSLOG(OS_LOG_ERROR, "corrupted binary...");
    return false;
}

// The number of tries; 0 for a single try without watching for an early exit.
static long WatchedTries(uint32_t a_u32Flags)
{
    const bool blWanted = (a_u32Flags & OS_SPAWNFLAGS_NORETRY) == 0;
    const long lTries = blWanted ? OsCfgGetLong(OS_CFGTAG_FORCESPAWNRETRY) : 0;
    return lTries > 0 ? lTries : 0;
}

EOSSTS COsThreadImpl::Spawn(const OsSpawnRequest& a_osspawnrequest)
{
    if (!CheckRequest(a_osspawnrequest))
        return EOSSTS_FAIL;
    const bool blAlone = !m_blSpawning.exchange(true);
    const ScopeGuard spawned([this, blAlone] {
        if (blAlone)
            m_blSpawning = false;
    });
    if (!blAlone || ChildIsRunning())
    {
        OSLOG(OS_LOG_ERROR, "Spawn: This object already has something spawned...");
        return EOSSTS_FAIL;
    }
    TakeChild(nullptr);
    return SpawnAlone(a_osspawnrequest);
}

EOSSTS COsThreadImpl::SpawnAlone(const OsSpawnRequest& a_osspawnrequest)
{
    if (!CheckProgram(a_osspawnrequest))
        return EOSSTS_FAIL;
    try
    {
        OsSpawn osspawn;
        const long lTries = WatchedTries(a_osspawnrequest.u32Flags);
        if (!OsSpawnPrepare(a_osspawnrequest, &osspawn))
            return EOSSTS_FAIL;
        if (lTries > 0)
            osspawn.u32Flags |= OS_SPAWNFLAGS_CHECKSTART;
        return SpawnUntilItLives(osspawn, lTries);
    }
    catch (const std::bad_alloc&)
    {
        OSLOG(OS_LOG_ERROR, "Spawn: OsMemQuickAlloc failed...<%s>", a_osspawnrequest.szProgram);
        return EOSSTS_FAIL;
    }
}

// False, and logged, when the child has exited.
static bool SurvivesItsStart(PlatHandle a_plathandle, const char* a_szProgram)
{
    for (uint32_t u32Test = 1; u32Test <= g_u32EarlyDeathTests; ++u32Test)
    {
        const uint32_t u32Wait = PlatWaitAny(&a_plathandle, 1, g_u32EarlyDeathSlice);
        if (u32Wait == PLAT_WAIT_TIMEOUT)
            continue;
        if (u32Wait == 0)
        {
            OSLOG(OS_LOG_ERROR, "WAIT_OBJECT_0...%u <%s>", static_cast<unsigned>(u32Test), a_szProgram);
        }
        else
        {
            OSLOG(OS_LOG_ERROR, "WAIT_FAILED...<%s>", a_szProgram);
        }
        OSLOG(OS_LOG_ERROR, "Retry the spawn for...<%s>", a_szProgram);
        return false;
    }
    return true;
}

// Returns the child's ends. On failure, which is logged, all ends are closed.
static bool CreatePipes(OsChild* a_poschild, bool a_blOwnInput, OsHandle (&a_aoshandleTheirs)[3])
{
    a_poschild->oshandleCancel.Fill() = PlatEventCreate(PLAT_RESET_AUTO, nullptr);
    a_poschild->blPipes = a_poschild->oshandleCancel.Get() != PLAT_INVALID;
    for (const PlatStandard platstandard : {PLAT_STANDARD_INPUT, PLAT_STANDARD_OUTPUT, PLAT_STANDARD_ERROR})
    {
        if (platstandard == PLAT_STANDARD_INPUT && a_blOwnInput)
            continue;
        PlatHandle& plathandleOurs = a_poschild->aoshandlePipe[platstandard].Fill();
        PlatHandle& plathandleTheirs = a_aoshandleTheirs[platstandard].Fill();
        const bool blInput = platstandard == PLAT_STANDARD_INPUT;
        a_poschild->blPipes =
            a_poschild->blPipes && (blInput ? PlatPipeCreate(&plathandleTheirs, &plathandleOurs, false)
                                            : PlatPipeCreate(&plathandleOurs, &plathandleTheirs, true));
    }
    if (!a_poschild->blPipes)
        OSLOG(OS_LOG_ERROR, "CreateNamedPipe failed...");
    return a_poschild->blPipes;
}

// Each try has its own pipes, so that output of a child that exited early is not read as the next one's. Null, and
// logged, on failure.
static std::shared_ptr<OsChild> LaunchChild(const OsSpawn& a_osspawn)
{
    auto sharedptrChild = std::make_shared<OsChild>();
    sharedptrChild->sharedptrProcess = std::make_shared<OsHandle>();
    OsHandle aoshandleTheirs[3];
    const bool blOwnInput = (a_osspawn.u32Flags & OS_SPAWNFLAGS_OWNINPUT) != 0;
    if ((a_osspawn.u32Flags & OS_SPAWNFLAGS_PIPES) && !CreatePipes(sharedptrChild.get(), blOwnInput, aoshandleTheirs))
        return nullptr;
    PlatHandle& plathandle = sharedptrChild->sharedptrProcess->Fill();
    plathandle =
        OsSpawnLaunch(a_osspawn, {aoshandleTheirs[0].Get(), aoshandleTheirs[1].Get(), aoshandleTheirs[2].Get()},
                      &sharedptrChild->u64ProcessId);
    return plathandle == PLAT_INVALID ? nullptr : sharedptrChild;
}

EOSSTS COsThreadImpl::SpawnUntilItLives(const OsSpawn& a_osspawn, long a_lTries)
{
    const bool blWatched = (a_osspawn.u32Flags & OS_SPAWNFLAGS_CHECKSTART) != 0;
    do
    {
        Child child = LaunchChild(a_osspawn);
        if (!child)
            return EOSSTS_FAIL;
        const PlatHandle plathandle = child->sharedptrProcess->Get();
        if (!blWatched || SurvivesItsStart(plathandle, a_osspawn.szProgram))
        {
            TakeChild(std::move(child));
            return EOSSTS_SUCCESS;
        }
        PlatProcessTerminate(plathandle, g_u32EarlyDeathExitCode);
    } while (--a_lTries > 0);
    OSLOG(OS_LOG_ERROR, "Retry count exceeded...");
    return EOSSTS_FAIL;
}
