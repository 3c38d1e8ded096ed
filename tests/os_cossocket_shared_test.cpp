// The shared-memory transport against a creating side in a process of its own, which is also killed at every step.
#include "os_cosmem.h"
#include "os_cossocket_shared_impl.h"
#include "plat_child.h"
#include "ring_support.h"
#include "test_support.h"

#include "plat_file.h"
#include "plat_thread.h"

#include <ctime>
#include <fstream>
#include <iostream>
#include <thread>

// A thread of this process that waits for something.
static bool IsAsleep(uint64_t a_u64ThreadId)
{
    return ReadWhole("/proc/self/task/" + std::to_string(a_u64ThreadId) + "/stat").find(") S ") != std::string::npos;
}

// Holds a channel's lock until the process ends.
static void HoldLock(const std::string& a_strFile)
{
    const PlatHandle plathandle =
        PlatFileOpen(Wide(a_strFile).c_str(), PLAT_ACCESS_READ | PLAT_ACCESS_WRITE,
                     PLAT_SHARE_READ | PLAT_SHARE_WRITE | PLAT_SHARE_DELETE, PLAT_DISPOSITION_OPENEXISTING, 0);
    while (!PlatFileLock(plathandle, 0, 1))
        PlatSleep(0);
}

// The creating side, in the folder and for the process that it is given. It takes orders, each of which it answers with
// a line; what is no order is written into the channel.
int PlayPart(const std::vector<std::string>& a_vecstrArguments)
{
    const COsMem osmem;
    FakeConfiguration cfg;
    cfg.Set(OS_CFGTAG_ROOTCOMMONDIRECTORY, a_vecstrArguments[0]);
    const std::string strIn = a_vecstrArguments[0] + "/r1.socket";
    const std::string strOut = a_vecstrArguments[0] + "/w1.socket";
    CreatedChannel in;
    CreatedChannel out;
    const uint64_t u64Test = std::stoull(a_vecstrArguments[1]);
    if (!in.Create(strIn, false, true) || !out.Create(strOut, true, true) || !in.Watch(u64Test) || !out.Watch(u64Test))
        return 1;
    Say("ready\n");
    std::vector<char> vecch(200000);
    for (std::string strOrder; std::getline(std::cin, strOrder);)
    {
        std::string strAnswer = "done";
        if (strOrder == "echo")
        {
            while (const int32_t i32Read = in.Read(vecch.data(), static_cast<int32_t>(vecch.size())))
                out.Write(vecch.data(), i32Read);
        }
        else if (strOrder == "await")
        {
            strAnswer = in.Await();
        }
        else if (strOrder == "lock")
        {
            HoldLock(strIn);
            HoldLock(strOut);
        }
        else
        {
            out.Write(strOrder.data(), static_cast<int32_t>(strOrder.size()));
        }
        Say(strAnswer + "\n");
    }
    return 0;
}

class SharedSocket : public FolderTest
{
protected:
    void Start()
    {
        m_possocket.SocketDisconnect(false);   // nobody makes a file anew that is in use
        m_part = std::make_unique<Part>(m_path.string() + " " + std::to_string(PlatProcessId()));
        ASSERT_EQ(m_part->OutputUpTo("\n"), "ready\n");
    }
    // While something waits for the peer; the wait is not over before.
    std::jthread KillSoon()
    {
        return std::jthread([this] {
            PlatSleep(100);
            m_part->Kill();
        });
    }
    void Order(const std::string& a_strOrder)
    {
        EXPECT_TRUE(PlatPipeWrite(m_part->m_plathandleInput, (a_strOrder + "\n").data(), a_strOrder.size() + 1));
    }
    std::string Ask(const std::string& a_strOrder)
    {
        Order(a_strOrder);
        return m_part->OutputUpTo("\n");
    }
    EOSSTS Connect(uint64_t a_u64ProcessId = 0, const std::string& a_strPort = "")
    {
        const std::string strPort = a_strPort.empty() ? PathOf("r1.socket") + ";" + PathOf("w1.socket") : a_strPort;
        return m_possocket.SocketConnect(
            {.szHost = "@SHAREDMEMORY", .szPort = strPort.c_str(), .u64ProcessId = a_u64ProcessId});
    }
    std::string Read(uint32_t a_u32Timeout = OS_INFINITE, size_t a_sizetBuffer = 100000)
    {
        std::string strText(a_sizetBuffer, '#');
        size_t sizetRead = 0;
        m_eossts = m_possocket.SocketRead(
            {.pvBuffer = strText.data(), .sizetBuffer = a_sizetBuffer, .u32Timeout = a_u32Timeout}, &sizetRead);
        return strText.substr(0, sizetRead);
    }
    EOSSTS Write(const std::string& a_strText)
    {
        return m_possocket.SocketWrite({.pvBuffer = a_strText.data(), .sizetBuffer = a_strText.size()}, nullptr);
    }

    LogCapture m_logcapture;
    COsMem m_osmem;
    std::unique_ptr<Part> m_part;
    COsSocket m_possocket;
    EOSSTS m_eossts = EOSSTS_SUCCESS;
};

TEST_F(SharedSocket, EveryByteGoesBothWaysInOrder)
{
    Start();
    ASSERT_EQ(Connect(m_part->m_u64ProcessId), EOSSTS_SUCCESS);
    EXPECT_TRUE(m_logcapture.HasPart("  size:    136  new COsRingBuffer"));
    Order("echo");
    RecordStream recordstream(100000);
    constexpr uint64_t OS_BYTES = 30'000'000;
    std::thread writer([&] {
        RecordStream recordstreamWrite(100000);
        for (uint64_t u64Done = 0; u64Done < OS_BYTES;)
        {
            const int32_t i32Length = recordstreamWrite.NextLength();
            Write(std::string(recordstreamWrite.At(u64Done), static_cast<size_t>(i32Length)));
            u64Done += static_cast<uint64_t>(i32Length);
        }
    });
    uint64_t u64Done = 0;
    while (u64Done < OS_BYTES)
    {
        const std::string strPiece = Read(20000, 1 + u64Done % 70000);
        if (strPiece.empty() || !recordstream.Is(strPiece.data(), strPiece.size(), u64Done))
            break;
        u64Done += strPiece.size();
    }
    EXPECT_GE(u64Done, OS_BYTES);
    writer.join();
}

TEST_F(SharedSocket, OneChannelGoesOneWay)
{
    Start();
    ASSERT_EQ(Connect(0, PathOf("w1.socket")), EOSSTS_SUCCESS);
    EXPECT_EQ(Write("x"), EOSSTS_FAIL);
    EXPECT_TRUE(m_logcapture.HasAt(64, "Unsuppported...3"));
    Ask("hello");
    EXPECT_EQ(m_possocket.SocketAccept(nullptr), EOSSTS_SUCCESS);
    EXPECT_EQ(Read(OS_INFINITE, 3), "hel");
    EXPECT_EQ(Read(0), "lo");
    const std::clock_t clockBegin = std::clock();
    EXPECT_EQ(Read(300), "");
    EXPECT_EQ(m_eossts, EOSSTS_TIMEOUT);
    EXPECT_LT(std::clock() - clockBegin, CLOCKS_PER_SEC / 8);   // waiting costs nothing
    m_possocket.SocketDisconnect(false);
    Read();
    EXPECT_EQ(m_eossts, EOSSTS_NOTOPEN);
    EXPECT_TRUE(m_logcapture.HasAt(1, "sock>>> read: must open a socket first..."));
    EXPECT_EQ(m_possocket.SocketAccept(nullptr), EOSSTS_NOTOPEN);

    ASSERT_EQ(Connect(0, PathOf("r1.socket")), EOSSTS_SUCCESS);
    EXPECT_EQ(Connect(0, PathOf("r1.socket")), EOSSTS_FAIL);   // nobody attaches twice
    EXPECT_TRUE(m_logcapture.HasAt(1, "writer process is already in use"));
    EXPECT_TRUE(m_logcapture.HasAt(1, "RingBuffer.Create failed...<1>"));
    EXPECT_EQ(Write("x"), EOSSTS_NOTOPEN);
}

TEST_F(SharedSocket, CancelWakesTheCreatorAndDisconnectThisSide)
{
    Start();
    ASSERT_EQ(Connect(), EOSSTS_SUCCESS);
    EXPECT_EQ(Ask("await"), "r1EventOkToRead\n");   // that there is somebody now
    Order("await");
    m_possocket.SocketCancel();
    EXPECT_EQ(m_part->OutputUpTo("\n"), "r1EventCancel\n");

    std::atomic<uint64_t> u64Reader = 0;
    std::thread reader([&] {
        u64Reader = PlatThreadId();
        Read();
        EXPECT_EQ(m_eossts, EOSSTS_DISCONNECTED);
    });
    std::thread writer([&] { EXPECT_EQ(Write(std::string(1000000, 'x')), EOSSTS_DISCONNECTED); });
    EXPECT_TRUE(
        WaitFor([&] { return IsAsleep(u64Reader) && m_logcapture.HasPart("not enough free space, need to retry"); }));
    m_possocket.SocketDisconnect(false);
    reader.join();
    writer.join();
}

TEST_F(SharedSocket, APeerKilledBeforeTheConnectFailsIt)
{
    Start();
    m_part->Kill();
    EXPECT_EQ(Connect(), EOSSTS_FAIL);   // its files are still there, its events are not
    EXPECT_TRUE(m_logcapture.HasAt(1, "OsSync.EventCreate failed...<257>"));
    EXPECT_EQ(m_osmem.GetCounts().u32Current, 0u);
}

TEST_F(SharedSocket, APeerKilledEndsEveryWaitOnceItsRecordsAreRead)
{
    for (const bool blNamed : {true, false})
    {
        Start();
        ASSERT_EQ(Connect(blNamed ? m_part->m_u64ProcessId : 0), EOSSTS_SUCCESS);
        Ask("last words");
        const std::jthread killer = KillSoon();
        EXPECT_EQ(Read(), "last words");
        EXPECT_EQ(Read(), "");
        EXPECT_EQ(m_eossts, EOSSTS_FAIL);
    }
    EXPECT_EQ(Write(std::string(1000000, 'x')), EOSSTS_FAIL);   // what there was room for is lost with the peer
    EXPECT_EQ(m_possocket.SocketAccept(nullptr), EOSSTS_EXITED);
    EXPECT_TRUE(m_logcapture.HasAt(4, "Accept: EventWait failed...13"));
    EXPECT_TRUE(m_logcapture.HasPart("Accept(sockettype=3,"));
}

TEST_F(SharedSocket, ALockThatStaysTakenIsTriedForATime)
{
    Start();
    ASSERT_EQ(Connect(), EOSSTS_SUCCESS);
    Ask("a record");
    Ask("lock");
    std::thread writer([&] { EXPECT_EQ(Write("x"), EOSSTS_FAIL); });
    EXPECT_EQ(Read(), "");
    EXPECT_EQ(m_eossts, EOSSTS_FAIL);
    writer.join();
    EXPECT_TRUE(m_logcapture.HasAt(1, "Retry 500 for the busy RingBuffer.Read()"));
    EXPECT_TRUE(m_logcapture.HasAt(1, "Retry 500 for the busy RingBuffer.Write()"));

    const std::jthread killer = KillSoon();
    EXPECT_EQ(Write("x"), EOSSTS_SUCCESS);
    EXPECT_EQ(Read(), "a record");

    for (const char* szFile : {"r1.socket", "w1.socket"})
        Overwrite(PathOf(szFile), 0, "\2");
    EXPECT_EQ(Write("x"), EOSSTS_FAIL);
    EXPECT_TRUE(m_logcapture.HasAt(1, "RingBuffer.Write failed..."));
    EXPECT_EQ(Read(), "");
    EXPECT_EQ(m_eossts, EOSSTS_FAIL);
}

TEST_F(SharedSocket, HostAndPortNameTheChannels)
{
    FakeConfiguration cfg;
    cfg.Set(OS_CFGTAG_LOGDIRECTORY, PathOf("logs"));
    const std::string strFolder = PathOf("folder");
    const std::string strNames = "folder\\";
    const struct
    {
        EOSSOCKETTYPE eossockettype;
        std::string strHost;
        std::string strPort;
        std::string strIn;
        std::string strOut;
    } acase[] = {
        {OS_SOCKETTYPE_SHAREDMEMORYW, "@sharedmemory", "a//b/w1", "a\\b\\w1", ""},
        {OS_SOCKETTYPE_SHAREDMEMORYRW, "@SHAREDMEMORY", "/x/r1;/x/w1", "\\x\\w1", "\\x\\r1"},
        {OS_SOCKETTYPE_SHAREDMEMORYRW, "@SHAREDMEMORY", "r1;" + std::string(512, 'w'), "", "r1"},
        {OS_SOCKETTYPE_SHAREDMEMORYRW, strFolder, "r1;w1", "*folder\\w1", "*folder\\r1"},
        {OS_SOCKETTYPE_SHAREDMEMORYRW, strFolder, "r1", "", ""},
        {OS_SOCKETTYPE_SHAREDMEMORYRW, "0", "x",
         "*logs\\socket\\r?????????????????label_pid" + std::to_string(PlatProcessId()) + ".socket",
         "*logs\\socket\\w?????????????????label_pid" + std::to_string(PlatProcessId()) + ".socket"},
    };
    for (const auto& [eossockettype, strHost, strPort, strIn, strOut] : acase)
    {
        SocketChannelNames socketchannelnames;
        OsSocketNameChannels(eossockettype, strHost.c_str(), strPort.c_str(), "label", &socketchannelnames);
        EXPECT_EQ(StrWildcard(socketchannelnames.aszName[3], strIn.c_str(), false), 0) << socketchannelnames.aszName[3];
        EXPECT_EQ(StrWildcard(socketchannelnames.aszName[4], strOut.c_str(), false), 0)
            << socketchannelnames.aszName[4];
    }
    EXPECT_TRUE(std::filesystem::is_directory(strFolder) && std::filesystem::is_directory(PathOf("logs/socket")));
    EXPECT_TRUE(m_logcapture.HasAt(64, "badly constructed name...<r1>"));
    EXPECT_TRUE(m_logcapture.HasAt(64, "buffer overflow...512 <" + std::string(512, 'w') + ">"));

    for (const auto& [szHost, szPort, szTold] : {std::array{"@SHAREDMEMORY", "a/w1;a/r1", "a\\r1;a\\w1"},
                                                 {"@SHAREDMEMORY", "a/w1", "a\\w1"},
                                                 {"@MESSAGEQUEUE", "w1;r1", "r1;w1"},
                                                 {"@SHAREDMEMORY", "far/too/long/to/tell/r", ""}})
    {
        EXPECT_EQ(m_possocket.SocketConnect({.szHost = szHost, .szPort = szPort}), EOSSTS_FAIL);
        char szGotHost[OS_SOCKETHOSTSIZE];
        char szGotPort[OS_SOCKETPORTSIZE];
        EXPECT_EQ(m_possocket.SocketGetInfo(szGotHost, szGotPort), EOSSTS_SUCCESS);
        EXPECT_STREQ(szGotHost, szHost);
        EXPECT_STREQ(szGotPort, szTold);
    }
}
