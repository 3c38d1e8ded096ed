// os_coslogfolder.cpp: the log folder of a path; holding a log folder; deleting one.
#include "os_coslogfolder.h"

#include "os_cosfile.h"
#include "os_cosfile_system.h"
#include "os_cosfile_tree.h"
#include "os_cospath.h"
#include "os_cosstring.h"
#include "os_log.h"

#include "plat_file.h"
#include "plat_wait.h"

#include <cstring>

static constexpr char g_szSource[] = "os/source/os_cosfile";

static constexpr char g_szLogFileSuffix[] = ".log";
static constexpr uint32_t g_u32LastPause = 32;   // ms, the longest pause; each earlier one is half as long
static constexpr uint32_t g_u32Shared = PLAT_SHARE_READ | PLAT_SHARE_WRITE;

bool OsLogFolderOf(const char* a_szPath, char* a_szFolder)
{
    OsPathCopy(a_szFolder, OS_PATHSIZE, a_szPath);
    OsPathRemoveTrailing(a_szFolder);
    bool blFile = StrEndsWith(a_szFolder, g_szLogFileSuffix, true);
    for (;;)
    {
        if (!blFile && StrStartsWith(StrFileName(a_szFolder), OS_LOGFOLDERPREFIX))
            return true;
        blFile = false;
        if (!OsPathFolder(a_szFolder))
            return false;
    }
}

// ------------------------------------------------------------------------------------------------------- holding

static bool LockPath(const char* a_szFolder, char (&a_szPath)[OS_PATHSIZE])
{
    OsPathCopy(a_szPath, sizeof a_szPath, a_szFolder);
    if (*a_szPath)
        OsPathAppend(a_szPath, sizeof a_szPath, OS_LOGFOLDERLOCK);
    return *a_szPath != 0;
}

// Opens a folder's lock file for reading and writing without logging; refuses a link. PLAT_INVALID with the last error.
static PlatHandle OpenQuietly(const char* a_szFolder, uint32_t a_u32Share, PlatDisposition a_platdisposition,
                              uint32_t a_u32Flags)
{
    char szPath[OS_PATHSIZE];
    char16_t wszPath[OS_WIDEPATHSIZE];
    if (LockPath(a_szFolder, szPath) && OsPathToSystem(wszPath, OS_WIDEPATHSIZE, szPath))
        return PlatFileOpen(wszPath, PLAT_ACCESS_READ | PLAT_ACCESS_WRITE, a_u32Share, a_platdisposition,
                            a_u32Flags | PLAT_OPEN_NOLINK);
    PlatSetLastError(PLAT_ERROR_INVALIDNAME);
    return PLAT_INVALID;
}

// The last holder may have removed the file between our open and the share lock.
static bool HasName(PlatHandle a_plathandle)
{
    PlatFileIdentity platfileidentity;
    return PlatFileGetIdentity(a_plathandle, &platfileidentity) && platfileidentity.u32Links > 0;
}

// A folder that was deleted or moved, and created again, has another lock file or none.
static bool IsNamed(PlatHandle a_plathandle, const char* a_szFolder)
{
    char szPath[OS_PATHSIZE];
    char16_t wszPath[OS_WIDEPATHSIZE];
    return LockPath(a_szFolder, szPath) && OsPathToSystem(wszPath, OS_WIDEPATHSIZE, szPath) &&
           PlatFileIsNamed(a_plathandle, wszPath);
}

EOSSTS COsLogFolderLock::OpenOnce()
{
    m_plathandle = OpenQuietly(m_szFolder, g_u32Shared, PLAT_DISPOSITION_OPENALWAYS, 0);
    if (m_plathandle == PLAT_INVALID)
        return OsFileStatus(PlatGetLastError());
    if (HasName(m_plathandle))
        return EOSSTS_SUCCESS;
    PlatClose(m_plathandle);
    m_plathandle = PLAT_INVALID;
    return EOSSTS_SHARING;
}

EOSSTS COsLogFolderLock::Acquire(const char* a_szFolder)
{
    char szFolder[OS_PATHSIZE];
    if (const EOSSTS eossts = OsPathAbsolute(szFolder, sizeof szFolder, a_szFolder); eossts != EOSSTS_SUCCESS)
        return eossts;
    OsPathRemoveTrailing(szFolder);
    if (IsHeld() && std::strcmp(szFolder, m_szFolder) == 0 && IsNamed(m_plathandle, szFolder))
        return EOSSTS_SUCCESS;
    Release();

    SStrCpy(m_szFolder, sizeof m_szFolder, szFolder);
    EOSSTS eossts = OpenOnce();
    for (uint32_t u32Pause = 1; eossts == EOSSTS_SHARING && u32Pause <= g_u32LastPause; u32Pause *= 2)
    {
        PlatSleep(u32Pause);
        eossts = OpenOnce();
    }
    if (eossts == EOSSTS_SUCCESS)
        return eossts;
    m_szFolder[0] = '\0';
    PlatSetLastError(PLAT_ERROR_NONE);
    OSLOG(OS_LOG_NOTE, "CreateFileW failed...%d 0x%x 0x%x 0x%x 0x%x <%s\\%s>", static_cast<int>(eossts), 0xC0000000u,
          g_u32Shared, static_cast<unsigned>(PLAT_DISPOSITION_OPENALWAYS), 0x80u, szFolder, OS_LOGFOLDERLOCK);
    return eossts;
}

// An exclusive open succeeds only for the last holder; the file is deleted when that handle closes.
void COsLogFolderLock::Release()
{
    if (!IsHeld())
        return;
    PlatClose(m_plathandle);
    m_plathandle = OpenQuietly(m_szFolder, PLAT_SHARE_NONE, PLAT_DISPOSITION_OPENEXISTING, PLAT_OPEN_DELETEONCLOSE);
    if (m_plathandle != PLAT_INVALID)
        PlatClose(m_plathandle);
    m_plathandle = PLAT_INVALID;
    m_szFolder[0] = '\0';
    PlatSetLastError(PLAT_ERROR_NONE);
}

bool COsLogFolderLock::IsHeldByOthers(const char* a_szFolder)
{
    const PlatHandle plathandle = OpenQuietly(a_szFolder, PLAT_SHARE_NONE, PLAT_DISPOSITION_OPENEXISTING, 0);
    const bool blFree = plathandle != PLAT_INVALID || OsFileStatus(PlatGetLastError()) == EOSSTS_NOTFOUND;
    if (plathandle != PLAT_INVALID)
        PlatClose(plathandle);
    PlatSetLastError(PLAT_ERROR_NONE);
    return !blFree;
}

// ------------------------------------------------------------------------------------------------------ deleting

// A link with the name of the lock file is not a lock.
static bool TakeAlone(COsFile& a_osfile, const char* a_szFolder)
{
    char szPath[OS_PATHSIZE];
    if (!LockPath(a_szFolder, szPath))
        return false;
    OsFileInfo osfileinfo;
    if (OsFileGetInfo(szPath, &osfileinfo) == EOSSTS_SUCCESS && osfileinfo.blLink)
        OsFileDelete(szPath, OS_FILETYPE_ANY, false, false);
    return a_osfile.Open(szPath, OS_FILEOPEN_TEMPORARY, OS_FILEACCESS_READWRITE, OS_FILESHARE_EXCLUSIVE) ==
           EOSSTS_SUCCESS;
}

// Log folders may be nested. The lock file of the walk's current folder is ignored.
static bool IsAnyHeldBelow(OsFileTree& a_osfiletree)
{
    const size_t sizetDepth = a_osfiletree.Depth();
    COsFile osfile;
    for (bool blHeld = false;;)
    {
        if (!blHeld && a_osfiletree.Next())
        {
            const bool blLockFile = !a_osfiletree.Enter() && a_osfiletree.Depth() > sizetDepth &&
                                    a_osfiletree.HasPath() && std::strcmp(a_osfiletree.Name(), OS_LOGFOLDERLOCK) == 0;
            blHeld = blLockFile && osfile.Open(a_osfiletree.Path(), OS_FILEOPEN_EXISTING, OS_FILEACCESS_READWRITE,
                                               OS_FILESHARE_EXCLUSIVE) == EOSSTS_SHARING;
        }
        else if (a_osfiletree.Depth() > sizetDepth)
        {
            a_osfiletree.Leave();
        }
        else
        {
            return blHeld;
        }
    }
}

bool OsLogFolderDelete(OsFileTree& a_osfiletree)
{
    COsFile osfileLock;
    if (!a_osfiletree.HasPath() || !TakeAlone(osfileLock, a_osfiletree.Path()))
        return false;
    if (!a_osfiletree.Enter())
    {
        OsFileTellFolderStays(a_osfiletree.Path());
        return false;
    }
    const bool blDeleted = !IsAnyHeldBelow(a_osfiletree) && a_osfiletree.DeleteAll(OS_LOGFOLDERLOCK);
    a_osfiletree.Leave();
    osfileLock.Close();
    return blDeleted && a_osfiletree.DeleteEntry();
}
