// plat_process_test.cpp: what processes owe, on whichever system.
#include "plat_child.h"

#include <csignal>
#include <sys/ptrace.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

// Shows its arguments.
int PlayPart(const std::vector<std::string>& a_vecstrArguments)
{
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

// What a_test() says in a child that this process traces; -1 when the machine allows no tracing.
template <class Test>
int InTracedProcess(Test a_test)
{
    const pid_t pid = fork();
    if (pid == 0)
        _exit(ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0 ? 2 : a_test() ? 1 : 0);
    int iStatus = 0;
    const bool blEnded = pid > 0 && waitpid(pid, &iStatus, 0) == pid && WIFEXITED(iStatus);
    return blEnded && WEXITSTATUS(iStatus) < 2 ? WEXITSTATUS(iStatus) : -1;
}

TEST_F(Process, KnowsWhetherItIsTraced)
{
    EXPECT_FALSE(PlatProcessIsDebugged());
    const int iTraced = InTracedProcess([] { return PlatProcessIsDebugged(); });
    if (iTraced < 0)
        GTEST_SKIP() << "no tracing on this machine";
    EXPECT_EQ(iTraced, 1);
}
}   // namespace
