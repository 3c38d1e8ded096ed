// os_coslog_destination.h: where the lines go.
//
// Lines go to the collector while there is one that takes them, otherwise into the process's own file. What becomes of
// a collector that fails decides which file that is: a dead one leaves the file that it wrote to the process; one that
// lives and does not answer keeps it, and the process goes on in "<name>-own.log" beside it. Exactly one thread makes
// that switch, and no thread writes into the file before it is done. A fork goes on in "<name>-<process id>.log".
//
// Threads write into the own file one after the other, as the system would have it anyway: the end of a torn line, or
// the word that the log goes on here, comes right behind what it follows.
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
inline constexpr size_t OS_LOGOWNPATHSIZE = OS_PATHSIZE + 24;   // of that, or with a process id

// A log file's path, and how many lines went there since the header. Never changed once it is in use: a call goes on
// with the one that it began with while the logger is started anew.
struct OsLogPath
{
    // What has to be written before the next line.
    enum : uint32_t
    {
        OS_LINEEND = 1,    // the last line got there in part
        OS_LINEFEED = 2,   // all but its last byte did
        OS_GOESON = 4,     // nothing was written yet into the file beside the one that the collector keeps
        OS_FORKED = 8,     // nor into that of a fork
        OS_UNSENT = 16,    // lines that were left to a thread that could not send them
    };

    const char* File() const { return blOwn.load(std::memory_order_acquire) ? szOwnFile : szLogFile; }
    int32_t TakeNumber() { return static_cast<int32_t>(static_cast<uint32_t>(i32LineCounter.fetch_add(1)) + 1); }

    std::unique_ptr<OsLogPath> uniqueNext;
    char szLogFile[OS_PATHSIZE];
    char szOwnFile[OS_LOGOWNPATHSIZE];
    bool blLogs;   // it is one of a log file
    std::atomic<bool> blHeaderPending;
    std::atomic<int32_t> i32LineCounter;
    std::atomic<bool> blOwn;   // a collector or a parent keeps the file: the lines go to the one beside it
    std::atomic<uint32_t> u32Owed;
    std::string strUnsent;                // behind room for a line end
    std::atomic<uint64_t> u64OpenAgain;   // ticks; the file could not be opened and is not tried before
    std::atomic<uint32_t> u32OpenError;   // why
    OsLogFile* poslogfile;                // under the lock; null when it is not open
};

// A collector's client, in use, given up, or replaced and ended. The record stays until the logger's end: another
// thread may just be about to enter it.
struct OsLogClient
{
    std::unique_ptr<OsLogClient> uniqueNext;
    std::unique_ptr<COsLogCollector> uniqueCollector;
    OsLogPath* poslogpath;            // of its stream
    std::atomic<uint32_t> u32Calls;   // that are in it
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

    // Makes a path the current one; without memory the one before goes on.
    void SetPath(const char* a_szLogFile, bool a_blHeaderPending, int32_t a_i32LineCounter);

    bool UsesCollector() const { return m_poslogclient.load(std::memory_order_acquire) != nullptr; }

    // There is one, be it given up. For the thread that gives them.
    bool HasCollector() const { return m_blCollector; }

    // Null: none from now on. Ends the one before, when the calls that are in it have returned.
    void TakeCollector(COsLogCollector* a_poslogcollector);

    // Before a line is formatted: has the collector, or the file that the path names now, ready for the slot's call.
    // False: the line is lost. A first file that cannot be opened switches the logging off; later the line takes a
    // number, so that the gap shows, and the file is tried again with a later line.
    bool Open(OsLogSlot& a_oslogslot);

    // Numbers the slot's message and writes it, whole, or loses it (false). A lost line's number is not used again.
    bool Write(OsLogSlot& a_oslogslot);

    // Lets go of what the call had open.
    static void Close(OsLogSlot& a_oslogslot) { OsLogFile::Release(std::exchange(a_oslogslot.poslogfile, nullptr)); }

    // In a fork: the paths' files and the collector's connection stay the parent's. Lines go beside them, and no
    // collector is asked for again.
    void LeaveToParent();

    void Flush();       // the file, to the disk
    void FlushKept();   // likewise, without an allocation: a check may fail in a signal handler

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

    // What every call reads.
    std::atomic<OsLogPath*> m_poslogpath{&m_oslogpathNone};
    std::atomic<OsLogClient*> m_poslogclient{nullptr};   // null: none, or it was given up
    std::atomic<bool> m_blWritten{false};                // a line has got somewhere

    COsLogHold& m_osloghold;
    COsLogHealth& m_osloghealth;
    OsLogPath m_oslogpathNone = {};
    OsLogLock m_osloglock;                      // the list of paths, and the files that they keep open
    std::unique_ptr<OsLogPath> m_uniquePaths;   // all that were used
    std::mutex m_mutexClient;                   // taking a client and giving it up
    std::unique_ptr<OsLogClient> m_uniqueClients;
    bool m_blCollector = false;
    std::mutex m_mutexWrite;   // the own file's lines, and what is owed
};
