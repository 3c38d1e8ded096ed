// os_coslogcollector_server.h: the roles that receive streams: a listener, a reader for each connection, the command
// file.
//
//   os_coslogcollector_server.cpp           construction, Start
//   os_coslogcollector_server_accept.cpp    the accept thread: binding, reporting, taking connections
//   os_coslogcollector_server_readers.cpp   a reader: its stream, freeing its connection
//   os_coslogcollector_server_command.cpp   the command file: flush all open log files, end the collector
//   os_coslogcollector_server_stop.cpp      Stop
//   os_coslogcollector_peer.{h,cpp}         the peer, and which files it may have written
//   os_coslogcollector_stream.{h,cpp}       one stream
//   os_coslogcollector_files.{h,cpp}        the files that streams write to
//   os_coslogcollector_folders.{h,cpp}      the log folders of these files
#pragma once

#include "os_coslnk.h"
#include "os_coslogcollector_files.h"
#include "os_coslogcollector_folders.h"
#include "os_coslogcollector_impl.h"
#include "os_coslogcollector_protocol.h"
#include "os_cossocket.h"
#include "os_cossync.h"
#include "os_costhread.h"

#include <atomic>
#include <vector>

class COsLogCollectorServer;
class COsLogCollectorStream;

// One connection. A record is in the connection list from the accept until a later reader, or Stop, frees it. A record
// without a stream is finished: its reader has ended or is about to; thread, socket and event remain to be freed.
struct LogCollectorRecord
{
    COsLogCollectorServer* poslogcollectorserver;
    COsThread* posthread;
    COsSocket* possocket;
    COsSync* possync;
    COsLogCollectorStream* poslogcollectorstream;
};

class COsLogCollectorServer final : public COsLogCollectorImpl
{
public:
    // a_blPrivate: serves one application, on a port chosen by the system; else shared, on a fixed port.
    explicit COsLogCollectorServer(bool a_blPrivate);
    ~COsLogCollectorServer() override;

    EOSSTS Start(const char* a_szLogFile, bool a_blCheckOther) override;
    void Stop(char* a_szFolder, size_t a_sizetFolder) override;
    void SetApplication(uint64_t a_u64ProcessId) override { m_u64ProcessIdApplication = a_u64ProcessId; }
    bool HasStraggler() const override { return m_blStraggler; }

private:
    // Start.
    void ChooseSharedPort();
    void OpenStatus();
    bool CreateServiceObjects();
    void FreeServiceObjects();

    // The accept thread.
    static uint32_t LogAcceptEntry(COsThread* a_posthread);
    void LogAccept();
    void ServeShared();
    bool ListenAndReport();
    void ServeConnections();
    bool CreateRecord(LogCollectorRecord& a_logcollectorrecord);
    bool IsAdmitted(const LogCollectorRecord& a_logcollectorrecord);
    bool StartReader(LogCollectorRecord& a_logcollectorrecord);
    bool WaitForMeans();
    static void FreeRecord(LogCollectorRecord& a_logcollectorrecord);

    // A reader.
    static uint32_t LogDataEntry(COsThread* a_posthread);
    void LogData(const LogCollectorRecord& a_logcollectorrecord);
    void SweepFinished();
    int32_t MarkFinished(const COsLogCollectorStream* a_poslogcollectorstream);
    bool IsLast(const LogCollectorRecord& a_logcollectorrecord, bool a_blOurs);

    // The command file.
    void StartMonitors();
    void StopMonitors();
    void StartMonitor(COsFile& a_osfile, const char* a_szPath);
    static uint32_t MonitorFlushEntry(COsFile* a_posfile);
    void MonitorFlushCallback(const OsLcCommand& a_oslccommand);
    bool IsNamed(const OsLcCommand& a_oslccommand) const;

    // Stop.
    void CloseStatus();
    void StopAccepting();
    void StopReaders();
    std::vector<COsThread*> CancelReaders();
    void FreeRecords();
    void ReportFolder(char* a_szFolder, size_t a_sizetFolder) const;

    const bool m_blPrivate;
    char m_szHost[OS_LC_HOSTSIZE];
    char m_szPort[OS_LC_PORTSIZE];
    std::atomic<int32_t> m_i32BoundPort{0};   // port of the accept thread's listener, 0 before
    uint64_t m_u64ProcessIdApplication = 0;   // the application that is served
    COsThread* m_posthreadAccept = nullptr;
    COsSync* m_possyncStop = nullptr;
    COsSocket* m_possocketListen = nullptr;
    std::atomic<const COsThread*> m_posthreadStarting{nullptr};   // a reader whose start has not returned
    COsLnk* m_poslnk = nullptr;                                   // of LogCollectorRecord
    COsFile* m_posfileFlush = nullptr;                            // its monitor watches the common command file
    COsFile* m_posfileFlushOwn = nullptr;                         // the same for our user's command file
    COsLogCollectorFiles m_oslogcollectorfiles;
    COsLogCollectorFolders m_oslogcollectorfolders;
    bool m_blTold = false;                 // the system can identify peers
    std::atomic<bool> m_blServed{false};   // a stream that was, or may have been, our user's has ended
    bool m_blListening = false;            // a private collector's listener exists before its accept thread
    bool m_blStraggler = false;
    bool m_blStatus = false;   // the status file describes this collector
};
