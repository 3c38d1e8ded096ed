// os_coslog_impl.h: the implementation object, and the parts that a log call goes through.
//
//   os_coslog.cpp               the public object, creation, start and path, destruction
//   os_coslog_call.cpp          the log call
//   os_coslog_filter.{h,cpp}        which sources pass
//   os_coslog_slots.{h,cpp}         what a thread needs to log, and whose it is
//   os_coslog_destination.{h,cpp}   where the lines go: collector or own file
//   os_coslog_file.{h,cpp}          a log file of this process's own
//   os_coslog_health.{h,cpp}        what was written and lost
//   os_coslog_hold.{h,cpp}          the hold of the log folder
//   os_coslog_header.{h,cpp}        the header block
//   os_coslog_format.{h,cpp}        formatting
//   os_coslog_lock.{h,cpp}          the locks
//   os_coslogline.{h,cpp}           the prefix of a line
//
// A call has a slot of its own and shares with others the parts, each of which has its own lock. Paths and filters are
// never changed once they are in use and live as long as the logger, so that a call may go on with the one it began
// with while the logger is started anew. The locks that every line takes are held for a few instructions and never
// while anything else is called; the one before a first line may be held for long, but nobody waits for it without a
// limit. A thread that is to be ended by force inside a call ends when it leaves that: nothing stays held. A fork makes
// the locks anew, leaves the connection to its parent and goes on in a file of its own.
#pragma once

#include "os_coslog.h"
#include "os_coslog_destination.h"
#include "os_coslog_filter.h"
#include "os_coslog_health.h"
#include "os_coslog_hold.h"
#include "os_coslog_lock.h"
#include "os_coslog_slots.h"

#include <atomic>

inline constexpr size_t OS_LOGMARGIN = 256;    // that a line buffer has beyond the message, at least
inline constexpr size_t OS_LOGGROWTH = 8192;   // what a new one gets beyond that

// What precedes a first line asks others, who may wait for a lock that a thread holds which waits for its end.
inline constexpr uint32_t OS_LOGFIRSTTIMEOUT = 250;   // ms

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
    void LogLastLines();
    void LeaveToParent();   // in a fork
    void TakeCollector(COsLogCollector* a_poslogcollector) { m_oslogdestination.TakeCollector(a_poslogcollector); }

    uint32_t WorkingWord() const { return m_u32WorkingWord.load(std::memory_order_relaxed); }
    void SetWorkingWord(uint32_t a_u32Flags);
    OsLogHealth Health() { return m_osloghealth.Tell(); }

    // Has the flags that somebody asks for in the status file, if there are new ones. Before each look at the flags.
    void TakeWish()
    {
        const uint64_t u64Wish = COsLogStatusOwn::Get().Wish();
        if (u64Wish != m_u64Wish.load(std::memory_order_relaxed))
            TakeWish(u64Wish);
    }
    const char* LogFile() const { return m_oslogdestination.Path()->szLogFile; }
    bool UsesCollector() const { return m_oslogdestination.UsesCollector(); }

private:
    // os_coslog.cpp
    static void SetStateFromEnvironment();
    void TakeWish(uint64_t a_u64Wish);
    void OpenStatus();
    void SetFlags(uint32_t a_u32Flags, uint32_t a_u32TakenOut);
    void StartPath(const char* a_szLogFile);

    // What a start has to tell of the collector.
    enum class Collector
    {
        Nothing,
        Private,    // it has been connected
        Stranger,   // its port belongs to somebody else
    };
    Collector StartCollector();

    // os_coslog_call.cpp
    bool Passes(const OsLogCall& a_oslogcall);
    bool LevelPasses(uint32_t a_u32Level) const;
    bool FilterPasses(const OsLogCall& a_oslogcall) const;
    bool StateAllows();
    bool LogLine(const OsLogCall& a_oslogcall, va_list a_valist);
    void Describe(OsLogSlot& a_oslogslot, const OsLogCall& a_oslogcall, uint32_t a_u32LastError);
    bool Prepare(OsLogSlot& a_oslogslot);
    bool IsPrepared(const OsLogPath& a_oslogpath) const;
    bool PrepareFirst(OsLogSlot& a_oslogslot);
    bool FolderIsThere(const OsLogSlot& a_oslogslot);
    void Redirect(OsLogSlot& a_oslogslot);
    bool Open(OsLogSlot& a_oslogslot);
    bool WriteLine(OsLogSlot& a_oslogslot, const char* a_szFormat, va_list a_valist);
    EOSLOGLOST FormatMessage(OsLogSlot& a_oslogslot, const char* a_szFormat, va_list a_valist);
    void Leave(OsLogSlot& a_oslogslot);
    void TellLost();
    void CheckFailed(const OsLogCall& a_oslogcall);

    // What decides whether a line passes comes first: a call that does not pass reads nothing else but the current path
    // and filter.
    std::atomic<uint32_t> m_u32WorkingWord{0};
    std::atomic<bool> m_blLevel32{false};
    std::atomic<bool> m_blMilestones{false};
    std::atomic<bool> m_blFlushEvery{false};
    std::atomic<uint64_t> m_u64Wish{0};   // the last that was seen
    std::atomic<bool> m_blFolderFound{false};
    std::atomic<bool> m_blRedirectPending{true};
    std::atomic<uint32_t> m_u32StartWord{0};
    uint32_t m_u32CheckMode = 0;
    size_t m_sizetInitialBuffer;
    char m_szUniqueName[64] = {};

    COsLogFilter m_oslogfilter;
    COsLogHealth m_osloghealth;
    COsLogHold m_osloghold;   // longer than what is written into the folder
    COsLogSlots m_oslogslots;
    COsLogDestination m_oslogdestination{m_osloghold, m_osloghealth};
    OsLogLock m_osloglockFirst;   // what comes before the first line of a path is done by one call at a time
};
