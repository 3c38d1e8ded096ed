// os_coscfg_paths.cpp: path identifiers and special folders.
//
// In order: the special folders, components of paths, the writeable and readable paths that build on them, the INI
// files, the table of all identifiers, the resolver with its cache. Internally a path is a buffer of OS_PATHSIZE bytes,
// and an empty path means failure.
#include "os_coscfg_impl.h"

#include "os_cosarguments.h"
#include "os_cosenv.h"
#include "os_cosfile.h"
#include "os_cosfile_system.h"
#include "os_coslocale.h"
#include "os_cospath.h"
#include "os_cosspinlock.h"
#include "os_cosstring.h"
#include "os_log.h"

#include "plat_process.h"
#include "plat_system.h"

#include <algorithm>
#include <array>
#include <cstring>

static constexpr char g_szSource[] = "os/source/os_coscfg";

// ------------------------------------------------------------------------------------------------- special folders

namespace
{
struct SpecialFolderRow
{
    const char* szPathName;
    PlatFolder platfolder;
    PlatFolder platfolderRoaming;   // used instead when roaming folders are enabled
};

// By number, from 1. The default user's folders are the current user's: this system has no other.
constexpr SpecialFolderRow g_aspecialfolderrow[] = {
    {"OS_PATH_SPECIALFOLDER_CURRENTUSER_APPDATA", PLAT_FOLDER_LOCAL, PLAT_FOLDER_ROAMING},
    {"OS_PATH_SPECIALFOLDER_CURRENTUSER_LOCALAPPDATA", PLAT_FOLDER_LOCAL, PLAT_FOLDER_LOCAL},
    {"OS_PATH_SPECIALFOLDER_CURRENTUSER_ROAMINGAPPDATA", PLAT_FOLDER_ROAMING, PLAT_FOLDER_ROAMING},
    {"OS_PATH_SPECIALFOLDER_CURRENTUSER_DESKTOP", PLAT_FOLDER_DESKTOP, PLAT_FOLDER_DESKTOP},
    {"OS_PATH_SPECIALFOLDER_CURRENTUSER_PROFILE", PLAT_FOLDER_PROFILE, PLAT_FOLDER_PROFILE},
    {"OS_PATH_SPECIALFOLDER_DEFAULTUSER_APPDATA", PLAT_FOLDER_LOCAL, PLAT_FOLDER_ROAMING},
    {"OS_PATH_SPECIALFOLDER_DEFAULTUSER_DESKTOP", PLAT_FOLDER_DESKTOP, PLAT_FOLDER_DESKTOP},
    {"OS_PATH_SPECIALFOLDER_DEFAULTUSER_PROFILE", PLAT_FOLDER_PROFILE, PLAT_FOLDER_PROFILE},
    {"OS_PATH_SPECIALFOLDER_PROGRAMDATA", PLAT_FOLDER_PROGRAM, PLAT_FOLDER_PROGRAM},
    {"OS_PATH_SPECIALFOLDER_PROGRAMFILES", PLAT_FOLDER_PROGRAMS, PLAT_FOLDER_PROGRAMS},
    {"OS_PATH_SPECIALFOLDER_PROGRAMFILESX86", PLAT_FOLDER_PROGRAMS, PLAT_FOLDER_PROGRAMS},
    {"OS_PATH_SPECIALFOLDER_WINDOWS", PLAT_FOLDER_WINDOWS, PLAT_FOLDER_WINDOWS},
    {"OS_PATH_SPECIALFOLDER_SYSTEM", PLAT_FOLDER_SYSTEM, PLAT_FOLDER_SYSTEM},
    {"OS_PATH_SPECIALFOLDER_SYSTEM2", PLAT_FOLDER_SYSTEM, PLAT_FOLDER_SYSTEM},
    {"OS_PATH_SPECIALFOLDER_STARTMENUPROGRAMS", PLAT_FOLDER_STARTMENU, PLAT_FOLDER_STARTMENU},
    {"OS_PATH_SPECIALFOLDER_MYPICTURES", PLAT_FOLDER_PICTURES, PLAT_FOLDER_PICTURES},
    {"OS_PATH_SPECIALFOLDER_MYDOCUMENTS", PLAT_FOLDER_DOCUMENTS, PLAT_FOLDER_DOCUMENTS},
};
static_assert(std::size(g_aspecialfolderrow) == OS_SPECIALFOLDER_MYDOCUMENTS);
static_assert(OS_PATH_SPECIALFOLDER_CURRENTUSER_APPDATA + std::size(g_aspecialfolderrow) == OS_PATH_LAST);

bool UsesRoaming()
{
    return StrICmp(OsCfgCommonGet("UseLocalOrRoaming", "local"), "roaming") == 0;
}
}   // namespace

EOSSTS OsCfgSpecialFolder(char* a_szPath, size_t a_sizetPath, uint32_t a_u32SpecialFolder)
{
    if (!a_szPath || a_sizetPath == 0)
    {
        OSLOG(OS_LOG_CHECK, "bad argument...");
        return EOSSTS_FAIL;
    }
    *a_szPath = 0;
    if (a_u32SpecialFolder == 0 || a_u32SpecialFolder > std::size(g_aspecialfolderrow))
    {
        OSLOG(OS_LOG_CHECK, "unrecognized eosspecialfolder...%d", static_cast<int>(a_u32SpecialFolder));
        return EOSSTS_FAIL;
    }

    const SpecialFolderRow& specialfolderrow = g_aspecialfolderrow[a_u32SpecialFolder - 1];
    const bool blEither = specialfolderrow.platfolder != specialfolderrow.platfolderRoaming;
    const PlatFolder platfolder =
        blEither && UsesRoaming() ? specialfolderrow.platfolderRoaming : specialfolderrow.platfolder;
    char16_t wszPath[OS_WIDEPATHSIZE];
    if (!PlatFolderPath(platfolder, wszPath, OS_WIDEPATHSIZE))
        return EOSSTS_FAIL;
    CopyStringToUtf8(a_szPath, a_sizetPath, wszPath, SIZE_MAX);
    OsPathNormalize(a_szPath);
    OsPathRemoveTrailing(a_szPath);
    return *a_szPath ? EOSSTS_SUCCESS : EOSSTS_FAIL;
}

// -------------------------------------------------------------------------------------------- components of paths

void OsCfgPathJoin(char* a_szPath, std::initializer_list<const char*> a_components)
{
    for (const char* const szComponent : a_components)
    {
        if (*a_szPath && *szComponent)
            OsPathAppend(a_szPath, OS_PATHSIZE, szComponent);
    }
}

bool OsCfgPathLiesBelow(const char* a_szPath, const char* a_szFolder)
{
    const size_t sizetFolder = std::strlen(a_szFolder);
    return sizetFolder != 0 && std::strncmp(a_szPath, a_szFolder, sizetFolder) == 0 &&
           (!a_szPath[sizetFolder] || a_szPath[sizetFolder] == '\\');
}

namespace
{
// --------------------------------------------------------------------------------------------- folders to write to

void Resolve(EOSPATH a_eospath, char* a_szPath)
{
    OsCfgResolvePath(a_eospath, a_szPath, OS_PATHSIZE);
}

void ResolveBelow(EOSPATH a_eospath, char* a_szPath, std::initializer_list<const char*> a_components)
{
    Resolve(a_eospath, a_szPath);
    OsCfgPathJoin(a_szPath, a_components);
}

// A special folder, moved below the prefix if the common settings set one.
void WriteableFolder(char* a_szPath, EOSSPECIALFOLDER a_eosspecialfolder)
{
    char szFolder[OS_PATHSIZE];
    *a_szPath = 0;
    if (OsCfgSpecialFolder(szFolder, sizeof szFolder, a_eosspecialfolder) != EOSSTS_SUCCESS)
        return;
    const char* const szPrefix = OsCfgCommonGet("WriteableFolderPrefix", "");
    OsPathCopy(a_szPath, OS_PATHSIZE, *szPrefix ? szPrefix : szFolder);
    if (*szPrefix)
        OsCfgPathJoin(a_szPath, {szFolder});
}

void WriteableRoot(char* a_szPath)
{
    WriteableFolder(a_szPath, OS_SPECIALFOLDER_CURRENTUSER_APPDATA);
}

void WriteableLegacy(char* a_szPath)
{
    WriteableFolder(a_szPath, OS_SPECIALFOLDER_PROGRAMDATA);
}

// The image-acquisition host runs for all users.
bool HasNoUser()
{
    return StrICmp(OsArgumentsGet(OS_ARGUMENT_UNIQUENAME), "wia") == 0;
}

void WriteableLocal(char* a_szPath)
{
    WriteableFolder(a_szPath, HasNoUser() ? OS_SPECIALFOLDER_PROGRAMDATA : OS_SPECIALFOLDER_CURRENTUSER_LOCALAPPDATA);
}

void WriteableRoaming(char* a_szPath)
{
    WriteableFolder(a_szPath, HasNoUser() ? OS_SPECIALFOLDER_PROGRAMDATA : OS_SPECIALFOLDER_CURRENTUSER_ROAMINGAPPDATA);
}

void WriteableEither(char* a_szPath)
{
    Resolve(UsesRoaming() ? OS_PATH_WRITEABLE_FOLDER_ROAMING : OS_PATH_WRITEABLE_FOLDER_LOCAL, a_szPath);
}

void BrandEither(char* a_szPath)
{
    Resolve(UsesRoaming() ? OS_PATH_WRITEABLE_FOLDER_BRAND_ROAMING : OS_PATH_WRITEABLE_FOLDER_BRAND_LOCAL, a_szPath);
}

template <EOSPATH Parent>
void BrandBelow(char* a_szPath)
{
    ResolveBelow(Parent, a_szPath, {OsCfgBrandFolder()});
}

void BrandShared(char* a_szPath)
{
    OsPathCopy(a_szPath, OS_PATHSIZE, OsCfgGetString(OS_CFGTAG_ROOTPATHSHARED));
}

void ProfilesLegacy(char* a_szPath)
{
    const char* const szModel = OsArgumentsGet(OS_ARGUMENT_MODELDIRECTORY);
    ResolveBelow(OS_PATH_WRITEABLE_FOLDER_BRAND_LEGACY, a_szPath, {szModel, "profiles"});
    if (!*szModel)
        *a_szPath = 0;
}

// Both functions create the folder on each call, since it may have been removed meanwhile.
void LogCollectorFolder(char* a_szPath)
{
    ResolveBelow(OS_PATH_WRITEABLE_FOLDER_BRAND_LOCALORROAMING, a_szPath, {"common", "logcollector"});
    if (*a_szPath)
        OsFileCreateDirectory(a_szPath);
}

void LogCollectorFlush(char* a_szPath)
{
    ResolveBelow(OS_PATH_WRITEABLE_FOLDER_BRAND_LEGACY, a_szPath, {"common", "logcollector"});
    if (*a_szPath)
        OsFileCreateDirectory(a_szPath);
    OsCfgPathJoin(a_szPath, {"flush"});
}

void LogDirectoryRoot(char* a_szPath)
{
    OsPathCopy(a_szPath, OS_PATHSIZE, OsCfgGetString(OS_CFGTAG_LOGDIRECTORY));
    if (char* const szComponent = std::strstr(a_szPath, "\\log."))
        szComponent[1 + std::strcspn(szComponent + 1, "\\")] = 0;
}

// --------------------------------------------------------------------------------------------- read-only paths

const char* ReadableFolderName()
{
    const char* const szNamed = OsCfgBrand("readablefoldername");
    return *szNamed ? szNamed : OsCfgBrandFolder();
}

void ReadableBrand(char* a_szPath)
{
    OsCfgSpecialFolder(a_szPath, OS_PATHSIZE, OS_SPECIALFOLDER_SYSTEM);
    OsCfgPathJoin(a_szPath, {ReadableFolderName()});
    if (!*a_szPath)
        OsPathCopy(a_szPath, OS_PATHSIZE, ReadableFolderName());
}

void CommonConstIni(char* a_szPath)
{
    ResolveBelow(OS_PATH_READABLE_FOLDER_BRAND, a_szPath, {"common", "const.ini"});
}

void ProgramPath(char* a_szPath)
{
    char16_t wszPath[OS_WIDEPATHSIZE];
    *a_szPath = 0;
    if (PlatProgramPath(wszPath, OS_WIDEPATHSIZE))
        CopyStringToUtf8(a_szPath, OS_PATHSIZE, wszPath, SIZE_MAX);
    OsPathNormalize(a_szPath);
}

void ModulePath(char* a_szPath)
{
    OsArgumentsModulePath(a_szPath);
    OsPathNormalize(a_szPath);
}

// The path made of these components in the folder of a file.
void PathBeside(char* a_szPath, const char* a_szFile, std::initializer_list<const char*> a_components)
{
    char szProgram[OS_PATHSIZE];
    SStrCpy(szProgram, sizeof szProgram, a_szFile);
    size_t sizetFolder = 0;
    OsPathSplit(szProgram, &sizetFolder, nullptr);
    szProgram[sizetFolder > 0 ? sizetFolder : 1] = 0;
    OsPathCopy(a_szPath, OS_PATHSIZE, szProgram);
    OsCfgPathJoin(a_szPath, a_components);
}

// A folder can have the name of a program.
bool IsProgram(const char* a_szPath)
{
    OsFileInfo osfileinfo;
    return OsFileGetInfo(a_szPath, &osfileinfo) == EOSSTS_SUCCESS && osfileinfo.eosfiletype != OS_FILETYPE_FOLDER;
}

// The path of a program of the family: the installed one, else the one beside the running program, beside the plug-in
// that contains the library, or installed below the same prefix as the running program (PREFIX/bin, PREFIX/lib). If
// none exists, the path beside the running program. Names end in ".exe" if the running program's does.
void FamilyProgram(char* a_szPath, const char* a_szName)
{
    char szProgram[OS_PATHSIZE];
    char szModule[OS_PATHSIZE];
    char szFile[OS_BRANDNAMESIZE];
    ProgramPath(szProgram);
    OsArgumentsModulePath(szModule);
    SStrPrintf(szFile, sizeof szFile, "%s%s", a_szName, StrEndsWith(szProgram, ".exe", true) ? ".exe" : "");

    ResolveBelow(OS_PATH_READABLE_FOLDER_BRAND, a_szPath, {"common", szFile});
    if (!*szProgram || IsProgram(a_szPath))
        return;
    PathBeside(a_szPath, szProgram, {szFile});
    if (IsProgram(a_szPath))
        return;
    char szBin[OS_PATHSIZE];
    char szInPrefix[OS_PATHSIZE];
    PathBeside(szBin, szProgram, {});
    PathBeside(szInPrefix, szBin, {"lib", ReadableFolderName(), "common", szFile});
    PathBeside(szModule, szModule, {szFile});
    for (const char* const szElsewhere : {szModule, szInPrefix})
    {
        if (IsProgram(szElsewhere))
            return OsPathCopy(a_szPath, OS_PATHSIZE, szElsewhere);
    }
}

void ConfigurationManager(char* a_szPath)
{
    FamilyProgram(a_szPath, "hvcfgmgr");
}

void ScannerService(char* a_szPath)
{
    FamilyProgram(a_szPath, "hvscannerservice");
}

void LogCollectorProgram(char* a_szPath)
{
    FamilyProgram(a_szPath, "logcollector");
}

// ---------------------------------------------------------------------------------------------------- INI files

// If a file is missing, the path of its ".txt" variant; empty when that is missing too.
void TextCompanion(const char* a_szPath, char* a_szCompanion)
{
    *a_szCompanion = 0;
    if (OsFileExists(a_szPath, true))
        return;
    SStrPrintf(a_szCompanion, OS_PATHSIZE, "%s.txt", a_szPath);
    if (!OsFileExists(a_szCompanion, true))
        *a_szCompanion = 0;
}

// The model's INI file in a folder, else the program's. Driver-lets of one kind share a file.
void OwnIniFile(char* a_szPath, const char* a_szSuffix)
{
    const char* const szModel = OsArgumentsGet(OS_ARGUMENT_MODELDIRECTORY);
    const char* const szName = *szModel ? szModel : OsArgumentsGet(OS_ARGUMENT_UNIQUENAME);
    char szFile[OS_PATHSIZE];
    SStrPrintf(szFile, sizeof szFile, "%s%s", szName, a_szSuffix);
    if (!*szName || !*szFile)
        *a_szPath = 0;
    OsCfgPathJoin(a_szPath, {szFile});
    if (!*a_szPath)
        return;
    SStrReplace(a_szPath, OS_PATHSIZE, "hvcfgmgr-drvlet-hvcfgmgr", "drvlet", true);
    SStrReplace(a_szPath, OS_PATHSIZE, "drvlettst-drvlet-app", "drvlet", true);

    char szCompanion[OS_PATHSIZE];
    TextCompanion(a_szPath, szCompanion);
    if (*szCompanion)
        SStrCpy(a_szPath, OS_PATHSIZE, szCompanion);
}

void ProtectedIni(char* a_szPath)
{
    ResolveBelow(OS_PATH_READABLE_FOLDER_BRAND, a_szPath, {"common", "const"});
    OwnIniFile(a_szPath, "_const.ini");
}

void UnprotectedIni(char* a_szPath)
{
    if (!OsCfgCommonIsYes("UseDebugIni", "yes"))
    {
        Resolve(OS_PATH_READABLE_FILE_PROTECTED_CONSTINI, a_szPath);
        return;
    }
    ResolveBelow(OS_PATH_WRITEABLE_FOLDER_BRAND_LOCALORROAMING, a_szPath, {"common", "debug"});
    OwnIniFile(a_szPath, "_debug.ini");
}

// ---------------------------------------------------------------------------------------------------- the table

struct PathRow
{
    const char* szName;
    void (*resolve)(char* a_szPath);
    EOSPATH eospath;
    bool blCached;   // false: it depends on tags, or is searched for or created on each call
};

#define OS_PATHROW(name_, resolve_, cached_)                                                                           \
    {                                                                                                                  \
        "OS_PATH_" #name_, resolve_, OS_PATH_##name_, cached_                                                          \
    }
constexpr PathRow g_apathrow[] = {
    OS_PATHROW(READABLE_FILE_APPLICATION, ProgramPath, true),
    OS_PATHROW(READABLE_FILE_COMMON_CONSTINI, CommonConstIni, true),
    OS_PATHROW(READABLE_FILE_PROTECTED_CONSTINI, ProtectedIni, true),
    OS_PATHROW(READABLE_FILE_HVCFGMGREXE, ConfigurationManager, false),
    OS_PATHROW(READABLE_FILE_HVSCANNERSERVICEEXE, ScannerService, false),
    OS_PATHROW(READABLE_FILE_LOGCOLLECTOREXE, LogCollectorProgram, false),
    OS_PATHROW(READABLE_FILE_MAINPROGRAM, ProgramPath, true),
    OS_PATHROW(READABLE_FILE_MODULEPATH, ModulePath, true),
    OS_PATHROW(READABLE_FOLDER_BRAND, ReadableBrand, true),
    OS_PATHROW(WRITEABLE_FOLDER_MODELDIR_PROFILES_LEGACY, ProfilesLegacy, true),
    OS_PATHROW(WRITEABLE_FILE_LOGCOLLECTORFLUSH, LogCollectorFlush, false),
    OS_PATHROW(WRITEABLE_FILE_UNPROTECTED_DEBUGINI, UnprotectedIni, true),
    OS_PATHROW(WRITEABLE_FOLDER_ROOT, WriteableRoot, true),
    OS_PATHROW(WRITEABLE_FOLDER_LEGACY, WriteableLegacy, true),
    OS_PATHROW(WRITEABLE_FOLDER_LOCAL, WriteableLocal, true),
    OS_PATHROW(WRITEABLE_FOLDER_ROAMING, WriteableRoaming, true),
    OS_PATHROW(WRITEABLE_FOLDER_LOCALORROAMING, WriteableEither, true),
    OS_PATHROW(WRITEABLE_FOLDER_BRAND_LEGACY, BrandBelow<OS_PATH_WRITEABLE_FOLDER_LEGACY>, true),
    OS_PATHROW(WRITEABLE_FOLDER_BRAND_LOCAL, BrandBelow<OS_PATH_WRITEABLE_FOLDER_LOCAL>, true),
    OS_PATHROW(WRITEABLE_FOLDER_BRAND_ROAMING, BrandBelow<OS_PATH_WRITEABLE_FOLDER_ROAMING>, true),
    OS_PATHROW(WRITEABLE_FOLDER_BRAND_LOCALORROAMING, BrandEither, true),
    OS_PATHROW(WRITEABLE_FOLDER_BRAND_SHARED, BrandShared, false),
    OS_PATHROW(WRITEABLE_FOLDER_BRAND_USER, BrandBelow<OS_PATH_WRITEABLE_FOLDER_ROOT>, true),
    OS_PATHROW(WRITEABLE_FOLDER_LOGCOLLECTOR, LogCollectorFolder, false),
    OS_PATHROW(WRITEABLE_FOLDER_LOGDIRECTORYROOT, LogDirectoryRoot, false),
};
#undef OS_PATHROW

const PathRow* FindRow(uint32_t a_u32Path)
{
    const auto* const ppathrow = std::find_if(std::begin(g_apathrow), std::end(g_apathrow),
                                              [=](const PathRow& a_pathrow) { return a_pathrow.eospath == a_u32Path; });
    return ppathrow == std::end(g_apathrow) ? nullptr : ppathrow;
}

bool IsSpecialFolder(uint32_t a_u32Path)
{
    return a_u32Path >= OS_PATH_SPECIALFOLDER_CURRENTUSER_APPDATA && a_u32Path < OS_PATH_LAST;
}

// Numbers without a symbolic name are shown as "OS_PATH_010".
struct NumberedName
{
    char szName[sizeof "OS_PATH_000"] = "OS_PATH_000";
};
constexpr std::array<NumberedName, OS_PATH_LAST> g_anumberedname = [] {
    std::array<NumberedName, OS_PATH_LAST> anumberedname;
    for (uint32_t u32Path = 0; u32Path < OS_PATH_LAST; ++u32Path)
    {
        char* const szDigits = anumberedname[u32Path].szName + sizeof "OS_PATH_" - 1;
        szDigits[0] = static_cast<char>('0' + u32Path / 100);
        szDigits[1] = static_cast<char>('0' + u32Path / 10 % 10);
        szDigits[2] = static_cast<char>('0' + u32Path % 10);
    }
    return anumberedname;
}();

// -------------------------------------------------------------------------------------------------- the resolver

// One cell per row. The lock is not held while a path is computed, because that logs, creates folders and reads
// settings. The first result is kept.
char g_aszCache[std::size(g_apathrow)][OS_PATHSIZE];
uint64_t g_u64CacheLock = 0;

void ResolveCached(const PathRow& a_pathrow, char* a_szPath)
{
    char* const szCell = g_aszCache[&a_pathrow - g_apathrow];
    {
        const COsSpinGuard guard(&g_u64CacheLock);
        std::memcpy(a_szPath, szCell, OS_PATHSIZE);
    }
    if (*a_szPath)
        return;
    a_pathrow.resolve(a_szPath);
    const COsSpinGuard guard(&g_u64CacheLock);
    if (!*szCell)
        SStrCpy(szCell, OS_PATHSIZE, a_szPath);
    SStrCpy(a_szPath, OS_PATHSIZE, szCell);
}
}   // namespace

EOSSTS OsCfgResolvePath(EOSPATH a_eospath, char* a_szPath, size_t a_sizetPath)
{
    if (!a_szPath || a_sizetPath == 0)
    {
        OSLOG(OS_LOG_CHECK, "bad argument...");
        return EOSSTS_FAIL;
    }
    *a_szPath = 0;
    if (IsSpecialFolder(a_eospath))
        return OsCfgSpecialFolder(a_szPath, a_sizetPath, a_eospath - OS_PATH_SPECIALFOLDER_CURRENTUSER_APPDATA + 1);
    const PathRow* const ppathrow = FindRow(a_eospath);
    if (!ppathrow)
        return EOSSTS_FAIL;

    char szPath[OS_PATHSIZE];
    ppathrow->blCached ? ResolveCached(*ppathrow, szPath) : ppathrow->resolve(szPath);
    if (*szPath)
        SStrCpy(a_szPath, a_sizetPath, szPath);
    return *a_szPath ? EOSSTS_SUCCESS : EOSSTS_FAIL;
}

const char* OsCfgPathName(uint32_t a_u32Path)
{
    if (a_u32Path >= OS_PATH_LAST)
        return "";
    if (IsSpecialFolder(a_u32Path))
        return g_aspecialfolderrow[a_u32Path - OS_PATH_SPECIALFOLDER_CURRENTUSER_APPDATA].szPathName;
    const PathRow* const ppathrow = FindRow(a_u32Path);
    return ppathrow ? ppathrow->szName : g_anumberedname[a_u32Path].szName;
}

// --------------------------------------------------------------------------------------------- beside identifiers

void OsCfgConstIni(char* a_szPath, const char* a_szFolder)
{
    *a_szPath = 0;
    if (!*a_szFolder)
        return;
    OsPathCopy(a_szPath, OS_PATHSIZE, a_szFolder);
    OsCfgPathJoin(a_szPath, {"const.ini"});
    char szCompanion[OS_PATHSIZE];
    TextCompanion(a_szPath, szCompanion);
    if (*szCompanion && OsFileMove(szCompanion, a_szPath) != EOSSTS_SUCCESS)
        SStrCpy(a_szPath, OS_PATHSIZE, szCompanion);
}

EOSSTS OsCfgProfilesFolder(char* a_szPath, size_t a_sizetPath)
{
    *a_szPath = 0;
    const char* const szModel = OsArgumentsGet(OS_ARGUMENT_MODELDIRECTORY);
    char szFolder[OS_PATHSIZE];
    OsEnvGet("MVR_PROFILESDIR", "", sizeof szFolder, szFolder);
    if (std::strcmp(szFolder, "{LEGACY}") == 0)
        return OsCfgResolvePath(OS_PATH_WRITEABLE_FOLDER_MODELDIR_PROFILES_LEGACY, a_szPath, a_sizetPath);
    if (SStrReplace(szFolder, sizeof szFolder, "{MODELDIR}", szModel, true) == EOSSTS_FAIL)
        return EOSSTS_FAIL;
    if (!*szFolder && *szModel)
        ResolveBelow(OS_PATH_WRITEABLE_FOLDER_BRAND_USER, szFolder, {szModel, "profiles"});
    OsPathCopy(a_szPath, a_sizetPath, szFolder);
    return *a_szPath ? EOSSTS_SUCCESS : EOSSTS_FAIL;
}
