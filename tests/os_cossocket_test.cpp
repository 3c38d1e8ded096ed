// os_cossocket_test.cpp: listening, connecting, reading, writing, letting go, and what is told of it.
#include "os_cossync.h"
#include "socket_support.h"

#include "plat_thread.h"

#include <arpa/inet.h>
#include <array>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

class SocketTest : public FolderTest
{
protected:
    LogCapture m_logcapture;
};

TEST_F(SocketTest, PortZeroGivesAFreePortOnTheLoopbackAddress)
{
    Listener listener;
    char szHost[OS_SOCKETHOSTSIZE];
    EXPECT_EQ(listener.possocket.SocketGetInfo(szHost, nullptr), EOSSTS_SUCCESS);
    EXPECT_STREQ(szHost, "127.0.0.1");
    EXPECT_GT(std::atoi(listener.szPort), 0);
    EXPECT_EQ(listener.possocket.SocketCreate("127.0.0.1", nullptr, "", nullptr), EOSSTS_FAIL);
    COsSocket possocketSame;   // the listener is untouched by that
    for (const auto& [szBadHost, szPort] : {std::pair{"127.0.0.1", static_cast<const char*>(listener.szPort)},
                                            {"some.host", "0"},
                                            {"", "0"},
                                            {"127.0.0.1", "70000"}})
        EXPECT_EQ(possocketSame.SocketCreate(szBadHost, szPort, "", nullptr), EOSSTS_FAIL) << szBadHost << szPort;
    EXPECT_EQ(m_logcapture.Count("sock>>> create: bind failed..."), 4u);
    EXPECT_EQ(possocketSame.SocketListen(), EOSSTS_FAIL);
}

TEST_F(SocketTest, AcceptSideForgetsTheListenerThatGoesOnForOthers)
{
    SocketPair socketpair;
    EXPECT_EQ(socketpair.server.SocketAccept(nullptr), EOSSTS_NOTOPEN);
    EXPECT_TRUE(m_logcapture.HasAt(1, "sock>>> accept: must call SocketCreate() first..."));
    {
        COsSocket possocketUnused;   // shares the listener and goes without having accepted
        EXPECT_EQ(possocketUnused.SocketCreate(nullptr, "0", "", &socketpair.listener.possocket), EOSSTS_SUCCESS);
    }
    COsSocket possocketClient;
    COsSocket possocketServer;
    EXPECT_EQ(possocketClient.SocketConnect(socketpair.listener.ConnectArgs()), EOSSTS_SUCCESS);
    EXPECT_EQ(socketpair.listener.Accept(possocketServer), EOSSTS_SUCCESS);

    COsSocket possocketEmpty;
    EXPECT_EQ(possocketServer.SocketCreate(nullptr, "0", "", &possocketEmpty), EOSSTS_FAIL);
    EXPECT_TRUE(m_logcapture.HasAt(1, "sock>>> create: socket failed..."));
}

TEST_F(SocketTest, RefusedConnectionShowsAtTheFirstReadOrWrite)
{
    Listener listener;
    listener.possocket.SocketDisconnect(false);
    COsSocket possocketReader;
    COsSocket possocketWriter;
    EXPECT_EQ(possocketReader.SocketConnect(listener.ConnectArgs()), EOSSTS_SUCCESS);
    EXPECT_EQ(possocketWriter.SocketConnect(listener.ConnectArgs()), EOSSTS_SUCCESS);
    EXPECT_EQ(Receive(possocketReader).eossts, EOSSTS_DISCONNECTED);
    EXPECT_EQ(Send(possocketWriter, "abc"), EOSSTS_DISCONNECTED);
}

TEST_F(SocketTest, ConnectRefusesWhatIsNoAddress)
{
    COsSocket possocket;
    for (const char* szPort : {"0", "70000", "-1", "text"})
    {
        m_logcapture.Clear();
        EXPECT_EQ(possocket.SocketConnect({.szPort = szPort}), EOSSTS_FAIL) << szPort;
        EXPECT_TRUE(m_logcapture.HasAt(4, "sock>>> connect: WSAConnect failed..."));
    }
    EXPECT_EQ(possocket.SocketConnect({.szHost = "no host", .szPort = "80"}), EOSSTS_FAIL);
    EXPECT_TRUE(m_logcapture.HasPart("GetAddrInfoW failed..."));
    EXPECT_EQ(possocket.SocketConnect({.szHost = "\xff\xfe", .szPort = "80"}), EOSSTS_FAIL);
    EXPECT_TRUE(m_logcapture.HasAt(1, "CopyStringFromUtf8 failed <\xff\xfe>"));
    EXPECT_EQ(possocket.SocketConnect({.szPort = "80", .u64ProcessId = 999999999}), EOSSTS_FAIL);
    EXPECT_TRUE(m_logcapture.HasAt(1, "sock>>> create: OpenProcess failed..."));
}

TEST_F(SocketTest, HostNamesAreResolved)
{
    Listener listener;
    COsSocket possocket;
    COsSocket::ConnectArgs connectargs = listener.ConnectArgs();
    connectargs.szHost = "localhost";
    connectargs.szName = "label";
    EXPECT_EQ(possocket.SocketConnect(connectargs), EOSSTS_SUCCESS);
    EXPECT_TRUE(m_logcapture.HasAt(4, "sock>>> <label> <localhost> <" + std::string(listener.szPort) + "> 0 0 -1 1"));

    char szAddress[OS_SOCKETHOSTSIZE];
    EXPECT_EQ(possocket.SocketGetInfo(szAddress, nullptr), EOSSTS_SUCCESS);
    EXPECT_STREQ(szAddress, "127.0.0.1");
    EXPECT_EQ(possocket.SocketResolveHost("localhost", szAddress), EOSSTS_SUCCESS);
    EXPECT_STREQ(szAddress, "127.0.0.1");
    EXPECT_EQ(possocket.SocketResolveHost("no host", szAddress), EOSSTS_FAIL);
    EXPECT_STREQ(szAddress, "");
    EXPECT_EQ(possocket.SocketResolveHost("", szAddress), EOSSTS_FAIL);
    EXPECT_EQ(possocket.SocketResolveHost("localhost", nullptr), EOSSTS_FAIL);
    EXPECT_EQ(m_logcapture.Count("bad argument..."), 2u);
}

TEST_F(SocketTest, ReadTakesWhatOneReceiveGivesAndClearsTheRest)
{
    SocketPair socketpair;
    std::string strBuffer(8, '#');
    size_t sizetRead = 77;
    COsSocket::ReadArgs readargs{
        .pvBuffer = strBuffer.data(), .sizetBuffer = strBuffer.size(), .u32Timeout = 5, .u32Tag = 9};
    EXPECT_EQ(socketpair.server.SocketRead(readargs, &sizetRead), EOSSTS_TIMEOUT);
    EXPECT_TRUE(m_logcapture.HasAt(1, "Select timeout on " + std::string(socketpair.listener.szPort) + "...9 5"));
    EXPECT_EQ(sizetRead, 0u);
    EXPECT_EQ(strBuffer, "########");   // nothing was received

    readargs.u32Timeout = OS_INFINITE;
    EXPECT_EQ(Send(socketpair.client, "0123456789"), EOSSTS_SUCCESS);
    EXPECT_EQ(socketpair.server.SocketRead(readargs, &sizetRead), EOSSTS_SUCCESS);
    EXPECT_EQ(strBuffer, "01234567");
    EXPECT_EQ(socketpair.server.SocketRead(readargs, &sizetRead), EOSSTS_SUCCESS);
    EXPECT_EQ(strBuffer, std::string("89\0\0\0\0\0\0", 8));
    EXPECT_EQ(sizetRead, 2u);
    EXPECT_EQ(m_logcapture.Count(">>> socket Select(read,-1,9,0)"), 2u);

    readargs.u32Timeout = 0;   // does not wait, and nothing is the end then
    EXPECT_EQ(socketpair.server.SocketRead(readargs, &sizetRead), EOSSTS_DISCONNECTED);
    EXPECT_TRUE(m_logcapture.HasAt(4, "sock>>> read: remote connection has been closed..."));
    EXPECT_EQ(strBuffer, std::string(8, '\0'));
    EXPECT_EQ(Send(socketpair.client, "abc"), EOSSTS_SUCCESS);
    EXPECT_TRUE(WaitFor([&] { return socketpair.server.SocketRead(readargs, &sizetRead) == EOSSTS_SUCCESS; }));
}

TEST_F(SocketTest, PeerThatClosesLeavesItsDataFirst)
{
    SocketPair socketpair;
    const std::string strPort = socketpair.listener.szPort;
    EXPECT_EQ(Send(socketpair.client, "last words"), EOSSTS_SUCCESS);
    socketpair.client.SocketDisconnect(true);
    EXPECT_EQ(Receive(socketpair.server).strText, "last words");
    EXPECT_EQ(Receive(socketpair.server, {.blQuiet = true}).eossts, EOSSTS_DISCONNECTED);
    EXPECT_TRUE(m_logcapture.HasAt(4, "sock>>> select: the socket isn't there anymore..."));
    EXPECT_TRUE(m_logcapture.HasAt(4, "Select failed on " + strPort + "...7"));
    EXPECT_EQ(Receive(socketpair.server).eossts, EOSSTS_DISCONNECTED);
    EXPECT_TRUE(m_logcapture.HasAt(1, "Select failed on " + strPort + "...7"));

    SocketPair socketpairBroken;   // a peer that goes with bytes unread breaks the connection
    EXPECT_EQ(Send(socketpairBroken.server, "unread"), EOSSTS_SUCCESS);
    EXPECT_EQ(Send(socketpairBroken.client, "last words"), EOSSTS_SUCCESS);
    socketpairBroken.client.SocketDisconnect(false);
    EXPECT_EQ(Receive(socketpairBroken.server).strText, "last words");
    EXPECT_EQ(Receive(socketpairBroken.server).eossts, EOSSTS_DISCONNECTED);
    EXPECT_EQ(Send(socketpairBroken.server, "abc"), EOSSTS_DISCONNECTED);
}

TEST_F(SocketTest, FirstWriteAfterThePeerHasGoneReportsIt)
{
    SocketPair socketpair;
    EXPECT_EQ(Send(socketpair.client, "abc"), EOSSTS_SUCCESS);
    EXPECT_EQ(Receive(socketpair.server).strText, "abc");
    socketpair.server.SocketDisconnect(false);
    m_logcapture.Clear();
    size_t sizetWritten = 77;
    EXPECT_EQ(socketpair.client.SocketWrite({.pvBuffer = "abc", .sizetBuffer = 3, .blLogging = false}, &sizetWritten),
              EOSSTS_DISCONNECTED);
    EXPECT_EQ(sizetWritten, 0u);
    EXPECT_TRUE(m_logcapture.Lines().empty());
    EXPECT_EQ(Send(socketpair.client, "abc"), EOSSTS_DISCONNECTED);
    EXPECT_TRUE(m_logcapture.HasAt(4, "Select failed on " + std::string(socketpair.listener.szPort) + "...7"));

    for (const bool blGraceful : {true, false, true})
        socketpair.client.SocketDisconnect(blGraceful);
    EXPECT_EQ(Receive(socketpair.client).eossts, EOSSTS_NOTOPEN);
    EXPECT_EQ(Send(socketpair.client, "abc"), EOSSTS_NOTOPEN);
    EXPECT_EQ(socketpair.client.SocketSelect({}), EOSSTS_NOTOPEN);
    EXPECT_EQ(socketpair.client.SocketConnect(socketpair.listener.ConnectArgs()), EOSSTS_SUCCESS);
    EXPECT_EQ(socketpair.listener.Accept(socketpair.server), EOSSTS_SUCCESS);
    EXPECT_EQ(Send(socketpair.client, "again"), EOSSTS_SUCCESS);
    EXPECT_EQ(Receive(socketpair.server).strText, "again");
}

TEST_F(SocketTest, BigTransferArrivesWholeInAZeroedBuffer)
{
    SocketPair socketpair;
    std::string strSent(3'000'000, '\0');
    for (size_t sizet = 0; sizet < strSent.size(); ++sizet)
        strSent[sizet] = static_cast<char>(1 + sizet % 251);
    std::thread writer([&] {
        for (size_t sizetAt = 0, sizetWritten = 0; sizetAt < strSent.size(); sizetAt += sizetWritten)
        {
            const size_t sizetPiece = std::min<size_t>(1 + sizetAt % 40'000, strSent.size() - sizetAt);
            ASSERT_EQ(socketpair.client.SocketWrite({.pvBuffer = &strSent[sizetAt], .sizetBuffer = sizetPiece},
                                                    &sizetWritten),
                      EOSSTS_SUCCESS);
        }
        socketpair.client.SocketDisconnect(true);
    });

    std::string strBuffer(65536, '#');
    std::string strReceived;
    size_t sizetDirty = strBuffer.size();
    size_t sizetRead = 0;
    const COsSocket::ReadArgs readargs{
        .pvBuffer = strBuffer.data(), .sizetBuffer = strBuffer.size() - 1, .psizetDirty = &sizetDirty};
    strBuffer.back() = '\0';
    while (socketpair.server.SocketRead(readargs, &sizetRead) == EOSSTS_SUCCESS)
    {
        strReceived.append(strBuffer, 0, sizetRead);
        ASSERT_EQ(strBuffer.find_first_not_of('\0', sizetRead), std::string::npos);
    }
    writer.join();
    EXPECT_EQ(strReceived, strSent);
}

TEST_F(SocketTest, SendThatFindsNoRoomIsRetriedAndGivenUp)
{
    SocketPair socketpair;
    const std::string strMuch(64 << 20, 'x');
    const COsSocket::WriteArgs writeargs{.pvBuffer = strMuch.data(), .sizetBuffer = strMuch.size(), .u32Timeout = 10};
    size_t sizetWritten = 0;
    EXPECT_EQ(socketpair.client.SocketWrite(writeargs, &sizetWritten), EOSSTS_SUCCESS);
    EXPECT_GT(sizetWritten, 0u);
    EXPECT_LT(sizetWritten, strMuch.size());

    // The receiver takes some more on its own, so the room is used up by trying.
    do
    {
        m_logcapture.Clear();
    } while (socketpair.client.SocketWrite(writeargs, &sizetWritten) == EOSSTS_SUCCESS);
    uint32_t u32Write = 0;
    EXPECT_EQ(socketpair.client.SocketSelect({.pu32Write = &u32Write, .u32Timeout = 1}), EOSSTS_SUCCESS);
    EXPECT_EQ(u32Write, 2u);
    EXPECT_EQ(sizetWritten, 0u);
    EXPECT_TRUE(m_logcapture.HasAt(4, "sock>>> select: select timeout on write (this is okay)..."));
    for (const char* szTry : {"(0)", "(8)"})
        EXPECT_TRUE(m_logcapture.HasPart(std::string("failed WSAEWOULDBLOCK. Sleep (100) and retry again ") + szTry));
    EXPECT_FALSE(m_logcapture.HasPart("retry again (9)"));
    EXPECT_TRUE(m_logcapture.HasAt(1, "sock>>> write: send failed..."));
}

TEST_F(SocketTest, TrySendTakesWhatFitsAndNothingAfterTheEnd)
{
    SocketPair socketpair;
    const std::string strMuch(64 << 20, 'x');
    size_t sizetSent = 0;
    EXPECT_EQ(socketpair.client.SocketTrySend("abc", 3, &sizetSent), EOSSTS_SUCCESS);
    EXPECT_EQ(Receive(socketpair.server).strText, "abc");
    EXPECT_TRUE(WaitFor([&] {
        return socketpair.client.SocketTrySend(strMuch.data(), strMuch.size(), &sizetSent) == EOSSTS_SUCCESS &&
               sizetSent == 0;
    }));
    EXPECT_EQ(socketpair.client.SocketUnsent(&sizetSent), EOSSTS_SUCCESS);
    EXPECT_GT(sizetSent, 0u);

    SocketPair socketpairEnded;
    EXPECT_EQ(socketpairEnded.server.SocketEndSending(), EOSSTS_SUCCESS);
    EXPECT_EQ(Receive(socketpairEnded.client).eossts, EOSSTS_DISCONNECTED);
    EXPECT_EQ(socketpairEnded.client.SocketTrySend("lost", 4, &sizetSent), EOSSTS_DISCONNECTED);
    EXPECT_EQ(Send(socketpairEnded.server, "no more"), EOSSTS_DISCONNECTED);
    EXPECT_EQ(socketpairEnded.server.SocketSelect({.pu32Read = nullptr, .u32Timeout = 0}), EOSSTS_TIMEOUT);
    socketpairEnded.client.SocketDisconnect(false);
    EXPECT_EQ(socketpairEnded.client.SocketTrySend("lost", 4, &sizetSent), EOSSTS_NOTOPEN);
}

// The connection that could not be taken waits, and so does an accept for which there is none.
TEST_F(SocketTest, AcceptWithoutDescriptorsSucceedsLater)
{
    Listener listener;
    COsSocket client, server, other;
    COsSync possync;
    EXPECT_EQ(possync.EventCreate(nullptr, nullptr), EOSSTS_SUCCESS);
    EXPECT_EQ(possync.EventSet(), EOSSTS_SUCCESS);
    EXPECT_EQ(server.SocketCreate(nullptr, "0", "test", &listener.possocket), EOSSTS_SUCCESS);
    {
        const NoDescriptors nodescriptors;
        EXPECT_EQ(server.SocketAccept(&possync), EOSSTS_EXITED);
    }
    EXPECT_EQ(client.SocketConnect(listener.ConnectArgs()), EOSSTS_SUCCESS);
    EXPECT_EQ(Send(client, "abc"), EOSSTS_SUCCESS);
    {
        const NoDescriptors nodescriptors;
        EXPECT_EQ(server.SocketAccept(nullptr), EOSSTS_NOMEMORY);
        EXPECT_TRUE(m_logcapture.HasAt(1, "sock>>> accept: accept failed..."));
        EXPECT_EQ(other.SocketCreate(nullptr, "0", "test", &listener.possocket), EOSSTS_NOMEMORY);
        EXPECT_EQ(other.SocketCreate(nullptr, "0", "test", nullptr), EOSSTS_NOMEMORY);
    }
    EXPECT_EQ(server.SocketAccept(nullptr), EOSSTS_SUCCESS);
    EXPECT_EQ(Receive(server).strText, "abc");
}

// An option as the system has it, of this process's socket that is connected to a port; -1 when there is none.
static int OptionOf(const char* a_szPort, int a_iLevel, int a_iName)
{
    for (int iSocket = 0; iSocket < 1024; ++iSocket)
    {
        sockaddr_in address = {};
        socklen_t socklen = sizeof address;
        int iValue = 0;
        if (getpeername(iSocket, reinterpret_cast<sockaddr*>(&address), &socklen) != 0 ||
            ntohs(address.sin_port) != std::atoi(a_szPort))
            continue;
        socklen = sizeof iValue;
        return getsockopt(iSocket, a_iLevel, a_iName, &iValue, &socklen) == 0 ? iValue : -1;
    }
    return -1;
}

TEST_F(SocketTest, ConfigurationSetsOptions)
{
    const struct
    {
        const char* szKeepAlive;
        const char* szNoDelay;
        bool blNoDelay;
        int iKeepAlive;
        int iNoDelay;
    } acase[] = {{"0", "1", false, 0, 0}, {"0x1", "1", true, 1, 1}, {"0", "2", false, 0, 1}};
    FakeConfiguration cfgfake;
    for (const auto& [szKeepAlive, szNoDelay, blNoDelay, iKeepAlive, iNoDelay] : acase)
    {
        cfgfake.Set(OS_CFGTAG_FORCENETKEEPALIVE, szKeepAlive);
        cfgfake.Set(OS_CFGTAG_FORCENETNODELAY, szNoDelay);
        Listener listener;
        COsSocket client, server;
        EXPECT_EQ(client.SocketConnect({.szPort = listener.szPort, .blNoDelay = blNoDelay, .u32SendBuffer = 32768}),
                  EOSSTS_SUCCESS);
        EXPECT_EQ(listener.Accept(server), EOSSTS_SUCCESS);
        EXPECT_EQ(OptionOf(listener.szPort, SOL_SOCKET, SO_KEEPALIVE), iKeepAlive);
        EXPECT_EQ(OptionOf(listener.szPort, IPPROTO_TCP, TCP_NODELAY), iNoDelay);
        EXPECT_EQ(OptionOf(listener.szPort, SOL_SOCKET, SO_SNDBUF), 2 * 32768);   // it doubles what it is told
    }
}

// That is waited for where a read takes the cancel; another cancel may come on a busy machine.
TEST_F(SocketTest, ConfigurationSetsHowLongAPeerIsWaitedFor)
{
    FakeConfiguration cfgfake;
    cfgfake.Set(OS_CFGTAG_FORCENETCLOSEDELAY, "300");   // ms that a graceful end waits for a peer who does not end
    EXPECT_TRUE(WaitFor([&] {
        m_logcapture.Clear();
        SocketPair socketpair;
        std::jthread reader([&] { EXPECT_EQ(Receive(socketpair.client).eossts, EOSSTS_DISCONNECTED); });
        EXPECT_TRUE(WaitFor([&] { return m_logcapture.HasPart(">>> socket Select(read"); }));
        const uint64_t u64Begin = PlatTicks();
        socketpair.client.SocketDisconnect(true);
        EXPECT_LT(PlatTicks() - u64Begin, 4000u);
        return PlatTicks() - u64Begin >= 300;
    }));
}

// In a process of its own: it is looked at by the first socket that there is.
TEST_F(SocketTest, CertificateStoreIsCheckedOnce)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto check = [this] {
        FakeConfiguration cfgfake;
        cfgfake.Set(OS_CFGTAG_FORCEHTTPSCLIENTCERTIFICATE, "Subject");
        const COsSocket first, second;
        return m_logcapture.Count("event>>> bad value for ForceHttpsClientCertificate, format must be store/name..."
                                  "<Subject>");
    };
    EXPECT_EXIT(_exit(static_cast<int>(check())), testing::ExitedWithCode(1), "");
}

// ---------------------------------------------------------------------------------- the data trace and the side log

using SocketDebugTest = FolderTest;

TEST_F(SocketDebugTest, TraceShowsWhatWasSentAndReceived)
{
    FakeConfiguration cfgfake;
    cfgfake.Set(OS_CFGTAG_DEBUGSOCKETS, "1");
    cfgfake.Set(OS_CFGTAG_LOGDIRECTORY, m_path.string() + "//");
    const std::string strTrace =
        PathOf("socket_" + std::to_string(PlatProcessId()) + "_" + std::to_string(PlatThreadId()) + ".log");
    SocketPair socketpair;
    EXPECT_EQ(Send(socketpair.client, "\x0a\x0b\x0c"), EOSSTS_SUCCESS);
    EXPECT_EQ(Receive(socketpair.server).eossts, EOSSTS_SUCCESS);
    EXPECT_EQ(Send(socketpair.client, "\xff"), EOSSTS_SUCCESS);
    EXPECT_EQ(ReadWhole(strTrace), "\n001 wr: 0a 0b 0c\n    rd: 0a 0b 0c\n\n002 wr: ff\n");

    LogCapture logcapture;
    logcapture.m_u32WorkingWord = 1;   // the logger shows it all
    std::filesystem::remove(strTrace);
    EXPECT_EQ(Send(socketpair.client, "abc"), EOSSTS_SUCCESS);
    logcapture.m_u32WorkingWord = 0;
    EXPECT_FALSE(std::filesystem::exists(strTrace));
    EXPECT_EQ(Send(socketpair.client, std::string(60'000, 'x')), EOSSTS_SUCCESS);
    EXPECT_EQ(ReadWhole(strTrace).size(), 8 + 3 * 21839 + 1u);   // as much as the text holds
}

TEST_F(SocketDebugTest, SideLogTellsOnlyWhatComesWithAnError)
{
    setenv("MVR_SOCKETSIDELOG", "1", 1);
    FakeConfiguration cfgfake;
    cfgfake.Set(OS_CFGTAG_LOGDIRECTORY, m_path.string());
    SocketPair socketpair;
    socketpair.client.SocketDisconnect(false);
    PlatSetLastError(0);
    EXPECT_EQ(Send(socketpair.client, "abc"), EOSSTS_NOTOPEN);
    EXPECT_FALSE(std::filesystem::exists(PathOf("socketsidelog.txt")));
    PlatSetLastError(10054);
    EXPECT_EQ(socketpair.client.SocketWrite({.pvBuffer = "abc", .sizetBuffer = 3, .blLogging = false}, nullptr),
              EOSSTS_NOTOPEN);
    EXPECT_EQ(PlatGetLastError(), 10054u);

    std::string strLine = ReadWhole(PathOf("socketsidelog.txt"));
    ASSERT_GT(strLine.size(), 27u);
    strLine.replace(21, 6, "LINENO");
    EXPECT_EQ(strLine, "os_cossocket         LINENO 00010054 sock>>> write: must open a socket first...\r\n");
}
