// lcctl_collectors_test.cpp: lcctl ps, flush, stop and level, against real collectors and a running application.
#include "collector_support.h"

#include <csignal>
#include <sys/wait.h>

namespace fs = std::filesystem;

class LcctlCollectors : public FolderTest
{
protected:
    struct Ran
    {
        int iExit;
        std::string strOutput;
        std::string strError;
    };

    void SetUp() override
    {
        if (!fs::exists(ProgramPath("lcctl")))
            GTEST_SKIP() << "lcctl is not built here";
    }

    Ran Lcctl(const std::string& a_strArguments) const
    {
        const int iStatus = std::system(
            (ProgramPath("lcctl") + " " + a_strArguments + " >'" + PathOf("out") + "' 2>'" + PathOf("err") + "'")
                .c_str());
        return {WIFEXITED(iStatus) ? WEXITSTATUS(iStatus) : -1, ReadWhole(PathOf("out")), ReadWhole(PathOf("err"))};
    }
    bool Shows(const std::string& a_strArguments, const std::string& a_strPart) const
    {
        return WaitFor([&] { return Lcctl(a_strArguments).strOutput.find(a_strPart) != std::string::npos; });
    }
    static std::string Pid(const CollectorProcess& a_collector) { return std::to_string(a_collector.ProcessId()); }

    // Both collectors run and are listed.
    void StartCollectors()
    {
        for (CollectorProcess* const pcollector : {&m_collector, &m_collectorOther})
        {
            ASSERT_TRUE(pcollector->StartFor(ProgramPath("logcollector"), PlatProcessId()));
            ASSERT_TRUE(Shows("ps --json", "\"pid\":" + Pid(*pcollector)));
        }
    }

    fs::path StatusFile(const std::string& a_strPid) const
    {
        return m_path / "system/LOCALAPPDATA/mvr_orvane/common/logcollector" / ("status." + std::to_string(geteuid())) /
               (a_strPid + ".status");
    }

    CollectorProcess m_collector;
    CollectorProcess m_collectorOther;
};

TEST_F(LcctlCollectors, PsListsThoseThatRunWithTheirStreams)
{
    EXPECT_EQ(Lcctl("ps").iExit, 1);
    StartCollectors();
    StreamClient streamclient(m_collector.Port());
    ASSERT_TRUE(streamclient.Send(Header(PathOf("a.log"))));
    const std::string strPort = "\"port\":" + std::to_string(m_collector.Port());
    ASSERT_TRUE(Shows("ps --json", strPort + ",\"program\":\"" + ProgramPath("logcollector")));
    EXPECT_TRUE(Shows("ps --json | grep '" + strPort + "'", "\"streams\":1}"));
    EXPECT_TRUE(Shows("ps --json", "{\"application\":" + std::to_string(PlatProcessId()) + ",\"collector\":true"));
    EXPECT_TRUE(Shows("ps", std::to_string(m_collectorOther.Port())));

    m_collectorOther.Kill();
    ASSERT_NE(m_collectorOther.WaitForExit(20000), PLAT_STILLACTIVE);
    ASSERT_TRUE(fs::exists(StatusFile(Pid(m_collectorOther))));
    EXPECT_EQ(Lcctl("ps --json").strOutput.find(Pid(m_collectorOther)), std::string::npos);
    EXPECT_FALSE(fs::exists(StatusFile(Pid(m_collectorOther))));
}

TEST_F(LcctlCollectors, StopEndsTheOneThatIsNamedOrAll)
{
    StartCollectors();
    const Ran ran = Lcctl("stop " + Pid(m_collectorOther));
    EXPECT_EQ(ran.iExit, 0) << ran.strError;
    EXPECT_EQ(ran.strOutput, Pid(m_collectorOther) + ": ended\n");
    EXPECT_EQ(m_collectorOther.WaitForExit(0), 0u);
    EXPECT_EQ(m_collector.WaitForExit(0), PLAT_STILLACTIVE);

    const Ran ranAgain = Lcctl("stop " + Pid(m_collectorOther));
    EXPECT_EQ(ranAgain.iExit, 1);
    EXPECT_NE(ranAgain.strError.find("is no collector of this user"), std::string::npos);
    EXPECT_EQ(Lcctl("stop --all").strOutput, Pid(m_collector) + ": ended\n");
    EXPECT_EQ(Lcctl("stop --all").iExit, 1);
}

TEST_F(LcctlCollectors, StopSaysWhenACollectorStillRuns)
{
    StartCollectors();
    kill(static_cast<pid_t>(m_collector.ProcessId()), SIGSTOP);
    const Ran ran = Lcctl("stop --timeout=1 " + Pid(m_collector));
    kill(static_cast<pid_t>(m_collector.ProcessId()), SIGCONT);
    EXPECT_EQ(ran.iExit, 1);
    EXPECT_NE(ran.strError.find(Pid(m_collector) + ": still running after 1 s"), std::string::npos) << ran.strError;
    EXPECT_EQ(m_collector.WaitForExit(20000), 0u);
}

TEST_F(LcctlCollectors, FlushIsACommandForAllAndEndsNone)
{
    EXPECT_EQ(Lcctl("flush").iExit, 1);
    StartCollectors();
    EXPECT_EQ(Lcctl("flush").strOutput, "2 collectors told to flush\n");
    EXPECT_EQ(ReadWhole(m_path / "system/LOCALAPPDATA/mvr_orvane/common/logcollector/flush"), "<cmd>flush</cmd>");
    EXPECT_EQ(m_collector.WaitForExit(0), PLAT_STILLACTIVE);
}

TEST_F(LcctlCollectors, ABadCommandLineIsOneLineAndExit2)
{
    for (const char* const szArguments :
         {"stop", "stop x", "stop 0", "stop --all 5", "stop --all --timeout=0", "level 1", "level 1 loud", "level -1 0",
          "level 1 0x100000000", "ps --wide", "flush 1"})
    {
        const Ran ran = Lcctl(szArguments);
        EXPECT_EQ(ran.iExit, 2) << szArguments;
        EXPECT_EQ(std::count(ran.strError.begin(), ran.strError.end(), '\n'), 1) << szArguments << ran.strError;
    }
    for (const char* const szCommand : {"ps", "flush", "stop", "level"})
        EXPECT_EQ(Lcctl(std::string(szCommand) + " --help").iExit, 0) << szCommand;
    EXPECT_EQ(Lcctl("level 1 0").iExit, 1);
}

// --------------------------------------------------------------------------------------------------- an application

class LcctlApplication : public LcctlCollectors
{
protected:
    LcctlApplication()
    {
        fs::create_directory(m_path / "bin");
        for (const char* szProgram : {"logcollector", "chaos_application"})
            fs::copy_file(ProgramPath(szProgram), m_path / "bin" / szProgram);
    }

    void SetUp() override
    {
        LcctlCollectors::SetUp();
        if (IsSkipped())
            return;
        ASSERT_TRUE(m_application.Start(PathOf("bin/chaos_application"),
                                        {"--name=app", "--result=" + m_path.string(), "--threads=2"}));
        ASSERT_TRUE(WaitFor([&] { return fs::exists(PathOf("app.start")); }));
        m_strPid = std::to_string(m_application.ProcessId());
    }
    void TearDown() override
    {
        if (IsSkipped())
            return;
        WriteWhole(PathOf("app.stop"), "");
        EXPECT_EQ(m_application.WaitForExit(20000), 0u);
    }

    // The value of a key that "ps" tells of the application.
    long Value(const std::string& a_strKey) const
    {
        const std::string strOutput = Lcctl("ps --all --json | grep '\"pid\":" + m_strPid + "'").strOutput;
        const size_t sizetKey = strOutput.find("\"" + a_strKey + "\":");
        return sizetKey == std::string::npos ? -1 : std::stol(strOutput.substr(sizetKey + a_strKey.size() + 3));
    }
    bool Rests() const
    {
        return WaitFor([&] {
            const long lWritten = Value("written");
            PlatSleep(50);
            return Value("written") == lWritten;
        });
    }

    CollectorProcess m_application;
    std::string m_strPid;
};

TEST_F(LcctlApplication, LevelChangesWhatItLogsAtOnce)
{
    EXPECT_TRUE(Shows("ps --all --json", "\"where\":\"collector\""));
    EXPECT_EQ(Value("flags"), 1);
    EXPECT_EQ(Lcctl("level " + m_strPid + " 0x800").iExit, 0);
    EXPECT_TRUE(WaitFor([&] { return Value("flags") == 0x800; }));
    EXPECT_TRUE(Rests());
    const long lWritten = Value("written");
    EXPECT_EQ(Lcctl("level " + m_strPid + " 1").iExit, 0);
    EXPECT_TRUE(WaitFor([&] { return Value("written") > lWritten + 10; }));

    const Ran ran = Lcctl("stop " + m_strPid);
    EXPECT_EQ(ran.iExit, 1);
    EXPECT_NE(ran.strError.find("its collector is "), std::string::npos);
}

TEST_F(LcctlApplication, ItOutlivesTheCutOfItsStatusFile)
{
    ASSERT_TRUE(WaitFor([&] { return Value("written") > 0; }));
    fs::resize_file(StatusFile(m_strPid), 0);
    EXPECT_EQ(Lcctl("level " + m_strPid + " 0").iExit, 1);
    EXPECT_EQ(Lcctl("ps --all --json").strOutput.find("\"pid\":" + m_strPid), std::string::npos);
}
