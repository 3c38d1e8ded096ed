// os_coscfg_user.cpp: the user that this process works for, determined once.
//
// In order: the kinds of process, the sources of a name, the choice among them.
#include "os_coscfg_impl.h"

#include "os_cosenv.h"
#include "os_cosfile.h"
#include "os_coslocale.h"
#include "os_cospath.h"
#include "os_cosstring.h"

#include "plat_process.h"
#include "plat_system.h"

#include <cstring>

namespace
{
struct UserName
{
    char szName[256] = {};
};
}   // namespace

bool OsCfgIsService()
{
    static const bool g_blService = [] {
        uint32_t u32Session = 1;
        return PlatProcessSession(PlatProcessId(), &u32Session) && u32Session == 0;
    }();
    return g_blService;
}

static bool HasModule(const char* a_szName)
{
    struct Search
    {
        const char* szName;
        bool blFound;
    } search = {a_szName, false};
    PlatModuleList(
        [](void* a_pvSearch, const PlatModule* a_pplatmodule) {
            Search& searchHere = *static_cast<Search*>(a_pvSearch);
            searchHere.blFound = !StrICmp(StrFileName(a_pplatmodule->szPath), searchHere.szName);
            return !searchHere.blFound;
        },
        &search);
    return search.blFound;
}

// True in the host process that the system starts for image acquisition, which loads this module.
static bool IsImageAcquisitionHost()
{
    return HasModule("wiaentry.dll");
}

// The service itself also has our module loaded, its certification test does not.
bool OsCfgIsCertificationHost()
{
    static const bool g_blCertificationHost = [] {
        return IsImageAcquisitionHost() && OsEnvGetNumber("MVR_FORCEWHQL", HasModule("wiawia.dll") ? 0 : 1) != 0;
    }();
    return g_blCertificationHost;
}

// The service's name, if this process is the service.
static bool ServiceUser(char* a_szName, size_t a_sizetName)
{
    char16_t wszProgram[PLAT_PATHMAX];
    char szProgram[PLAT_PATHMAX * 3];
    if (!PlatProgramPath(wszProgram, PLAT_PATHMAX) ||
        !CopyStringToUtf8(szProgram, sizeof szProgram, wszProgram, SIZE_MAX) ||
        !StrIstr(StrFileName(szProgram), "hvscannerservice"))
        return false;
    const char* const szService = OsCfgBrand("servicename");
    char16_t wszService[256];
    uint64_t u64ProcessId = 0;
    if (!*szService || !CopyStringFromUtf8(wszService, 256, szService) ||
        !PlatServiceProcess(wszService, &u64ProcessId) || u64ProcessId != PlatProcessId())
        return false;
    SStrCpy(a_szName, a_sizetName, szService);
    return *a_szName != 0;
}

// The name becomes a component of paths, so it must not contain separators.
bool OsCfgLastUser(char* a_szName, size_t a_sizetName)
{
    *a_szName = 0;
    char szPath[OS_PATHSIZE];
    if (OsCfgResolvePath(OS_PATH_WRITEABLE_FOLDER_BRAND_LEGACY, szPath, sizeof szPath) != EOSSTS_SUCCESS)
        return false;
    OsPathAppend(szPath, sizeof szPath, "common");
    OsPathAppend(szPath, sizeof szPath, "lastuser.txt");

    char szText[256] = {};
    size_t sizetRead = 0;
    OsFileReadArgs osfilereadargs;
    osfilereadargs.szFilename = szPath;
    osfilereadargs.szBuffer = szText;
    osfilereadargs.sizetBuffer = sizeof szText - 1;
    osfilereadargs.psizetRead = &sizetRead;
    osfilereadargs.blQuiet = true;
    if (OsFileReadFile(osfilereadargs) != EOSSTS_SUCCESS || sizetRead == osfilereadargs.sizetBuffer)
        return false;
    SStrTrim(a_szName, a_sizetName, szText);
    if (std::strpbrk(a_szName, "/\\\r\n") || !std::strcmp(a_szName, ".") || !std::strcmp(a_szName, ".."))
        *a_szName = 0;
    return *a_szName != 0;
}

static bool Account(PlatUser a_platuser, char* a_szName, size_t a_sizetName)
{
    char16_t wszName[256];
    return PlatUserName(a_platuser, wszName, 256) && CopyStringToUtf8(a_szName, a_sizetName, wszName, SIZE_MAX) != 0;
}

static bool InteractiveUser(char* a_szName, size_t a_sizetName)
{
    const bool blService = OsCfgIsService();
    if (blService && OsCfgLastUser(a_szName, a_sizetName))
        return true;
    const bool blSession = !blService && std::strcmp(OsCfgCommonGet("UseSessionName", "1"), "0") != 0;
    return (blSession && Account(PLAT_USER_SESSION, a_szName, a_sizetName)) ||
           Account(PLAT_USER_ACCOUNT, a_szName, a_sizetName) || Account(PLAT_USER_FIRST, a_szName, a_sizetName);
}

static void FindUser(char* a_szName, size_t a_sizetName)
{
    if (IsImageAcquisitionHost())
    {
        SStrCpy(a_szName, a_sizetName, "WIA");
        return;
    }
    if (!ServiceUser(a_szName, a_sizetName) && !InteractiveUser(a_szName, a_sizetName))
        SStrCpy(a_szName, a_sizetName, "(nodata)");
}

const char* OsCfgUserName()
{
    static std::atomic<const UserName*> g_pusername;
    return OsCfgPublished(g_pusername,
                          [] {
                              auto username = std::make_unique<UserName>();
                              FindUser(username->szName, sizeof username->szName);
                              return username;
                          })
        ->szName;
}
