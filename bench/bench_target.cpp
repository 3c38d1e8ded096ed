// bench_target.cpp: start and end of each target, with the least configuration that receives streams and writes each
// into a file of its own.
#include "bench_target.h"

#include <arpa/inet.h>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

// ----------------------------------------------------------------------------------------------------- processes

static void Execute(const std::vector<std::string>& a_vecstrCommand, int a_iOutput)
{
    std::vector<char*> vecszArgument;
    for (const std::string& str : a_vecstrCommand)
        vecszArgument.push_back(const_cast<char*>(str.c_str()));
    vecszArgument.push_back(nullptr);
    const int iNull = open("/dev/null", O_RDWR);
    dup2(iNull, STDIN_FILENO);
    dup2(a_iOutput >= 0 ? a_iOutput : iNull, STDOUT_FILENO);
    dup2(iNull, STDERR_FILENO);
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    execv(vecszArgument[0], vecszArgument.data());
    _exit(127);
}

bool Target::Spawn(const std::vector<std::string>& a_vecstrCommand, std::string* a_pstrOutput)
{
    int aiPipe[2] = {-1, -1};
    if (a_pstrOutput && pipe2(aiPipe, O_CLOEXEC) != 0)
        return false;
    const pid_t pid = vfork();
    if (pid == 0)
        Execute(a_vecstrCommand, aiPipe[1]);
    if (pid > 0)
        vecpid.push_back(pid);
    if (!a_pstrOutput)
        return pid > 0;
    close(aiPipe[1]);
    char achPiece[256];
    while (a_pstrOutput->find("</lc>") == std::string::npos)
    {
        const ssize_t iRead = read(aiPipe[0], achPiece, sizeof achPiece);
        if (iRead <= 0)
            break;
        a_pstrOutput->append(achPiece, static_cast<size_t>(iRead));
    }
    close(aiPipe[0]);
    return a_pstrOutput->find("</lc>") != std::string::npos;
}

double Target::Kill()
{
    double dSeconds = 0;
    for (pid_t pid : vecpid)
    {
        rusage usage{};
        kill(pid, SIGKILL);
        wait4(pid, nullptr, 0, &usage);
        for (const timeval& time : {usage.ru_utime, usage.ru_stime})
            dSeconds += static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) * 1e-6;
    }
    vecpid.clear();
    return dSeconds;
}

Target::~Target()
{
    Kill();
}

std::string OwnProgram(const char* a_szName)
{
    return std::string(BENCH_PROGRAMFOLDER "/") + a_szName;
}

// -------------------------------------------------------------------------------------------------------- targets

static std::unique_ptr<Target> StartOwn(const std::vector<std::string>& a_vecstrCommand, bool a_blHeader)
{
    auto target = std::make_unique<Target>();
    std::string strReply;
    if (!target->Spawn(a_vecstrCommand, &strReply))
        return nullptr;
    const std::string strTag = "<lcport>";
    const auto iPort = std::atoi(strReply.c_str() + strReply.find(strTag) + strTag.size());
    target->loadtarget.vecu16Port = {static_cast<uint16_t>(iPort)};
    target->loadtarget.blHeader = a_blHeader;
    target->loadtarget.blNamedByStream = a_blHeader;
    return target;
}

static std::unique_ptr<Target> StartCollector(const std::string& a_strFolder, uint32_t)
{
    auto target = StartOwn(
        {OwnProgram("logcollector"), "--xml=<lc><lcpidapp>" + std::to_string(getpid()) + "</lcpidapp></lc>"}, true);
    if (target)
        target->loadtarget.strFolder = a_strFolder;
    return target;
}

static std::unique_ptr<Target> StartFloor(const std::string& a_strFolder, uint32_t)
{
    auto target = StartOwn({OwnProgram("floor_collector"), a_strFolder}, false);
    if (target)
        target->loadtarget.strFolder = a_strFolder;
    return target;
}

static uint16_t FreePort()
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    const int iSocket = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    bind(iSocket, reinterpret_cast<sockaddr*>(&address), size);
    getsockname(iSocket, reinterpret_cast<sockaddr*>(&address), &size);
    close(iSocket);
    return ntohs(address.sin_port);
}

// Waits until something listens there, without connecting to it.
static bool IsListening(uint16_t a_u16Port)
{
    char szWanted[32];
    std::snprintf(szWanted, sizeof szWanted, ":%04X 00000000:0000 0A", a_u16Port);
    for (int i = 0; i < 1000; ++i)
    {
        std::ifstream stream("/proc/net/tcp");
        const std::string strTable{std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
        if (strTable.find(szWanted) != std::string::npos)
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return false;
}

// One process for each stream, with the block size that it comes with: a port and a file each.
static std::unique_ptr<Target> StartSocat(const std::string& a_strFolder, uint32_t a_u32Streams)
{
    auto target = std::make_unique<Target>();
    target->loadtarget.strFolder = a_strFolder;
    target->loadtarget.blHeader = false;
    target->loadtarget.blNamedByStream = true;
    for (uint32_t u32 = 0; u32 < a_u32Streams; ++u32)
    {
        const uint16_t u16Port = FreePort();
        const std::string strFile = a_strFolder + "/" + std::to_string(u32) + ".log";
        target->loadtarget.vecu16Port.push_back(u16Port);
        if (!target->Spawn({"/usr/bin/socat", "-u",
                            "TCP-LISTEN:" + std::to_string(u16Port) + ",bind=127.0.0.1,reuseaddr",
                            "OPEN:" + strFile + ",creat,append"},
                           nullptr) ||
            !IsListening(u16Port))
            return nullptr;
    }
    return target;
}

// A daemon with a configuration file: one process, a port and a file for each stream.
struct Daemon
{
    std::string strConfiguration;   // of all streams; what each stream adds comes from pfnStream
    std::string (*pfnStream)(uint32_t a_u32Stream, const std::string& a_strPort, const std::string& a_strFile);
    std::vector<std::string> vecstrCommand;
};

static std::unique_ptr<Target> StartDaemon(const std::string& a_strFolder, uint32_t a_u32Streams, Daemon a_daemon)
{
    auto target = std::make_unique<Target>();
    target->loadtarget = {{}, false, a_strFolder, true};
    for (uint32_t u32 = 0; u32 < a_u32Streams; ++u32)
    {
        const uint16_t u16Port = FreePort();
        target->loadtarget.vecu16Port.push_back(u16Port);
        a_daemon.strConfiguration +=
            a_daemon.pfnStream(u32, std::to_string(u16Port), a_strFolder + "/" + std::to_string(u32) + ".log");
    }
    std::ofstream(a_strFolder + "/daemon.conf") << a_daemon.strConfiguration;
    if (!target->Spawn(a_daemon.vecstrCommand, nullptr))
        return nullptr;
    for (uint16_t u16Port : target->loadtarget.vecu16Port)
    {
        if (!IsListening(u16Port))
            return nullptr;
    }
    return target;
}

static std::string SyslogNgStream(uint32_t a_u32Stream, const std::string& a_strPort, const std::string& a_strFile)
{
    const std::string strNumber = std::to_string(a_u32Stream);
    return "source s" + strNumber + " { network(ip(\"127.0.0.1\") port(" + a_strPort +
           ") transport(\"tcp\") flags(no-parse) log-iw-size(10000)); };\n"
           "destination d" +
           strNumber + " { file(\"" + a_strFile + "\" template(\"${MESSAGE}\\n\")); };\n" + "log { source(s" +
           strNumber + "); destination(d" + strNumber + "); flags(flow-control); };\n";
}

static std::unique_ptr<Target> StartSyslogNg(const std::string& a_strFolder, uint32_t a_u32Streams)
{
    return StartDaemon(a_strFolder, a_u32Streams,
                       {"@version: 3.38\noptions { keep-hostname(yes); stats-freq(0); };\n",
                        &SyslogNgStream,
                        {"/usr/sbin/syslog-ng", "-F", "-f", a_strFolder + "/daemon.conf", "-R",
                         a_strFolder + "/persist", "-c", a_strFolder + "/control", "-p", a_strFolder + "/pid"}});
}

// Installed, or unpacked beside the build.
static std::string RsyslogRoot()
{
    const std::string strUnpacked = std::string(BENCH_PROGRAMFOLDER) + "/../../peers";
    return std::filesystem::exists("/usr/sbin/rsyslogd") ? "" : strUnpacked;
}

static std::string RsyslogStream(uint32_t a_u32Stream, const std::string& a_strPort, const std::string& a_strFile)
{
    const std::string strNumber = std::to_string(a_u32Stream);
    return "ruleset(name=\"r" + strNumber + "\") { action(type=\"omfile\" file=\"" + a_strFile +
           "\" template=\"m\") }\n"
           "input(type=\"imtcp\" address=\"127.0.0.1\" port=\"" +
           a_strPort + "\" SupportOctetCountedFraming=\"off\" ruleset=\"r" + strNumber + "\")\n";
}

static std::unique_ptr<Target> StartRsyslog(const std::string& a_strFolder, uint32_t a_u32Streams)
{
    return StartDaemon(a_strFolder, a_u32Streams,
                       {"global(workDirectory=\"" + a_strFolder +
                            "\")\nmodule(load=\"imtcp\" MaxSessions=\"2000\" MaxListeners=\"100\")\n"
                            "template(name=\"m\" type=\"string\" string=\"%rawmsg%\\n\")\n",
                        &RsyslogStream,
                        {RsyslogRoot() + "/usr/sbin/rsyslogd", "-n", "-f", a_strFolder + "/daemon.conf", "-i",
                         a_strFolder + "/pid", "-M", RsyslogRoot() + "/usr/lib/x86_64-linux-gnu/rsyslog"}});
}

const std::vector<TargetKind> g_vectargetkind = {
    {"collector", nullptr, 1, &StartCollector},           {"floor", nullptr, 1, &StartFloor},
    {"socat", "/usr/bin/socat", 1, &StartSocat},          {"syslog-ng", "/usr/sbin/syslog-ng", 16, &StartSyslogNg},
    {"rsyslog", "/usr/sbin/rsyslogd", 16, &StartRsyslog},
};

bool IsInstalled(const TargetKind& a_targetkind)
{
    return !a_targetkind.szProgram || std::filesystem::exists(a_targetkind.szProgram) ||
           std::filesystem::exists(RsyslogRoot() + a_targetkind.szProgram);
}
