// os_coslogstatus.h: the small file in which each process tells where its lines go and how many were lost, and each
// collector its port. Other programs of the same user read it, and may ask a process in it for other flags of its
// logger.
//
// The file is named after the process and lies in a folder that no other user can look into. It is mapped: to keep it
// up to date costs no system call, and no thread. A process that cannot make it goes without. That of a killed process
// stays behind and is recognised by the time at which its process was started.
#pragma once

#include "os_types.h"

// Where the lines of a logger go now.
enum EOSLOGWHERE : uint32_t
{
    OS_LOGWHERE_NOWHERE = 0,     // not started, off, or the last line could not be written
    OS_LOGWHERE_COLLECTOR = 1,   // to the collector
    OS_LOGWHERE_OWNFILE = 2,     // into a file that the process writes itself
};

// Why a line was lost.
enum EOSLOGLOST : uint32_t
{
    OS_LOGLOST_FILE = 0,      // the file or its folder could not be made or opened
    OS_LOGLOST_NOSPACE = 1,   // the disk or a limit of the file's size
    OS_LOGLOST_WRITE = 2,     // the system refused it for another reason
    OS_LOGLOST_THREADS = 3,   // more than 64 threads log
    OS_LOGLOST_MEMORY = 4,    // no memory for the line
    OS_LOGLOST_TIMEOUT = 5,   // what precedes a first line took too long
    OS_LOGLOST_FORMAT = 6,    // the format and its values do not fit
    OS_LOGLOST_LAST = 7,
};

// "folder or file cannot be written" and so on; "" for what is no reason.
const char* OsLogLostText(EOSLOGLOST a_eosloglost);

// How the logger of a process fares. Lines that a collector took count as written: what becomes of them there is told
// in its own log and in the file. A line that a thread logs while it is inside the logger is dropped without being
// counted.
struct OsLogHealth
{
    EOSLOGWHERE eoslogwhere;
    uint32_t u32LastError;   // the number that the system's refusal has in messages (plat_types.h); 0: there was none
    uint64_t u64Written;     // lines, with those of headers
    uint64_t au64Lost[OS_LOGLOST_LAST];   // lines
    uint64_t u64LastErrorTime;            // 100 ns units since 1601-01-01 UTC
    char szLastErrorPath[OS_PATHSIZE];    // of the file that was refused, "" for none
};
uint64_t OsLogLostSum(const OsLogHealth& a_osloghealth);

// Bits of a process's kind.
inline constexpr uint32_t OS_LOGSTATUS_LOGS = 1;
inline constexpr uint32_t OS_LOGSTATUS_COLLECTS = 2;

// What a status file says.
struct OsLogStatus
{
    uint64_t u64ProcessId;
    uint64_t u64StartTime;              // PlatProcessStartTime of the process
    uint64_t u64Since;                  // when the file was made: 100 ns units since 1601-01-01 UTC
    uint64_t u64ProcessIdApplication;   // whom a collector serves, whose collector a logger uses; 0: none
    uint32_t u32Kind;
    uint32_t u32Flags;    // of the logger, now
    int32_t i32Port;      // where a collector listens, or that of the collector that a logger uses; 0: none
    int32_t i32Streams;   // connections of a collector; -1 for none, and where the system does not tell
    bool blRuns;          // the process that made it
    OsLogHealth osloghealth;
    char szProgram[OS_PATHSIZE];
    char szName[64];               // the unique name of what logs
    char szLogFile[OS_PATHSIZE];   // "" for none
};

// Calls the procedure for each status file of this process's user, in no order. It returns false to end the walk.
// Files of processes that have ended are removed when a_blRemoveStale asks for it, after the call. EOSSTS_NOTFOUND when
// there is no folder for them. Any thread; needs no start of the library but OsCfgCommonInstall.
using OsLogStatusProc = bool (*)(void* a_pvContext, const OsLogStatus& a_oslogstatus);
EOSSTS OsLogStatusList(OsLogStatusProc a_oslogstatusproc, void* a_pvContext, bool a_blRemoveStale);

// Waits until the process of a status has ended. EOSSTS_SUCCESS, or EOSSTS_TIMEOUT.
EOSSTS OsLogStatusWaitForEnd(const OsLogStatus& a_oslogstatus, uint32_t a_u32Milliseconds);

// Asks the logger of a running process of this user for other flags. It has them from its next log call on, until it
// is started again. EOSSTS_SUCCESS; EOSSTS_NOTFOUND for a process that does not run or does not log;
// EOSSTS_ACCESSDENIED and EOSSTS_FAIL when its file cannot be opened.
EOSSTS OsLogStatusAskFlags(uint64_t a_u64ProcessId, uint32_t a_u32Flags);
