// collector_support.h: the real collector program, and clients that speak its protocol byte by byte.
#pragma once

#include "test_support.h"

#include "collector_process.h"

#include "plat_process.h"
#include "plat_socket.h"

#include <memory>
#include <string>

inline std::string ProgramPath(const std::string& a_strName)
{
    return TEST_PROGRAMFOLDER "/" + a_strName;
}

inline std::string Header(const std::string& a_strPath)
{
    return "<log><logfile><![CDATA[" + a_strPath + "]]></logfile></log>";
}

// A port that nobody serves and that the system gives to nobody else. A collector may be told to serve it: both ask to
// use the address again.
class ReservedPort
{
public:
    ReservedPort() : m_plathandle(PlatSocketStartup() ? PlatSocketCreate() : PLAT_INVALID)
    {
        PlatSocketSetOption(m_plathandle, PLAT_SOCKETOPTION_REUSEADDRESS, true);
        EXPECT_TRUE(PlatSocketBind(m_plathandle, &m_plataddress) && PlatSocketName(m_plathandle, &m_plataddress));
    }
    ~ReservedPort() { PlatClose(m_plathandle); }
    ReservedPort(const ReservedPort&) = delete;
    ReservedPort& operator=(const ReservedPort&) = delete;

    uint16_t Number() const { return m_plataddress.u16Port; }

private:
    PlatHandle m_plathandle;
    PlatAddress m_plataddress{{127, 0, 0, 1}, 0};
};

// One log stream.
class StreamClient
{
public:
    explicit StreamClient(uint16_t a_u16Port)
        : m_plathandle(PlatSocketStartup() ? PlatSocketCreate() : PLAT_INVALID), m_event(PlatSocketEventCreate())
    {
        const PlatAddress plataddress{{127, 0, 0, 1}, a_u16Port};
        PlatSocketSetOption(m_plathandle, PLAT_SOCKETOPTION_NODELAY, true);
        PlatSocketConnect(m_plathandle, &plataddress);
        WaitForEvent(PLAT_SOCKET_CONNECT);
    }
    ~StreamClient() { Close(); }
    StreamClient(const StreamClient&) = delete;
    StreamClient& operator=(const StreamClient&) = delete;

    // Sends all of it; false when the collector does not take it any more.
    bool Send(const std::string& a_strText)
    {
        size_t sizetSent = 0;
        while (sizetSent < a_strText.size())
        {
            size_t sizetPiece = 0;
            if (PlatSocketSend(m_plathandle, a_strText.data() + sizetSent, a_strText.size() - sizetSent, &sizetPiece))
                sizetSent += sizetPiece;
            else if (PlatGetLastError() != PLAT_ERROR_WOULDBLOCK || !WaitForEvent(PLAT_SOCKET_WRITE))
                return false;
        }
        return true;
    }

    // True when the collector has read all that was sent, and so knows whose the stream is.
    bool IsRead(uint32_t a_u32Milliseconds = 5000) const
    {
        return WaitFor(
            [this] {
                size_t sizetUnsent = 0;
                PlatSocketOwner platsocketowner{};
                return PlatSocketUnsent(m_plathandle, &sizetUnsent) && sizetUnsent == 0 &&
                       (!PlatSocketPeerOwner(m_plathandle, &platsocketowner) || platsocketowner.u64Unread == 0);
            },
            a_u32Milliseconds);
    }

    // True when the collector has closed the connection.
    bool IsEnded(uint32_t a_u32Milliseconds = 20000) { return WaitForEvent(PLAT_SOCKET_CLOSE, a_u32Milliseconds); }

    // Sends no more, and is there until the collector has closed as well.
    bool EndSending() { return PlatSocketShutdown(m_plathandle, false, true); }

    void Close()
    {
        if (m_plathandle == PLAT_INVALID)
            return;
        PlatClose(m_plathandle);
        PlatClose(m_event);
        m_plathandle = PLAT_INVALID;
    }

private:
    bool WaitForEvent(uint32_t a_u32Mask, uint32_t a_u32Milliseconds = 20000)
    {
        PlatSocketEventSelect(m_plathandle, m_event, a_u32Mask | PLAT_SOCKET_CLOSE);
        return PlatWaitAny(&m_event, 1, a_u32Milliseconds) == 0 &&
               (PlatSocketPoll(m_plathandle, a_u32Mask) & a_u32Mask) != 0;
    }

    PlatHandle m_plathandle;
    PlatHandle m_event;
};

// Starts a collector whose application is this test, with a limit of the shell ("-n 60"). Its port, or 0.
inline uint16_t StartLimited(CollectorProcess& a_collector, const std::string& a_strLimit)
{
    const std::string strScript = "ulimit " + a_strLimit + "; exec '" + ProgramPath("logcollector") +
                                  "' '--xml=<lcpidapp>" + std::to_string(PlatProcessId()) + "</lcpidapp>'";
    if (!a_collector.Start("/bin/sh", {"-c", strScript}))
        return 0;
    const std::string strReply = a_collector.ReadOutput("</lc>");
    const size_t sizetPort = strReply.find("<lcport>");
    return sizetPort == std::string::npos ? uint16_t{0}
                                          : static_cast<uint16_t>(std::stoi(strReply.substr(sizetPort + 8)));
}

// A case with a running collector whose application is this test.
class CollectorTest : public FolderTest
{
protected:
    void SetUp() override { ASSERT_TRUE(m_collector.StartFor(ProgramPath("logcollector"), PlatProcessId())); }

    std::unique_ptr<StreamClient> Connect() { return std::make_unique<StreamClient>(m_collector.Port()); }

    // A stream whose header names the file, or the file's name below the case's folder.
    std::unique_ptr<StreamClient> StreamTo(const std::string& a_strName, const std::string& a_strText = "")
    {
        std::unique_ptr<StreamClient> client = Connect();
        EXPECT_TRUE(client->Send(Header(PathOf(a_strName)) + a_strText));
        client->IsRead();
        return client;
    }

    bool FileBecomes(const std::string& a_strName, const std::string& a_strContent)
    {
        return WaitFor([&] { return ReadWhole(PathOf(a_strName)) == a_strContent; });
    }

    CollectorProcess m_collector;
};
