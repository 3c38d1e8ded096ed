// os_cossocket.cpp: the public object, construction, create, listen, accept, names, and the process-wide start.
#include "os_cfg.h"
#include "os_cosenv.h"
#include "os_coslocale.h"
#include "os_cosredact.h"
#include "os_cossocket_impl.h"
#include "os_cossocket_shared_impl.h"
#include "os_cosspinlock.h"
#include "os_cosstring.h"
#include "os_new.h"
#include "os_scope.h"

#include "plat_wait.h"

#include <cstring>

static constexpr char g_szSource[] = "os/source/os_cossocket";

static constexpr uint32_t OS_BACKLOG = 32;

// Process-wide.

static std::atomic<bool> g_blSocketStarted{false};

bool OsSocketInitializeStatic()
{
    if (g_blSocketStarted)
        return true;
    if (!PlatSocketStartup())
    {
        OSLOG(OS_LOG_NOTE, "usbpnp>>> WSAStartup failed...");
        return false;
    }
    OsStringSetInHouseTest(&OsIsInHouseMachine);
    g_blSocketStarted = true;
    return true;
}

void OsSocketCleanupStatic()
{
    if (g_blSocketStarted.exchange(false))
        PlatSocketCleanup();
}

EOSSTS OsSocketStatus(uint32_t a_u32Error)
{
    switch (a_u32Error)
    {
    case PLAT_ERROR_TOOMANYOPEN:
    case PLAT_ERROR_TOOMANYSOCKETS:
    case PLAT_ERROR_NOMEMORY:
    case PLAT_ERROR_NOBUFFERS:
        return EOSSTS_NOMEMORY;
    default:
        return EOSSTS_FAIL;
    }
}

// A machine is in-house when one of the manufacturer's hosts resolves. The list is empty, so no lookup is made.
bool OsIsInHouseMachine()
{
    return false;
}

bool OsSocketLookUp(const char* a_szHost, PlatAddress* a_pplataddress)
{
    char16_t wszHost[OS_SOCKETHOSTSIZE];
    if (CopyStringFromUtf8(wszHost, OS_SOCKETHOSTSIZE, a_szHost) == 0)
    {
        OSLOG(OS_LOG_ERROR, "CopyStringFromUtf8 failed <%s>", a_szHost);
        return false;
    }
    if (!PlatAddressResolve(wszHost, a_pplataddress))
    {
        OSLOG(OS_LOG_NOTE, "GetAddrInfoW failed...%d <%s>", static_cast<int>(PlatGetLastError()), a_szHost);
        return false;
    }
    return true;
}

bool OsSocketParsePort(const char* a_szPort, uint16_t* a_pu16Port)
{
    const int32_t i32Port = StrToInt32(a_szPort);
    *a_pu16Port = static_cast<uint16_t>(i32Port);
    return i32Port == *a_pu16Port;
}

// There is no certificate store and no secure-channel layer here; only the configured values are checked.
static void CheckClientCertificate()
{
    static std::atomic<bool> s_blChecked{false};
    if (s_blChecked.exchange(true))
        return;
    const char* const szCertificate = OsCfgGetString(OS_CFGTAG_FORCEHTTPSCLIENTCERTIFICATE);
    if (szCertificate[0] == '\0')
        return;
    const char* const szSlash = std::strchr(szCertificate, '/');
    if (!szSlash)
    {
        OSLOG(OS_LOG_ERROR, "event>>> bad value for ForceHttpsClientCertificate, format must be store/name...<%s>",
              szCertificate);
        return;
    }
    OSLOG(OS_LOG_ERROR, "event>>> error opening store...<%.*s>", static_cast<int>(szSlash - szCertificate),
          szCertificate);
}

// The shared listening socket.

SocketListener* SocketListener::Share()
{
    m_u32References.fetch_add(1, std::memory_order_relaxed);
    return this;
}

void SocketListener::Drop(SocketListener*& a_psocketlistener)
{
    if (a_psocketlistener && a_psocketlistener->m_u32References.fetch_sub(1, std::memory_order_acq_rel) == 1)
        delete a_psocketlistener;
    a_psocketlistener = nullptr;
}

SocketListener::~SocketListener()
{
    PlatClose(m_plathandle);
}

// The public object.

static bool Usable(const COsSocketImpl* a_possocketimpl)
{
    if (!a_possocketimpl)
        OSLOG(OS_LOG_ERROR, "m_possocketimpl is null...");
    return a_possocketimpl != nullptr;
}

COsSocket::COsSocket() : m_possocketimpl(OSMEMNEW(COsSocketImpl))
{
    if (m_possocketimpl && !m_possocketimpl->Initialize())
        OSMEMDELETE(m_possocketimpl);
}

COsSocket::~COsSocket()
{
    OSMEMDELETE(m_possocketimpl);
}

EOSSTS COsSocket::SocketCreate(const char* a_szHost, const char* a_szPort, const char*, COsSocket* a_possocketSource)
{
    if (!Usable(m_possocketimpl))
        return EOSSTS_FAIL;
    COsSocketImpl* const possocketimplSource = a_possocketSource ? a_possocketSource->m_possocketimpl : nullptr;
    return m_possocketimpl->Create(a_szHost, a_szPort, a_possocketSource != nullptr, possocketimplSource);
}

EOSSTS COsSocket::SocketListen()
{
    return Usable(m_possocketimpl) ? m_possocketimpl->Listen() : EOSSTS_FAIL;
}

EOSSTS COsSocket::SocketSetReceiveBuffer(uint32_t a_u32Bytes)
{
    return Usable(m_possocketimpl) ? m_possocketimpl->SetReceiveBuffer(a_u32Bytes) : EOSSTS_FAIL;
}

EOSSTS COsSocket::SocketAccept(COsSync* a_possyncStop)
{
    return Usable(m_possocketimpl) ? m_possocketimpl->Accept(a_possyncStop) : EOSSTS_FAIL;
}

EOSSTS COsSocket::SocketConnect(const ConnectArgs& a_connectargs)
{
    return Usable(m_possocketimpl) ? m_possocketimpl->Connect(a_connectargs) : EOSSTS_FAIL;
}

EOSSTS COsSocket::SocketRead(const ReadArgs& a_readargs, size_t* a_psizetRead)
{
    return Usable(m_possocketimpl) ? m_possocketimpl->Read(a_readargs, a_psizetRead) : EOSSTS_FAIL;
}

EOSSTS COsSocket::SocketWrite(const WriteArgs& a_writeargs, size_t* a_psizetWritten)
{
    return Usable(m_possocketimpl) ? m_possocketimpl->Write(a_writeargs, a_psizetWritten) : EOSSTS_FAIL;
}

EOSSTS COsSocket::SocketTrySend(const void* a_pvBuffer, size_t a_sizetBuffer, size_t* a_psizetSent)
{
    return Usable(m_possocketimpl) ? m_possocketimpl->TrySend(a_pvBuffer, a_sizetBuffer, a_psizetSent) : EOSSTS_FAIL;
}

EOSSTS COsSocket::SocketEndSending()
{
    return Usable(m_possocketimpl) ? m_possocketimpl->EndSending() : EOSSTS_FAIL;
}

EOSSTS COsSocket::SocketPeerOwner(PlatSocketOwner* a_pplatsocketowner)
{
    return Usable(m_possocketimpl) ? m_possocketimpl->PeerOwner(a_pplatsocketowner) : EOSSTS_FAIL;
}

EOSSTS COsSocket::SocketUnsent(size_t* a_psizetBytes)
{
    return Usable(m_possocketimpl) ? m_possocketimpl->Unsent(a_psizetBytes) : EOSSTS_FAIL;
}

EOSSTS COsSocket::SocketSelect(const SelectArgs& a_selectargs)
{
    return Usable(m_possocketimpl) ? m_possocketimpl->Select(a_selectargs) : EOSSTS_FAIL;
}

void COsSocket::SocketCancel()
{
    if (Usable(m_possocketimpl))
        m_possocketimpl->Cancel();
}

void COsSocket::SocketDisconnect(bool a_blGraceful)
{
    if (Usable(m_possocketimpl))
        m_possocketimpl->Disconnect(a_blGraceful);
}

void COsSocket::SocketLeaveToParent()
{
    if (m_possocketimpl)
        m_possocketimpl->LeaveToParent();
}

EOSSTS COsSocket::SocketGetInfo(char* a_szHost, char* a_szPort)
{
    return Usable(m_possocketimpl) ? m_possocketimpl->GetInfo(a_szHost, a_szPort) : EOSSTS_FAIL;
}

EOSSTS COsSocket::SocketResolveHost(const char* a_szHost, char* a_szAddress)
{
    return Usable(m_possocketimpl) ? COsSocketImpl::ResolveHost(a_szHost, a_szAddress) : EOSSTS_FAIL;
}

// Construction.

SocketState::SocketState() = default;
SocketState::~SocketState() = default;

bool COsSocketImpl::Initialize()
{
    m_psocketstate.reset(new (std::nothrow) SocketState);
    if (!m_psocketstate)
    {
        OSLOG(OS_LOG_CHECK, "Nope nope nope...");
        return false;
    }
    char szSideLog[16];
    OsEnvGet("MVR_SOCKETSIDELOG", "0", sizeof szSideLog, szSideLog);
    m_psocketstate->blSideLog = StrToInt32(szSideLog) != 0;
    CheckClientCertificate();
    return true;
}

COsSocketImpl::~COsSocketImpl()
{
    // An operation in progress still uses the state.
    if (m_psocketstate && !Disconnect(false))
        static_cast<void>(m_psocketstate.release());
}

EOSSTS COsSocketImpl::Unsupported() const
{
    OSLOG(OS_LOG_CHECK, "Unsupported...%d", TypeNumber());
    return EOSSTS_FAIL;
}

// Releases what an object still holds that is used again without a disconnect.
void COsSocketImpl::ReleaseLeftovers()
{
    const SocketShared* const psocketshared = m_psocketstate->psocketshared.get();
    if (m_psocketstate->plathandleConnected != PLAT_INVALID || m_psocketstate->psocketlistener ||
        (psocketshared && psocketshared->IsAttached()))
        Disconnect(false);
}

// Logs an address in the product's memory layout: both numbers in network order.
void COsSocketImpl::LogAddress(uint32_t a_u32Level, const PlatAddress& a_plataddress) const
{
    const uint16_t u16Port = static_cast<uint16_t>((a_plataddress.u16Port << 8) | (a_plataddress.u16Port >> 8));
    const uint8_t* const pu8Address = a_plataddress.au8Address;
    const uint32_t u32Address = static_cast<uint32_t>(pu8Address[0]) | static_cast<uint32_t>(pu8Address[1]) << 8 |
                                static_cast<uint32_t>(pu8Address[2]) << 16 | static_cast<uint32_t>(pu8Address[3]) << 24;
    OSLOG(a_u32Level, "sock>>> sin_family:%d sin_port:%04x sin_addr.s_addr:%08x", 2, u16Port, u32Address);
}

// The read and write events are created by the first wait that needs them.
EOSSTS COsSocketImpl::CreateCancelEvent()
{
    const PlatHandle plathandle = PlatEventCreate(PLAT_RESET_MANUAL, nullptr);
    if (plathandle == PLAT_INVALID)
    {
        const EOSSTS eossts = OsSocketStatus(PlatGetLastError());
        OSLOG(OS_LOG_ERROR, "sock>>> create: WSACreateEvent failed...");
        return eossts;
    }
    const COsSpinGuard spinguard(&m_psocketstate->u64CancelLock);
    m_psocketstate->plathandleCancel = plathandle;
    return EOSSTS_SUCCESS;
}

// Create, listen, accept.

EOSSTS COsSocketImpl::Create(const char* a_szHost, const char* a_szPort, bool a_blSource,
                             COsSocketImpl* a_possocketimplSource)
{
    if (!a_szPort)
    {
        OSLOG(OS_LOG_ERROR, "a_szPort is null...");
        return EOSSTS_FAIL;
    }
    ReleaseLeftovers();

    ScopeGuard disconnectOnFailure([this] { Disconnect(false); });
    const SocketOperation socketoperation(*m_psocketstate);
    const EOSSTS eossts =
        socketoperation.Entered() ? CreateTcp(a_szHost, a_szPort, a_blSource, a_possocketimplSource) : EOSSTS_FAIL;
    if (eossts == EOSSTS_SUCCESS)
        disconnectOnFailure.Dismiss();
    return eossts;
}

EOSSTS COsSocketImpl::CreateTcp(const char* a_szHost, const char* a_szPort, bool a_blSource,
                                COsSocketImpl* a_possocketimplSource)
{
    m_psocketstate->eossockettype = OS_SOCKETTYPE_TCP;
    SStrCpy(m_psocketstate->szHost, sizeof m_psocketstate->szHost, a_szHost ? a_szHost : OS_LOOPBACK);
    if (!OsSocketInitializeStatic())
    {
        OSLOG(OS_LOG_ERROR, "sock>>> create: OsSocketInitializeStatic failed...");
        return EOSSTS_FAIL;
    }

    m_psocketstate->blOwnsListener = !a_blSource;
    bool blAddress = true;   // false: no dotted address or no port; bind reports it
    const EOSSTS eossts = a_blSource ? ShareListener(a_possocketimplSource) : MakeListener(a_szPort, &blAddress);
    if (eossts != EOSSTS_SUCCESS)
    {
        OSLOG(OS_LOG_ERROR, "sock>>> create: socket failed...");
        return eossts;
    }

    PlatAddress plataddress{};
    blAddress = PlatAddressFromText(m_psocketstate->szHost, &plataddress) && blAddress;
    plataddress.u16Port = m_psocketstate->u16Port;
    LogAddress(OS_LOG_NOTE, plataddress);
    if (!a_blSource && !(blAddress && BindListener(plataddress)))
    {
        OSLOG(OS_LOG_ERROR, "sock>>> create: bind failed...");
        return EOSSTS_FAIL;
    }
    if (PlatSocketName(m_psocketstate->psocketlistener->Handle(), &plataddress))
        m_psocketstate->u16Port = plataddress.u16Port;
    return CreateCancelEvent();
}

EOSSTS COsSocketImpl::ShareListener(COsSocketImpl* a_possocketimplSource)
{
    if (!a_possocketimplSource)
    {
        OSLOG(OS_LOG_ERROR, "m_possocketimpl is null...");
        return EOSSTS_FAIL;
    }
    SocketState& socketstateSource = *a_possocketimplSource->m_psocketstate;
    const SocketOperation socketoperation(socketstateSource);
    if (socketoperation.Listening() == PLAT_INVALID)
        return EOSSTS_FAIL;
    m_psocketstate->psocketlistener = socketstateSource.psocketlistener->Share();
    m_psocketstate->u16Port = socketstateSource.u16Port;
    SStrCpy(m_psocketstate->szHost, sizeof m_psocketstate->szHost, socketstateSource.szHost);
    return EOSSTS_SUCCESS;
}

EOSSTS COsSocketImpl::MakeListener(const char* a_szPort, bool* a_pblPort)
{
    *a_pblPort = OsSocketParsePort(a_szPort, &m_psocketstate->u16Port);
    const PlatHandle plathandle = PlatSocketCreate();
    if (plathandle == PLAT_INVALID)
        return OsSocketStatus(PlatGetLastError());
    m_psocketstate->psocketlistener = new (std::nothrow) SocketListener(plathandle);
    if (m_psocketstate->psocketlistener)
        return EOSSTS_SUCCESS;
    PlatClose(plathandle);
    return EOSSTS_NOMEMORY;
}

// A listener on a fixed port may be restarted while connections of the previous one are still closing.
bool COsSocketImpl::BindListener(const PlatAddress& a_plataddress)
{
    const PlatHandle plathandle = m_psocketstate->psocketlistener->Handle();
    if (a_plataddress.u16Port != 0)
        PlatSocketSetOption(plathandle, PLAT_SOCKETOPTION_REUSEADDRESS, true);
    m_psocketstate->plataddress = a_plataddress;
    return PlatSocketBind(plathandle, &a_plataddress);
}

EOSSTS COsSocketImpl::Listen()
{
    switch (Type())
    {
    case OS_SOCKETTYPE_TCP:
        break;
    case OS_SOCKETTYPE_SHAREDMEMORYW:
    case OS_SOCKETTYPE_SHAREDMEMORYR:
    case OS_SOCKETTYPE_SHAREDMEMORYRW:
        return EOSSTS_SUCCESS;
    default:
        return Unsupported();
    }

    const SocketOperation socketoperation(*m_psocketstate);
    const PlatHandle plathandle = socketoperation.Listening();
    if (plathandle == PLAT_INVALID)
    {
        OSLOG(OS_LOG_ERROR, "sock>>> listen: must call SocketCreate() first...");
        return EOSSTS_FAIL;
    }
    if (!PlatSocketListen(plathandle, OS_BACKLOG))
    {
        OSLOG(OS_LOG_ERROR, "sock>>> listen: listen failed...");
        return EOSSTS_FAIL;
    }
    return EOSSTS_SUCCESS;
}

EOSSTS COsSocketImpl::SetReceiveBuffer(uint32_t a_u32Bytes)
{
    const SocketOperation socketoperation(*m_psocketstate);
    const PlatHandle plathandle = socketoperation.Listening();
    if (plathandle == PLAT_INVALID)
    {
        OSLOG(OS_LOG_ERROR, "sock>>> setsockopt: must call SocketCreate() first...");
        return EOSSTS_NOTOPEN;
    }
    if (!PlatSocketSetReceiveBuffer(plathandle, a_u32Bytes))
    {
        OSLOG(OS_LOG_ERROR, "sock>>> setsockopt(SO_RCVBUF) failed...");
        return EOSSTS_FAIL;
    }
    return EOSSTS_SUCCESS;
}

EOSSTS COsSocketImpl::Accept(COsSync* a_possyncStop)
{
    if (Type() == OS_SOCKETTYPE_TCP)
        return AcceptTcp(a_possyncStop);
    return OsSocketIsShared(Type()) ? AcceptShared() : Unsupported();
}

// The stop event belongs to the transport that has a listener.
EOSSTS COsSocketImpl::AcceptShared()
{
    ScopeGuard disconnectOnFailure([this] { Disconnect(false); });
    const SocketOperation socketoperation(*m_psocketstate);
    const EOSSTS eossts =
        socketoperation.Entered() ? m_psocketstate->psocketshared->AwaitConnector(Type()) : EOSSTS_NOTOPEN;
    if (eossts == EOSSTS_SUCCESS && !m_psocketstate->psocketshared->WatchConnector(Type()))
        return EOSSTS_FAIL;
    disconnectOnFailure.Dismiss();
    return eossts;
}

EOSSTS COsSocketImpl::AcceptTcp(COsSync* a_possyncStop)
{
    const SocketOperation socketoperation(*m_psocketstate);
    const PlatHandle plathandleListening = socketoperation.Listening();
    if (plathandleListening == PLAT_INVALID)
    {
        OSLOG(OS_LOG_ERROR, "sock>>> accept: must call SocketCreate() first...");
        return EOSSTS_NOTOPEN;
    }

    // A pending connection needs no wait; it may be gone by the accept if its peer has aborted. When resources are
    // lacking the system refuses even if no connection is pending.
    for (bool blTake = !CancelIsRequested();; blTake = true)
    {
        if (blTake)
        {
            const PlatHandle plathandle = PlatSocketAccept(plathandleListening, &m_psocketstate->plataddress);
            if (plathandle != PLAT_INVALID)
                return Adopt(plathandle);
            const uint32_t u32Error = PlatGetLastError();
            const EOSSTS eossts = OsSocketStatus(u32Error);
            if (u32Error != PLAT_ERROR_WOULDBLOCK &&
                (eossts == EOSSTS_FAIL || PlatSocketPoll(plathandleListening, PLAT_SOCKET_ACCEPT) != 0))
            {
                OSLOG(OS_LOG_ERROR, "sock>>> accept: accept failed...");
                return eossts;
            }
        }
        if (const EOSSTS eossts = WaitForConnection(a_possyncStop); eossts != EOSSTS_SUCCESS)
            return eossts;
    }
}

EOSSTS COsSocketImpl::WaitForConnection(COsSync* a_possyncStop)
{
    uint32_t u32Read = OS_SELECTMODE_ACCEPT;
    const COsSocket::SelectArgs selectargs{.pu32Read = &u32Read, .possyncStop = a_possyncStop};
    const EOSSTS eossts = SelectOpen(selectargs);
    switch (eossts)
    {
    case EOSSTS_SUCCESS:
        break;
    case EOSSTS_TIMEOUT:
        OSLOG(OS_LOG_ERROR, "Select timeout on %d...", Port());
        break;
    case EOSSTS_EXITED:
        OSLOG(OS_LOG_ERROR, "Select failed when process exited on %d...", Port());
        break;
    default:
        OSLOG(OS_LOG_ERROR, "Select failed on %d...%d", Port(), static_cast<int>(eossts));
        break;
    }
    return eossts;
}

EOSSTS COsSocketImpl::Adopt(PlatHandle a_plathandleConnected)
{
    if (OsCfgExists() && OsCfgGetLong(OS_CFGTAG_FORCENETKEEPALIVE) != 0 &&
        !PlatSocketSetOption(a_plathandleConnected, PLAT_SOCKETOPTION_KEEPALIVE, true))
        OSLOG(OS_LOG_ERROR, "sock>>> accept: setsockopt(SO_KEEPALIVE) failed...");
    ForgetListener();
    m_psocketstate->plathandleConnected = a_plathandleConnected;
    return EOSSTS_SUCCESS;
}

// The object that created the listener shuts it down for all; another one only drops its reference.
void COsSocketImpl::ForgetListener()
{
    SocketListener*& psocketlistener = m_psocketstate->psocketlistener;
    if (psocketlistener && m_psocketstate->blOwnsListener)
        PlatSocketShutdown(psocketlistener->Handle(), true, true);
    SocketListener::Drop(psocketlistener);
}

EOSSTS COsSocketImpl::GetInfo(char* a_szHost, char* a_szPort) const
{
    if (const SocketTransport* const psockettransport = OsSocketTransportOfType(Type()))
    {
        if (a_szHost)
            SStrCpy(a_szHost, OS_SOCKETHOSTSIZE, psockettransport->szHost);
        if (a_szPort)
            OsSocketTellChannels(Type(), m_psocketstate->psocketshared->m_socketchannelnames, a_szPort);
        return EOSSTS_SUCCESS;
    }
    if (Type() != OS_SOCKETTYPE_TCP)
        return Unsupported();
    if (a_szHost)
        SStrCpy(a_szHost, OS_SOCKETHOSTSIZE, m_psocketstate->szHost);
    if (a_szPort)
        SStrFromNum(a_szPort, OS_SOCKETPORTSIZE, m_psocketstate->u16Port);
    return EOSSTS_SUCCESS;
}

EOSSTS COsSocketImpl::ResolveHost(const char* a_szHost, char* a_szAddress)
{
    if (!a_szHost || a_szHost[0] == '\0' || !a_szAddress)
    {
        OSLOG(OS_LOG_ERROR, "bad argument...");
        return EOSSTS_FAIL;
    }
    std::memset(a_szAddress, 0, OS_SOCKETHOSTSIZE);
    PlatAddress plataddress;
    const bool blResolved = OsSocketInitializeStatic() && OsSocketLookUp(a_szHost, &plataddress) &&
                            PlatAddressToText(&plataddress, a_szAddress, OS_SOCKETHOSTSIZE);
    return blResolved ? EOSSTS_SUCCESS : EOSSTS_FAIL;
}
