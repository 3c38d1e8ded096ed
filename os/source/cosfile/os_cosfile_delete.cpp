// os_cosfile_delete.cpp: deletes files and folder trees. From top to bottom: deleting at the current entry of a walk
// (os_cosfile_tree.h), the protected folders, the operations.
//
// A path is resolved once; the checks and the deletion use that result, so a change of the path in between has no
// effect.
#include "os_cosfile_system.h"

#include "os_cosfile_tree.h"
#include "os_cospath.h"
#include "os_cosstring.h"
#include "os_log.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <new>
#include <vector>

static constexpr char g_szSource[] = "os/source/os_cosfile";

namespace
{
void TellDelete(const char* a_szPath, EOSFILETYPE a_eosfiletype, bool a_blRecursive)
{
    OSLOG(OS_LOG_NOTE, "Delete: <%s> %d %d", a_szPath, static_cast<int>(a_eosfiletype),
          static_cast<int>(a_blRecursive));
}

// Deletes the walk's current entry. A folder that cannot be listed is deleted if it is empty.
bool DeleteEntry(OsFileTree& a_osfiletree, bool a_blRecursive)
{
    if (a_blRecursive && a_osfiletree.Enter())
    {
        const bool blDeleted = a_osfiletree.DeleteAll();
        a_osfiletree.Leave();
        if (!blDeleted)
            return false;
    }
    return a_osfiletree.DeleteEntry();
}

// Removes the folders without files below the walk's folder. True when nothing is left. Only empty folders are deleted:
// a file that another process creates meanwhile stays.
bool RemoveEmptyBelow(OsFileTree& a_osfiletree)
try
{
    std::vector<bool> vecblEmpty(1, true);   // one entry per level, from the walk's first folder
    for (;;)
    {
        if (a_osfiletree.Next())
        {
            vecblEmpty.push_back(true);
            if (a_osfiletree.Enter())
                continue;
            vecblEmpty.pop_back();
            vecblEmpty.back() = false;
            continue;
        }
        if (vecblEmpty.size() == 1)
            return vecblEmpty.back();
        const bool blEmpty = vecblEmpty.back();
        vecblEmpty.pop_back();
        a_osfiletree.Leave();
        if (blEmpty)
            TellDelete(a_osfiletree.Path(), OS_FILETYPE_FOLDER, false);
        vecblEmpty.back() = blEmpty && a_osfiletree.DeleteEntry() && vecblEmpty.back();
    }
}
catch (const std::bad_alloc&)
{
    return false;
}

// Folders that must never be deleted: a drive, the system's and the users' folders on it, and these.
constexpr const char* g_aszProtected[] = {"\\", "\\opt", "\\usr", "\\var"};

bool IsProtectedPath(const char* a_szPath)
{
    const bool blDrive = a_szPath[0] && a_szPath[1] == ':' && !a_szPath[2];
    if (blDrive || StrEndsWith(a_szPath, ":\\Windows", true) || StrEndsWith(a_szPath, ":\\Users", true))
        return true;
    return std::any_of(std::begin(g_aszProtected), std::end(g_aszProtected),
                       [&](const char* a_szProtected) { return strcmp(a_szPath, a_szProtected) == 0; });
}

// True if the walk is in a protected folder or in one that contains a protected folder, by whatever path.
bool HoldsProtected(const OsFileTree& a_osfiletree)
{
    char aszOnDrive[][12] = {"?:\\", "?:\\Windows", "?:\\Users"};
    for (char chDrive = 'a'; chDrive <= 'z'; ++chDrive)
    {
        for (char* const szOnDrive : aszOnDrive)
        {
            szOnDrive[0] = chDrive;
            if (a_osfiletree.Holds(szOnDrive))
                return true;
        }
    }
    return std::any_of(std::begin(g_aszProtected), std::end(g_aszProtected),
                       [&](const char* a_szProtected) { return a_osfiletree.Holds(a_szProtected); });
}

// Normalises the path and strips trailing separators. False when the folder must not be removed.
bool MayRemove(const char* a_szFolder, char* a_szPath)
{
    if (!a_szFolder || strpbrk(a_szFolder, "*?"))
        return false;
    OsPathCopy(a_szPath, OS_PATHSIZE, a_szFolder);
    OsPathRemoveTrailing(a_szPath);

    const char* szLast;
    OsPathSplit(a_szPath, nullptr, &szLast);
    return a_szPath[0] && strcmp(szLast, ".") != 0 && strcmp(szLast, "..") != 0 && !IsProtectedPath(a_szPath);
}

// Enters the folder of a path and checks that it may be removed. EOSSTS_NOTFOUND when it does not exist,
// EOSSTS_ACCESSDENIED when it must not be removed.
EOSSTS EnterToRemove(OsFileTree& a_osfiletree, const char* a_szFolder)
{
    char szPath[OS_PATHSIZE];
    if (!MayRemove(a_szFolder, szPath))
        return EOSSTS_ACCESSDENIED;
    const EOSSTS eossts = a_osfiletree.OpenAt(szPath);
    if (eossts == EOSSTS_NOTFOUND)
        return eossts;
    if (eossts != EOSSTS_SUCCESS || !a_osfiletree.IsFolder())
        return EOSSTS_ACCESSDENIED;
    if (!a_osfiletree.Enter())
    {
        OsFileTellFolderStays(szPath);
        return EOSSTS_FAIL;
    }
    return HoldsProtected(a_osfiletree) ? EOSSTS_ACCESSDENIED : EOSSTS_SUCCESS;
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

    TellDelete(a_szFilename, a_eosfiletype, a_blRecursive);
    OsFileTree osfiletree(a_blSystemFiles);
    if (const EOSSTS eossts = osfiletree.OpenAt(a_szFilename); eossts != EOSSTS_SUCCESS)
        return eossts == EOSSTS_NOTFOUND ? EOSSTS_SUCCESS : EOSSTS_FAIL;
    if (a_eosfiletype != OS_FILETYPE_ANY && a_eosfiletype != osfiletree.Type())
        return EOSSTS_FAIL;
    return DeleteEntry(osfiletree, a_blRecursive) ? EOSSTS_SUCCESS : EOSSTS_FAIL;
}

EOSSTS OsFileRemoveTree(const char* a_szFolder)
{
    OsFileTree osfiletree(false);
    if (const EOSSTS eossts = EnterToRemove(osfiletree, a_szFolder); eossts != EOSSTS_SUCCESS)
        return eossts == EOSSTS_NOTFOUND ? EOSSTS_SUCCESS : eossts;
    TellDelete(a_szFolder, OS_FILETYPE_FOLDER, true);
    const bool blDeleted = osfiletree.DeleteAll();
    osfiletree.Leave();
    return blDeleted && osfiletree.DeleteEntry() ? EOSSTS_SUCCESS : EOSSTS_FAIL;
}

EOSSTS OsFileRemoveEmptyTree(const char* a_szFolder)
{
    OsFileTree osfiletree(false);
    if (EnterToRemove(osfiletree, a_szFolder) != EOSSTS_SUCCESS || !RemoveEmptyBelow(osfiletree))
        return EOSSTS_SHARING;
    osfiletree.Leave();
    TellDelete(osfiletree.Path(), OS_FILETYPE_FOLDER, false);
    return osfiletree.DeleteEntry() ? EOSSTS_SUCCESS : EOSSTS_SHARING;
}
