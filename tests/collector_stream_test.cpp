// collector_stream_test.cpp: log streams into the real program, and its files byte by byte.
#include "collector_support.h"

#include <atomic>
#include <random>
#include <thread>

using CollectorStream = CollectorTest;

// The collector ends with its last stream: this one keeps it alive.
class CollectorBesideAStream : public CollectorTest
{
protected:
    void SetUp() override
    {
        CollectorTest::SetUp();
        m_beside = StreamTo("beside.log", "0");
        ASSERT_TRUE(FileBecomes("beside.log", "0"));
    }
    void TearDown() override
    {
        EXPECT_TRUE(m_beside->Send("1"));
        EXPECT_TRUE(FileBecomes("beside.log", "01")) << "another stream's trouble was noticed here";
    }

    std::unique_ptr<StreamClient> m_beside;
};

TEST_F(CollectorBesideAStream, PieceWithAnUnclosedHeaderIsNotWritten)
{
    const auto stream = Connect();
    ASSERT_TRUE(stream->Send("<log><logfile>" + PathOf("a.log") + "</logfile>lost"));
    ASSERT_TRUE(WaitFor([&] { return std::filesystem::exists(PathOf("a.log")); }));
    ASSERT_TRUE(stream->Send("</log>kept"));
    EXPECT_TRUE(FileBecomes("a.log", "</log>kept"));
}

TEST_F(CollectorBesideAStream, StreamEndsOnMarkerAloneInARead)
{
    for (const char* szMarker : {"|||EEXXIITT|||", "|||eexxiitt|||"})
    {
        const auto stream = StreamTo("a.log", "text");
        ASSERT_TRUE(FileBecomes("a.log", "text"));
        ASSERT_TRUE(stream->Send(szMarker));
        EXPECT_TRUE(stream->IsEnded());
        EXPECT_EQ(ReadWhole(PathOf("a.log")), "text");
        std::filesystem::remove(PathOf("a.log"));
    }
}

TEST_F(CollectorBesideAStream, MarkerInsideOtherTextIsText)
{
    const std::string strText = "a|||EEXXIITT|||b|||EEXXIITT|||\r\n";
    const auto stream = StreamTo("a.log", "|||EEXXIITT|||");
    ASSERT_TRUE(FileBecomes("a.log", "|||EEXXIITT|||"));
    ASSERT_TRUE(stream->Send(strText));
    EXPECT_TRUE(FileBecomes("a.log", "|||EEXXIITT|||" + strText));
    ASSERT_TRUE(stream->Send(std::string("|||EEXXIITT|||\0", 15)));
    EXPECT_TRUE(FileBecomes("a.log", "|||EEXXIITT|||" + strText + std::string("|||EEXXIITT|||\0", 15)));
}

TEST_F(CollectorBesideAStream, StreamWithoutTextLeavesOnlyAFolder)
{
    const auto stream = StreamTo("sub/deep/a.log");
    ASSERT_TRUE(stream->EndSending() && stream->IsEnded());
    EXPECT_FALSE(std::filesystem::exists(PathOf("sub/deep/a.log")));
    EXPECT_TRUE(std::filesystem::exists(PathOf("sub/deep")));
}

TEST_F(CollectorBesideAStream, AFileThatIsThereIsContinued)
{
    WriteWhole(PathOf("a.log"), "old\r\n");
    const auto stream = StreamTo("a.log", "new\r\n");
    EXPECT_TRUE(FileBecomes("a.log", "old\r\nnew\r\n"));
}

TEST_F(CollectorBesideAStream, PathsMayHaveEitherSeparatorAndADrive)
{
    const auto stream = Connect();
    ASSERT_TRUE(stream->Send(Header("C:/logs//x\\\\y.log") + "text"));
    EXPECT_TRUE(WaitFor(
        [&] { return ReadWhole(m_path / "system" / "MVR_DRIVEROOT" / "c" / "logs" / "x" / "y.log") == "text"; }));
}

// Streams that cannot be served end at once, and nothing else happens.
TEST_F(CollectorBesideAStream, BadHeadersEndTheirStreamAlone)
{
    const std::string strRoom(511 - PathOf("").size(), 'n');
    const std::string astrBad[] = {
        "no header at all\r\n",
        "<log></log>text",
        "<log><logfile></logfile></log>text",
        "<log><logfile>" + PathOf("a.log") + "</log>text",
        "<LOG><LOGFILE>" + PathOf("a.log") + "</LOGFILE></LOG>text",
        "<log><logfile><![CDATA[" + PathOf("a.log") + "</logfile></log>text",
        Header(m_path.string()) + "text",
        Header("/proc/none/a.log") + "text",
        Header(PathOf(strRoom + "n")) + "text",
        Header(PathOf("\xFF\xFE.log")) + "text",
        std::string("\0\1\2\xFF<log>\0", 10),
        std::string(65535, '<'),
        "<log><logfile>" + std::string(70000, 'x') + "</logfile></log>",
    };
    for (const std::string& strBad : astrBad)
    {
        const auto stream = Connect();
        stream->Send(strBad);
        EXPECT_TRUE(stream->IsEnded()) << strBad.substr(0, 80);
    }
    size_t sizetEntries = 0;
    for (const auto& entry : std::filesystem::directory_iterator(m_path))
        sizetEntries += entry.is_regular_file();
    EXPECT_EQ(sizetEntries, 1u) << "only the stream beside has a file";
}

TEST_F(CollectorBesideAStream, ALogPathMayHave511Characters)
{
    std::string strPath = m_path.string();
    while (strPath.size() < 400)
        strPath += "/" + std::string(99, 'd');
    strPath += "/" + std::string(511 - strPath.size() - 1, 'f');
    ASSERT_EQ(strPath.size(), 511u);
    const auto stream = Connect();
    ASSERT_TRUE(stream->Send(Header(strPath) + "text"));
    EXPECT_TRUE(WaitFor([&] { return ReadWhole(strPath) == "text"; }));
}

TEST_F(CollectorBesideAStream, AFullDiskCostsOnlyItsOwnStream)
{
    const auto stream = Connect();
    ASSERT_TRUE(stream->Send(Header("/dev/full") + "lost"));
    ASSERT_TRUE(stream->Send("lost"));
    EXPECT_FALSE(stream->IsEnded(200));
    stream->Close();
    EXPECT_TRUE(std::filesystem::exists("/dev/full"));
}

// What can be opened again and again and never has a name is no file of another stream that has just removed it.
TEST_F(CollectorBesideAStream, UnnamedFileIsStillWritten)
{
    std::fstream file(PathOf("a.log"), std::ios::in | std::ios::out | std::ios::trunc);
    std::filesystem::path pathOpen;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd"))
    {
        std::error_code error;
        if (std::filesystem::read_symlink(entry, error) == PathOf("a.log"))
            pathOpen = "/proc/" + std::to_string(PlatProcessId()) + "/fd/" + entry.path().filename().string();
    }
    std::filesystem::remove(PathOf("a.log"));
    const auto stream = Connect();
    stream->Send(Header(pathOpen.string()) + "text");
    EXPECT_TRUE(WaitFor([&] { return ReadWhole(pathOpen) == "text"; }));
}

TEST_F(CollectorBesideAStream, SilentAndHalfStreamsHoldUpNobody)
{
    std::vector<std::unique_ptr<StreamClient>> vecclient;
    for (int i = 0; i < 20; ++i)
    {
        vecclient.push_back(Connect());
        if (i % 2)
            vecclient.back()->Send("<log><logf");
    }
    StreamTo("log.1/a.log", "text")->Close();
    EXPECT_TRUE(FileBecomes("log.1/a.log", "text"));
}

TEST_F(CollectorStream, TheLastOfThreeStreamsEndsTheCollector)
{
    auto first = StreamTo("1.log", "1");
    auto second = StreamTo("2.log", "2");
    auto third = StreamTo("3.log", "3");
    ASSERT_TRUE(FileBecomes("1.log", "1") && FileBecomes("2.log", "2") && FileBecomes("3.log", "3"));
    first->Close();
    second->Close();
    EXPECT_EQ(m_collector.WaitForExit(1500), PLAT_STILLACTIVE);
    third->Close();
    EXPECT_EQ(m_collector.WaitForExit(5000), 0u);
}

// The stream that ends without text finds the file empty, but another has it open.
TEST_F(CollectorBesideAStream, RemovingAnEmptyFileTakesItFromNobody)
{
    for (int i = 0; i < 50; ++i)
    {
        const std::string strName = "x" + std::to_string(i) + ".log";
        const auto streamStays = StreamTo(strName);
        const auto streamEnds = StreamTo(strName);
        streamEnds->Close();
        ASSERT_TRUE(streamStays->Send("text"));
        ASSERT_TRUE(FileBecomes(strName, "text")) << i;
    }
}

// ------------------------------------------------------------------------------------------------------- volume

static std::string RandomBytes(size_t a_sizetBytes, uint32_t a_u32Seed)
{
    std::mt19937 random(a_u32Seed);
    std::string strBytes(a_sizetBytes, '\0');
    for (char& ch : strBytes)
        ch = static_cast<char>(random() >> 16);
    return strBytes;
}

// Clients that send and close: the collector finds some of them gone.
TEST_F(CollectorStream, SixtyFourStreamsOfRandomBytesKeepEveryByte)
{
    constexpr uint32_t u32Streams = 64;
    constexpr size_t sizetBytes = 2 * 1024 * 1024;
    const auto keep = Connect();
    std::vector<std::thread> vecthread;
    for (uint32_t u32 = 0; u32 < u32Streams; ++u32)
    {
        vecthread.emplace_back([this, u32] {
            const auto stream = StreamTo("log.1/" + std::to_string(u32) + ".log");
            EXPECT_TRUE(stream->Send(RandomBytes(sizetBytes, u32)));
        });
    }
    for (std::thread& thread : vecthread)
        thread.join();
    for (uint32_t u32 = 0; u32 < u32Streams; ++u32)
    {
        const std::string strName = "log.1/" + std::to_string(u32) + ".log";
        ASSERT_TRUE(WaitFor([&] { return SizeOf(strName) == sizetBytes; }));
        EXPECT_TRUE(ReadWhole(PathOf(strName)) == RandomBytes(sizetBytes, u32)) << u32;
    }
}

TEST_F(CollectorStream, TwoHundredThousandShortLinesArriveInOrder)
{
    constexpr int iStreams = 4;
    constexpr int iLines = 50000;
    const auto line = [](int a_iLine) { return std::to_string(a_iLine) + " short line\r\n"; };
    const auto keep = Connect();
    std::vector<std::thread> vecthread;
    for (int iStream = 0; iStream < iStreams; ++iStream)
    {
        vecthread.emplace_back([&, iStream] {
            const auto stream = StreamTo("log.1/" + std::to_string(iStream) + ".log");
            for (int i = 0; i < iLines; ++i)
                ASSERT_TRUE(stream->Send(line(i)));
        });
    }
    for (std::thread& thread : vecthread)
        thread.join();
    keep->Close();
    EXPECT_EQ(m_collector.WaitForExit(30000), 0u);
    std::string strExpected;
    for (int i = 0; i < iLines; ++i)
        strExpected += line(i);
    for (int iStream = 0; iStream < iStreams; ++iStream)
        EXPECT_TRUE(ReadWhole(PathOf("log.1/" + std::to_string(iStream) + ".log")) == strExpected) << iStream;
}

TEST_F(CollectorBesideAStream, FortySuccessiveStreamsKeepEveryByte)
{
    for (int i = 0; i < 40; ++i)
        StreamTo("log.1/" + std::to_string(i) + ".log", "text " + std::to_string(i))->Close();
    for (int i = 0; i < 40; ++i)
        EXPECT_TRUE(FileBecomes("log.1/" + std::to_string(i) + ".log", "text " + std::to_string(i)));
}

// A reader may be through before the accept thread is through with starting it, and others sweep meanwhile.
TEST_F(CollectorBesideAStream, ShortConnectionsDisturbNoStream)
{
    std::vector<std::thread> vecthread;
    for (int i = 0; i < 8; ++i)
    {
        vecthread.emplace_back([this] {
            for (int iConnection = 0; iConnection < 150; ++iConnection)
            {
                const auto stream = Connect();
                stream->Send("x");
                EXPECT_TRUE(stream->IsEnded());
            }
        });
    }
    for (std::thread& thread : vecthread)
        thread.join();
    StreamTo("log.1/a.log", "text")->Close();
    EXPECT_TRUE(FileBecomes("log.1/a.log", "text"));
}

// ------------------------------------------------------------------------------------------------------- faults

// Of the collector, which runs.
static size_t OpenDescriptors(const CollectorProcess& a_collector)
{
    const std::filesystem::directory_iterator directory("/proc/" + std::to_string(a_collector.ProcessId()) + "/fd");
    return static_cast<size_t>(std::distance(begin(directory), end(directory)));
}

TEST_F(CollectorStream, AWantOfDescriptorsEndsNoIntake)
{
    static constexpr size_t g_sizetOfAConnection = 12;   // descriptors, at most
    for (const size_t sizetLimit : {64u, 100u, 101u, 102u, 103u, 104u, 105u, 106u})
    {
        CollectorProcess collector;
        const uint16_t u16Port = StartLimited(collector, "-n " + std::to_string(sizetLimit));
        const std::string strFirst = std::to_string(sizetLimit) + "first.log";
        StreamClient first(u16Port);
        ASSERT_TRUE(first.Send(Header(PathOf(strFirst)) + "one"));
        ASSERT_TRUE(FileBecomes(strFirst, "one"));

        std::vector<std::unique_ptr<StreamClient>> vecclient;
        for (int i = 0; i < 36; ++i)   // more do not fit into the queue of the listener
        {
            vecclient.push_back(std::make_unique<StreamClient>(u16Port));
            vecclient.back()->Send(Header(PathOf(std::to_string(i) + ".log")) + "text");
        }
        EXPECT_TRUE(WaitFor([&] { return OpenDescriptors(collector) + g_sizetOfAConnection > sizetLimit; }));
        vecclient.clear();

        StreamClient second(u16Port);
        second.Send(Header(PathOf(std::to_string(sizetLimit) + "second.log")) + "text");
        EXPECT_TRUE(FileBecomes(std::to_string(sizetLimit) + "second.log", "text")) << sizetLimit;
        ASSERT_TRUE(first.Send("two"));
        EXPECT_TRUE(FileBecomes(strFirst, "onetwo"));
    }
}
