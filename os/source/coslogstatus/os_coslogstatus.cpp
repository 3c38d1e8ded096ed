// os_coslogstatus.cpp: the folder of the status files; reading those of other processes, removing stale ones,
// requesting flags.
#include "os_coslogstatus.h"

#include "os_cfg.h"
#include "os_cosfile_system.h"
#include "os_coslogstatus_record.h"
#include "os_cospath.h"
#include "os_cosstring.h"
#include "os_scope.h"

#include "plat_file.h"
#include "plat_process.h"
#include "plat_socket.h"
#include "plat_system.h"
#include "plat_user.h"
#include "plat_wait.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <numeric>
#include <string_view>

static constexpr uint32_t g_u32Share = PLAT_SHARE_READ | PLAT_SHARE_WRITE | PLAT_SHARE_DELETE;
static constexpr int g_iReadTries = 100;

const char* OsLogLostText(EOSLOGLOST a_eosloglost)
{
    static constexpr const char* g_aszText[] = {
        "folder or file cannot be written", "no room on the disk", "write refused", "more than 64 threads", "no memory",
        "first line took too long",         "bad format",
    };
    static_assert(std::size(g_aszText) == OS_LOGLOST_LAST);
    return a_eosloglost < OS_LOGLOST_LAST ? g_aszText[a_eosloglost] : "";
}

uint64_t OsLogLostSum(const OsLogHealth& a_osloghealth)
{
    return std::accumulate(std::begin(a_osloghealth.au64Lost), std::end(a_osloghealth.au64Lost), uint64_t{0});
}

// ----------------------------------------------------------------------------------------------------------- paths

// Where several users share the parent folder, each user has a separate one.
void OsLogStatusFolder(char* a_szFolder)
{
    char szName[32];
    if (OsCfgGetPath(OS_PATH_WRITEABLE_FOLDER_LOGCOLLECTOR, a_szFolder, OS_PATHSIZE) != EOSSTS_SUCCESS || !*a_szFolder)
    {
        *a_szFolder = 0;
        return;
    }
    SStrPrintf(szName, sizeof szName, "status.%llu", static_cast<unsigned long long>(PlatUserId()));
    OsPathAppend(a_szFolder, OS_PATHSIZE, szName);
}

void OsLogStatusPath(char* a_szPath, uint64_t a_u64ProcessId)
{
    char szName[64];
    OsLogStatusFolder(a_szPath);
    if (!*a_szPath)
        return;
    SStrPrintf(szName, sizeof szName, "%llu%s", static_cast<unsigned long long>(a_u64ProcessId), OS_LOGSTATUS_SUFFIX);
    OsPathAppend(a_szPath, OS_PATHSIZE, szName);
}

// --------------------------------------------------------------------------------------------------------- reading

static PlatHandle Open(uint64_t a_u64ProcessId, uint32_t a_u32Access)
{
    char szPath[OS_PATHSIZE];
    char16_t wszPath[OS_WIDEPATHSIZE];
    OsLogStatusPath(szPath, a_u64ProcessId);
    if (!*szPath || !OsPathToSystem(wszPath, OS_WIDEPATHSIZE, szPath))
        return PLAT_INVALID;
    return PlatFileOpen(wszPath, a_u32Access, g_u32Share, PLAT_DISPOSITION_OPENEXISTING, PLAT_OPEN_OWNPLACE);
}

// Retries while the texts of the record are being changed.
static bool ReadRecord(PlatHandle a_plathandle, OsLogStatusRecord& a_oslogstatusrecord)
{
    const auto turn = [&] { return a_oslogstatusrecord.u32Turn.load(std::memory_order_relaxed); };
    uint32_t u32TurnBefore = 1;
    for (int iTry = 0; iTry < g_iReadTries; ++iTry)
    {
        size_t sizetRead = 0;
        if (!PlatFileSeek(a_plathandle, PLAT_SEEK_START, 0, nullptr) ||
            !PlatFileRead(a_plathandle, static_cast<void*>(&a_oslogstatusrecord), sizeof a_oslogstatusrecord,
                          &sizetRead) ||
            sizetRead != sizeof a_oslogstatusrecord)
            return false;
        if (u32TurnBefore % 2 == 0 && turn() == u32TurnBefore)
            break;
        u32TurnBefore = turn();
    }
    return std::memcmp(a_oslogstatusrecord.achMagic, OS_LOGSTATUS_MAGIC, sizeof OS_LOGSTATUS_MAGIC) == 0 &&
           a_oslogstatusrecord.u32Version == OS_LOGSTATUS_VERSION &&
           a_oslogstatusrecord.u32Size == sizeof(OsLogStatusRecord);
}

template <size_t Size>
static void CopyText(char (&a_szText)[Size], const char (&a_achText)[Size])
{
    std::memcpy(a_szText, a_achText, Size);
    a_szText[Size - 1] = 0;
}

static int32_t CountStreams(int32_t a_i32Port)
{
    uint32_t u32Count = 0;
    return PlatSocketCountConnections(static_cast<uint16_t>(a_i32Port), &u32Count) ? static_cast<int32_t>(u32Count)
                                                                                   : -1;
}

static void Take(const OsLogStatusRecord& a_oslogstatusrecord, OsLogStatus& a_oslogstatus)
{
    a_oslogstatus.u64ProcessId = a_oslogstatusrecord.u64ProcessId;
    a_oslogstatus.u64StartTime = a_oslogstatusrecord.u64StartTime;
    a_oslogstatus.u64Since = a_oslogstatusrecord.u64Since;
    a_oslogstatus.u64ProcessIdApplication = a_oslogstatusrecord.u64ProcessIdApplication;
    a_oslogstatus.u32Kind = a_oslogstatusrecord.u32Kind;
    a_oslogstatus.u32Flags = a_oslogstatusrecord.u32Flags;
    a_oslogstatus.i32Port = a_oslogstatusrecord.i32Port;
    a_oslogstatus.i32Streams = a_oslogstatus.u32Kind & OS_LOGSTATUS_COLLECTS ? CountStreams(a_oslogstatus.i32Port) : -1;
    CopyText(a_oslogstatus.szProgram, a_oslogstatusrecord.szProgram);
    CopyText(a_oslogstatus.szName, a_oslogstatusrecord.szName);
    CopyText(a_oslogstatus.szLogFile, a_oslogstatusrecord.szLogFile);

    OsLogHealth& osloghealth = a_oslogstatus.osloghealth;
    const uint32_t u32Where = a_oslogstatusrecord.u32Where;
    osloghealth.eoslogwhere =
        u32Where <= OS_LOGWHERE_OWNFILE ? static_cast<EOSLOGWHERE>(u32Where) : OS_LOGWHERE_NOWHERE;
    osloghealth.u64Written = a_oslogstatusrecord.oslogstatuscounts.u64Written;
    std::copy(std::begin(a_oslogstatusrecord.oslogstatuscounts.au64Lost),
              std::end(a_oslogstatusrecord.oslogstatuscounts.au64Lost), osloghealth.au64Lost);
    osloghealth.u32LastError = a_oslogstatusrecord.u32LastError;
    osloghealth.u64LastErrorTime = a_oslogstatusrecord.u64LastErrorTime;
    CopyText(osloghealth.szLastErrorPath, a_oslogstatusrecord.szLastErrorPath);
}

// Reads the status file of a process. False when it is invalid, for example still being written; a_blRuns is set even
// then.
static bool Read(uint64_t a_u64ProcessId, OsLogStatus& a_oslogstatus, bool& a_blRuns)
{
    uint64_t u64StartTime = 0;
    OsLogStatusRecord oslogstatusrecord = {};
    a_blRuns = PlatProcessStartTime(a_u64ProcessId, &u64StartTime);
    const PlatHandle plathandle = Open(a_u64ProcessId, PLAT_ACCESS_READ);
    if (plathandle == PLAT_INVALID)
        return false;
    const ScopeGuard close([plathandle] { PlatClose(plathandle); });
    if (!ReadRecord(plathandle, oslogstatusrecord) || oslogstatusrecord.u64ProcessId != a_u64ProcessId)
        return false;
    Take(oslogstatusrecord, a_oslogstatus);
    a_blRuns = a_blRuns && u64StartTime == oslogstatusrecord.u64StartTime;
    a_oslogstatus.blRuns = a_blRuns;
    return true;
}

// ------------------------------------------------------------------------------------------------------------- list

// Parses the process id from a file name; 0 for another name.
static uint64_t ProcessIdOf(std::string_view a_strviewName)
{
    uint64_t u64ProcessId = 0;
    const char* const pchEnd = a_strviewName.data() + a_strviewName.size();
    const auto [pchBehind, errc] = std::from_chars(a_strviewName.data(), pchEnd, u64ProcessId);
    return errc == std::errc{} && std::string_view(pchBehind, pchEnd) == OS_LOGSTATUS_SUFFIX ? u64ProcessId : 0;
}

static bool Visit(const char* a_szName, OsLogStatusProc a_oslogstatusproc, void* a_pvContext, bool a_blRemoveStale)
{
    const uint64_t u64ProcessId = ProcessIdOf(a_szName);
    OsLogStatus oslogstatus = {};
    bool blRuns = true;
    if (u64ProcessId == 0)
        return true;
    const bool blGoOn =
        !Read(u64ProcessId, oslogstatus, blRuns) || !a_oslogstatusproc || a_oslogstatusproc(a_pvContext, oslogstatus);
    if (blRuns || !a_blRemoveStale)
        return blGoOn;
    char szPath[OS_PATHSIZE];
    OsLogStatusPath(szPath, u64ProcessId);
    if (*szPath)
        OsFileDelete(szPath, OS_FILETYPE_ANY, false, false);
    return blGoOn;
}

EOSSTS OsLogStatusList(OsLogStatusProc a_oslogstatusproc, void* a_pvContext, bool a_blRemoveStale)
{
    char szPattern[OS_PATHSIZE];
    OsLogStatusFolder(szPattern);
    if (!*szPattern || !OsFileExists(szPattern))
        return EOSSTS_NOTFOUND;
    OsPathAppend(szPattern, sizeof szPattern, "*");
    OsFileInfo osfileinfo;
    if (OsFileFindFirst(szPattern, &osfileinfo) != EOSSTS_SUCCESS)
        return EOSSTS_SUCCESS;
    while (Visit(osfileinfo.szName, a_oslogstatusproc, a_pvContext, a_blRemoveStale) &&
           OsFileFindNext(&osfileinfo) == EOSSTS_SUCCESS)
    {
    }
    OsFileFindClose(&osfileinfo);
    return EOSSTS_SUCCESS;
}

// The process id may have been reused: the start time is checked after the process was opened.
EOSSTS OsLogStatusWaitForEnd(const OsLogStatus& a_oslogstatus, uint32_t a_u32Milliseconds)
{
    uint64_t u64StartTime = 0;
    const PlatHandle plathandle = PlatProcessOpen(a_oslogstatus.u64ProcessId);
    if (plathandle == PLAT_INVALID)
        return EOSSTS_SUCCESS;
    const ScopeGuard close([plathandle] { PlatClose(plathandle); });
    const bool blRuns =
        PlatProcessStartTime(a_oslogstatus.u64ProcessId, &u64StartTime) && u64StartTime == a_oslogstatus.u64StartTime;
    return blRuns && PlatWaitAny(&plathandle, 1, a_u32Milliseconds) == PLAT_WAIT_TIMEOUT ? EOSSTS_TIMEOUT
                                                                                         : EOSSTS_SUCCESS;
}

// ------------------------------------------------------------------------------------------------------------ flags

EOSSTS OsLogStatusAskFlags(uint64_t a_u64ProcessId, uint32_t a_u32Flags)
{
    OsLogStatus oslogstatus = {};
    bool blRuns = false;
    if (!Read(a_u64ProcessId, oslogstatus, blRuns) || !blRuns || !(oslogstatus.u32Kind & OS_LOGSTATUS_LOGS))
        return EOSSTS_NOTFOUND;
    const PlatHandle plathandle = Open(a_u64ProcessId, PLAT_ACCESS_READ | PLAT_ACCESS_WRITE);
    if (plathandle == PLAT_INVALID)
        return OsFileStatus(PlatGetLastError());
    const ScopeGuard close([plathandle] { PlatClose(plathandle); });
    size_t sizetView = OS_LOGSTATUS_FILESIZE;
    void* const pvView = PlatMappingView(plathandle, 0, true, &sizetView);
    if (!pvView)
        return EOSSTS_FAIL;
    PlatMappingGuard(pvView, sizetView);
    std::atomic<uint64_t>& u64Wish = static_cast<OsLogStatusRecord*>(pvView)->u64Wish;
    u64Wish.store(((u64Wish.load() >> 32) + 1) << 32 | a_u32Flags);
    const bool blWhole = PlatMappingUnguard();
    PlatMappingRelease(pvView, sizetView);
    return blWhole ? EOSSTS_SUCCESS : EOSSTS_FAIL;
}
