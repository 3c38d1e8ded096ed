// chaos_test.cpp: an application and two children log from four threads each while things happen to their collector,
// their disk and their folders. Afterwards every line is there once, whole and in order; what may be lost or cut is
// said with each case.
//
// --gtest_repeat runs more rounds, TEST_STANDSTILL is how many milliseconds a collector stands still.
#include "collector_support.h"

#include <csignal>
#include <cstdlib>
#include <map>
#include <set>
#include <sstream>
#include <sys/mount.h>
#include <unistd.h>

namespace fs = std::filesystem;

static constexpr unsigned g_uThreads = 4;

class Chaos : public FolderTest
{
protected:
    Chaos()
    {
        for (const char* szFolder : {"bin", "result", "system/LOCALAPPDATA"})
            fs::create_directories(m_path / szFolder);
        for (const char* szProgram : {"logcollector", "chaos_application"})
            fs::copy_file(ProgramPath(szProgram), m_path / "bin" / szProgram);
    }
    ~Chaos() override
    {
        Stop(g_listszProcess);
        WaitFor([this] { return kill(static_cast<pid_t>(m_mapprocess["app"].iProcess), 0) != 0; }, 5000);
    }

    static constexpr std::initializer_list<const char*> g_listszProcess = {"app", "app1", "app2"};

    struct Process
    {
        int iProcess = 0;
        int iCollector = 0;
        std::string strLog;
        std::vector<unsigned> vecuLogged;   // by each thread
    };

    void Begin()
    {
        const std::string strCommand = PathOf("bin/chaos_application") +
                                       " --name=app --children=2 --result=" + PathOf("result") + " >/dev/null 2>&1 &";
        ASSERT_EQ(std::system(strCommand.c_str()), 0);
        for (const char* szName : g_listszProcess)
        {
            Process& process = m_mapprocess[szName];
            const std::string strStart = PathOf("result/") + szName + ".start";
            ASSERT_TRUE(WaitFor([&] { return fs::exists(strStart); })) << szName;
            std::istringstream(ReadWhole(strStart)) >> process.iProcess >> process.iCollector >> process.strLog;
            process.strLog = Slashed(process.strLog);
            ASSERT_NE(process.iCollector, 0);
            ASSERT_TRUE(WaitFor([&] { return fs::exists(process.strLog) && fs::file_size(process.strLog) > 100000; }));
        }
    }
    void Stop(std::initializer_list<const char*> a_listszName) const
    {
        for (const char* szName : a_listszName)
            WriteWhole(PathOf("result/") + szName + ".stop", "");
    }
    void WaitForEnd(const char* a_szName)
    {
        if (!m_mapprocess[a_szName].vecuLogged.empty())
            return;
        const std::string strEnd = PathOf("result/") + a_szName + ".end";
        ASSERT_TRUE(WaitFor([&] { return fs::exists(strEnd); }, 60000)) << a_szName;
        std::istringstream stream(ReadWhole(strEnd));
        for (unsigned uLogged = 0; stream >> uLogged;)
            m_mapprocess[a_szName].vecuLogged.push_back(uLogged);
        ASSERT_EQ(m_mapprocess[a_szName].vecuLogged.size(), g_uThreads);
    }
    // Logs on for a while, then ends all and waits for the collector, so that its files are complete.
    void End()
    {
        PlatSleep(200);
        Stop(g_listszProcess);
        for (const char* szName : g_listszProcess)
            ASSERT_NO_FATAL_FAILURE(WaitForEnd(szName));
        EXPECT_TRUE(WaitFor([this] { return kill(Collector(), 0) != 0; }, 60000));
    }

    pid_t Collector() { return m_mapprocess["app"].iCollector; }

    // What the files of a process hold.
    struct Content
    {
        std::map<unsigned, std::vector<std::vector<unsigned>>> mapvecvecuLine;   // by thread and file
        std::vector<std::string> vecstrTorn;
        size_t sizetMissing = 0;   // lines that tell of missing bytes
    };
    static void ReadFile(const std::string& a_strFile, Content& a_content)
    {
        for (unsigned uThread = 0; uThread < g_uThreads; ++uThread)
            a_content.mapvecvecuLine[uThread].emplace_back();
        const std::string strText = ReadWhole(a_strFile);
        for (size_t sizetStart = 0, sizetEnd = 0; sizetStart < strText.size(); sizetStart = sizetEnd + 2)
        {
            sizetEnd = std::min(strText.find("\r\n", sizetStart), strText.size());
            const std::string strLine = strText.substr(sizetStart, sizetEnd - sizetStart);
            if (sizetEnd == strText.size() || !TakeLine(strLine, a_content))
                a_content.vecstrTorn.push_back(strLine);
        }
    }
    static bool TakeLine(const std::string& a_strLine, Content& a_content)
    {
        const size_t sizetMessage = a_strLine.find(" V", 60);
        if (a_strLine.size() < 80 || a_strLine.find_first_not_of("0123456789") < 5 || sizetMessage > 110)
            return false;
        a_content.sizetMissing += a_strLine.find(" bytes are missing here...") != std::string::npos;
        const size_t sizetChaos = a_strLine.find("chaos ", sizetMessage);
        if (sizetChaos == std::string::npos)
            return true;
        unsigned uThread = 0, uLine = 0;
        int iText = 0;
        if (std::sscanf(a_strLine.c_str() + sizetChaos, "chaos %u %u %n", &uThread, &uLine, &iText) != 2 ||
            uThread >= g_uThreads)
            return false;
        const std::string strText = a_strLine.substr(sizetChaos + static_cast<size_t>(iText));
        if (strText != std::string(uLine % 5 == 0 ? 3000 : 100, 'x') + ".")
            return false;
        a_content.mapvecvecuLine[uThread].back().push_back(uLine);
        return true;
    }

    struct Allowed
    {
        size_t sizetTorn = 0;
        size_t sizetLost = 0;
    };
    void ExpectEveryLine(const Allowed& a_allowed)
    {
        for (const char* szName : g_listszProcess)
            ExpectEveryLine(m_mapprocess[szName], a_allowed);
    }
    void ExpectEveryLine(const Process& a_process, const Allowed& a_allowed)
    {
        Content content;
        const std::string strOwn = a_process.strLog.substr(0, a_process.strLog.size() - 4) + "-own.log";
        ReadFile(a_process.strLog, content);
        ReadFile(strOwn, content);
        EXPECT_LE(content.vecstrTorn.size(), a_allowed.sizetTorn)
            << a_process.strLog << testing::PrintToString(content.vecstrTorn);
        size_t sizetLost = 0;
        for (const auto& [uThread, vecvecuLine] : content.mapvecvecuLine)
        {
            std::set<unsigned> setuLine;
            for (const std::vector<unsigned>& vecuLine : vecvecuLine)
            {
                EXPECT_TRUE(std::is_sorted(vecuLine.begin(), vecuLine.end())) << "out of order: " << a_process.strLog;
                for (const unsigned uLine : vecuLine)
                    EXPECT_TRUE(setuLine.insert(uLine).second) << uLine << " twice: " << a_process.strLog;
            }
            ASSERT_LT(uThread, a_process.vecuLogged.size());
            sizetLost += a_process.vecuLogged[uThread] - setuLine.size();
        }
        EXPECT_LE(sizetLost, a_allowed.sizetLost) << a_process.strLog;
        m_sizetLost += sizetLost;
        m_sizetMissing += content.sizetMissing;
    }

    std::map<std::string, Process> m_mapprocess;
    size_t m_sizetLost = 0;
    size_t m_sizetMissing = 0;
};

// One line of each process may be cut where it was given up: the collector has its beginning, the own file all of it.
static constexpr size_t g_sizetHandedOver = 1;

TEST_F(Chaos, CollectorThatStandsStillAndGoesOnCostsNoLine)
{
    const char* const szMilliseconds = getenv("TEST_STANDSTILL");
    ASSERT_NO_FATAL_FAILURE(Begin());
    kill(Collector(), SIGSTOP);
    PlatSleep(szMilliseconds ? static_cast<uint32_t>(std::atoi(szMilliseconds)) : 700);
    kill(Collector(), SIGCONT);
    ASSERT_NO_FATAL_FAILURE(End());
    ExpectEveryLine({g_sizetHandedOver, 0});
}

TEST_F(Chaos, CollectorThatIsGivenUpKeepsItsFile)
{
    ASSERT_NO_FATAL_FAILURE(Begin());
    kill(Collector(), SIGSTOP);
    const std::string strOwn = fs::path(m_mapprocess["app"].strLog).replace_filename("app-own.log").string();
    EXPECT_TRUE(WaitFor([&] { return fs::exists(strOwn); }));
    kill(Collector(), SIGCONT);
    ASSERT_NO_FATAL_FAILURE(End());
    ExpectEveryLine({g_sizetHandedOver, 0});
}

TEST_F(Chaos, ApplicationThatEndsFirstCostsItsChildrenNoLine)
{
    ASSERT_NO_FATAL_FAILURE(Begin());
    Stop({"app"});
    ASSERT_NO_FATAL_FAILURE(WaitForEnd("app"));
    PlatSleep(1500);
    ASSERT_NO_FATAL_FAILURE(End());
    ExpectEveryLine({g_sizetHandedOver, 0});
}

// What both ends of a connection hold is lost with a killed collector, also with one that stood still before.
TEST_F(Chaos, KilledCollectorLosesNoMoreThanIsOnItsWay)
{
    static constexpr size_t g_sizetBytesOnTheWay = 640 << 10, g_sizetAverageLine = 700;
    ASSERT_NO_FATAL_FAILURE(Begin());
    kill(Collector(), SIGSTOP);
    PlatSleep(1000);
    kill(Collector(), SIGKILL);
    ASSERT_NO_FATAL_FAILURE(End());
    ExpectEveryLine({1, g_sizetBytesOnTheWay / g_sizetAverageLine});
    std::printf("%zu lines were lost\n", m_sizetLost);
}

// A line that is sent in the very moment of the end may be lost.
TEST_F(Chaos, CollectorThatIsToldToEndLeavesTheFileToTheProcess)
{
    ASSERT_NO_FATAL_FAILURE(Begin());
    WriteWhole(PathOf("system/PROGRAMDATA/mvr_orvane/common/logcollector/flush"), "<cmd>exitall</cmd>");
    EXPECT_TRUE(WaitFor([this] { return kill(Collector(), 0) != 0; }));
    ASSERT_NO_FATAL_FAILURE(End());
    ExpectEveryLine({1, 400});
}

TEST_F(Chaos, RemovedFolderIsMadeAgainAndCleaningSparesThoseInUse)
{
    ASSERT_NO_FATAL_FAILURE(Begin());
    for (int i = 0; i < 5; ++i)
    {
        EXPECT_EQ(std::system((PathOf("bin/logcollector") + " --clean").c_str()), 0);
        EXPECT_TRUE(fs::exists(m_mapprocess["app2"].strLog));
    }
    const fs::path pathFolder = fs::path(m_mapprocess["app1"].strLog).parent_path();
    fs::rename(pathFolder, m_path / "moved");
    EXPECT_TRUE(WaitFor([&] { return fs::exists(m_mapprocess["app1"].strLog); }));
    ASSERT_NO_FATAL_FAILURE(End());
    ExpectEveryLine(m_mapprocess["app"], {});
    ExpectEveryLine(m_mapprocess["app2"], {});
    Content content;
    ReadFile(m_path / "moved/app1.log", content);
    ReadFile(m_mapprocess["app1"].strLog, content);
    EXPECT_LE(content.vecstrTorn.size(), 2u) << "one piece that ended in one file and went on in the other";
}

// Lines that the full disk refused are missing and nothing else: whole lines, and a line that says so, follow.
TEST_F(Chaos, FullDiskLosesWholeLinesAndSaysSo)
{
    const std::string strDisk = PathOf("system/LOCALAPPDATA");
    if (mount("none", strDisk.c_str(), "tmpfs", 0, "size=16m") != 0)
        GTEST_SKIP() << "only root can make a small disk";
    WriteWhole(strDisk + "/ballast", std::string(13 << 20, 'x'));
    Begin();
    EXPECT_TRUE(WaitFor([&] { return fs::space(strDisk).available == 0; }));
    PlatSleep(100);
    fs::remove(strDisk + "/ballast");
    End();
    ExpectEveryLine({50, 1000000});
    EXPECT_GT(m_sizetLost, 0u);
    EXPECT_GE(m_sizetMissing, 1u);
    umount2(strDisk.c_str(), MNT_DETACH);
}
