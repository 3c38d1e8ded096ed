// lcctl_process.h: the user's processes that log or collect, from their status files (os_coslogstatus.h).
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
    uint64_t u64StartTime = 0;   // distinguishes it from a later process with the same id
    bool blLogs = false;         // it has a logger with a log file
    bool blCollects = false;     // it receives log streams
    std::string strProgram;      // the program file; paths are in this system's form
    std::string strName;         // the logger's unique name, "" for a collector without a log
    std::string strLog;          // the log file, "" for none
    uint32_t u32Flags = 0;       // the logger's current flags
    OsLogHealth osloghealth{};
    int iPort = 0;                          // the collector's port, or that of the collector the logger uses
    uint64_t u64ProcessIdApplication = 0;   // the application that the collector serves, 0 for none
    int iStreams = -1;                      // connections of a collector; -1: not a collector, or unknown
    std::time_t timeSince = 0;
};

// The running ones, oldest first. Also removes stale status files.
std::vector<LcctlProcess> LcctlProcesses();

// Waits until the process has ended. False when it still runs.
bool LcctlWaitForEnd(const LcctlProcess& a_lcctlprocess, std::chrono::milliseconds a_milliseconds);

// The folder of a process's log file, "" for none.
std::string LcctlFolderOf(const LcctlProcess& a_lcctlprocess);

// Converts a path of the library to this system's form, for users to paste.
std::string LcctlNativePath(const char* a_szPath);

// "collector", "own file", "nowhere"; "disk full" and so on.
const char* LcctlWhereText(EOSLOGWHERE a_eoslogwhere);

// For users, in local time: "2026-11-23 14:01:22". For JSON, in UTC: "2026-11-23T14:01:22Z".
std::string LcctlLocalTime(std::time_t a_time);
std::string LcctlUtcTime(std::time_t a_time);
