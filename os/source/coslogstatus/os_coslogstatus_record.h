// os_coslogstatus_record.h: a status file as it lies on the disk and in memory.
//
// Who reads it may find a text that is just being changed: its turn is odd then, or another one afterwards. Nothing
// that is in a file is believed without a look.
#pragma once

#include "os_coslogstatus.h"

#include <atomic>

inline constexpr char OS_LOGSTATUS_MAGIC[8] = {'l', 'c', 's', 't', 'a', 't', 'u', 's'};
inline constexpr uint32_t OS_LOGSTATUS_VERSION = 1;
inline constexpr size_t OS_LOGSTATUS_FILESIZE = 4096;
inline constexpr char OS_LOGSTATUS_SUFFIX[] = ".status";

struct OsLogStatusCounts
{
    std::atomic<uint64_t> u64Written;
    std::atomic<uint64_t> au64Lost[OS_LOGLOST_LAST];
};

struct OsLogStatusRecord
{
    char achMagic[sizeof OS_LOGSTATUS_MAGIC];
    uint32_t u32Version;
    uint32_t u32Size;   // of the record
    uint64_t u64ProcessId;
    uint64_t u64StartTime;
    uint64_t u64Since;

    // The flags that somebody wants, with a number above them that is another one for each wish. 0: none.
    std::atomic<uint64_t> u64Wish;

    std::atomic<uint64_t> u64ProcessIdApplication;
    std::atomic<uint32_t> u32Kind;
    std::atomic<uint32_t> u32Flags;
    std::atomic<int32_t> i32Port;
    std::atomic<uint32_t> u32Where;
    OsLogStatusCounts oslogstatuscounts;

    std::atomic<uint32_t> u32Turn;   // of what follows
    uint32_t u32LastError;
    uint64_t u64LastErrorTime;
    char szLastErrorPath[OS_PATHSIZE];
    char szLogFile[OS_PATHSIZE];
    char szProgram[OS_PATHSIZE];
    char szName[64];
};
static_assert(sizeof(OsLogStatusRecord) <= OS_LOGSTATUS_FILESIZE && std::atomic<uint64_t>::is_always_lock_free);

// The folder of the status files (OS_PATHSIZE bytes), "" for none, and the path of a process's; a path that does not
// fit is "".
void OsLogStatusFolder(char* a_szFolder);
void OsLogStatusPath(char* a_szPath, uint64_t a_u64ProcessId);
