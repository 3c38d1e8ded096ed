// logcollector_test.cpp: the program from outside: its command line, its start reply, its life beside an application.
#include "collector_support.h"

static std::string LivingDocument()
{
    return "<lc><lcpidapp>" + std::to_string(PlatProcessId()) + "</lcpidapp></lc>";
}

class CollectorProgram : public FolderTest
{
protected:
    // Runs it to its end with nothing to collect: it must end by itself, with 0 and without a word.
    void ExpectNothingDone(const std::vector<std::string>& a_vecstrArgument)
    {
        CollectorProcess collector;
        ASSERT_TRUE(collector.Start(ProgramPath("logcollector"), a_vecstrArgument));
        EXPECT_EQ(collector.WaitForExit(4000), 0u) << testing::PrintToString(a_vecstrArgument);
        EXPECT_EQ(collector.ReadOutput("</lc>"), "");
    }

    // Runs it until it has a port.
    void ExpectCollecting(const std::vector<std::string>& a_vecstrArgument)
    {
        CollectorProcess collector;
        ASSERT_TRUE(collector.Start(ProgramPath("logcollector"), a_vecstrArgument));
        EXPECT_NE(collector.ReadOutput("</lc>").find("<lcport>"), std::string::npos)
            << testing::PrintToString(a_vecstrArgument);
    }
};

TEST_F(CollectorProgram, WithoutALivingApplicationDoesNothing)
{
    const std::string strId = std::to_string(PlatProcessId());
    ExpectCollecting({"--xml=<x/><lcpidapp><![CDATA[" + strId + "]]></lcpidapp>"});
    ExpectCollecting({"--xml=<lcpidapp>" + std::string(63 - strId.size(), '0') + strId + "</lcpidapp>"});
    ExpectNothingDone({"--xml=<lcpidapp>" + std::string(64 - strId.size(), '0') + strId + "</lcpidapp>"});
    const std::string strLong = LivingDocument() + std::string(2048 - LivingDocument().size(), 'x');
    ExpectNothingDone({});
    ExpectNothingDone({"unknown", "-xml=" + LivingDocument()});
    ExpectNothingDone({"--xml="});
    ExpectNothingDone({"--xml=<lc></lc>"});
    ExpectNothingDone({"--xml=<lc><lcpidapp>0</lcpidapp></lc>"});
    ExpectNothingDone({"--xml=" + strLong});
    ExpectNothingDone({"--xmlb64=!!!!"});
    ExpectNothingDone({"--xmlb64=PGxjPg"});
    ExpectNothingDone({"--xmlb64=" + std::string(4096, 'A')});
}

TEST_F(CollectorProgram, TheLastArgumentThatChoosesAModeWins)
{
    ExpectNothingDone({"--clean"});
    ExpectNothingDone({"--cleanup", "--hourstokeep=abc", "--subfolder=" + std::string(64, 's')});
    ExpectNothingDone({"--xml=" + LivingDocument(), "--clean"});
    ExpectCollecting({"--clean", "--xml=" + LivingDocument()});
}

// Its own log is off unless it is asked for; its log folder is there while it runs.
TEST_F(CollectorProgram, LogsItselfIntoItsOwnFolderWhenAsked)
{
    const std::filesystem::path path = m_path / "system/LOCALAPPDATA/mvr_orvane/logcollector/logcollector";
    const auto logs = [&path] {
        std::vector<std::filesystem::path> vecpath;
        for (const auto& entry : std::filesystem::recursive_directory_iterator(path))
        {
            if (entry.path().extension() == ".log")
                vecpath.push_back(entry.path());
        }
        return vecpath;
    };
    ExpectNothingDone({});
    EXPECT_TRUE(std::filesystem::is_empty(path));

    setenv("MVR_LOGCOLLECTORDEBUG", "0", 1);
    ExpectNothingDone({});
    ASSERT_EQ(logs().size(), 1u);
    EXPECT_EQ(logs()[0].filename(), "logcollector.log");
    EXPECT_EQ(logs()[0].parent_path().filename().string().size(), sizeof "log." - 1 + 20);
    const std::string strLog = ReadWhole(logs()[0].string());
    EXPECT_NE(strLog.find("logcollector=false\r\n"), std::string::npos);
    EXPECT_NE(strLog.find("Program is...<" + Backslashed(ProgramPath("logcollector")) + ">\r\n"), std::string::npos);
    EXPECT_EQ(strLog.substr(strLog.size() - 2), "\r\n");
}

TEST_F(CollectorProgram, TheStartReplyIsExactAndTheOnlyOutput)
{
    CollectorProcess collector;
    ASSERT_TRUE(collector.StartFor(ProgramPath("logcollector"), PlatProcessId()));
    EXPECT_EQ(collector.Reply(), "<lc><lcport>" + std::to_string(collector.Port()) + "</lcport><lcpidlc>" +
                                     std::to_string(collector.ProcessId()) + "</lcpidlc></lc>");
    StreamClient(collector.Port()).Send(Header(PathOf("a.log")) + "text");
    EXPECT_EQ(collector.WaitForExit(10000), 0u);
    EXPECT_EQ(collector.ReadOutput("x"), "");
}

// The shared collector's port is never served by a private one. A network of its own in which the system has no other
// port to give provokes it.
TEST_F(CollectorProgram, ThePortOfTheSharedCollectorIsRefused)
{
    CollectorProcess collector;
    const std::string strScript = "echo 1 > /proc/sys/net/ipv4/ip_nonlocal_bind && "
                                  "echo 41114 41114 > /proc/sys/net/ipv4/ip_local_port_range && exec '" +
                                  ProgramPath("logcollector") + "' '--xml=" + LivingDocument() + "'";
    if (!collector.Start("/usr/bin/unshare", {"-rn", "/bin/sh", "-c", strScript}))
        GTEST_SKIP() << "no network of its own on this machine";
    const std::string strOutput = collector.ReadOutput("</lc>");
    if (strOutput.empty())
        GTEST_SKIP() << "no network of its own on this machine";
    EXPECT_EQ(strOutput, "<lc><port>abort</port></lc>");
    EXPECT_EQ(collector.WaitForExit(1500), PLAT_STILLACTIVE) << "it lives as long as its application";
}

TEST_F(CollectorProgram, AnApplicationThatHasGoneIsGivenTimeToSettle)
{
    CollectorProcess application;
    ASSERT_TRUE(application.Start(ProgramPath("logcollector"), {}));
    ASSERT_EQ(application.WaitForExit(10000), 0u);

    const uint64_t u64Start = PlatTicks();
    CollectorProcess collector;
    ASSERT_TRUE(collector.StartFor(ProgramPath("logcollector"), application.ProcessId()));
    EXPECT_EQ(collector.WaitForExit(20000), 0u);
    EXPECT_GE(PlatTicks() - u64Start, 4900u);
}

// A collector that waits for this test is the application here, so that it can be killed.
class CollectorOfApplication : public FolderTest
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(m_application.StartFor(ProgramPath("logcollector"), PlatProcessId()));
        ASSERT_TRUE(m_collector.StartFor(ProgramPath("logcollector"), m_application.ProcessId()));
    }

    CollectorProcess m_application;
    CollectorProcess m_collector;
};

TEST_F(CollectorOfApplication, EndsAfterItsApplicationAndLastStream)
{
    const std::string strFolder = PathOf("log.20240101");
    StreamClient stream(m_collector.Port());
    ASSERT_TRUE(stream.Send(Header(strFolder + "/sub/a.log") + "before\r\n"));
    ASSERT_TRUE(WaitFor([&] { return ReadWhole(strFolder + "/sub/a.log") == "before\r\n"; }));
    m_application.Kill();
    EXPECT_EQ(m_collector.WaitForExit(1500), PLAT_STILLACTIVE) << "a stream is still open";
    EXPECT_TRUE(stream.Send("after\r\n"));
    stream.Close();
    EXPECT_EQ(m_collector.WaitForExit(3000), 0u);
    EXPECT_EQ(ReadWhole(strFolder + "/sub/a.log"), "before\r\nafter\r\n");
}

TEST_F(CollectorOfApplication, CutsOffAnEndlessStreamKeepingItsText)
{
    StreamClient stream(m_collector.Port());
    ASSERT_TRUE(stream.Send(Header(PathOf("a.log")) + "kept\r\n"));
    ASSERT_TRUE(WaitFor([&] { return ReadWhole(PathOf("a.log")) == "kept\r\n"; }));
    m_application.Kill();
    EXPECT_EQ(m_collector.WaitForExit(15000), 0u);
    EXPECT_TRUE(stream.IsEnded());
    EXPECT_EQ(ReadWhole(PathOf("a.log")), "kept\r\n");
}

TEST_F(CollectorOfApplication, RemovesALogFolderWithoutText)
{
    const std::string strFolder = PathOf("log.20240101");
    StreamClient stream(m_collector.Port());
    ASSERT_TRUE(stream.Send(Header(strFolder + "/sub/a.log")));
    ASSERT_TRUE(WaitFor([&] { return std::filesystem::exists(strFolder + "/sub/a.log"); }));
    stream.Close();
    EXPECT_EQ(m_collector.WaitForExit(10000), 0u);
    EXPECT_FALSE(std::filesystem::exists(strFolder));
    EXPECT_TRUE(std::filesystem::exists(m_path));
}
