// lcctl_process.h: the processes of the user that log or collect, as their status files tell (os_coslogstatus.h).
#pragma once

#include "os_coslogstatus.h"

#include <chrono>
#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

// One running process.
struct LcctlProcess
{
    uint64_t u64ProcessId = 0;
    uint64_t u64StartTime = 0;   // tells it from a later process with its id
    bool blLogs = false;         // it has a logger, with a log file
    bool blCollects = false;     // it takes log streams of others
    std::string strProgram;      // the program file; paths are in this system's form
    std::string strName;         // the unique name of what logs, "" for a mere collector
    std::string strLog;          // the log file, "" for none
    uint32_t u32Flags = 0;       // of the logger, now
    OsLogHealth osloghealth{};
    int iPort = 0;                          // of the collector: where it listens, or which one the logger uses
    uint64_t u64ProcessIdApplication = 0;   // whom that collector serves, 0 without one
    int iStreams = -1;                      // connections of a collector; -1: it is none, or the system does not tell
    std::time_t timeSince = 0;
};

// Those that run, the oldest first. What processes that have gone left behind is removed on the way.
std::vector<LcctlProcess> LcctlProcesses();

// Waits until the process has ended. False when it still runs.
bool LcctlWaitForEnd(const LcctlProcess& a_lcctlprocess, std::chrono::milliseconds a_milliseconds);

// The log folder of a process (its log file without the name), "" for none.
std::string LcctlFolderOf(const LcctlProcess& a_lcctlprocess);

// A path of the library in the form of this system, for people to paste.
std::string LcctlNativePath(const char* a_szPath);

// "collector", "own file", "nowhere"; "disk full" and so on.
const char* LcctlWhereText(EOSLOGWHERE a_eoslogwhere);

// For people, in local time: "2026-11-23 14:01:22". For JSON, in UTC: "2026-11-23T14:01:22Z".
std::string LcctlLocalTime(std::time_t a_time);
std::string LcctlUtcTime(std::time_t a_time);
