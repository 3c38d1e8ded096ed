// os_cosarguments.cpp: the environment carriers of the arguments, and the process-wide values beside them.
#include "os_cosarguments.h"

#include "os_cosenv.h"
#include "os_cosspinlock.h"
#include "os_cosstring.h"

#include <atomic>

// ------------------------------------------------------------------------------------------------------- clear

void OsArgumentsClear(uint32_t a_u32Bits)
{
    // Settings of other components that run inside the same applications.
    static constexpr const char* g_aszOther[] = {"OTTER_LOGDEBUG", "OTTER_LOGPATH",      "MVR_APPPROTOCOL",
                                                 "MVR_FIRMWARE",   "MVR_UIRESOURCEFILE", "MVR_UISOCKETUNICODE",
                                                 "UI_TIMEOUT"};
    if ((a_u32Bits & OS_CLEARARGUMENTS_ENVIRONMENT) == 0)
        return;
    OsEnvDeletePrefix("MVR_OSSERVICESARGUMENTS");
    for (const char* szName : g_aszOther)
        OsEnvSet(szName, nullptr);
}

// --------------------------------------------------------------------------------------- process-wide values

static uint64_t g_u64Lock;
static OsCollectorIdentity g_oscollectoridentity;
static std::atomic<bool> g_blServicesOwner{false};

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

static char g_aszArgument[OS_ARGUMENT_LAST][OS_PATHSIZE];

const char* OsArgumentsGet(EOSARGUMENT a_eosargument)
{
    return a_eosargument < OS_ARGUMENT_LAST ? g_aszArgument[a_eosargument] : "";
}

void OsArgumentsSet(EOSARGUMENT a_eosargument, const char* a_szValue)
{
    if (a_eosargument < OS_ARGUMENT_LAST)
        SStrCpy(g_aszArgument[a_eosargument], OS_PATHSIZE, a_szValue);
}
