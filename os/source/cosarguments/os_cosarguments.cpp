// os_cosarguments.cpp: the process-wide values beside the document, and clearing. os_cosarguments_intake.cpp reads the
// inherited environment, os_cosarguments_document.cpp writes the environment of children.
#include "os_cosarguments_impl.h"

#include "os_cosenv.h"
#include "os_coslocale.h"
#include "os_cosspinlock.h"
#include "os_cosstring.h"
#include "os_log.h"

#include "plat_process.h"
#include "plat_system.h"
#include "plat_thread.h"

#include <atomic>
#include <cstring>

// ------------------------------------------------------------------------------------------- process-wide values

OsArgumentsTexts g_osargumentstexts;

static uint64_t g_u64Lock;   // guards the collector's identity
static OsCollectorIdentity g_oscollectoridentity;
static std::atomic<bool> g_blServicesOwner{false};
static char g_aszArgument[OS_ARGUMENT_LAST][OS_PATHSIZE];

const char* OsArgumentsDocument()
{
    return g_osargumentstexts.szDocument;
}

const char* OsArgumentsVariable()
{
    return g_osargumentstexts.szVariable;
}

OsCollectorIdentity OsArgumentsCollector()
{
    const COsSpinGuard guard(&g_u64Lock);
    return g_oscollectoridentity;
}

void OsArgumentsSetCollector(const OsCollectorIdentity& a_oscollectoridentity)
{
    const COsSpinGuard guard(&g_u64Lock);
    g_oscollectoridentity = a_oscollectoridentity;
}

bool OsArgumentsIsServicesOwner()
{
    return g_blServicesOwner.load(std::memory_order_relaxed);
}

void OsArgumentsSetServicesOwner(bool a_blOwner)
{
    g_blServicesOwner.store(a_blOwner, std::memory_order_relaxed);
}

const char* OsArgumentsGet(EOSARGUMENT a_eosargument)
{
    return a_eosargument < OS_ARGUMENT_LAST ? g_aszArgument[a_eosargument] : "";
}

void OsArgumentsSet(EOSARGUMENT a_eosargument, const char* a_szValue)
{
    if (a_eosargument < OS_ARGUMENT_LAST)
        SStrCpy(g_aszArgument[a_eosargument], OS_PATHSIZE, a_szValue);
}

// -------------------------------------------------------------------------------------------------------- clear

void OsArgumentsThreadVariable(const char* a_szFamily, char (&a_szName)[OS_VARIABLESIZE])
{
    SStrPrintf(a_szName, sizeof a_szName, "%s_%llx_%llx", a_szFamily, static_cast<unsigned long long>(PlatProcessId()),
               static_cast<unsigned long long>(PlatThreadId()));
}

static constexpr const char* g_aszFamily[] = {OS_VARIABLE, OS_VARIABLEUNICODE, OS_VARIABLEB64};

void OsArgumentsClearThread()
{
    for (const char* szFamily : g_aszFamily)
    {
        char szName[OS_VARIABLESIZE];
        OsArgumentsThreadVariable(szFamily, szName);
        OsEnvSet(szName, nullptr);
    }
}

static void ClearGeneral()
{
    for (const char* szFamily : g_aszFamily)
        OsEnvSet(szFamily, nullptr);
}

static void ClearEnvironment()
{
    // Settings of other components that run in the same applications.
    static constexpr const char* g_aszOther[] = {"OTTER_LOGDEBUG", "OTTER_LOGPATH",      "MVR_APPPROTOCOL",
                                                 "MVR_FIRMWARE",   "MVR_UIRESOURCEFILE", "MVR_UISOCKETUNICODE",
                                                 "UI_TIMEOUT"};
    OsEnvDeletePrefix(OS_VARIABLE);
    for (const char* szName : g_aszOther)
        OsEnvSet(szName, nullptr);
}

void OsArgumentsClear(uint32_t a_u32Bits)
{
    if (a_u32Bits & OS_CLEARARGUMENTS_DOCUMENT)
        g_osargumentstexts.szDocument[0] = 0;
    if (a_u32Bits & OS_CLEARARGUMENTS_THREAD)
    {
        OsArgumentsClearThread();
        if (OsArgumentsIsServicesOwner() || (a_u32Bits & OS_CLEARARGUMENTS_GENERAL))
            ClearGeneral();
    }
    if (a_u32Bits & OS_CLEARARGUMENTS_ENVIRONMENT)
        ClearEnvironment();
    if (a_u32Bits & OS_CLEARARGUMENTS_COLLECTOR)
    {
        OsArgumentsSetCollector({});
        OsArgumentsUpdateCollector();
    }
}

uint32_t OsArgumentsDebugFlags()
{
    return OsLogGetState() == OS_LOGSTATE_OFF ? 0 : static_cast<uint32_t>(OsEnvGetNumber("MVR_DEBUG", 0));
}

// ------------------------------------------------------------------------------------------ the files of the process

void OsArgumentsProgramPath(char* a_szPath)
{
    char16_t wszPath[PLAT_PATHMAX];
    *a_szPath = 0;
    if (PlatProgramPath(wszPath, PLAT_PATHMAX))
        CopyStringToUtf8(a_szPath, OS_PATHSIZE, wszPath, SIZE_MAX);
}

static bool FindOwnModule(void* a_pvPath, const PlatModule* a_pplatmodule)
{
    const uint64_t u64Address = reinterpret_cast<uint64_t>(&g_osargumentstexts);
    if (u64Address - a_pplatmodule->u64Address >= a_pplatmodule->u64Size)
        return true;
    SStrCpy(static_cast<char*>(a_pvPath), OS_PATHSIZE, a_pplatmodule->szPath);
    return false;
}

void OsArgumentsModulePath(char* a_szPath)
{
    *a_szPath = 0;
    PlatModuleList(FindOwnModule, a_szPath);
    if (!*a_szPath)
        OsArgumentsProgramPath(a_szPath);
}

void OsArgumentsModuleName(char* a_szName, size_t a_sizetName)
{
    char szModule[OS_PATHSIZE];
    OsArgumentsModulePath(szModule);
    char szName[OS_PATHSIZE];
    SStrCpy(szName, sizeof szName, StrFileName(szModule));
    StrLower(szName);
    if (char* const szWia = std::strstr(szName, "wia.dll"); szWia && szWia != szName)
        *szWia = 0;
    szName[std::strcspn(szName, ".")] = 0;
    SStrCpy(a_szName, a_sizetName, szName);
}
