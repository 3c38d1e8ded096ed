// os_coslog_destination.h: the destination of the lines.
//
// Lines go to the collector while there is a working one, otherwise into the process's own file. When a collector
// fails, its state decides which file that is: if it is dead, the process continues in the file that it wrote; if it is
// alive and does not respond, it keeps that file, and the process continues in "<name>-own.log" beside it. Exactly one
// thread makes the switch, and no thread writes into the file before it is done. A forked child continues in
// "<name>-<process id>.log".
//
// A mutex serializes writes to the own file, as the system would anyway: the end of a torn line, or the note that the
// log continues here, directly follows its context.
#pragma once

#include "os_coslog_file.h"
#include "os_coslog_health.h"
#include "os_coslog_hold.h"
#include "os_coslog_lock.h"
#include "os_coslog_slots.h"
#include "os_coslogcollector.h"
#include "os_types.h"

#include <atomic>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <utility>

inline constexpr char OS_LOGFILESUFFIX[] = ".log";
inline constexpr char OS_LOGOWNSUFFIX[] = "-own.log";
inline constexpr size_t OS_LOGOWNPATHSIZE = OS_PATHSIZE + 24;   // such a path, or one with a process id

// A log file's path and its line count since the header. Immutable in use: a call keeps the path that it started with
// while the logger is restarted.
struct OsLogPath
{
    // What must be written before the next line.
    enum : uint32_t
    {
        OS_LINEEND = 1,    // the last line was written in part
        OS_LINEFEED = 2,   // the last line was written but for its last byte
        OS_GOESON = 4,     // nothing has been written yet into the "-own.log" file
        OS_FORKED = 8,     // nothing has been written yet into the file of a forked child
        OS_UNSENT = 16,    // lines that were queued for a thread that could not send them
    };

    const char* File() const { return blOwn.load(std::memory_order_acquire) ? szOwnFile : szLogFile; }
    int32_t TakeNumber() { return static_cast<int32_t>(static_cast<uint32_t>(i32LineCounter.fetch_add(1)) + 1); }

    std::unique_ptr<OsLogPath> uniqueNext;
    char szLogFile[OS_PATHSIZE];
    char szOwnFile[OS_LOGOWNPATHSIZE];
    bool blLogs;   // it is the path of a log file
    std::atomic<bool> blHeaderPending;
    std::atomic<int32_t> i32LineCounter;
    std::atomic<bool> blOwn;   // a collector or the parent keeps the file: use the one beside it
    std::atomic<uint32_t> u32Owed;
    std::string strUnsent;                // after space for a line end
    std::atomic<uint64_t> u64OpenAgain;   // ticks; an open failed, the next attempt is not before this time
    std::atomic<uint32_t> u32OpenError;   // the error of that open
    OsLogFile* poslogfile;                // guarded by m_osloglock; null when it is not open
};

// A collector's client: in use, given up, or replaced and ended. The record is kept until the logger ends, because
// another thread may be about to enter it.
struct OsLogClient
{
    std::unique_ptr<OsLogClient> uniqueNext;
    std::unique_ptr<COsLogCollector> uniqueCollector;
    OsLogPath* poslogpath;            // of its stream
    std::atomic<uint32_t> u32Calls;   // calls in progress
};

class COsLogDestination
{
public:
    COsLogDestination(COsLogHold& a_osloghold, COsLogHealth& a_osloghealth)
        : m_osloghold(a_osloghold), m_osloghealth(a_osloghealth)
    {
    }
    ~COsLogDestination();
    COsLogDestination(const COsLogDestination&) = delete;
    COsLogDestination& operator=(const COsLogDestination&) = delete;

    OsLogPath* Path() const { return m_poslogpath.load(std::memory_order_acquire); }

    // Makes a path the current one; without memory the previous one stays.
    void SetPath(const char* a_szLogFile, bool a_blHeaderPending, int32_t a_i32LineCounter);

    bool UsesCollector() const { return m_poslogclient.load(std::memory_order_acquire) != nullptr; }

    // True when a client is set, even if it was given up. Only for the thread that sets clients.
    bool HasCollector() const { return m_blCollector; }

    // Sets the client; null removes it. Ends the previous client when its calls have returned.
    void TakeCollector(COsLogCollector* a_poslogcollector);

    // Called before a line is formatted: prepares the collector, or opens the file that the path currently names.
    // False: the line is lost. If the first file cannot be opened, logging is switched off; later failures consume a
    // line number, so that the gap is visible, and a later line tries again.
    bool Open(OsLogSlot& a_oslogslot);

    // Numbers the slot's message and writes it completely, or loses it (false). A lost line's number is not reused.
    bool Write(OsLogSlot& a_oslogslot);

    // Releases the file that the call had open.
    static void Close(OsLogSlot& a_oslogslot) { OsLogFile::Release(std::exchange(a_oslogslot.poslogfile, nullptr)); }

    // In a forked child: the files and the collector's connection remain the parent's. Lines go to a separate file, and
    // no collector is connected again.
    void LeaveToParent();

    void Flush();       // the file, to the disk
    void FlushKept();   // the same without an allocation: a check may fail in a signal handler

private:
    bool OpenFile(OsLogSlot& a_oslogslot);
    bool OpenNew(OsLogSlot& a_oslogslot);
    OsLogFile* TakeKept(const OsLogPath* a_poslogpath);
    void CloseKept(OsLogPath* a_poslogpath);

    OsLogClient* EnterClient();
    bool Send(std::span<const char> a_spanLine);
    void GiveUp(const OsLogClient& a_oslogclient, bool a_blLives);

    bool WriteFile(OsLogSlot& a_oslogslot, int32_t a_i32Number);
    bool AppendLine(OsLogSlot& a_oslogslot, int32_t a_i32Number);
    static bool Append(OsLogSlot& a_oslogslot, std::span<char> a_spanLine);
    void Owe(OsLogPath& a_oslogpath, const std::string& a_strUnsent);
    bool AppendOwed(OsLogSlot& a_oslogslot, int32_t a_i32Number);
    static bool AppendBehindEnd(OsLogSlot& a_oslogslot, std::span<char> a_spanLine);

    // Read by every call.
    std::atomic<OsLogPath*> m_poslogpath{&m_oslogpathNone};
    std::atomic<OsLogClient*> m_poslogclient{nullptr};   // null: none, or given up
    std::atomic<bool> m_blWritten{false};                // a line has been written or sent

    COsLogHold& m_osloghold;
    COsLogHealth& m_osloghealth;
    OsLogPath m_oslogpathNone = {};
    OsLogLock m_osloglock;                      // guards the list of paths and their open files
    std::unique_ptr<OsLogPath> m_uniquePaths;   // every path used so far
    std::mutex m_mutexClient;                   // setting a client and giving it up
    std::unique_ptr<OsLogClient> m_uniqueClients;
    bool m_blCollector = false;
    std::mutex m_mutexWrite;   // guards the own file's lines and the pending notes
};
