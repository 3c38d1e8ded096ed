// os_coslogstatus.h: the small status file in which each process records where its lines go and how many were lost, and
// each collector its port. Other programs of the same user read it, and may set the flags of a process's logger through
// it.
//
// The file is named after the process and is in a folder that other users cannot access. It is memory-mapped, so that
// updates need no system call and no thread. A process that cannot create it runs without. The file of a killed process
// is left behind; the recorded start time of the process identifies it as stale.
#pragma once

#include "os_types.h"

// Where a logger's lines go now.
enum EOSLOGWHERE : uint32_t
{
    OS_LOGWHERE_NOWHERE = 0,     // not started, off, or the last line could not be written
    OS_LOGWHERE_COLLECTOR = 1,   // to the collector
    OS_LOGWHERE_OWNFILE = 2,     // into a file that the process writes itself
};

// Why a line was lost.
enum EOSLOGLOST : uint32_t
{
    OS_LOGLOST_FILE = 0,      // the file or its folder could not be created or opened
    OS_LOGLOST_NOSPACE = 1,   // disk full or file size limit
    OS_LOGLOST_WRITE = 2,     // another write error
    OS_LOGLOST_THREADS = 3,   // more than 64 threads log
    OS_LOGLOST_MEMORY = 4,    // no memory for the line
    OS_LOGLOST_TIMEOUT = 5,   // the work before a first line took too long
    OS_LOGLOST_FORMAT = 6,    // format and values do not match
    OS_LOGLOST_LAST = 7,
};

// "folder or file cannot be written" and so on; "" for an invalid reason.
const char* OsLogLostText(EOSLOGLOST a_eosloglost);

// The state of a process's logger. Lines sent to a collector count as written: losses there are reported in the
// collector's own log and in the file. A line that a thread logs while it is inside the logger is dropped and not
// counted.
struct OsLogHealth
{
    EOSLOGWHERE eoslogwhere;
    uint32_t u32LastError;                // the number of the last error as in messages (plat_types.h); 0: none
    uint64_t u64Written;                  // lines, including those of headers
    uint64_t au64Lost[OS_LOGLOST_LAST];   // lines
    uint64_t u64LastErrorTime;            // 100 ns units since 1601-01-01 UTC
    char szLastErrorPath[OS_PATHSIZE];    // the file of the last error, "" if none
};
uint64_t OsLogLostSum(const OsLogHealth& a_osloghealth);

// Bits of a process's kind.
inline constexpr uint32_t OS_LOGSTATUS_LOGS = 1;
inline constexpr uint32_t OS_LOGSTATUS_COLLECTS = 2;

// The content of a status file.
struct OsLogStatus
{
    uint64_t u64ProcessId;
    uint64_t u64StartTime;              // PlatProcessStartTime of the process
    uint64_t u64Since;                  // when the file was created: 100 ns units since 1601-01-01 UTC
    uint64_t u64ProcessIdApplication;   // application of this, or of the used, collector; 0: none
    uint32_t u32Kind;
    uint32_t u32Flags;    // of the logger, currently in use
    int32_t i32Port;      // of a collector, or of the collector that a logger uses; 0: none
    int32_t i32Streams;   // connections of a collector; -1 if it is not one or the system cannot tell
    bool blRuns;          // the process is still running
    OsLogHealth osloghealth;
    char szProgram[OS_PATHSIZE];
    char szName[64];               // the unique name of the process
    char szLogFile[OS_PATHSIZE];   // "" if none
};

// Calls the procedure for each status file of this user, in no particular order; false ends the walk. With
// a_blRemoveStale the files of ended processes are removed after their call. EOSSTS_NOTFOUND when there is no folder of
// status files. Thread-safe; needs no start of the library, only OsCfgCommonInstall.
using OsLogStatusProc = bool (*)(void* a_pvContext, const OsLogStatus& a_oslogstatus);
EOSSTS OsLogStatusList(OsLogStatusProc a_oslogstatusproc, void* a_pvContext, bool a_blRemoveStale);

// Waits until the process of a status file has ended. EOSSTS_SUCCESS, or EOSSTS_TIMEOUT.
EOSSTS OsLogStatusWaitForEnd(const OsLogStatus& a_oslogstatus, uint32_t a_u32Milliseconds);

// Sets the flags of the logger in a running process of this user, from its next log call until its logger is restarted.
// EOSSTS_SUCCESS; EOSSTS_NOTFOUND when the process does not run or does not log; EOSSTS_ACCESSDENIED and EOSSTS_FAIL
// when its file cannot be opened.
EOSSTS OsLogStatusAskFlags(uint64_t a_u64ProcessId, uint32_t a_u32Flags);
