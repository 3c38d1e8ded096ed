// os_cossocket_connect.cpp: the choice of the transport, and connecting.
#include "os_cfg.h"
#include "os_cosredact.h"
#include "os_cossocket_impl.h"
#include "os_cossocket_shared_impl.h"
#include "os_cosstring.h"
#include "os_scope.h"

#include "plat_process.h"
#include "plat_wait.h"

#include <cstring>

static constexpr char g_szSource[] = "os/source/os_cossocket";

static constexpr uint32_t OS_CONNECTTIMEOUT = 20000;

// Indexes in the wait for the end of the attempt.
static constexpr uint32_t OS_CONNECTRESULT_CANCEL = 0;
static constexpr uint32_t OS_CONNECTRESULT_ENDED = 1;
static constexpr uint32_t OS_CONNECTRESULT_EXITED = 2;

// False (logged) when the port does not determine the type.
bool COsSocketImpl::ChooseType(const char* a_szHost, const char* a_szPort, const char* a_szName)
{
    m_psocketstate->eossockettype = OS_SOCKETTYPE_TCP;
    const SocketTransport* const psockettransport = OsSocketTransportOfHost(a_szHost);
    if (!psockettransport)
        return true;
    const EOSSOCKETTYPE eossockettype = OsSocketTransportType(*psockettransport, a_szPort);
    if (eossockettype == OS_SOCKETTYPE_UNDEFINED)
    {
        OSLOG(OS_LOG_ERROR, "bad port...<%s>", a_szPort);
        return false;
    }
    SocketState& socketstate = *m_psocketstate;
    if (!socketstate.psocketshared)
        socketstate.psocketshared.reset(new (std::nothrow) SocketShared);
    if (!socketstate.psocketshared)
    {
        OSLOG(OS_LOG_CHECK, "OsMemNew failed...");
        return false;
    }
    OsSocketNameChannels(eossockettype, a_szHost, a_szPort, a_szName, &socketstate.psocketshared->m_socketchannelnames);
    socketstate.eossockettype = eossockettype;
    return true;
}

EOSSTS COsSocketImpl::Connect(const COsSocket::ConnectArgs& a_connectargs)
{
    const char* const szHost = a_connectargs.szHost ? a_connectargs.szHost : OS_LOOPBACK;
    const char* const szPort = a_connectargs.szPort ? a_connectargs.szPort : "";
    const char* const szName = a_connectargs.szName ? a_connectargs.szName : "";
    OSLOG(OS_LOG_NOTE, "sock>>> <%s> <%s> <%s> %llu %d %d %d", szName, Redact(a_connectargs.szHost), szPort,
          static_cast<unsigned long long>(a_connectargs.u64ProcessId), static_cast<int>(a_connectargs.blSecure),
          static_cast<int>(a_connectargs.i32Timeout), 1);
    ReleaseLeftovers();
    ScopeGuard disconnectOnFailure([this] { Disconnect(false); });
    const SocketOperation socketoperation(*m_psocketstate);
    if (!socketoperation.Entered() || !ChooseType(szHost, szPort, szName))
        return EOSSTS_FAIL;
    const EOSSTS eossts = Type() == OS_SOCKETTYPE_TCP ? ConnectTcp(a_connectargs, szHost, szPort)
                                                      : ConnectShared(a_connectargs.u64ProcessId);
    if (eossts == EOSSTS_SUCCESS)
        disconnectOnFailure.Dismiss();
    return eossts;
}

EOSSTS COsSocketImpl::ConnectShared(uint64_t a_u64ProcessId)
{
    if (!OsSocketIsShared(Type()))
    {
        OSLOG(OS_LOG_ERROR, "Unsupported...%d", TypeNumber());
        return EOSSTS_FAIL;
    }
    return m_psocketstate->psocketshared->Connect(Type(), a_u64ProcessId) ? EOSSTS_SUCCESS : EOSSTS_FAIL;
}

EOSSTS COsSocketImpl::ConnectTcp(const COsSocket::ConnectArgs& a_connectargs, const char* a_szHost,
                                 const char* a_szPort)
{
    SStrCpy(m_psocketstate->szHost, sizeof m_psocketstate->szHost, a_szHost);
    if (!OsSocketInitializeStatic())
    {
        OSLOG(OS_LOG_ERROR, "sock>>> connect: OsSocketInitializeStatic failed...");
        return EOSSTS_FAIL;
    }
    if (!FindPeer() || !CreateConnectSocket(a_connectargs))
        return EOSSTS_FAIL;
    PreparePort(a_szPort);
    const bool blStarted =
        CreateCancelEvent() == EOSSTS_SUCCESS && WatchProcess(a_connectargs.u64ProcessId) && StartConnect();
    const EOSSTS eossts = blStarted ? AwaitConnect(a_connectargs.i32Timeout) : EOSSTS_FAIL;
    if (eossts == EOSSTS_SUCCESS && a_connectargs.blWatchAttempt)
        ForgetProcess();
    return eossts;
}

// The peer's address: the host as dotted text, or its resolved address. The host name then holds the dotted text.
bool COsSocketImpl::FindPeer()
{
    PlatAddress& plataddress = m_psocketstate->plataddress;
    char szAddress[OS_SOCKETHOSTSIZE];
    const bool blLiteral = PlatAddressFromText(m_psocketstate->szHost, &plataddress) &&
                           PlatAddressToText(&plataddress, szAddress, sizeof szAddress) &&
                           std::strcmp(szAddress, m_psocketstate->szHost) == 0;
    if (blLiteral)
        return true;
    if (!OsSocketLookUp(m_psocketstate->szHost, &plataddress) ||
        !PlatAddressToText(&plataddress, szAddress, sizeof szAddress))
        return false;
    SStrCpy(m_psocketstate->szHost, sizeof m_psocketstate->szHost, szAddress);
    return true;
}

bool COsSocketImpl::CreateConnectSocket(const COsSocket::ConnectArgs& a_connectargs)
{
    const PlatHandle plathandle = PlatSocketCreate();
    m_psocketstate->plathandleConnected = plathandle;
    if (plathandle == PLAT_INVALID)
    {
        OSLOG(OS_LOG_ERROR, "sock>>> connect: socket failed...");
        return false;
    }
    if (a_connectargs.u32SendBuffer != 0 && !PlatSocketSetSendBuffer(plathandle, a_connectargs.u32SendBuffer))
        OSLOG(OS_LOG_ERROR, "sock>>> connect: setsockopt(SO_SNDBUF) failed...");
    if (!OsCfgExists())
        return true;
    if (OsCfgGetLong(OS_CFGTAG_FORCENETKEEPALIVE) != 0 &&
        !PlatSocketSetOption(plathandle, PLAT_SOCKETOPTION_KEEPALIVE, true))
        OSLOG(OS_LOG_ERROR, "sock>>> connect: setsockopt(SO_KEEPALIVE) failed...");
    const long lNoDelay = OsCfgGetLong(OS_CFGTAG_FORCENETNODELAY);
    if ((lNoDelay >= 2 || (lNoDelay != 0 && a_connectargs.blNoDelay)) &&
        !PlatSocketSetOption(plathandle, PLAT_SOCKETOPTION_NODELAY, true))
        OSLOG(OS_LOG_ERROR, "sock>>> connect: setsockopt(TCP_NODELAY) failed...");
    return true;
}

// A port out of range is reported like port 0, to which no connect is possible.
void COsSocketImpl::PreparePort(const char* a_szPort)
{
    if (!OsSocketParsePort(a_szPort, &m_psocketstate->u16Port))
        m_psocketstate->u16Port = 0;
    m_psocketstate->plataddress.u16Port = m_psocketstate->u16Port;
    LogAddress(OS_LOG_NOTE, m_psocketstate->plataddress);
}

bool COsSocketImpl::WatchProcess(uint64_t a_u64ProcessId)
{
    if (a_u64ProcessId == 0)
        return true;
    m_psocketstate->plathandleProcess = PlatProcessOpen(a_u64ProcessId);
    if (m_psocketstate->plathandleProcess != PLAT_INVALID)
        return true;
    OSLOG(OS_LOG_ERROR, "sock>>> create: OpenProcess failed...");
    return false;
}

bool COsSocketImpl::StartConnect()
{
    if (PlatSocketConnect(m_psocketstate->plathandleConnected, &m_psocketstate->plataddress) ||
        PlatGetLastError() == PLAT_ERROR_WOULDBLOCK)
        return true;
    OSLOG(OS_LOG_NOTE, "sock>>> connect: WSAConnect failed...");
    return false;
}

// Waits for the end of the attempt. Its result shows at the first read or write.
EOSSTS COsSocketImpl::AwaitConnect(int32_t a_i32Timeout)
{
    constexpr uint32_t OS_ENDED = PLAT_SOCKET_CONNECT | PLAT_SOCKET_CLOSE;
    const PlatHandle plathandleSocket = m_psocketstate->plathandleConnected;
    if (CancelIsRequested())
        return ConnectStatus(OS_CONNECTRESULT_CANCEL);
    uint32_t u32Result = OS_CONNECTRESULT_ENDED;
    if (PlatSocketPoll(plathandleSocket, OS_ENDED) == 0)
    {
        if (!SelectEvent(&m_psocketstate->socketeventRead, plathandleSocket, OS_ENDED))
        {
            OSLOG(OS_LOG_NOTE, "sock>>> WSAEventSelect failed...");
            return EOSSTS_FAIL;
        }
        const PlatHandle aplathandle[] = {m_psocketstate->plathandleCancel, m_psocketstate->socketeventRead.plathandle,
                                          m_psocketstate->plathandleProcess};
        const uint32_t u32Count = aplathandle[2] == PLAT_INVALID ? 2 : 3;
        const uint32_t u32Timeout = a_i32Timeout == -1 ? OS_CONNECTTIMEOUT : static_cast<uint32_t>(a_i32Timeout);
        u32Result = PlatWaitAny(aplathandle, u32Count, u32Timeout);
    }
    return ConnectStatus(u32Result);
}

EOSSTS COsSocketImpl::ConnectStatus(uint32_t a_u32Result)
{
    const PlatAddress& plataddress = m_psocketstate->plataddress;
    switch (a_u32Result)
    {
    case OS_CONNECTRESULT_CANCEL:
        OSLOG(OS_LOG_ERROR, "sock>>> WSAConnect canceled...");
        LogAddress(OS_LOG_ERROR, plataddress);
        return EOSSTS_CANCELLED;
    case OS_CONNECTRESULT_ENDED:
        OSLOG(OS_LOG_NOTE, "sock>>> WSAConnect succeeded...");
        ConsumeCancel();
        return EOSSTS_SUCCESS;
    case OS_CONNECTRESULT_EXITED:
        OSLOG(OS_LOG_ERROR, "sock>>> WSAConnect process exited...");
        LogAddress(OS_LOG_ERROR, plataddress);
        return EOSSTS_EXITED;
    case PLAT_WAIT_TIMEOUT:
        OSLOG(OS_LOG_NOTE, "sock>>> WSAConnect timed out (device not found)...");
        LogAddress(OS_LOG_NOTE, plataddress);
        return EOSSTS_TIMEOUT;
    default:
        OSLOG(OS_LOG_ERROR, "sock>>> WSAConnect failed...%d", static_cast<int>(a_u32Result));
        LogAddress(OS_LOG_ERROR, plataddress);
        return EOSSTS_FAIL;
    }
}
