// application_test.cpp: whole applications: several processes and threads that log through their collector, and what is
// left in the logs when one of them, or the collector, is killed.
//
// TEST_ROUNDS is how often the cases that kill do so.
#include "collector_support.h"

#include <csignal>
#include <cstdio>
#include <set>
#include <sstream>

namespace fs = std::filesystem;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
static constexpr int g_iLines = 200;
#else
static constexpr int g_iLines = 5000;
#endif

// What the application told of one of its processes.
struct LoggedProcess
{
    std::string strName;
    std::string strLog;
    size_t sizetLines;   // or the process id of the collector
    std::string strEnd;
};

// An application that is installed beside its collector, in a folder whose name does not matter.
class Application : public FolderTest
{
protected:
    Application()
    {
        fs::create_directory(m_path / "bin");
        for (const char* szProgram : {"logcollector", "demo_application"})
            fs::copy_file(ProgramPath(szProgram), m_path / "bin" / szProgram);
    }

    static size_t Rounds()
    {
        const char* const szRounds = getenv("TEST_ROUNDS");
        return szRounds ? strtoul(szRounds, nullptr, 10) : 5;
    }

    FILE* Begin(const std::string& a_strArguments) const
    {
        return popen((PathOf("bin/demo_application") + " " + a_strArguments).c_str(), "r");
    }
    static bool Next(FILE* a_pfile, LoggedProcess* a_ploggedprocess)
    {
        char szLine[2048];
        if (!fgets(szLine, sizeof szLine, a_pfile))
            return false;
        std::istringstream stream(szLine);
        stream >> a_ploggedprocess->strName >> a_ploggedprocess->strLog >> a_ploggedprocess->sizetLines >>
            a_ploggedprocess->strEnd;
        std::replace(a_ploggedprocess->strLog.begin(), a_ploggedprocess->strLog.end(), '\\', '/');
        return !stream.fail();
    }
    // Runs an application to its end.
    std::vector<LoggedProcess> Run(const std::string& a_strArguments) const
    {
        std::vector<LoggedProcess> vecloggedprocess;
        FILE* const pfile = Begin(a_strArguments);
        for (LoggedProcess loggedprocess; Next(pfile, &loggedprocess);)
            vecloggedprocess.push_back(loggedprocess);
        EXPECT_EQ(pclose(pfile), 0);
        return vecloggedprocess;
    }

    // The numbers of a log's lines in their order, with every line as it has to be, and how many say what was logged.
    static std::vector<size_t> Numbers(const std::string& a_strLog, size_t* a_psizetSaid)
    {
        std::vector<size_t> vecsizet;
        *a_psizetSaid = 0;
        const std::string strLog = ReadWhole(a_strLog);
        for (size_t sizetStart = 0, sizetEnd = 0; sizetStart < strLog.size(); sizetStart = sizetEnd + 2)
        {
            sizetEnd = strLog.find("\r\n", sizetStart);
            const std::string strLine = strLog.substr(sizetStart, sizetEnd - sizetStart);
            char* szEnd = nullptr;
            vecsizet.push_back(strtoul(strLine.c_str(), &szEnd, 10));
            const bool blWhole = sizetEnd != std::string::npos && szEnd - strLine.c_str() >= 5 && *szEnd == ' ' &&
                                 strLine.find_first_of("\r\n") == std::string::npos;
            EXPECT_TRUE(blWhole) << a_strLog << ": " << strLine;
            if (!blWhole)
                return vecsizet;
            *a_psizetSaid += strLine.find(" says line ") != std::string::npos ? 1 : 0;
        }
        return vecsizet;
    }
    static void ExpectWhole(const LoggedProcess& a_loggedprocess)
    {
        const bool blKilled = a_loggedprocess.strEnd == "killed";
        EXPECT_EQ(a_loggedprocess.strEnd, blKilled ? "killed" : "collected") << a_loggedprocess.strName;
        size_t sizetSaid = 0;
        std::vector<size_t> vecsizet;
        const auto isComplete = [&] {
            vecsizet = Numbers(a_loggedprocess.strLog, &sizetSaid);
            return sizetSaid >= a_loggedprocess.sizetLines;
        };
        EXPECT_TRUE(WaitFor(isComplete)) << a_loggedprocess.strName << ": " << sizetSaid;
        EXPECT_TRUE(blKilled || sizetSaid == a_loggedprocess.sizetLines) << a_loggedprocess.strName;
        for (size_t sizet = 0; sizet < vecsizet.size(); ++sizet)
            ASSERT_EQ(vecsizet[sizet], sizet) << a_loggedprocess.strName;
    }
};

TEST_F(Application, EveryLineOfEveryProcessIsInItsFile)
{
    const std::vector<LoggedProcess> vecloggedprocess = Run("--children=3 --victims=1 --lines=500");
    EXPECT_EQ(vecloggedprocess.size(), 5u);
    for (const LoggedProcess& loggedprocess : vecloggedprocess)
        ExpectWhole(loggedprocess);
}

TEST_F(Application, ManyProcessesLogAtOnceWhileTheirLogsAreFlushed)
{
    std::atomic<bool> blEnded{false};
    std::thread thread([&] {
        const std::string strFlush = PathOf("system/PROGRAMDATA/mvr_orvane/common/logcollector/flush");
        for (size_t sizet = 0; !blEnded.load(); ++sizet)
        {
            if (fs::exists(strFlush))
                WriteWhole(strFlush, "<cmd>flush</cmd>" + std::string(sizet % 64, ' '));
            PlatSleep(10);
        }
    });
    const std::vector<LoggedProcess> vecloggedprocess =
        Run("--children=31 --threads=4 --lines=" + std::to_string(g_iLines));
    blEnded = true;
    thread.join();
    EXPECT_EQ(vecloggedprocess.size(), 32u);
    for (const LoggedProcess& loggedprocess : vecloggedprocess)
        ExpectWhole(loggedprocess);
}

TEST_F(Application, AKilledProcessLeavesEveryLineWhoseCallReturned)
{
    for (size_t sizetRound = 0; sizetRound < Rounds(); ++sizetRound)
    {
        for (const LoggedProcess& loggedprocess : Run("--victims=4 --lines=1"))
            ExpectWhole(loggedprocess);
    }
}

// What the system had taken for the collector, and the collector had not written yet, is lost with it; nothing else.
TEST_F(Application, AKilledCollectorIsReplacedByTheOwnFile)
{
    size_t sizetMissing = 0;
    size_t sizetMost = 0;
    for (size_t sizetRound = 0; sizetRound < Rounds(); ++sizetRound)
    {
        FILE* const pfile = Begin("--tell-collector --threads=4 --lines=2000");
        LoggedProcess collector;
        LoggedProcess loggedprocess;
        ASSERT_TRUE(Next(pfile, &collector));
        PlatSleep(static_cast<uint32_t>(sizetRound % 20));
        kill(static_cast<pid_t>(collector.sizetLines), SIGKILL);
        ASSERT_TRUE(Next(pfile, &loggedprocess));
        EXPECT_EQ(pclose(pfile), 0);

        size_t sizetSaid = 0;
        const std::vector<size_t> vecsizet = Numbers(loggedprocess.strLog, &sizetSaid);
        const std::set<size_t> setsizet(vecsizet.begin(), vecsizet.end());
        EXPECT_EQ(setsizet.size(), vecsizet.size()) << "a line is there twice";
        const size_t sizetLost = *setsizet.rbegin() + 1 - setsizet.size();
        EXPECT_LE(loggedprocess.sizetLines - sizetSaid, sizetLost);
        sizetMissing += sizetLost;
        sizetMost = std::max(sizetMost, sizetLost);
    }
    RecordProperty("lost", static_cast<int>(sizetMissing));
    std::printf("%zu collectors killed: %zu lines lost with them, %zu at most at once\n", Rounds(), sizetMissing,
                sizetMost);
}
