// os_log.h: the log call, the logging state word and nothing else.
//
// Every layer logs, but the logger is built on top of nearly all of them. So the log call is here at the bottom, and
// the logger installs itself from above. Without a logger the call does nothing.
//
// A source file defines its name once and logs with OSLOG:
//
//     static constexpr char g_szSource[] = "os/source/os_cossync";
//     OSLOG(OS_LOG_CHECK, "sync>>> must create/open first...");
#pragma once

#include "os_types.h"

#include <atomic>
#include <cstdarg>
#include <cstdint>

// Levels. Any number is allowed; these have a meaning.
inline constexpr uint32_t OS_LOG_ERROR = 1;         // a system call failed
inline constexpr uint32_t OS_LOG_SYNC = 2;          // a note on a synchronisation object
inline constexpr uint32_t OS_LOG_NOTE = 4;          // a diagnostic note
inline constexpr uint32_t OS_LOG_CHECK = 64;        // an argument or buffer failed its check
inline constexpr uint32_t OS_LOG_MILESTONE = 128;   // a milestone of the run

// Interface of the logger behind the call.
class COsLogSink
{
public:
    // Logs one line. Must preserve the calling thread's last error (plat_types.h) and must not need any lock that a
    // caller may hold. a_szFile is the library path of the source, without extension.
    virtual void VPrintf(const char* a_szFile, uint32_t a_u32Line, uint32_t a_u32Level, const char* a_szFormat,
                         va_list a_valist) = 0;

    // The working flag word: diagnostics are enabled when it is not 0.
    virtual uint32_t WorkingWord() const = 0;
    virtual void SetWorkingWord(uint32_t) {}

protected:
    ~COsLogSink() = default;   // owned by the code that installed it
};

// The process-wide logger, null while none is installed.
extern std::atomic<COsLogSink*> g_poslogsink;

// Logs one line through a_poslogsink; does nothing if it is null. Formats as SStrPrintf does.
void OsLogPrintf(COsLogSink* a_poslogsink, const char* a_szFile, uint32_t a_u32Line, uint32_t a_u32Level,
                 const char* a_szFormat, ...) OS_PRINTFLIKE(5, 6);

// The logger's working word, 0 without a logger. Diagnostics (levels 4 and 128) are logged only where a contract says
// so.
inline uint32_t OsLogWorkingWord()
{
    const COsLogSink* const poslogsink = g_poslogsink.load(std::memory_order_acquire);
    return poslogsink ? poslogsink->WorkingWord() : 0;
}

// Does nothing without a logger.
inline void OsLogSetWorkingWord(uint32_t a_u32Flags)
{
    if (COsLogSink* const poslogsink = g_poslogsink.load(std::memory_order_acquire))
        poslogsink->SetWorkingWord(a_u32Flags);
}

#define OSLOG_AT(a_szFile, a_u32Line, a_u32Level, ...)                                                                 \
    do                                                                                                                 \
    {                                                                                                                  \
        if (COsLogSink* const poslogsink_ = g_poslogsink.load(std::memory_order_acquire))                              \
            OsLogPrintf(poslogsink_, (a_szFile), (a_u32Line), (a_u32Level), __VA_ARGS__);                              \
    } while (false)

#define OSLOG(a_u32Level, ...) OSLOG_AT(g_szSource, static_cast<uint32_t>(__LINE__), (a_u32Level), __VA_ARGS__)

// The logging state word: 0 logging allowed, 1 temporarily suppressed, 88 not started yet, 99 off for the process.
inline constexpr int OS_LOGSTATE_ON = 0;
inline constexpr int OS_LOGSTATE_SUPPRESSED = 1;
inline constexpr int OS_LOGSTATE_ALLOW = 11;   // never stored: sets 0, even from 88
inline constexpr int OS_LOGSTATE_NOTSTARTED = 88;
inline constexpr int OS_LOGSTATE_OFF = 99;

int OsLogGetState();

// Sets the state and returns the previous one: 99 is final, 88 changes only with 11, and 11 is stored as 0.
int OsLogSetState(int a_iState);

// Suppresses this process's logging for the life of the object. If it was already suppressed, the other object ends the
// suppression: restoring the suppressed state here could leave it on for good.
class COsLogSuppress
{
public:
    COsLogSuppress() : m_iState(OsLogSetState(OS_LOGSTATE_SUPPRESSED)) {}
    ~COsLogSuppress()
    {
        if (m_iState != OS_LOGSTATE_SUPPRESSED)
            OsLogSetState(m_iState);
    }
    COsLogSuppress(const COsLogSuppress&) = delete;
    COsLogSuppress& operator=(const COsLogSuppress&) = delete;

    bool WasAllowed() const { return m_iState == OS_LOGSTATE_ON; }

private:
    int m_iState;
};

// While it exists, the calling thread's lines do not wait for a stalled collector: another thread that is sending takes
// them along, or writes them to the file when the connection is given up. If the process is killed meanwhile, they are
// lost.
class COsLogNoWait
{
public:
    COsLogNoWait();
    ~COsLogNoWait();
    COsLogNoWait(const COsLogNoWait&) = delete;
    COsLogNoWait& operator=(const COsLogNoWait&) = delete;
};
bool OsLogMayWait();   // the calling thread

// The failed-check hook: reports a failed check when there is no logger. Null does nothing.
using OsLogCheckProc = void (*)(const char* a_szFile, uint32_t a_u32Line, const char* a_szText);
extern std::atomic<OsLogCheckProc> g_poslogcheckproc;
