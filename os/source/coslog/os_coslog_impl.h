// os_coslog_impl.h: the implementation object, and the parts that a log call goes through.
//
//   os_coslog.cpp               the public object, creation, start and path, destruction
//   os_coslog_call.cpp          the log call
//   os_coslog_filter.{h,cpp}        which sources pass
//   os_coslog_slots.{h,cpp}         the per-thread slots
//   os_coslog_destination.{h,cpp}   the destination: collector or own file
//   os_coslog_file.{h,cpp}          a log file that this process writes itself
//   os_coslog_health.{h,cpp}        counts of lines written and lost
//   os_coslog_hold.{h,cpp}          the hold of the log folder
//   os_coslog_header.{h,cpp}        the header block
//   os_coslog_format.{h,cpp}        formatting
//   os_coslog_lock.{h,cpp}          the locks
//   os_coslogline.{h,cpp}           the prefix of a line
//
// A call has its own slot and shares the other parts, each of which has its own lock. Paths and filters are immutable
// in use and live as long as the logger, so a call keeps those that it started with while the logger is restarted. The
// locks that every line takes are held for a few instructions, never across a call to other code; the one for the first
// line may be held for long, but waits for it have a time limit. A thread that is terminated inside a call ends when it
// leaves the call, so no lock stays held. A forked child recreates the locks, leaves the connection to its parent and
// continues in a separate file.
#pragma once

#include "os_coslog.h"
#include "os_coslog_destination.h"
#include "os_coslog_filter.h"
#include "os_coslog_health.h"
#include "os_coslog_hold.h"
#include "os_coslog_lock.h"
#include "os_coslog_slots.h"

#include <atomic>

inline constexpr size_t OS_LOGMARGIN = 256;    // spare bytes of a line buffer after the message, at least
inline constexpr size_t OS_LOGGROWTH = 8192;   // additional spare bytes of a new buffer

// Preparing a first line calls other code, which may wait for a lock whose owner waits for the preparation.
inline constexpr uint32_t OS_LOGFIRSTTIMEOUT = 250;   // ms

// The arguments of the log call.
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
    void LeaveToParent();   // in a forked child
    void TakeCollector(COsLogCollector* a_poslogcollector) { m_oslogdestination.TakeCollector(a_poslogcollector); }

    uint32_t WorkingWord() const { return m_u32WorkingWord.load(std::memory_order_relaxed); }
    void SetWorkingWord(uint32_t a_u32Flags);
    OsLogHealth Health() { return m_osloghealth.Tell(); }

    // Applies flags newly requested in the status file. Called before each check of the flags.
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

    // The result of connecting to a collector, for the start to log.
    enum class Collector
    {
        Nothing,
        Private,    // connected
        Stranger,   // the port belongs to another user
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

    // The members that decide whether a line passes come first: a call that does not pass reads only these, the current
    // path and the filter.
    std::atomic<uint32_t> m_u32WorkingWord{0};
    std::atomic<bool> m_blLevel32{false};
    std::atomic<bool> m_blMilestones{false};
    std::atomic<bool> m_blFlushEvery{false};
    std::atomic<uint64_t> m_u64Wish{0};   // the last request seen
    std::atomic<bool> m_blFolderFound{false};
    std::atomic<bool> m_blRedirectPending{true};
    std::atomic<uint32_t> m_u32StartWord{0};
    uint32_t m_u32CheckMode = 0;
    size_t m_sizetInitialBuffer;
    char m_szUniqueName[64] = {};

    COsLogFilter m_oslogfilter;
    COsLogHealth m_osloghealth;
    COsLogHold m_osloghold;   // outlives everything that writes into the folder
    COsLogSlots m_oslogslots;
    COsLogDestination m_oslogdestination{m_osloghold, m_osloghealth};
    OsLogLock m_osloglockFirst;   // serializes the work before the first line of a path
};
