// os_coscfg_manage.cpp: holds the lock of this process's log folder, and removes old log folders beside it or beside
// another process's log folder.
//
// Runs on its own thread, concurrently with other processes in the same tree. A folder whose "log.lock" is locked is
// never touched; links are not followed.
#include "os_coscfg_impl.h"

#include "os_cosfile_system.h"
#include "os_cosfile_tree.h"
#include "os_cospath.h"
#include "os_cosstring.h"
#include "os_costhread.h"

#include "plat_wait.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

static constexpr int g_iLockTries = 20;
static constexpr uint32_t g_u32LockPause = 100;      // ms
static constexpr int64_t g_i64GroupSeconds = 1800;   // folders that are no further apart belong to one run
static constexpr int64_t g_i64YoungSeconds = 60;     // a process creates its folder before it locks it

// --------------------------------------------------------------------------------------- this process's log folder

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

static bool IsAskedToStop(const COsThread* a_posthread)
{
    return a_posthread && a_posthread->StopState() != 1;
}

// The lock is held until the configuration is destroyed. Retries while another process holds the lock to delete the
// folder.
void COsCfgImpl::LockOwnFolder(const COsThread* a_posthread)
{
    char szFolder[OS_PATHSIZE];
    if (!OsLogFolderOf(m_szLogDirectory, szFolder))
        return;
    const std::lock_guard<std::mutex> guard(m_mutexLogFolder);
    for (int iTry = 1; m_oslogfolderlock.Acquire(szFolder) == EOSSTS_SHARING && iTry < g_iLockTries; ++iTry)
    {
        if (IsAskedToStop(a_posthread))
            return;
        PlatSleep(g_u32LockPause);
    }
}

// ------------------------------------------------------------------------------------------------ the log folders

namespace
{
constexpr int64_t OS_NOTIME = -1;

struct LogFolder
{
    std::string strPath;
    int64_t i64Seconds;   // when its process started, since 1970; OS_NOTIME when the name has no time
};
}   // namespace

static int Field(const char* a_szDigits, size_t a_sizetOffset, size_t a_sizetDigits)
{
    int iValue = 0;
    for (size_t sizet = 0; sizet < a_sizetDigits; ++sizet)
        iValue = iValue * 10 + (a_szDigits[a_sizetOffset + sizet] - '0');
    return iValue;
}

// Parses the time in the digits behind the last dot: 20 digits, year to microseconds.
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

// True if the entry read last is a log folder; false for links and files.
static bool IsAtLogFolder(const OsFileTree& a_osfiletree)
{
    return a_osfiletree.IsFolder() && a_osfiletree.HasPath() && StrStartsWith(a_osfiletree.Name(), OS_LOGFOLDERPREFIX);
}

// Lists the log folders in a folder.
static std::vector<LogFolder> ListLogFolders(const char* a_szParent)
{
    std::vector<LogFolder> veclogfolder;
    OsFileTree osfiletree(false);
    if (osfiletree.Open(a_szParent) != EOSSTS_SUCCESS)
        return veclogfolder;
    while (osfiletree.Next())
    {
        if (IsAtLogFolder(osfiletree))
            veclogfolder.push_back({osfiletree.Path(), TimeOfName(osfiletree.Name())});
    }
    return veclogfolder;
}

// If the name has no time, the time of the last change counts.
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
    const std::string strLock = a_logfolder.strPath + "\\" + OS_LOGFOLDERLOCK;
    if (!OsFileExists(strLock.c_str()))
        OsFileRemoveEmptyTree(a_logfolder.strPath.c_str());
}

// The folders older than the newest a_lRuns runs. A run is its newest folder and all folders that started within half
// an hour before it. Folders without a time or with a future time are ignored and never expire.
static std::vector<LogFolder> Expired(std::vector<LogFolder> a_veclogfolder, long a_lRuns)
{
    std::erase_if(a_veclogfolder, [i64Now = Now()](const LogFolder& a_logfolder) {
        return a_logfolder.i64Seconds == OS_NOTIME || a_logfolder.i64Seconds > i64Now;
    });
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

// The folder around a log folder.
static void CopyParent(char (&a_szParent)[OS_PATHSIZE], const char* a_szLogFolder)
{
    OsPathCopy(a_szParent, sizeof a_szParent, a_szLogFolder);
    OsPathRemoveTrailing(a_szParent);
    if (OsPathFolder(a_szParent) && !*a_szParent)
        SStrCpy(a_szParent, sizeof a_szParent, "\\");
}

void COsCfgImpl::ManageLogDirectories(const char* a_szLogFolder, const COsThread* a_posthread)
{
    if (!a_szLogFolder || !*a_szLogFolder)
        return;
    LockOwnFolder(a_posthread);

    // Without a value there is no limit, so nothing is removed.
    const char* const szBackup = m_oscfgtable.Get(OS_CFGSECTION_DSIDENTITY, OS_CFGTAG_LOGBACKUP);
    const long lBackup = std::strtol(szBackup, nullptr, 0);
    if (!*szBackup || lBackup < 0)
        return;

    char szParent[OS_PATHSIZE];
    CopyParent(szParent, a_szLogFolder);
    const auto mayGo = [&](const LogFolder& a_logfolder) {
        return !IsAskedToStop(a_posthread) && !IsSameFolder(a_logfolder.strPath.c_str(), a_szLogFolder) &&
               !IsSameFolder(a_logfolder.strPath.c_str(), m_szLogDirectory) && !IsYoung(a_logfolder);
    };
    for (const LogFolder& logfolder : ListLogFolders(szParent))
    {
        if (mayGo(logfolder))
            RemoveIfEmpty(logfolder);
    }

    const std::vector<LogFolder> veclogfolder = Expired(ListLogFolders(szParent), lBackup);
    OsFileTree osfiletree(false);
    if (osfiletree.Open(szParent) != EOSSTS_SUCCESS)
        return;
    const auto isNext = [&](const LogFolder& a_logfolder) {
        return a_logfolder.strPath == osfiletree.Path() && mayGo(a_logfolder);
    };
    while (osfiletree.Next())
    {
        if (IsAtLogFolder(osfiletree) && std::any_of(veclogfolder.begin(), veclogfolder.end(), isNext))
            OsLogFolderDelete(osfiletree);
    }
}
