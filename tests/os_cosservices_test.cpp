// os_cosservices_test.cpp: the library from its start to its stop, as a program has it: what the program says of
// itself, what its parent says, what its children are told.
#include "strangers_support.h"

#include "os_cosarguments.h"
#include "os_coscfg.h"
#include "os_coslog.h"
#include "os_coslogfolder.h"
#include "os_cosmem.h"
#include "os_cosservices.h"
#include "os_cosservices_identity.h"
#include "os_costhread.h"
#include "os_cosxml.h"

#include "plat_process.h"
#include "plat_thread.h"
#include "plat_wait.h"

#include <atomic>
#include <csignal>
#include <set>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

class Services : public FolderTest
{
protected:
    ~Services() override { OsServicesStop(); }

    // Where the program finds its collector, and settings: that it uses none.
    fs::path Common() const
    {
        const fs::path path = m_path / "system/SYSTEMROOT/lib/mvr_orvane/common";
        fs::create_directories(path);
        return path;
    }
    void Start(const std::string& a_strElements)
    {
        if (!fs::exists(Common() / "logcollector"))
            WriteWhole((Common() / "const.ini").string(), "LogCollector=disabled\r\n");
        m_strDocument = "<arguments>" + a_strElements + "</arguments>";
        OsServicesSetDocument(m_strDocument.c_str());
        ASSERT_EQ(OsServicesStart(), EOSSTS_SUCCESS);
    }
    static void Inherit(const std::string& a_strElements)
    {
        char szEncoded[8192];
        size_t sizetEncoded = 0;
        const std::string strDocument = "<arguments>" + a_strElements + "</arguments>";
        Base64Encode(szEncoded, sizeof szEncoded, &sizetEncoded, strDocument.c_str(), strDocument.size(), false);
        setenv("MVR_OSSERVICESARGUMENTSB64", szEncoded, 1);
    }
    // Of the document for children.
    static std::string Element(const char* a_szName)
    {
        char szValue[OS_PATHSIZE];
        OsXmlExtractElement(OsArgumentsDocument(), a_szName, szValue, sizeof szValue);
        return szValue;
    }
    static std::string LogFile() { return Slashed(OsLogGet()->LogFile()); }

    std::string m_strDocument;
};

static constexpr char g_szSource[] = "tests/os_cosservices_test";

TEST_F(Services, StartAgainAfterAStopInAFolderOfTheirOwn)
{
    std::set<std::string> setstrLog;
    for (int i = 0; i < 3; ++i)
    {
        Start("<uniquename>prog</uniquename><entity>application</entity><loglevel>" + std::to_string(i != 1) +
              "</loglevel>");
        OSLOG(OS_LOG_NOTE, "run %d", i);
        setstrLog.insert(LogFile());
        EXPECT_EQ(fs::exists(fs::path(LogFile()).parent_path() / "mvroscfg.txt"), i != 1) << "the report";
        OsServicesStop();
        EXPECT_EQ(OsLogGet(), nullptr);
        EXPECT_EQ(OsCfgGet(), nullptr);
        EXPECT_EQ(getenv("MVR_OSSERVICESARGUMENTS"), nullptr);
    }
    ASSERT_EQ(setstrLog.size(), 3u);
    int iRun = 0;
    for (const std::string& strLog : setstrLog)
    {
        const std::string strText = ReadWhole(strLog);
        EXPECT_NE(strText.find("run " + std::to_string(iRun++) + "\r\n"), std::string::npos) << strLog;
        EXPECT_EQ(strText.find("### OsServicesStart...\r\n") != std::string::npos, iRun != 2) << iRun;
        EXPECT_EQ(strText.ends_with("### OsServicesStop...\r\n"), iRun != 2) << iRun;
        EXPECT_FALSE(fs::exists(fs::path(strLog).parent_path() / "log.lock"));
    }
}

// Nothing of the parent ends with the fork: its stream, its collector, its hold of the log folder.
TEST_F(Services, AForkThatStopsThemLeavesThemToItsParent)
{
    fs::create_symlink(ProgramPath("logcollector"), Common() / "logcollector");
    Start("<uniquename>prog</uniquename><entity>application</entity><loglevel>1</loglevel>");
    ASSERT_TRUE(OsLogGet()->UsesCollector());
    const fs::path pathLog = LogFile();
    const PlatHandle plathandle = PlatProcessOpen(OsArgumentsCollector().u64ProcessIdCollector);
    std::atomic<size_t> sizetLogged{0};
    pid_t pid = 0;
    {
        std::atomic<bool> blStop{false};
        std::vector<std::jthread> vecjthread;
        for (int iThread = 0; iThread < 4; ++iThread)
            vecjthread.emplace_back([&] {
                while (!blStop)
                    OSLOG(OS_LOG_NOTE, "line %zu of the parent", ++sizetLogged);
            });
        EXPECT_TRUE(WaitFor([&] { return sizetLogged > 100; }));
        pid = fork();
        if (pid == 0)
        {
            alarm(20);
            OSLOG(OS_LOG_NOTE, "of the fork");
            OsServicesStop();
            _exit(0);
        }
        int iStatus = -1;
        EXPECT_EQ(waitpid(pid, &iStatus, 0), pid);
        EXPECT_EQ(iStatus, 0);
        blStop = true;
    }
    EXPECT_TRUE(OsLogGet()->UsesCollector());
    EXPECT_TRUE(COsLogFolderLock::IsHeldByOthers(pathLog.parent_path().c_str()));
    OsServicesStop();
    EXPECT_EQ(PlatWaitAny(&plathandle, 1, 20000), 0u);
    PlatClose(plathandle);

    const std::string strText = ReadWhole(pathLog.string());
    size_t sizetFound = 0;
    for (size_t sizet = 0; (sizet = strText.find(" of the parent\r\n", sizet)) != std::string::npos; ++sizet)
        ++sizetFound;
    EXPECT_EQ(sizetFound, sizetLogged);
    EXPECT_TRUE(strText.ends_with("### OsServicesStop...\r\n"));
    const fs::path pathFork = pathLog.parent_path() / (pathLog.stem().string() + "-" + std::to_string(pid) + ".log");
    const std::string strFork = ReadWhole(pathFork.string());
    EXPECT_NE(strFork.find("of the fork\r\n"), std::string::npos) << pathFork;
    EXPECT_TRUE(strFork.ends_with("### OsServicesStop...\r\n"));
}

// Also when the one before was killed.
TEST_F(Services, EveryStartHasACollectorOfItsOwnThatEndsWithTheStop)
{
    fs::create_symlink(ProgramPath("logcollector"), Common() / "logcollector");
    for (int i = 0; i < 3; ++i)
    {
        Start("<uniquename>prog</uniquename><entity>application</entity><loglevel>1</loglevel>");
        ASSERT_TRUE(OsLogGet()->UsesCollector()) << i;
        const std::string strLog = LogFile();
        const uint64_t u64ProcessId = OsArgumentsCollector().u64ProcessIdCollector;
        const PlatHandle plathandle = PlatProcessOpen(u64ProcessId);
        EXPECT_EQ(Element("lcpidlc"), std::to_string(u64ProcessId));
        if (i == 1)
        {
            kill(static_cast<pid_t>(u64ProcessId), SIGKILL);
            PlatWaitAny(&plathandle, 1, PLAT_INFINITE);
        }
        OSLOG(OS_LOG_NOTE, "run %d", i);
        OsServicesStop();
        EXPECT_EQ(PlatWaitAny(&plathandle, 1, 20000), 0u) << i;
        PlatClose(plathandle);
        EXPECT_TRUE(ReadWhole(strLog).ends_with("### OsServicesStop...\r\n")) << i;
    }
}

TEST_F(Services, AStartThatFailedLeavesNothingInTheWayOfTheNext)
{
    const std::string strFolder = getenv("LOCALAPPDATA");
    setenv("LOCALAPPDATA", PathOf(std::string(600, 'x')).c_str(), 1);
    OsServicesSetDocument("<arguments><uniquename>tool</uniquename><entity>utility</entity></arguments>");
    EXPECT_EQ(OsServicesStart(), EOSSTS_FAIL);
    EXPECT_FALSE(OsMemExists());
    setenv("LOCALAPPDATA", strFolder.c_str(), 1);
    Start("<uniquename>tool</uniquename><entity>utility</entity><loglevel>1</loglevel>");
    OSLOG(OS_LOG_NOTE, "at work");
    EXPECT_TRUE(WaitFor([] { return ReadWhole(LogFile()).find("at work\r\n") != std::string::npos; }))
        << "through a collector: the settings were read before they said that there is none";
}

TEST_F(Services, AStopWithoutAStartLeavesWhatWasInherited)
{
    Inherit("<rootpath>/root</rootpath>");
    OsServicesStop();
    EXPECT_NE(getenv("MVR_OSSERVICESARGUMENTSB64"), nullptr);
}

TEST_F(Services, TheProgramsOwnDocumentSaysWhoItIs)
{
    Start("<uniquename>*</uniquename><entity>dll</entity><loglevel>0x10</loglevel>"
          "<version><major>7</major><minor>12</minor><year>2024</year></version>");
    EXPECT_STREQ(OsArgumentsGet(OS_ARGUMENT_UNIQUENAME), "os_cosservices_test");
    EXPECT_EQ(fs::path(LogFile()).filename(), "os_cosservices_test.log");
    EXPECT_STREQ(OsCfgGetString(OS_CFGTAG_VERSIONMAJORNUM), "07");
    EXPECT_STREQ(OsCfgGetString(OS_CFGTAG_VERSIONPATCHNUM), "00");
    EXPECT_STREQ(OsCfgGetString(OS_CFGTAG_VERSIONYEAR), "2024");
    EXPECT_TRUE(OsArgumentsIsServicesOwner());
}

TEST_F(Services, ChildrenAreToldWhereTheyAre)
{
    Inherit("<rootpath>" + PathOf("root") +
            "</rootpath><loglevel>4</loglevel><callersuniquename>other</callersuniquename>");
    Start("<uniquename>prog</uniquename><entity>application</entity>");
    EXPECT_FALSE(OsArgumentsIsServicesOwner()) << "the process that told us does";
    EXPECT_EQ(LogFile().find(PathOf("root") + "/prog/prog/log."), 0u);
    EXPECT_EQ(Element("logpath"), OsCfgGetString(OS_CFGTAG_LOGDIRECTORY));
    EXPECT_EQ(Element("rootpath"), OsCfgGetString(OS_CFGTAG_ROOTPATH));
    EXPECT_EQ(Element("callersuniquename"), "prog");
    EXPECT_EQ(Element("frominterfaceopen"), "false");
    EXPECT_EQ(Element("loglevel"), "1") << "somebody wants diagnostics";
    EXPECT_EQ(Element("lcport"), "0");
}

TEST_F(Services, AUtilityLogsBesideWhomItWorksFor)
{
    const std::string strFolder = PathOf("root/model/caller/log.20240101000000000000");
    fs::create_directories(strFolder);
    Inherit("<logpath>" + strFolder + "</logpath><loglevel>1</loglevel>");
    Start("<uniquename>tool</uniquename><entity>utility</entity>");
    OSLOG(OS_LOG_NOTE, "at work");
    EXPECT_EQ(LogFile(), strFolder + "/tool.log");
    EXPECT_NE(ReadWhole(strFolder + "/tool.log").find("at work\r\n"), std::string::npos);
    OsServicesStop();
    Start("<uniquename>tool</uniquename><entity>utility</entity>");
    EXPECT_EQ(LogFile(), strFolder + "/tool.log") << "also after a stop";
    EXPECT_EQ(Slashed(Element("logpath")), strFolder);
    EXPECT_EQ(Slashed(OsCfgGetString(OS_CFGTAG_USERDIRECTORY)), PathOf("system/LOCALAPPDATA/mvr_orvane/model/tool"));
    EXPECT_EQ(Element("frominterfaceopen"), "true");
}

TEST_F(Services, AUtilityThatNobodyStartedFindsAFolderForItself)
{
    Start("<uniquename>tool</uniquename><entity>apputility</entity><loglevel>1</loglevel>");
    EXPECT_EQ(LogFile(), PathOf("system/LOCALAPPDATA/mvr_orvane/tool/isis/log/tool.log"));
    EXPECT_EQ(Element("frominterfaceopen"), "true");
}

TEST_F(Services, AProgramThatForbidsItTellsItsChildrenNothing)
{
    Inherit("<rootpath>" + PathOf("root") + "</rootpath><overridefoldername>f</overridefoldername>");
    Start("<uniquename>prog</uniquename><entity>application</entity><inherit>false</inherit>");
    EXPECT_STREQ(OsArgumentsDocument(), "");
    OsArgumentsPublish(true);
    OsArgumentsPublish(false);
    for (char** psz = environ; *psz; ++psz)
        EXPECT_NE(std::string(*psz).find("MVR_OSSERVICESARGUMENTS"), 0u) << *psz;
}

TEST_F(Services, WhoWorksForAnApplicationKnowsIt)
{
    Inherit("<app>/apps/hostprogram01.exe</app>");
    for (const auto& [szEntity, blApp] : {std::pair{"application", false}, {"driver", true}, {"apputility", true}})
    {
        Start("<uniquename>prog</uniquename><entity>" + std::string(szEntity) + "</entity>");
        EXPECT_EQ(Element("app") == "\\apps\\hostprogram01.exe", blApp) << szEntity;
        EXPECT_EQ(*OsCfgGetString(OS_CFGTAG_HOSTPROGRAM01) != 0, blApp) << szEntity;
        OsServicesStop();
    }
}

TEST_F(Services, ThreadAffinityHoldsForTheMainThreadAndForLaterOnes)
{
    static constexpr auto g_isOnSecond = [] {
        cpu_set_t cpuset;
        sched_getaffinity(0, sizeof cpuset, &cpuset);
        return CPU_COUNT(&cpuset) == 1 && CPU_ISSET(1, &cpuset);
    };
    cpu_set_t cpusetBoth;
    CPU_ZERO(&cpusetBoth);
    CPU_SET(0, &cpusetBoth);
    CPU_SET(1, &cpusetBoth);
    if (sched_setaffinity(0, sizeof cpusetBoth, &cpusetBoth) != 0 || !(PlatProcessAffinity() & 2))
        GTEST_SKIP() << "no second processor";
    fs::create_directories(Common() / "const");
    WriteWhole(Common() / "const/prog_const.ini", "[prog.dsIdentity]\r\nForceThreadAffinity=2\r\n");
    Start("<uniquename>prog</uniquename><entity>application</entity>");
    EXPECT_TRUE(g_isOnSecond());
    sched_setaffinity(0, sizeof cpusetBoth, &cpusetBoth);
    static std::atomic<bool> g_blThere{false};
    const auto look = [](COsThread*) -> uint32_t { return (g_blThere = g_isOnSecond()) ? 0 : 1; };
    COsThread osthread;
    EXPECT_EQ(osthread.Start("later", look, nullptr), EOSSTS_SUCCESS);
    EXPECT_TRUE(osthread.WaitForEnd(20000));
    EXPECT_TRUE(g_blThere);
}

// Whatever the files and the document say beside them.
TEST_F(Services, FlagsOfTheEnvironmentHoldForTheWholeRun)
{
    setenv("MVR_DEBUG", "3104", 1);   // print what differs as 0, allow level 32, milestones alone
    const fs::path path = m_path / "system/LOCALAPPDATA/mvr_orvane/common/debug";
    fs::create_directories(path);
    WriteWhole(path / "prog_debug.ini", "[prog.dsIdentity]\r\nDebug=1\r\n");
    Start("<uniquename>prog</uniquename><entity>application</entity>");
    EXPECT_EQ(OsLogGet()->WorkingWord() & 2081, 2081u);
    EXPECT_EQ(std::stoi(Element("loglevel")) & 2081, 2081);
    OSLOG(OS_LOG_NOTE, "a note");
    OSLOG(OS_LOG_MILESTONE, "a milestone");
    const std::string strLog = ReadWhole(LogFile());
    EXPECT_NE(strLog.find(" Debug=" + std::to_string(3105) + " "), std::string::npos);
    EXPECT_NE(strLog.find("a milestone\r\n"), std::string::npos);
    EXPECT_EQ(strLog.find("a note"), std::string::npos);
}

// Only root can be a user without an account.
TEST_F(Services, WithoutAFolderTheStartSaysThatThereIsNoLog)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can be somebody else";
    fs::permissions(m_path, fs::perms(0755));
    for (const char* szName : {"HOME", "LOCALAPPDATA", "APPDATA", "PROGRAMDATA", "XDG_DATA_HOME", "XDG_STATE_HOME"})
        unsetenv(szName);
    const auto start = [&](const std::string& a_strLogFolder) {
        const std::string strErrors = PathOf("errors");
        WriteWhole(strErrors, "");
        fs::permissions(strErrors, fs::perms(0666));
        EXPECT_TRUE(AsUser(g_userUnlisted, [&] {
            setenv("MVR_LOGDIR", a_strLogFolder.c_str(), 1);
            OsServicesSetDocument("<arguments><uniquename>prog</uniquename><entity>application</entity>"
                                  "<loglevel>1</loglevel></arguments>");
            if (!std::freopen(strErrors.c_str(), "w", stderr))
                return false;
            const EOSSTS eossts = OsServicesStart();
            std::fprintf(stderr, "%d", static_cast<int>(eossts));
            OSLOG(OS_LOG_ERROR, "logged");
            OsServicesStop();
            return std::fflush(stderr) == 0;
        }));
        return ReadWhole(strErrors);
    };
    WriteWhole((Common() / "const.ini").string(), "LogCollector=disabled\r\n");
    EXPECT_NE(start("").find("prog has no log: the user has no home, and MVR_LOGDIR names no folder...<>\n1"),
              std::string::npos);
    EXPECT_NE(start(PathOf("denied")).find("prog has no log: its folder cannot be made...<"), std::string::npos);
    fs::create_directory(PathOf("open"));
    fs::permissions(PathOf("open"), fs::perms(0777));
    EXPECT_EQ(start(PathOf("open")), "0");
    const fs::path pathLog = *fs::directory_iterator(PathOf("open"));
    EXPECT_NE(ReadWhole(pathLog / "prog.log").find("logged\r\n"), std::string::npos);
}

TEST_F(Services, ADocumentWithoutAUsableNameIsRefused)
{
    LogCapture logcapture;
    for (const std::string& strName : {std::string(70, 'x'), std::string("a/b"), std::string()})
    {
        m_strDocument = "<arguments><uniquename>" + strName + "</uniquename><entity>application</entity></arguments>";
        OsServicesSetDocument(m_strDocument.c_str());
        EXPECT_EQ(OsServicesStart(), EOSSTS_FAIL);
        EXPECT_TRUE(logcapture.HasPart("of at most 63 bytes that a file can have...<" + m_strDocument)) << strName;
        EXPECT_EQ(OsLogGet(), nullptr);
    }
    OsServicesSetDocument("garbage");
    testing::internal::CaptureStderr();
    EXPECT_EQ(OsServicesStart(), EOSSTS_FAIL);
    EXPECT_NE(testing::internal::GetCapturedStderr().find("that a file can have...<garbage>"), std::string::npos);
}

// The model is handed down by those who work for it; a library or an application does not.
TEST_F(Services, OnlyADriverHandsItsModelDown)
{
    Inherit("<logmodel>d100</logmodel>");
    for (const auto& [szEntity, szModel] : {std::pair{"driver", "d100"}, {"dll", ""}, {"application", ""}})
    {
        Start("<uniquename>prog</uniquename><entity>" + std::string(szEntity) + "</entity>");
        EXPECT_EQ(Element("logmodel"), szModel) << szEntity;
        EXPECT_EQ(*OsCfgGetString(OS_CFGTAG_OTTER_LOGPATH) != 0, *szModel != 0) << szEntity;
        OsServicesStop();
    }
}

TEST_F(Services, FileAndFilterOfTheLogAreTakenOutOfTheirLiterals)
{
    OsServicesIdentity osservicesidentity;
    EXPECT_TRUE(OsServicesIdentify("<uniquename>prog</uniquename><logfile>_T(\"/logs\")</logfile>"
                                   "<logfilter>_T(\"-os_cosmem\")</logfilter>",
                                   osservicesidentity));
    EXPECT_STREQ(osservicesidentity.szLogFile, "/logs");
    EXPECT_STREQ(osservicesidentity.szFilter, "-os_cosmem");
    EXPECT_TRUE(OsServicesIdentify("<uniquename>prog</uniquename><logfile>null</logfile><logfilter>0</logfilter>",
                                   osservicesidentity));
    EXPECT_STREQ(osservicesidentity.szLogFile, "");
    EXPECT_STREQ(osservicesidentity.szFilter, "");

    Start("<uniquename>prog</uniquename><entity>application</entity><loglevel>1</loglevel>"
          "<logfilter>_T(\"os_cosservices_test\")</logfilter>");
    OSLOG(OS_LOG_NOTE, "ours");
    const std::string strLog = ReadWhole(LogFile());
    EXPECT_NE(strLog.find("DebugFilter=<os_cosservices_test>"), std::string::npos);
    EXPECT_NE(strLog.find("ours\r\n"), std::string::npos);
    EXPECT_EQ(strLog.find("mem>>>"), std::string::npos);
}

// Runs in a copy of this test that carries a version.
using ServicesOfFile = Services;
TEST_F(ServicesOfFile, DISABLED_Version)
{
    Start("<uniquename>prog</uniquename><entity>application</entity>");
    const std::string strVersion =
        OsCfgGetString(OS_CFGTAG_VERSIONMAJORNUM) + std::string(".") + OsCfgGetString(OS_CFGTAG_VERSIONMINORNUM) + "." +
        OsCfgGetString(OS_CFGTAG_VERSIONPATCHNUM) + "." + OsCfgGetString(OS_CFGTAG_VERSIONBUILDNUM) + " " +
        OsCfgGetString(OS_CFGTAG_VERSIONDAY) + OsCfgGetString(OS_CFGTAG_VERSIONYEAR);
    EXPECT_EQ(strVersion, "01.02.03.04 000000");
}

TEST_F(Services, AProgramWithoutAVersionHasThatOfItsFile)
{
    const std::string strProgram = PathOf("copy");
    fs::copy_file("/proc/self/exe", strProgram);
    ASSERT_EQ(AppendResources(strProgram, "VERSION=1.2.3.4"), 0);
    EXPECT_EQ(RunDisabledCase(strProgram, "ServicesOfFile.*"), 0);
}

TEST_F(Services, AStopLeavesNoSettingsOfOtherComponents)
{
    static constexpr const char* g_aszName[] = {"OTTER_LOGDEBUG", "OTTER_LOGPATH",           "MVR_APPPROTOCOL",
                                                "MVR_FIRMWARE",   "MVR_UIRESOURCEFILE",      "MVR_UISOCKETUNICODE",
                                                "UI_TIMEOUT",     "mvr_osservicesargumentsX"};
    for (const char* szName : g_aszName)
        setenv(szName, "1", 1);
    Start("<uniquename>prog</uniquename><entity>application</entity>");
    OsServicesStop();
    for (const char* szName : g_aszName)
        EXPECT_EQ(getenv(szName), nullptr) << szName;
}
