// plat_socket_test.cpp: connecting, closing, what is reported and when, and the event that tells it.
#include "plat_socket_support.h"

#include <cstring>
#include <thread>

namespace
{

bool IsReady(const Handle& a_handleEvent, uint32_t a_u32Milliseconds = 0)
{
    const PlatHandle plathandle = a_handleEvent;
    return PlatWaitAny(&plathandle, 1, a_u32Milliseconds) == 0;
}

class PlatSocket : public ConnectedSockets
{
protected:
    Handle m_handleEvent{PlatSocketEventCreate()};
};

TEST_F(PlatSocket, BytesArriveAndAreCountedBeforeTheyAreRead)
{
    Handle handlePeer(ConnectAndAccept(m_handleClient));
    PlatAddress plataddress;
    ASSERT_TRUE(PlatSocketName(m_handleClient, &plataddress));
    EXPECT_EQ(plataddress.u16Port, m_plataddressPeer.u16Port);
    EXPECT_EQ(PlatSocketPoll(handlePeer, READ | WRITE | CLOSE), WRITE);
    EXPECT_EQ(Receive(handlePeer), "error 10035");
    for (const auto platsocketoption : {PLAT_SOCKETOPTION_KEEPALIVE, PLAT_SOCKETOPTION_NODELAY})
        EXPECT_TRUE(PlatSocketSetOption(m_handleClient, platsocketoption, true));
    EXPECT_TRUE(Sends(m_handleClient, "line\r\n"));
    size_t sizetWaiting = 0;
    EXPECT_TRUE(WaitFor([&] { return PlatSocketWaiting(handlePeer, &sizetWaiting) && sizetWaiting == 6; }));
    EXPECT_EQ(PlatSocketPoll(handlePeer, READ | CLOSE), READ);
    EXPECT_EQ(Receive(handlePeer), "line\r\n");
    EXPECT_EQ(PlatSocketPoll(handlePeer, READ | CLOSE), 0u);
}

// The first line after the reader's death must not vanish: the wait for writing says closed, not writable.
TEST_F(PlatSocket, ConnectionWhosePeerHasClosedIsNeverWritable)
{
    Handle handlePeer(ConnectAndAccept(m_handleClient));
    EXPECT_TRUE(PlatSocketEventSelect(m_handleClient, m_handleEvent, WRITE | CLOSE) && IsReady(m_handleEvent));
    EXPECT_EQ(PlatSocketPoll(m_handleClient, WRITE | CLOSE), WRITE);
    handlePeer.Close();
    EXPECT_TRUE(Reports(m_handleClient, WRITE | CLOSE, CLOSE));
    EXPECT_TRUE(IsReady(m_handleEvent));
    EXPECT_EQ(PlatSocketPoll(m_handleClient, WRITE), 0u);
}

TEST_F(PlatSocket, RefusalIsReportedLate)
{
    m_handleListener.Close();
    EXPECT_TRUE(PlatSocketEventSelect(m_handleClient, m_handleEvent, CONNECT | CLOSE));
    EXPECT_FALSE(PlatSocketConnect(m_handleClient, &m_plataddress));
    EXPECT_EQ(PlatGetLastError(), PLAT_ERROR_WOULDBLOCK);
    EXPECT_TRUE(IsReady(m_handleEvent, PLAT_INFINITE));
    EXPECT_EQ(PlatSocketPoll(m_handleClient, CONNECT | CLOSE), CONNECT | CLOSE);
    EXPECT_FALSE(Sends(m_handleClient, "x"));
    m_plataddress.u16Port = 0;
    const Handle handleNowhere(PlatSocketCreate());
    EXPECT_FALSE(PlatSocketConnect(handleNowhere, &m_plataddress));
    EXPECT_EQ(PlatGetLastError(), PLAT_ERROR_ADDRNOTAVAIL);
}

TEST_F(PlatSocket, ConnectionThatClosedBeforeItWasTakenLosesNothing)
{
    EXPECT_EQ(PlatSocketAccept(m_handleListener, nullptr), PLAT_INVALID);
    EXPECT_EQ(PlatGetLastError(), PLAT_ERROR_WOULDBLOCK);
    EXPECT_TRUE(Connect(m_handleClient) && Reports(m_handleClient, CONNECT, CONNECT) && Sends(m_handleClient, "one"));
    m_handleClient.Close();
    const Handle handleOther(PlatSocketCreate());
    EXPECT_TRUE(Connect(handleOther) && Reports(handleOther, CONNECT, CONNECT) && Sends(handleOther, "two"));
    for (const char* szText : {"one", "two"})
    {
        EXPECT_TRUE(Reports(m_handleListener, ACCEPT, ACCEPT));
        const Handle handlePeer(PlatSocketAccept(m_handleListener, nullptr));
        EXPECT_TRUE(WaitFor([&] { return Receive(handlePeer) == szText; }));
    }
}

TEST_F(PlatSocket, EventFollowsTheMaskSelectedLast)
{
    Handle handlePeer(ConnectAndAccept(m_handleClient));
    EXPECT_TRUE(PlatSocketEventSelect(handlePeer, m_handleEvent, READ | CLOSE));
    EXPECT_FALSE(IsReady(m_handleEvent));
    EXPECT_TRUE(PlatSocketEventSelect(handlePeer, m_handleEvent, WRITE | CLOSE) && IsReady(m_handleEvent));
    EXPECT_TRUE(PlatSocketEventSelect(handlePeer, m_handleEvent, 0));
    EXPECT_FALSE(IsReady(m_handleEvent));

    // The number of a closed socket goes to the next one.
    EXPECT_TRUE(PlatSocketEventSelect(handlePeer, m_handleEvent, WRITE));
    handlePeer.Close();
    const Handle handleClient(PlatSocketCreate());
    EXPECT_FALSE(IsReady(m_handleEvent));
    EXPECT_TRUE(PlatSocketEventSelect(handleClient, m_handleEvent, READ | CLOSE) && IsReady(m_handleEvent));
}

TEST_F(PlatSocket, AddressesAndNames)
{
    char szText[16];
    PlatAddress plataddress;
    EXPECT_TRUE(PlatAddressFromText("10.0.200.7", &plataddress) && PlatAddressToText(&plataddress, szText, 16));
    EXPECT_STREQ(szText, "10.0.200.7");
    for (const char* szBad : {"", "localhost", "1.2.3", "1.2.3.256", "::1"})
        EXPECT_FALSE(PlatAddressFromText(szBad, &plataddress)) << szBad;
    EXPECT_TRUE(PlatAddressResolve(u"localhost", &plataddress) && plataddress.au8Address[0] == 127);
    EXPECT_FALSE(PlatAddressResolve(u"no such host", &plataddress));
    EXPECT_EQ(PlatGetLastError(), PLAT_ERROR_HOSTNOTFOUND);
    EXPECT_FALSE(PlatSocketListen(m_handleEvent, 1));
    EXPECT_EQ(PlatGetLastError(), PLAT_ERROR_NOTSOCKET);
    EXPECT_FALSE(PlatSocketBind(m_handleClient, &m_plataddress));
    EXPECT_EQ(PlatGetLastError(), PLAT_ERROR_ADDRINUSE);
}

// The port of a client may be the one that it wants to reach.
TEST_F(PlatSocket, ConnectToItselfIsARefusal)
{
    m_plataddress.u16Port = 0;
    const Handle handle(PlatSocketCreate());
    ASSERT_TRUE(PlatSocketBind(handle, &m_plataddress) && PlatSocketName(handle, &m_plataddress));
    EXPECT_TRUE(Connect(handle));
    EXPECT_TRUE(Reports(handle, WRITE | CONNECT | CLOSE, CONNECT | CLOSE));
    EXPECT_FALSE(Sends(handle, "x"));
    EXPECT_EQ(PlatGetLastError(), PLAT_ERROR_CONNRESET);
}

TEST_F(PlatSocket, ConnectionsAreCountedAtTheServersEnd)
{
    const auto count = [this] {
        uint32_t u32Count = 77;
        EXPECT_TRUE(PlatSocketCountConnections(m_plataddress.u16Port, &u32Count));
        return u32Count;
    };
    EXPECT_EQ(count(), 0u);
    Handle handleServer(ConnectAndAccept(m_handleClient));
    EXPECT_EQ(count(), 1u);
    m_handleClient.Close();
    EXPECT_EQ(count(), 1u);
    handleServer.Close();
    EXPECT_TRUE(WaitFor([&] { return count() == 0; }));
}

}   // namespace
