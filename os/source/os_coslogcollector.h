// os_coslogcollector.h: the log collector: receives the log streams of an application's processes over TCP on 127.0.0.1
// and writes each stream unchanged into the file that it names.
#pragma once

#include "os_types.h"

#include <atomic>
#include <string>

// 1 once the collector asks its program to end; never cleared.
extern std::atomic<uint8_t> g_bLogCollectorStop;

// 1 from the beginning of a collector's Stop to its next Start; not changed by clients.
extern std::atomic<uint8_t> g_bLogCollectorStopping;

class COsLogCollectorImpl;
class COsSocket;

class COsLogCollector
{
public:
    // Sets the role and, for a client role, the log file. Throws std::invalid_argument for an unknown role, the only
    // exception of the library.
    COsLogCollector(CollectorMode a_collectormode, const char* a_szName);
    ~COsLogCollector();   // stops
    COsLogCollector(const COsLogCollector&) = delete;
    COsLogCollector& operator=(const COsLogCollector&) = delete;

    // The process id of the application that a private collector serves, used in commands. Call before Start.
    void SetApplication(uint64_t a_u64ProcessId);

    // Starts the role. EOSSTS_SUCCESS, also when it is already started; EOSSTS_FAIL; EOSSTS_BUSY when a_blCheckOther is
    // set and another shared collector runs, or when a client finds the announcement of a collector that has ended. A
    // client role connects and names a_szLogFile as the file of its stream; EOSSTS_ACCESSDENIED when the port belongs
    // to a user other than this process's or the system's: nothing is sent then.
    EOSSTS Start(const char* a_szLogFile, bool a_blCheckOther);

    // Ends all streams and threads. a_szFolder (may be null) receives the log folder that the streams used, if it still
    // exists.
    void Stop(char* a_szFolder, size_t a_sizetFolder);

    // Client: sends the whole text; an empty text is sent as one space. Thread-safe: texts from other threads that
    // arrive during a send are sent together, each in one piece. EOSSTS_SUCCESS: the text was handed to the system. On
    // failure the connection is given up, part of the text may have been sent, and later calls return the same status.
    // EOSSTS_DISCONNECTED, also without a connection (logged): the file has no writer any more and the caller may
    // continue it. EOSSTS_BUSY: the collector runs but does not respond, and still owns the file. A stalled collector
    // blocks a call for at most 5 s. Without a_blWait, if another thread is sending, the text is queued for that
    // thread: EOSSTS_SUCCESS.
    EOSSTS ClientWrite(const void* a_pvBuffer, size_t a_sizetBytes, bool a_blWait = true);

    // Returns the queued texts that could not be sent, oldest first, and removes them. For use after a call that
    // failed.
    std::string TakeUnsent();

    // Passes ownership of a connection to a client.
    void TakeClientSocket(COsSocket* a_possocket);

    // In a fork of a client's process: closes its copy of the connection, which the parent keeps using. Queued texts
    // are left to the parent; from now on every ClientWrite returns EOSSTS_DISCONNECTED. Does not wait and does not
    // log.
    void LeaveToParent();

    bool IsUsable() const { return m_poslogcollectorimpl != nullptr; }

private:
    COsLogCollectorImpl* m_poslogcollectorimpl;   // null only when its allocation failed
};

// Starts this application's private collector: spawns it, reads its port, and passes that to this process and its later
// children. Called once by the start of the library. True when a collector is usable or not wanted.
bool LogCollectorStartCollector();

// Logs at level 1 why LogCollectorStartCollector has found no collector; nothing if it has one or wants none.
void LogCollectorTellProblem();
