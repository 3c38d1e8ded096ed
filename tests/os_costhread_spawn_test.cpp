// os_costhread_spawn_test.cpp: child processes: what they are given, how they die, what is read from them.
#include "os_cosarguments.h"
#include "os_cosenv.h"
#include "os_cosresource_footer.h"
#include "os_costhread.h"
#include "test_support.h"

#include "plat_process.h"
#include "plat_socket.h"

#include <csignal>
#include <sys/resource.h>
#include <thread>
#include <unistd.h>

namespace
{
constexpr uint32_t g_u32Piped = OS_SPAWNFLAGS_PIPES | OS_SPAWNFLAGS_NORETRY;

class Spawn : public FolderTest
{
protected:
    // A program that runs the text in the shell; it finds its own folder as the current one.
    std::string Script(const std::string& a_strName, const std::string& a_strText) const
    {
        WriteWhole(PathOf(a_strName), "#!/bin/sh\n" + a_strText + "\n");
        std::filesystem::permissions(PathOf(a_strName), std::filesystem::perms::owner_all);
        return PathOf(a_strName);
    }

    EOSSTS Start(uint32_t a_u32Flags, const std::string& a_strProgram)
    {
        return m_osthread.Spawn(a_u32Flags, a_strProgram.c_str(), a_strProgram.c_str());
    }

    EOSSTS Read(std::string* a_pstr, bool a_blOutputOnly = false)
    {
        char achBuffer[4096];
        size_t sizetRead = 1;
        const EOSSTS eossts = m_osthread.ChildRead(achBuffer, sizeof achBuffer, &sizetRead, a_blOutputOnly);
        EXPECT_EQ(sizetRead > 0, eossts == EOSSTS_SUCCESS);
        a_pstr->append(achBuffer, sizetRead);
        return eossts;
    }

    // All that the child writes until it ends.
    std::string Output()
    {
        std::string strOutput;
        EOSSTS eossts = EOSSTS_SUCCESS;
        while (eossts == EOSSTS_SUCCESS || eossts == EOSSTS_NOSPACE)
            eossts = Read(&strOutput);
        EXPECT_EQ(eossts, EOSSTS_EXITED);
        return strOutput;
    }

    LogCapture m_logcapture;
    FakeConfiguration m_fakeconfiguration;
    COsThread m_osthread;
};

TEST_F(Spawn, TheLineIsQuotedAndTheChildStartsInItsFolder)
{
    const std::string strProgram = Script("a program", R"(echo "$#|$1|$2|$3"; pwd)");
    m_logcapture.m_u32WorkingWord = 1;
    const auto output = [&](uint32_t a_u32Flags) {
        EXPECT_EQ(m_osthread.Spawn(g_u32Piped | a_u32Flags, strProgram.c_str(), "x", {"one two", "3", nullptr, "4"}),
                  EOSSTS_SUCCESS);
        return Output();
    };
    EXPECT_EQ(output(0), "2|one two|3|\n" + m_path.string() + "\n");
    EXPECT_TRUE(
        m_logcapture.HasAt(OS_LOG_MILESTONE, "Spawn: command.........\"" + strProgram + "\" \"one two\" \"3\" "));
    EXPECT_EQ(output(OS_SPAWNFLAGS_NOQUOTES | OS_SPAWNFLAGS_NOFOLDER),
              "3|one|two|3\n" + std::filesystem::current_path().string() + "\n");
    EXPECT_TRUE(m_logcapture.HasAt(OS_LOG_NOTE, "Spawn: directory.......(none)"));

    std::filesystem::current_path(m_path);
    std::filesystem::create_directory(PathOf("sub"));
    Script("sub/program", "pwd");
    EXPECT_EQ(Start(g_u32Piped, "sub/program"), EOSSTS_SUCCESS);
    EXPECT_EQ(Output(), PathOf("sub") + "\n");
}

TEST_F(Spawn, TheChildHasOurEnvironmentItsStreamsAndNothingElse)
{
    dup(0);   // stays open where a program is run
    EXPECT_EQ(m_osthread.Spawn(g_u32Piped, "/bin/sh", "sh", {"-c", "ls /proc/self/fd"}), EOSSTS_SUCCESS);
    EXPECT_EQ(Output(), "0\n1\n2\n3\n");   // the last is the folder that it lists

    OsEnvSet("MVR_OURS", "what we set");
    EXPECT_EQ(OsArgumentsBuild({}), EOSSTS_SUCCESS);
    EXPECT_EQ(Start(g_u32Piped, "/usr/bin/env"), EOSSTS_SUCCESS);
    const std::string strOutput = "\n" + Output();
    for (const std::string strVariable : {"MVR_OURS=what we set\n", "MVR_OSSERVICESARGUMENTS="})
        EXPECT_NE(strOutput.find("\n" + strVariable), std::string::npos) << strOutput;
}

// No signals that we block or ignore, not our terminal, and not the limit that we raised for ourselves.
TEST_F(Spawn, TheChildStartsAsFromAShell)
{
    rlimit rlimitNow{};
    getrlimit(RLIMIT_NOFILE, &rlimitNow);
    rlimitNow.rlim_cur = 200;
    EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &rlimitNow), 0);
    EXPECT_TRUE(PlatSocketStartup());
    getrlimit(RLIMIT_NOFILE, &rlimitNow);
    EXPECT_GT(rlimitNow.rlim_cur, 200u);
    sigset_t sigset;
    sigemptyset(&sigset);
    sigaddset(&sigset, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &sigset, nullptr);
    std::signal(SIGINT, SIG_IGN);
    EXPECT_EQ(Start(g_u32Piped | OS_SPAWNFLAGS_DETACHED,
                    Script("facts",
                           "cut -d' ' -f6 /proc/$$/stat; ulimit -Sn; exec grep -E 'Sig(Blk|Ign)' /proc/self/status")),
              EOSSTS_SUCCESS);
    const std::string strSession = std::to_string(m_osthread.ChildProcessId());
    EXPECT_EQ(Output(), strSession + "\n200\nSigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n");
    // A shell unblocks them itself.
    EXPECT_EQ(m_osthread.Spawn(g_u32Piped, "/bin/grep", "grep", {"SigBlk", "/proc/self/status"}), EOSSTS_SUCCESS);
    EXPECT_EQ(Output(), "SigBlk:\t0000000000000000\n");
}

TEST_F(Spawn, AFormerChildMayStillBeAsked)
{
    const auto run = [&](const std::string& a_strName, const std::string& a_strText) {
        EXPECT_EQ(Start(OS_SPAWNFLAGS_NORETRY, Script(a_strName, a_strText)), EOSSTS_SUCCESS);
        const PlatHandle plathandle = m_osthread.ChildProcess();
        EXPECT_TRUE(WaitFor([&] { return !m_osthread.ChildIsRunning(); }));
        return plathandle;
    };
    const PlatHandle plathandle = run("former", "exit 7");
    EXPECT_EQ(m_osthread.ChildExitCode(), 7u);
    run("next", "exit 8");
    EXPECT_EQ(m_osthread.ChildExitCode(), 8u);
    uint32_t u32ExitCode = 0;
    EXPECT_TRUE(PlatProcessExitCode(plathandle, &u32ExitCode));
    EXPECT_EQ(u32ExitCode, 7u);
}

// A child that a busy machine runs too late to be seen dying is waited for, and the case tried again.
TEST_F(Spawn, AChildThatDiesAtOnceIsStartedAgain)
{
    const auto hasEnded = [&] { return !m_osthread.ChildIsRunning(); };
    const std::string strDies = Script("dies", "echo >> tries");
    m_fakeconfiguration.Set(OS_CFGTAG_FORCESPAWNRETRY, "3");
    EXPECT_TRUE(WaitFor([&] {
        std::filesystem::remove(PathOf("tries"));
        m_logcapture.Clear();
        return Start(OS_SPAWNFLAGS_PIPES, strDies) == EOSSTS_FAIL || !WaitFor(hasEnded);
    }));
    EXPECT_EQ(SizeOf("tries"), 3u);
    EXPECT_EQ(m_logcapture.Count("Retry the spawn for...<" + strDies + ">"), 3u);
    EXPECT_TRUE(m_logcapture.HasAt(OS_LOG_ERROR, "Retry count exceeded..."));

    // What a child that died has said is not taken for the next one's.
    const std::string strSecond = Script("second", "echo $$; [ -e again ] && read line; echo > again");
    EXPECT_TRUE(WaitFor([&] {
        std::filesystem::remove(PathOf("again"));
        EXPECT_EQ(Start(OS_SPAWNFLAGS_PIPES, strSecond), EOSSTS_SUCCESS);
        return m_logcapture.Has("Retry the spawn for...<" + strSecond + ">") || !WaitFor(hasEnded);
    }));
    std::string strOutput;
    EXPECT_EQ(Read(&strOutput), EOSSTS_SUCCESS);
    EXPECT_EQ(strOutput, std::to_string(m_osthread.ChildProcessId()) + "\n");
    EXPECT_EQ(Start(OS_SPAWNFLAGS_PIPES, strSecond), EOSSTS_FAIL);
    EXPECT_TRUE(m_logcapture.HasAt(OS_LOG_ERROR, "Spawn: This object already has something spawned..."));
    EXPECT_EQ(m_osthread.ChildWrite("\n", 1), EOSSTS_SUCCESS);
    EXPECT_TRUE(WaitFor(hasEnded));
}

TEST_F(Spawn, WhatCannotBeStartedIsToldAtOnce)
{
    const uint64_t u64Start = PlatTicks();
    WriteWhole(PathOf("text"), "no program");
    for (const std::string& strProgram : {PathOf("none"), PathOf("text"), m_path.string(), std::string(5000, 'x')})
    {
        EXPECT_EQ(Start(OS_SPAWNFLAGS_PIPES, strProgram), EOSSTS_FAIL);
        EXPECT_FALSE(m_osthread.ChildIsRunning());
    }
    EXPECT_EQ(m_logcapture.Count("Spawn: CreateProcessW failed...<" + PathOf("none") + ">"), 1u);
    EXPECT_EQ(Start(0, ""), EOSSTS_FAIL);
    EXPECT_EQ(m_osthread.Spawn(0, "/bin/true", nullptr), EOSSTS_FAIL);
    EXPECT_TRUE(m_logcapture.HasAt(OS_LOG_ERROR, "Spawn: a_szArg0 is NULL..."));
    std::string strOutput;
    EXPECT_EQ(Read(&strOutput), EOSSTS_FAIL);
    EXPECT_EQ(m_osthread.ChildWrite("x", 1), EOSSTS_FAIL);
    EXPECT_EQ(m_logcapture.Count("Not set up for standard io..."), 2u);
    EXPECT_LT(PlatTicks() - u64Start, 5000u);
}

TEST_F(Spawn, ADamagedProgramFileIsNotStarted)
{
    const std::string strProgram = Script("program", "echo runs; exit");
    const uint64_t u64Size = SizeOf("program");
    const std::string strText = ReadWhole(strProgram);
    OsResourceTrailer osresourcetrailer{u64Size, u64Size, 0, OS_RESOURCEVERSION, {}};
    memcpy(osresourcetrailer.szMagic, OS_RESOURCEMAGIC, sizeof OS_RESOURCEMAGIC);
    const auto start = [&](size_t a_sizetTrailer) {
        WriteWhole(strProgram, strText + std::string(reinterpret_cast<char*>(&osresourcetrailer), a_sizetTrailer));
        const EOSSTS eossts = Start(g_u32Piped | OS_SPAWNFLAGS_CHECKFILE, strProgram);
        return eossts == EOSSTS_SUCCESS ? Output() : "";
    };
    EXPECT_EQ(start(0), "runs\n");
    EXPECT_EQ(start(sizeof osresourcetrailer), "runs\n");
    osresourcetrailer.u64Table += 1;
    EXPECT_EQ(start(sizeof osresourcetrailer), "");
    EXPECT_EQ(m_logcapture.Count("corrupted binary..."), 1u);
}

TEST_F(Spawn, AllThatAChildWroteIsReadBeforeItsEnd)
{
    const std::string strShort = Script("short", "printf x");
    for (int i = 0; i < 100; ++i)
    {
        ASSERT_EQ(Start(g_u32Piped, strShort), EOSSTS_SUCCESS);
        ASSERT_TRUE(i % 2 || WaitFor([&] { return !m_osthread.ChildIsRunning(); }));
        ASSERT_EQ(Output(), "x");
    }
    EXPECT_EQ(Start(g_u32Piped, Script("long", "head -c 300000 /dev/zero")), EOSSTS_SUCCESS);
    EXPECT_EQ(Output().size(), 300000u);

    // The end is the child's own, not that of what it has left behind with its streams.
    EXPECT_EQ(Start(g_u32Piped, Script("leaves", "sleep 20 & echo $!")), EOSSTS_SUCCESS);
    const uint64_t u64Start = PlatTicks();
    const PlatHandle plathandle = PlatProcessOpen(std::stoull(Output()));
    EXPECT_LT(PlatTicks() - u64Start, 10000u);
    PlatProcessTerminate(plathandle, 1);
    PlatClose(plathandle);
}

TEST_F(Spawn, StandardErrorIsLeftForItself)
{
    EXPECT_EQ(Start(g_u32Piped, Script("both", "echo error >&2; echo output; read line")), EOSSTS_SUCCESS);
    std::string strOutput;
    EXPECT_EQ(Read(&strOutput, true), EOSSTS_SUCCESS);
    EXPECT_EQ(Read(&strOutput), EOSSTS_SUCCESS);
    EXPECT_EQ(strOutput, "output\nerror\n");
    EXPECT_EQ(m_osthread.ChildWrite("\n", 1), EOSSTS_SUCCESS);
    EXPECT_EQ(Output(), "");
    EXPECT_EQ(m_osthread.ChildWrite("\n", 1), EOSSTS_FAIL);
}

TEST_F(Spawn, AReadGivesUpAfterThreeSecondsOrWhenItIsCancelled)
{
    std::string strOutput;
    EXPECT_EQ(Start(g_u32Piped, Script("silent", "read line")), EOSSTS_SUCCESS);
    const uint64_t u64Start = PlatTicks();
    EXPECT_EQ(Read(&strOutput), EOSSTS_TIMEOUT);
    EXPECT_GE(PlatTicks() - u64Start, 3000u);
    EXPECT_LT(PlatTicks() - u64Start, 6000u);
    std::thread thread([&] { m_osthread.ChildCancel(); });
    EXPECT_EQ(Read(&strOutput), EOSSTS_CANCELLED);
    thread.join();
    EXPECT_EQ(m_osthread.ChildWrite("\n", 1), EOSSTS_SUCCESS);
    EXPECT_EQ(Read(&strOutput), EOSSTS_EXITED);
}

TEST_F(Spawn, AChildThatHasClosedItsStreamsIsNotWaitedFor)
{
    std::string strOutput;
    EXPECT_EQ(Start(g_u32Piped, Script("closes", "exec >&-; read line; echo error >&2; exec 2>&-; read line")),
              EOSSTS_SUCCESS);
    const uint64_t u64Start = PlatTicks();
    EXPECT_EQ(Read(&strOutput, true), EOSSTS_NOSPACE);
    EXPECT_EQ(m_osthread.ChildWrite("\n", 1), EOSSTS_SUCCESS);
    EXPECT_EQ(Read(&strOutput), EOSSTS_SUCCESS);
    EXPECT_EQ(strOutput, "error\n");
    EXPECT_EQ(Read(&strOutput), EOSSTS_NOSPACE);
    EXPECT_LT(PlatTicks() - u64Start, 3000u);
    EXPECT_TRUE(m_osthread.ChildIsRunning());
    EXPECT_EQ(m_osthread.ChildWrite("\n", 1), EOSSTS_SUCCESS);
    EXPECT_EQ(Output(), "");
}

TEST_F(Spawn, AChildOutlivesTheObjectAndLeavesNoZombie)
{
    auto uniqueThread = std::make_unique<COsThread>();
    const std::string strProgram = Script("lives", "while [ ! -e go ]; do sleep 0.01; done; echo > done");
    EXPECT_EQ(uniqueThread->Spawn(g_u32Piped, strProgram.c_str(), "lives"), EOSSTS_SUCCESS);
    const std::string strProcess = "/proc/" + std::to_string(uniqueThread->ChildProcessId());
    uniqueThread.reset();
    WriteWhole(PathOf("go"), "");
    EXPECT_TRUE(WaitFor([&] { return SizeOf("done") > 0; }));
    EXPECT_TRUE(WaitFor([&] { return !std::filesystem::exists(strProcess); }));
}

TEST_F(Spawn, AServiceStartsChildrenForTheUserOfTheSession)
{
    const auto output = [&](uint32_t a_u32Flags) {
        const EOSSTS eossts =
            m_osthread.Spawn(g_u32Piped | a_u32Flags, "/bin/sh", "sh", {"-c", "id -un; id -Gn; echo $HOME"});
        return eossts == EOSSTS_SUCCESS ? Output() : "";
    };
    OsEnvSet("MVR_SESSIONUSER", "nobody-of-that-name");
    EXPECT_EQ(output(OS_SPAWNFLAGS_FROMSERVICE), output(0));
    EXPECT_TRUE(m_logcapture.HasAt(OS_LOG_ERROR, "pfnwtsqueryusertoken failed...1"));
    EXPECT_EQ(output(OS_SPAWNFLAGS_SERVICESESSION), "");
    EXPECT_TRUE(m_logcapture.HasPart("WTSQueryUserToken failed..."));
    if (geteuid() != 0)
        GTEST_SKIP() << "only an administrator may act for others";
    OsEnvSet("MVR_SESSIONUSER", "daemon");
    EXPECT_EQ(output(OS_SPAWNFLAGS_FROMSERVICE), "daemon\ndaemon\n/usr/sbin\n");
    EXPECT_EQ(output(OS_SPAWNFLAGS_SERVICESESSION), "daemon\ndaemon\n/usr/sbin\n");
}
}   // namespace
