// os_cossocket_io.cpp: read, write, disconnect, and closing while operations are in progress.
#include "os_cfg.h"
#include "os_cossocket_impl.h"
#include "os_cossocket_shared_impl.h"
#include "os_cosspinlock.h"

#include "plat_system.h"
#include "plat_wait.h"

#include <cstring>

static constexpr char g_szSource[] = "os/source/os_cossocket";

static constexpr int OS_SENDRETRYLIMIT = 8;   // the last retry, counted from 0
static constexpr uint32_t OS_SENDRETRYPAUSE = 100;
static constexpr uint32_t OS_GRACEFULTIMEOUT = 5000;
static constexpr uint32_t OS_LEAVETIMEOUT = 5000;   // ms for operations in progress at a disconnect
static constexpr uint32_t OS_LEAVECANCEL = 16;      // ms between the cancels sent to them

// Closing while operations are in progress.

SocketOperation::SocketOperation(SocketState& a_socketstate, uint32_t a_u32Operation)
    : m_socketstate(a_socketstate), m_u32Operation(a_u32Operation)
{
    m_socketstate.u32Operations.fetch_add(m_u32Operation);
    if (m_socketstate.pvCloser.load())
    {
        m_socketstate.u32Operations.fetch_sub(m_u32Operation);
        m_u32Operation = 0;
    }
}

SocketOperation::~SocketOperation()
{
    if (m_u32Operation != 0)
        m_socketstate.u32Operations.fetch_sub(m_u32Operation);
}

PlatHandle SocketOperation::Listening() const
{
    return Entered() && m_socketstate.psocketlistener ? m_socketstate.psocketlistener->Handle() : PLAT_INVALID;
}

// Read.

// Clears the part of the buffer that holds no received bytes.
static void ClearRest(const COsSocket::ReadArgs& a_readargs, size_t a_sizetReceived)
{
    const size_t sizetDirty = a_readargs.psizetDirty ? *a_readargs.psizetDirty : a_readargs.sizetBuffer;
    if (sizetDirty > a_sizetReceived)
        std::memset(static_cast<char*>(a_readargs.pvBuffer) + a_sizetReceived, 0, sizetDirty - a_sizetReceived);
    if (a_readargs.psizetDirty)
        *a_readargs.psizetDirty = a_sizetReceived;
}

EOSSTS COsSocketImpl::Read(const COsSocket::ReadArgs& a_readargs, size_t* a_psizetRead)
{
    *a_psizetRead = 0;
    const SocketOperation socketoperation(*m_psocketstate, SocketOperation::OS_OPERATION_READ);
    if (OsSocketReadsShared(Type()) && socketoperation.Entered())
    {
        const EOSSTS eossts = m_psocketstate->psocketshared->Read(a_readargs, a_psizetRead);
        if (eossts == EOSSTS_SUCCESS)
            ClearRest(a_readargs, *a_psizetRead);
        return eossts;
    }
    if (Type() != OS_SOCKETTYPE_TCP && !OsSocketReadsShared(Type()))
        return Unsupported();
    const PlatHandle plathandle = socketoperation.Connected();
    if (plathandle == PLAT_INVALID)
    {
        OSLOG(OS_LOG_ERROR, "sock>>> read: must open a socket first...");
        return EOSSTS_NOTOPEN;
    }
    return ReadTcp(a_readargs, plathandle, a_psizetRead);
}

// Receives available data. False, with the buffer unchanged, when there is none.
bool COsSocketImpl::TakeBytes(const COsSocket::ReadArgs& a_readargs, PlatHandle a_plathandle, size_t* a_psizetRead)
{
    size_t sizetRead = 0;
    if (!PlatSocketReceive(a_plathandle, a_readargs.pvBuffer, a_readargs.sizetBuffer, &sizetRead) || sizetRead == 0)
        return false;
    ClearRest(a_readargs, sizetRead);
    OsSocketTraceReceive(a_readargs.pvBuffer, sizetRead);
    *a_psizetRead = sizetRead;
    return true;
}

EOSSTS COsSocketImpl::ReadTcp(const COsSocket::ReadArgs& a_readargs, PlatHandle a_plathandle, size_t* a_psizetRead)
{
    for (int iPass = 0;;)
    {
        if (a_readargs.u32Timeout != 0)
        {
            const std::optional<EOSSTS> eossts = WaitForBytes(a_readargs, a_plathandle, &iPass, a_psizetRead);
            if (eossts)
                return *eossts;
        }

        PlatSetLastError(PLAT_ERROR_NONE);
        if (TakeBytes(a_readargs, a_plathandle, a_psizetRead))
            return EOSSTS_SUCCESS;
        const uint32_t u32Error = PlatGetLastError();
        ClearRest(a_readargs, 0);
        // Without a timeout, no data and the end of the stream are not distinguished.
        if (u32Error == PLAT_ERROR_NONE || (u32Error == PLAT_ERROR_WOULDBLOCK && a_readargs.u32Timeout == 0))
        {
            OSLOG(OS_LOG_NOTE, "sock>>> read: remote connection has been closed...");
            return EOSSTS_DISCONNECTED;
        }
        if (u32Error != PLAT_ERROR_WOULDBLOCK)
        {
            OSLOG(OS_LOG_ERROR, "sock>>> read: recv failed...");
            return EOSSTS_DISCONNECTED;
        }
        OSLOG(OS_LOG_NOTE, ">>> goto RETRY_RECV");
    }
}

// Waits until there is data (no value), or receives it directly (success). A receive costs as much as a check for data,
// so it is tried in place of the check; only the cancel and the thread's child process are checked before it.
std::optional<EOSSTS> COsSocketImpl::WaitForBytes(const COsSocket::ReadArgs& a_readargs, PlatHandle a_plathandle,
                                                  int* a_piPass, size_t* a_psizetRead)
{
    const int iTimeout = static_cast<int>(a_readargs.u32Timeout);
    const int iTag = static_cast<int>(a_readargs.u32Tag);
    for (;;)
    {
        OSLOG(OS_LOG_NOTE, ">>> socket Select(read,%d,%d,%d)", iTimeout, iTag, (*a_piPass)++);
        if (!CancelIsRequested() && !a_readargs.posthread && TakeBytes(a_readargs, a_plathandle, a_psizetRead))
            return EOSSTS_SUCCESS;

        uint32_t u32Read = 0;
        uint32_t u32Except = 0;
        const COsSocket::SelectArgs selectargs{.pu32Read = &u32Read,
                                               .pu32Except = &u32Except,
                                               .u32Timeout = a_readargs.u32Timeout,
                                               .posthread = a_readargs.posthread,
                                               .possyncStop = a_readargs.possyncStop};
        SocketWait socketwait{.selectargs = selectargs, .blLook = a_readargs.posthread != nullptr};
        std::optional<EOSSTS> eossts = Await(&socketwait);
        if (!eossts && TakeBytes(a_readargs, a_plathandle, a_psizetRead))
            return EOSSTS_SUCCESS;
        if (!eossts)
            eossts = Enumerate(socketwait);
        if (*eossts != EOSSTS_SUCCESS)
            return FailedWait(a_readargs, *eossts);
        if (u32Read != 0)
            return std::nullopt;
        if (u32Except != 0)
        {
            OSLOG(OS_LOG_ERROR, "Exception on %d...%d %d, turning it into a disconnect...", Port(), iTag, iTimeout);
            return EOSSTS_DISCONNECTED;
        }
        OSLOG(OS_LOG_NOTE, "Select was triggered, but said it didn't have any data on %d...%d", Port(), iTag);
    }
}

EOSSTS COsSocketImpl::FailedWait(const COsSocket::ReadArgs& a_readargs, EOSSTS a_eossts) const
{
    const int iTimeout = static_cast<int>(a_readargs.u32Timeout);
    const int iTag = static_cast<int>(a_readargs.u32Tag);
    switch (a_eossts)
    {
    case EOSSTS_TIMEOUT:
        OSLOG(OS_LOG_ERROR, "Select timeout on %d...%d %d", Port(), iTag, iTimeout);
        return EOSSTS_TIMEOUT;
    case EOSSTS_CANCELLED:
        OSLOG(OS_LOG_ERROR, "Cancel on %d...%d %d, turning it into a disconnect...", Port(), iTag, iTimeout);
        return EOSSTS_DISCONNECTED;
    default:
        OSLOG(a_readargs.blQuiet ? OS_LOG_NOTE : OS_LOG_ERROR, "Select failed on %d...%d", Port(),
              static_cast<int>(a_eossts));
        return a_eossts;
    }
}

// Write.

EOSSTS COsSocketImpl::Write(const COsSocket::WriteArgs& a_writeargs, size_t* a_psizetWritten)
{
    size_t sizetWritten = 0;
    size_t& sizetResult = a_psizetWritten ? *a_psizetWritten : sizetWritten;
    sizetResult = 0;
    const SocketOperation socketoperation(*m_psocketstate);
    if (OsSocketWritesShared(Type()) && socketoperation.Entered())
        return m_psocketstate->psocketshared->Write(a_writeargs, &sizetResult);
    if (Type() != OS_SOCKETTYPE_TCP && !OsSocketWritesShared(Type()))
    {
        if (a_writeargs.blLogging)
            OSLOG(OS_LOG_CHECK, "Unsuppported...%d", TypeNumber());
        return EOSSTS_FAIL;
    }
    const PlatHandle plathandle = socketoperation.Connected();
    if (plathandle == PLAT_INVALID)
    {
        SOCKETTELL(a_writeargs.blLogging, OS_LOG_ERROR, "sock>>> write: must open a socket first...");
        return EOSSTS_NOTOPEN;
    }
    return WriteTcp(a_writeargs, plathandle, &sizetResult);
}

EOSSTS COsSocketImpl::WriteTcp(const COsSocket::WriteArgs& a_writeargs, PlatHandle a_plathandle,
                               size_t* a_psizetWritten)
{
    if (const EOSSTS eossts = WaitForRoom(a_writeargs); eossts != EOSSTS_SUCCESS)
        return eossts;
    if (!SendWithRetries(a_writeargs, a_plathandle, a_psizetWritten))
    {
        SOCKETTELL(a_writeargs.blLogging, OS_LOG_ERROR, "sock>>> write: send failed...");
        return EOSSTS_DISCONNECTED;
    }
    OsSocketTraceSend(a_writeargs.pvBuffer, *a_psizetWritten);
    return EOSSTS_SUCCESS;
}

// Also returns success when there is no buffer space: the send is tried anyway. A peer that has gone is detected here,
// before data is sent that would be lost.
EOSSTS COsSocketImpl::WaitForRoom(const COsSocket::WriteArgs& a_writeargs)
{
    uint32_t u32Write = 0;
    const COsSocket::SelectArgs selectargs{
        .pu32Write = &u32Write, .u32Timeout = a_writeargs.u32Timeout, .blLogging = a_writeargs.blLogging};
    const EOSSTS eossts = SelectOpen(selectargs);
    switch (eossts)
    {
    case EOSSTS_SUCCESS:
    case EOSSTS_TIMEOUT:
        return EOSSTS_SUCCESS;
    case EOSSTS_CANCELLED:
        SOCKETTELL(a_writeargs.blLogging, OS_LOG_ERROR, "Cancel on %d, turning it into a disconnect...", Port());
        return EOSSTS_DISCONNECTED;
    default:
        if (a_writeargs.blLogging)
            OSLOG(OS_LOG_NOTE, "Select failed on %d...%d", Port(), static_cast<int>(eossts));
        return eossts;
    }
}

bool COsSocketImpl::SendWithRetries(const COsSocket::WriteArgs& a_writeargs, PlatHandle a_plathandle,
                                    size_t* a_psizetWritten)
{
    const auto send = [&] {
        return PlatSocketSend(a_plathandle, a_writeargs.pvBuffer, a_writeargs.sizetBuffer, a_psizetWritten);
    };
    bool blSent = send();
    for (int iTry = 0; !blSent && PlatGetLastError() == PLAT_ERROR_WOULDBLOCK && iTry <= OS_SENDRETRYLIMIT; ++iTry)
    {
        SOCKETTELL(a_writeargs.blLogging, OS_LOG_NOTE,
                   "sock>>> write: send failed WSAEWOULDBLOCK. Sleep (%d) and retry again (%d)",
                   static_cast<int>(OS_SENDRETRYPAUSE), iTry);
        PlatSleep(OS_SENDRETRYPAUSE);
        blSent = send();
    }
    if (!blSent)
        *a_psizetWritten = 0;
    return blSent;
}

// Sends and queries that neither wait nor log, because the caller may be the log: only the status reports a failure.

EOSSTS COsSocketImpl::TrySend(const void* a_pvBuffer, size_t a_sizetBuffer, size_t* a_psizetSent)
{
    *a_psizetSent = 0;
    const SocketOperation socketoperation(*m_psocketstate);
    const PlatHandle plathandle = socketoperation.Connected();
    if (plathandle == PLAT_INVALID)
        return EOSSTS_NOTOPEN;
    const uint32_t u32Events = PlatSocketPoll(plathandle, PLAT_SOCKET_CLOSE | PLAT_SOCKET_WRITE);
    if (u32Events & PLAT_SOCKET_CLOSE)
        return EOSSTS_DISCONNECTED;
    if (!(u32Events & PLAT_SOCKET_WRITE))
        return EOSSTS_SUCCESS;
    if (!PlatSocketSend(plathandle, a_pvBuffer, a_sizetBuffer, a_psizetSent))
        return PlatGetLastError() == PLAT_ERROR_WOULDBLOCK ? EOSSTS_SUCCESS : EOSSTS_DISCONNECTED;
    OsSocketTraceSend(a_pvBuffer, *a_psizetSent);
    return EOSSTS_SUCCESS;
}

EOSSTS COsSocketImpl::EndSending()
{
    const SocketOperation socketoperation(*m_psocketstate);
    const PlatHandle plathandle = socketoperation.Connected();
    if (plathandle == PLAT_INVALID)
        return EOSSTS_NOTOPEN;
    return PlatSocketShutdown(plathandle, false, true) ? EOSSTS_SUCCESS : EOSSTS_DISCONNECTED;
}

EOSSTS COsSocketImpl::PeerOwner(PlatSocketOwner* a_pplatsocketowner)
{
    *a_pplatsocketowner = {};
    const SocketOperation socketoperation(*m_psocketstate);
    const PlatHandle plathandle = socketoperation.Connected();
    if (plathandle == PLAT_INVALID)
        return EOSSTS_NOTOPEN;
    return PlatSocketPeerOwner(plathandle, a_pplatsocketowner) ? EOSSTS_SUCCESS : EOSSTS_FAIL;
}

EOSSTS COsSocketImpl::Unsent(size_t* a_psizetBytes)
{
    *a_psizetBytes = 0;
    const SocketOperation socketoperation(*m_psocketstate);
    const PlatHandle plathandle = socketoperation.Connected();
    if (plathandle == PLAT_INVALID)
        return EOSSTS_NOTOPEN;
    return PlatSocketUnsent(plathandle, a_psizetBytes) ? EOSSTS_SUCCESS : EOSSTS_FAIL;
}

// Disconnect.

bool COsSocketImpl::Disconnect(bool a_blGraceful)
{
    if (!BecomeCloser())
        return true;
    const PlatHandle plathandle = m_psocketstate->plathandleConnected;
    const bool blConnected = Type() == OS_SOCKETTYPE_TCP && plathandle != PLAT_INVALID;
    if (blConnected)
    {
        PlatSocketShutdown(plathandle, !a_blGraceful, true);
        CancelTcp();
    }
    if (OsSocketIsShared(Type()))
        m_psocketstate->psocketshared->Wake();
    const bool blLeft = WaitForOperations();
    if (blLeft && blConnected && a_blGraceful)
        WaitForPeer();
    if (blLeft)
        Release();
    m_psocketstate->pvCloser = nullptr;
    return blLeft;
}

// False when the calling thread is already disconnecting: a disconnect may log, and the logger may disconnect. Another
// thread's disconnect is waited for.
bool COsSocketImpl::BecomeCloser()
{
    static thread_local const char s_chThread = 0;   // its address identifies the thread
    for (;;)
    {
        const void* pvCloser = nullptr;
        if (m_psocketstate->pvCloser.compare_exchange_strong(pvCloser, &s_chThread))
            return true;
        if (pvCloser == &s_chThread)
            return false;
        PlatSleep(1);
    }
}

// Waits until no operation is in progress. The cancel is repeated, because a thread may have entered its wait just
// after it, or two threads may wait. A thread that was terminated never leaves: false then.
bool COsSocketImpl::WaitForOperations()
{
    const uint64_t u64Begin = PlatTicks();
    for (uint32_t u32Pauses = 1; (m_psocketstate->u32Operations & SocketOperation::OS_OPERATION_ALL) != 0; ++u32Pauses)
    {
        if (PlatTicks() - u64Begin >= OS_LEAVETIMEOUT)
            return false;
        if (u32Pauses % OS_LEAVECANCEL == 0)
            Wake();
        PlatSleep(1);
    }
    return true;
}

void COsSocketImpl::WaitForPeer()
{
    uint32_t u32Read = 0;
    const uint32_t u32Timeout =
        OsCfgExists() ? static_cast<uint32_t>(OsCfgGetLong(OS_CFGTAG_FORCENETCLOSEDELAY)) : OS_GRACEFULTIMEOUT;
    SelectOpen({.pu32Read = &u32Read, .u32Timeout = u32Timeout});
}

static void CloseHandle(PlatHandle a_plathandle)
{
    if (a_plathandle != PLAT_INVALID)
        PlatClose(a_plathandle);
}

void COsSocketImpl::ForgetProcess()
{
    CloseHandle(m_psocketstate->plathandleProcess.exchange(PLAT_INVALID));
}

void COsSocketImpl::Release()
{
    if (m_psocketstate->psocketshared)
        m_psocketstate->psocketshared->Release();
    CloseHandle(m_psocketstate->socketeventRead.plathandle);
    CloseHandle(m_psocketstate->socketeventWrite.plathandle);
    m_psocketstate->socketeventRead = {};
    m_psocketstate->socketeventWrite = {};
    {
        const COsSpinGuard spinguard(&m_psocketstate->u64CancelLock);
        CloseHandle(m_psocketstate->plathandleCancel);
        m_psocketstate->plathandleCancel = PLAT_INVALID;
        m_psocketstate->blCancelRequested = false;
    }
    ForgetProcess();
    ForgetListener();
    CloseHandle(m_psocketstate->plathandleConnected.exchange(PLAT_INVALID));
}

// Operations and lock owners of the parent do not exist in the forked child.
void COsSocketImpl::LeaveToParent()
{
    m_psocketstate->u32Operations = 0;
    m_psocketstate->pvCloser = nullptr;
    m_psocketstate->u64CancelLock = 0;
    m_psocketstate->blOwnsListener = false;   // so that the listener is not shut down either
    if (Type() == OS_SOCKETTYPE_TCP)
        Release();
}
