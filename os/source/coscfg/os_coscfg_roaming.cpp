// os_coscfg_roaming.cpp: which models' logs roam with the user, and the log paths of those models.
#include "os_coscfg_impl.h"

#include "os_cosarguments.h"
#include "os_cospath.h"
#include "os_cosspinlock.h"
#include "os_cosstring.h"
#include "os_log.h"

#include <cstring>

static constexpr char g_szSource[] = "os/source/os_coscfg";

// ------------------------------------------------------------------------------------------------- the models' flags

// Guarded by the lock.
static uint64_t g_u64ModelLock = 0;
static OsCfgModelFlag g_aoscfgmodelflag[OS_MODELFLAGS];
static size_t g_sizetModels = 0;

static OsCfgModelFlag* FindModel(const char* a_szModel)
{
    for (size_t sizet = 0; sizet < g_sizetModels; ++sizet)
    {
        if (StrICmp(g_aoscfgmodelflag[sizet].szModel, a_szModel) == 0)
            return &g_aoscfgmodelflag[sizet];
    }
    return nullptr;
}

bool OsCfgSetModelFlag(const char* a_szModel, bool a_blRoaming)
{
    OsCfgModelFlag oscfgmodelflag = {{}, a_blRoaming};
    SStrCpy(oscfgmodelflag.szModel, sizeof oscfgmodelflag.szModel, a_szModel);
    if (!*oscfgmodelflag.szModel)
        return false;
    const COsSpinGuard guard(&g_u64ModelLock);
    OsCfgModelFlag* poscfgmodelflag = FindModel(oscfgmodelflag.szModel);
    if (!poscfgmodelflag && g_sizetModels == OS_MODELFLAGS)
        return false;
    if (!poscfgmodelflag)
        poscfgmodelflag = &g_aoscfgmodelflag[g_sizetModels++];
    *poscfgmodelflag = oscfgmodelflag;
    return true;
}

bool OsCfgModelFlagAt(size_t a_sizetIndex, OsCfgModelFlag* a_poscfgmodelflag)
{
    const COsSpinGuard guard(&g_u64ModelLock);
    if (a_sizetIndex >= g_sizetModels)
        return false;
    *a_poscfgmodelflag = g_aoscfgmodelflag[a_sizetIndex];
    return true;
}

static bool IsRoaming(const char* a_szModel)
{
    const COsSpinGuard guard(&g_u64ModelLock);
    const OsCfgModelFlag* const poscfgmodelflag = FindModel(a_szModel);
    return poscfgmodelflag && poscfgmodelflag->blRoaming;
}

// ------------------------------------------------------------------------------------------------- the conversion

void OsCfgLocalLogPath(char* a_szPath, size_t a_sizetPath, const char* a_szModel)
{
    OSLOG(OS_LOG_NOTE, "LocalLogPath enter: <%s>", a_szPath);
    char szRoot[OS_PATHSIZE];
    char szRoaming[OS_PATHSIZE];
    OsCfgResolvePath(OS_PATH_WRITEABLE_FOLDER_ROOT, szRoot, sizeof szRoot);
    OsCfgResolvePath(OS_PATH_WRITEABLE_FOLDER_ROAMING, szRoaming, sizeof szRoaming);
    if (std::strcmp(szRoot, szRoaming) == 0)
    {
        OSLOG(OS_LOG_NOTE, "LocalLogPath exit:  local and roaming are the same");
        return;
    }
    const char* const szModel = a_szModel && *a_szModel ? a_szModel : OsArgumentsGet(OS_ARGUMENT_MODELDIRECTORY);
    if (!*szModel)
    {
        OSLOG(OS_LOG_NOTE, "LocalLogPath exit:  no modeldir");
        return;
    }

    OsPathNormalize(a_szPath);
    const bool blLocal = OsCfgPathLiesBelow(a_szPath, szRoot);
    if (!blLocal && !OsCfgPathLiesBelow(a_szPath, szRoaming))
    {
        OSLOG(OS_LOG_NOTE, "LocalLogPath exit:  not a local or roaming path");
        return;
    }
    if (blLocal && IsRoaming(szModel) && SStrReplace(a_szPath, a_sizetPath, szRoot, szRoaming, true) == EOSSTS_SUCCESS)
    {
        OSLOG(OS_LOG_NOTE, "LocalLogPath exit:  changed to roaming: <%s>", a_szPath);
        return;
    }
    OSLOG(OS_LOG_NOTE, "LocalLogPath exit:  no change");
}
