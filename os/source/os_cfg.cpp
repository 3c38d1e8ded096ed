// os_cfg.cpp: forwards reads to the installed configuration.
#include "os_cfg.h"

#include <cstdlib>

std::atomic<COsCfgSource*> g_poscfgsource{nullptr};
std::atomic<COsCfgService*> g_poscfgservice{nullptr};

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

void OsCfgSetString(EOSCFGTAG a_eoscfgtag, const char* a_szValue)
{
    if (COsCfgService* const poscfgservice = g_poscfgservice.load(std::memory_order_acquire))
        poscfgservice->SetString(OS_CFGSECTION_DSIDENTITY, a_eoscfgtag, a_szValue);
}

const char* OsCfgInfoGetString(EOSCFGINFO a_eoscfginfo)
{
    COsCfgSource* const poscfgsource = Source();
    return poscfgsource ? poscfgsource->InfoGetString(a_eoscfginfo) : "(nodata)";
}

int64_t OsCfgInfoGetLong(EOSCFGINFO a_eoscfginfo)
{
    COsCfgSource* const poscfgsource = Source();
    return poscfgsource ? poscfgsource->InfoGetLong(a_eoscfginfo) : 0;
}

std::atomic<OsCfgPathProc> g_poscfgpathproc{nullptr};

EOSSTS OsCfgGetPath(EOSPATH a_eospath, char* a_szPath, size_t a_sizetPath)
{
    if (COsCfgSource* const poscfgsource = Source())
        return poscfgsource->GetPath(a_eospath, a_szPath, a_sizetPath);
    if (const OsCfgPathProc poscfgpathproc = g_poscfgpathproc.load(std::memory_order_acquire))
        return poscfgpathproc(a_eospath, a_szPath, a_sizetPath);
    if (a_szPath && a_sizetPath)
        *a_szPath = 0;
    return EOSSTS_FAIL;
}

void OsCfgManageLogDirectories(const char* a_szLogFolder, const COsThread* a_posthread)
{
    if (COsCfgService* const poscfgservice = g_poscfgservice.load(std::memory_order_acquire))
        poscfgservice->ManageLogDirectories(a_szLogFolder, a_posthread);
}

std::atomic<OsCfgCommonProc> g_poscfgcommonproc{nullptr};

const char* OsCfgGetCommon(const char* a_szKey, const char* a_szDefault)
{
    const OsCfgCommonProc poscfgcommonproc = g_poscfgcommonproc.load(std::memory_order_acquire);
    return poscfgcommonproc ? poscfgcommonproc(a_szKey, a_szDefault) : a_szDefault;
}
