// os_coslog.h: the process-wide logger.
//
// Created by the start of the library before anything else can log, started (and restarted) by the configuration with a
// path, flags and a filter, and destroyed by the stop of the library. Each line is on disk, or on the collector's
// connection, when the call returns. A forked process logs into "<name>-<process id>.log" beside the log; what it does
// to its copy of the logger does not affect its parent. Callers log through os_log.h.
#pragma once

#include "os_coslogstatus.h"
#include "os_log.h"
#include "os_types.h"

class COsLogCollector;
class COsLogImpl;

// Bits of the flag word.
inline constexpr uint32_t OS_LOGFLAG_FLUSH = 0x4;            // every line is flushed to disk
inline constexpr uint32_t OS_LOGFLAG_ONLY8 = 0x10;           // only level 8 passes
inline constexpr uint32_t OS_LOGFLAG_DETERMINISTIC = 0x20;   // values that differ from run to run are printed as 0
inline constexpr uint32_t OS_LOGFLAG_ONLYMEMORY = 0x40;      // only the memory tracker's levels pass
inline constexpr uint32_t OS_LOGFLAG_VALIDATEHEAP = 0x200;
inline constexpr uint32_t OS_LOGFLAG_LEVEL32 = 0x400;      // lines of level 32 are allowed
inline constexpr uint32_t OS_LOGFLAG_MILESTONES = 0x800;   // only levels 1, 64 and 128 pass

class COsLog final : public COsLogSink
{
public:
    // Creates the logger in state 88 (99 when logging is off for the process) and installs it. The texts may be null.
    struct CreateArgs
    {
        const char* szUniqueName = "";
        const char* szLogFile = nullptr;
        uint32_t u32Flags = 0;
        const char* szFilter = nullptr;
    };
    explicit COsLog(const CreateArgs& a_createargs);

    // Writes the last lines, uninstalls the logger, then stops its collector client. Call it when no other thread logs.
    ~COsLog();
    COsLog(const COsLog&) = delete;
    COsLog& operator=(const COsLog&) = delete;

    // Starts or restarts the logger. A null or empty path, and a null filter, keep the current one. A new path gets a
    // header before its first line. "@NAME@FILE" is the value of the environment variable NAME ("." if unset) followed
    // by FILE. The filter keeps at most 31 tokens and 127 characters. Ends flags set by OsLogStatusAskFlags
    // (os_coslogstatus.h). Called by one thread at a time; other threads may log meanwhile.
    void Start(const char* a_szLogFile, uint32_t a_u32Flags, const char* a_szFilter);

    void Flush();   // the log file, to disk

    void VPrintf(const char* a_szFile, uint32_t a_u32Line, uint32_t a_u32Level, const char* a_szFormat,
                 va_list a_valist) override;
    uint32_t WorkingWord() const override;
    void SetWorkingWord(uint32_t a_u32Flags) override;

    const char* LogFile() const;   // the path, "" if none; also while a collector writes the log
    bool UsesCollector() const;    // lines go to a working collector client

    // Where lines go now, how many were written and lost, and why. Thread-safe.
    OsLogHealth Health() const;

    // Passes ownership of a started collector client. The logger keeps it until its own end, even when another client
    // replaces it, because a thread may still be calling it.
    void TakeCollector(COsLogCollector* a_poslogcollector);

    bool IsUsable() const { return m_poslogimpl != nullptr; }

private:
    static void LeaveToParent();

    COsLogImpl* m_poslogimpl;   // null only when its allocation failed
};

// The process's logger, null if there is none.
COsLog* OsLogGet();

// The library's own version, as the header prints it.
inline constexpr char OS_LIBRARYVERSION[] = "18.76.0.0";

// Procedures that supply the header with facts about a module: its text resources ("VERSION", "VERSIONSIMPLE"), a key
// in section "versions" of its setup.txt, its file version as four numbers. a_szModule is the module's path. Null,
// false, or no procedure means unknown.
using OsLogTextProc = const char* (*)(const char* a_szModule, const char* a_szName);
using OsLogVersionProc = bool (*)(const char* a_szModule, uint16_t* a_au16Version);
extern std::atomic<OsLogTextProc> g_poslogresourceproc;
extern std::atomic<OsLogTextProc> g_poslogsetupproc;
extern std::atomic<OsLogVersionProc> g_poslogversionproc;

// The file version of the executable, "0.0" if unknown; computed once per process and kept in its environment. The
// buffer has OS_LOGVERSIONSIZE bytes.
inline constexpr size_t OS_LOGVERSIONSIZE = 64;
void OsLogExeVersion(char* a_szVersion);

// Removes the product's expired log folders (their names begin with "log.") below a_szFolder, whose path must contain
// one of the product's brand words. A folder is expired if none of its log files was written in the last a_i32Hours
// hours (0 or less: always), unless a running process holds it or it is this process's own. Links are not followed, not
// even a_szFolder itself. Folders with a path of more than 511 bytes, and those below a name with a leading dot, are
// kept.
void OsLogCleanFolders(const char* a_szFolder, int32_t a_i32Hours);

// True while a process logs in or below a log folder or is deleting it, and when the folder cannot be examined.
bool OsLogIsFolderInUse(const char* a_szFolder);

// Deletes a log folder (its name begins with "log.") with its content, unless a process logs in or below it. Links are
// not followed. EOSSTS_SUCCESS, also for a folder that does not exist; EOSSTS_SHARING while it is in use;
// EOSSTS_ACCESSDENIED when it is not a log folder; EOSSTS_FAIL (logged) when it could not be deleted. Thread-safe.
EOSSTS OsLogRemoveFolder(const char* a_szFolder);
