// os_coslog_impl.h: the implementation object, which the sources of the class share.
//
//   os_coslog.cpp          the public object, creation, start and path, destruction
//   os_coslog_filter.cpp   the filter
//   os_coslog_call.cpp     the log call: levels, slots, the line
//   os_coslog_format.cpp   formatting
//   os_coslog_write.cpp    the destination: folder check, redirection, file or collector, flush
//   os_coslog_header.cpp   the header block
//
// A call has a slot of its own and shares with others what stands below "shared". Paths and filters are never changed
// once they are in use and live as long as the logger, so that a call may go on with the one it began with while the
// logger is started anew. The one lock that every line takes is held for a few instructions and never while anything
// else is called; the one before a first line may be held for long, but nobody waits for it without a limit.
#pragma once

#include "os_coslog.h"
#include "os_coslogcollector.h"
#include "os_coslogline.h"

#include "plat_types.h"

#include <atomic>
#include <memory>
#include <mutex>
#include <string_view>

inline constexpr size_t OS_LOGSLOTS = 64;
inline constexpr size_t OS_LOGFILTERSIZE = 128;
inline constexpr size_t OS_LOGFILTERTOKENS = 31;
inline constexpr size_t OS_LOGVERDICTS = 256;     // that a filter remembers
inline constexpr size_t OS_LOGVERDICTSIZE = 56;   // of the file argument; a longer one is not remembered
inline constexpr size_t OS_LOGMARGIN = 256;       // that a line buffer has beyond the message, at least
inline constexpr size_t OS_LOGGROWTH = 8192;      // what a new one gets beyond that

// What precedes a first line asks others, who may wait for a lock that a thread holds which waits for its end.
inline constexpr uint32_t OS_LOGFIRSTTIMEOUT = 250;   // ms

// A lock that a thread waits for with a limit. A signal handler that logs may find that the thread which it interrupted
// holds it: it is refused then.
class OsLogLock
{
public:
    bool Acquire(uint32_t a_u32Milliseconds);
    void Release() { m_u64Owner.store(0, std::memory_order_release); }

    bool IsHeld() const { return m_u64Owner.load(std::memory_order_acquire) != 0; }

    // Waits until no other thread holds it. False when it is still held then, or when the calling thread holds it.
    bool Wait(uint32_t a_u32Milliseconds) const;

private:
    std::atomic<uint64_t> m_u64Owner{0};   // a thread id, 0 when it is free
};

class OsLogGuard
{
public:
    explicit OsLogGuard(OsLogLock& a_osloglock, uint32_t a_u32Milliseconds = OS_INFINITE)
        : m_osloglock(a_osloglock), m_blHeld(a_osloglock.Acquire(a_u32Milliseconds))
    {
    }
    ~OsLogGuard()
    {
        if (m_blHeld)
            m_osloglock.Release();
    }
    OsLogGuard(const OsLogGuard&) = delete;
    OsLogGuard& operator=(const OsLogGuard&) = delete;

    bool Held() const { return m_blHeld; }

private:
    OsLogLock& m_osloglock;
    bool m_blHeld;
};

// Leaves the calling thread's errors as it found them.
class OsLogKeepError
{
public:
    OsLogKeepError();
    ~OsLogKeepError();
    OsLogKeepError(const OsLogKeepError&) = delete;
    OsLogKeepError& operator=(const OsLogKeepError&) = delete;

    uint32_t Error() const { return m_u32Error; }

private:
    uint32_t m_u32Error;
    int m_iErrno;
};

// Which sources pass.
struct OsLogFilter
{
    struct Token
    {
        std::string_view strview;   // of szText, without the "~"
        bool blExclude;
    };

    // What the filter says to a call's file argument. Written once, by the call that claimed it.
    struct Verdict
    {
        enum : uint32_t
        {
            OS_FREE,
            OS_CLAIMED,
            OS_KNOWN,
        };
        std::atomic<uint32_t> u32State;
        bool blPasses;
        char szFile[OS_LOGVERDICTSIZE];
    };

    // Whether a call with this file argument, which may be null, passes. Verdicts are remembered: a call that is
    // filtered out pays for little more than a comparison of texts. Neither locks nor allocates.
    bool Passes(const char* a_szFile) const;
    bool Judge(const char* a_szFile) const;
    bool Remember(Verdict& a_verdict, const char* a_szFile) const;

    std::unique_ptr<OsLogFilter> uniqueNext;
    char szText[OS_LOGFILTERSIZE];   // as the header prints it
    Token atoken[OS_LOGFILTERTOKENS];
    size_t sizetTokens;
    bool blIncludes;                             // there is a token that is not excluded
    std::unique_ptr<Verdict[]> uniqueVerdicts;   // null: none is remembered
};

// The log file, kept open between the lines. The path that it belongs to and every call that works with it count.
struct OsLogFile
{
    PlatHandle plathandle;
    std::atomic<uint32_t> u32Users;
};

// Where lines go, and how many went there since the header.
struct OsLogPath
{
    std::unique_ptr<OsLogPath> uniqueNext;
    char szLogFile[OS_PATHSIZE];
    bool blLogs;   // it is one of a log file
    std::atomic<bool> blHeaderPending;
    std::atomic<int32_t> i32LineCounter;
    std::atomic<bool> blTorn;   // the last line got there in part
    OsLogFile* poslogfile;      // under the lock; null when it is not open
};

// What a thread needs to log. It is the thread's own from the first line to the end of the thread.
struct OsLogSlot
{
    enum : uint32_t
    {
        OS_IDLE = 0,
        OS_INSIDE = 1,    // the thread is inside the logger
        OS_RECLAIM = 2,   // another thread looks whether this one has ended
    };
    std::atomic<uint32_t> u32Busy;
    std::atomic<bool> blFlushWanted;   // by a failed check inside the logger

    uint32_t u32LastError;
    uint32_t u32Line;
    uint32_t u32Level;
    char achSource[OS_PATHSIZE];   // without an end
    size_t sizetSource;
    OsLogLineTime osloglinetime;

    char* szBuffer;
    size_t sizetBuffer;

    OsLogPath* poslogpath;   // of this call
    OsLogFile* poslogfile;   // of this call, null when no file is open
};

// What the caller of the log call said.
struct OsLogCall
{
    const char* szFile;
    uint32_t u32Line;
    uint32_t u32Level;
    const char* szFormat;
};

class COsLogImpl
{
public:
    explicit COsLogImpl(const COsLog::CreateArgs& a_createargs);
    ~COsLogImpl();
    COsLogImpl(const COsLogImpl&) = delete;
    COsLogImpl& operator=(const COsLogImpl&) = delete;

    void Start(const char* a_szLogFile, uint32_t a_u32Flags, const char* a_szFilter);
    void Flush();
    void Log(const OsLogCall& a_oslogcall, va_list a_valist);
    void LogLastLines() const;
    void TakeCollector(COsLogCollector* a_poslogcollector);

    uint32_t WorkingWord() const { return m_u32WorkingWord.load(std::memory_order_relaxed); }
    void SetWorkingWord(uint32_t a_u32Flags) { m_u32WorkingWord.store(a_u32Flags, std::memory_order_relaxed); }
    const char* LogFile() const { return Path()->szLogFile; }
    bool UsesCollector() const { return m_blCollector.load(std::memory_order_acquire); }

private:
    OsLogPath* Path() const { return m_poslogpath.load(std::memory_order_acquire); }

    // os_coslog.cpp
    void SetStateFromEnvironment();
    void SetFlags(uint32_t a_u32Flags, uint32_t a_u32TakenOut);
    void SetPath(const char* a_szLogFile, bool a_blHeaderPending, int32_t a_i32LineCounter);
    void StartPath(const char* a_szLogFile);
    void StartCollector();

    // os_coslog_filter.cpp
    void SetFilter(const char* a_szFilter, const char* a_szSeparators, bool a_blLower);
    bool FilterPasses(const OsLogCall& a_oslogcall) const;

    // os_coslog_call.cpp
    bool Passes(const OsLogCall& a_oslogcall);
    bool StateAllows();
    bool LevelPasses(uint32_t a_u32Level) const;
    void LogLine(const OsLogCall& a_oslogcall, va_list a_valist);
    OsLogSlot* FindSlot(uint64_t a_u64ThreadId);
    bool IsInside();
    OsLogSlot* ClaimFree(uint64_t a_u64ThreadId);
    OsLogSlot* ClaimSlot(uint64_t a_u64ThreadId);
    void ReclaimSlots();
    OsLogSlot* Enter();
    void Leave(OsLogSlot& a_oslogslot);
    bool Prepare(OsLogSlot& a_oslogslot);
    bool IsPrepared(const OsLogPath& a_oslogpath) const;
    bool PrepareFirst(OsLogSlot& a_oslogslot);
    void WriteLine(OsLogSlot& a_oslogslot, const char* a_szFormat, va_list a_valist);
    bool FormatMessage(OsLogSlot& a_oslogslot, const char* a_szFormat, va_list a_valist, size_t* a_psizetLength);
    char* PutPrefix(char* a_pch, const OsLogSlot& a_oslogslot, int32_t a_i32Number, bool a_blDeterministic) const;
    static bool SetBuffer(OsLogSlot& a_oslogslot, size_t a_sizetBuffer);
    void CheckFailed(const OsLogCall& a_oslogcall);

    // os_coslog_write.cpp
    bool FolderIsThere(const OsLogSlot& a_oslogslot);
    void Redirect(OsLogSlot& a_oslogslot);
    bool Open(OsLogSlot& a_oslogslot);
    bool OpenDestination(OsLogSlot& a_oslogslot, bool a_blMakeFolder);
    bool OpenFile(OsLogSlot& a_oslogslot);
    OsLogFile* TakeKept(const OsLogPath* a_poslogpath);
    void CloseKept(OsLogPath* a_poslogpath);
    void FlushKept();
    static void ReleaseFile(OsLogFile* a_poslogfile);   // null is left alone
    bool WriteOut(OsLogSlot& a_oslogslot, const char* a_pch, size_t a_sizetLength);
    bool SendToCollector(const OsLogSlot& a_oslogslot, const char* a_pch, size_t a_sizetLength);

    // os_coslog_header.cpp
    bool WriteHeaderIfPending(OsLogSlot& a_oslogslot);
    void WriteHeader(OsLogSlot& a_oslogslot);
    template <class Piece>
    void HeaderLine(OsLogSlot& a_oslogslot, Piece a_piece);
    void RunLine(OsLogSlot& a_oslogslot);
    void SystemLine(OsLogSlot& a_oslogslot);
    void OsLine(OsLogSlot& a_oslogslot);
    void ModuleLine(OsLogSlot& a_oslogslot, const char* a_szTitle, const char* a_szModule, const char* a_szVersionInfo);
    void ModuleLines(OsLogSlot& a_oslogslot);
    void ArgumentsLine(OsLogSlot& a_oslogslot);

    // Shared. What decides whether a line passes comes first: a call that does not pass reads nothing else.
    std::atomic<OsLogPath*> m_poslogpath{&m_oslogpathNone};
    std::atomic<uint32_t> m_u32WorkingWord{0};
    std::atomic<bool> m_blLevel32{false};
    std::atomic<bool> m_blMilestones{false};
    std::atomic<bool> m_blFlushEvery{false};
    std::atomic<bool> m_blFolderFound{false};
    std::atomic<bool> m_blRedirectPending{true};
    std::atomic<const OsLogFilter*> m_poslogfilter{&m_oslogfilterNone};
    std::atomic<uint64_t> m_au64ThreadId[OS_LOGSLOTS] = {};   // 0 is a free slot

    uint8_t m_u8S = 9;
    uint32_t m_u32CheckMode;
    std::atomic<uint32_t> m_u32StartWord{0};
    size_t m_sizetInitialBuffer;
    char m_szUniqueName[64];

    OsLogPath m_oslogpathNone = {};
    OsLogFilter m_oslogfilterNone = {};
    OsLogLock m_osloglock;
    OsLogLock m_osloglockFirst;   // what comes before the first line of a path is done by one call at a time
    std::unique_ptr<OsLogPath> m_uniquePaths;       // all that were used
    std::unique_ptr<OsLogFilter> m_uniqueFilters;   // likewise

    std::atomic<bool> m_blCollector{false};   // there is one that is not broken
    std::mutex m_mutexCollector;              // one line at a time, in one piece
    std::unique_ptr<COsLogCollector> m_uniqueCollector;

    OsLogSlot m_aoslogslot[OS_LOGSLOTS] = {};
};

// The base name of a call's file argument, which may be null: what is behind the last backslash, without extension, in
// lower case. The name has OS_PATHSIZE bytes and no end; returns its length.
size_t OsLogSourceName(char* a_achSource, const char* a_szFile);

// Format into a_szBuffer, or at the end of the text in it. Returns the length of the whole text, -1 when something is
// null or does not fit; that is told on the standard error stream, never through the logger.
int LogSStrPrintf(char* a_szBuffer, size_t a_sizetBuffer, const char* a_szFormat, ...) OS_PRINTFLIKE(3, 4);
int LogSStrCatf(char* a_szBuffer, size_t a_sizetBuffer, const char* a_szFormat, ...) OS_PRINTFLIKE(3, 4);
void LogTellFormatFailed(const char* a_szFunction, const char* a_szBuffer, size_t a_sizetBuffer,
                         const char* a_szFormat);
void LogTellStandardError(const char* a_szFormat, ...) OS_PRINTFLIKE(1, 2);

// The size of the stack of the thread that asked first, in bytes.
uint64_t OsLogStackSize();
