// os_coslogcollector_client.cpp: the client roles: finding the collector, the connection with its header, log lines.
#include "os_coslogcollector_impl.h"

#include "os_cosarguments.h"
#include "os_cosfile_system.h"
#include "os_cosstring.h"
#include "os_new.h"
#include "os_scope.h"

#include "plat_system.h"
#include "plat_wait.h"

#include <cstring>

static constexpr char g_szSource[] = "os/source/os_coslogcollector";

static constexpr int g_iConnectTries = 8;
static constexpr int32_t g_i32ConnectTimeout = 250;
static constexpr uint32_t g_u32SendBuffer = 32768;   // bytes: what is on its way is lost with a killed collector
static constexpr size_t g_sizetAnnouncementMost = 1024;

// A collector that takes nothing for so long is given up: its clients must not stand still for ever.
static constexpr uint32_t g_u32ClientTimeout = 5000;

static constexpr uint32_t g_u32WrittenTimeout = 500;

// ------------------------------------------------------------------------------------------------------- start

// What it logs on its way would come back to a client that is not ready.
EOSSTS COsLogCollectorImpl::StartClient(const char* a_szLogFile)
{
    const bool blPrivate = m_collectormode == OS_COLLECTORMODE_PRIVATECLIENT;
    if (m_possocketClient)
        return EOSSTS_SUCCESS;
    if (blPrivate && OsLcIsCollectorProgram())
        return EOSSTS_FAIL;
    {
        const COsLogSuppress oslogsuppress;
        if (blPrivate)
            TakeIdentity();
        EOSSTS eossts = blPrivate ? EOSSTS_SUCCESS : FindShared();
        if (eossts == EOSSTS_SUCCESS)
            eossts = Connect();
        if (eossts == EOSSTS_SUCCESS)
            eossts = SendHeader(a_szLogFile);
        if (eossts != EOSSTS_SUCCESS)
            return eossts;
    }
    if (blPrivate)
        OSLOG(OS_LOG_MILESTONE, "LogCollector initialization complete...");
    return EOSSTS_SUCCESS;
}

// Takes host and port from the announcement of a shared collector. One that nobody holds a lock on is left over from a
// collector that has gone: EOSSTS_BUSY, and it is deleted. The lock's byte is not read, it belongs to the collector.
EOSSTS COsLogCollectorImpl::FindShared()
{
    char szPath[OS_PATHSIZE];
    char szText[g_sizetAnnouncementMost + 1] = {};
    AnnouncementPath(szPath);
    COsFile osfile;
    if (osfile.Open(szPath, OS_FILEOPEN_EXISTING, OS_FILEACCESS_READWRITE, OS_FILESHARE_READWRITE) != EOSSTS_SUCCESS)
        return EOSSTS_FAIL;
    if (osfile.LockByte(0, 1, szPath, true) == EOSSTS_SUCCESS)
    {
        osfile.UnlockByte(0);
        osfile.Close();
        OsFileDelete(szPath, OS_FILETYPE_ANY, false, false);
        return EOSSTS_BUSY;
    }
    osfile.Seek(OS_FILESEEK_START, 1);
    osfile.Read(szText, g_sizetAnnouncementMost, nullptr);
    return OsLcReadAnnouncement(szText, m_szHost, m_szPort) ? EOSSTS_SUCCESS : EOSSTS_FAIL;
}

// In a child process the end of the application, which the collector serves, ends the attempt as well.
EOSSTS COsLogCollectorImpl::Connect()
{
    COsSocket::ConnectArgs connectargs;
    connectargs.szHost = m_szHost;
    connectargs.szPort = m_szPort;
    connectargs.szName = "log";
    connectargs.u64ProcessId = m_collectormode == OS_COLLECTORMODE_PRIVATECLIENT ? m_u64ProcessIdApplication : 0;
    connectargs.blSecure = true;
    connectargs.i32Timeout = g_i32ConnectTimeout;
    connectargs.blNoDelay = true;
    connectargs.u32SendBuffer = g_u32SendBuffer;

    m_possocketClient = OSMEMNEW(COsSocket);
    for (int iTry = 0; m_possocketClient && iTry < g_iConnectTries; ++iTry)
    {
        if (m_possocketClient->SocketConnect(connectargs) == EOSSTS_SUCCESS)
            return EOSSTS_SUCCESS;
        PlatSleep(0);
    }
    OSMEMDELETE(m_possocketClient);
    return EOSSTS_FAIL;
}

static uint64_t SizeOf(const char* a_szLogFile)
{
    OsFileInfo osfileinfo;
    const bool blThere = OsFileGetInfo(a_szLogFile, &osfileinfo) == EOSSTS_SUCCESS;
    return blThere ? osfileinfo.u64Size : 0;
}

// A refused connection shows here. Without its whole header a stream is worth nothing: the first lines would count as
// the header, and be lost.
EOSSTS COsLogCollectorImpl::SendHeader(const char* a_szLogFile)
{
    char szHeader[OS_LC_HEADERSIZE];
    if (a_szLogFile)
        SStrCpy(m_szLogFile, sizeof m_szLogFile, a_szLogFile);
    const uint64_t u64Size = SizeOf(m_szLogFile);
    if (OsLcBuildHeader(szHeader, sizeof szHeader, m_szLogFile) == EOSSTS_SUCCESS &&
        ClientWrite(szHeader, std::strlen(szHeader)) == EOSSTS_SUCCESS)
    {
        m_u64Written = u64Size;
        return EOSSTS_SUCCESS;
    }
    OSMEMDELETE(m_possocketClient);
    return EOSSTS_FAIL;
}

// ------------------------------------------------------------------------------------------------------- lines

void COsLogCollectorImpl::TakeClientSocket(COsSocket* a_possocket)
{
    OSMEMDELETE(m_possocketClient);
    m_possocketClient = a_possocket;
    m_blLost = false;
}

// A collector that stands still is given up with the first piece that had to wait for so long, even if there was a bit
// of room for it in the end: the next one would wait just as long.
EOSSTS COsLogCollectorImpl::ClientWrite(const void* a_pvBuffer, size_t a_sizetBytes)
{
    if (!m_possocketClient)
    {
        OSLOG(OS_LOG_ERROR, "m_possocketimpl is null...");
        return EOSSTS_DISCONNECTED;
    }
    COsSocket::WriteArgs writeargs;
    writeargs.pvBuffer = a_sizetBytes ? a_pvBuffer : " ";
    writeargs.sizetBuffer = a_sizetBytes ? a_sizetBytes : 1;
    writeargs.u32Timeout = g_u32ClientTimeout;
    writeargs.blLogging = false;
    writeargs.blRaw = true;
    EOSSTS eossts = EOSSTS_SUCCESS;
    while (writeargs.sizetBuffer && !m_blLost)
    {
        const uint64_t u64Begin = PlatTicks();
        size_t sizetWritten = 0;
        eossts = m_possocketClient->SocketWrite(writeargs, &sizetWritten);
        m_blLost = eossts != EOSSTS_SUCCESS || sizetWritten == 0 || PlatTicks() - u64Begin >= g_u32ClientTimeout;
        writeargs.pvBuffer = static_cast<const char*>(writeargs.pvBuffer) + sizetWritten;
        writeargs.sizetBuffer -= sizetWritten;
        m_u64Written += sizetWritten;
    }
    return writeargs.sizetBuffer && eossts == EOSSTS_SUCCESS ? EOSSTS_DISCONNECTED : eossts;
}

// A collector says nothing of what it has done, but the file does. Nobody waits long for a file that does not grow:
// it may have been deleted.
void COsLogCollectorImpl::WaitUntilWritten() const
{
    for (uint32_t u32Step = 0; u32Step < g_u32WrittenTimeout && SizeOf(m_szLogFile) < m_u64Written; ++u32Step)
        PlatSleep(1);
}
