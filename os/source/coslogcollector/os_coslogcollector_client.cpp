// os_coslogcollector_client.cpp: the roles that send a stream.
//
//   the start   finding the collector, connecting, the header
//   the stream  log text, and its end
#include "os_coslogcollector_client.h"

#include "os_cosarguments.h"
#include "os_cosfile_system.h"
#include "os_coslocale.h"
#include "os_coslogcollector_announcement.h"
#include "os_coslogcollector_sender.h"
#include "os_cospath.h"
#include "os_cossocket.h"
#include "os_cosstring.h"
#include "os_log.h"

#include "plat_file.h"
#include "plat_socket.h"
#include "plat_system.h"
#include "plat_thread.h"
#include "plat_wait.h"

#include <algorithm>
#include <cstring>
#include <new>

static constexpr char g_szSource[] = "os/source/os_coslogcollector";

static constexpr int g_iConnectTries = 8;
static constexpr int32_t g_i32ConnectTimeout = 250;
static constexpr uint32_t g_u32TakenTimeout = 250;

// Bytes. Small, because data in flight is lost with a killed collector.
static constexpr uint32_t g_u32SendBuffer = 32768;

static constexpr uint32_t g_u32ReadTimeout = 500;
static constexpr uint64_t g_u64ReadSoon = 2;   // ms without a sleep
static constexpr uint32_t g_u32MarkerPause = 10;

COsLogCollectorClient::COsLogCollectorClient(bool a_blPrivate, const char* a_szLogFile)
    : m_blPrivate(a_blPrivate),
      m_szHost{},
      m_szPort{},
      m_u64ProcessIdApplication(0),
      m_u64ProcessIdCollector(0),
      m_szLogFile{}
{
    SStrCpy(m_szHost, sizeof m_szHost, OS_LC_HOST);
    SStrCpy(m_szPort, sizeof m_szPort, "0");
    SStrCpy(m_szLogFile, sizeof m_szLogFile, a_szLogFile ? a_szLogFile : "");
}

COsLogCollectorClient::~COsLogCollectorClient() = default;

// ---------------------------------------------------------------------------------------------------- the start

// Lines logged here would come back to a client that is not ready.
EOSSTS COsLogCollectorClient::Start(const char* a_szLogFile, bool)
{
    if (OsLcIsServicesSession() || (m_blPrivate && OsLcIsCollectorProgram()))
        return EOSSTS_FAIL;
    if (m_uniqueSender)
        return EOSSTS_SUCCESS;
    const PlatThreadDeferral platthreaddeferral;   // ending the thread here would stop logging for all
    const COsLogSuppress oslogsuppress;
    if (a_szLogFile)
        SStrCpy(m_szLogFile, sizeof m_szLogFile, a_szLogFile);
    EOSSTS eossts = Find();
    if (eossts == EOSSTS_SUCCESS)
        eossts = Connect();
    return eossts == EOSSTS_SUCCESS && !SendHeader() ? EOSSTS_FAIL : eossts;
}

EOSSTS COsLogCollectorClient::Find()
{
    if (!m_blPrivate)
        return OsLcFindShared(m_szHost, m_szPort);
    const OsCollectorIdentity oscollectoridentity = OsArgumentsCollector();
    SStrPrintf(m_szPort, sizeof m_szPort, "%d", oscollectoridentity.i32Port);
    m_u64ProcessIdApplication = oscollectoridentity.u64ProcessIdApplication;
    m_u64ProcessIdCollector = oscollectoridentity.u64ProcessIdCollector;
    return EOSSTS_SUCCESS;
}

static bool IsStranger(const PlatSocketOwner& a_platsocketowner)
{
    return a_platsocketowner.platowner == PLAT_OWNER_OTHER || a_platsocketowner.platholds == PLAT_HOLDS_NO;
}

// Any process may have the port now and would receive our lines, so the owners of the listener and of the connection's
// other end are checked. If the system cannot tell, the collector is accepted. Without a listener the connection was
// refused, which shows when the header is sent.
bool COsLogCollectorClient::IsOurs(COsSocket& a_ossocket) const
{
    PlatSocketOwner platsocketowner{};
    PlatSocketListenerOwner(static_cast<uint16_t>(StrToInt32(m_szPort)), m_u64ProcessIdCollector, &platsocketowner);
    if (IsStranger(platsocketowner))
        return false;
    platsocketowner = {};
    a_ossocket.SocketPeerOwner(&platsocketowner);
    return !IsStranger(platsocketowner);
}

// In a child process the end of the application, which the collector serves, ends the attempt. An established
// connection outlives the application, as the collector does.
EOSSTS COsLogCollectorClient::Connect()
{
    COsSocket::ConnectArgs connectargs;
    connectargs.szHost = m_szHost;
    connectargs.szPort = m_szPort;
    connectargs.szName = "log";
    connectargs.u64ProcessId = m_u64ProcessIdApplication;
    connectargs.blWatchAttempt = true;
    connectargs.blSecure = true;
    connectargs.i32Timeout = g_i32ConnectTimeout;
    connectargs.blNoDelay = true;
    connectargs.u32SendBuffer = g_u32SendBuffer;

    std::unique_ptr<COsSocket> uniqueSocket(new (std::nothrow) COsSocket);
    for (int iTry = 0; uniqueSocket && iTry < g_iConnectTries; ++iTry)
    {
        if (uniqueSocket->SocketConnect(connectargs) == EOSSTS_SUCCESS)
        {
            if (!IsOurs(*uniqueSocket))
                return EOSSTS_ACCESSDENIED;
            TakeClientSocket(uniqueSocket.release());
            return m_uniqueSender ? EOSSTS_SUCCESS : EOSSTS_FAIL;
        }
        PlatSleep(0);
    }
    return EOSSTS_FAIL;
}

void COsLogCollectorClient::TakeClientSocket(COsSocket* a_possocket)
{
    std::unique_ptr<COsSocket> uniqueSocket(a_possocket);
    m_uniqueSender.reset(new (std::nothrow) COsLogCollectorSender(std::move(uniqueSocket)));
}

// The collector has another working folder, where a relative path would name another file.
static void MakeAbsolute(char* a_szPath)
{
    char16_t wszFolder[OS_WIDEPATHSIZE];
    char szPath[OS_PATHSIZE];
    const bool blAbsolute = *a_szPath == '\\' || *a_szPath == '/' || (*a_szPath && a_szPath[1] == ':');
    if (blAbsolute || !PlatFileFullName(u".", wszFolder, OS_WIDEPATHSIZE) ||
        CopyStringToUtf8(szPath, sizeof szPath, wszFolder, SIZE_MAX) == 0)
        return;
    OsPathAppend(szPath, sizeof szPath, a_szPath);
    SStrCpy(a_szPath, OS_PATHSIZE, szPath);
}

static uint64_t SizeOf(const char* a_szLogFile)
{
    OsFileInfo osfileinfo;
    const bool blThere = OsFileGetInfo(a_szLogFile, &osfileinfo) == EOSSTS_SUCCESS;
    return blThere ? osfileinfo.u64Size : 0;
}

// A refused connection shows here. The header must be sent completely: otherwise the collector would take the first
// lines for the header, and they would be lost. The collector asks the system for the connection's owner, which works
// only while our process has it open. It reads the header after that, so this waits until the header is read.
bool COsLogCollectorClient::SendHeader()
{
    char szHeader[OS_LC_HEADERSIZE];
    MakeAbsolute(m_szLogFile);
    m_u64SizeBefore = SizeOf(m_szLogFile);
    if (OsLcBuildHeader(szHeader, sizeof szHeader, m_szLogFile) == EOSSTS_SUCCESS &&
        m_uniqueSender->Send(szHeader, std::strlen(szHeader)) == EOSSTS_SUCCESS)
    {
        m_u64SizeBefore -= std::strlen(szHeader);
        WaitUntilRead(g_u32TakenTimeout);
        return true;
    }
    m_uniqueSender.reset();
    return false;
}

// --------------------------------------------------------------------------------------------------- the stream

EOSSTS COsLogCollectorClient::ClientWrite(const void* a_pvBuffer, size_t a_sizetBytes, bool a_blWait)
{
    if (!m_uniqueSender)
    {
        OSLOG(OS_LOG_ERROR, "m_possocketimpl is null...");
        return EOSSTS_DISCONNECTED;
    }
    return a_sizetBytes ? m_uniqueSender->Send(a_pvBuffer, a_sizetBytes, a_blWait)
                        : m_uniqueSender->Send(" ", 1, a_blWait);
}

std::string COsLogCollectorClient::TakeUnsent()
{
    return m_uniqueSender ? m_uniqueSender->TakeUnsent() : std::string();
}

// Only the process that owns the application's services sends the end marker. The marker must arrive as a read of its
// own: it is sent when everything before it has been read, and a pause follows. Where that is impossible, closing ends
// the stream too. The other end of a connection that was given up is not waited for.
void COsLogCollectorClient::Stop(char* a_szFolder, size_t a_sizetFolder)
{
    if (a_szFolder && a_sizetFolder)
        std::fill_n(a_szFolder, a_sizetFolder, '\0');
    if (!m_uniqueSender)
        return;
    if (m_blPrivate && OsArgumentsIsServicesOwner() && !m_uniqueSender->HasFailed() && WaitUntilRead(g_u32ReadTimeout))
    {
        m_uniqueSender->Send(OS_LC_ENDMARKER, std::strlen(OS_LC_ENDMARKER));
        PlatSleep(g_u32MarkerPause);
    }
    m_uniqueSender->Close(!m_uniqueSender->HasFailed());
    m_uniqueSender.reset();
}

void COsLogCollectorClient::LeaveToParent()
{
    if (m_uniqueSender)
        m_uniqueSender->LeaveToParent();
}

// The system knows how much the collector has read; where it does not, the size of the file is used, which works only
// if no other process writes there.
bool COsLogCollectorClient::WaitUntilRead(uint32_t a_u32Milliseconds) const
{
    const uint64_t u64Sent = m_uniqueSender->Sent();
    const uint64_t u64Begin = PlatTicks();
    for (;;)
    {
        uint64_t u64Read = 0;
        const bool blTold = m_uniqueSender->ReadByCollector(&u64Read);
        if (blTold ? u64Read == u64Sent : SizeOf(m_szLogFile) >= m_u64SizeBefore + u64Sent)
            return true;
        const uint64_t u64Waited = PlatTicks() - u64Begin;
        if (u64Waited >= a_u32Milliseconds)
            return !blTold;
        PlatSleep(u64Waited < g_u64ReadSoon ? 0 : 1);
    }
}
