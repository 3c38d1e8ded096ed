// plat_socket.cpp: TCP sockets, what they have to report, and the event that tells it. Looking up a host name is in
// plat_socket_resolve.cpp, who owns a socket in plat_socket_owner.cpp.
#include "plat_socket.h"

#include "plat_posix.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <climits>
#include <cstring>
#include <linux/sockios.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

bool PlatSocketStartup()
{
    PosixRaiseDescriptorLimit();
    return true;
}

void PlatSocketCleanup() {}

// The descriptor of a socket; -1 with the last error for anything else.
static int SocketOf(PlatHandle a_plathandle)
{
    if (PosixKindOf(a_plathandle) == PosixKind::Socket)
        return PosixDescriptorOf(a_plathandle);
    PosixFail(PLAT_ERROR_NOTSOCKET);
    return -1;
}

static sockaddr_in ToSystem(const PlatAddress& a_plataddress)
{
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(a_plataddress.u16Port);
    memcpy(&address.sin_addr, a_plataddress.au8Address, sizeof address.sin_addr);
    return address;
}

static PlatAddress FromSystem(const sockaddr_in& a_address)
{
    PlatAddress plataddress;
    memcpy(plataddress.au8Address, &a_address.sin_addr, sizeof plataddress.au8Address);
    plataddress.u16Port = ntohs(a_address.sin_port);
    return plataddress;
}

// ---------------------------------------------------------------------------------------- listening, connecting

PlatHandle PlatSocketCreate()
{
    const int iSocket = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, IPPROTO_TCP);
    if (iSocket >= 0)
        return PosixMakeHandle(PosixKind::Socket, iSocket);
    PosixFailErrno();
    return PLAT_INVALID;
}

bool PlatSocketBind(PlatHandle a_plathandle, const PlatAddress* a_pplataddress)
{
    const int iSocket = SocketOf(a_plathandle);
    const sockaddr_in address = ToSystem(*a_pplataddress);
    return iSocket >= 0 &&
           (bind(iSocket, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 || PosixFailErrno());
}

bool PlatSocketListen(PlatHandle a_plathandle, uint32_t a_u32Backlog)
{
    const int iSocket = SocketOf(a_plathandle);
    return iSocket >= 0 && (listen(iSocket, static_cast<int>(a_u32Backlog)) == 0 || PosixFailErrno());
}

PlatHandle PlatSocketAccept(PlatHandle a_plathandle, PlatAddress* a_pplataddress)
{
    const int iListener = SocketOf(a_plathandle);
    if (iListener < 0)
        return PLAT_INVALID;
    for (;;)
    {
        sockaddr_in address = {};
        socklen_t socklen = sizeof address;
        const int iSocket =
            accept4(iListener, reinterpret_cast<sockaddr*>(&address), &socklen, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (iSocket >= 0)
        {
            if (a_pplataddress)
                *a_pplataddress = FromSystem(address);
            return PosixMakeHandle(PosixKind::Socket, iSocket);
        }
        if (errno != ECONNABORTED && errno != EPROTO && errno != EINTR)
        {
            PosixFailErrno();
            return PLAT_INVALID;
        }
    }
}

// The port that the system chooses for a socket may be the one that it is to reach, and where nobody listens it is then
// connected to itself. It is shut down, so that the first write finds nobody, as after a refusal.
static void RefuseItself(int a_iSocket, const sockaddr_in& a_address)
{
    sockaddr_in addressOwn = {};
    socklen_t socklen = sizeof addressOwn;
    if (getsockname(a_iSocket, reinterpret_cast<sockaddr*>(&addressOwn), &socklen) == 0 &&
        addressOwn.sin_port == a_address.sin_port && addressOwn.sin_addr.s_addr == a_address.sin_addr.s_addr)
        shutdown(a_iSocket, SHUT_RDWR);
}

bool PlatSocketConnect(PlatHandle a_plathandle, const PlatAddress* a_pplataddress)
{
    const int iSocket = SocketOf(a_plathandle);
    if (iSocket < 0)
        return false;
    if (a_pplataddress->u16Port == 0)
        return PosixFail(PLAT_ERROR_ADDRNOTAVAIL);
    const sockaddr_in address = ToSystem(*a_pplataddress);
    const bool blConnected = connect(iSocket, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    const int iError = errno;
    RefuseItself(iSocket, address);
    errno = iError;
    if (blConnected)
        return true;
    // On the own machine the refusal may be there before the call returns. The socket reports it from then on.
    if (errno == ECONNREFUSED || errno == EINTR)
        return PosixFail(PLAT_ERROR_WOULDBLOCK);
    return PosixFailErrno();
}

// -------------------------------------------------------------------------------------------------------- data

bool PlatSocketReceive(PlatHandle a_plathandle, void* a_pvBuffer, size_t a_sizetBytes, size_t* a_psizetRead)
{
    const int iSocket = SocketOf(a_plathandle);
    *a_psizetRead = 0;
    if (iSocket < 0)
        return false;
    ssize_t ssizet = 0;
    do
    {
        ssizet = recv(iSocket, a_pvBuffer, a_sizetBytes, 0);
    } while (ssizet < 0 && errno == EINTR);
    if (ssizet < 0)
        return PosixFailErrno();
    *a_psizetRead = static_cast<size_t>(ssizet);
    return true;
}

bool PlatSocketSend(PlatHandle a_plathandle, const void* a_pvBuffer, size_t a_sizetBytes, size_t* a_psizetSent)
{
    const int iSocket = SocketOf(a_plathandle);
    *a_psizetSent = 0;
    if (iSocket < 0)
        return false;
    ssize_t ssizet = 0;
    do
    {
        ssizet = send(iSocket, a_pvBuffer, a_sizetBytes, MSG_NOSIGNAL);
    } while (ssizet < 0 && errno == EINTR);
    if (ssizet < 0)
        return errno == EPIPE ? PosixFail(PLAT_ERROR_CONNRESET) : PosixFailErrno();
    *a_psizetSent = static_cast<size_t>(ssizet);
    return true;
}

static bool AskForBytes(PlatHandle a_plathandle, unsigned long a_ulQuestion, size_t* a_psizetBytes)
{
    const int iSocket = SocketOf(a_plathandle);
    int iBytes = 0;
    *a_psizetBytes = 0;
    if (iSocket < 0)
        return false;
    if (ioctl(iSocket, a_ulQuestion, &iBytes) != 0)
        return PosixFailErrno();
    *a_psizetBytes = static_cast<size_t>(iBytes);
    return true;
}

bool PlatSocketWaiting(PlatHandle a_plathandle, size_t* a_psizetBytes)
{
    return AskForBytes(a_plathandle, FIONREAD, a_psizetBytes);
}

bool PlatSocketUnsent(PlatHandle a_plathandle, size_t* a_psizetBytes)
{
    return AskForBytes(a_plathandle, SIOCOUTQ, a_psizetBytes);
}

bool PlatSocketShutdown(PlatHandle a_plathandle, bool a_blReceive, bool a_blSend)
{
    const int iSocket = SocketOf(a_plathandle);
    if (iSocket < 0)
        return false;
    if (!a_blReceive && !a_blSend)
        return PosixFail(PLAT_ERROR_INVALIDPARAMETER);
    const int iHow = a_blReceive && a_blSend ? SHUT_RDWR : a_blReceive ? SHUT_RD : SHUT_WR;
    return shutdown(iSocket, iHow) == 0 || PosixFailErrno();
}

bool PlatSocketSetOption(PlatHandle a_plathandle, PlatSocketOption a_platsocketoption, bool a_blOn)
{
    static constexpr struct
    {
        int iLevel;
        int iName;
    } g_aoption[] = {{SOL_SOCKET, SO_KEEPALIVE}, {IPPROTO_TCP, TCP_NODELAY}, {SOL_SOCKET, SO_REUSEADDR}};

    const int iSocket = SocketOf(a_plathandle);
    if (iSocket < 0)
        return false;
    if (a_platsocketoption >= std::size(g_aoption))
        return PosixFail(PLAT_ERROR_INVALIDPARAMETER);
    const auto& option = g_aoption[a_platsocketoption];
    const int iOn = a_blOn ? 1 : 0;
    return setsockopt(iSocket, option.iLevel, option.iName, &iOn, sizeof iOn) == 0 || PosixFailErrno();
}

static bool SetBuffer(PlatHandle a_plathandle, int a_iName, uint32_t a_u32Bytes)
{
    const int iSocket = SocketOf(a_plathandle);
    const int iBytes = static_cast<int>(std::min<uint32_t>(a_u32Bytes, INT_MAX));
    return iSocket >= 0 && (setsockopt(iSocket, SOL_SOCKET, a_iName, &iBytes, sizeof iBytes) == 0 || PosixFailErrno());
}

bool PlatSocketSetSendBuffer(PlatHandle a_plathandle, uint32_t a_u32Bytes)
{
    return SetBuffer(a_plathandle, SO_SNDBUF, a_u32Bytes);
}

bool PlatSocketSetReceiveBuffer(PlatHandle a_plathandle, uint32_t a_u32Bytes)
{
    return SetBuffer(a_plathandle, SO_RCVBUF, a_u32Bytes);
}

bool PlatSocketName(PlatHandle a_plathandle, PlatAddress* a_pplataddress)
{
    const int iSocket = SocketOf(a_plathandle);
    sockaddr_in address = {};
    socklen_t socklen = sizeof address;
    if (iSocket < 0)
        return false;
    if (getsockname(iSocket, reinterpret_cast<sockaddr*>(&address), &socklen) != 0)
        return PosixFailErrno();
    *a_pplataddress = FromSystem(address);
    return true;
}

// ---------------------------------------------------------------------------------------------- what is reported

// The conditions that stand for a mask. The peer's close is asked for with the writes as well: it ends the wait of a
// writer whose connection is full.
static uint32_t ConditionsOf(uint32_t a_u32Mask)
{
    static_assert(EPOLLIN == POLLIN && EPOLLOUT == POLLOUT && EPOLLRDHUP == POLLRDHUP);
    uint32_t u32Conditions = 0;
    if (a_u32Mask & (PLAT_SOCKET_READ | PLAT_SOCKET_ACCEPT))
        u32Conditions |= EPOLLIN;
    if (a_u32Mask & (PLAT_SOCKET_WRITE | PLAT_SOCKET_CONNECT))
        u32Conditions |= EPOLLOUT;
    if (a_u32Mask & (PLAT_SOCKET_WRITE | PLAT_SOCKET_CLOSE))
        u32Conditions |= EPOLLRDHUP;
    return u32Conditions;
}

uint32_t PlatSocketPoll(PlatHandle a_plathandle, uint32_t a_u32Mask)
{
    const int iSocket = SocketOf(a_plathandle);
    if (iSocket < 0)
        return 0;
    // A close is looked for in any case: it decides what else is true.
    struct pollfd pollfd = {iSocket, static_cast<short>(ConditionsOf(a_u32Mask) | POLLRDHUP), 0};
    if (poll(&pollfd, 1, 0) <= 0)
        return 0;

    uint32_t u32Events = 0;
    const bool blClosed = pollfd.revents & (POLLRDHUP | POLLHUP | POLLERR | POLLNVAL);
    size_t sizetWaiting = 0;
    if (blClosed)
        u32Events |= PLAT_SOCKET_CLOSE;
    if ((pollfd.revents & POLLIN) && (!blClosed || (PlatSocketWaiting(a_plathandle, &sizetWaiting) && sizetWaiting)))
        u32Events |= PLAT_SOCKET_READ | PLAT_SOCKET_ACCEPT;
    if ((pollfd.revents & POLLOUT) && !blClosed)
        u32Events |= PLAT_SOCKET_WRITE;
    if (blClosed || (pollfd.revents & POLLOUT))
        u32Events |= PLAT_SOCKET_CONNECT;
    return u32Events & a_u32Mask;
}

PlatHandle PlatSocketEventCreate()
{
    const int iEvent = epoll_create1(EPOLL_CLOEXEC);
    if (iEvent >= 0)
        return PosixMakeHandle(PosixKind::SocketEvent, iEvent);
    PosixFailErrno();
    return PLAT_INVALID;
}

bool PlatSocketEventSelect(PlatHandle a_plathandle, PlatHandle a_plathandleEvent, uint32_t a_u32Mask)
{
    const int iSocket = SocketOf(a_plathandle);
    if (iSocket < 0)
        return false;
    if (PosixKindOf(a_plathandleEvent) != PosixKind::SocketEvent)
        return PosixFail(PLAT_ERROR_INVALIDHANDLE);
    const int iEvent = PosixDescriptorOf(a_plathandleEvent);
    if (!a_u32Mask)
        return epoll_ctl(iEvent, EPOLL_CTL_DEL, iSocket, nullptr) == 0 || errno == ENOENT || PosixFailErrno();

    struct epoll_event epollevent = {};
    epollevent.events = ConditionsOf(a_u32Mask);
    if (epoll_ctl(iEvent, EPOLL_CTL_MOD, iSocket, &epollevent) == 0)
        return true;
    return (errno == ENOENT && epoll_ctl(iEvent, EPOLL_CTL_ADD, iSocket, &epollevent) == 0) || PosixFailErrno();
}

// -------------------------------------------------------------------------------------------------- addresses

bool PlatAddressFromText(const char* a_szText, PlatAddress* a_pplataddress)
{
    static_assert(sizeof a_pplataddress->au8Address == sizeof(in_addr));
    return inet_pton(AF_INET, a_szText, a_pplataddress->au8Address) == 1 || PosixFail(PLAT_ERROR_INVALIDPARAMETER);
}

bool PlatAddressToText(const PlatAddress* a_pplataddress, char* a_szText, size_t a_sizetText)
{
    return inet_ntop(AF_INET, a_pplataddress->au8Address, a_szText, static_cast<socklen_t>(a_sizetText)) ||
           PosixFail(PLAT_ERROR_INSUFFICIENTBUFFER);
}
