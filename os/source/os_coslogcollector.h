// os_coslogcollector.h: the log collector, which takes the log streams of an application's processes over TCP on
// 127.0.0.1 and writes each unchanged into the file that it names.
#pragma once

#include "os_types.h"

#include <atomic>
#include <string>

// 1 once the collector asks its program to end; never cleared.
extern std::atomic<uint8_t> g_bLogCollectorStop;

// 1 from the beginning of a collector's Stop to its next Start; clients leave it alone.
extern std::atomic<uint8_t> g_bLogCollectorStopping;

class COsLogCollectorImpl;
class COsSocket;

class COsLogCollector
{
public:
    // The role, and the log file of a client role. Throws std::invalid_argument for a role that there is not, the
    // only exception of the library.
    COsLogCollector(CollectorMode a_collectormode, const char* a_szName);
    ~COsLogCollector();   // stops
    COsLogCollector(const COsLogCollector&) = delete;
    COsLogCollector& operator=(const COsLogCollector&) = delete;

    // The application that a private collector serves; commands name it by its process id. Before Start.
    void SetApplication(uint64_t a_u64ProcessId);

    // Puts the role in service. EOSSTS_SUCCESS, also when it is already; EOSSTS_FAIL; EOSSTS_BUSY when another shared
    // collector runs and a_blCheckOther asks for that, or when a client finds the announcement of one that has gone.
    // A client role connects and names a_szLogFile as the file of its stream; EOSSTS_ACCESSDENIED when its collector's
    // port belongs to another user than this process's and the system's: nothing is sent to him.
    EOSSTS Start(const char* a_szLogFile, bool a_blCheckOther);

    // Ends all streams and threads. a_szFolder (may be null) receives the log folder that the streams used, if it
    // still exists.
    void Stop(char* a_szFolder, size_t a_sizetFolder);

    // A client sends log text: all of it, one space for nothing. Any thread; what several threads bring while one of
    // them sends goes out together, each thread's text in one piece. EOSSTS_SUCCESS: the text is with the system.
    // Otherwise the connection has been given up, a part of the text may have arrived, and every later call says the
    // same: EOSSTS_DISCONNECTED, also without a connection (logged): nobody writes the file any more, it may be gone on
    // with; EOSSTS_BUSY: the collector lives and does not answer, the file stays its own. A collector that stands still
    // holds up a call for no more than 5 s. Without a_blWait a text that finds another thread sending is left to that:
    // EOSSTS_SUCCESS.
    EOSSTS ClientWrite(const void* a_pvBuffer, size_t a_sizetBytes, bool a_blWait = true);

    // The texts that were left and could not be sent, oldest first; none is told twice. After a call that failed.
    std::string TakeUnsent();

    // Gives a client its connection, which it owns from now on.
    void TakeClientSocket(COsSocket* a_possocket);

    // In a fork of a client's process: lets go of the connection, which stays the parent's. Texts that wait are the
    // parent's as well; from now on every ClientWrite says EOSSTS_DISCONNECTED. Waits for nobody and logs nothing.
    void LeaveToParent();

    bool IsUsable() const { return m_poslogcollectorimpl != nullptr; }

private:
    COsLogCollectorImpl* m_poslogcollectorimpl;   // null only when its allocation failed
};

// Provides this application with its private collector: spawns it, learns its port, and tells this process and its
// later children where it is. Called once by the start of the library. True when a collector is usable or not wanted.
bool LogCollectorStartCollector();

// Logs at level 1 why that start has found no collector; nothing where it has one or wants none.
void LogCollectorTellProblem();
