// os_coslogcollector_impl.h: the implementation object, which the sources of the class share.
//
//   os_coslogcollector.cpp          the public object, construction, Start
//   os_coslogcollector_accept.cpp   the accept thread: binding, reporting, one reader for each connection
//   os_coslogcollector_reader.cpp   a reader: one stream into one file
//   os_coslogcollector_command.cpp  the command file: flush all open log files, end the collector
//   os_coslogcollector_client.cpp   a client: finding its collector, the connection, its lines
//   os_coslogcollector_spawn.cpp    an application starts its collector
//   os_coslogcollector_stop.cpp     Stop
#pragma once

#include "os_cosfile.h"
#include "os_coslnk.h"
#include "os_coslogcollector.h"
#include "os_coslogcollector_protocol.h"
#include "os_cossocket.h"
#include "os_cossync.h"
#include "os_costhread.h"

#include <atomic>
#include <vector>

class COsLogCollectorImpl;

// One connection. The connection list holds a record from the accept until a later reader, or Stop, frees it. A record
// without a file is finished: its reader has ended or is about to, and thread, socket and event wait to be freed.
struct LogCollectorRecord
{
    COsLogCollectorImpl* poslogcollectorimpl;
    COsThread* posthread;
    COsSocket* possocket;
    COsSync* possync;
    COsFile* posfile;
};

// The log files that streams are writing to, for the one who wants all of them on the disk. Any thread, but one at a
// time flushes.
class COsLogOpenFiles
{
public:
    COsLogOpenFiles() = default;
    COsLogOpenFiles(const COsLogOpenFiles&) = delete;
    COsLogOpenFiles& operator=(const COsLogOpenFiles&) = delete;

    void Add(COsFile* a_posfile);      // open from now on
    void Remove(COsFile* a_posfile);   // before it is closed; waits while it is being flushed

    // Flushes one file after the other. Nobody waits for the disk but a stream that ends while its own file is at it.
    void Flush();

private:
    bool Pin(COsFile* a_posfile);

    uint64_t m_u64Lock = 0;
    std::vector<COsFile*> m_vecposfile;
    COsFile* m_posfilePinned = nullptr;
};

class COsLogCollectorImpl
{
public:
    // Throws std::invalid_argument for an unknown role.
    COsLogCollectorImpl(CollectorMode a_collectormode, const char* a_szName);
    ~COsLogCollectorImpl();
    COsLogCollectorImpl(const COsLogCollectorImpl&) = delete;
    COsLogCollectorImpl& operator=(const COsLogCollectorImpl&) = delete;

    EOSSTS Start(const char* a_szLogFile, bool a_blCheckOther);
    void Stop(char* a_szFolder, size_t a_sizetFolder);
    void SetApplication(uint64_t a_u64ProcessId) { m_u64ProcessIdApplication = a_u64ProcessId; }
    EOSSTS ClientWrite(const void* a_pvBuffer, size_t a_sizetBytes);
    void TakeClientSocket(COsSocket* a_possocket);

    // True when Stop had to leave a reader behind that did not end in time: what it uses must stay valid.
    bool HasStraggler() const { return m_blStraggler; }

private:
    // Start.
    void ChoosePort();
    bool OtherSharedRuns();
    static void AnnouncementPath(char* a_szPath);   // OS_PATHSIZE bytes
    void TakeIdentity();
    bool IsClient() const;
    bool CreateServiceObjects();
    void FreeServiceObjects();

    // The accept thread.
    static uint32_t LogAcceptEntry(COsThread* a_posthread);
    void LogAccept();
    bool Announce(COsFile& a_osfile, const char* a_szPath);
    bool ListenAndReport();
    void ServeConnections();
    bool CreateRecord(LogCollectorRecord& a_logcollectorrecord);
    bool AcceptOne(LogCollectorRecord& a_logcollectorrecord);
    bool StartReader(LogCollectorRecord& a_logcollectorrecord);
    static void FreeRecord(LogCollectorRecord& a_logcollectorrecord);

    // A reader.
    static uint32_t LogDataEntry(COsThread* a_posthread);
    void LogData(const LogCollectorRecord& a_logcollectorrecord);
    void TakeStream(const LogCollectorRecord& a_logcollectorrecord, char* a_szLogFile, COsThread*& a_posthreadManage);
    static void RemoveIfEmpty(const char* a_szLogFile);
    COsThread* PrepareFolder(const char* a_szLogFile);
    COsThread* ManageFolder(const char* a_szFolder);
    void SweepFinished();
    int32_t MarkFinished(const COsFile* a_posfile);

    // The command file.
    void StartMonitor();
    void StopMonitor();
    static uint32_t MonitorFlushEntry(COsFile* a_posfile);
    void MonitorFlushCallback(const char* a_szPath);
    bool IsNamed(const OsLcCommand& a_oslccommand) const;

    // A client.
    EOSSTS StartClient(const char* a_szLogFile);
    EOSSTS FindShared();
    EOSSTS Connect();
    EOSSTS SendHeader(const char* a_szLogFile);
    void WaitUntilWritten() const;

    // Stop.
    void StopAccepting();
    void StopReaders();
    std::vector<COsThread*> CancelReaders();
    void FreeRecords();
    void DisconnectClient();
    void ReportFolder(char* a_szFolder, size_t a_sizetFolder);

    CollectorMode m_collectormode;
    char m_szHost[OS_LC_HOSTSIZE];
    char m_szPort[OS_LC_PORTSIZE];
    std::atomic<int32_t> m_i32BoundPort;    // roles 2 and 4: where the accept thread listens, 0 before
    uint64_t m_u64ProcessIdApplication;     // role 3: whose end ends an attempt to connect; role 4: who is served
    char m_szLogFile[OS_PATHSIZE];          // roles 1 and 3
    char m_szLeftoverFolder[OS_PATHSIZE];   // written under the lock of the managed folder
    COsThread* m_posthreadAccept;
    COsSync* m_possyncStop;
    COsSocket* m_possocketListen;
    std::atomic<const COsThread*> m_posthreadStarting{nullptr};   // a reader whose start has not returned
    COsLnk* m_poslnk;                                             // of LogCollectorRecord
    COsSocket* m_possocketClient;                                 // roles 1 and 3
    bool m_blLost;                                                // a send of the client failed
    uint64_t m_u64Written;     // the size of its log file once all that it sent is there, if nobody else writes
    COsFile* m_posfileFlush;   // whose monitor watches the command file
    COsLogOpenFiles m_oslogopenfiles;
    bool m_blListening;   // a private collector, whose listener is there before its accept thread
    bool m_blStraggler;
};

// True in the session where no user works: there nobody uses a collector.
bool OsLcIsServicesSession();

// True when this program is a collector by its path: a collector has none itself.
bool OsLcIsCollectorProgram();
