// plat_wait_test.cpp: what events and the one wait owe, on whichever system.
#include "plat_support.h"

#include "plat_file.h"
#include "plat_process.h"

#include <array>
#include <atomic>
#include <barrier>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace
{
uint32_t Look(PlatHandle a_plathandle)
{
    return PlatWaitAny(&a_plathandle, 1, 0);
}

// An event that is not there yet.
PlatHandle Create(const char16_t* a_wszName, PlatReset a_platreset = PLAT_RESET_AUTO)
{
    const PlatHandle plathandle = PlatEventCreate(a_platreset, a_wszName);
    EXPECT_EQ(PlatGetLastError(), PLAT_ERROR_NONE);
    EXPECT_NE(plathandle, PLAT_INVALID);
    return plathandle;
}

// Every promise about an event holds for both sorts.
class WaitEvent : public FolderTest, public testing::WithParamInterface<const char16_t*>
{
};
INSTANTIATE_TEST_SUITE_P(Sorts, WaitEvent, testing::Values(nullptr, u"Global\\named"));

using WaitAny = FolderTest;
using WaitName = FolderTest;

TEST_P(WaitEvent, AnAutomaticSignalIsTakenByOneWaitAManualOneStays)
{
    const PlatHandle plathandle = Create(GetParam());
    EXPECT_EQ(Look(plathandle), PLAT_WAIT_TIMEOUT);
    for (int i = 0; i < 10000; ++i)   // more than any buffer behind it holds
        ASSERT_TRUE(PlatEventSet(plathandle));
    EXPECT_EQ(Look(plathandle), 0u);
    EXPECT_EQ(Look(plathandle), PLAT_WAIT_TIMEOUT);
    EXPECT_TRUE(PlatEventSet(plathandle) && PlatEventReset(plathandle) && PlatEventReset(plathandle));
    EXPECT_EQ(Look(plathandle), PLAT_WAIT_TIMEOUT);
    EXPECT_TRUE(PlatClose(plathandle));

    const PlatHandle plathandleManual = Create(GetParam(), PLAT_RESET_MANUAL);
    PlatEventSet(plathandleManual);
    EXPECT_EQ(Look(plathandleManual), 0u);
    EXPECT_EQ(Look(plathandleManual), 0u);
    EXPECT_TRUE(PlatEventReset(plathandleManual));
    EXPECT_EQ(Look(plathandleManual), PLAT_WAIT_TIMEOUT);
    PlatClose(plathandleManual);
}

// Each signal ends one wait; who loses the race waits on.
TEST_P(WaitEvent, OfManyWaitersOneTakesTheSignal)
{
    const PlatHandle plathandle = Create(GetParam());
    std::atomic<int> iTaken{0};
    std::atomic<bool> blStop{false};
    std::array<std::jthread, 4> athread;
    for (std::jthread& thread : athread)
    {
        thread = std::jthread([&] {
            while (!blStop)
                iTaken += PlatWaitAny(&plathandle, 1, 50) == 0;
        });
    }
    for (int i = 1; i <= 300; ++i)
    {
        PlatEventSet(plathandle);
        ASSERT_TRUE(WaitFor([&] { return iTaken == i; }));
    }
    blStop = true;
    athread = {};
    EXPECT_EQ(iTaken, 300);
    PlatClose(plathandle);
}

TEST_F(WaitAny, TheLowestReadyIndexWinsAndOnlyItIsConsumed)
{
    std::array<PlatHandle, 4> aplathandle{};
    for (PlatHandle& plathandle : aplathandle)
        plathandle = Create(nullptr);
    aplathandle[3] = aplathandle[1];   // twice in the list is once
    PlatEventSet(aplathandle[2]);
    PlatEventSet(aplathandle[1]);
    EXPECT_EQ(PlatWaitAny(aplathandle.data(), 4, 1000), 1u);
    EXPECT_EQ(PlatWaitAny(aplathandle.data(), 4, PLAT_INFINITE), 2u);
    EXPECT_EQ(PlatWaitAny(aplathandle.data(), 4, 0), PLAT_WAIT_TIMEOUT);
}

TEST_F(WaitAny, RefusesWhatCannotBeWaitedFor)
{
    std::array<PlatHandle, 65> aplathandle;
    aplathandle.fill(Create(nullptr));
    const auto error = [&](uint32_t a_u32Count) {
        EXPECT_EQ(PlatWaitAny(aplathandle.data(), a_u32Count, 0), PLAT_WAIT_FAILED);
        return PlatGetLastError();
    };
    EXPECT_EQ(PlatWaitAny(aplathandle.data(), 64, 0), PLAT_WAIT_TIMEOUT);
    EXPECT_EQ(error(65), PLAT_ERROR_INVALIDPARAMETER);
    EXPECT_EQ(error(0), PLAT_ERROR_INVALIDPARAMETER);
    PlatEventSet(aplathandle[0]);   // that another one is ready does not help
    EXPECT_TRUE(PlatPipeCreate(&aplathandle[1], &aplathandle[2], true));
    EXPECT_EQ(error(3), PLAT_ERROR_INVALIDHANDLE);   // the writing end
    PlatClose(aplathandle[1]);
    EXPECT_EQ(error(2), PLAT_ERROR_INVALIDHANDLE);
    EXPECT_FALSE(PlatClose(aplathandle[1]));
    EXPECT_FALSE(PlatClose(PLAT_INVALID));
}

// The system gives the number of what was closed to whoever opens next.
TEST_F(WaitAny, AClosedHandleIsNotTheNextOnes)
{
    for (const char16_t* wszName : {static_cast<const char16_t*>(nullptr), u"name"})
    {
        const PlatHandle plathandleClosed = Create(wszName);
        PlatClose(plathandleClosed);
        const PlatHandle plathandleFile =
            PlatFileOpen(Wide(PathOf("file")).c_str(), PLAT_ACCESS_READ | PLAT_ACCESS_WRITE, PLAT_SHARE_READ,
                         PLAT_DISPOSITION_CREATEALWAYS, 0);
        EXPECT_FALSE(PlatEventSet(plathandleClosed));
        EXPECT_EQ(PlatGetLastError(), PLAT_ERROR_INVALIDHANDLE);
        EXPECT_EQ(Look(plathandleClosed), PLAT_WAIT_FAILED);
        EXPECT_FALSE(PlatClose(plathandleClosed));
        EXPECT_EQ(PlatGetLastError(), PLAT_ERROR_INVALIDHANDLE);
        EXPECT_TRUE(PlatFileWrite(plathandleFile, "x", 1, nullptr) && PlatClose(plathandleFile));
        EXPECT_EQ(ReadWhole(PathOf("file")), "x");
    }
}

// Everything that lies in a folder, and how it may be used.
std::string ListOf(const std::filesystem::path& a_path)
{
    std::string strList;
    struct stat status = {};
    for (const auto& entry : std::filesystem::directory_iterator(a_path))
    {
        EXPECT_EQ(lstat(entry.path().c_str(), &status), 0);
        strList += entry.path().filename().string() + (S_ISFIFO(status.st_mode) ? " " : " no FIFO ") +
                   std::to_string(status.st_mode & 07777) + "\n";
    }
    return strList;
}

TEST_F(WaitName, EverybodyMayOpenItWhateverTheUmask)
{
    unsetenv("MVR_EVENTROOT");
    umask(0777);
    const std::string strName = "plat_wait_test-" + std::to_string(getpid());
    const PlatHandle plathandle = Create(Wide(strName).c_str());
    const std::string strFile = "/dev/shm/mvr.event." + strName;
    struct stat status = {};
    ASSERT_EQ(lstat(strFile.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode, S_IFIFO | mode_t{0666});
    const pid_t pid = fork();
    ASSERT_NE(pid, -1);
    if (pid == 0)
    {
        PlatClose(plathandle);              // the parent's as well
        static_cast<void>(setuid(65534));   // allowed to root
        const PlatHandle plathandleTheirs = PlatEventCreate(PLAT_RESET_AUTO, Wide(strName).c_str());
        _exit(PlatGetLastError() == PLAT_ERROR_ALREADYEXISTS && PlatEventSet(plathandleTheirs) ? 0 : 1);
    }
    int iStatus = 0;
    EXPECT_TRUE(waitpid(pid, &iStatus, 0) == pid && iStatus == 0);
    EXPECT_EQ(Look(plathandle), 0u);
    PlatClose(plathandle);
    EXPECT_NE(lstat(strFile.c_str(), &status), 0);

    setenv("MVR_EVENTROOT", PathOf("system/MVR_EVENTROOT").c_str(), 1);
    umask(022);
    Create(u"name");
    EXPECT_EQ(ListOf(m_path / "system/MVR_EVENTROOT"), "mvr.event.name " + std::to_string(0666) + "\n");
    EXPECT_EQ(ListOf(m_path / "system"), "MVR_EVENTROOT no FIFO " + std::to_string(01777) + "\n");
}

// Neither in a folder of somebody else nor behind a link; nothing that a link leads to is opened or changed.
TEST_F(WaitName, IsOnlyMadeWhereNobodyElseDecides)
{
    const auto error = [](const char16_t* a_wszName) {
        EXPECT_EQ(PlatEventCreate(PLAT_RESET_AUTO, a_wszName), PLAT_INVALID);
        return PlatGetLastError();
    };
    const std::filesystem::path pathRoot = m_path / "system/MVR_EVENTROOT";
    PlatClose(Create(u"name"));
    ASSERT_EQ(mkfifo(PathOf("private").c_str(), 0600), 0);
    symlink(PathOf("private").c_str(), (pathRoot / "mvr.event.link").c_str());
    EXPECT_EQ(error(u"link"), PLAT_ERROR_INVALIDNAME);
    link(PathOf("private").c_str(), (pathRoot / "mvr.event.private").c_str());
    EXPECT_EQ(error(u"private"), PLAT_ERROR_INVALIDHANDLE);
    WriteWhole(pathRoot / "mvr.event.file", "x");
    EXPECT_EQ(error(u"file"), PLAT_ERROR_INVALIDHANDLE);

    rename(pathRoot.c_str(), PathOf("elsewhere").c_str());
    symlink(PathOf("elsewhere").c_str(), pathRoot.c_str());
    EXPECT_EQ(error(u"name"), PLAT_ERROR_PATHNOTFOUND);
    std::filesystem::remove(pathRoot);
    ASSERT_EQ(mkdir(pathRoot.c_str(), 0777), 0);
    if (chown(pathRoot.c_str(), 65534, 65534) == 0)   // allowed to root
    {
        EXPECT_EQ(error(u"name"), PLAT_ERROR_ACCESSDENIED);
    }
    EXPECT_EQ(ListOf(pathRoot), "");
}

TEST_F(WaitName, LockThatSomebodyKeepsIsWaitedForTwoSeconds)
{
    PlatClose(Create(u"makes the folder"));
    const std::string strFile = PathOf("system/MVR_EVENTROOT/mvr.event.held");
    ASSERT_EQ(mkfifo(strFile.c_str(), 0666), 0);
    ASSERT_EQ(chmod(strFile.c_str(), 0666), 0);
    const int iHeld = open(strFile.c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_EQ(flock(iHeld, LOCK_EX), 0);
    const uint64_t u64Begin = PlatTicks();
    EXPECT_EQ(PlatEventCreate(PLAT_RESET_AUTO, u"held"), PLAT_INVALID);
    EXPECT_EQ(PlatGetLastError(), PLAT_ERROR_LOCK);
    EXPECT_GE(PlatTicks() - u64Begin, 2000u);
    close(iHeld);
    PlatClose(Create(u"held"));
}

TEST_F(WaitName, AnyTextIsANameOfItsOwn)
{
    const std::u16string wstrLong(511, u'\u20ac');
    const std::u16string awstrName[] = {u"a",  u"A",   u"a/b", u"a\\b",  u"a%2Fb",
                                        u"..", u"a b", u"a+b", wstrLong, wstrLong + u"x"};
    for (const std::u16string& wstrName : awstrName)
        Create(wstrName.c_str());
    EXPECT_EQ(PlatEventCreate(PLAT_RESET_AUTO, u"\xD800"), PLAT_INVALID);
    EXPECT_EQ(PlatGetLastError(), PLAT_ERROR_NOUNICODE);
}

// Openers meet closers at every point: at most one of those who come together is told that it made the event, exactly
// one when nobody had it before (every other round), and all have the same one.
TEST_F(WaitName, OpenersAndClosersAtOnceAgreeOnOneEvent)
{
    constexpr int iThreads = 3;
    std::array<std::atomic<int>, 2> aiMade{};
    std::atomic<int> iSeen{0};
    std::barrier barrier(iThreads);
    const auto play = [&](bool a_blSets) {
        for (int iRound = 0; iRound < 300; ++iRound)
        {
            std::atomic<int>& iMade = aiMade[static_cast<size_t>(iRound % 2)];
            const PlatHandle plathandle = PlatEventCreate(PLAT_RESET_MANUAL, u"contended");
            iMade += PlatGetLastError() == PLAT_ERROR_NONE;
            barrier.arrive_and_wait();   // all have it
            EXPECT_TRUE(iMade == 1 || (iMade == 0 && iRound % 2 == 1)) << iMade;
            if (a_blSets)
                PlatEventSet(plathandle);
            iSeen += PlatWaitAny(&plathandle, 1, 20000) == 0;
            barrier.arrive_and_wait();
            iMade = 0;
            PlatClose(plathandle);
            if (iRound % 2 == 1)
                barrier.arrive_and_wait();
        }
    };
    std::array<std::jthread, iThreads> athread;
    for (std::jthread& thread : athread)
        thread = std::jthread(play, &thread == athread.data());
    athread = {};
    EXPECT_EQ(iSeen, iThreads * 300);
}
}   // namespace
