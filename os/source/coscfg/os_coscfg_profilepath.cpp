// os_coscfg_profilepath.cpp: maps a profile request to a file. From top to bottom: the layout and the redirects, the
// protected name of a profile, the resolution of a request.
//
// In the protected layout the installed files are read-only, and diagnostics have their own files in a writeable
// folder.
#include "os_coscfg_impl.h"

#include "os_cosarguments.h"
#include "os_cosenv.h"
#include "os_cosfile_system.h"
#include "os_cospath.h"
#include "os_cossocket.h"
#include "os_cosstring.h"
#include "os_log.h"

#include <cstring>
#include <new>

static constexpr char g_szSource[] = "os/source/os_coscfg";

namespace
{
constexpr char g_szConstEnd[] = "_const.ini";
constexpr char g_szDebugEnd[] = "_debug.ini";

// ------------------------------------------------------------------------------------------- the layout, the redirects

bool IsProtected()
{
    return OsCfgCommonIsYes("UseProtectedConstIni", "yes");
}

bool UsesDebugIni()
{
    return OsCfgCommonIsYes("UseDebugIni", "yes");
}

// Files that replace all protected profiles, and all their companions.
struct Redirects
{
    char szConst[OS_PATHSIZE] = {};
    char szDebug[OS_PATHSIZE] = {};
};

void ReadRedirect(const char* a_szVariable, char (&a_szPath)[OS_PATHSIZE])
{
    OsEnvGet(a_szVariable, "", sizeof a_szPath, a_szPath);
    OsPathNormalize(a_szPath);
}

std::unique_ptr<const Redirects> ReadRedirects()
{
    std::unique_ptr<Redirects> redirects(new (std::nothrow) Redirects);
    if (!redirects)
        return nullptr;
    ReadRedirect("MVR_CONSTINI", redirects->szConst);
    ReadRedirect("MVR_DEBUGINI", redirects->szDebug);
    return redirects;
}

void TellRedirects(const Redirects& a_redirects)
{
    if (a_redirects.szConst[0])
        OSLOG(OS_LOG_NOTE, "const redirect=<%s>", a_redirects.szConst);
    if (a_redirects.szDebug[0])
        OSLOG(OS_LOG_NOTE, "debug redirect=<%s>", a_redirects.szDebug);
}

// Null when there is no memory.
const Redirects* RedirectsOfProcess()
{
    static std::atomic<const Redirects*> g_predirects{nullptr};
    return OsCfgPublished(g_predirects, ReadRedirects, TellRedirects);
}

// The redirect for a file name, null if there is none.
const char* RedirectOf(const char* a_szFile)
{
    const Redirects* const predirects = RedirectsOfProcess();
    const char* szRedirect = "";
    if (predirects && StrEndsWith(a_szFile, g_szConstEnd, true))
    {
        szRedirect = predirects->szConst;
    }
    else if (predirects && StrEndsWith(a_szFile, g_szDebugEnd, true))
    {
        szRedirect = predirects->szDebug;
    }
    return *szRedirect && OsFileExists(szRedirect) && OsIsInHouseMachine() ? szRedirect : nullptr;
}

// ------------------------------------------------------------------------------------------------ the protected name

// A profile below a folder of the brand belongs to a module, except for logs and protected profiles.
bool IsMapped(const char* a_szFile)
{
    return IsProtected() && !StrEndsWith(a_szFile, g_szConstEnd, true) && !StrEndsWith(a_szFile, g_szDebugEnd, true) &&
           !StrIstr(a_szFile, "\\log.") && StrIstr(a_szFile, OsCfgBrandFolder());
}

void RemoveBrandFolders(char (&a_szPath)[OS_PATHSIZE])
{
    for (const EOSPATH eospath : {OS_PATH_WRITEABLE_FOLDER_BRAND_LEGACY, OS_PATH_WRITEABLE_FOLDER_BRAND_USER,
                                  OS_PATH_WRITEABLE_FOLDER_BRAND_SHARED})
    {
        char szFolder[OS_PATHSIZE];
        if (OsCfgResolvePath(eospath, szFolder, sizeof szFolder) == EOSSTS_SUCCESS && szFolder[0])
            SStrReplace(a_szPath, sizeof a_szPath, szFolder, "", true);
    }
}

// Copies the first component; false if there is none.
bool FirstComponent(const char* a_szPath, char (&a_szComponent)[OS_PATHSIZE])
{
    const char* const szFirst = a_szPath + std::strspn(a_szPath, "\\");
    const size_t sizetLength = std::strcspn(szFirst, "\\");
    std::memcpy(a_szComponent, szFirst, sizetLength);
    a_szComponent[sizetLength] = 0;
    return sizetLength > 0;
}

// -------------------------------------------------------------------------------------------------------- the request

bool IsDiagnostic(const char* a_szSection, const char* a_szKey)
{
    return StrIstr(a_szSection, "simulation") || StrIstr(a_szSection, "images") || StrIStartsWith(a_szSection, "dbg") ||
           (StrIstr(a_szSection, "dsidentity") && StrIStartsWith(a_szKey, "debug"));
}

// The folder of the diagnostic files (created if missing) or of the protected files. Empty if there is none.
void FindFolder(bool a_blDiagnostic, const char* a_szSection, char (&a_szFolder)[OS_PATHSIZE])
{
    EOSPATH eospath = OS_PATH_READABLE_FOLDER_BRAND;
    if (a_blDiagnostic)
    {
        eospath = StrIStartsWith(a_szSection, "wia.") ? OS_PATH_WRITEABLE_FOLDER_BRAND_LEGACY
                                                      : OS_PATH_WRITEABLE_FOLDER_BRAND_LOCALORROAMING;
    }
    if (OsCfgResolvePath(eospath, a_szFolder, sizeof a_szFolder) != EOSSTS_SUCCESS || !a_szFolder[0])
    {
        a_szFolder[0] = 0;
        return;
    }
    OsPathAppend(a_szFolder, sizeof a_szFolder, "common");
    OsPathAppend(a_szFolder, sizeof a_szFolder, a_blDiagnostic ? "debug" : "const");
    if (a_blDiagnostic && a_szFolder[0] && !OsFileExists(a_szFolder))
        OsFileCreateDirectory(a_szFolder);
}

// Profiles of a module are named after it; the module is this program unless the section names another.
void NameOfModule(bool a_blDiagnostic, const char* a_szSection, char (&a_szName)[OS_PATHSIZE])
{
    const char* szModule = OsArgumentsGet(OS_ARGUMENT_UNIQUENAME);
    if (StrIStartsWith(a_szSection, "drvlettst."))
    {
        szModule = "drvlettst";
    }
    else if (StrIStartsWith(a_szSection, "hvcfgmgr."))
    {
        szModule = "hvcfgmgr";
    }
    SStrPrintf(a_szName, sizeof a_szName, "%s%s", szModule, a_blDiagnostic ? g_szDebugEnd : g_szConstEnd);
}

// Replaces a_szPath by the path that serves the request in the protected layout.
void ServeProtected(const char* a_szSection, const char* a_szKey, char (&a_szPath)[OS_PATHSIZE])
{
    const bool blConstIni = StrICmp(StrFileName(a_szPath), "const.ini") == 0;
    const bool blDiagnostic = IsDiagnostic(a_szSection, a_szKey);
    if (!blConstIni && !blDiagnostic)
        return;

    char szName[OS_PATHSIZE];
    if (blConstIni)
    {
        NameOfModule(blDiagnostic, a_szSection, szName);
    }
    else
    {
        SStrCpy(szName, sizeof szName, StrFileName(a_szPath));
        SStrReplace(szName, sizeof szName, g_szConstEnd, g_szDebugEnd, true);   // also before a ".txt"
    }

    FindFolder(blDiagnostic, a_szSection, a_szPath);
    if (a_szPath[0])
        OsPathAppend(a_szPath, sizeof a_szPath, szName);
}
}   // namespace

EOSSTS OsCfgProfileMap(const char* a_szFile, bool a_blDebug, char* a_szMapped, size_t a_sizetMapped)
{
    char szPath[OS_PATHSIZE];
    *a_szMapped = 0;
    if (std::strlen(a_szFile) >= sizeof szPath)
    {
        OSLOG(OS_LOG_ERROR, "buffer overflow...<%s> %d <%s> <%s>", "profile", static_cast<int>(sizeof szPath), a_szFile,
              "");
        return EOSSTS_FAIL;
    }
    OsPathCopy(szPath, sizeof szPath, a_szFile);
    if (!IsMapped(szPath))
    {
        SStrCpy(a_szMapped, a_sizetMapped, a_szFile);
        return *a_szMapped ? EOSSTS_SUCCESS : EOSSTS_FAIL;
    }

    RemoveBrandFolders(szPath);
    char szComponent[OS_PATHSIZE];
    if (!FirstComponent(szPath, szComponent))
    {
        OSLOG(OS_LOG_ERROR, "tokenizing failed...");
        return EOSSTS_FAIL;
    }
    const bool blDebug = a_blDebug && UsesDebugIni();
    if (OsCfgResolvePath(blDebug ? OS_PATH_WRITEABLE_FILE_UNPROTECTED_DEBUGINI : OS_PATH_READABLE_FILE_COMMON_CONSTINI,
                         szPath, sizeof szPath) != EOSSTS_SUCCESS)
        return EOSSTS_FAIL;
    SStrReplace(szPath, sizeof szPath, ".ini", "", true);
    OsPathAppend(szPath, sizeof szPath, szComponent);
    if (szPath[0])
        SStrCat(szPath, sizeof szPath, blDebug ? g_szDebugEnd : g_szConstEnd);
    SStrCpy(a_szMapped, a_sizetMapped, szPath);
    return *a_szMapped ? EOSSTS_SUCCESS : EOSSTS_FAIL;
}

EOSSTS OsCfgProfileResolve(const char* a_szFile, const char* a_szSection, const char* a_szKey, char* a_szResolved,
                           size_t a_sizetResolved)
{
    char szPath[OS_PATHSIZE];
    OsPathCopy(szPath, sizeof szPath, a_szFile);
    if (const char* const szRedirect = RedirectOf(szPath))
    {
        SStrCpy(szPath, sizeof szPath, szRedirect);
    }
    else if (szPath[0] && IsProtected() && UsesDebugIni())
    {
        ServeProtected(a_szSection, a_szKey, szPath);
    }
    SStrCpy(a_szResolved, a_sizetResolved, szPath);
    return *a_szResolved ? EOSSTS_SUCCESS : EOSSTS_FAIL;
}
