// os_cosfile_delete.cpp: deleting files and folder trees. From top to bottom: what is deleted by its path, with what
// the walk through a tree (os_cosfile_tree.h) finds below it, which folders must never go, and the operations.
#include "os_cosfile_system.h"

#include "os_cosfile_impl.h"
#include "os_cosfile_tree.h"
#include "os_cosstring.h"
#include "os_log.h"

#include <algorithm>
#include <cstring>

static constexpr char g_szSource[] = "os/source/os_cosfile";

namespace
{
// The attributes are cleared only when they are in the way.
bool RemoveNow(const char* a_szPath, bool (*a_remove)(const char16_t*))
{
    char16_t wszPath[OS_WIDEPATHSIZE];
    if (!OsPathToSystem(wszPath, OS_WIDEPATHSIZE, a_szPath))
        return false;
    if (a_remove(wszPath))
        return true;
    const uint32_t u32Error = PlatGetLastError();
    if (PlatFileClearAttributes(wszPath) && a_remove(wszPath))
        return true;
    PlatSetLastError(u32Error);
    return false;
}

bool DeleteFile(const char* a_szPath, EOSFILETYPE a_eosfiletype, bool a_blSystemFiles)
{
    uint32_t u32Error = PLAT_ERROR_ACCESSDENIED;
    if (a_eosfiletype != OS_FILETYPE_SYSTEM || a_blSystemFiles)
    {
        if (RemoveNow(a_szPath, PlatFileDelete))
            return true;
        u32Error = PlatGetLastError();
        if (!OsFileExists(a_szPath))
            return true;
    }
    OsFileTellFileStays(a_szPath, u32Error);
    return false;
}

// An empty folder.
bool DeleteFolder(const char* a_szPath)
{
    if (RemoveNow(a_szPath, PlatFolderDelete) || !OsFileExists(a_szPath))
        return true;
    OsFileTellFolderStays(a_szPath);
    return false;
}

// A folder that cannot be listed has nothing to delete: whoever removes it then finds out whether it is empty.
bool DeleteWhatIsIn(const char* a_szPath, bool a_blSystemFiles)
{
    OsFileTree osfiletree(a_blSystemFiles);
    return osfiletree.Open(a_szPath) != EOSSTS_SUCCESS || osfiletree.DeleteAll();
}

void TellEmptyFolderGoes(const char* a_szPath)
{
    OSLOG(OS_LOG_NOTE, "Delete: <%s> %d %d", a_szPath, static_cast<int>(OS_FILETYPE_FOLDER), 0);
}

// Removes the folders below the path that hold no file. True when nothing is left. A folder is deleted without what is
// in it: a file that somebody creates there at this moment stays.
bool RemoveEmptyBelow(const char* a_szPath)
{
    OsFileTree osfiletree(false);
    if (osfiletree.Open(a_szPath) != EOSSTS_SUCCESS)
        return true;
    std::vector<bool> vecblEmpty(1, true);   // of the folder where the walk began, and of those entered since
    for (;;)
    {
        if (osfiletree.Next())
        {
            const bool blEntered = osfiletree.Enter();
            vecblEmpty.back() = vecblEmpty.back() && blEntered;
            if (blEntered)
                vecblEmpty.push_back(true);
            continue;
        }
        if (vecblEmpty.size() == 1)
            return vecblEmpty.back();
        const bool blEmpty = vecblEmpty.back();
        vecblEmpty.pop_back();
        osfiletree.Leave();
        if (blEmpty)
            TellEmptyFolderGoes(osfiletree.Path());
        vecblEmpty.back() = blEmpty && osfiletree.DeleteEntry() && vecblEmpty.back();
    }
}

// Folders that must never go: a drive, the system's and the users' folders on it, and these.
constexpr const char* g_aszProtected[] = {"\\", "\\opt", "\\usr", "\\var"};

bool IsProtectedPath(const char* a_szPath)
{
    const bool blDrive = a_szPath[0] && a_szPath[1] == ':' && !a_szPath[2];
    if (blDrive || StrEndsWith(a_szPath, ":\\Windows", true) || StrEndsWith(a_szPath, ":\\Users", true))
        return true;
    return std::any_of(std::begin(g_aszProtected), std::end(g_aszProtected),
                       [&](const char* a_szProtected) { return strcmp(a_szPath, a_szProtected) == 0; });
}

// The same folders, by whatever path they are reached: a link on the way may lead to them.
bool IsProtectedFolder(const char* a_szAbsolute)
{
    PlatFileIdentity platfileidentity;
    if (!OsFileReadIdentity(a_szAbsolute, PLAT_OPEN_FOLDER, &platfileidentity))
        return false;
    const auto isThis = [&](const char* a_szProtected) {
        PlatFileIdentity platfileidentityProtected;
        return OsFileReadIdentity(a_szProtected, PLAT_OPEN_FOLDER, &platfileidentityProtected) &&
               platfileidentity.u64Volume == platfileidentityProtected.u64Volume &&
               platfileidentity.u64Index == platfileidentityProtected.u64Index;
    };
    if (a_szAbsolute[0] && a_szAbsolute[1] == ':')
    {
        char aszOnDrive[][12] = {"?:\\", "?:\\Windows", "?:\\Users"};
        for (char* const szOnDrive : aszOnDrive)
        {
            szOnDrive[0] = a_szAbsolute[0];
            if (isThis(szOnDrive))
                return true;
        }
    }
    return std::any_of(std::begin(g_aszProtected), std::end(g_aszProtected), isThis);
}

// Puts the path into normal form without trailing separators. False when it must not be removed.
bool MayRemove(const char* a_szFolder, char* a_szPath)
{
    if (!a_szFolder || strpbrk(a_szFolder, "*?"))
        return false;
    OsPathCopy(a_szPath, OS_PATHSIZE, a_szFolder);
    OsPathRemoveTrailing(a_szPath);

    const char* szLast;
    OsPathSplit(a_szPath, nullptr, &szLast);
    if (strcmp(szLast, ".") == 0 || strcmp(szLast, "..") == 0 || !a_szPath[0])
        return false;

    // Components "." and ".." in the middle may hide what the path is.
    char szAbsolute[OS_PATHSIZE];
    if (OsPathAbsolute(szAbsolute, sizeof szAbsolute, a_szPath) != EOSSTS_SUCCESS)
        return false;
    OsPathRemoveTrailing(szAbsolute);
    return !IsProtectedPath(a_szPath) && !IsProtectedPath(szAbsolute) && !IsProtectedFolder(szAbsolute);
}
}   // namespace

EOSSTS OsFileDelete(const char* a_szFilename, EOSFILETYPE a_eosfiletype, bool a_blRecursive, bool a_blSystemFiles)
{
    if (!a_szFilename || !a_szFilename[0])
    {
        OSLOG(OS_LOG_ERROR, "a_szFilename is null or empty...");
        return EOSSTS_FAIL;
    }
    if (strchr(a_szFilename, '*'))
    {
        OSLOG(OS_LOG_ERROR, "we don't support deleting with wildcards...");
        return EOSSTS_FAIL;
    }

    OSLOG(OS_LOG_NOTE, "Delete: <%s> %d %d", a_szFilename, static_cast<int>(a_eosfiletype),
          static_cast<int>(a_blRecursive));
    char szPath[OS_PATHSIZE];
    OsPathCopy(szPath, sizeof szPath, a_szFilename);
    OsPathRemoveTrailing(szPath);
    OsFileInfo osfileinfo;
    if (!szPath[0])
        return EOSSTS_FAIL;
    if (const EOSSTS eossts = OsFileGetInfo(szPath, &osfileinfo); eossts != EOSSTS_SUCCESS)
        return eossts == EOSSTS_NOTFOUND ? EOSSTS_SUCCESS : EOSSTS_FAIL;
    if (a_eosfiletype != OS_FILETYPE_ANY && a_eosfiletype != osfileinfo.eosfiletype)
        return EOSSTS_FAIL;
    const bool blDeleted = osfileinfo.eosfiletype == OS_FILETYPE_FOLDER
                               ? (!a_blRecursive || DeleteWhatIsIn(szPath, a_blSystemFiles)) && DeleteFolder(szPath)
                               : DeleteFile(szPath, osfileinfo.eosfiletype, a_blSystemFiles);
    return blDeleted ? EOSSTS_SUCCESS : EOSSTS_FAIL;
}

EOSSTS OsFileRemoveTree(const char* a_szFolder)
{
    char szPath[OS_PATHSIZE];
    if (!MayRemove(a_szFolder, szPath))
        return EOSSTS_ACCESSDENIED;
    OsFileInfo osfileinfo;
    const EOSSTS eossts = OsFileGetInfo(szPath, &osfileinfo);
    if (eossts == EOSSTS_NOTFOUND)
        return EOSSTS_SUCCESS;
    if (eossts != EOSSTS_SUCCESS || osfileinfo.eosfiletype != OS_FILETYPE_FOLDER)
        return EOSSTS_ACCESSDENIED;
    return OsFileDelete(szPath, OS_FILETYPE_FOLDER, true, false);
}

EOSSTS OsFileRemoveEmptyTree(const char* a_szFolder)
{
    char szPath[OS_PATHSIZE];
    OsFileInfo osfileinfo;
    if (!MayRemove(a_szFolder, szPath) || OsFileGetInfo(szPath, &osfileinfo) != EOSSTS_SUCCESS ||
        osfileinfo.eosfiletype != OS_FILETYPE_FOLDER || !RemoveEmptyBelow(szPath))
        return EOSSTS_SHARING;
    TellEmptyFolderGoes(szPath);
    return DeleteFolder(szPath) ? EOSSTS_SUCCESS : EOSSTS_SHARING;
}
