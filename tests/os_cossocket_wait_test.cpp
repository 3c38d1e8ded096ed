// os_cossocket_wait_test.cpp: what ends a wait, in which order, and what disconnecting does to it.
#include "os_cossync.h"
#include "os_costhread.h"
#include "socket_support.h"

#include "plat_socket.h"

#include <atomic>
#include <list>
#include <thread>

class SocketWaitTest : public FolderTest
{
protected:
    std::string PortOf(const SocketPair& a_socketpair) { return a_socketpair.listener.szPort; }

    LogCapture m_logcapture;
};

static EOSSTS SelectRead(COsSocket& a_possocket, uint32_t* a_pu32Read)
{
    *a_pu32Read = 0;
    return a_possocket.SocketSelect({.pu32Read = a_pu32Read});
}

// A listener whose queue is full: whoever connects now waits for an answer.
struct FullListener : Listener
{
    FullListener()
    {
        COsSocket::ConnectArgs connectargs = ConnectArgs();
        connectargs.i32Timeout = 50;
        do
        {
            listpossocket.emplace_back();
        } while (listpossocket.back().SocketConnect(connectargs) == EOSSTS_SUCCESS);
    }

    std::list<COsSocket> listpossocket;
};

TEST_F(SocketWaitTest, CancelGoesBeforeDataAndDataBeforeAStop)
{
    SocketPair socketpair;
    COsSync possync;
    uint32_t u32Read = 0;
    ASSERT_EQ(possync.EventCreate(nullptr, nullptr), EOSSTS_SUCCESS);
    EXPECT_EQ(Send(socketpair.client, "abc"), EOSSTS_SUCCESS);
    possync.EventSet();
    socketpair.server.SocketCancel();   // ends the next wait and only that
    EXPECT_EQ(SelectRead(socketpair.server, &u32Read), EOSSTS_CANCELLED);
    EXPECT_TRUE(m_logcapture.HasAt(4, "sock>>> select: we've been cancelled..."));
    EXPECT_EQ(SelectRead(socketpair.server, &u32Read), EOSSTS_SUCCESS);
    socketpair.server.SocketCancel();
    EXPECT_EQ(Receive(socketpair.server, {.u32Tag = 3, .possyncStop = &possync}).eossts, EOSSTS_DISCONNECTED);
    EXPECT_TRUE(m_logcapture.HasAt(1, "Cancel on " + PortOf(socketpair) + "...3 -1, turning it into a disconnect..."));
    EXPECT_EQ(Receive(socketpair.server, {.possyncStop = &possync}).strText, "abc");
    EXPECT_EQ(Receive(socketpair.server, {.possyncStop = &possync}).eossts, EOSSTS_EXITED);
    EXPECT_TRUE(m_logcapture.HasAt(1, "sock>>> select: thread wants to exit..."));
    EXPECT_TRUE(m_logcapture.HasAt(1, "Select failed on " + PortOf(socketpair) + "...13"));
    EXPECT_EQ(Receive(socketpair.server, {.u32Timeout = 5, .possyncStop = &possync}).eossts, EOSSTS_TIMEOUT);

    socketpair.client.SocketCancel();
    EXPECT_EQ(Send(socketpair.client, "abc"), EOSSTS_DISCONNECTED);
    EXPECT_TRUE(m_logcapture.HasAt(1, "Cancel on " + PortOf(socketpair) + ", turning it into a disconnect..."));
    EXPECT_EQ(Send(socketpair.client, "abc"), EOSSTS_SUCCESS);
}

TEST_F(SocketWaitTest, StopEventOrCancelEndsABlockedAccept)
{
    Listener listener;
    COsSync possync;
    COsSocket possocket;
    ASSERT_EQ(possync.EventCreate(nullptr, nullptr), EOSSTS_SUCCESS);
    std::thread stopper([&] { possync.EventSet(); });
    EXPECT_EQ(listener.Accept(possocket, &possync), EOSSTS_EXITED);
    stopper.join();
    EXPECT_TRUE(m_logcapture.HasAt(1, "Select failed when process exited on " + std::string(listener.szPort) + "..."));

    possocket.SocketCancel();
    EXPECT_EQ(possocket.SocketAccept(nullptr), EOSSTS_CANCELLED);
    EXPECT_TRUE(m_logcapture.HasAt(1, "Select failed on " + std::string(listener.szPort) + "...8"));
}

TEST_F(SocketWaitTest, WaitTellsWatchedProcessFromStopEvent)
{
    OtherProcess otherprocess;
    SocketPair socketpair(otherprocess.Id());
    COsSync possync;
    ASSERT_EQ(possync.EventCreate(nullptr, nullptr), EOSSTS_SUCCESS);
    possync.EventSet();
    EXPECT_EQ(Receive(socketpair.client, {.possyncStop = &possync}).eossts, EOSSTS_EXITED);
    EXPECT_TRUE(m_logcapture.HasAt(1, "sock>>> select: remote process died..."));
    EXPECT_FALSE(m_logcapture.Has("sock>>> select: thread wants to exit..."));
    otherprocess.End();
    EXPECT_EQ(Receive(socketpair.client, {.blQuiet = true}).eossts, EOSSTS_EXITED);
    EXPECT_TRUE(m_logcapture.HasAt(1, "sock>>> select: thread wants to exit..."));
    EXPECT_TRUE(m_logcapture.HasAt(4, "Select failed on " + PortOf(socketpair) + "...13"));
}

TEST_F(SocketWaitTest, ProcessOfAnAttemptAloneMayEndAfterIt)
{
    OtherProcess otherprocess;
    SocketPair socketpair;
    COsSocket::ConnectArgs connectargs = socketpair.listener.ConnectArgs(otherprocess.Id());
    connectargs.blWatchAttempt = true;
    EXPECT_EQ(socketpair.client.SocketConnect(connectargs), EOSSTS_SUCCESS);
    EXPECT_EQ(socketpair.listener.Accept(socketpair.server), EOSSTS_SUCCESS);
    const PlatHandle plathandle = PlatProcessOpen(otherprocess.Id());
    otherprocess.End();
    EXPECT_EQ(PlatWaitAny(&plathandle, 1, 20000), 0u);
    PlatClose(plathandle);
    EXPECT_EQ(Receive(socketpair.client, {.u32Timeout = 1}).eossts, EOSSTS_TIMEOUT);
    EXPECT_EQ(Send(socketpair.server, "abc"), EOSSTS_SUCCESS);
    EXPECT_EQ(Receive(socketpair.client).strText, "abc");
}

TEST_F(SocketWaitTest, ChildOfAThreadEndsTheWaitAndItsEndIsNoted)
{
    SocketPair socketpair;
    COsThread posthread;
    const COsSocket::ReadArgs readargs{.u32Timeout = 50, .posthread = &posthread};
    const auto spawn = [&] { return posthread.Spawn(OS_SPAWNFLAGS_NORETRY, "/bin/sleep", "sleep", {"1000"}); };
    EXPECT_TRUE(WaitFor([&] {
        EXPECT_EQ(spawn(), EOSSTS_SUCCESS);
        std::thread ender([plathandle = posthread.ChildProcess()] { PlatProcessTerminate(plathandle, 3); });
        const EOSSTS eossts = Receive(socketpair.server, readargs).eossts;
        ender.join();
        return eossts == EOSSTS_EXITED;   // else it had ended before the wait
    }));

    EXPECT_TRUE(WaitFor([&] { return !posthread.ChildIsRunning(); }));
    EXPECT_EQ(spawn(), EOSSTS_SUCCESS);
    EXPECT_EQ(Receive(socketpair.server, readargs).eossts, EOSSTS_TIMEOUT);
    PlatProcessTerminate(posthread.ChildProcess(), 7);
    EXPECT_TRUE(WaitFor([&] {
        Receive(socketpair.server, readargs);
        return posthread.ChildProcess() == PLAT_INVALID;
    }));
    EXPECT_EQ(posthread.ChildExitCode(), 7u);
    EXPECT_EQ(posthread.ChildProcessId(), 0u);
}

TEST_F(SocketWaitTest, SelectTellsWhatItWasAskedFor)
{
    SocketPair socketpair;
    uint32_t u32Read = 1;   // accept, on the listener
    uint32_t u32Write = 0;
    uint32_t u32Except = 7;
    COsSocket possocketClient;
    EXPECT_EQ(possocketClient.SocketConnect(socketpair.listener.ConnectArgs()), EOSSTS_SUCCESS);
    EXPECT_EQ(socketpair.listener.possocket.SocketSelect({.pu32Read = &u32Read}), EOSSTS_SUCCESS);
    EXPECT_EQ(u32Read, PLAT_SOCKET_ACCEPT);
    EXPECT_EQ(socketpair.client.SocketSelect({.pu32Write = &u32Write, .pu32Except = &u32Except}), EOSSTS_SUCCESS);
    EXPECT_EQ(u32Write, PLAT_SOCKET_WRITE);
    EXPECT_EQ(u32Except, 0u);

    EXPECT_EQ(Send(socketpair.client, "abc"), EOSSTS_SUCCESS);
    EXPECT_EQ(SelectRead(socketpair.server, &u32Read), EOSSTS_SUCCESS);
    EXPECT_EQ(u32Read, PLAT_SOCKET_READ);
    socketpair.client.SocketDisconnect(false);   // a close together with data is data first
    EXPECT_TRUE(WaitFor([&] {
        SelectRead(socketpair.server, &u32Read);
        return u32Read == (PLAT_SOCKET_READ | PLAT_SOCKET_CLOSE);
    }));
    EXPECT_EQ(Receive(socketpair.server).strText, "abc");
    EXPECT_EQ(SelectRead(socketpair.server, &u32Read), EOSSTS_DISCONNECTED);
}

TEST_F(SocketWaitTest, ConnectWithoutAnswerTimesOutOrIsCancelled)
{
    FullListener fulllistener;
    EXPECT_TRUE(m_logcapture.HasAt(4, "sock>>> WSAConnect timed out (device not found)..."));
    {
        COsSocket possocket;
        std::atomic<bool> blEnded{false};
        std::thread canceller([&] {
            WaitFor([&] {
                possocket.SocketCancel();
                return blEnded.load();
            });
        });
        EXPECT_EQ(possocket.SocketConnect(fulllistener.ConnectArgs()), EOSSTS_CANCELLED);
        blEnded = true;
        canceller.join();
        EXPECT_TRUE(m_logcapture.HasAt(1, "sock>>> WSAConnect canceled..."));
    }
    OtherProcess otherprocess;
    std::thread ender([&] { otherprocess.End(); });
    COsSocket possocket;
    EXPECT_EQ(possocket.SocketConnect(fulllistener.ConnectArgs(otherprocess.Id())), EOSSTS_EXITED);
    ender.join();
    EXPECT_TRUE(m_logcapture.HasAt(1, "sock>>> WSAConnect process exited..."));
}

TEST_F(SocketWaitTest, OtherThreadsDisconnectEndsReadAndAccept)
{
    FakeConfiguration cfgfake;
    cfgfake.Set(OS_CFGTAG_FORCENETCLOSEDELAY, "20");   // ms that a graceful end waits for the peer
    for (int iRound = 0; iRound < 50; ++iRound)
    {
        SocketPair socketpair;
        std::atomic<bool> blReading{false};
        std::thread reader([&] {
            EOSSTS eossts = EOSSTS_SUCCESS;
            for (blReading = true; eossts == EOSSTS_SUCCESS;)
                eossts = Receive(socketpair.server, {.u32Timeout = iRound % 2 == 0 ? OS_INFINITE : 5000}).eossts;
            EXPECT_TRUE(eossts == EOSSTS_DISCONNECTED || eossts == EOSSTS_NOTOPEN) << eossts;
        });
        std::thread acceptor([&] { EXPECT_NE(socketpair.listener.possocket.SocketAccept(nullptr), EOSSTS_SUCCESS); });
        Send(socketpair.client, "abc");
        WaitFor([&] { return blReading.load(); });
        std::thread second([&] { socketpair.server.SocketDisconnect(iRound % 3 == 0); });
        socketpair.server.SocketDisconnect(false);
        socketpair.listener.possocket.SocketDisconnect(false);
        second.join();
        reader.join();
        acceptor.join();
    }
}
