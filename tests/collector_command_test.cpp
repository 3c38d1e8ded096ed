// collector_command_test.cpp: the command file, by which other tools reach every collector.
#include "collector_support.h"

#include "os_cosfile.h"
#include "os_coslogcollector.h"
#include "os_cosmem.h"
#include "os_cossocket.h"

#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace fs = std::filesystem;

// What the library flushes in this test: the sizes of the files at that moment.
static std::mutex g_mutexFlushed;
static std::vector<off_t> g_vecoffFlushed;

extern "C" int fsync(int a_iDescriptor)
{
    struct stat status = {};
    fstat(a_iDescriptor, &status);
    const std::lock_guard<std::mutex> guard(g_mutexFlushed);
    g_vecoffFlushed.push_back(status.st_size);
    return static_cast<int>(syscall(SYS_fsync, a_iDescriptor));
}

// ------------------------------------------------------------------------------------------- collectors as programs

// Collectors of one user, as two applications have them, beside the command file that all of them share.
class RunningCollectors : public CollectorTest
{
protected:
    void SetUp() override
    {
        CollectorTest::SetUp();
        ASSERT_TRUE(m_collectorOther.StartFor(ProgramPath("logcollector"), PlatProcessId()));
        ASSERT_TRUE(WaitFor([&] { return fs::exists(m_strFlush); }));
    }

    // Writes the command again and again: what the file holds while a collector begins to watch it is no command.
    bool EndsOn(CollectorProcess& a_collector, const std::string& a_strCommand)
    {
        std::string strPadding;
        return WaitFor([&] {
            WriteWhole(m_strFlush, a_strCommand + strPadding);
            strPadding += ' ';
            return a_collector.WaitForExit(200) == 0;
        });
    }

    CollectorProcess m_collectorOther;
    const std::string m_strFlush = PathOf("system/PROGRAMDATA/mvr_orvane/common/logcollector/flush");
};

TEST_F(RunningCollectors, EndByNameOrAllAtOnceWithAllTextWritten)
{
    const auto stream = StreamTo("log.20240101/a.log", "first");
    ASSERT_TRUE(FileBecomes("log.20240101/a.log", "first"));
    EXPECT_TRUE(EndsOn(m_collectorOther, "<cmd>exit</cmd><lcport>" + std::to_string(m_collectorOther.Port()) +
                                             "</lcport><lcpidapp>" + std::to_string(PlatProcessId()) + "</lcpidapp>"));
    EXPECT_TRUE(stream->Send(" second"));
    ASSERT_TRUE(FileBecomes("log.20240101/a.log", "first second"));

    const uint64_t u64Start = PlatTicks();
    EXPECT_TRUE(EndsOn(m_collector, "<cmd>exitall</cmd>"));
    EXPECT_LT(PlatTicks() - u64Start, 3000u);
    EXPECT_EQ(ReadWhole(PathOf("log.20240101/a.log")), "first second");
}

TEST_F(RunningCollectors, FlushWithoutStallingAStream)
{
    std::vector<std::unique_ptr<StreamClient>> vecclient;
    for (int i = 0; i < 64; ++i)
        vecclient.push_back(StreamTo("log" + std::to_string(i)));
    std::string strText;
    for (int iRound = 0; iRound < 50; ++iRound)
    {
        WriteWhole(m_strFlush, "<cmd>flush</cmd>" + std::string(static_cast<size_t>(iRound), ' '));
        const std::string strLine = "line " + std::to_string(iRound) + "\r\n";
        for (const auto& client : vecclient)
            EXPECT_TRUE(client->Send(strLine));
        strText += strLine;
    }
    for (int i = 0; i < 64; ++i)
        EXPECT_TRUE(FileBecomes("log" + std::to_string(i), strText)) << i;
}

// ---------------------------------------------------------------------------------------- one collector, in this test

// With a command file whose folder is not there yet.
class CommandFile : public FolderTest
{
protected:
    CommandFile() : m_strFlush(PathOf("common/logcollector/flush"))
    {
        m_configuration.SetPath(OS_PATH_WRITEABLE_FILE_LOGCOLLECTORFLUSH, m_strFlush);
        m_configuration.Set(OS_CFGTAG_ROOTCOMMONDIRECTORYLEGACY, m_path.string());
        m_u16Port = m_reservedport.Number();
        setenv("MVR_LOGCOLLECTOR", std::to_string(m_u16Port).c_str(), 1);
        m_collector = std::make_unique<COsLogCollector>(OS_COLLECTORMODE_SHARED, nullptr);
        m_collector->SetApplication(4711);
    }
    ~CommandFile() override
    {
        m_collector.reset();
        OsSocketCleanupStatic();
    }

    void Start()
    {
        ASSERT_EQ(m_collector->Start(nullptr, false), EOSSTS_SUCCESS);
        ASSERT_TRUE(WaitFor([&] { return m_log.HasPart("monitor>>> begin"); }));
        ASSERT_TRUE(WaitFor([&] { return StreamClient(m_u16Port).Send(" "); })) << "it knows its port then";
    }
    // The times that the command file was read.
    size_t Reads() const
    {
        const std::vector<LogCapture::Line> vecline = m_log.Lines();
        return static_cast<size_t>(std::count_if(vecline.begin(), vecline.end(), [&](const LogCapture::Line& line) {
            return line.strText.starts_with("OsFileReadFile(" + m_strFlush + ",") ||
                   line.strText.starts_with("OsFileReadFile(" + Backslashed(m_strFlush) + ",");
        }));
    }
    // Writes a command and waits until it was taken.
    void Command(const std::string& a_strText)
    {
        const size_t sizetReads = Reads();
        WriteWhole(m_strFlush, a_strText);
        ASSERT_TRUE(WaitFor([&] { return Reads() > sizetReads; })) << a_strText.substr(0, 80);
    }
    static std::string Exit(int64_t a_i64Port, int64_t a_i64Application)
    {
        return "<cmd>exit</cmd><lcport>" + std::to_string(a_i64Port) + "</lcport><lcpidapp>" +
               std::to_string(a_i64Application) + "</lcpidapp>";
    }
    void ExpectStop() const
    {
        EXPECT_TRUE(WaitFor([] { return g_bLogCollectorStop.load() != 0; }));
        g_bLogCollectorStop.store(0);
    }

    COsMem m_osmem;
    LogCapture m_log;
    FakeConfiguration m_configuration;
    std::string m_strFlush;
    const ReservedPort m_reservedport;
    uint16_t m_u16Port;
    std::unique_ptr<COsLogCollector> m_collector;
};

TEST_F(CommandFile, IsMadeWhenMissingAndItsOldContentIsIgnored)
{
    Start();
    EXPECT_TRUE(fs::is_regular_file(m_strFlush));
    m_collector->Stop(nullptr, 0);

    WriteWhole(m_strFlush, "<cmd>exitall</cmd>");
    m_log.Clear();
    Start();
    Command("<cmd>flush</cmd>");
    EXPECT_EQ(g_bLogCollectorStop.load(), 0);
    EXPECT_EQ(Reads(), 1u);
    m_collector->Stop(nullptr, 0);
    EXPECT_TRUE(m_log.HasPart("monitor>>> end"));
}

TEST_F(CommandFile, ExitEndsTheNamedCollectorAndWithoutANameAll)
{
    Start();
    for (const std::string& strText :
         {Exit(m_u16Port + 1, 4711), Exit(m_u16Port, 4712), Exit(m_u16Port, 0), Exit(0, 4711),
          "<cmd>exit</cmd><lcport>" + std::to_string(m_u16Port) + "</lcport>",
          std::string("<cmd>flush</cmd><lcport></lcport>"), std::string("<cmd>exitall")})
        Command(strText);
    Command("<cmd>flush</cmd>");
    EXPECT_EQ(g_bLogCollectorStop.load(), 0);

    Command(Exit(m_u16Port, 4711));
    ExpectStop();
    Command("<cmd>EXIT</cmd>");
    ExpectStop();
    Command("<lcport>0</lcport><cmd>exit</cmd>");
    ExpectStop();
    Command(" <cmd>ExitAll</cmd>");
    ExpectStop();
}

TEST_F(CommandFile, WhatIsNoCommandIsIgnored)
{
    Start();
    for (const std::string& strText : {std::string("text"), std::string("<cmd>" + std::string(64, 'x') + "</cmd>"),
                                       std::string("<cmd>exitall</cm"), std::string("\0<cmd>exitall</cmd>", 19)})
        Command(strText);
    fs::resize_file(m_strFlush, 100u << 20);
    ASSERT_TRUE(WaitFor([&] { return Reads() == 5; }));
    Command("");
    fs::remove(m_strFlush);
    ASSERT_TRUE(WaitFor([&] { return m_log.HasPart("monitor>>> GetFileTime failed"); }));
    fs::create_directory(m_strFlush);
    fs::remove(m_strFlush);
    EXPECT_EQ(g_bLogCollectorStop.load(), 0);

    WriteWhole(m_strFlush + ".new", "<cmd>exitall</cmd>");
    fs::rename(m_strFlush + ".new", m_strFlush);
    ExpectStop();
    Command(std::string(70000, 'x') + "<cmd>exitall</cmd>");
    ExpectStop();
}

TEST_F(CommandFile, IsReadOnceFolderAndDescriptorsAreThere)
{
    WriteWhole(PathOf("common"), "in the way of the folder");
    Start();
    fs::remove(PathOf("common"));
    fs::create_directories(fs::path(m_strFlush).parent_path());
    Command("<cmd>exitall</cmd>");
    ExpectStop();

    WriteWhole(PathOf("new"), "<cmd>exitall</cmd>");
    ASSERT_TRUE(WaitFor([&] { return m_log.HasPart("monitor>>> notifications again"); }));
    {
        const NoDescriptors nodescriptors;
        fs::rename(PathOf("new"), m_strFlush);
        PlatSleep(60);
        EXPECT_EQ(g_bLogCollectorStop.load(), 0);
    }
    ExpectStop();
}

// Where our user's tools write, and whatever others make of the common file.
TEST_F(CommandFile, OwnFileCountsButNotALinkOrOneOthersMayWrite)
{
    umask(0);
    fs::create_directory(PathOf("own"));
    m_configuration.SetPath(OS_PATH_WRITEABLE_FOLDER_LOGCOLLECTOR, PathOf("own"));
    const fs::path pathShared = fs::path(m_strFlush).parent_path();
    fs::create_directories(pathShared);
    if (chown(pathShared.c_str(), 61235, 61245) == 0)
    {
        m_collector->Start(nullptr, false);
        EXPECT_FALSE(fs::exists(m_strFlush)) << "it would be his who came first";
        m_collector->Stop(nullptr, 0);
    }
    WriteWhole(m_strFlush, "");
    fs::permissions(m_strFlush, fs::perms(0664));
    m_log.Clear();
    Start();
    Command("<cmd>exitall</cmd>");
    WriteWhole(PathOf("target"), "<cmd>exitall</cmd>");
    fs::permissions(PathOf("target"), fs::perms(0644));
    fs::create_symlink(PathOf("target"), PathOf("link"));
    fs::rename(PathOf("link"), m_strFlush);
    ASSERT_TRUE(WaitFor([&] { return Reads() == 2; }));
    m_strFlush = PathOf("own/flush");
    Command("<cmd>flush</cmd>");
    EXPECT_EQ(g_bLogCollectorStop.load(), 0);
    Command("<cmd>exitall</cmd>");
    ExpectStop();
}

TEST_F(CommandFile, FlushWritesHeldBackTextAndSyncsEachFileOnce)
{
    Start();
    StreamClient first(m_u16Port);
    StreamClient second(m_u16Port);
    StreamClient third(m_u16Port);
    ASSERT_TRUE(first.Send(Header(PathOf("x.log")) + "1\r\n") && third.Send(Header(PathOf("y.log")) + "3\r\n"));
    ASSERT_TRUE(second.Send(Header(PathOf("x.log")) + "22\r\n"));
    ASSERT_TRUE(WaitFor([&] { return SizeOf("x.log") == 7 && SizeOf("y.log") == 3; }));
    ASSERT_TRUE(first.Send("begun"));
    {
        const std::lock_guard<std::mutex> guard(g_mutexFlushed);
        g_vecoffFlushed.clear();
    }
    WriteWhole(m_strFlush, "<cmd>flush</cmd>");
    EXPECT_TRUE(WaitFor([&] {
        const std::lock_guard<std::mutex> guard(g_mutexFlushed);
        return std::ranges::is_permutation(g_vecoffFlushed, std::vector<off_t>{12, 3});
    }));
}

// Streams come and go, write and end, while all files are flushed again and again.
TEST_F(CommandFile, AFlushDisturbsNoStream)
{
    Start();
    std::string strText;
    std::vector<std::unique_ptr<StreamClient>> vecclient;
    vecclient.reserve(16);
    for (int i = 0; i < 16; ++i)
    {
        vecclient.push_back(std::make_unique<StreamClient>(m_u16Port));
        vecclient.back()->Send(Header(PathOf("log" + std::to_string(i))));
    }
    for (int iRound = 0; iRound < 20; ++iRound)
    {
        strText += "line " + std::to_string(iRound) + "\r\n";
        for (const auto& client : vecclient)
            EXPECT_TRUE(client->Send("line " + std::to_string(iRound) + "\r\n"));
        Command(iRound % 2 ? "<cmd>flush</cmd>" : "<cmd>FLUSH</cmd> ");
        StreamClient(m_u16Port).Send(Header(PathOf("log.1/" + std::to_string(iRound) + ".log")) + "text");
    }
    vecclient.clear();
    for (int i = 0; i < 16; ++i)
        EXPECT_TRUE(WaitFor([&] { return ReadWhole(PathOf("log" + std::to_string(i))) == strText; })) << i;
    for (int iRound = 0; iRound < 20; ++iRound)
        EXPECT_TRUE(WaitFor([&] { return ReadWhole(PathOf("log.1/" + std::to_string(iRound) + ".log")) == "text"; }))
            << iRound;
    EXPECT_EQ(g_bLogCollectorStop.load(), 0);
}

TEST_F(CommandFile, ACollectorWithoutOneCollectsAllTheSame)
{
    fs::create_directories(m_strFlush);
    ASSERT_EQ(m_collector->Start(nullptr, false), EOSSTS_SUCCESS);
    EXPECT_TRUE(m_log.HasPart("File not found or not a file"));
    m_collector->Stop(nullptr, 0);

    m_configuration.SetPath(OS_PATH_WRITEABLE_FILE_LOGCOLLECTORFLUSH, "");
    m_log.Clear();
    ASSERT_EQ(m_collector->Start(nullptr, false), EOSSTS_SUCCESS);
    EXPECT_TRUE(WaitFor([&] { return StreamClient(m_u16Port).Send(Header(PathOf("log.1/a.log")) + "text"); }));
    EXPECT_TRUE(WaitFor([&] { return ReadWhole(PathOf("log.1/a.log")) == "text"; }));
    EXPECT_FALSE(m_log.HasPart("monitor"));
}
