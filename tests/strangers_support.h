// strangers_support.h: several users of one machine: their processes, a collector that one of them has, and what became
// of files. Only root can be several users.
#pragma once

#include "collector_support.h"

#include <arpa/inet.h>
#include <csignal>
#include <fcntl.h>
#include <grp.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <net/if.h>
#include <optional>
#include <poll.h>
#include <sched.h>
#include <sstream>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>

namespace fs = std::filesystem;

struct User
{
    uid_t uid;
    gid_t gid;
    std::vector<gid_t> vecgid = {};   // further groups
};

inline constexpr gid_t g_gidOfRoot = 61299;   // a further group that root is in
inline const User g_userRoot{0, 0, {g_gidOfRoot}};
inline const User g_userOurs{61234, 61234};
inline const User g_userStranger{61235, 61245};
inline const User g_userUnlisted{61236, 61236};   // has no account

// A process that plays a part for a user; it and the test exchange short messages.
class UserProcess
{
public:
    // a_part(*this) runs in the process, its result is the exit code.
    template <class Part>
    UserProcess(const User& a_user, Part a_part)
    {
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, m_aiSocket), 0);
        m_pid = fork();
        EXPECT_GE(m_pid, 0);
        if (m_pid == 0)
        {
            std::swap(m_aiSocket[0], m_aiSocket[1]);
            const bool blBecame = setgroups(a_user.vecgid.size(), a_user.vecgid.data()) == 0 &&
                                  setgid(a_user.gid) == 0 && setuid(a_user.uid) == 0 &&
                                  prctl(PR_SET_PDEATHSIG, SIGKILL) == 0 && prctl(PR_SET_DUMPABLE, 1) == 0;
            try
            {
                _exit(blBecame ? a_part(*this) : 99);
            }
            catch (...)   // the rest of the case is the test's alone
            {
                _exit(98);
            }
        }
        close(m_aiSocket[1]);
        m_aiSocket[1] = -1;
    }
    ~UserProcess()
    {
        if (m_pid > 0)   // others mean many processes, or all
            kill(m_pid, SIGKILL);
        ExitCode();
        close(m_aiSocket[0]);
    }
    UserProcess(const UserProcess&) = delete;
    UserProcess& operator=(const UserProcess&) = delete;

    bool Say(const std::string& a_strText) const
    {
        return send(m_aiSocket[0], a_strText.data(), a_strText.size(), MSG_NOSIGNAL) >= 0;
    }
    // The next message of the other end, "" when there is none in time.
    std::string Hear(int a_iMilliseconds = 30000) const
    {
        char achText[4096];
        pollfd pollfdMessage{m_aiSocket[0], POLLIN, 0};
        const ssize_t ssize =
            poll(&pollfdMessage, 1, a_iMilliseconds) == 1 ? recv(m_aiSocket[0], achText, sizeof achText, 0) : 0;
        return {achText, static_cast<size_t>(std::max<ssize_t>(ssize, 0))};
    }
    int Channel() const { return m_aiSocket[0]; }

    int ExitCode()
    {
        if (m_pid > 0)
            waitpid(m_pid, &m_iStatus, 0);
        m_pid = -1;
        return WIFEXITED(m_iStatus) ? WEXITSTATUS(m_iStatus) : -1;
    }

private:
    int m_aiSocket[2] = {-1, -1};
    pid_t m_pid = -1;
    int m_iStatus = 0;
};

// True when a_action() is true in a process of that user.
template <class Action>
bool AsUser(const User& a_user, Action a_action)
{
    return UserProcess(a_user, [&](const UserProcess&) { return a_action() ? 0 : 1; }).ExitCode() == 0;
}

inline sockaddr_in Loopback(uint16_t a_u16Port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(a_u16Port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

// A connection that uses nothing of ours.
class RawStream
{
public:
    explicit RawStream(uint16_t a_u16Port) : m_iSocket(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        const sockaddr_in address = Loopback(a_u16Port);
        m_blConnected = connect(m_iSocket, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    }
    ~RawStream()
    {
        if (m_iSocket >= 0)
            close(m_iSocket);
    }
    RawStream(RawStream&& a_other) noexcept
        : m_iSocket(std::exchange(a_other.m_iSocket, -1)), m_blConnected(a_other.m_blConnected)
    {
    }
    RawStream& operator=(RawStream&&) = delete;

    bool Send(const std::string& a_strText) const
    {
        const ssize_t ssize = send(m_iSocket, a_strText.data(), a_strText.size(), MSG_NOSIGNAL);
        return m_blConnected && ssize == static_cast<ssize_t>(a_strText.size());
    }
    bool IsConnected() const { return m_blConnected; }

    // True when the other end has closed, or does so before a_u64End.
    bool IsEnded(uint64_t a_u64End) const
    {
        const uint64_t u64Now = PlatTicks();
        char ch = 0;
        pollfd pollfdEnd{m_iSocket, POLLIN, 0};
        return poll(&pollfdEnd, 1, a_u64End > u64Now ? static_cast<int>(a_u64End - u64Now) : 0) == 1 &&
               recv(m_iSocket, &ch, 1, 0) <= 0;
    }

private:
    int m_iSocket;
    bool m_blConnected = false;
};

// Takes connections on a port of 127.0.0.1 (0: of the system's choice) and what they send.
class Listener
{
public:
    explicit Listener(const User& a_user, uint16_t a_u16Port = 0)
        : m_userprocess(a_user, [=](const UserProcess& a_userprocess) { return Serve(a_userprocess, a_u16Port); }),
          m_strPort(m_userprocess.Hear())
    {
    }
    const std::string& Port() const { return m_strPort; }

    // How many bytes came in all.
    size_t End()
    {
        m_userprocess.Say("end");
        return std::stoul("0" + m_userprocess.Hear());
    }

private:
    static int Serve(const UserProcess& a_userprocess, uint16_t a_u16Port)
    {
        const int iOn = 1;
        const int iListener = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address = Loopback(a_u16Port);
        socklen_t socklen = sizeof address;
        auto* const psockaddr = reinterpret_cast<sockaddr*>(&address);
        setsockopt(iListener, SOL_SOCKET, SO_REUSEADDR, &iOn, sizeof iOn);
        if (bind(iListener, psockaddr, socklen) != 0 || listen(iListener, 64) != 0 ||
            getsockname(iListener, psockaddr, &socklen) != 0)
            return 1;
        a_userprocess.Say(std::to_string(ntohs(address.sin_port)));

        size_t sizetBytes = 0;
        std::vector<pollfd> vecpollfd{{a_userprocess.Channel(), POLLIN, 0}, {iListener, POLLIN, 0}};
        for (;;)
        {
            poll(vecpollfd.data(), vecpollfd.size(), -1);
            for (size_t sizet = 2; sizet < vecpollfd.size(); ++sizet)
                sizetBytes += vecpollfd[sizet].revents ? Read(vecpollfd[sizet]) : 0;
            if (vecpollfd[1].revents)
                vecpollfd.push_back({accept(iListener, nullptr, nullptr), POLLIN, 0});
            else if (vecpollfd[0].revents)   // a message that is not read would take the answer along
                return a_userprocess.Hear() == "end" && a_userprocess.Say(std::to_string(sizetBytes)) ? 0 : 1;
        }
    }
    static size_t Read(pollfd& a_pollfd)
    {
        static char g_achPiece[65536];
        const ssize_t ssize = recv(a_pollfd.fd, g_achPiece, sizeof g_achPiece, 0);
        if (ssize <= 0)
            a_pollfd.fd = -1;
        return static_cast<size_t>(std::max<ssize_t>(ssize, 0));
    }

    UserProcess m_userprocess;
    std::string m_strPort;
};

// While it lives, the process does nothing: what happens meanwhile has happened when it goes on. Its number counts only
// while it runs that program: it may be another's by now.
class Stopped
{
public:
    Stopped(pid_t a_pid, const fs::path& a_pathProgram)
    {
        const std::string strProcess = "/proc/" + std::to_string(a_pid);
        std::error_code error;
        if (a_pid > 0)
            m_iProcess = static_cast<int>(syscall(SYS_pidfd_open, a_pid, 0));
        if (m_iProcess >= 0 && fs::read_symlink(strProcess + "/exe", error) != a_pathProgram)
            Close();
        EXPECT_TRUE(Signal(SIGSTOP) &&
                    WaitFor([&] { return ReadWhole(strProcess + "/stat").find(") T ") != std::string::npos; }));
    }
    ~Stopped()
    {
        Signal(SIGCONT);
        Close();
    }
    Stopped(const Stopped&) = delete;
    Stopped& operator=(const Stopped&) = delete;

private:
    bool Signal(int a_iSignal) const
    {
        return m_iProcess >= 0 && syscall(SYS_pidfd_send_signal, m_iProcess, a_iSignal, nullptr, 0) == 0;
    }
    void Close()
    {
        if (m_iProcess >= 0)
            close(m_iProcess);
        m_iProcess = -1;
    }

    int m_iProcess = -1;
};

// Every file and folder below a folder, with its kind, its owner and what is in it.
inline std::map<std::string, std::string> Snapshot(const fs::path& a_path)
{
    std::map<std::string, std::string> mapstr;
    for (const auto& entry : fs::recursive_directory_iterator(a_path))
    {
        struct stat status
        {
        };
        lstat(entry.path().c_str(), &status);
        std::string& str = mapstr[entry.path().lexically_relative(a_path)];
        str = std::to_string(status.st_mode) + " of " + std::to_string(status.st_uid) + ": ";
        if (S_ISREG(status.st_mode))
            str += ReadWhole(entry.path());
    }
    return mapstr;
}

// What is new, gone or another in a_mapstrAfter.
inline std::vector<std::string> Changed(const std::map<std::string, std::string>& a_mapstrBefore,
                                        const std::map<std::string, std::string>& a_mapstrAfter)
{
    std::map<std::string, std::string> mapstr = a_mapstrBefore;
    for (const auto& [strPath, strWhat] : a_mapstrAfter)
    {
        if (const auto it = mapstr.find(strPath); it != mapstr.end() && it->second == strWhat)
            mapstr.erase(it);
        else
            mapstr[strPath] = strWhat;
    }
    std::vector<std::string> vecstr;
    for (const auto& [strPath, strWhat] : mapstr)
        vecstr.push_back(strPath);
    return vecstr;
}

// A case with users: "ours" and "stranger" are folders of theirs, "root" one of root's; the programs are in "bin", and
// everybody may write into the program data.
class Strangers : public FolderTest
{
protected:
    void SetUp() override
    {
        if (geteuid() != 0)
            GTEST_SKIP() << "only root can be several users";
        if (!HaveAccounts())
            GTEST_SKIP() << "no file system of its own on this machine";
        umask(022);
        fs::permissions(m_path, fs::perms(0755));
        fs::create_directory(m_path / "bin");
        for (const char* szProgram : {"logcollector", "chaos_application", "shared_collector"})
            fs::copy_file(ProgramPath(szProgram), m_path / "bin" / szProgram);
        MakeFolder("root", g_userRoot);
        MakeFolder("ours", g_userOurs);
        MakeFolder("stranger", g_userStranger);
        for (const char* szFolder : {"system/PROGRAMDATA", "system/MVR_EVENTROOT"})
            MakeFolder(szFolder, g_userRoot, 0777);
    }

    std::string MakeFolder(const std::string& a_strName, const User& a_user, mode_t a_mode = 0755) const
    {
        fs::create_directories(m_path / a_strName);
        return Give(a_strName, a_user, a_mode);
    }
    std::string MakeFile(const std::string& a_strName, const User& a_user, const std::string& a_strText = "",
                         mode_t a_mode = 0644) const
    {
        WriteWhole(PathOf(a_strName), a_strText);
        return Give(a_strName, a_user, a_mode);
    }
    std::string Give(const std::string& a_strName, const User& a_user, mode_t a_mode) const
    {
        EXPECT_EQ(chown(PathOf(a_strName).c_str(), a_user.uid, a_user.gid), 0);
        EXPECT_EQ(chmod(PathOf(a_strName).c_str(), a_mode), 0);
        return PathOf(a_strName);
    }
    // "user:group" of a file or folder.
    std::string OwnerOf(const std::string& a_strName) const
    {
        struct stat status
        {
        };
        if (lstat(PathOf(a_strName).c_str(), &status) != 0)
            return "missing";
        return std::to_string(status.st_uid) + ":" + std::to_string(status.st_gid);
    }

    // The programs that start from now on find what is theirs in folders of this user, who works there.
    void WorkAs(const User& a_user)
    {
        m_user = a_user;
        for (const char* szName : {"LOCALAPPDATA", "APPDATA"})
            MakeFolder("system/" + std::string(szName), a_user);
        MakeFolder("result", a_user);
    }

    // Starts the collector of a user, in his folder, after a_prepare() in his application.
    template <class Prepare>
    void BeginCollector(const User& a_user, Prepare a_prepare)
    {
        m_optionalApplication.reset();
        WorkAs(a_user);
        const std::string strFolder = PathOf(a_user.uid == 0 ? "root" : "ours");
        m_optionalApplication.emplace(a_user, [=, this](const UserProcess& a_userprocess) {
            auto* const pcollector = new CollectorProcess;   // outlives its application
            if (chdir(strFolder.c_str()) != 0 || !a_prepare() ||
                !pcollector->StartFor(PathOf("bin/logcollector"), PlatProcessId()))
                return 1;
            a_userprocess.Say(std::to_string(pcollector->Port()) + " " + std::to_string(pcollector->ProcessId()));
            a_userprocess.Say("ended " + std::to_string(pcollector->WaitForExit(PLAT_INFINITE)));
            a_userprocess.Hear(-1);
            return 0;
        });
        m_pidCollector = 0;
        std::istringstream(m_optionalApplication->Hear()) >> m_u16Port >> m_pidCollector;
        ASSERT_NE(m_pidCollector, 0);
    }
    void BeginCollector(const User& a_user)
    {
        BeginCollector(a_user, [] { return true; });
    }
    Stopped StopCollector() const { return {m_pidCollector, m_path / "bin/logcollector"}; }
    bool CollectorEnds(int a_iMilliseconds = 20000)
    {
        return m_optionalApplication->Hear(a_iMilliseconds) == "ended 0";
    }
    bool CollectorLivesOn() { return m_optionalApplication->Hear(1500).empty(); }

    // Our user's stream, which stays until the object goes.
    std::unique_ptr<UserProcess> StreamOfOurs(const std::string& a_strPath, const std::string& a_strText) const
    {
        const uint16_t u16Port = m_u16Port;
        return std::make_unique<UserProcess>(m_user, [=](const UserProcess& a_userprocess) {
            const RawStream rawstream(u16Port);
            a_userprocess.Say(rawstream.Send(Header(a_strPath) + a_strText) ? "sent" : "refused");
            a_userprocess.Hear(-1);
            return 0;
        });
    }
    bool FileBecomes(const std::string& a_strName, const std::string& a_strText) const
    {
        return WaitFor([&] { return ReadWhole(PathOf(a_strName)) == a_strText; });
    }

    User m_user = g_userOurs;
    uint16_t m_u16Port = 0;
    pid_t m_pidCollector = 0;
    std::optional<UserProcess> m_optionalApplication;

private:
    // The machine's accounts and two more, for this process and those that it starts.
    bool HaveAccounts() const
    {
        WriteWhole(PathOf("passwd"), ReadWhole("/etc/passwd") + "ours:x:61234:61234::/nonexistent:/bin/sh\n" +
                                         "stranger:x:61235:61245::/nonexistent:/bin/sh\n");
        return unshare(CLONE_NEWNS) == 0 && mount("", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
               mount(PathOf("passwd").c_str(), "/etc/passwd", nullptr, MS_BIND, nullptr) == 0;
    }
};

// From now on this process and those that it starts are not told by the system who owns a socket.
inline bool TakeAwayDiagnosis(int a_iError)
{
    sock_filter asockfilter[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_socket, 0, 3),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, args[0])),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, AF_NETLINK, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | static_cast<unsigned>(a_iError)),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    const sock_fprog sockfprog{static_cast<unsigned short>(std::size(asockfilter)), asockfilter};
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &sockfprog) == 0;
}

// A network of this process alone, with its own 127.0.0.1. False where there is no such thing.
inline bool HaveOwnNetwork()
{
    if (unshare(CLONE_NEWNET) != 0)
        return false;
    ifreq interface {
    };
    SStrCpy(interface.ifr_name, sizeof interface.ifr_name, "lo");
    interface.ifr_flags = IFF_UP | IFF_RUNNING;
    const int iSocket = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const bool blUp = ioctl(iSocket, SIOCSIFFLAGS, &interface) == 0;
    close(iSocket);
    return blUp;
}
