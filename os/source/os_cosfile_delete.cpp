// os_cosfile_delete.cpp: deleting files and folder trees. From top to bottom: the walk through a tree and what it
// deletes, which folders must never go, and the operations.
#include "os_cosfile_system.h"

#include "os_cosfile_impl.h"
#include "os_cosstring.h"
#include "os_log.h"
#include "os_scope.h"

#include <algorithm>
#include <cstring>
#include <string_view>

static constexpr char g_szSource[] = "os/source/os_cosfile";

namespace
{
// Walks through a tree with one path and one record for all levels: a level costs next to no stack, and the length
// of a path bounds how deep it goes.
class TreeWalk
{
public:
    explicit TreeWalk(bool a_blSystemFiles) : m_blSystemFiles(a_blSystemFiles) {}

    // Goes to a path and reads what is there. EOSSTS_NOTFOUND when nothing is, EOSSTS_FAIL (logged) for a bad path.
    EOSSTS Start(const char* a_szPath);

    bool IsFolder() const { return m_osfileinfo.eosfiletype == OS_FILETYPE_FOLDER; }
    EOSFILETYPE Type() const { return m_osfileinfo.eosfiletype; }

    // Both are for the entry that was read last.
    bool Delete(bool a_blRecursive);
    bool RemoveEmpty();   // a folder, where no file is in it; else its sub-folders. True when it has gone.

private:
    template <class Visit>
    bool VisitEntries(Visit a_visit);
    PlatHandle FindFirst();
    bool FindNext(PlatHandle a_plathandle);
    bool Enter();
    bool DeleteFolder(bool a_blRecursive);
    bool DeleteFile();
    bool RemoveNow(bool (*a_remove)(const char16_t*), bool a_blLink) const;
    void ClearAttributes() const;

    char m_szPath[OS_PATHSIZE] = {};
    size_t m_sizetLength = 0;
    OsFileInfo m_osfileinfo = {};
    bool m_blSystemFiles;
};

EOSSTS TreeWalk::Start(const char* a_szPath)
{
    OsPathCopy(m_szPath, sizeof m_szPath, a_szPath);
    OsPathRemoveTrailing(m_szPath);
    m_sizetLength = strlen(m_szPath);
    return m_sizetLength > 0 ? OsFileGetInfo(m_szPath, &m_osfileinfo) : EOSSTS_FAIL;
}

// Goes to the entry of the folder that was read last. Its name may hold a separator where the system takes only one
// of the two for it, but as a path it would name something else, which must not be touched.
bool TreeWalk::Enter()
{
    const std::string_view szName = m_osfileinfo.szName;
    if (szName.empty() || szName.find_first_of("/\\") != szName.npos)
    {
        OSLOG(OS_LOG_NOTE, "DeleteFile failed...%s (%d)", m_szPath, static_cast<int>(PLAT_ERROR_INVALIDNAME));
        return false;
    }
    const bool blSeparator = m_szPath[m_sizetLength - 1] != '\\';
    if (m_sizetLength + blSeparator + szName.size() >= sizeof m_szPath)
    {
        OSLOG(OS_LOG_CHECK, "buffer overflow...%u <%s>", static_cast<unsigned>(sizeof m_szPath), m_szPath);
        return false;
    }
    if (blSeparator)
        m_szPath[m_sizetLength++] = '\\';
    m_sizetLength = static_cast<size_t>(std::copy(szName.begin(), szName.end(), m_szPath + m_sizetLength) - m_szPath);
    m_szPath[m_sizetLength] = '\0';
    return true;
}

// PLAT_INVALID for a folder that cannot be listed.
PlatHandle TreeWalk::FindFirst()
{
    char szPattern[OS_PATHSIZE + 2];
    SStrPrintf(szPattern, sizeof szPattern, "%s\\*", m_szPath);
    return OsFileFindFirst(szPattern, &m_osfileinfo) == EOSSTS_SUCCESS ? m_osfileinfo.plathandleSearch : PLAT_INVALID;
}

bool TreeWalk::FindNext(PlatHandle a_plathandle)
{
    m_osfileinfo.plathandleSearch = a_plathandle;
    return OsFileFindNext(&m_osfileinfo) == EOSSTS_SUCCESS;
}

// Calls a_visit() with the walk on each entry of the folder, until it returns false. True when all have been seen,
// and for a folder that cannot be listed: whoever removes it then finds out whether it is empty.
template <class Visit>
bool TreeWalk::VisitEntries(Visit a_visit)
{
    const PlatHandle plathandle = FindFirst();
    if (plathandle == PLAT_INVALID)
        return true;
    const ScopeGuard closeSearch([plathandle] { PlatClose(plathandle); });

    const size_t sizetLength = m_sizetLength;
    bool blGoOn = true;
    do
    {
        if (strcmp(m_osfileinfo.szName, ".") == 0 || strcmp(m_osfileinfo.szName, "..") == 0)
            continue;
        blGoOn = Enter() && a_visit();
        m_sizetLength = sizetLength;
        m_szPath[sizetLength] = '\0';
    } while (blGoOn && FindNext(plathandle));
    return blGoOn;
}

bool TreeWalk::Delete(bool a_blRecursive)
{
    return IsFolder() ? DeleteFolder(a_blRecursive) : DeleteFile();
}

bool TreeWalk::DeleteFolder(bool a_blRecursive)
{
    const auto deleteEntry = [this] {
        OSLOG(OS_LOG_NOTE, "Delete: <%s> %d %d", m_szPath, static_cast<int>(OS_FILETYPE_ANY), 1);
        return Delete(true);
    };
    // Where a read-only folder also protects what is in it, it has to change first.
    if (a_blRecursive && m_osfileinfo.eosfileaccess == OS_FILEACCESS_READ)
        ClearAttributes();
    if (a_blRecursive && !VisitEntries(deleteEntry))
        return false;
    if (RemoveNow(PlatFolderDelete, false) || !OsFileExists(m_szPath))
        return true;
    OSLOG(OS_LOG_NOTE, "RemoveDirectory failed...%s", m_szPath);
    return false;
}

bool TreeWalk::DeleteFile()
{
    uint32_t u32Error = PLAT_ERROR_ACCESSDENIED;
    if (m_osfileinfo.eosfiletype != OS_FILETYPE_SYSTEM || m_blSystemFiles)
    {
        if (RemoveNow(PlatFileDelete, m_osfileinfo.blLink))
            return true;
        u32Error = PlatGetLastError();
        if (!OsFileExists(m_szPath))
            return true;
    }
    OSLOG(OS_LOG_NOTE, "DeleteFile failed...%s (%d)", m_szPath, static_cast<int>(u32Error));
    return false;
}

// The attributes are cleared only when they are in the way. Those of a link would be what it points to.
bool TreeWalk::RemoveNow(bool (*a_remove)(const char16_t*), bool a_blLink) const
{
    char16_t wszPath[OS_WIDEPATHSIZE];
    if (!OsPathToSystem(wszPath, OS_WIDEPATHSIZE, m_szPath))
        return false;
    if (a_remove(wszPath))
        return true;
    const uint32_t u32Error = PlatGetLastError();
    if (!a_blLink && PlatFileClearAttributes(wszPath) && a_remove(wszPath))
        return true;
    PlatSetLastError(u32Error);
    return false;
}

void TreeWalk::ClearAttributes() const
{
    char16_t wszPath[OS_WIDEPATHSIZE];
    if (OsPathToSystem(wszPath, OS_WIDEPATHSIZE, m_szPath))
        PlatFileClearAttributes(wszPath);
}

// The folder itself is deleted without what is in it: a file that somebody creates there at this moment stays.
bool TreeWalk::RemoveEmpty()
{
    bool blEmpty = true;
    const bool blAll = VisitEntries([this, &blEmpty] {
        blEmpty = IsFolder() && RemoveEmpty() && blEmpty;
        return true;
    });
    if (!blAll || !blEmpty)
        return false;
    OSLOG(OS_LOG_NOTE, "Delete: <%s> %d %d", m_szPath, static_cast<int>(OS_FILETYPE_FOLDER), 0);
    return DeleteFolder(false);
}

// Folders that must never go: a drive, the system's and the users' folders on it, and these.
constexpr const char* g_aszProtected[] = {"\\", "\\opt", "\\usr", "\\var"};

bool IsProtectedPath(const char* a_szPath)
{
    const size_t sizetLength = strlen(a_szPath);
    const bool blDrive = (sizetLength == 2 || sizetLength == 3) && a_szPath[1] == ':';
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
    TreeWalk treewalk(a_blSystemFiles);
    if (const EOSSTS eossts = treewalk.Start(a_szFilename); eossts != EOSSTS_SUCCESS)
        return eossts == EOSSTS_NOTFOUND ? EOSSTS_SUCCESS : EOSSTS_FAIL;
    if (a_eosfiletype != OS_FILETYPE_ANY && a_eosfiletype != treewalk.Type())
        return EOSSTS_FAIL;
    return treewalk.Delete(a_blRecursive) ? EOSSTS_SUCCESS : EOSSTS_FAIL;
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
    TreeWalk treewalk(false);
    if (!MayRemove(a_szFolder, szPath) || treewalk.Start(szPath) != EOSSTS_SUCCESS || !treewalk.IsFolder())
        return EOSSTS_SHARING;
    return treewalk.RemoveEmpty() ? EOSSTS_SUCCESS : EOSSTS_SHARING;
}
