// os_cosservices.cpp: start and stop of the library.
#include "os_cosservices.h"

#include "os_cfg.h"
#include "os_cosarguments.h"
#include "os_cosmem.h"
#include "os_cossocket.h"
#include "os_costhread.h"
#include "os_new.h"

static constexpr char g_szSource[] = "os/source/os_cosservices";

static COsMem* g_poscosmem;

EOSSTS OsServicesStart()
{
    if (g_poscosmem)
        return EOSSTS_SUCCESS;
    g_poscosmem = OSMEMNEW(COsMem);
    if (!g_poscosmem)
        return EOSSTS_FAIL;
    OsThreadSetForcedAffinity(static_cast<uint64_t>(OsCfgGetLong(OS_CFGTAG_FORCETHREADAFFINITY)));
    return EOSSTS_SUCCESS;
}

void OsServicesStop()
{
    OSMEMDELETE(g_poscosmem);
    OsSocketCleanupStatic();
    OsArgumentsClear(OS_CLEARARGUMENTS_ENVIRONMENT);
}
