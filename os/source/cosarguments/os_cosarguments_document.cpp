// os_cosarguments_document.cpp: the document that children get: building it, changing it, putting it into the
// environment.
#include "os_cosarguments_impl.h"

#include "os_cfg.h"
#include "os_cosenv.h"
#include "os_cosmem.h"
#include "os_cosspinlock.h"
#include "os_cosstring.h"
#include "os_cosxml.h"
#include "os_log.h"
#include "os_scope.h"

#include "plat_thread.h"

#include <atomic>
#include <cstdlib>
#include <cstring>

static constexpr char g_szSource[] = "os/source/os_cosarguments";

// -------------------------------------------------------------------------------------------------------- change

void OsArgumentsReplace(const char* a_szElement, const char* a_szValue)
{
    OsXmlReplaceElement(g_osargumentstexts.szDocument, OS_ARGUMENTSSIZE, a_szElement, a_szValue);
}

void OsArgumentsUpdateCollector()
{
    const OsCollectorIdentity oscollectoridentity = OsArgumentsCollector();
    const auto replace = [](const char* a_szElement, int64_t a_i64Value) {
        char szValue[32];
        SStrPrintf(szValue, sizeof szValue, "%lld", static_cast<long long>(a_i64Value));
        OsArgumentsReplace(a_szElement, szValue);
    };
    replace("lcport", oscollectoridentity.i32Port);
    replace("lcpidapp", static_cast<int64_t>(oscollectoridentity.u64ProcessIdApplication));
    replace("lcpidlc", static_cast<int64_t>(oscollectoridentity.u64ProcessIdCollector));
}

// --------------------------------------------------------------------------------------------------------- build

static std::atomic<bool> g_blInherit{true};

void OsArgumentsSetInherit(bool a_blInherit)
{
    g_blInherit.store(a_blInherit, std::memory_order_relaxed);
    if (!a_blInherit)
        OsEnvDeletePrefix(OS_VARIABLE);
}

static const char* Configured(EOSCFGTAG a_eoscfgtag, const char* a_szElse)
{
    const char* const szValue = OsCfgGetString(a_eoscfgtag);
    return *szValue ? szValue : a_szElse;
}

// The configuration keeps the pointer. A value that it already has is skipped: it may lie in this very buffer.
static void Store(EOSCFGTAG a_eoscfgtag, char (&a_szKept)[OS_PATHSIZE], const char* a_szValue)
{
    if (!OsCfgExists() || !*a_szValue || !std::strcmp(a_szValue, OsCfgGetString(a_eoscfgtag)))
        return;
    SStrCpy(a_szKept, sizeof a_szKept, a_szValue);
    OsCfgSetString(a_eoscfgtag, a_szKept);
}

static int Write(const OsArgumentsBuildArgs& a_osargumentsbuildargs)
{
    char szModel[OS_PATHSIZE + 32] = "";
    if (*a_osargumentsbuildargs.szModelDirectory)
    {
        SStrPrintf(szModel, sizeof szModel, "\t<logmodel>%s</logmodel>\n",
                   Configured(OS_CFGTAG_MODELDIRECTORY, a_osargumentsbuildargs.szModelDirectory));
    }
    const OsCollectorIdentity oscollectoridentity = OsArgumentsCollector();
    return SStrPrintf(g_osargumentstexts.szDocument, OS_ARGUMENTSSIZE,
                      "<arguments>\n"
                      "\t<rootpath><![CDATA[%s]]></rootpath>\n"
                      "\t<legacyrootpath><![CDATA[%s]]></legacyrootpath>\n"
                      "\t<userrootpath><![CDATA[%s]]></userrootpath>\n"
                      "\t<logpath><![CDATA[%s]]></logpath>\n"
                      "%s"
                      "\t<loglevel>%d</loglevel>\n"
                      "\t<callersuniquename>%s</callersuniquename>\n"
                      "\t<overridefoldername>%s</overridefoldername>\n"
                      "\t<frominterfaceopen>%s</frominterfaceopen>\n"
                      "\t<forcesetaccess>false</forcesetaccess>\n"
                      "\t<app><![CDATA[%s]]></app>\n"
                      "\t<drvletidentity>%s</drvletidentity>\n"
                      "\t<lcport>%d</lcport>\n"
                      "\t<lcpidapp>%lld</lcpidapp>\n"
                      "\t<lcpidlc>%lld</lcpidlc>\n"
                      "</arguments>",
                      Configured(OS_CFGTAG_ROOTPATH, a_osargumentsbuildargs.szRootPath),
                      Configured(OS_CFGTAG_ROOTPATHLEGACY, a_osargumentsbuildargs.szLegacyRootPath),
                      Configured(OS_CFGTAG_ROOTPATHUSER, ""),
                      Configured(OS_CFGTAG_LOGDIRECTORY, a_osargumentsbuildargs.szLogDirectory), szModel,
                      static_cast<int>(OsLogWorkingWord()), OsArgumentsGet(OS_ARGUMENT_CALLERSUNIQUENAME),
                      OsArgumentsGet(OS_ARGUMENT_OVERRIDEFOLDER),
                      a_osargumentsbuildargs.blFromInterfaceOpen ? "true" : "false",
                      Configured(OS_CFGTAG_APPLICATION, ""), OsArgumentsGet(OS_ARGUMENT_DRVLETIDENTITY),
                      static_cast<int>(oscollectoridentity.i32Port),
                      static_cast<long long>(oscollectoridentity.u64ProcessIdApplication),
                      static_cast<long long>(oscollectoridentity.u64ProcessIdCollector));
}

EOSSTS OsArgumentsBuild(const OsArgumentsBuildArgs& a_osargumentsbuildargs)
{
    static char g_szLogDirectory[OS_PATHSIZE];
    static char g_szModelDirectory[OS_PATHSIZE];
    if (!g_blInherit.load(std::memory_order_relaxed))
        return EOSSTS_SUCCESS;
    Store(OS_CFGTAG_LOGDIRECTORY, g_szLogDirectory, a_osargumentsbuildargs.szLogDirectory);
    Store(OS_CFGTAG_MODELDIRECTORY, g_szModelDirectory, a_osargumentsbuildargs.szModelDirectory);
    if (a_osargumentsbuildargs.szLogLevel)
    {
        const long lLevel = std::strtol(a_osargumentsbuildargs.szLogLevel, nullptr, 0);
        OsLogSetWorkingWord(static_cast<uint32_t>(lLevel) | OsArgumentsDebugFlags());
    }
    return Write(a_osargumentsbuildargs) < 0 ? EOSSTS_NOMEMORY : EOSSTS_SUCCESS;
}

// ------------------------------------------------------------------------------------------------------- publish

static uint64_t g_u64ArgumentsLock;

// A document inherited from a process without a model gets this process's model.
static void InsertModel()
{
    static constexpr char g_szClose[] = "</logpath>";
    char(&szDocument)[OS_ARGUMENTSSIZE] = g_osargumentstexts.szDocument;
    const char* const szModel = OsArgumentsGet(OS_ARGUMENT_MODELDIRECTORY);
    if (!*szModel || std::strstr(szDocument, "<logmodel>"))
        return;
    char szElement[OS_PATHSIZE + 64];
    SStrPrintf(szElement, sizeof szElement, "%s\n\t<logmodel>%s</logmodel>", g_szClose, szModel);
    if (std::strlen(szDocument) + std::strlen(szElement) - std::strlen(g_szClose) >= sizeof szDocument)
    {
        OSLOG(OS_LOG_ERROR, "buffer overflow...<%s> %d <%s> <%s>", szDocument, static_cast<int>(sizeof szDocument),
              g_szClose, szElement);
        return;
    }
    SStrReplace(szDocument, sizeof szDocument, g_szClose, szElement, true);
}

static void TellPublished()
{
    if (OsLogWorkingWord() == 0)
        return;
    OSLOG(OS_LOG_NOTE, "MVR_OSSERVICESARGUMENTS set...<%s>", g_osargumentstexts.szDocument);
    OSLOG(OS_LOG_NOTE, "MVR_OSSERVICESOVERRIDE set...<%s>", g_osargumentstexts.szOverride);
}

static void SetVariables()
{
    const char* const szDocument = g_osargumentstexts.szDocument;
    char szEncoded[2 * OS_ARGUMENTSSIZE];
    size_t sizetEncoded = 0;
    if (!*szDocument || !g_blInherit.load(std::memory_order_relaxed) ||
        Base64Encode(szEncoded, sizeof szEncoded, &sizetEncoded, szDocument, std::strlen(szDocument), false) !=
            EOSSTS_SUCCESS)
        return;
    char szName[OS_VARIABLESIZE];
    OsArgumentsThreadVariable(OS_VARIABLEB64, szName);
    OsEnvSet(szName, szEncoded);
    OsEnvSet(OS_VARIABLEB64, szEncoded);
    OsEnvSet(OS_VARIABLE, szDocument);
}

static void Release()
{
    SpinLockRelease(&g_u64ArgumentsLock);
    PlatThreadDefer(false);
}

// A thread that holds the lock must not be terminated: it would stay locked.
void OsArgumentsPublish(bool a_blHold)
{
    if (!a_blHold)
    {
        Release();
        return;
    }
    PlatThreadDefer(true);
    SpinLockAcquire(&g_u64ArgumentsLock);
    ScopeGuard releaseOnException(Release);
    InsertModel();
    TellPublished();
    SetVariables();
    releaseOnException.Dismiss();
}

void OsArgumentsPublishNow()
{
    OsArgumentsPublish(true);
    OsArgumentsPublish(false);
}
