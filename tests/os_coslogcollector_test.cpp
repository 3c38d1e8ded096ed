// os_coslogcollector_test.cpp: the collector object through its public name, with its log and its configuration.
#include "collector_support.h"

#include "os_cfg.h"
#include "os_cosfile.h"
#include "os_coslogcollector.h"
#include "os_coslogcollector_protocol.h"
#include "os_coslogfolder.h"
#include "os_cosmem.h"
#include "os_cossocket.h"

#include <atomic>
#include <cstdlib>
#include <net/if.h>
#include <sched.h>
#include <stdexcept>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

// The appends of the library in this test, and those of them that end inside a line.
static std::atomic<int> g_iAppends{0};
static std::atomic<int> g_iPartial{0};

extern "C" ssize_t pwritev2(int a_iDescriptor, const iovec* a_piovec, int a_iCount, off_t a_off, int a_iFlags)
{
    ++g_iAppends;
    g_iPartial += static_cast<const char*>(a_piovec->iov_base)[a_piovec->iov_len - 1] != '\n';
    return syscall(SYS_pwritev2, a_iDescriptor, a_piovec, a_iCount, a_off, 0L, a_iFlags);
}

// A shared collector inside this test, at a port that it was given.
class SharedCollector : public FolderTest
{
protected:
    SharedCollector() : m_u16Port(m_reservedport.Number())
    {
        m_configuration.Set(OS_CFGTAG_ROOTCOMMONDIRECTORYLEGACY, m_path.string());
        setenv("MVR_LOGCOLLECTOR", std::to_string(m_u16Port).c_str(), 1);
        m_collector = std::make_unique<COsLogCollector>(OS_COLLECTORMODE_SHARED, nullptr);
    }
    ~SharedCollector() override
    {
        m_collector.reset();
        OsSocketCleanupStatic();
    }

    void StartAndAnnounce()
    {
        ASSERT_EQ(m_collector->Start(nullptr, true), EOSSTS_SUCCESS);
        ASSERT_TRUE(WaitFor([&] { return ReadWhole(PathOf("logcollector.txt")) == Announcement(); }));
    }
    std::string Announcement() const
    {
        return " <log><ip>127.0.0.1</ip><port>" + std::to_string(m_u16Port) + "</port><log>";
    }
    bool AnnouncementIsLocked() const
    {
        COsFile osfile;
        return osfile.Open(PathOf("logcollector.txt").c_str(), OS_FILEOPEN_EXISTING, OS_FILEACCESS_READWRITE,
                           OS_FILESHARE_READWRITE) == EOSSTS_SUCCESS &&
               osfile.Lock(0, 1, 0, nullptr, false, true) == EOSSTS_BUSY;
    }
    // The announcement is written a moment before the listener listens.
    std::unique_ptr<StreamClient> Connect(const std::string& a_strText)
    {
        std::unique_ptr<StreamClient> client;
        EXPECT_TRUE(WaitFor([&] {
            client = std::make_unique<StreamClient>(m_u16Port);
            return client->Send(a_strText);
        }));
        return client;
    }

    COsMem m_osmem;
    LogCapture m_log;
    FakeConfiguration m_configuration;
    const ReservedPort m_reservedport;
    uint16_t m_u16Port;
    std::unique_ptr<COsLogCollector> m_collector;
};

TEST_F(SharedCollector, AnnouncesItselfForItsLifeAndOnlyOnce)
{
    StartAndAnnounce();
    EXPECT_EQ(m_collector->Start(nullptr, true), EOSSTS_SUCCESS) << "again is harmless";

    EXPECT_TRUE(AnnouncementIsLocked()) << "who reads the text finds the lock";
    COsLogCollector other(OS_COLLECTORMODE_SHARED, nullptr);
    EXPECT_EQ(other.Start(nullptr, true), EOSSTS_BUSY);
    m_collector->Stop(nullptr, 0);
    EXPECT_FALSE(std::filesystem::exists(PathOf("logcollector.txt")));
}

TEST_F(SharedCollector, AStaleAnnouncementIsReplaced)
{
    WriteWhole(PathOf("logcollector.txt"), "stale, and longer than any announcement that a collector writes into it");
    StartAndAnnounce();
}

TEST_F(SharedCollector, AnotherUsersAnnouncementIsNotUsed)
{
    const std::string strPath = PathOf("logcollector.txt");
    WriteWhole(strPath, "another's");
    if (chown(strPath.c_str(), 61235, 61245) != 0)
        GTEST_SKIP() << "only root can give a file away";
    COsFile osfile;
    ASSERT_EQ(osfile.Open(strPath.c_str(), OS_FILEOPEN_EXISTING, OS_FILEACCESS_READWRITE, OS_FILESHARE_READWRITE),
              EOSSTS_SUCCESS);
    ASSERT_EQ(osfile.LockByte(0, 0, "test", false), EOSSTS_SUCCESS);
    EXPECT_EQ(m_collector->Start(nullptr, true), EOSSTS_SUCCESS) << "no shared collector runs";
    EXPECT_TRUE(WaitFor([&] { return m_log.HasPart("announcement of another user is in the way"); }));
    m_collector->Stop(nullptr, 0);
    EXPECT_EQ(ReadWhole(strPath), "another's");
    osfile.Close();
    StartAndAnnounce();
}

// A network of this case alone, with a loopback interface: there any port is its own.
static bool HasOwnNetwork()
{
    const std::string strUser = std::to_string(geteuid());
    if (unshare((geteuid() == 0 ? 0 : CLONE_NEWUSER) | CLONE_NEWNET) != 0)
        return false;
    if (strUser != "0")   // its files stay this user's
        WriteWhole("/proc/self/uid_map", strUser + " " + strUser + " 1");
    ifreq request{};
    request.ifr_name[0] = 'l';
    request.ifr_name[1] = 'o';
    request.ifr_flags = IFF_UP;
    const int iSocket = socket(AF_INET, SOCK_DGRAM, 0);
    const bool blUp = ioctl(iSocket, SIOCSIFFLAGS, &request) == 0;
    close(iSocket);
    return blUp;
}

TEST_F(SharedCollector, PortsBelowThoseOfUsersGiveTheDefault)
{
    if (!HasOwnNetwork())
        GTEST_SKIP() << "the default port may be somebody's, and no network of its own is allowed here";
    setenv("MVR_LOGCOLLECTOR", "1024", 1);
    m_u16Port = 41114;
    m_collector = std::make_unique<COsLogCollector>(OS_COLLECTORMODE_SHARED, nullptr);
    StartAndAnnounce();
}

TEST_F(SharedCollector, ItsStreamsNeverAskItToEnd)
{
    StartAndAnnounce();
    Connect(Header(PathOf("log.1/a.log")) + "text")->Close();
    ASSERT_TRUE(WaitFor([&] { return ReadWhole(PathOf("log.1/a.log")) == "text"; }));
    Connect(Header(PathOf("log.1/b.log")) + "text")->Close();
    ASSERT_TRUE(WaitFor([&] { return ReadWhole(PathOf("log.1/b.log")) == "text"; }));
    m_collector->Stop(nullptr, 0);
    EXPECT_EQ(g_bLogCollectorStop.load(), 0);
}

TEST_F(SharedCollector, StopEndsLiveStreamsAndTellsTheirFolderOnce)
{
    StartAndAnnounce();
    const std::string strFolder = PathOf("log.20240101");
    const auto stream = Connect(Header(strFolder + "/sub/a.log") + "text");
    const auto streamEmpty = Connect(Header(strFolder + "/sub/empty.log"));
    const auto streamSilent = Connect(" ");
    ASSERT_TRUE(WaitFor([&] {
        return ReadWhole(strFolder + "/sub/a.log") == "text" && std::filesystem::exists(strFolder + "/sub/empty.log");
    }));

    char szFolder[OS_PATHSIZE];
    const uint64_t u64Start = PlatTicks();
    m_collector->Stop(szFolder, sizeof szFolder);
    EXPECT_LT(PlatTicks() - u64Start, 5000u);
    EXPECT_EQ(szFolder, Backslashed(strFolder));
    EXPECT_FALSE(std::filesystem::exists(strFolder + "/log.lock")) << "it could not be removed if it were empty";
    EXPECT_TRUE(stream->IsEnded());
    EXPECT_FALSE(std::filesystem::exists(strFolder + "/sub/empty.log"));
    m_collector->Stop(szFolder, sizeof szFolder);
    EXPECT_EQ(szFolder, Backslashed(strFolder)) << "a second run only reports";
}

TEST_F(SharedCollector, TheFirstLogFolderIsManagedOnce)
{
    StartAndAnnounce();
    const auto none = Connect(Header(PathOf("plain/a.log")) + "1");
    const auto first = Connect(Header(PathOf("log.20240101/deep/a.log")) + "2");
    ASSERT_TRUE(WaitFor([&] { return !m_configuration.Managed().empty(); }));
    const auto second = Connect(Header(PathOf("log.20240202/a.log")) + "3");
    ASSERT_TRUE(WaitFor([&] { return ReadWhole(PathOf("log.20240202/a.log")) == "3"; }));
    EXPECT_EQ(m_configuration.Managed(), std::vector<std::string>{Backslashed(PathOf("log.20240101"))});

    std::make_unique<COsLogCollector>(OS_COLLECTORMODE_SHAREDCLIENT, "a.log").reset();
    EXPECT_EQ(g_bLogCollectorStopping.load(), 0) << "a client that ends stops no collector";
}

TEST_F(SharedCollector, FolderHeldByAProcessIsPrunedByThatProcess)
{
    StartAndAnnounce();
    const std::string strFolder = PathOf("log.20240101");
    std::filesystem::create_directory(strFolder);
    COsLogFolderLock oslogfolderlock;
    ASSERT_EQ(oslogfolderlock.Acquire(strFolder.c_str()), EOSSTS_SUCCESS);
    const auto first = Connect(Header(strFolder + "/a.log") + "1");
    ASSERT_TRUE(WaitFor([&] { return ReadWhole(strFolder + "/a.log") == "1"; }));
    m_collector->Stop(nullptr, 0);
    EXPECT_TRUE(m_configuration.Managed().empty());
}

// Who deletes a folder holds its lock file alone. The stream goes on all the same, and holds the folder once it can.
TEST_F(SharedCollector, HoldsAFolderAsLongAsAStreamGoesThere)
{
    StartAndAnnounce();
    const std::string strFolder = PathOf("log.20240101");
    const auto isHeld = [&] { return COsLogFolderLock::IsHeldByOthers(strFolder.c_str()); };
    std::filesystem::create_directory(strFolder);
    COsFile osfile;
    ASSERT_EQ(osfile.Open((strFolder + "/log.lock").c_str(), OS_FILEOPEN_TEMPORARY, OS_FILEACCESS_READWRITE,
                          OS_FILESHARE_EXCLUSIVE),
              EOSSTS_SUCCESS);
    const auto first = Connect(Header(strFolder + "/a.log") + "1\r\n");
    const auto second = Connect(Header(strFolder + "/b.log") + "1\r\n");
    ASSERT_TRUE(WaitFor([&] { return SizeOf("log.20240101/a.log") == 3 && SizeOf("log.20240101/b.log") == 3; }));
    osfile.Close();
    ASSERT_TRUE(WaitFor([&] { return first->Send("2\r\n") && isHeld(); }));
    ASSERT_TRUE(first->EndSending() && first->IsEnded());
    EXPECT_TRUE(isHeld());
    ASSERT_TRUE(second->EndSending() && second->IsEnded());
    EXPECT_FALSE(isHeld());
}

TEST_F(SharedCollector, SlowPruningDelaysNoStream)
{
    StartAndAnnounce();
    m_configuration.m_blManagesOn = true;
    const auto first = Connect(Header(PathOf("log.20240101/a.log")) + "1");
    ASSERT_TRUE(WaitFor([&] { return !m_configuration.Managed().empty(); }));
    ASSERT_TRUE(first->Send("|||EEXXIITT|||") && first->IsEnded());
    for (const char* szName : {"log.1/b.log", "log.1/c.log", "log.1/d.log"})
    {
        Connect(Header(PathOf(szName)) + "2")->Close();
        EXPECT_TRUE(WaitFor([&] { return ReadWhole(PathOf(szName)) == "2"; }, 5000));
    }
    m_configuration.m_blManagesOn = false;
    EXPECT_TRUE(WaitFor([&] { return m_configuration.m_uManaged == 1; }, 5000)) << "nobody ended that by force";
}

TEST_F(SharedCollector, WhatEndsAStreamIsLogged)
{
    StartAndAnnounce();
    Connect("<log></log>")->IsEnded();
    EXPECT_TRUE(
        WaitFor([&] { return m_log.HasAt(OS_LOG_NOTE, "CreateFileW failed...257 0xc0000000 0x3 0x4 0x80 <>"); }));
    Connect(Header(m_path.string()))->IsEnded();
    EXPECT_TRUE(WaitFor([&] {
        return m_log.HasAt(OS_LOG_NOTE, "CreateFileW failed...258 0xc0000000 0x3 0x4 0x80 <" + m_path.string() + ">");
    }));
    const std::string strLong = Header(std::string(512, 'x'));
    Connect(strLong)->IsEnded();
    EXPECT_TRUE(WaitFor([&] { return m_log.HasAt(OS_LOG_CHECK, "data overflow: <logfile> " + strLong); }));
}

// A log that holds up the readers where they begin to read, until they are cancelled.
class UnreadStreams final : public COsLogSink
{
public:
    UnreadStreams() : m_poslogsink(g_poslogsink.exchange(this)) {}
    ~UnreadStreams() { g_poslogsink.store(m_poslogsink); }

    void VPrintf(const char*, uint32_t, uint32_t, const char* a_szFormat, va_list) override
    {
        const std::string_view svFormat = a_szFormat;
        if (svFormat == "warning, waiting for a read to be canceled...")
            m_blCancelled = true;
        if (svFormat.starts_with(">>> socket Select(read"))
            WaitFor([this] { return m_blCancelled.load(); });
    }
    uint32_t WorkingWord() const override { return 0; }

private:
    COsLogSink* const m_poslogsink;
    std::atomic<bool> m_blCancelled{false};
};

TEST_F(SharedCollector, StopWritesWhatHasArrived)
{
    StartAndAnnounce();
    const UnreadStreams unreadstreams;
    const std::string strText(200000, 'x');
    const auto stream = Connect(Header(PathOf("a.log")) + strText);
    m_collector->Stop(nullptr, 0);
    EXPECT_TRUE(stream->IsEnded());
    EXPECT_TRUE(ReadWhole(PathOf("a.log")) == strText);
}

// A log that holds up each reader at its start until the collector is stopping, and then sees what readers free.
class LateReaders final : public COsLogSink
{
public:
    LateReaders() : m_poslogsink(g_poslogsink.exchange(this)) {}
    ~LateReaders() { g_poslogsink.store(m_poslogsink); }

    void VPrintf(const char*, uint32_t, uint32_t, const char* a_szFormat, va_list a_valist) override
    {
        thread_local bool s_blReader = false;
        char szText[1024];
        OsFormat(szText, sizeof szText, a_szFormat, a_valist);
        const std::string_view svText = szText;
        if (svText == "thr>>> new thread starting...")
        {
            s_blReader = true;
            m_blHeld = true;
            WaitFor([] { return g_bLogCollectorStopping.load() != 0; });
        }
        if (s_blReader && svText.ends_with("delete-object"))
            m_blFreed = true;
    }
    uint32_t WorkingWord() const override { return OS_LOG_NOTE; }

    std::atomic<bool> m_blHeld{false};
    std::atomic<bool> m_blFreed{false};

private:
    COsLogSink* const m_poslogsink;
};

TEST_F(SharedCollector, AStopLeavesFinishedConnectionsToNobodyElse)
{
    StartAndAnnounce();
    Connect("x")->IsEnded();
    const LateReaders latereaders;
    const auto late = Connect("");
    ASSERT_TRUE(WaitFor([&] { return latereaders.m_blHeld.load(); }));
    m_collector->Stop(nullptr, 0);
    EXPECT_FALSE(latereaders.m_blFreed);
}

// Beside which another process may append its own.
TEST_F(SharedCollector, EachLineOfTwoStreamsIsOneAppend)
{
    StartAndAnnounce();
    const auto first = Connect(Header(PathOf("a.log")) + "1\r\n");
    ASSERT_TRUE(WaitFor([&] { return SizeOf("a.log") == 3; }));
    const auto second = Connect(Header(PathOf("a.log")) + "2\r\n");
    ASSERT_TRUE(WaitFor([&] { return SizeOf("a.log") == 6; }));
    std::string strText;
    for (int i = 0; i < 500; ++i)
        strText += "a line of some length\r\n";
    const uint64_t u64Begin = PlatTicks();
    for (size_t sizetSent = 0; sizetSent < strText.size(); sizetSent += 37)
        ASSERT_TRUE(first->Send(strText.substr(sizetSent, 37)));
    ASSERT_TRUE(WaitFor([&] { return SizeOf("a.log") == 6 + strText.size(); }));
    const bool blTooBusy = PlatTicks() - u64Begin >= 200;   // a begun line is written then
    EXPECT_TRUE(g_iPartial == 0 || blTooBusy) << g_iPartial << " of " << g_iAppends;
}

// Connections come and go while the collector is stopped: nothing hangs, nothing is freed under a reader.
TEST_F(SharedCollector, StopMayComeAtAnyMoment)
{
    for (int i = 0; i < 8; ++i)
    {
        StartAndAnnounce();
        std::atomic<bool> blStop{false};
        std::thread thread([&] {
            while (!blStop.load())
                StreamClient(m_u16Port).Send(Header(PathOf("x.log")) + "text");
        });
        PlatSleep(static_cast<uint32_t>(i));
        const uint64_t u64Start = PlatTicks();
        m_collector = std::make_unique<COsLogCollector>(OS_COLLECTORMODE_SHARED, nullptr);
        EXPECT_LT(PlatTicks() - u64Start, 10000u);
        blStop.store(true);
        thread.join();
    }
}

TEST(LogCollectorObject, AnUnknownRoleIsRefused)
{
    EXPECT_THROW(COsLogCollector(static_cast<CollectorMode>(5), nullptr), std::invalid_argument);
    EXPECT_THROW(COsLogCollector(static_cast<CollectorMode>(0), "a.log"), std::invalid_argument);
    EXPECT_EQ(OsLogGetState(), 0);
}

TEST(LogCollectorObject, NothingStartsInTheServicesSession)
{
    setenv("MVR_SESSION", "0", 1);
    const LogCapture log;
    COsLogCollector oslogcollector(OS_COLLECTORMODE_PRIVATE, nullptr);
    EXPECT_EQ(oslogcollector.Start(nullptr, false), EOSSTS_FAIL);
    EXPECT_FALSE(log.HasPart("COsLnkImpl"));
}

TEST(LogCollectorProtocol, MessagesAreBuiltAndReadToTheLetter)
{
    char szText[256];
    ASSERT_EQ(OsLcBuildStartArgument(szText, sizeof szText, 4711), EOSSTS_SUCCESS);
    EXPECT_STREQ(szText, "--xmlb64=PGxjPjxsY3BpZGFwcD40NzExPC9sY3BpZGFwcD48L2xjPg==");
    EXPECT_EQ(OsLcBuildStartArgument(szText, 20, 4711), EOSSTS_FAIL);

    char szPort[OS_LC_PORTSIZE];
    uint64_t u64ProcessId = 0;
    EXPECT_EQ(OsLcReadStartReply("<lc><lcport>1</lcport><lcpidlc>2</lcpidlc></l", szPort, &u64ProcessId), EOSSTS_BUSY);
    EXPECT_EQ(OsLcReadStartReply(OsLcStartRefusal(), szPort, &u64ProcessId), EOSSTS_ACCESSDENIED);
    EXPECT_EQ(OsLcReadStartReply("<lc><lcport>1</lcport></lc>", szPort, &u64ProcessId), EOSSTS_FAIL);
    EXPECT_EQ(OsLcReadStartReply("<lc><lcport>1</lcport><lcpidlc>2</lcpidlc></lc>", szPort, &u64ProcessId),
              EOSSTS_SUCCESS);
    EXPECT_STREQ(szPort, "1");
    EXPECT_EQ(u64ProcessId, 2u);

    EXPECT_EQ(OsLcReadCommand("<cmd>FLUSH</cmd>").eoslccommand, OS_LCCOMMAND_FLUSH);
    EXPECT_EQ(OsLcReadCommand("<CMD>flush</CMD>").eoslccommand, OS_LCCOMMAND_NONE);
    EXPECT_EQ(OsLcReadCommand("<cmd>exitall</cmd>").eoslccommand, OS_LCCOMMAND_EXITALL);
    const OsLcCommand oslccommand = OsLcReadCommand("<lcpidapp>7</lcpidapp><cmd>Exit</cmd><lcport>8</lcport>");
    EXPECT_EQ(oslccommand.eoslccommand, OS_LCCOMMAND_EXIT);
    EXPECT_EQ(oslccommand.i32Port, 8);
    EXPECT_EQ(oslccommand.i64ProcessIdApplication, 7);

    char szHost[OS_LC_HOSTSIZE];
    ASSERT_EQ(OsLcBuildAnnouncement(szText, sizeof szText, "127.0.0.1", "41114"), EOSSTS_SUCCESS);
    EXPECT_STREQ(szText, " <log><ip>127.0.0.1</ip><port>41114</port><log>");
    EXPECT_TRUE(OsLcReadAnnouncement(szText, szHost, szPort));
    EXPECT_FALSE(OsLcReadAnnouncement("<ip>127.0.0.1</ip><port>1234567890123456</port>", szHost, szPort));
}
