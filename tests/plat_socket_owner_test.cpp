// plat_socket_owner_test.cpp: who has the other end of a connection, or a port, and what was not read there.
#include "plat_fork.h"
#include "plat_socket_support.h"

#include <csignal>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

static bool operator==(const PlatSocketOwner& a_one, const PlatSocketOwner& a_other)
{
    return a_one.platowner == a_other.platowner && a_one.u64User == a_other.u64User &&
           a_one.u64ProcessId == a_other.u64ProcessId && a_one.u64Unread == a_other.u64Unread &&
           a_one.blHeld == a_other.blHeld && a_one.platholds == a_other.platholds;
}

static void PrintTo(const PlatSocketOwner& a_platsocketowner, std::ostream* a_pstream)
{
    *a_pstream << a_platsocketowner.platowner << " user " << a_platsocketowner.u64User << " unread "
               << a_platsocketowner.u64Unread << " held " << a_platsocketowner.blHeld << ' '
               << a_platsocketowner.platholds;
}

namespace
{
constexpr uid_t g_uidOther = 1000;

PlatSocketOwner Ours(uint64_t a_u64Unread)
{
    return {PLAT_OWNER_SAME, geteuid(), 0, a_u64Unread, true, PLAT_HOLDS_UNKNOWN};
}

constexpr PlatSocketOwner g_platsocketownerNobody{PLAT_OWNER_NONE, 0, 0, 0, false, PLAT_HOLDS_UNKNOWN};

PlatSocketOwner PeerOf(PlatHandle a_plathandle)
{
    PlatSocketOwner platsocketowner{PLAT_OWNER_OTHER, 7, 7, 7, true, PLAT_HOLDS_YES};
    EXPECT_TRUE(PlatSocketPeerOwner(a_plathandle, &platsocketowner)) << PlatGetLastError();
    return platsocketowner;
}

PlatSocketOwner ListenerOn(uint16_t a_u16Port, uint64_t a_u64ProcessId = 0)
{
    PlatSocketOwner platsocketowner{PLAT_OWNER_OTHER, 7, 7, 7, true, PLAT_HOLDS_YES};
    EXPECT_TRUE(PlatSocketListenerOwner(a_u16Port, a_u64ProcessId, &platsocketowner)) << PlatGetLastError();
    return platsocketowner;
}

// Cases on a machine that does not tell would all fail in the same way.
class SocketOwner : public ConnectedSockets
{
protected:
    void SetUp() override
    {
        PlatSocketOwner platsocketowner{};
        if (!PlatSocketListenerOwner(m_plataddress.u16Port, 0, &platsocketowner))
            GTEST_SKIP() << "this system does not tell who owns a socket";
    }
};

// A listener of the system's own, on every address of the family; IPv6 takes connections of IPv4 as well.
struct RawListener
{
    explicit RawListener(int a_iFamily) : m_iSocket(socket(a_iFamily, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        const int iOff = 0;
        sockaddr_in6 address = {};   // its port is where that of IPv4 is
        socklen_t socklen = sizeof address;
        address.sin6_family = static_cast<sa_family_t>(a_iFamily);
        auto* psockaddr = reinterpret_cast<sockaddr*>(&address);
        if (a_iFamily == AF_INET6)
            setsockopt(m_iSocket, IPPROTO_IPV6, IPV6_V6ONLY, &iOff, sizeof iOff);
        EXPECT_TRUE(m_iSocket < 0 || (bind(m_iSocket, psockaddr, socklen) == 0 && listen(m_iSocket, 1) == 0 &&
                                      getsockname(m_iSocket, psockaddr, &socklen) == 0));
        m_u16Port = ntohs(address.sin6_port);
    }
    ~RawListener() { close(m_iSocket); }
    RawListener(const RawListener&) = delete;
    RawListener& operator=(const RawListener&) = delete;

    int m_iSocket;
    uint16_t m_u16Port = 0;
};
}   // namespace

// A client can wait until its connection was taken. The end of the stream is no byte.
TEST_F(SocketOwner, PeerIsOursAndItsUnreadBytesAreCounted)
{
    EXPECT_TRUE(Connect(m_handleClient) && Reports(m_handleClient, CONNECT, CONNECT));
    EXPECT_FALSE(PeerOf(m_handleClient).blHeld);
    const Handle handlePeer(PlatSocketAccept(m_handleListener, nullptr));
    EXPECT_EQ(PeerOf(m_handleClient), Ours(0));
    EXPECT_TRUE(Sends(m_handleClient, "12345") && Reports(handlePeer, READ, READ));
    EXPECT_EQ(PeerOf(m_handleClient), Ours(5));
    EXPECT_TRUE(PlatSocketShutdown(m_handleClient, false, true) && Reports(handlePeer, READ | CLOSE, READ | CLOSE));
    EXPECT_EQ(PeerOf(m_handleClient), Ours(5));
    EXPECT_EQ(PeerOf(handlePeer), Ours(0));
    EXPECT_EQ(Receive(handlePeer), "12345");
    EXPECT_EQ(PeerOf(m_handleClient), Ours(0));
}

TEST_F(SocketOwner, PeerThatHasClosedIsNobody)
{
    for (const bool blUnread : {false, true})
    {
        const Handle handleClient(PlatSocketCreate());
        Handle handlePeer(ConnectAndAccept(handleClient));
        EXPECT_TRUE(!blUnread || (Sends(handleClient, "unread") && Reports(handlePeer, READ, READ)));
        handlePeer.Close();
        EXPECT_TRUE(Reports(handleClient, CLOSE, CLOSE));
        EXPECT_EQ(PeerOf(handleClient), g_platsocketownerNobody) << blUnread;
        PlatSocketShutdown(handleClient, false, true);
        EXPECT_EQ(PeerOf(handleClient), g_platsocketownerNobody) << blUnread;
    }
}

// Our end has heard nothing of it, and the listener, which is ours, has the peer's address.
TEST_F(SocketOwner, PeerThatVanishedIsNobodyAndNotTheListener)
{
    const RawListener rawlistener(AF_INET);
    m_plataddress.u16Port = rawlistener.m_u16Port;
    EXPECT_TRUE(Connect(m_handleClient));
    const int iPeer = accept(rawlistener.m_iSocket, nullptr, nullptr);
    EXPECT_EQ(PeerOf(m_handleClient), Ours(0));
    const int iOn = 1;
    const bool blSilent = setsockopt(iPeer, IPPROTO_TCP, TCP_REPAIR, &iOn, sizeof iOn) == 0;
    close(iPeer);
    if (!blSilent)
        GTEST_SKIP() << "no socket can vanish without root";
    EXPECT_EQ(PeerOf(m_handleClient), g_platsocketownerNobody);
    EXPECT_EQ(PlatSocketPoll(m_handleClient, WRITE | CLOSE), WRITE);
}

TEST_F(SocketOwner, ListenerIsOursUntilItCloses)
{
    EXPECT_EQ(ListenerOn(m_plataddress.u16Port), Ours(0));
    EXPECT_TRUE(Connect(m_handleClient) && Reports(m_handleListener, ACCEPT, ACCEPT));
    EXPECT_EQ(ListenerOn(m_plataddress.u16Port), Ours(1));
    PlatAddress plataddressClient{};
    EXPECT_TRUE(PlatSocketName(m_handleClient, &plataddressClient));
    EXPECT_EQ(ListenerOn(plataddressClient.u16Port), g_platsocketownerNobody);
    m_handleListener.Close();
    EXPECT_EQ(ListenerOn(m_plataddress.u16Port), g_platsocketownerNobody);
}

TEST_F(SocketOwner, ProcessThatHoldsTheListenerIsToldFromOthers)
{
    const auto holds = [&](pid_t a_pid) { return ListenerOn(m_plataddress.u16Port, static_cast<uint64_t>(a_pid)); };
    PlatSocketOwner platsocketowner = Ours(0);
    platsocketowner.platholds = PLAT_HOLDS_YES;
    platsocketowner.u64ProcessId = static_cast<uint64_t>(getpid());
    EXPECT_EQ(holds(getpid()), platsocketowner);

    // One that has other sockets open, then waits to be reaped, then is no more.
    platsocketowner.platholds = PLAT_HOLDS_NO;
    platsocketowner.u64ProcessId = 0;
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0)
    {
        m_handleListener.Close();
        for (const Handle handleOther(PlatSocketCreate());;)
            pause();
    }
    EXPECT_TRUE(WaitFor([&] { return holds(pid) == platsocketowner; }));
    kill(pid, SIGKILL);
    EXPECT_TRUE(WaitFor([&] { return holds(pid) == Ours(0); }));
    waitpid(pid, nullptr, 0);
    EXPECT_EQ(holds(pid), Ours(0));
}

TEST_F(SocketOwner, SocketsForEveryAddressAreFound)
{
    PlatAddress plataddressEvery{};
    const Handle handleEvery(PlatSocketCreate());
    EXPECT_TRUE(PlatSocketBind(handleEvery, &plataddressEvery) && PlatSocketListen(handleEvery, 1) &&
                PlatSocketName(handleEvery, &plataddressEvery));
    EXPECT_EQ(ListenerOn(plataddressEvery.u16Port), Ours(0));

    const RawListener rawlistener(AF_INET6);
    if (rawlistener.m_iSocket < 0)
        GTEST_SKIP() << "no IPv6 on this machine";
    m_plataddress.u16Port = rawlistener.m_u16Port;
    EXPECT_EQ(ListenerOn(m_plataddress.u16Port), Ours(0));
    EXPECT_TRUE(Connect(m_handleClient) && Reports(m_handleClient, CONNECT, CONNECT) && Sends(m_handleClient, "six"));
    const int iPeer = accept(rawlistener.m_iSocket, nullptr, nullptr);
    EXPECT_TRUE(WaitFor([&] { return PeerOf(m_handleClient) == Ours(3); }));
    close(iPeer);
}

TEST_F(SocketOwner, OtherUsersAreToldApart)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can be another user";
    const auto other = [] { return setuid(g_uidOther) == 0; };
    const auto asksForOurs = [&] { return ListenerOn(m_plataddress.u16Port).platowner; };
    EXPECT_EQ(InOtherProcess(other, asksForOurs), PLAT_OWNER_SYSTEM);
    const auto asksWhetherWeHold = [&, u64Us = static_cast<uint64_t>(getpid())] {
        return ListenerOn(m_plataddress.u16Port, u64Us).platholds;
    };
    EXPECT_EQ(InOtherProcess(other, asksWhetherWeHold), PLAT_HOLDS_UNKNOWN);

    // A user that cannot be named where we are is never the same, whoever we are.
    const auto unnamed = [] { return unshare(CLONE_NEWUSER) == 0; };
    const int iUnnamed = InOtherProcess(unnamed, asksForOurs);
    EXPECT_TRUE(iUnnamed == PLAT_OWNER_OTHER || iUnnamed == 99 /* no such thing here */) << iUnnamed;

    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0)
    {
        const PlatHandle plathandle = other() ? PlatSocketCreate() : PLAT_INVALID;
        while (Connect(plathandle))
            pause();
        _exit(1);
    }
    EXPECT_TRUE(Reports(m_handleListener, ACCEPT, ACCEPT));
    const Handle handlePeer(PlatSocketAccept(m_handleListener, nullptr));
    EXPECT_EQ(PeerOf(handlePeer), (PlatSocketOwner{PLAT_OWNER_OTHER, g_uidOther, 0, 0, true, PLAT_HOLDS_UNKNOWN}));
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
    EXPECT_TRUE(WaitFor([&] { return PeerOf(handlePeer) == g_platsocketownerNobody; }));
}

TEST_F(SocketOwner, WantOfDescriptorsIsToldAndForgotten)
{
    PlatSocketOwner platsocketowner = Ours(7);
    {
        const NoDescriptors nodescriptors;
        EXPECT_FALSE(PlatSocketListenerOwner(m_plataddress.u16Port, 0, &platsocketowner));
    }
    EXPECT_EQ(platsocketowner, PlatSocketOwner{});
    EXPECT_EQ(ListenerOn(m_plataddress.u16Port), Ours(0));
    EXPECT_FALSE(PlatSocketPeerOwner(PLAT_INVALID, &platsocketowner));
    EXPECT_EQ(PlatGetLastError(), PLAT_ERROR_NOTSOCKET);
}
