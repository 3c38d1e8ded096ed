// os_cosservices.cpp: start and stop of the library. The order is fixed, because later parts rely on earlier ones.
#include "os_cosservices.h"

#include "os_cfg.h"
#include "os_cosarguments.h"
#include "os_coscfg.h"
#include "os_coslog.h"
#include "os_coslogcollector.h"
#include "os_cosmem.h"
#include "os_cospath.h"
#include "os_cosservices_identity.h"
#include "os_cossocket.h"
#include "os_cosstring.h"
#include "os_costhread.h"
#include "os_new.h"
#include "os_scope.h"

#include "plat_process.h"
#include "plat_system.h"

static constexpr char g_szSource[] = "os/source/os_cosservices";

static constexpr char g_szDefaultDocument[] = "<arguments>\n"
                                              "\t<uniquename>logcollector</uniquename>\n"
                                              "\t<entity>application</entity>\n"
                                              "\t<loglevel>0</loglevel>\n"
                                              "</arguments>";

static const char* g_szDocument = g_szDefaultDocument;
static COsMem* g_poscosmem;
static COsLog* g_poscoslog;
static COsCfg* g_poscoscfg;

void OsServicesSetDocument(const char* a_szDocument)
{
    g_szDocument = a_szDocument ? a_szDocument : g_szDefaultDocument;
}

// ------------------------------------------------------------------------------------------- identity and document

// Builds the document of a model's utility that no process of the family has started.
static bool DeriveLogFolder(OsServicesIdentity& a_osservicesidentity)
{
    const char* const szModel = OsArgumentsGet(OS_ARGUMENT_LOGMODEL);
    char szFolder[OS_PATHSIZE] = "";
    OsCfgGetPath(OS_PATH_WRITEABLE_FOLDER_BRAND_LOCALORROAMING, szFolder, sizeof szFolder);
    if (!szFolder[0])
    {
        OsServicesTell("SetDirectories failed...");
        return false;
    }
    for (const char* const szPart : {*szModel ? szModel : a_osservicesidentity.szUniqueName, "isis", "log"})
        OsPathAppend(szFolder, sizeof szFolder, szPart);

    OsArgumentsBuildArgs osargumentsbuildargs;
    osargumentsbuildargs.szLogDirectory = szFolder;
    osargumentsbuildargs.szModelDirectory = szModel;
    osargumentsbuildargs.blFromInterfaceOpen = true;
    OsArgumentsBuild(osargumentsbuildargs);
    OsArgumentsPublishNow();

    OsServicesLogInto(szFolder, a_osservicesidentity);
    return true;
}

// True if there is an own or inherited document. After a stop its text is gone, but its values remain.
static bool HasDocument()
{
    return *OsArgumentsDocument() || *OsArgumentsGet(OS_ARGUMENT_LOGPATH);
}

// Utilities keep the inherited document; other kinds of process start without one.
static bool SettleDocument(OsServicesIdentity& a_osservicesidentity)
{
    switch (a_osservicesidentity.eoscfgentity)
    {
    case OS_CFGENTITY_APPLICATION:
    case OS_CFGENTITY_DRIVER:
    case OS_CFGENTITY_DLL:
        OsArgumentsClear(OS_CLEARARGUMENTS_DOCUMENT);
        return true;
    case OS_CFGENTITY_UTILITY:
    case OS_CFGENTITY_APPUTILITY:
        return HasDocument() || DeriveLogFolder(a_osservicesidentity);
    case OS_CFGENTITY_UNDEFINED:
        break;
    }
    OSLOG(OS_LOG_CHECK, "unrecognized m_eoscfgentity...%d", static_cast<int>(a_osservicesidentity.eoscfgentity));
    return true;
}

// --------------------------------------------------------------------------------------------- logger, configuration

static bool CreateLogger(const OsServicesIdentity& a_osservicesidentity)
{
    OsServicesAnswerHeader();
    COsLog::CreateArgs createargs;
    createargs.szUniqueName = a_osservicesidentity.szUniqueName;
    createargs.szLogFile = a_osservicesidentity.szLogFile;
    createargs.szFilter = a_osservicesidentity.szFilter;
    createargs.u32Flags = a_osservicesidentity.u32Level;
    g_poscoslog = OSMEMNEW(COsLog, createargs);
    return g_poscoslog && g_poscoslog->IsUsable();
}

static bool CreateConfiguration(const OsServicesIdentity& a_osservicesidentity, bool a_blManageLater)
{
    COsCfg::CreateArgs createargs;
    createargs.szUniqueName = a_osservicesidentity.szUniqueName;
    createargs.eoscfgentity = a_osservicesidentity.eoscfgentity;
    for (size_t sizet = 0; sizet < OS_CFGVERSIONS; ++sizet)
        createargs.aszVersion[sizet] = a_osservicesidentity.aszVersion[sizet];
    createargs.blForceSetAccess = a_osservicesidentity.blForceSetAccess;
    // An application is its own; other kinds of process work for the application that their document names.
    createargs.szProgram = OsArgumentsGet(OS_ARGUMENT_APPLICATION);
    if (!*createargs.szProgram && a_osservicesidentity.eoscfgentity != OS_CFGENTITY_APPLICATION)
        createargs.szProgram = OsArgumentsGet(OS_ARGUMENT_CALLERSAPPLICATION);
    createargs.blManageLater = a_blManageLater;
    g_poscoscfg = OSMEMNEW(COsCfg, createargs);
    return g_poscoscfg && g_poscoscfg->IsUsable();
}

static void TellDocument(const char* a_szFormat)
{
    if (g_poscoslog->WorkingWord() != 0)
        OSLOG(OS_LOG_NOTE, a_szFormat, OsArgumentsVariable(), OsArgumentsDocument());
}

static void TellConfiguration(const OsServicesIdentity& a_osservicesidentity)
{
    if (a_osservicesidentity.u32Level != 0 && OsCfgGetLong(OS_CFGTAG_DEBUG) == 0)
        g_poscoscfg->SetString(OS_CFGSECTION_DSIDENTITY, OS_CFGTAG_DEBUG, "1");
    if (g_poscoslog->WorkingWord() != 0 && OsLogGetState() != OS_LOGSTATE_OFF)
        g_poscoscfg->WriteReport();
    TellDocument("%s before...<%s>");
}

// Reports a missing log folder on standard error, as no log can. False when there is not even a path.
static bool CheckLogDirectory()
{
    const char* const szFolder = OsCfgGetString(OS_CFGTAG_LOGDIRECTORY);
    if (g_poscoscfg->HasLogDirectory() || OsLogGetState() == OS_LOGSTATE_OFF)
        return true;
    OsServicesTell("%s has no log: %s...<%s>", OsArgumentsGet(OS_ARGUMENT_UNIQUENAME),
                   *szFolder ? "its folder cannot be made" : "the user has no home, and MVR_LOGDIR names no folder",
                   szFolder);
    return *szFolder != 0;
}

// ---------------------------------------------------------------------------------------------- for child processes

static void BuildDocument(const OsServicesIdentity& a_osservicesidentity)
{
    char szFolder[OS_PATHSIZE];
    OsArgumentsBuildArgs osargumentsbuildargs;
    osargumentsbuildargs.szLogDirectory = OsCfgGetString(OS_CFGTAG_LOGDIRECTORY);
    osargumentsbuildargs.szLogLevel = OsCfgGetString(OS_CFGTAG_DEBUG);
    osargumentsbuildargs.szRootPath = OsCfgGetString(OS_CFGTAG_ROOTPATH);
    osargumentsbuildargs.szLegacyRootPath = OsCfgGetString(OS_CFGTAG_ROOTPATHLEGACY);
    if (a_osservicesidentity.eoscfgentity == OS_CFGENTITY_DRIVER || OsCfgIsUtility(a_osservicesidentity.eoscfgentity))
        osargumentsbuildargs.szModelDirectory = OsCfgGetString(OS_CFGTAG_MODELDIRECTORYREAL);
    if (OsCfgIsUtility(a_osservicesidentity.eoscfgentity))
    {
        if (!HasDocument())
            return;
        SStrCpy(szFolder, sizeof szFolder, a_osservicesidentity.szLogFile);
        OsPathFolder(szFolder);
        osargumentsbuildargs.szLogDirectory = szFolder;
        osargumentsbuildargs.blFromInterfaceOpen = true;
    }
    OsArgumentsBuild(osargumentsbuildargs);
    TellDocument("%s after...<%s>");
}

static void ForceThreadAffinity()
{
    const int64_t i64Affinity = OsCfgGetLong(OS_CFGTAG_FORCETHREADAFFINITY);
    OsThreadSetForcedAffinity(static_cast<uint64_t>(i64Affinity));
    if (i64Affinity == 0)
        return;
    OSLOG(OS_LOG_NOTE, "ForceThreadAffinity set to %d...", static_cast<int>(i64Affinity));
    if (PlatProcessorCount() >= 2)
        OsThreadApplyAffinity(static_cast<uint64_t>(i64Affinity));
}

// ---------------------------------------------------------------------------------------------------- start and stop

// The private collector ends with this process's stream: a later start launches a new one.
static void ForgetCollector()
{
    if (OsArgumentsCollector().u64ProcessIdApplication == PlatProcessId())
        OsArgumentsClear(OS_CLEARARGUMENTS_COLLECTOR);
}

// Stops whatever was started.
static void Stop()
{
    OSMEMDELETE(g_poscoscfg);
    OSMEMDELETE(g_poscosmem);
    OSMEMDELETE(g_poscoslog);
    OsSocketCleanupStatic();
    ForgetCollector();
    OsArgumentsClear(OS_CLEARARGUMENTS_DOCUMENT | OS_CLEARARGUMENTS_ENVIRONMENT);
}

EOSSTS OsServicesStart(bool a_blManageLater)
{
    if (g_poscosmem)
        return EOSSTS_SUCCESS;
    ScopeGuard stopOnFailure(Stop);
    OsCfgCommonInstall();
    OsArgumentsIntake();

    OsServicesIdentity osservicesidentity;
    if (!OsServicesIdentify(g_szDocument, osservicesidentity))
        return EOSSTS_FAIL;
    OsArgumentsSetInherit(osservicesidentity.blInherit);
    g_poscosmem = OSMEMNEW(COsMem);
    if (!g_poscosmem || !SettleDocument(osservicesidentity))
        return EOSSTS_FAIL;
    LogCollectorStartCollector();

    if (!CreateLogger(osservicesidentity) || !CreateConfiguration(osservicesidentity, a_blManageLater) ||
        !CheckLogDirectory())
        return EOSSTS_FAIL;
    LogCollectorTellProblem();
    TellConfiguration(osservicesidentity);
    BuildDocument(osservicesidentity);
    ForceThreadAffinity();
    stopOnFailure.Dismiss();
    return EOSSTS_SUCCESS;
}

void OsServicesManage()
{
    if (g_poscoscfg)
        g_poscoscfg->StartManagement();
}

void OsServicesStop()
{
    if (g_poscosmem)
        Stop();
}
