// os_coscfg_manage.cpp: looking after the log folders: the lock files that mark folders as in use, the log folders
// beside ours, and which of them go.
//
// Runs on a thread of its own, beside whatever other processes do in the same tree. A folder whose "log.lock" somebody
// holds is never touched; a link is never followed.
#include "os_coscfg_impl.h"

#include "os_cosfile.h"
#include "os_cosfile_paths.h"
#include "os_cosfile_system.h"
#include "os_cosspinlock.h"
#include "os_cosstring.h"
#include "os_costhread.h"
#include "os_log.h"
#include "os_new.h"
#include "os_scope.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

static constexpr char g_szSource[] = "os/source/os_coscfg";

static constexpr char g_szLockFile[] = "log.lock";
static constexpr int64_t g_i64GroupSeconds = 1800;   // folders that are no further apart belong to one run
static constexpr int64_t g_i64YoungSeconds = 60;     // a process that starts makes its folder before it locks it

// ------------------------------------------------------------------------------------------------------- the locks

static bool IsSameFolder(const char* a_szLeft, const char* a_szRight)
{
    char szLeft[OS_PATHSIZE];
    char szRight[OS_PATHSIZE];
    OsPathCopy(szLeft, sizeof szLeft, a_szLeft);
    OsPathCopy(szRight, sizeof szRight, a_szRight);
    OsPathRemoveTrailing(szLeft);
    OsPathRemoveTrailing(szRight);
    return std::strcmp(szLeft, szRight) == 0;
}

static bool LockPath(const char* a_szFolder, char (&a_szPath)[OS_PATHSIZE])
{
    OsPathCopy(a_szPath, sizeof a_szPath, a_szFolder);
    OsCfgPathJoin(a_szPath, {g_szLockFile});
    return *a_szPath != 0;
}

// Our own folder stays locked until the configuration goes, one that we only look after until it is released. A folder
// that is locked by this object already stays as it is.
void COsCfgImpl::LockLogFolder(const char* a_szLogFolder)
{
    COsFile*& posfileHeld = IsSameFolder(a_szLogFolder, m_szLogDirectory) ? m_posfileLock : m_posfileManaged;
    {
        const COsSpinGuard guard(&m_u64LockFiles);
        if (posfileHeld)
            return;
    }
    char szPath[OS_PATHSIZE];
    COsFile* posfile = OSMEMNEW(COsFile);
    const bool blOpen =
        posfile && LockPath(a_szLogFolder, szPath) &&
        posfile->Open(szPath, OS_FILEOPEN_TEMPORARY, OS_FILEACCESS_READWRITE, OS_FILESHARE_EXCLUSIVE) == EOSSTS_SUCCESS;
    if (blOpen)
    {
        const COsSpinGuard guard(&m_u64LockFiles);
        if (!posfileHeld)
            std::swap(posfileHeld, posfile);
    }
    OSMEMDELETE(posfile);
}

void COsCfgImpl::ReleaseManagedDirectory()
{
    COsFile* posfile = nullptr;
    {
        const COsSpinGuard guard(&m_u64LockFiles);
        std::swap(m_posfileManaged, posfile);
    }
    OSMEMDELETE(posfile);
}

// True for one that somebody holds, and for one that cannot be looked at.
static bool IsLocked(const char* a_szFolder)
{
    char szPath[OS_PATHSIZE];
    if (!LockPath(a_szFolder, szPath))
        return true;
    COsFile osfile;
    const EOSSTS eossts = osfile.Open(szPath, OS_FILEOPEN_EXISTING, OS_FILEACCESS_READWRITE, OS_FILESHARE_EXCLUSIVE);
    return eossts != EOSSTS_SUCCESS && eossts != EOSSTS_NOTFOUND;
}

// ------------------------------------------------------------------------------------------------ the log folders

namespace
{
constexpr int64_t OS_NOTIME = -1;

struct LogFolder
{
    std::string strPath;
    int64_t i64Seconds;   // when its process started, since 1970; OS_NOTIME when the name does not tell
};
}   // namespace

static int Field(const char* a_szDigits, size_t a_sizetOffset, size_t a_sizetDigits)
{
    int iValue = 0;
    for (size_t sizet = 0; sizet < a_sizetDigits; ++sizet)
        iValue = iValue * 10 + (a_szDigits[a_sizetOffset + sizet] - '0');
    return iValue;
}

// The time that the digits behind the last dot stand for: 20 of them, year to microseconds.
static int64_t TimeOfName(const char* a_szName)
{
    using namespace std::chrono;
    const char* const szDot = std::strrchr(a_szName, '.');
    const char* const szDigits = szDot ? szDot + 1 : a_szName;
    if (std::strspn(szDigits, "0123456789") != 20 || szDigits[20])
        return OS_NOTIME;
    const year_month_day date{year{Field(szDigits, 0, 4)}, month{static_cast<unsigned>(Field(szDigits, 4, 2))},
                              day{static_cast<unsigned>(Field(szDigits, 6, 2))}};
    const int iHour = Field(szDigits, 8, 2);
    const int iMinute = Field(szDigits, 10, 2);
    const int iSecond = Field(szDigits, 12, 2);
    if (!date.ok() || date.year() < year{1970} || iHour > 23 || iMinute > 59 || iSecond > 59)
        return OS_NOTIME;
    const sys_seconds sysseconds = sys_days{date} + hours{iHour} + minutes{iMinute} + seconds{iSecond};
    return sysseconds.time_since_epoch().count();
}

static int64_t Now()
{
    using namespace std::chrono;
    return duration_cast<seconds>(system_clock::now().time_since_epoch()).count();
}

// The log folders of a folder, as they are now. What is no plain folder is left out.
static std::vector<LogFolder> ListLogFolders(const char* a_szParent)
{
    std::vector<LogFolder> veclogfolder;
    char szPattern[OS_PATHSIZE];
    SStrCpy(szPattern, sizeof szPattern, a_szParent);
    OsCfgPathJoin(szPattern, {"log.*"});
    OsFileInfo osfileinfo;
    if (!*szPattern || OsFileFindFirst(szPattern, &osfileinfo) != EOSSTS_SUCCESS)
        return veclogfolder;
    const ScopeGuard closeSearch([&osfileinfo] { OsFileFindClose(&osfileinfo); });
    do
    {
        char szPath[OS_PATHSIZE];
        SStrCpy(szPath, sizeof szPath, a_szParent);
        OsCfgPathJoin(szPath, {osfileinfo.szName});
        if (osfileinfo.eosfiletype == OS_FILETYPE_FOLDER && !osfileinfo.blLink && *osfileinfo.szName && *szPath)
            veclogfolder.push_back({szPath, TimeOfName(osfileinfo.szName)});
    } while (OsFileFindNext(&osfileinfo) == EOSSTS_SUCCESS);
    return veclogfolder;
}

// A folder whose name tells no time is as old as its last change.
static bool IsYoung(const LogFolder& a_logfolder)
{
    int64_t i64Seconds = a_logfolder.i64Seconds;
    OsFileInfo osfileinfo;
    if (i64Seconds == OS_NOTIME && (OsFileGetInfo(a_logfolder.strPath.c_str(), &osfileinfo) != EOSSTS_SUCCESS ||
                                    OsTimeToSeconds(&osfileinfo.ostimerecordWritten, &i64Seconds) != EOSSTS_SUCCESS))
        return true;
    return Now() - i64Seconds < g_i64YoungSeconds;
}

static void RemoveIfEmpty(const LogFolder& a_logfolder)
{
    char szLock[OS_PATHSIZE];
    if (LockPath(a_logfolder.strPath.c_str(), szLock) && !OsFileExists(szLock) && !IsYoung(a_logfolder))
        OsFileRemoveEmptyTree(a_logfolder.strPath.c_str());
}

// The folders that are older than the newest a_lRuns runs. The newest folder of a run starts it, and what started
// within half an hour before belongs to it. Folders without a time never expire.
static std::vector<LogFolder> Expired(std::vector<LogFolder> a_veclogfolder, long a_lRuns)
{
    std::erase_if(a_veclogfolder, [](const LogFolder& a_logfolder) { return a_logfolder.i64Seconds == OS_NOTIME; });
    std::sort(a_veclogfolder.begin(), a_veclogfolder.end(),
              [](const LogFolder& a_left, const LogFolder& a_right) { return a_left.i64Seconds > a_right.i64Seconds; });
    long lRuns = 0;
    int64_t i64RunStart = 0;
    const auto itExpired =
        std::find_if(a_veclogfolder.begin(), a_veclogfolder.end(), [&](const LogFolder& a_logfolder) {
            if (lRuns > 0 && i64RunStart - a_logfolder.i64Seconds <= g_i64GroupSeconds)
                return false;
            i64RunStart = a_logfolder.i64Seconds;
            return ++lRuns > a_lRuns;
        });
    a_veclogfolder.erase(a_veclogfolder.begin(), itExpired);
    return a_veclogfolder;
}

// ---------------------------------------------------------------------------------------------------- the management

void COsCfgImpl::ManageLogDirectories(const char* a_szLogFolder, const COsThread* a_posthread)
{
    if (!a_szLogFolder || !*a_szLogFolder)
        return;
    LockLogFolder(a_szLogFolder);

    // Without a value nothing says what may go.
    const char* const szBackup = m_oscfgtable.Get(OS_CFGSECTION_DSIDENTITY, OS_CFGTAG_LOGBACKUP);
    const long lBackup = std::strtol(szBackup, nullptr, 0);
    if (!*szBackup || lBackup < 0)
        return;

    char szParent[OS_PATHSIZE];
    OsPathCopy(szParent, sizeof szParent, a_szLogFolder);
    OsPathRemoveTrailing(szParent);
    size_t sizetParent = 0;
    OsPathSplit(szParent, &sizetParent, nullptr);
    szParent[sizetParent > 0 || *szParent != '\\' ? sizetParent : 1] = 0;

    const auto mayGo = [&](const LogFolder& a_logfolder) {
        const bool blStop = a_posthread && a_posthread->StopState() != 1;
        return !blStop && !IsSameFolder(a_logfolder.strPath.c_str(), a_szLogFolder) &&
               !IsSameFolder(a_logfolder.strPath.c_str(), m_szLogDirectory);
    };
    for (const LogFolder& logfolder : ListLogFolders(szParent))
    {
        if (mayGo(logfolder))
            RemoveIfEmpty(logfolder);
    }
    for (const LogFolder& logfolder : Expired(ListLogFolders(szParent), lBackup))
    {
        if (mayGo(logfolder) && !IsYoung(logfolder) && !IsLocked(logfolder.strPath.c_str()))
            OsFileRemoveTree(logfolder.strPath.c_str());
    }
}
