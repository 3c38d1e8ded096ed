// forward_test.cpp: the configurations of share/forward, run by the daemons that they are for: a sender and a central
// host as two processes of this machine, and a reader.
//
// The daemons are those of this machine, or unpacked below build/peers; without them the cases are skipped.
#include "collector_support.h"

#include <cstring>
#include <ctime>
#include <regex>
#include <set>
#include <sstream>

namespace fs = std::filesystem;

static constexpr char g_szPeers[] = TEST_SOURCEFOLDER "/build/peers";
static constexpr char g_szForward[] = TEST_SOURCEFOLDER "/share/forward";
static constexpr uint32_t g_u32Patience = 60000;   // ms

// The installed file, else the unpacked one; "" for neither.
static std::string Installed(const std::string& a_strPath)
{
    for (const std::string& strRoot : {std::string(), std::string(g_szPeers)})
    {
        if (fs::exists(strRoot + a_strPath))
            return strRoot + a_strPath;
    }
    return "";
}

// A record begins with its number, and ends where the next one begins.
static std::vector<std::string> RecordsOf(const std::string& a_strLog)
{
    static const std::regex g_regex("(^|\n)(?=[0-9]{5,} [0-9]{12} )");
    std::vector<std::string> vecstr(std::sregex_token_iterator(a_strLog.begin(), a_strLog.end(), g_regex, -1), {});
    std::erase(vecstr, "");
    return vecstr;
}

// A daemon that ends with this process, whatever happens.
class Daemon
{
public:
    bool Start(std::vector<std::string> a_vecstrCommand)
    {
        a_vecstrCommand.insert(a_vecstrCommand.begin(), {"--pdeathsig", "KILL"});
        m_uniqueProcess = std::make_unique<CollectorProcess>();
        return m_uniqueProcess->Start("/usr/bin/setpriv", a_vecstrCommand);
    }
    void Kill() { m_uniqueProcess.reset(); }
    uint64_t ProcessId() const { return m_uniqueProcess->ProcessId(); }

private:
    std::unique_ptr<CollectorProcess> m_uniqueProcess;
};

class Forward : public FolderTest
{
protected:
    using Logs = std::map<std::string, std::string>;   // text by path below the folder of all logs

    Forward()
    {
        for (const char* szFolder : {"bin", "sender", "central", "collected"})
            fs::create_directory(m_path / szFolder);
        for (const char* szProgram : {"logcollector", "demo_application"})
            fs::copy_file(ProgramPath(szProgram), m_path / "bin" / szProgram);
    }

    static std::string LogPart(const std::string& a_strLog) { return "system/LOCALAPPDATA/mvr_orvane/" + a_strLog; }
    std::string LogRoot() const { return PathOf("system/LOCALAPPDATA/mvr_orvane"); }

    static bool IsRunning(const std::string& a_strProcess)
    {
        const std::string strState = ReadWhole("/proc/" + a_strProcess + "/stat");
        return !strState.empty() && strState.find(") Z ") == std::string::npos;
    }

    // Five logs, each of a process in a log folder of its own; the last process is killed. They are complete when their
    // collector has ended.
    void RunApplication(const std::string& a_strName) const
    {
        const std::string strOutput = PathOf("output");
        const std::string strCommand = PathOf("bin/demo_application") + " --tell-collector --children=3 --victims=1" +
                                       " --lines=100 --name=" + a_strName + " >" + strOutput;
        ASSERT_EQ(std::system(strCommand.c_str()), 0);
        std::string strCollector;
        std::string strSkip;
        std::ifstream(strOutput) >> strSkip >> strSkip >> strCollector;
        ASSERT_TRUE(WaitFor([&] { return !IsRunning(strCollector); })) << strCollector;
    }
    Logs ReadLogs() const
    {
        Logs logs;
        for (const auto& entry : fs::recursive_directory_iterator(LogRoot()))
        {
            if (entry.path().extension() == ".log")
                logs[fs::relative(entry.path(), LogRoot())] = ReadWhole(entry.path());
        }
        return logs;
    }
};

// ------------------------------------------------------------------------------------------------- what a record is

// The expressions of docs/log-format.md, as grep takes them, and the example there.
TEST_F(Forward, TheDescribedFormatIsThatOfALog)
{
    const std::string strDocument = ReadWhole(TEST_SOURCEFOLDER "/docs/log-format.md");
    const auto described = [&](const std::string& a_strLine) {
        const size_t sizetStart = strDocument.find("    ^" + a_strLine) + 4;
        return strDocument.substr(sizetStart, strDocument.find('\n', sizetStart) - sizetStart);
    };
    const std::string strPrefix = described("[0-9]{5,} [0-9]{12} .{32}");
    const std::string strBegin = described("[0-9]{5,} [0-9]{12} \n");
    for (const char* szFile : {"rsyslog-sender.conf", "syslog-ng-source.conf"})
        EXPECT_NE(ReadWhole(std::string(g_szForward) + "/" + szFile).find('"' + strBegin + '"'), std::string::npos);

    RunApplication("viewer");
    Logs logs = ReadLogs();
    logs["the example"] = std::regex_replace(strDocument.substr(strDocument.find("## An example")),
                                             std::regex("^[^]*?\n    (?=[0-9]{5} )|\n    "), "\n");
    const std::regex regexPrefix(strPrefix);
    for (const auto& [strLog, strText] : logs)
    {
        const std::vector<std::string> vecstrRecord = RecordsOf(strText);
        EXPECT_GT(vecstrRecord.size(), 10u) << strLog;
        for (const std::string& strRecord : vecstrRecord)
            ASSERT_TRUE(std::regex_search(strRecord.substr(0, 128), regexPrefix)) << strLog << ": " << strRecord;
    }
}

// ------------------------------------------------------------------------------------------ a sender, a central host

class ForwardRsyslog : public Forward
{
protected:
    void SetUp() override
    {
        if (Installed("/usr/sbin/rsyslogd").empty() || ModuleFolder().empty() || !fs::exists("/usr/bin/openssl"))
            GTEST_SKIP() << "needs rsyslogd with its RELP modules, and openssl";
        MakeCertificates();
        const std::string strPort = std::to_string(m_reservedport.Number());
        const std::map<std::string, std::string> mapSetting = {{"FORWARD_LOGS", LogRoot() + "/*/*"},
                                                               {"FORWARD_MACHINE", "machine1"},
                                                               {"FORWARD_WORK", PathOf("sender")},
                                                               {"FORWARD_SPOOL", "1g"},
                                                               {"FORWARD_CENTRAL", "127.0.0.1"},
                                                               {"FORWARD_CENTRAL_NAME", "central"},
                                                               {"FORWARD_PORT", strPort},
                                                               {"FORWARD_CA", PathOf("ca.pem")},
                                                               {"FORWARD_CERT", PathOf("m.pem")},
                                                               {"FORWARD_KEY", PathOf("m.key")},
                                                               {"CENTRAL_ADDRESS", "127.0.0.1"},
                                                               {"CENTRAL_PORT", strPort},
                                                               {"CENTRAL_WORK", PathOf("central")},
                                                               {"CENTRAL_LOGS", PathOf("collected")},
                                                               {"CENTRAL_PEERS", "machine1"},
                                                               {"CENTRAL_CA", PathOf("ca.pem")},
                                                               {"CENTRAL_CERT", PathOf("c.pem")},
                                                               {"CENTRAL_KEY", PathOf("c.key")}};
        for (const auto& [strName, strValue] : mapSetting)
            setenv(strName.c_str(), strValue.c_str(), 1);
    }

    static std::string ModuleFolder()
    {
        const std::string strModule = Installed("/usr/lib/x86_64-linux-gnu/rsyslog/imrelp.so");
        return fs::path(strModule).parent_path();
    }
    void MakeCertificates() const
    {
        const std::string strScript =
            "cd " + m_path.string() +
            "; new='openssl req -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes'; "
            "{ $new -x509 -subj /CN=ca -keyout ca.key -out ca.pem && for each in m=machine1 c=central; do "
            "echo subjectAltName=DNS:${each#*=} >names && $new -subj /CN=${each#*=} -keyout ${each%=*}.key -out "
            "request && "
            "openssl x509 -req -in request -CA ca.pem -CAkey ca.key -CAcreateserial -extfile names -out ${each%=*}.pem "
            "|| exit; done; } >/dev/null 2>&1";
        ASSERT_EQ(std::system(strScript.c_str()), 0);
    }
    void Start(Daemon& a_daemon, const std::string& a_strName) const
    {
        ASSERT_TRUE(
            a_daemon.Start({Installed("/usr/sbin/rsyslogd"), "-n", "-M", ModuleFolder(), "-f",
                            g_szForward + ("/rsyslog-" + a_strName + ".conf"), "-i", PathOf(a_strName + ".pid")}));
    }

    // The sender has a log open, more than once, and has read it to its end.
    bool HasRead(const std::string& a_strLog) const
    {
        const fs::path pathProcess = "/proc/" + std::to_string(m_daemonSender.ProcessId());
        const fs::directory_iterator iterator(pathProcess / "fd");
        return std::any_of(begin(iterator), end(iterator), [&](const fs::directory_entry& a_entry) {
            std::error_code errorcode;
            const std::string strInfo = ReadWhole(pathProcess / "fdinfo" / a_entry.path().filename());
            return fs::read_symlink(a_entry.path(), errorcode) == LogRoot() + "/" + a_strLog &&
                   strtoull(strInfo.c_str() + strlen("pos:"), nullptr, 10) == SizeOf(LogPart(a_strLog));
        });
    }

    // .../APPLICATION/APPLICATION/log.START/PROCESS.log lies without its first folder on the central host.
    std::string Collected(const std::string& a_strLog) const
    {
        return ReadWhole(PathOf("collected/machine1" + a_strLog.substr(a_strLog.find('/'))));
    }

    // Every record has arrived, whole and in order; a repeated one, which is allowed, counts once.
    bool HasArrived(const std::string& a_strLog, const std::string& a_strText) const
    {
        std::set<std::string> setSeen;
        std::string strOnce;
        for (const std::string& strRecord : RecordsOf(Collected(a_strLog)))
        {
            if (setSeen.insert(strRecord).second)
                strOnce += strOnce.empty() ? strRecord : "\n" + strRecord;
        }
        return strOnce == a_strText;
    }
    // The line of JSON of a log's record that holds this text; "" for none.
    std::string FieldsOf(const std::string& a_strProcess, const std::string& a_strText) const
    {
        std::ifstream stream(PathOf("collected/machine1/records.json"));
        for (std::string strLine; std::getline(stream, strLine);)
        {
            if (strLine.find("\"process\": \"" + a_strProcess + "\"") != std::string::npos &&
                strLine.find(a_strText) != std::string::npos)
                return strLine;
        }
        return "";
    }

    void ExpectAllArrive(const Logs& a_logs) const
    {
        for (const auto& [strLog, strText] : a_logs)
        {
            EXPECT_TRUE(WaitFor([&] { return HasArrived(strLog, strText); }, g_u32Patience))
                << strLog << ": " << RecordsOf(Collected(strLog)).size() << " of " << RecordsOf(strText).size();
        }
    }

    ReservedPort m_reservedport;
    Daemon m_daemonSender;
    Daemon m_daemonCentral;
};

// New log folders appear and all go while the central host is away; it is killed, and comes back after 10 s.
TEST_F(ForwardRsyslog, RecordsArriveAlsoWhenTheCentralHostWasAway)
{
    Start(m_daemonSender, "sender");
    Start(m_daemonCentral, "central");
    RunApplication("before");
    Logs logs = ReadLogs();
    ASSERT_EQ(logs.size(), 5u);
    for (const auto& [strLog, strText] : logs)
        ASSERT_TRUE(WaitFor([&] { return Collected(strLog).size() > 1000; }, g_u32Patience)) << strLog;

    m_daemonCentral.Kill();
    const uint64_t u64Away = PlatTicks();
    RunApplication("during");
    logs = ReadLogs();
    ASSERT_EQ(logs.size(), 10u);
    for (const auto& [strLog, strText] : logs)
        ASSERT_TRUE(WaitFor([&] { return HasRead(strLog); }, g_u32Patience)) << strLog;
    ASSERT_EQ(std::system((PathOf("bin/logcollector") + " --clean").c_str()), 0);
    ASSERT_TRUE(ReadLogs().empty());

    ASSERT_TRUE(WaitFor([&] { return PlatTicks() - u64Away >= 10000; }));
    Start(m_daemonCentral, "central");
    RunApplication("behind");
    logs.merge(ReadLogs());
    ASSERT_EQ(logs.size(), 15u);
    ExpectAllArrive(logs);
}

// The lines of a message stay together. The zone is not that of the central host.
TEST_F(ForwardRsyslog, RecordsHaveTheirFields)
{
    setenv("TZ", "<+05>-5", 1);
    Start(m_daemonSender, "sender");
    setenv("TZ", "UTC0", 1);
    Start(m_daemonCentral, "central");
    setenv("TZ", "<+05>-5", 1);
    RunApplication("viewer");
    std::string strFields;
    ASSERT_TRUE(WaitFor([&] { return !(strFields = FieldsOf("viewer", "ARGUMENTS set")).empty(); }, g_u32Patience));

    std::smatch match;
    ASSERT_TRUE(std::regex_search(
        strFields, match,
        std::regex("\"machine\": \"machine1\", \"application\": \"viewer\", \"process\": \"viewer\", "
                   "\"run\": \"log[.][0-9]{20}\", \"time\": \"([^\"]*)[.]([0-9]{6})Z\", \"level\": \"note\", .*"
                   "\"record\": \"[0-9]{5} [0-9]{6}([0-9]{6}) .* set[.]{3}<<arguments>(\\\\r)?\\\\n\\\\t<rootpath>.*"
                   "arguments>>\"")))
        << strFields;
    tm tmTime{};
    ASSERT_NE(strptime(match[1].str().c_str(), "%Y-%m-%dT%H:%M:%S", &tmTime), nullptr);
    EXPECT_NEAR(static_cast<double>(timegm(&tmTime)), static_cast<double>(time(nullptr)), 300);
    EXPECT_EQ(match[2], match[3]);
    EXPECT_NE(FieldsOf("viewer", "OsServicesStart...").find("\"level\": \"milestone\""), std::string::npos);
}

// ------------------------------------------------------------------------------------------------------- the reader

using ForwardSyslogNg = Forward;

TEST_F(ForwardSyslogNg, ReadsRecordsWholeAndWithTheirFields)
{
    const std::string strProgram = Installed("/usr/sbin/syslog-ng");
    if (strProgram.empty())
        GTEST_SKIP() << "needs syslog-ng";
    const fs::path pathRoot = fs::path(strProgram).parent_path().parent_path();
    setenv("FORWARD_BASE", LogRoot().c_str(), 1);
    WriteWhole(
        m_path / "read.conf",
        "@version: 3.38\n@include \"" + std::string(g_szForward) + "/syslog-ng-source.conf\"\n" +
            "log { source(s_logcollector); parser(p_logcollector); destination { file(\"" + PathOf("records") +
            "\" template(\"${record.machine} ${record.application} ${record.process} ${record.run} ${record.time} " +
            "${record.level}|${MESSAGE}\\r\\n\")); }; };\n");
    RunApplication("viewer");
    const auto [strLog, strText] = *ReadLogs().begin();
    Daemon daemon;
    ASSERT_TRUE(
        daemon.Start({"env", "LD_LIBRARY_PATH=" + (pathRoot / "lib/syslog-ng").string(), strProgram,
                      "--module-path=" + (pathRoot / "lib/syslog-ng/3.38").string(), "--no-caps", "-F", "-f",
                      PathOf("read.conf"), "-R", PathOf("persist"), "-c", PathOf("control"), "-p", PathOf("pid")}));

    // Without what stands before them, the records of a log are its text.
    const std::regex regexFields("[^ |]+ viewer viewer log[.][0-9]{20} [0-9-]{10}T[0-9:]{8}[.][0-9]{6}[+-][0-9:]{5} "
                                 "(error|warning|milestone|note)[|]");
    const auto read = [&] {
        std::string strRead;
        std::istringstream stream(
            std::regex_replace(ReadWhole(PathOf("records")), std::regex("\r\n(?=[^ |]+ viewer)"), "\x01"));
        for (std::string strRecord; std::getline(stream, strRecord, '\x01');)
        {
            std::smatch match;
            if (std::regex_search(strRecord, match, regexFields, std::regex_constants::match_continuous))
                strRead += match.suffix().str() + "\r\n";
        }
        return strRead;
    };
    EXPECT_TRUE(WaitFor([&] { return read() == strText; }, g_u32Patience)) << read().size() << " of " << strText.size();
}
