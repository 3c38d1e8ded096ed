// os_coslogstatus_record.h: the layout of a status file.
//
// u32Turn is odd while the texts are being changed, and differs afterwards, so that a reader detects a change. Readers
// validate every value.
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

    // The requested flags, with a counter above them that differs for each request. 0: none.
    std::atomic<uint64_t> u64Wish;

    std::atomic<uint64_t> u64ProcessIdApplication;
    std::atomic<uint32_t> u32Kind;
    std::atomic<uint32_t> u32Flags;
    std::atomic<int32_t> i32Port;
    std::atomic<uint32_t> u32Where;
    OsLogStatusCounts oslogstatuscounts;

    std::atomic<uint32_t> u32Turn;   // sequence counter of the texts below
    uint32_t u32LastError;
    uint64_t u64LastErrorTime;
    char szLastErrorPath[OS_PATHSIZE];
    char szLogFile[OS_PATHSIZE];
    char szProgram[OS_PATHSIZE];
    char szName[64];
};
static_assert(sizeof(OsLogStatusRecord) <= OS_LOGSTATUS_FILESIZE && std::atomic<uint64_t>::is_always_lock_free);

// The folder of the status files (OS_PATHSIZE bytes), "" for none; the path of a process's file, "" when it does not
// fit.
void OsLogStatusFolder(char* a_szFolder);
void OsLogStatusPath(char* a_szPath, uint64_t a_u64ProcessId);
