// os_coslogcollector_server_accept.cpp: the listener and the accept thread, which starts one reader for each connection
// until it is stopped or an accept fails.
#include "os_coslogcollector_server.h"

#include "os_cosfile_system.h"
#include "os_coslogcollector_announcement.h"
#include "os_coslogcollector_stream.h"
#include "os_cosstring.h"
#include "os_new.h"
#include "os_scope.h"

#include "plat_process.h"

#include <cstring>

static constexpr char g_szSource[] = "os/source/os_coslogcollector";

// Bytes. Small, because received data that was not read is lost with a killed collector.
static constexpr uint32_t g_u32ReceiveBuffer = 256 * 1024;

static constexpr uint32_t g_u32MeansPause = 100;   // ms after a lack of descriptors, memory or threads
static constexpr uint32_t g_u32IdentifyTries = 10;

uint32_t COsLogCollectorServer::LogAcceptEntry(COsThread* a_posthread)
{
    static_cast<COsLogCollectorServer*>(a_posthread->Argument())->LogAccept();
    a_posthread->Exit();
    return 0;
}

void COsLogCollectorServer::LogAccept()
{
    const ScopeGuard closeListener([this] { m_possocketListen->SocketDisconnect(false); });
    if (!m_blPrivate)
        ServeShared();
    else if (m_blListening)
        ServeConnections();
}

void COsLogCollectorServer::ServeShared()
{
    char szPath[OS_PATHSIZE];
    OsLcAnnouncementPath(szPath);
    OsFileDelete(szPath, OS_FILETYPE_ANY, false, false);
    COsFile osfile;
    if (OsLcAnnounce(osfile, szPath, m_szHost, m_szPort) && ListenAndReport())
        ServeConnections();
    osfile.Close();
    OsFileDelete(szPath, OS_FILETYPE_ANY, false, false);
}

static void WriteStandardOutput(const char* a_szText)
{
    PlatStandardWrite(PLAT_STANDARD_OUTPUT, a_szText, std::strlen(a_szText));
}

// Reports the port once the listener listens: the application connects immediately.
bool COsLogCollectorServer::ListenAndReport()
{
    if (m_possocketListen->SocketCreate(m_szHost, m_szPort, "logaccept", nullptr) != EOSSTS_SUCCESS)
        return false;
    if (m_blPrivate)
        m_possocketListen->SocketGetInfo(m_szHost, m_szPort);
    if (m_blPrivate && std::strcmp(m_szPort, OS_LC_SHAREDPORT) == 0)
    {
        WriteStandardOutput(OsLcStartRefusal());
        return false;
    }
    m_i32BoundPort = StrToInt32(m_szPort);
    m_possocketListen->SocketSetReceiveBuffer(g_u32ReceiveBuffer);
    m_possocketListen->SocketListen();
    m_blTold = COsLogCollectorPeer::IsTold(static_cast<uint16_t>(m_i32BoundPort.load()));
    if (m_blPrivate)
    {
        char szReply[128];
        OsLcBuildStartReply(szReply, sizeof szReply, m_szPort, PlatProcessId());
        WriteStandardOutput(szReply);
    }
    return true;
}

// ------------------------------------------------------------------------------------------------- accepting

// A lack of descriptors, memory or threads is waited out; connections without a record stay in the listener's queue.
void COsLogCollectorServer::ServeConnections()
{
    for (;;)
    {
        LogCollectorRecord logcollectorrecord{};
        const ScopeGuard freeRecord([&] { FreeRecord(logcollectorrecord); });
        EOSSTS eossts = EOSSTS_NOMEMORY;
        if (CreateRecord(logcollectorrecord))
            eossts = logcollectorrecord.possocket->SocketAccept(m_possyncStop);
        if (eossts == EOSSTS_NOMEMORY && WaitForMeans())
            continue;
        if (eossts != EOSSTS_SUCCESS)
            return;
        if (!IsAdmitted(logcollectorrecord))
            continue;
        while (!StartReader(logcollectorrecord))
        {
            if (!WaitForMeans())
                return;
        }
        logcollectorrecord = {};   // the list owns it now
    }
}

// Frees the resources of finished connections, because no further reader might start that would do it. False when the
// collector is stopped.
bool COsLogCollectorServer::WaitForMeans()
{
    SweepFinished();
    return m_possyncStop->EventWait(g_u32MeansPause, nullptr) == EOSSTS_TIMEOUT && !g_bLogCollectorStopping.load();
}

// Creates everything that a connection needs except its thread. False when resources are lacking.
bool COsLogCollectorServer::CreateRecord(LogCollectorRecord& a_logcollectorrecord)
{
    a_logcollectorrecord.poslogcollectorserver = this;
    a_logcollectorrecord.posthread = OSMEMNEW(COsThread);
    a_logcollectorrecord.possocket = OSMEMNEW(COsSocket);
    a_logcollectorrecord.possync = OSMEMNEW(COsSync);
    a_logcollectorrecord.poslogcollectorstream =
        OSMEMNEW(COsLogCollectorStream, m_oslogcollectorfiles, m_oslogcollectorfolders);
    if (!a_logcollectorrecord.possocket || !a_logcollectorrecord.possocket->IsUsable())
    {
        OSLOG(OS_LOG_ERROR, "m_possocketimpl is null...");
        return false;
    }
    return a_logcollectorrecord.posthread && a_logcollectorrecord.possync &&
           a_logcollectorrecord.poslogcollectorstream &&
           a_logcollectorrecord.possync->EventCreate(nullptr, nullptr) == EOSSTS_SUCCESS &&
           a_logcollectorrecord.possocket->SocketCreate(m_szHost, m_szPort, "logcollector", m_possocketListen) ==
               EOSSTS_SUCCESS;
}

// Called before the first byte is used. Where the system can identify peers, an unidentified peer is refused.
bool COsLogCollectorServer::IsAdmitted(const LogCollectorRecord& a_logcollectorrecord)
{
    COsLogCollectorPeer oslogcollectorpeer;
    EOSSTS eossts = m_blTold ? oslogcollectorpeer.Identify(*a_logcollectorrecord.possocket) : EOSSTS_SUCCESS;
    for (uint32_t u32Try = 1; eossts == EOSSTS_FAIL && u32Try < g_u32IdentifyTries && WaitForMeans(); ++u32Try)
        eossts = oslogcollectorpeer.Identify(*a_logcollectorrecord.possocket);
    a_logcollectorrecord.poslogcollectorstream->SetPeer(oslogcollectorpeer);
    if (eossts == EOSSTS_FAIL)
        OSLOG(OS_LOG_ERROR, "connection of nobody knows whom refused...");
    return eossts == EOSSTS_SUCCESS;
}

// Moves the record into the list and starts its reader on the list's copy, whose address is stable while the reader
// runs. False, with the record not in the list, when resources are lacking.
bool COsLogCollectorServer::StartReader(LogCollectorRecord& a_logcollectorrecord)
{
    m_posthreadStarting.store(a_logcollectorrecord.posthread);
    const ScopeGuard started([this] { m_posthreadStarting.store(nullptr); });
    void* const pvItem = m_poslnk->AddAndLock(&a_logcollectorrecord, nullptr, true, false);
    m_poslnk->Unlock();
    if (!pvItem)
        return false;
    if (a_logcollectorrecord.posthread->Start("Log", &LogDataEntry, pvItem) == EOSSTS_SUCCESS)
        return true;
    m_poslnk->Remove(&a_logcollectorrecord, false, true);
    return false;
}

void COsLogCollectorServer::FreeRecord(LogCollectorRecord& a_logcollectorrecord)
{
    OSMEMDELETE(a_logcollectorrecord.possocket);
    OSMEMDELETE(a_logcollectorrecord.possync);
    OSMEMDELETE(a_logcollectorrecord.posthread);
    OSMEMDELETE(a_logcollectorrecord.poslogcollectorstream);
}
