// lcctl_process.cpp: reading the status files; formatting paths and times for users.
#include "lcctl_process.h"

#include "lcctl_find.h"

#include "os_coscfg.h"

#include <algorithm>

static constexpr uint64_t g_u64UnitsPerSecond = 10'000'000;   // of the library's clock
static constexpr uint64_t g_u64SecondsFrom1601To1970 = 11'644'473'600;

static LcctlProcess Describe(const OsLogStatus& a_oslogstatus)
{
    LcctlProcess lcctlprocess;
    lcctlprocess.u64ProcessId = a_oslogstatus.u64ProcessId;
    lcctlprocess.u64StartTime = a_oslogstatus.u64StartTime;
    lcctlprocess.blLogs = (a_oslogstatus.u32Kind & OS_LOGSTATUS_LOGS) != 0;
    lcctlprocess.blCollects = (a_oslogstatus.u32Kind & OS_LOGSTATUS_COLLECTS) != 0;
    lcctlprocess.strProgram = LcctlNativePath(a_oslogstatus.szProgram);
    lcctlprocess.strName = a_oslogstatus.szName;
    lcctlprocess.strLog = LcctlNativePath(a_oslogstatus.szLogFile);
    lcctlprocess.u32Flags = a_oslogstatus.u32Flags;
    lcctlprocess.osloghealth = a_oslogstatus.osloghealth;
    lcctlprocess.iPort = a_oslogstatus.i32Port;
    lcctlprocess.u64ProcessIdApplication = a_oslogstatus.u64ProcessIdApplication;
    lcctlprocess.iStreams = a_oslogstatus.i32Streams;
    lcctlprocess.timeSince =
        static_cast<std::time_t>(a_oslogstatus.u64Since / g_u64UnitsPerSecond - g_u64SecondsFrom1601To1970);
    return lcctlprocess;
}

std::vector<LcctlProcess> LcctlProcesses()
{
    std::vector<LcctlProcess> veclcctlprocess;
    OsCfgCommonInstall();
    OsLogStatusList(
        [](void* a_pvContext, const OsLogStatus& a_oslogstatus) {
            if (a_oslogstatus.blRuns)
                static_cast<std::vector<LcctlProcess>*>(a_pvContext)->push_back(Describe(a_oslogstatus));
            return true;
        },
        &veclcctlprocess, true);
    std::stable_sort(veclcctlprocess.begin(), veclcctlprocess.end(), [](const auto& a_left, const auto& a_right) {
        return a_left.timeSince != a_right.timeSince ? a_left.timeSince < a_right.timeSince
                                                     : a_left.u64ProcessId < a_right.u64ProcessId;
    });
    return veclcctlprocess;
}

bool LcctlWaitForEnd(const LcctlProcess& a_lcctlprocess, std::chrono::milliseconds a_milliseconds)
{
    OsLogStatus oslogstatus{};
    oslogstatus.u64ProcessId = a_lcctlprocess.u64ProcessId;
    oslogstatus.u64StartTime = a_lcctlprocess.u64StartTime;
    const auto count = std::max<std::chrono::milliseconds::rep>(a_milliseconds.count(), 0);
    return OsLogStatusWaitForEnd(oslogstatus, static_cast<uint32_t>(count)) == EOSSTS_SUCCESS;
}

std::string LcctlFolderOf(const LcctlProcess& a_lcctlprocess)
{
    const size_t sizetSeparator = a_lcctlprocess.strLog.rfind('/');
    return sizetSeparator == std::string::npos ? "" : a_lcctlprocess.strLog.substr(0, sizetSeparator);
}

std::string LcctlNativePath(const char* a_szPath)
{
    return LcctlHostPath(a_szPath).string();
}

const char* LcctlWhereText(EOSLOGWHERE a_eoslogwhere)
{
    switch (a_eoslogwhere)
    {
    case OS_LOGWHERE_COLLECTOR:
        return "collector";
    case OS_LOGWHERE_OWNFILE:
        return "own file";
    case OS_LOGWHERE_NOWHERE:
        break;
    }
    return "nowhere";
}

static std::string Formatted(const std::tm* a_ptm, const char* a_szFormat)
{
    char szTime[64] = "";
    return a_ptm && std::strftime(szTime, sizeof szTime, a_szFormat, a_ptm) > 0 ? szTime : "?";
}

std::string LcctlLocalTime(std::time_t a_time)
{
    return Formatted(std::localtime(&a_time), "%Y-%m-%d %H:%M:%S");
}

std::string LcctlUtcTime(std::time_t a_time)
{
    return Formatted(std::gmtime(&a_time), "%Y-%m-%dT%H:%M:%SZ");
}
