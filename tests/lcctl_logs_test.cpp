// lcctl_logs_test.cpp: what "lcctl logs" makes of the logs of real runs, and of logs written by hand.
#include "lcctl_support.h"

#include <csignal>
#include <cstdio>
#include <map>
#include <spawn.h>
#include <sstream>
#include <utime.h>

namespace fs = std::filesystem;

extern char** environ;

// A line of a log. Times are twelve digits.
static std::string Line(const std::string& a_strTime, const std::string& a_strMessage, char a_chLevel = '.',
                        const std::string& a_strSource = "os_test", const std::string& a_strThread = "0042")
{
    char szPrefix[256];
    std::snprintf(szPrefix, sizeof szPrefix, "00007 %s %-32s %5d %5d T%s S9 V%c ", a_strTime.c_str(),
                  a_strSource.c_str(), 12, -1, a_strThread.c_str(), a_chLevel);
    return szPrefix + a_strMessage + "\r\n";
}

// The first two lines of a header, of a process 42.
static std::string Header(const std::string& a_strTime, const std::string& a_strDate, const std::string& a_strProcess)
{
    const std::string strClock = a_strTime.substr(0, 2) + ":" + a_strTime.substr(2, 2) + ":" + a_strTime.substr(4, 2);
    return Line(a_strTime, "### (" + a_strDate + " " + strClock + "." + a_strTime.substr(6, 3) + ") Debug=0 x") +
           Line(a_strTime, "### systemInfo <arch:9 pid:" + a_strProcess + " pmem:1>");
}

static std::vector<std::string> LinesOf(const std::string& a_strText)
{
    std::vector<std::string> vecstr;
    std::istringstream stream(a_strText);
    for (std::string strLine; std::getline(stream, strLine);)
        vecstr.push_back(strLine);
    return vecstr;
}

class LcctlLogs : public LcctlTest
{
protected:
    LcctlLogs()
    {
        unsetenv("MVR_LOGDIR");
        setenv("TZ", "UTC", 1);
    }

    std::string Write(const std::string& a_strName, const std::string& a_strText) const
    {
        fs::create_directories(fs::path(PathOf(a_strName)).parent_path());
        WriteWhole(PathOf(a_strName), a_strText);
        return PathOf(a_strName);
    }
    // What is printed for a log, without its header.
    std::string Logs(const std::string& a_strArguments) const
    {
        const LcctlOutput lcctloutput = Lcctl("logs " + a_strArguments);
        EXPECT_EQ(lcctloutput.strError, "");
        std::string strText;
        for (const std::string& strLine : LinesOf(lcctloutput.strOutput))
            strText += strLine.find(" ### ") == std::string::npos ? strLine + "\n" : "";
        return strText;
    }
    void RunDemo(const std::string& a_strArguments) const
    {
        Shell(TEST_PROGRAMFOLDER "/demo_application " + a_strArguments);
    }
    // Of the newest run.
    fs::path LogOf(const std::string& a_strName) const
    {
        fs::path pathLog;
        for (const auto& entry : fs::recursive_directory_iterator(m_path / "system"))
            pathLog = std::max(pathLog, entry.path().filename() == a_strName + ".log" ? entry.path() : fs::path());
        return pathLog;
    }
};

// ------------------------------------------------------------------------------------------------------- real runs

// What the lines of a real log must become, by the columns of their prefixes.
static std::vector<std::string> Converted(const fs::path& a_pathLog, const std::string& a_strDay,
                                          std::string& a_strProcess)
{
    std::vector<std::string> vecstr;
    const std::string strText = ReadWhole(a_pathLog);
    a_strProcess = strText.substr(strText.find(" pid:") + 5);
    a_strProcess.erase(a_strProcess.find(' '));
    for (std::string strLine : LinesOf(strText))
    {
        strLine.erase(strLine.find_last_not_of('\r') + 1);
        if (!Contains(strLine, "^\\d{5,} \\d{12} .{32} ....\\d "))
        {
            vecstr.back() += "\n" + strLine;
            continue;
        }
        std::istringstream stream(strLine.substr(strLine.find(' ') + 1));
        std::string strTime, strSource, strNumber, strError, strThread, strS, strLevel, strMessage;
        stream >> strTime >> strSource >> strNumber >> strError >> strThread >> strS >> strLevel;
        std::getline(stream.ignore(), strMessage);
        const std::map<std::string, std::string> mapstrLevel{
            {"VE", "error"}, {"VA", "warning"}, {"VP", "milestone"}, {"V.", "note"}};
        vecstr.push_back(a_strDay + " " + strTime.substr(0, 2) + ":" + strTime.substr(2, 2) + ":" +
                         strTime.substr(4, 2) + "." + strTime.substr(6) + " " + a_strProcess + " " +
                         mapstrLevel.at(strLevel) + " " + strSource + ":" + strNumber + " " + strMessage);
    }
    return vecstr;
}

// Records of the output: lines without a date go with the one before.
static std::vector<std::string> Records(const std::string& a_strOutput)
{
    std::vector<std::string> vecstr;
    for (const std::string& strLine : LinesOf(a_strOutput))
    {
        if (Contains(strLine, "^\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{6} "))
            vecstr.push_back(strLine);
        else
            vecstr.back() += "\n" + strLine;
    }
    return vecstr;
}

TEST_F(LcctlLogs, RunWithChildrenIsMergedByTimeLineForLine)
{
    RunDemo("--name=stranger --lines=1");
    RunDemo("--name=viewer --children=2 --victims=1 --lines=2500");   // logs larger than what is read at once
    const LcctlOutput lcctloutput = Lcctl("logs --app=viewer");
    EXPECT_EQ(lcctloutput.iExit, 0) << lcctloutput.strError;
    const std::vector<std::string> vecstr = Records(lcctloutput.strOutput);
    ASSERT_GT(vecstr.size(), 30000u);
    const std::string strDay = vecstr[0].substr(0, 10);
    size_t sizetAll = 0;
    for (const char* szName : {"viewer", "viewerchild1", "viewerchild2", "viewervictim3"})
    {
        std::string strProcess;
        const std::vector<std::string> vecstrExpected = Converted(LogOf(szName), strDay, strProcess);
        std::vector<std::string> vecstrOfProcess;
        std::copy_if(vecstr.begin(), vecstr.end(), std::back_inserter(vecstrOfProcess), [&](const std::string& a_str) {
            return a_str.compare(27, strProcess.size() + 1, strProcess + " ") == 0;
        });
        EXPECT_TRUE(vecstrOfProcess == vecstrExpected) << szName << " " << strProcess;
        sizetAll += vecstrExpected.size();
    }
    EXPECT_EQ(sizetAll, vecstr.size()) << "there are lines of others";
    std::map<std::string, std::string> mapstrKey;   // of a process: its latest time
    std::string strLatest;
    for (const std::string& str : vecstr)
    {
        std::string& strKey = mapstrKey[str.substr(27, str.find(' ', 27) - 27)];
        strKey = std::max(strKey, str.substr(0, 26));   // its threads may write a little out of order
        ASSERT_GE(strKey, strLatest) << str;
        strLatest = strKey;
    }
}

TEST_F(LcctlLogs, RunsAreListedAndTheNewestIsChosen)
{
    RunDemo("--name=viewer --lines=1");
    const fs::path pathFirst = LogOf("viewer");
    RunDemo("--name=viewer --lines=2 --children=1");
    const std::string strPaths = Shell(LcctlProgram() + " logs --app=viewer --paths");
    EXPECT_EQ(LinesOf(strPaths).size(), 3u) << strPaths;
    EXPECT_EQ(LinesOf(strPaths)[0], pathFirst.string());
    const std::string strNewest = Shell(LcctlProgram() + " logs --app=viewer --last-run --paths");
    EXPECT_EQ(LinesOf(strNewest).size(), 2u) << strNewest;
    EXPECT_EQ(strNewest.find(pathFirst.string()), std::string::npos) << strNewest;
    const std::string strList = Shell(LcctlProgram() + " logs --list");
    EXPECT_TRUE(Contains(strList, "^20\\d\\d-.* \\d+ +[0-9.]+[BK] viewer +" + pathFirst.parent_path().string() + "$"))
        << strList;
    EXPECT_TRUE(Contains(strList, " viewerchild1 ")) << strList;
}

// --------------------------------------------------------------------------------------------------- days and files

TEST_F(LcctlLogs, DaysAreCountedOverMidnightsAndSetByEachRun)
{
    const std::string strLog =
        Write("a.log", Header("235959000000", "2026/12/30", "42") + Line("235959999999", "before midnight") +
                           Line("000000000001", "behind it") + Line("235959999998", "late by a thread") +
                           Line("000000000002", "goes on") + "of two\nlines\r\n" + Line("180000000000", "evening") +
                           Line("175957000000", "a clock that was set") + Line("090000000000", "next morning") +
                           Line("000000000000", "and the next") + Header("080000000000", "2026/03/01", "43") +
                           Line("080001000000", "second run") + "00008 080002000000 os_te");
    EXPECT_EQ(Logs(strLog), "2026-12-30 23:59:59.999999 42 note os_test:12 before midnight\n"
                            "2026-12-31 00:00:00.000001 42 note os_test:12 behind it\n"
                            "2026-12-30 23:59:59.999998 42 note os_test:12 late by a thread\n"
                            "2026-12-31 00:00:00.000002 42 note os_test:12 goes on\n"
                            "of two\nlines\n"
                            "2026-12-31 18:00:00.000000 42 note os_test:12 evening\n"
                            "2026-12-31 17:59:57.000000 42 note os_test:12 a clock that was set\n"
                            "2027-01-01 09:00:00.000000 42 note os_test:12 next morning\n"
                            "2027-01-02 00:00:00.000000 42 note os_test:12 and the next\n"
                            "2026-03-01 08:00:01.000000 43 note os_test:12 second run\n"
                            "00008 080002000000 os_te\n");   // torn when it was killed
    setenv("TZ", "Europe/Berlin", 1);
    const std::string strSummer =
        Write("b.log", Header("025900000000", "2026/10/25", "42") + Line("020000000000", "an hour twice") +
                           Line("003000000000", "next"));
    EXPECT_EQ(Logs(strSummer), "2026-10-25 02:00:00.000000 42 note os_test:12 an hour twice\n"
                               "2026-10-26 00:30:00.000000 42 note os_test:12 next\n");
}

// The first goes on in another file, without a header; a forked child has one with its number.
TEST_F(LcctlLogs, LogsBesideALogAreMergedWithIt)
{
    const std::string strLog =
        Write("demo.log", Header("100000000000", "2026/05/05", "42") + Line("100001000000", "one"));
    const std::string strOwn =
        Write("demo-own.log", Line("235900000000", "own", 'E') + Line("000100000000", "own again"));
    const std::string strFork = Write("demo-77.log", Line("100000500000", "forked"));
    Write("demonstration.log", Line("100000500000", "a stranger"));
    const utimbuf utimbufOwn{0, 1778112090};    // 2026-05-07 00:01:30
    const utimbuf utimbufFork{0, 1777975205};   // 2026-05-05 10:00:05
    ASSERT_EQ(utime(strOwn.c_str(), &utimbufOwn) + utime(strFork.c_str(), &utimbufFork), 0);
    EXPECT_EQ(Logs(strLog), "2026-05-05 10:00:00.500000 77 note os_test:12 forked\n"
                            "2026-05-05 10:00:01.000000 42 note os_test:12 one\n"
                            "2026-05-06 23:59:00.000000 42 error os_test:12 own\n"
                            "2026-05-07 00:01:00.000000 42 note os_test:12 own again\n");
}

// --------------------------------------------------------------------------------------------------------- filters

TEST_F(LcctlLogs, FiltersChooseRecordsWithTheirFurtherLines)
{
    const std::string strLog = Write(
        "a.log", Header("100000000000", "2026/05/05", "42") +
                     Line("100001000000", "first\r\nSecond line", 'E', "os/source/os_cosfile") +
                     Line("100002000000", "check", 'A', "os_cosstring", "0007") + Line("100003000000", "stone", 'P') +
                     Line("100004000000", "note") + Line("000000000000", "tomorrow", '.', "os_cosmem"));
    const std::vector<std::pair<std::string, std::string>> vecpair{
        {"--level=error", "first"},
        {"-p a", "first check"},
        {"--level=warning..milestone", "check stone"},
        {"--source=os_cosfile,os_cosmem", "first tomorrow"},
        {"--not-source='os_cos*' --level=milestone", "stone"},
        {"--thread=7", "check"},
        {"--grep='second L'", ""},
        {"--grep='second l'", "first"},
        {"--grep='^(note|check)$'", "check note"},
        {"--since='2026-05-05 10:00:03'", "stone note tomorrow"},
        {"--since='2026-05-05 10:00:02' --until='2026-05-05 10:00:03'", "check stone"},
        {"--since=2026-05-06", "tomorrow"},
        {"--until='200 weeks ago'", ""},
        {"-n 2", "note tomorrow"},
    };
    for (const auto& [strArguments, strExpected] : vecpair)
    {
        const LcctlOutput lcctloutput = Lcctl("logs " + strLog + " " + strArguments);
        std::string strMessages;
        for (const std::string& strLine : LinesOf(lcctloutput.strOutput))
        {
            const size_t sizet = strLine.find(":12 ");
            if (strLine.find("###") == std::string::npos && sizet != std::string::npos)
                strMessages += (strMessages.empty() ? "" : " ") + strLine.substr(sizet + 4);
        }
        EXPECT_EQ(strMessages, strExpected) << strArguments << lcctloutput.strError;
        EXPECT_EQ(lcctloutput.iExit, strExpected.empty() ? 1 : 0) << strArguments;
        EXPECT_EQ(lcctloutput.strOutput.find("Second") != std::string::npos, strExpected.rfind("first", 0) == 0);
    }
    EXPECT_EQ(
        Lcctl("logs --json --level=error " + strLog).strOutput,
        "{\"file\":\"" + strLog +
            "\",\"lasterror\":-1,\"level\":\"error\",\"line\":12,\"message\":\"first\\nSecond line\",\"number\":7,"
            "\"pid\":42,\"source\":\"os/source/os_cosfile\",\"thread\":42,\"time\":\"2026-05-05T10:00:01.000000\"}\n");
}

TEST_F(LcctlLogs, WrongUseIsToldInOneLineWithACure)
{
    const std::string strLog = Write("a.log", Header("100000000000", "2026/05/05", "42"));
    const std::vector<std::pair<std::string, std::string>> vecpair{
        {"--since=noon", "today, yesterday"}, {"--until='-1 fortnight'", "2 hours ago"},
        {"--level=loud", "milestone"},        {"--grep='('", "backslash"},
        {"--thread=x", "no number"},          {"--nonsense", "--nonsense"},
        {"--since=2026-02-30", "write"},      {"-n some", "no number"}};
    for (const auto& [strArguments, strCure] : vecpair)
    {
        const LcctlOutput lcctloutput = Lcctl("logs " + strLog + " " + strArguments);
        EXPECT_EQ(lcctloutput.iExit, 2) << strArguments;
        EXPECT_EQ(lcctloutput.Lines(), 1) << lcctloutput.strError;
        EXPECT_NE(lcctloutput.strError.find(strCure), std::string::npos) << lcctloutput.strError;
        EXPECT_EQ(lcctloutput.strOutput, "");
    }
    for (const char* szArguments : {"--app=nobody", "/nowhere", "", "--list"})
    {
        const LcctlOutput lcctloutput = Lcctl(std::string("logs ") + szArguments);
        EXPECT_EQ(lcctloutput.iExit, 1) << szArguments;
        EXPECT_EQ(lcctloutput.Lines(), 1) << lcctloutput.strError;
    }
    const int iStatus =
        std::system((LcctlProgram() + " logs " + strLog + " >/dev/full 2>'" + PathOf("error") + "'").c_str());
    EXPECT_EQ(WEXITSTATUS(iStatus), 1);
    EXPECT_NE(ReadWhole(PathOf("error")).find("No space left"), std::string::npos);
}

// ---------------------------------------------------------------------------------------------------- hostile bytes

TEST_F(LcctlLogs, HostileBytesDoNoHarm)
{
    const std::string strNul("\0", 1);
    const std::string strEvil = "\x1B]0;title\x07 \xC2\x9B"
                                "31m \xFF\xFE" +
                                strNul +
                                " \x9B"
                                "2J \xE2\x9C\x93 grün";
    const std::string strLong(9 << 20, 'x');
    const std::string strLog = Write("a.log", "begins in the middle\r\n" + Header("100000000000", "2026/05/05", "42") +
                                                  Line("100001000000", strEvil) + Line("996199999999", "no time") +
                                                  "00009 100001000000 short\r\n" + Line("100002000000", strLong) +
                                                  Line("100003000000", "behind it"));
    const std::string strOutput = Logs(strLog);
    EXPECT_EQ(strOutput.find("begins in the middle\n"), 0u);
    EXPECT_NE(strOutput.find(" os_test:12 " + strEvil + "\n00007 996199999999 "), std::string::npos);
    EXPECT_EQ(static_cast<size_t>(std::count(strOutput.begin(), strOutput.end(), 'x')), strLong.size());
    EXPECT_NE(strOutput.find("\n2026-05-05 10:00:03.000000 42 note os_test:12 behind it\n"), std::string::npos);
    const std::string strJson = Lcctl("logs --json --until='2026-05-05 10:00:01.5' " + strLog).strOutput;
    EXPECT_NE(strJson.find("\\u001b]0;title\\u0007"), std::string::npos) << strJson;
    EXPECT_EQ(LinesOf(strJson).size(), 3u);
    const std::string strTerminal =
        Shell("script -qec '" + LcctlProgram() + " logs --grep=title " + strLog + "' /dev/null");
    EXPECT_NE(strTerminal.find("\\x1B]0;title\\x07 \\xC2\\x9B31m \xFF\xFE\\x00 \\x9B2J \xE2\x9C\x93 grün"),
              std::string::npos)
        << strTerminal;
}

// ---------------------------------------------------------------------------------------------------------- follow

// lcctl in the background, until the end of the case.
class Followed
{
public:
    Followed(const std::string& a_strArguments, const fs::path& a_pathOutput) : m_pathOutput(a_pathOutput)
    {
        const std::string strCommand =
            "exec " + LcctlProgram() + " logs -f " + a_strArguments + " >'" + a_pathOutput.string() + "' 2>&1";
        const char* const aszArgument[] = {"sh", "-c", strCommand.c_str(), nullptr};
        EXPECT_EQ(posix_spawn(&m_pid, "/bin/sh", nullptr, nullptr, const_cast<char* const*>(aszArgument), environ), 0);
    }
    ~Followed()
    {
        if (m_pid > 0)
            kill(m_pid, SIGTERM);
        waitpid(m_pid, nullptr, 0);
    }
    Followed(const Followed&) = delete;
    Followed& operator=(const Followed&) = delete;

    bool Shows(const std::string& a_strText) const
    {
        return WaitFor([&] { return ReadWhole(m_pathOutput).find(a_strText) != std::string::npos; });
    }
    std::string Output() const { return ReadWhole(m_pathOutput); }

private:
    fs::path m_pathOutput;
    pid_t m_pid = -1;
};

static void Append(const fs::path& a_path, const std::string& a_strText)
{
    std::ofstream(a_path, std::ios::binary | std::ios::app) << a_strText;
}

TEST_F(LcctlLogs, FollowedLogShowsWhatIsAddedCutAndReplaced)
{
    std::string strLines;
    for (int i = 10; i < 40; ++i)
        strLines += Line("1000" + std::to_string(i) + "000000", "old " + std::to_string(i));
    const std::string strLog = Write("demo.log", Header("100000000000", "2026/05/05", "42") + strLines);
    const Followed followed(strLog, PathOf("output"));
    ASSERT_TRUE(followed.Shows("old 39\n"));
    EXPECT_EQ(LinesOf(followed.Output()).size(), 10u) << followed.Output();
    EXPECT_EQ(LinesOf(followed.Output())[0], "2026-05-05 10:00:30.000000 42 note os_test:12 old 30");
    const std::string strTorn = Line("100100000000", "comes in two pieces");
    Append(strLog, strTorn.substr(0, strTorn.size() - 9));
    Append(PathOf("demo-own.log"), Line("100101000000", "goes on beside it"));
    ASSERT_TRUE(followed.Shows(" 42 note os_test:12 goes on beside it\n"));
    Append(strLog, strTorn.substr(strTorn.size() - 9));
    ASSERT_TRUE(followed.Shows("2026-05-05 10:01:00.000000 42 note os_test:12 comes in two pieces\n"));
    fs::resize_file(strLog, 0);
    Append(strLog, Line("100200000000", "behind the cut"));
    ASSERT_TRUE(followed.Shows("2026-05-05 10:02:00.000000 42 note os_test:12 behind the cut\n"));
    fs::rename(strLog, PathOf("demo.log.1"));
    WriteWhole(strLog, Header("090000000000", "2026/05/06", "43") + strLines + Line("110000000000", "in a new file"));
    ASSERT_TRUE(followed.Shows("2026-05-06 11:00:00.000000 43 note os_test:12 in a new file\n"));
}

TEST_F(LcctlLogs, FollowShowsOnlyNewRunsAndTheirChildren)
{
    RunDemo("--name=viewer --lines=1");
    const Followed followed("--app=viewer", PathOf("output"));
    ASSERT_TRUE(followed.Shows("delete-object"));
    RunDemo("--name=stranger --lines=1");
    RunDemo("--name=viewer --children=1 --lines=1");
    ASSERT_TRUE(followed.Shows("### log <" + Backslashed(LogOf("viewerchild1")) + ">")) << followed.Output();
    ASSERT_TRUE(followed.Shows("### log <" + Backslashed(LogOf("viewer")) + ">")) << followed.Output();
    EXPECT_EQ(followed.Output().find("stranger.log"), std::string::npos);
}

// ------------------------------------------------------------------------------------------------------------ lnav

TEST_F(LcctlLogs, LnavDatesMergedAndRawLogs)
{
    if (std::system("lnav -V >/dev/null 2>&1") != 0)
        GTEST_SKIP() << "lnav is not installed";
    const std::string strLog =
        Write("a.log", Header("100000000000", "2026/05/05", "42") + Line("235959000000", "bad\r\nmore of it", 'E') +
                           Line("000001000000", "checked", 'A', "os_cosstring"));
    const utimbuf utimbufLog{0, 1778025620};   // 2026-05-06 00:00:20
    ASSERT_EQ(utime(strLog.c_str(), &utimbufLog), 0);
    const fs::path pathFormats = m_path / ".config/lnav/formats/installed";
    fs::create_directories(pathFormats);
    setenv("HOME", m_path.c_str(), 1);
    const std::string strQuery =
        "lnav -n -c ';select log_time, log_level, log_format, %s from all_logs where log_line > 1' "
        "-c ':write-csv-to -' ";
    const auto ask = [&](const std::string& a_strInput, const std::string& a_strField) {
        std::string strCommand = strQuery;
        strCommand.replace(strCommand.find("%s"), 2, a_strField);
        return Shell(strCommand + a_strInput);
    };
    const std::string strMerged = PathOf("merged");
    Shell(LcctlProgram() + " logs " + strLog + " | tee " + strMerged);
    const std::string strBuiltIn = ask(strMerged, "log_line");
    EXPECT_NE(strBuiltIn.find("2026-05-05 23:59:59.000,error,"), std::string::npos) << strBuiltIn;
    EXPECT_NE(strBuiltIn.find("2026-05-06 00:00:01.000,warning,"), std::string::npos) << strBuiltIn;

    fs::copy_file(TEST_SOURCEFOLDER "/lcctl/lnav/logcollector.json", pathFormats / "logcollector.json");
    for (const auto& [strInput, strFormat] :
         {std::pair{strMerged, "logcollector_merged_log"}, std::pair{strLog, "logcollector_log"}})
    {
        const std::string strText = ask(strInput, "log_body");
        EXPECT_TRUE(Contains(strText, std::string("2026-05-05 23:59:59.000,error,") + strFormat + ",\"bad")) << strText;
        EXPECT_TRUE(Contains(strText, "^more of it\"")) << strText;
        EXPECT_TRUE(Contains(strText, std::string("2026-05-06 00:00:01.000,warning,") + strFormat + ",checked$"))
            << strText;
    }
}
