// application_test.cpp: whole applications: several processes and threads that log through their collector, and what is
// left in the logs when one of them is killed.
//
// TEST_ROUNDS is how often the cases that kill do so.
#include "collector_support.h"

#include <cstdio>
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
    size_t sizetLines;
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
        FILE* const pfile = popen((PathOf("bin/demo_application") + " " + a_strArguments).c_str(), "r");
        for (LoggedProcess loggedprocess; Next(pfile, &loggedprocess);)
            vecloggedprocess.push_back(loggedprocess);
        EXPECT_EQ(pclose(pfile), 0);
        return vecloggedprocess;
    }

    // What a log holds. A message may have line feeds of its own; a line ends with CR LF and begins with its number.
    struct Content
    {
        std::vector<size_t> vecsizetNumber;
        size_t sizetSaid = 0;                  // lines that say what was logged
        std::vector<std::string> vecstrTorn;   // lines that are not as they have to be
    };
    static bool Take(Content& a_content, const std::string& a_strLine)
    {
        char* szEnd = nullptr;
        const size_t sizetNumber = strtoul(a_strLine.c_str(), &szEnd, 10);
        if (szEnd - a_strLine.c_str() < 5 || *szEnd != ' ' || a_strLine.size() < 60)
            return false;
        a_content.sizetSaid += a_strLine.find(" says line ") != std::string::npos;
        a_content.vecsizetNumber.push_back(sizetNumber);
        return true;
    }
    static Content Read(const std::string& a_strLog)
    {
        Content content;
        const std::string strLog = ReadWhole(a_strLog);
        for (size_t sizetStart = 0, sizetEnd = 0; sizetStart < strLog.size(); sizetStart = sizetEnd + 2)
        {
            sizetEnd = strLog.find("\r\n", sizetStart);
            const std::string strLine = strLog.substr(sizetStart, sizetEnd - sizetStart);
            if (sizetEnd == std::string::npos || !Take(content, strLine))
                content.vecstrTorn.push_back(strLine);
            if (sizetEnd == std::string::npos)
                break;
        }
        return content;
    }
    static void ExpectWhole(const LoggedProcess& a_loggedprocess)
    {
        const bool blKilled = a_loggedprocess.strEnd == "killed";
        EXPECT_EQ(a_loggedprocess.strEnd, blKilled ? "killed" : "collected") << a_loggedprocess.strName;
        Content content;
        EXPECT_TRUE(WaitFor([&] {
            content = Read(a_loggedprocess.strLog);
            return content.sizetSaid >= a_loggedprocess.sizetLines && content.vecstrTorn.empty();
        })) << a_loggedprocess.strName
            << ": " << content.sizetSaid << " lines, torn: " << testing::PrintToString(content.vecstrTorn);
        EXPECT_TRUE(blKilled || content.sizetSaid == a_loggedprocess.sizetLines) << a_loggedprocess.strName;
        std::sort(content.vecsizetNumber.begin(), content.vecsizetNumber.end());
        for (size_t sizet = 0; sizet < content.vecsizetNumber.size(); ++sizet)
            ASSERT_EQ(content.vecsizetNumber[sizet], sizet) << a_loggedprocess.strName;
    }
};

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
