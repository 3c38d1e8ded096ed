// os_coslog.h: the process-wide logger.
//
// It is created by the start of the library before anything else can log, started (and restarted) with a path, flags
// and a filter by the configuration's load, and destroyed by the stop of the library. Each line is on disk, or on the
// collector's connection, when the call returns. A fork of the process logs into "<name>-<process id>.log" beside the
// log, and nothing that it does to its copy of the logger is seen by its parent. Callers log through os_log.h.
#pragma once

#include "os_coslogstatus.h"
#include "os_log.h"
#include "os_types.h"

class COsLogCollector;
class COsLogImpl;

// Bits of the flag word.
inline constexpr uint32_t OS_LOGFLAG_FLUSH = 0x4;            // every line is flushed to disk
inline constexpr uint32_t OS_LOGFLAG_ONLY8 = 0x10;           // only level 8 passes
inline constexpr uint32_t OS_LOGFLAG_DETERMINISTIC = 0x20;   // what differs from run to run is printed as 0
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

    // Writes its last lines, uninstalls the logger, then ends its collector client. Called when no other thread logs.
    ~COsLog();
    COsLog(const COsLog&) = delete;
    COsLog& operator=(const COsLog&) = delete;

    // Starts it, or starts it again. A null or empty path keeps the current one, a null filter keeps the current one.
    // A path that differs from the current one gets a header before its first line. "@NAME@FILE" is the value of the
    // environment variable NAME ("." without one) followed by FILE. Of a filter, tokens beyond the 31st and what goes
    // beyond 127 characters are dropped. Called by one thread at a time; others may log meanwhile. Flags that somebody
    // has asked for (os_coslogstatus.h) end with it.
    void Start(const char* a_szLogFile, uint32_t a_u32Flags, const char* a_szFilter);

    void Flush();   // the log file, to disk

    void VPrintf(const char* a_szFile, uint32_t a_u32Line, uint32_t a_u32Level, const char* a_szFormat,
                 va_list a_valist) override;
    uint32_t WorkingWord() const override;
    void SetWorkingWord(uint32_t a_u32Flags) override;

    const char* LogFile() const;   // the path, "" without one; also while a collector keeps it and lines go beside it
    bool UsesCollector() const;    // lines go to a collector client that is not broken

    // Where the lines go now, how many were written and lost, and why. Any thread.
    OsLogHealth Health() const;

    // Gives the logger a collector client that is in service; the logger owns it until its own end, also when another
    // one is given: a thread may be in a call of it.
    void TakeCollector(COsLogCollector* a_poslogcollector);

    bool IsUsable() const { return m_poslogimpl != nullptr; }

private:
    static void LeaveToParent();

    COsLogImpl* m_poslogimpl;   // null only when its allocation failed
};

// The process's logger, null without one.
COsLog* OsLogGet();

// The library's own version, as the header prints it.
inline constexpr char OS_LIBRARYVERSION[] = "18.76.0.0";

// What the header says about a module, for which the logger asks above: the texts of its resources ("VERSION",
// "VERSIONSIMPLE"), a key in section "versions" of its setup.txt, its file version as four numbers. a_szModule is the
// module's path. A null answer, false, and no procedure at all mean that there is none.
using OsLogTextProc = const char* (*)(const char* a_szModule, const char* a_szName);
using OsLogVersionProc = bool (*)(const char* a_szModule, uint16_t* a_au16Version);
extern std::atomic<OsLogTextProc> g_poslogresourceproc;
extern std::atomic<OsLogTextProc> g_poslogsetupproc;
extern std::atomic<OsLogVersionProc> g_poslogversionproc;

// The file version of the executable, "0.0" for none; computed once per process and kept in its environment. The
// buffer has OS_LOGVERSIONSIZE bytes.
inline constexpr size_t OS_LOGVERSIONSIZE = 64;
void OsLogExeVersion(char* a_szVersion);

// Removes the expired log folders ("log." begins their names) of the product below a_szFolder, whose path holds one of
// the product's brand words: those of which no log file was written less than a_i32Hours ago (0 or less: all), that no
// running process holds, and that are not this process's own. Links are not followed, also not a_szFolder itself.
// Folders whose path has more than 511 bytes stay, and so does what is below a name with a leading dot.
void OsLogCleanFolders(const char* a_szFolder, int32_t a_i32Hours);

// True while a process logs in or below a log folder, or somebody is deleting it, and for one that cannot be looked at.
bool OsLogIsFolderInUse(const char* a_szFolder);

// Deletes one log folder ("log." begins its name) with all that is in it, unless a process logs in or below it. Links
// are not followed. EOSSTS_SUCCESS, also for a folder that does not exist; EOSSTS_SHARING while it is in use;
// EOSSTS_ACCESSDENIED for what is no log folder; EOSSTS_FAIL, and logged, when it could not be deleted. Any thread.
EOSSTS OsLogRemoveFolder(const char* a_szFolder);
