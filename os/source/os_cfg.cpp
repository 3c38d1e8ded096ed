// os_cfg.cpp: the reads hand over to whatever configuration is installed.
#include "os_cfg.h"

#include <cstdlib>

std::atomic<COsCfgSource*> g_poscfgsource{nullptr};

static COsCfgSource* Source()
{
    return g_poscfgsource.load(std::memory_order_acquire);
}

const char* OsCfgGetString(EOSCFGTAG a_eoscfgtag)
{
    COsCfgSource* const poscfgsource = Source();
    return poscfgsource ? poscfgsource->GetString(OS_CFGSECTION_DSIDENTITY, a_eoscfgtag) : "";
}

long OsCfgGetLong(EOSCFGTAG a_eoscfgtag)
{
    return std::strtol(OsCfgGetString(a_eoscfgtag), nullptr, 0);
}

EOSSTS OsCfgGetInfo(EOSCFGINFO a_eoscfginfo, int64_t* a_pi64Value)
{
    COsCfgSource* const poscfgsource = Source();
    return poscfgsource ? poscfgsource->GetInfo(a_eoscfginfo, a_pi64Value) : EOSSTS_FAIL;
}

void OsCfgManageLogDirectories(const char* a_szLogFolder)
{
    if (COsCfgSource* const poscfgsource = Source())
        poscfgsource->ManageLogDirectories(a_szLogFolder);
}
