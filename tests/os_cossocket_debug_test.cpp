// os_cossocket_debug_test.cpp: the data trace and the side log.
#include "socket_support.h"

#include "plat_thread.h"

using SocketDebugTest = FolderTest;

static std::string TraceName()
{
    return "socket_" + std::to_string(PlatProcessId()) + "_" + std::to_string(PlatThreadId()) + ".log";
}

TEST_F(SocketDebugTest, TraceShowsWhatWasSentAndReceived)
{
    FakeConfiguration cfgfake;
    cfgfake.Set(OS_CFGTAG_DEBUGSOCKETS, "1");
    cfgfake.Set(OS_CFGTAG_LOGDIRECTORY, m_path.string() + "//");
    SocketPair socketpair;
    EXPECT_EQ(Send(socketpair.client, "\x0a\x0b\x0c"), EOSSTS_SUCCESS);
    EXPECT_EQ(ReadWhole(PathOf(TraceName())), "\n001 wr: 0a 0b 0c\n");
    EXPECT_EQ(Receive(socketpair.server).eossts, EOSSTS_SUCCESS);
    EXPECT_EQ(Send(socketpair.client, "\xff"), EOSSTS_SUCCESS);
    EXPECT_EQ(ReadWhole(PathOf(TraceName())), "\n001 wr: 0a 0b 0c\n    rd: 0a 0b 0c\n\n002 wr: ff\n");

    LogCapture logcapture;
    logcapture.m_u32WorkingWord = 1;   // the logger shows it all
    std::filesystem::remove(PathOf(TraceName()));
    EXPECT_EQ(Send(socketpair.client, "abc"), EOSSTS_SUCCESS);
    logcapture.m_u32WorkingWord = 0;
    EXPECT_FALSE(std::filesystem::exists(PathOf(TraceName())));
    EXPECT_EQ(Send(socketpair.client, std::string(60'000, 'x')), EOSSTS_SUCCESS);
    EXPECT_EQ(ReadWhole(PathOf(TraceName())).size(), 8 + 3 * 21839 + 1u);   // as much as the text holds
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
