// os_coscfg_directories.cpp: the directory set: the program, the roots, the folders below them, the log folder, INI
// file names, and creating the folders.
//
//   legacy root        program data \ brand
//   per-user root      the user's application data \ brand
//   shared root        whichever of the two this process uses
//   chosen root        the shared root, or the root that the parent process gives
//
// Each has "common", "device", a model folder, and the user folder <model> \ <unique name>, in which the log folders
// "log.<start time>" lie.
#include "os_coscfg_impl.h"

#include "os_cosarguments.h"
#include "os_cosenv.h"
#include "os_cosfile_system.h"
#include "os_coslog.h"
#include "os_cospath.h"
#include "os_cosstring.h"
#include "os_log.h"

#include <cstring>

static constexpr char g_szSource[] = "os/source/os_coscfg";

// All members are buffers of this size.
using PathBuffer = char[OS_PATHSIZE];

namespace
{
void SetJoined(PathBuffer& a_szPath, const char* a_szFolder, std::initializer_list<const char*> a_components)
{
    SStrCpy(a_szPath, sizeof a_szPath, a_szFolder);
    OsCfgPathJoin(a_szPath, a_components);
}

void SetArgumentOr(PathBuffer& a_szPath, EOSARGUMENT a_eosargument, const char* a_szElse)
{
    const char* const szGiven = OsArgumentsGet(a_eosargument);
    OsPathCopy(a_szPath, sizeof a_szPath, *szGiven ? szGiven : a_szElse);
}

// The logger's current log file; empty when it has none.
void CurrentLogFile(PathBuffer& a_szPath)
{
    const COsLog* const poslog = OsLogGet();
    OsPathCopy(a_szPath, sizeof a_szPath, poslog ? poslog->LogFile() : "");
}
}   // namespace

bool COsCfgImpl::SetDirectories()
{
    SetProgram();
    SetRoots();
    SetFolders();
    SetLogFolder();
    SetConstIniNames();
    if (!*m_szLogFilename && !(UsesOthersLog() && *m_szUserDirectory))
        return false;
    m_blLogDirectory = CreateFolders();
    if (OsCfgIsReportWanted())
        WriteReport();
    return true;
}

// A utility logs into the file of the program that it works for.
bool COsCfgImpl::UsesOthersLog() const
{
    return OsCfgIsUtility(m_eoscfgentity);
}

// The module is the file that this library is linked into: the program, or a driver that the program has loaded.
void COsCfgImpl::SetProgram()
{
    OsCfgSpecialFolder(m_szSystemDirectory, sizeof m_szSystemDirectory, OS_SPECIALFOLDER_SYSTEM);
    OsCfgResolvePath(OS_PATH_READABLE_FILE_MODULEPATH, m_szLibraryPath, sizeof m_szLibraryPath);
    SStrCpy(m_szLibraryName, sizeof m_szLibraryName, StrFileName(m_szLibraryPath));
    OsPathFolder(m_szLibraryPath);
    SStrCpy(m_szHomeDirectory, sizeof m_szHomeDirectory, m_szMainProgram);
    SStrCpy(m_szProgramFileName, sizeof m_szProgramFileName, StrFileName(m_szMainProgram));
    OsPathFolder(m_szHomeDirectory);
}

// ------------------------------------------------------------------------------------------------------- the roots

// If the path lies in the default user's profile, replaces that user's name by a_szUser. A profile directly below the
// root of the file system cannot be replaced.
static void MoveToUser(PathBuffer& a_szPath, const char* a_szUser)
{
    PathBuffer szProfile;
    OsCfgSpecialFolder(szProfile, sizeof szProfile, OS_SPECIALFOLDER_DEFAULTUSER_PROFILE);
    const ptrdiff_t ptrdiffParent = StrFileName(szProfile) - szProfile;
    if (ptrdiffParent <= 1 || !OsCfgPathLiesBelow(a_szPath, szProfile))
        return;
    PathBuffer szRest;
    SStrCpy(szRest, sizeof szRest, a_szPath + std::strlen(szProfile));
    a_szPath[ptrdiffParent] = 0;
    OsCfgPathJoin(a_szPath, {a_szUser, szRest});
}

// A service works for the last logged-on user; a_szUser is empty if there was none.
static void UserRoot(PathBuffer& a_szPath, const char* a_szUser)
{
    if (!OsCfgIsService())
    {
        OsCfgResolvePath(OS_PATH_WRITEABLE_FOLDER_BRAND_USER, a_szPath, sizeof a_szPath);
        return;
    }
    OsCfgSpecialFolder(a_szPath, sizeof a_szPath, OS_SPECIALFOLDER_DEFAULTUSER_APPDATA);
    if (*a_szUser)
        MoveToUser(a_szPath, a_szUser);
    OsCfgPathJoin(a_szPath, {OsCfgBrandFolder()});
}

void COsCfgImpl::SetRoots()
{
    PathBuffer szFolder;
    OsCfgResolvePath(OS_PATH_WRITEABLE_FOLDER_BRAND_LEGACY, szFolder, sizeof szFolder);
    SetArgumentOr(m_szLegacyRootWriteableDirectory, OS_ARGUMENT_LEGACYROOTPATH, szFolder);

    char szUser[256] = "";
    if (OsCfgIsService())
        OsCfgLastUser(szUser, sizeof szUser);
    UserRoot(szFolder, szUser);
    if (OsCfgIsCertificationHost())
        SStrCpy(szFolder, sizeof szFolder, m_szLegacyRootWriteableDirectory);
    SetArgumentOr(m_szUserRootWriteableDirectory, OS_ARGUMENT_USERROOTPATH, szFolder);

    // A service that does not know its user would write into the default user's folder.
    m_blUsersFolder = OsCfgCommonIsYes("UseUsersFolder", "yes") && (!OsCfgIsService() || *szUser);
    SStrCpy(m_szSharedRootWriteableDirectory, sizeof m_szSharedRootWriteableDirectory,
            m_blUsersFolder ? m_szUserRootWriteableDirectory : m_szLegacyRootWriteableDirectory);
    SetArgumentOr(m_szRootWriteableDirectory, OS_ARGUMENT_ROOTPATH, m_szSharedRootWriteableDirectory);
    OsCfgResolvePath(OS_PATH_WRITEABLE_FOLDER_ROOT, m_szRootDirectory, sizeof m_szRootDirectory);
}

// ------------------------------------------------------------------------------------------------ below the roots

// The name of the folder three levels above the log file, <model> \ <unique name> \ log.<time> \ <file>; empty if the
// path has fewer levels.
static void ModelOfLogFile(char* a_szModel, size_t a_sizetModel)
{
    PathBuffer szPath;
    CurrentLogFile(szPath);
    for (int i = 0; i < 3; ++i)
        OsPathFolder(szPath);
    SStrCpy(a_szModel, a_sizetModel, StrFileName(szPath));
}

void COsCfgImpl::FindLogModel(char* a_szModel, size_t a_sizetModel) const
{
    const char* szModel = OsArgumentsGet(OS_ARGUMENT_MODELDIRECTORY);
    if (!*szModel && UsesOthersLog())
    {
        ModelOfLogFile(a_szModel, a_sizetModel);
        return;
    }
    if (!*szModel)
    {
        const bool blApplication = m_eoscfgentity == OS_CFGENTITY_APPLICATION;
        const char* const szOther =
            m_eoscfgentity == OS_CFGENTITY_DRIVER ? m_szLibraryName : OsArgumentsGet(OS_ARGUMENT_LOGMODEL);
        szModel = blApplication ? m_szFudge : szOther;
    }
    SStrCpy(a_szModel, a_sizetModel, szModel);
}

void COsCfgImpl::SetFolders()
{
    char szModel[64];
    FindLogModel(szModel, sizeof szModel);
    const char* const szProgram = std::strcmp(m_szFudge, "mvr") == 0 ? "twain" : m_szFudge;

    const auto set = [&](const PathBuffer& a_szRoot, PathBuffer& a_szCommon, PathBuffer& a_szModelFolder) {
        SetJoined(a_szCommon, a_szRoot, {"common"});
        SetJoined(a_szModelFolder, a_szRoot, {szModel});
    };
    set(m_szLegacyRootWriteableDirectory, m_szLegacyRootCommonDirectory, m_szLegacyRootModelDirectory);
    set(m_szUserRootWriteableDirectory, m_szUserRootCommonDirectory, m_szUserRootModelDirectory);
    set(m_szSharedRootWriteableDirectory, m_szSharedRootCommonDirectory, m_szSharedRootModelDirectory);
    set(m_szRootWriteableDirectory, m_szRootCommonDirectory, m_szRootModelDirectory);

    SetJoined(m_szLegacyCommonDirectory, m_szLegacyRootCommonDirectory, {});
    SetJoined(m_szLegacyDeviceDirectory, m_szLegacyRootWriteableDirectory, {"device"});
    SetJoined(m_szLegacyUserDirectory, m_szLegacyRootModelDirectory, {szProgram});
    SetJoined(m_szSharedCommonDirectory, m_szSharedRootCommonDirectory, {});
    SetJoined(m_szSharedDeviceDirectory, m_szSharedRootWriteableDirectory, {"device"});
    SetJoined(m_szSharedUserDirectory, m_szSharedRootModelDirectory, {szProgram});
    SetJoined(m_szCommonDirectory, m_szRootCommonDirectory, {});
    SetJoined(m_szUserDirectory, m_szRootModelDirectory, {szProgram});
    SetJoined(m_szMultimediaDirectory, m_szRootWriteableDirectory, {"multimedia"});

    // A plain name, as child processes get it.
    SStrCpy(m_szModelDirectory, sizeof m_szModelDirectory, OsArgumentsGet(OS_ARGUMENT_MODELDIRECTORY));
}

// --------------------------------------------------------------------------------------------------- the log folder

// Converts to lower case, except for components that exist: on a case-sensitive file system those would become other
// folders.
static void LowerWhatIsNew(PathBuffer& a_szPath)
{
    for (char* szComponent = a_szPath; *szComponent;)
    {
        szComponent += std::strspn(szComponent, "\\");
        char* const szEnd = szComponent + std::strcspn(szComponent, "\\");
        const char chEnd = *szEnd;
        *szEnd = 0;
        if (!OsFileExists(a_szPath))
            StrLower(szComponent);
        *szEnd = chEnd;
        szComponent = szEnd;
    }
}

// Resolves the folder that MVR_LOGDIR names, with the brand's word inserted; false when it is unset. A relative path
// starts in this process's working directory, because the collector's is a different one.
static bool FolderOfEnvironment(PathBuffer& a_szPath)
{
    OsEnvGet("MVR_LOGDIR", "", sizeof a_szPath, a_szPath);
    if (!*a_szPath)
        return false;
    if (SStrReplace(a_szPath, sizeof a_szPath, "@@@BRAND@@@", OsCfgBrandWord(), true) == EOSSTS_FAIL)
        return false;
    if (OsPathAbsolute(a_szPath, sizeof a_szPath, a_szPath) != EOSSTS_SUCCESS)
        return false;
    LowerWhatIsNew(a_szPath);
    return true;
}

static void StampNow(char (&a_szStamp)[OS_TIMESTAMPSIZE])
{
    OsTimeRecord ostimerecord{};
    uint32_t u32Microseconds = 0;
    OsTimeUtc(&ostimerecord, &u32Microseconds);
    OsTimeStamp(&ostimerecord, u32Microseconds, a_szStamp);
}

void COsCfgImpl::SetLogFolder()
{
    StampNow(m_szLogTimeStamp);
    if (UsesOthersLog())
    {
        CurrentLogFile(m_szLogFilename);
        SStrCpy(m_szLogDirectory, sizeof m_szLogDirectory, m_szLogFilename);
        OsPathFolder(m_szLogDirectory);
    }
    else
    {
        PathBuffer szFolder;
        char szName[sizeof "log." + 20];
        SStrPrintf(szName, sizeof szName, "log.%s", m_szLogTimeStamp);
        SetJoined(m_szLogDirectory, FolderOfEnvironment(szFolder) ? szFolder : m_szUserDirectory, {szName});

        char szFile[sizeof m_szFudge + sizeof ".log"];
        SStrPrintf(szFile, sizeof szFile, "%s.log", m_szFudge);
        SetJoined(m_szLogFilename, m_szLogDirectory, {szFile});
    }
    SetJoined(m_szTmpDirectory, m_szLogDirectory, {"tmp"});
    SetJoined(m_szFwDirectory, m_szLogDirectory, {"firmware"});
    SetJoined(m_szOtterDirectory, m_szLogDirectory, {"otter"});
    SetJoined(m_szUiDirectory, m_szLogDirectory, {"ui"});
    SetJoined(m_szDriverDirectory, m_szUserDirectory, {});
}

// --------------------------------------------------------------------------------------- INI files, and the creation

void COsCfgImpl::SetConstIniNames()
{
    switch (m_eoscfgentity)
    {
    case OS_CFGENTITY_UTILITY:
    case OS_CFGENTITY_APPUTILITY:
        OsCfgConstIni(m_szConfigFilenameConstIni, m_szCommonDirectory);
        OsCfgConstIni(m_szSharedConfigFilenameConstIni, m_szSharedCommonDirectory);
        OsCfgConstIni(m_szLegacyConfigFilenameConstIni, m_szLegacyCommonDirectory);
        break;
    case OS_CFGENTITY_APPLICATION:
    case OS_CFGENTITY_DRIVER:
    case OS_CFGENTITY_DLL:
        OsCfgConstIni(m_szConfigFilenameConstIni, m_szUserDirectory);
        OsCfgConstIni(m_szSharedConfigFilenameConstIni, m_szSharedUserDirectory);
        OsCfgConstIni(m_szLegacyConfigFilenameConstIni, m_szLegacyUserDirectory);
        break;
    default:
        OSLOG(OS_LOG_CHECK, "unrecognized m_eoscfgentity...%d", static_cast<int>(m_eoscfgentity));
        break;
    }
}

static bool CreateFolder(const char* a_szFolder)
{
    if (!*a_szFolder)
        return true;
    const EOSSTS eossts = OsFileCreateDirectory(a_szFolder);
    const bool blThere = eossts == EOSSTS_SUCCESS || eossts == EOSSTS_EXISTS;
    if (!blThere)
        OSLOG(OS_LOG_ERROR, "OsFileCreateDirectory failed...%d <%s>", static_cast<int>(eossts), a_szFolder);
    return blThere;
}

// Creates nothing when MVR_NOLOGGING switches logging off; 0 and 11 leave it on.
bool COsCfgImpl::CreateFolders() const
{
    const int64_t i64NoLogging = OsEnvGetNumber("MVR_NOLOGGING", 0);
    if (i64NoLogging != 0 && i64NoLogging != 11)
        return true;
    CreateFolder(m_szLegacyRootWriteableDirectory);
    CreateFolder(m_szUserDirectory);
    return CreateFolder(m_szLogDirectory);
}
