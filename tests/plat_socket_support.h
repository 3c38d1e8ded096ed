// plat_socket_support.h: sockets that close themselves, and a listener with a client.
#pragma once

#include "plat_socket.h"

#include "plat_support.h"

#include <string>

inline constexpr uint32_t READ = PLAT_SOCKET_READ;
inline constexpr uint32_t WRITE = PLAT_SOCKET_WRITE;
inline constexpr uint32_t ACCEPT = PLAT_SOCKET_ACCEPT;
inline constexpr uint32_t CONNECT = PLAT_SOCKET_CONNECT;
inline constexpr uint32_t CLOSE = PLAT_SOCKET_CLOSE;

class Handle
{
public:
    explicit Handle(PlatHandle a_plathandle) : m_plathandle(a_plathandle) {}
    ~Handle() { Close(); }
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;
    operator PlatHandle() const { return m_plathandle; }
    void Close()
    {
        if (m_plathandle != PLAT_INVALID)
            PlatClose(m_plathandle);
        m_plathandle = PLAT_INVALID;
    }

private:
    PlatHandle m_plathandle;
};

inline bool Sends(PlatHandle a_plathandle, const std::string& a_strText)
{
    size_t sizetSent = 0;
    return PlatSocketSend(a_plathandle, a_strText.data(), a_strText.size(), &sizetSent) &&
           sizetSent == a_strText.size();
}

inline std::string Receive(PlatHandle a_plathandle)
{
    char achText[64];
    size_t sizetRead = 0;
    if (!PlatSocketReceive(a_plathandle, achText, sizeof achText, &sizetRead))
        return "error " + std::to_string(PlatGetLastError());
    return {achText, sizetRead};
}

inline bool Reports(PlatHandle a_plathandle, uint32_t a_u32Mask, uint32_t a_u32Expected)
{
    return WaitFor([&] { return PlatSocketPoll(a_plathandle, a_u32Mask) == a_u32Expected; });
}

class ConnectedSockets : public testing::Test
{
protected:
    ConnectedSockets()
    {
        EXPECT_TRUE(PlatSocketStartup() && PlatAddressFromText("127.0.0.1", &m_plataddress));
        m_plataddress.u16Port = 0;
        EXPECT_TRUE(PlatSocketBind(m_handleListener, &m_plataddress));
        EXPECT_TRUE(PlatSocketName(m_handleListener, &m_plataddress));
        EXPECT_TRUE(PlatSocketListen(m_handleListener, 32));
    }
    ~ConnectedSockets() override { PlatSocketCleanup(); }

    // Connects a client. False for a failure that is not "not yet".
    bool Connect(PlatHandle a_plathandle) const
    {
        return PlatSocketConnect(a_plathandle, &m_plataddress) || PlatGetLastError() == PLAT_ERROR_WOULDBLOCK;
    }
    // And takes it.
    PlatHandle ConnectAndAccept(PlatHandle a_plathandle)
    {
        EXPECT_TRUE(Connect(a_plathandle) && Reports(m_handleListener, ACCEPT | CLOSE, ACCEPT));
        EXPECT_TRUE(Reports(a_plathandle, CONNECT | CLOSE, CONNECT));
        return PlatSocketAccept(m_handleListener, &m_plataddressPeer);
    }

    PlatAddress m_plataddress = {};
    PlatAddress m_plataddressPeer = {};
    Handle m_handleListener{PlatSocketCreate()};
    Handle m_handleClient{PlatSocketCreate()};
};
