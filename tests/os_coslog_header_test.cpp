// os_coslog_header_test.cpp: the header block, and the last lines of a logger.
#include "log_support.h"

#include "plat_memory.h"
#include "plat_process.h"

#include <thread>

static std::string Prefix(size_t a_sizetNumber)
{
    char szPrefix[128];
    snprintf(szPrefix, sizeof szPrefix,
             "0000%zu \\d{12} os_a                                12    55 T\\d{4,} S9 VE ### ", a_sizetNumber);
    return szPrefix;
}

static const char* Answer(const char*, const char* a_szName)
{
    return std::string(a_szName) == "VERSION" ? "1.2.3" : std::string(a_szName) == "CD" ? "cd7" : nullptr;
}

static bool Version(const char*, uint16_t* a_au16Version)
{
    a_au16Version[0] = 4;
    a_au16Version[3] = 1;
    return true;
}

TEST_F(LoggerTest, TheHeaderTellsTheRunTheMachineAndTheProgram)
{
    FakeConfiguration fakeconfiguration;
    fakeconfiguration.SetInfo(OS_CFGINFO_OS_MAJOR, 12);
    fakeconfiguration.SetInfo(OS_CFGINFO_OS_MINOR, 5);
    fakeconfiguration.SetInfo(OS_CFGINFO_CPU_MHZ, 2400);
    fakeconfiguration.Set(OS_CFGTAG_VERSIONMAJORNUM, "03");
    fakeconfiguration.Set(OS_CFGTAG_VERSIONPATCHNUM, "7");
    g_poslogresourceproc = Answer;
    g_poslogsetupproc = Answer;
    g_poslogversionproc = Version;
    Create();
    m_uniqueLog->Start(m_strLog.c_str(), 0x6000, "Sock  ~Ssl");
    PlatSetLastError(55);
    Log(OS_LOG_ERROR, "x", "os_a");
    PlatSetLastError(0);
    const Texts vecstr = Lines();
    ASSERT_EQ(vecstr.size(), 7u);

    const std::string strProgram = std::filesystem::read_symlink("/proc/self/exe");
    const std::string strPage = std::to_string(PlatMemoryGranularity());
    const std::string strProcess = std::to_string(PlatProcessId());
    const std::string strProcessors = std::to_string(PlatProcessorCount());
    uint32_t u32Integrity = 0;
    PlatProcessIntegrity(&u32Integrity);
    const std::string strIntegrity = u32Integrity == PLAT_INTEGRITY_HIGH ? "high" : "medium";
    const std::string astrExpected[] = {
        std::string("\\(20\\d\\d/\\d\\d/\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{3}\\) Debug=24576 DebugFilter=<sock ~ssl> ") +
            "Version=~18\\.76\\.0\\.0 UseUsersFolder=1 logcollector=false",
        "systemInfo <arch:\\d+ ps:" + strPage + " pmask:0x[0-9a-f]{8} ncpu:" + strProcessors +
            " cputype:\\d+ cpulevel:\\d+ cpurev:\\d+ stack:[1-9]\\d* bits:proc-64/mach-\\d+ spd:~2400 pid:" +
            strProcess +
            " pmem:[1-9]\\d*/[1-9]\\d* vmem:[1-9]\\d*/[1-9]\\d* memload:\\d+ proc-affinity:0x[0-9A-F]{16} "
            "sys-affinity:0x[0-9A-F]{16} integrity:" +
            strIntegrity + ">",
        "osInfo <Os:windows Major:12 Minor:5 Build:0/0x00000000 Platform:0 Info:\\[\\] Raw:[1-9]\\d*\\.\\d+ "
        "Cooked:12\\.5>",
        "appInfo <" + strProgram +
            "> cd=cd7 versioninfo=4\\.0\\.0\\.1 versioncfg=3\\.0\\.7 versionresource=1\\.2\\.3 "
            "versionsimple=\\(none\\)",
        "args <.*os_coslog_header_test.*>",
        "log <" + m_strLog + ">",
    };
    for (size_t sizet = 0; sizet < 6; ++sizet)
        EXPECT_TRUE(Matches(vecstr[sizet], Prefix(sizet) + astrExpected[sizet])) << vecstr[sizet];
    EXPECT_EQ(vecstr[6].substr(0, 5), "00006");
    EXPECT_EQ(getenv(("MVR_EXEVERSIONINFO_" + strProcess).c_str()), std::string("4.0.0.1"));
}

TEST_F(LoggerTest, WhatIsNotKnownIsSaid)
{
    Begin();
    EXPECT_NE(
        Lines()[3].find("> cd=(n/a) versioninfo=0.0 versioncfg=(n/a) versionresource=(none) versionsimple=(none)"),
        std::string::npos);
}

// A program of this test's own runs this case with many arguments.
TEST_F(LoggerTest, ALongCommandLineIsCutAndTheLineClosed)
{
    const std::string strProgram = std::filesystem::read_symlink("/proc/self/exe");
    if (!getenv("MVR_TESTLOG"))
    {
        const std::string strCommand = "MVR_TESTLOG='" + m_strLog + "' '" + strProgram +
                                       "' --gtest_filter=LoggerTest.ALongCommandLineIsCutAndTheLineClosed 'a b' " +
                                       std::string(100000, 'x') + " > /dev/null";
        ASSERT_EQ(std::system(strCommand.c_str()), 0);
        const std::string strArguments = Lines()[4];
        const size_t sizetText = strArguments.find("### args <") + 10;
        EXPECT_EQ(strArguments.size() - sizetText, 8192u - 128 + 1);
        EXPECT_NE(strArguments.find(" \"a b\" xxx"), std::string::npos);
        EXPECT_TRUE(strArguments.ends_with("x>"));
        return;
    }
    m_strLog = getenv("MVR_TESTLOG");
    Begin();
}

TEST_F(LoggerTest, TheEndIsLoggedWhileDiagnosticsAreWanted)
{
    Begin(1);
    m_uniqueLog.reset();
    EXPECT_EQ(g_poslogsink.load(), nullptr);
    EXPECT_EQ(OsLogGet(), nullptr);
    const Texts vecstr = Lines();
    ASSERT_EQ(vecstr.size(), 11u);
    EXPECT_TRUE(Matches(vecstr[8], ".*V\\. mem>>> stack:[1-9]\\d*"));
    EXPECT_TRUE(
        Matches(vecstr[9], ".*V\\. mem>>> pagefaults:\\d+ peakworking:\\d+ pagefileusage:\\d+ peakpagefileusage:\\d+"));
    EXPECT_TRUE(vecstr[10].ends_with(" VP ### OsServicesStop..."));

    m_strLog = PathOf("b.log");
    Begin(0);
    m_uniqueLog.reset();
    EXPECT_EQ(Lines().size(), 7u);
}
