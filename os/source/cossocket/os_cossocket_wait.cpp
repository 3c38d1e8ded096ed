// os_cossocket_wait.cpp: the one wait of the TCP transport, and what cancels it.
//
// A wait watches, in this order, those that exist: the cancel event, the socket, the watched process of the connection,
// the caller's stop event, the child process of a thread. The first ready one ends it: a cancel has priority over data,
// and data over an end.
//
// Known states need no wait: a requested cancel has a flag beside its event, and checking a ready socket takes one
// call, where selecting, waiting and enumerating take three.
#include "os_cossocket_impl.h"
#include "os_cossocket_shared_impl.h"
#include "os_cosspinlock.h"
#include "os_cossync.h"
#include "os_costhread.h"

#include "plat_wait.h"

#include <initializer_list>

static constexpr char g_szSource[] = "os/source/os_cossocket";

static constexpr uint32_t OS_SELECT_NOROOMYET = 2;   // the answer of a timed-out wait for writing
static constexpr int OS_SELECTRETRIES = 3;
static constexpr uint32_t OS_CANCELPAUSE = 10;

// Indexes in a wait.
static constexpr uint32_t OS_WAITRESULT_CANCEL = 0;
static constexpr uint32_t OS_WAITRESULT_SOCKET = 1;
static constexpr uint32_t OS_WAITRESULT_FIRSTEND = 2;

// The existing handles of one wait, in order.
struct SocketWaitSet
{
    SocketWaitSet(std::initializer_list<PlatHandle> a_listplathandle)
    {
        for (const PlatHandle plathandle : a_listplathandle)
        {
            if (plathandle != PLAT_INVALID)
                aplathandle[u32Count++] = plathandle;
        }
    }

    PlatHandle aplathandle[5];
    uint32_t u32Count = 0;
};

static uint32_t EventMask(const COsSocket::SelectArgs& a_selectargs)
{
    uint32_t u32Mask = 0;
    if (a_selectargs.pu32Read)
    {
        switch (*a_selectargs.pu32Read)
        {
        case OS_SELECTMODE_ACCEPT:
            u32Mask = PLAT_SOCKET_ACCEPT;
            break;
        case OS_SELECTMODE_CONNECT:
            u32Mask = PLAT_SOCKET_CONNECT;
            break;
        default:
            u32Mask = PLAT_SOCKET_READ;
            break;
        }
    }
    if (a_selectargs.pu32Write)
        u32Mask |= PLAT_SOCKET_WRITE;
    return u32Mask | PLAT_SOCKET_CLOSE;
}

// The child process of the thread; one that has ended is noted there and not waited for.
static PlatHandle RunningChild(COsThread* a_posthread)
{
    return a_posthread && a_posthread->ChildIsRunning() ? a_posthread->ChildProcess() : PLAT_INVALID;
}

EOSSTS COsSocketImpl::Select(const COsSocket::SelectArgs& a_selectargs)
{
    const SocketOperation socketoperation(*m_psocketstate);
    if (socketoperation.Entered())
        return SelectOpen(a_selectargs);
    SOCKETTELL(a_selectargs.blLogging, OS_LOG_ERROR, "sock>>> select: must open a socket first...");
    return EOSSTS_NOTOPEN;
}

EOSSTS COsSocketImpl::SelectOpen(const COsSocket::SelectArgs& a_selectargs)
{
    SocketWait socketwait{.selectargs = a_selectargs};
    if (const std::optional<EOSSTS> eossts = Await(&socketwait))
        return *eossts;
    return Enumerate(socketwait);
}

// Waits until the socket is ready (no value) or something else ends the wait (its status).
std::optional<EOSSTS> COsSocketImpl::Await(SocketWait* a_psocketwait)
{
    const COsSocket::SelectArgs& selectargs = a_psocketwait->selectargs;
    for (int iRetries = 0;; ++iRetries)
    {
        if (const std::optional<EOSSTS> eossts = BeginWait(a_psocketwait))
            return eossts;
        const PlatHandle plathandleStop = selectargs.possyncStop ? selectargs.possyncStop->EventHandle() : PLAT_INVALID;
        const PlatHandle plathandleChild = RunningChild(selectargs.posthread);
        if (CancelIsRequested())
            return EndWait(*a_psocketwait, OS_WAITRESULT_CANCEL);
        if (a_psocketwait->blLook && LookFirst(a_psocketwait))
            return std::nullopt;
        const PlatHandle plathandleReport = ReportHandle(a_psocketwait);
        if (plathandleReport == PLAT_INVALID)
        {
            const EOSSTS eossts = OsSocketStatus(PlatGetLastError());
            SOCKETTELL(selectargs.blLogging, OS_LOG_ERROR, "sock>>> WSAEventSelect failed...");
            return eossts;
        }

        const SocketWaitSet socketwaitset{m_psocketstate->plathandleCancel, plathandleReport,
                                          m_psocketstate->plathandleProcess, plathandleStop, plathandleChild};
        const uint32_t u32Result =
            PlatWaitAny(socketwaitset.aplathandle, socketwaitset.u32Count, selectargs.u32Timeout);
        if (u32Result == OS_WAITRESULT_SOCKET)
            return std::nullopt;
        if (u32Result != PLAT_WAIT_FAILED)
            return EndWait(*a_psocketwait, u32Result);
        const EOSSTS eossts = OsSocketStatus(PlatGetLastError());
        if (!MayRetry(selectargs, iRetries))
            return eossts;
    }
}

// Collects the handles to watch. A status means that the wait ends before it begins.
std::optional<EOSSTS> COsSocketImpl::BeginWait(SocketWait* a_psocketwait)
{
    const COsSocket::SelectArgs& selectargs = a_psocketwait->selectargs;
    switch (Type())
    {
    case OS_SOCKETTYPE_TCP:
        break;
    case OS_SOCKETTYPE_SHAREDMEMORYW:
    case OS_SOCKETTYPE_SHAREDMEMORYR:
    case OS_SOCKETTYPE_SHAREDMEMORYRW:
        return EOSSTS_SUCCESS;   // shared-memory waits use their own events
    default:
        return Unsupported();
    }

    a_psocketwait->plathandleSocket = m_psocketstate->plathandleConnected;
    if (a_psocketwait->plathandleSocket == PLAT_INVALID && m_psocketstate->psocketlistener)
        a_psocketwait->plathandleSocket = m_psocketstate->psocketlistener->Handle();
    if (a_psocketwait->plathandleSocket == PLAT_INVALID)
    {
        SOCKETTELL(selectargs.blLogging, OS_LOG_ERROR, "sock>>> select: must open a socket first...");
        return EOSSTS_NOTOPEN;
    }

    // The mode is read once, because the answer overwrites the word that holds it.
    if (a_psocketwait->u32Mask == 0)
        a_psocketwait->u32Mask = EventMask(selectargs);
    if (selectargs.pu32Read)
        *selectargs.pu32Read = 0;
    a_psocketwait->psocketevent =
        selectargs.pu32Read ? &m_psocketstate->socketeventRead : &m_psocketstate->socketeventWrite;
    return std::nullopt;
}

bool COsSocketImpl::LookFirst(SocketWait* a_psocketwait)
{
    a_psocketwait->u32Events = PlatSocketPoll(a_psocketwait->plathandleSocket, a_psocketwait->u32Mask);
    return a_psocketwait->u32Events != 0;
}

// The handle to wait on: the socket itself for readable data, otherwise an event.
PlatHandle COsSocketImpl::ReportHandle(SocketWait* a_psocketwait)
{
    const uint32_t u32Mask = a_psocketwait->u32Mask & ~PLAT_SOCKET_CLOSE;
    if (u32Mask == PLAT_SOCKET_READ || u32Mask == PLAT_SOCKET_ACCEPT)
        return a_psocketwait->plathandleSocket;
    const bool blSelected =
        SelectEvent(a_psocketwait->psocketevent, a_psocketwait->plathandleSocket, a_psocketwait->u32Mask);
    return blSelected ? a_psocketwait->psocketevent->plathandle : PLAT_INVALID;
}

bool COsSocketImpl::SelectEvent(SocketEvent* a_psocketevent, PlatHandle a_plathandleSocket, uint32_t a_u32Mask)
{
    if (a_psocketevent->plathandleSocket == a_plathandleSocket && a_psocketevent->u32Mask == a_u32Mask)
        return true;
    if (a_psocketevent->plathandleSocket != a_plathandleSocket)
    {
        if (a_psocketevent->plathandle != PLAT_INVALID)
            PlatClose(a_psocketevent->plathandle);
        *a_psocketevent = {.plathandle = PlatSocketEventCreate()};
    }
    if (a_psocketevent->plathandle == PLAT_INVALID ||
        !PlatSocketEventSelect(a_plathandleSocket, a_psocketevent->plathandle, a_u32Mask))
        return false;
    a_psocketevent->plathandleSocket = a_plathandleSocket;
    a_psocketevent->u32Mask = a_u32Mask;
    return true;
}

// The wait call failed: if a handle was closed meanwhile, a few retries are allowed.
bool COsSocketImpl::MayRetry(const COsSocket::SelectArgs& a_selectargs, int a_iRetries) const
{
    const uint32_t u32Error = PlatGetLastError();
    const int iResult = static_cast<int>(PLAT_WAIT_FAILED);
    const int iError = static_cast<int>(u32Error);
    if (u32Error != PLAT_ERROR_INVALIDHANDLE || a_iRetries >= OS_SELECTRETRIES)
    {
        if (a_selectargs.blLogging)
            OSLOG(OS_LOG_ERROR, "sock>>> select: WSAWaitForMultipleEvents failed...%d %d", iResult, iError);
        return false;
    }
    SOCKETTELL(a_selectargs.blLogging, OS_LOG_NOTE,
               "sock>>> select: WSAWaitForMultipleEvents failed...%d %d (we'll retry)", iResult, iError);
    PlatSleep(0);
    return true;
}

// The status of a wait that was not ended by the socket.
EOSSTS COsSocketImpl::EndWait(const SocketWait& a_socketwait, uint32_t a_u32Result)
{
    const COsSocket::SelectArgs& selectargs = a_socketwait.selectargs;
    switch (a_u32Result)
    {
    case OS_WAITRESULT_CANCEL:
        if (selectargs.blLogging)
            OSLOG(OS_LOG_NOTE, "sock>>> select: we've been cancelled...");
        ConsumeCancel();
        return EOSSTS_CANCELLED;
    case OS_WAITRESULT_FIRSTEND:
        SOCKETTELL(selectargs.blLogging, OS_LOG_ERROR, "sock>>> select: thread wants to exit...");
        ConsumeCancel();
        return EOSSTS_EXITED;
    case PLAT_WAIT_TIMEOUT:
        break;
    default:
        if (selectargs.blLogging)
            OSLOG(OS_LOG_ERROR, "sock>>> select: remote process died...");
        ConsumeCancel();
        return EOSSTS_EXITED;
    }

    if (selectargs.pu32Write)
    {
        if (selectargs.blLogging)
            OSLOG(OS_LOG_NOTE, "sock>>> select: select timeout on write (this is okay)...");
        *selectargs.pu32Write = OS_SELECT_NOROOMYET;
        return EOSSTS_SUCCESS;
    }
    SOCKETTELL(selectargs.blLogging, OS_LOG_NOTE, "sock>>> select: select timeout...");
    return EOSSTS_TIMEOUT;
}

// Reports the socket's events. A close that coincides with another event is reported by the next wait.
EOSSTS COsSocketImpl::Enumerate(const SocketWait& a_socketwait)
{
    const COsSocket::SelectArgs& selectargs = a_socketwait.selectargs;
    const uint32_t u32Events = a_socketwait.u32Events != 0
                                   ? a_socketwait.u32Events
                                   : PlatSocketPoll(a_socketwait.plathandleSocket, a_socketwait.u32Mask);
    if (u32Events == PLAT_SOCKET_CLOSE)
    {
        SOCKETTELL(selectargs.blLogging, OS_LOG_NOTE, "sock>>> select: the socket isn't there anymore...");
        return EOSSTS_DISCONNECTED;
    }
    constexpr uint32_t OS_READEVENTS = PLAT_SOCKET_READ | PLAT_SOCKET_ACCEPT | PLAT_SOCKET_CONNECT | PLAT_SOCKET_CLOSE;
    if (selectargs.pu32Read)
        *selectargs.pu32Read = u32Events & OS_READEVENTS;
    if (selectargs.pu32Write)
        *selectargs.pu32Write = u32Events & (PLAT_SOCKET_WRITE | PLAT_SOCKET_CLOSE);
    if (selectargs.pu32Except)
        *selectargs.pu32Except = u32Events & PLAT_SOCKET_CLOSE;
    return EOSSTS_SUCCESS;
}

void COsSocketImpl::Cancel()
{
    const SocketOperation socketoperation(*m_psocketstate);
    if (!socketoperation.Entered())
        return;
    switch (Type())
    {
    case OS_SOCKETTYPE_UNDEFINED:
        break;
    case OS_SOCKETTYPE_SHAREDMEMORYW:
    case OS_SOCKETTYPE_SHAREDMEMORYR:
    case OS_SOCKETTYPE_SHAREDMEMORYRW:
        m_psocketstate->psocketshared->Cancel();
        break;
    case OS_SOCKETTYPE_TCP:
        CancelTcp();
        break;
    default:
        Unsupported();
        break;
    }
}

// Gives a read in progress a moment to see the cancel, but does not wait for it.
void COsSocketImpl::CancelTcp()
{
    RequestCancel();
    for (int iTry = 0; iTry < 2 && ReadIsInProgress(); ++iTry)
    {
        OSLOG(OS_LOG_NOTE, "warning, waiting for a read to be canceled...");
        PlatSleep(OS_CANCELPAUSE);
    }
}

// Ends the waits of the transport in use.
void COsSocketImpl::Wake()
{
    OsSocketIsShared(Type()) ? m_psocketstate->psocketshared->Wake() : RequestCancel();
}

void COsSocketImpl::RequestCancel()
{
    const COsSpinGuard spinguard(&m_psocketstate->u64CancelLock);
    if (m_psocketstate->plathandleCancel == PLAT_INVALID)
        return;
    m_psocketstate->blCancelRequested = true;
    PlatEventSet(m_psocketstate->plathandleCancel);
}

void COsSocketImpl::ConsumeCancel()
{
    const COsSpinGuard spinguard(&m_psocketstate->u64CancelLock);
    if (!CancelIsRequested())
        return;
    PlatEventReset(m_psocketstate->plathandleCancel);
    m_psocketstate->blCancelRequested = false;
}
