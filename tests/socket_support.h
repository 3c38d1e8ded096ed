// socket_support.h: connected sockets, and a process to watch.
#pragma once

#include "os_cossocket.h"
#include "test_support.h"

#include "plat_process.h"

#include <string>

// A listener on a port that the system chose.
struct Listener
{
    Listener()
    {
        EXPECT_EQ(possocket.SocketCreate(nullptr, "0", "test", nullptr), EOSSTS_SUCCESS);
        EXPECT_EQ(possocket.SocketListen(), EOSSTS_SUCCESS);
        EXPECT_EQ(possocket.SocketGetInfo(nullptr, szPort), EOSSTS_SUCCESS);
    }
    COsSocket::ConnectArgs ConnectArgs(uint64_t a_u64ProcessId = 0) const
    {
        return {.szPort = szPort, .u64ProcessId = a_u64ProcessId};
    }
    EOSSTS Accept(COsSocket& a_possocket, COsSync* a_possyncStop = nullptr)
    {
        EXPECT_EQ(a_possocket.SocketCreate(nullptr, "0", "test", &possocket), EOSSTS_SUCCESS);
        return a_possocket.SocketAccept(a_possyncStop);
    }

    COsSocket possocket;
    char szPort[OS_SOCKETPORTSIZE] = "";
};

// A client and the server side of its connection.
struct SocketPair
{
    explicit SocketPair(uint64_t a_u64ClientWatches = 0)
    {
        EXPECT_EQ(client.SocketConnect(listener.ConnectArgs(a_u64ClientWatches)), EOSSTS_SUCCESS);
        EXPECT_EQ(listener.Accept(server), EOSSTS_SUCCESS);
    }

    Listener listener;
    COsSocket client;
    COsSocket server;
};

inline EOSSTS Send(COsSocket& a_possocket, const std::string& a_strText)
{
    return a_possocket.SocketWrite({.pvBuffer = a_strText.data(), .sizetBuffer = a_strText.size()}, nullptr);
}

struct Received
{
    EOSSTS eossts;
    std::string strText;
};

inline Received Receive(COsSocket& a_possocket, COsSocket::ReadArgs a_readargs = {})
{
    char achBuffer[256];
    size_t sizetRead = 77;
    a_readargs.pvBuffer = achBuffer;
    a_readargs.sizetBuffer = sizeof achBuffer;
    const EOSSTS eossts = a_possocket.SocketRead(a_readargs, &sizetRead);
    return {eossts, std::string(achBuffer, sizetRead)};
}

// A process that runs until it is told to end.
class OtherProcess
{
public:
    OtherProcess()
    {
        PlatProcessStart platprocessstart{};
        platprocessstart.wszProgram = u"/bin/sleep";
        platprocessstart.wszCommandLine = u"/bin/sleep 1000";
        platprocessstart.blInheritStandard = true;
        m_plathandle = PlatProcessCreate(&platprocessstart, &m_u64Id);
        EXPECT_NE(m_plathandle, PLAT_INVALID);
    }
    ~OtherProcess()
    {
        End();
        PlatClose(m_plathandle);
    }
    OtherProcess(const OtherProcess&) = delete;
    OtherProcess& operator=(const OtherProcess&) = delete;

    void End() const { PlatProcessTerminate(m_plathandle, 3); }
    uint64_t Id() const { return m_u64Id; }

private:
    PlatHandle m_plathandle = PLAT_INVALID;
    uint64_t m_u64Id = 0;
};
