// plat_process_test.cpp: what processes owe, on whichever system.
#include "plat_child.h"

#include <atomic>
#include <csignal>
#include <cstddef>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

// From now on the system refuses this call to this process and to what it starts, as an older one would.
static void Refuse(uint32_t a_u32Call)
{
    sock_filter asockfilter[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, a_u32Call, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ENOSYS),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    const sock_fprog sockfprog{std::size(asockfilter), asockfilter};
    prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
    if (prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &sockfprog) != 0)
        Say("no filter: ");
}

static PlatHandle Start(const std::string& a_strProgram, const std::string& a_strArguments)
{
    const std::u16string wstrProgram = Wide(a_strProgram);
    const std::u16string wstrLine = wstrProgram + u" " + Wide(a_strArguments);
    const PlatProcessStart platprocessstart{wstrProgram.c_str(), wstrLine.c_str(), nullptr, nullptr, {}, true, false};
    uint64_t u64ProcessId = 0;
    return PlatProcessCreate(&platprocessstart, &u64ProcessId);
}

static uint32_t EndOf(PlatHandle a_plathandle)
{
    uint32_t u32ExitCode = 0;
    WaitFor([&] { return PlatProcessExitCode(a_plathandle, &u32ExitCode) && u32ExitCode != PLAT_STILLACTIVE; });
    PlatClose(a_plathandle);
    return u32ExitCode;
}

// A program that takes the code of each child that has ended.
static uint32_t CodeInAProgramThatReaps()
{
    static std::atomic<int> g_iReaped{0};
    struct sigaction action = {};
    action.sa_handler = [](int) { g_iReaped += waitpid(-1, nullptr, WNOHANG) > 0; };
    sigaction(SIGCHLD, &action, nullptr);
    const PlatHandle plathandle = Start("/bin/sh", "-c \"exit 7\"");
    WaitFor([] { return g_iReaped == 1; });
    return EndOf(plathandle);
}

// Counts the runs of its signal handler in processes that are not this one, while children are started.
static int HandlersInChildren()
{
    static std::atomic<int> g_iElsewhere{0};
    static const pid_t g_pid = getpid();
    setpgid(0, 0);
    struct sigaction action = {};
    action.sa_handler = [](int) { g_iElsewhere += getpid() != g_pid; };
    sigaction(SIGUSR1, &action, nullptr);
    std::atomic<bool> blEnd{false};
    std::thread thread([&] {
        while (!blEnd)
            kill(0, SIGUSR1);
    });
    for (int i = 0; i < 50; ++i)
        EndOf(Start("/bin/true", ""));
    blEnd = true;
    thread.join();
    return g_iElsewhere;
}

// Plays what the first argument names; other arguments are shown.
int PlayPart(const std::vector<std::string>& a_vecstrArguments)
{
    const std::string& strPart = a_vecstrArguments.front();
    if (strPart == "list")
    {
        Refuse(SYS_close_range);
        dup(0);
        return static_cast<int>(EndOf(Start("/bin/ls", "/proc/self/fd")));
    }
    if (strPart == "blind")
        Refuse(SYS_ioctl);
    if (strPart == "blind" || strPart == "reaps")
        return !Say(std::to_string(CodeInAProgramThatReaps()));
    if (strPart == "handlers")
        return !Say(std::to_string(HandlersInChildren()));
    for (const std::string& strArgument : a_vecstrArguments)
        Say("<" + strArgument + ">");
    return 0;
}

namespace
{
using Process = FolderTest;

TEST_F(Process, SplitsTheCommandLineAsItIsQuoted)
{
    const std::pair<const char*, const char*> apair[] = {
        {R"("one two" three )", "<one two><three>"},
        {R"("")", "<>"},
        {R"(a"b c"d)", "<ab cd>"},
        {R"("C:\a b\\" "x")", R"(<C:\a b\><x>)"},
        {R"(\\server\share\x)", R"(<\\server\share\x>)"},
        {R"("say \"hi\"" \" a\\\"b)", R"(<say "hi"><"><a\"b>)"},
        {R"("a""b" """")", R"(<a"b><">)"},
        {"\ta  \t b", "<a><b>"},
    };
    for (const auto& [szLine, szArguments] : apair)
        EXPECT_EQ(Part(szLine).OutputUpTo(), szArguments) << szLine;
}

TEST_F(Process, TellsWhyAProgramCannotRun)
{
    WriteWhole(PathOf("text"), "no program");
    std::filesystem::permissions(PathOf("text"), std::filesystem::perms::owner_all);
    const auto error = [](const std::u16string& a_wstrProgram, const std::u16string& a_wstrFolder) {
        PlatProcessStart platprocessstart{
            a_wstrProgram.c_str(), u"program", a_wstrFolder.c_str(), nullptr, {}, true, false};
        uint64_t u64ProcessId = 0;
        EXPECT_EQ(PlatProcessCreate(&platprocessstart, &u64ProcessId), PLAT_INVALID);
        return PlatGetLastError();
    };
    char16_t wszProgram[PLAT_PATHMAX];
    PlatProgramPath(wszProgram, PLAT_PATHMAX);
    const std::u16string wstrFolder = Wide(PathOf(""));
    EXPECT_EQ(error(Wide(PathOf("none")), wstrFolder), PLAT_ERROR_FILENOTFOUND);
    EXPECT_EQ(error(Wide(PathOf("none/none")), wstrFolder), PLAT_ERROR_PATHNOTFOUND);
    EXPECT_EQ(error(wstrFolder, wstrFolder), PLAT_ERROR_ACCESSDENIED);
    EXPECT_EQ(error(Wide(PathOf("text")), wstrFolder), PLAT_ERROR_BADEXEFORMAT);
    EXPECT_EQ(error(wszProgram, Wide(PathOf("none"))), PLAT_ERROR_DIRECTORY);
    EXPECT_FALSE(PlatProgramPath(wszProgram, 4));
    EXPECT_EQ(PlatGetLastError(), PLAT_ERROR_INSUFFICIENTBUFFER);
}

// Also when a signal comes while the child is asked for that could not run it.
TEST_F(Process, AProgramThatCannotRunLeavesNoChild)
{
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    sigaction(SIGALRM, &action, nullptr);
    const itimerval itimervalOften{{0, 200}, {0, 200}};
    const itimerval itimervalNever{};
    setitimer(ITIMER_REAL, &itimervalOften, nullptr);
    for (int i = 0; i < 4000; ++i)
    {
        const PlatProcessStart platprocessstart{u"/none", u"none", nullptr, nullptr, {}, true, false};
        uint64_t u64ProcessId = 0;
        EXPECT_EQ(PlatProcessCreate(&platprocessstart, &u64ProcessId), PLAT_INVALID);
    }
    setitimer(ITIMER_REAL, &itimervalNever, nullptr);
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
}

TEST_F(Process, TellsTheCodeThatOthersTookOrThatItIsUnknown)
{
    const std::string strUnknown = std::to_string(PLAT_EXITCODEUNKNOWN);
    const std::string strCode = Part("reaps").OutputUpTo();
    EXPECT_TRUE(strCode == "7" || strCode == strUnknown) << strCode;   // the latter where the system forgets it
    EXPECT_EQ(Part("blind").OutputUpTo(), strUnknown);
}

TEST_F(Process, LeavesTheChildNothingOpenOnASystemThatClosesOneByOne)
{
    EXPECT_EQ(Part("list").OutputUpTo(), "0\n1\n2\n3\n");   // the last is the folder that it lists
}

TEST_F(Process, RunsNoHandlerOfOursInTheChild)
{
    EXPECT_EQ(Part("handlers").OutputUpTo(), "0");
}

// One whose id nobody has, and one that has ended but was not asked for its code, do not run.
TEST_F(Process, StartTimeTellsAProcessFromALaterOne)
{
    const auto startTime = [](pid_t a_pid) {
        uint64_t u64StartTime = 0;
        return PlatProcessStartTime(static_cast<uint64_t>(a_pid), &u64StartTime) ? u64StartTime : 0;
    };
    EXPECT_EQ(startTime(getpid()), startTime(getpid()));
    EXPECT_NE(startTime(getpid()), startTime(1));
    const pid_t pid = fork();
    if (pid == 0)
        _exit(0);
    EXPECT_TRUE(WaitFor([&] { return startTime(pid) == 0; }));
    EXPECT_EQ(waitpid(pid, nullptr, 0), pid);
    EXPECT_EQ(startTime(pid) + startTime(0x7FFFFFFF) + startTime(0), 0u);
}

TEST_F(Process, KnowsWhetherItIsTraced)
{
    EXPECT_FALSE(PlatProcessIsDebugged());
    const pid_t pid = fork();
    if (pid == 0)
        _exit(ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0 ? 2 : PlatProcessIsDebugged() ? 1 : 0);
    int iStatus = 0;
    ASSERT_TRUE(pid > 0 && waitpid(pid, &iStatus, 0) == pid && WIFEXITED(iStatus));
    if (WEXITSTATUS(iStatus) == 2)
        GTEST_SKIP() << "no tracing on this machine";
    EXPECT_EQ(WEXITSTATUS(iStatus), 1);
}
}   // namespace
