// logcollector.cpp: the entry of the collector program and its run modes.
//
// In collect mode it is started by an application with that application's process id, receives the log streams of its
// processes, and ends when the application has ended or the collector requests it. In clean mode it removes expired log
// folders. The exit code is always 0.
#include "logcollector_args.h"
#include "logcollector_clean.h"

#include "os_cfg.h"
#include "os_cosarguments.h"
#include "os_cosenv.h"
#include "os_cosfile_system.h"
#include "os_coslogcollector.h"
#include "os_cosservices.h"
#include "os_cosstring.h"
#include "os_log.h"
#include "os_scope.h"

#include "plat_process.h"
#include "plat_wait.h"

static constexpr uint32_t g_u32WatchPeriod = 1000;
static constexpr uint32_t g_u32SettleStep = 50;
static constexpr uint32_t g_u32SettleSteps = 100;

// The program's own logging is off unless requested.
static void ChooseOwnLogging()
{
    char szState[16];
    if (OsEnvGet("MVR_LOGCOLLECTORDEBUG", "99", sizeof szState, szState) != EOSSTS_SUCCESS)
        SStrCpy(szState, sizeof szState, "99");
    OsLogSetState(StrToInt32(szState));
}

// -------------------------------------------------------------------------------------------------- collecting

static bool StopIsAsked()
{
    return g_bLogCollectorStop.load() != 0;
}

// Returns when the application has ended or the collector requests the end. A process that cannot be opened counts as
// ended; the handle stays open, so that a lack of descriptors cannot look like that.
static void WatchApplication(PlatHandle a_plathandle)
{
    while (a_plathandle != PLAT_INVALID && !StopIsAsked() &&
           PlatWaitAny(&a_plathandle, 1, g_u32WatchPeriod) == PLAT_WAIT_TIMEOUT)
    {
    }
}

// The application has ended: waits until its streams have delivered the data in flight and ended.
static void LetReadersSettle()
{
    for (uint32_t u32Step = 0; u32Step < g_u32SettleSteps && !StopIsAsked(); ++u32Step)
        PlatSleep(g_u32SettleStep);
}

// a_szFolder (OS_PATHSIZE bytes) receives the log folder that the streams used.
static void RunCollect(const LogCollectorArgs& a_logcollectorargs, char* a_szFolder)
{
    if (!a_logcollectorargs.szDocument[0] || a_logcollectorargs.i64ProcessIdApplication == 0)
        return;
    COsLogCollector oslogcollector(a_logcollectorargs.collectormode, nullptr);
    if (!oslogcollector.IsUsable())
        return;
    const auto u64Application = static_cast<uint64_t>(a_logcollectorargs.i64ProcessIdApplication);
    const PlatHandle plathandle = PlatProcessOpen(u64Application);
    const ScopeGuard close([plathandle] {
        if (plathandle != PLAT_INVALID)
            PlatClose(plathandle);
    });
    oslogcollector.SetApplication(u64Application);
    oslogcollector.Start(nullptr, false);
    OsServicesManage();
    WatchApplication(plathandle);
    LetReadersSettle();
    oslogcollector.Stop(a_szFolder, OS_PATHSIZE);
}

// A collector that logs nothing itself leaves no log folder behind.
static void StopServices()
{
    char szOwnFolder[OS_PATHSIZE] = {};
    SStrCpy(szOwnFolder, sizeof szOwnFolder, OsCfgGetString(OS_CFGTAG_LOGDIRECTORY));
    OsServicesStop();
    if (szOwnFolder[0] && OsFileExists(szOwnFolder))
        OsFileRemoveEmptyTree(szOwnFolder);
}

// ------------------------------------------------------------------------------------------------------- entry

int main(int a_iArguments, char** a_aszArgument)
{
    char szLeftoverFolder[OS_PATHSIZE] = {};
    LogCollectorArgs logcollectorargs;

    ChooseOwnLogging();
    OsArgumentsClear(OS_CLEARARGUMENTS_ENVIRONMENT);
    OsServicesStart(true);
    const RunMode runmode = LogCollectorParse(a_iArguments, a_aszArgument, logcollectorargs);
    if (runmode == RunMode::Collect)
        RunCollect(logcollectorargs, szLeftoverFolder);
    if (runmode == RunMode::Clean)
        LogCollectorClean(logcollectorargs.i32HoursToKeep, logcollectorargs.szSubfolder);
    if (szLeftoverFolder[0] && OsFileExists(szLeftoverFolder))
        OsFileRemoveEmptyTree(szLeftoverFolder);
    StopServices();
    return 0;
}
