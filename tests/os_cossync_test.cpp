// os_cossync_test.cpp: events between threads and between processes, groups of events, watched processes.
#include "os_cosmem.h"
#include "os_cossync.h"
#include "plat_child.h"
#include "test_support.h"

#include "plat_file.h"

#include <list>
#include <sys/wait.h>
#include <unistd.h>

static constexpr uint32_t g_u32Patience = 20000;

TEST(Event, TellsWhatIsWrongWithItsUse)
{
    LogCapture logcapture;
    COsSync ossync;
    EXPECT_EQ(ossync.EventSet(), EOSSTS_FAIL);
    EXPECT_TRUE(logcapture.HasAt(OS_LOG_ERROR, "sync>>> sync type isn't an event...0"));
    EXPECT_EQ(ossync.EventWait(0, nullptr), EOSSTS_FAIL);
    EXPECT_EQ(ossync.EventHandle(), PLAT_INVALID);
    EXPECT_EQ(ossync.EventOpen(""), EOSSTS_FAIL);
    EXPECT_TRUE(logcapture.Has("sync>>> a_szName is null or empty..."));
    EXPECT_EQ(ossync.EventCreate(std::string(512, 'n').c_str(), nullptr), EOSSTS_FAIL);
    EXPECT_EQ(ossync.EventCreate("", "group"), EOSSTS_FAIL);
    EXPECT_TRUE(logcapture.Has("sync>>> cannot specify a group for an unnamed event..."));

    ASSERT_EQ(ossync.EventCreate(nullptr, nullptr), EOSSTS_SUCCESS);
    EXPECT_TRUE(logcapture.HasAt(OS_LOG_NOTE, "sync>>> Create(Event,null,null,0)"));
    EXPECT_EQ(ossync.EventCreate("other", nullptr), EOSSTS_FAIL);
    EXPECT_TRUE(logcapture.Has("sync>>> this object is already in use..."));
    EXPECT_EQ(ossync.EventSet(), EOSSTS_SUCCESS);
    char szName[OS_PATHSIZE] = "unchanged";
    EXPECT_EQ(ossync.EventWait(OS_INFINITE, szName), EOSSTS_SUCCESS);
    EXPECT_STREQ(szName, "");
    EXPECT_EQ(ossync.EventWait(5, nullptr), EOSSTS_TIMEOUT);
}

// Whenever the close falls into the wait.
TEST(Event, CloseEndsTheWaitsForIt)
{
    for (int iRound = 0; iRound < 30; ++iRound)
    {
        COsSync ossync;
        ASSERT_EQ(ossync.EventCreate(nullptr, nullptr), EOSSTS_SUCCESS);
        std::atomic<int> iWaiting = 0;
        InThreads(3, [&](int a_iThread) {
            ++iWaiting;
            if (a_iThread != 0)
            {
                EXPECT_EQ(ossync.EventWait(g_u32Patience, nullptr), EOSSTS_FAIL);
                return;
            }
            WaitFor([&] { return iWaiting == 3; });
            PlatSleep(static_cast<uint32_t>(iRound % 3));
            ossync.EventClose();
        });
    }
}

using NamedEvent = FolderTest;

TEST_F(NamedEvent, IsFoundByItsNameWhileItExists)
{
    LogCapture logcapture;
    COsSync ossync;
    COsSync ossyncOpened;
    EXPECT_EQ(ossyncOpened.EventOpen("name"), EOSSTS_NOTFOUND);
    EXPECT_EQ(ossyncOpened.EventOpen("name"), EOSSTS_NOTFOUND);   // the first has left none behind
    EXPECT_EQ(logcapture.Count("sync>>> CreateEvent failed..."), 2u);

    ASSERT_EQ(ossync.EventCreate("Global\\name", nullptr), EOSSTS_SUCCESS);
    ASSERT_EQ(ossyncOpened.EventOpen("name"), EOSSTS_SUCCESS);
    EXPECT_EQ(PlatGetLastError(), 0u);
    ossyncOpened.EventSet();
    char szName[OS_PATHSIZE];
    EXPECT_EQ(ossync.EventWait(g_u32Patience, szName), EOSSTS_SUCCESS);
    EXPECT_STREQ(szName, "Global\\name");

    ossync.EventClose();
    EXPECT_TRUE(logcapture.HasPart("(Global\\name)"));
    EXPECT_EQ(ossync.EventOpen("name"), EOSSTS_SUCCESS);   // the other one keeps it
    ossync.EventClose();
    ossyncOpened.EventClose();
    EXPECT_EQ(ossync.EventOpen("name"), EOSSTS_NOTFOUND);
}

// In another process: joins the group in a folder, or sets "pong" at once and then for every "ping".
int PlayPart(const std::vector<std::string>& a_vecstrArguments)
{
    if (a_vecstrArguments[0] == "member")
    {
        FakeConfiguration cfgfake;
        cfgfake.Set(OS_CFGTAG_ROOTCOMMONDIRECTORY, a_vecstrArguments[1]);
        COsSync ossync;
        ossync.EventCreate("theirs", "group");
        Say("ready");
        PlatSleep(60000);
    }
    COsSync ossyncPing;
    COsSync ossyncPong;
    if (ossyncPing.EventCreate("ping", nullptr) != EOSSTS_SUCCESS || ossyncPong.EventOpen("pong") != EOSSTS_SUCCESS)
        return 1;
    while (ossyncPong.EventSet() == EOSSTS_SUCCESS && ossyncPing.EventWait(g_u32Patience, nullptr) == EOSSTS_SUCCESS)
    {
    }
    return 0;
}

TEST_F(NamedEvent, WorksBetweenProcessesAndOutlivesAKilledCreator)
{
    COsSync ossyncPing;
    COsSync ossyncPong;
    ASSERT_EQ(ossyncPong.EventCreate("pong", nullptr), EOSSTS_SUCCESS);
    const Part part("pong");
    ASSERT_EQ(ossyncPong.EventWait(g_u32Patience, nullptr), EOSSTS_SUCCESS);
    ASSERT_EQ(ossyncPing.EventOpen("ping"), EOSSTS_SUCCESS);
    for (int iTurn = 0; iTurn < 100; ++iTurn)
    {
        ossyncPing.EventSet();
        ASSERT_EQ(ossyncPong.EventWait(g_u32Patience, nullptr), EOSSTS_SUCCESS);
    }

    part.Kill();
    EXPECT_EQ(ossyncPing.EventSet(), EOSSTS_SUCCESS);
    EXPECT_EQ(ossyncPing.EventWait(0, nullptr), EOSSTS_SUCCESS);
    ossyncPing.EventClose();
    EXPECT_EQ(ossyncPing.EventOpen("ping"), EOSSTS_NOTFOUND);
}

TEST_F(NamedEvent, WaitEndsWithTheWatchedProcess)
{
    LogCapture logcapture;
    COsSync ossync;
    ASSERT_EQ(ossync.EventCreate("pong", nullptr), EOSSTS_SUCCESS);
    const Part part("pong");
    ASSERT_EQ(ossync.EventIncludeProcessId(part.m_u64ProcessId), EOSSTS_SUCCESS);
    ASSERT_EQ(ossync.EventWait(g_u32Patience, nullptr), EOSSTS_SUCCESS);
    EXPECT_EQ(ossync.EventWait(0, nullptr), EOSSTS_TIMEOUT);

    part.Kill();
    ossync.EventSet();
    EXPECT_EQ(ossync.EventWait(OS_INFINITE, nullptr), EOSSTS_EXITED);
    EXPECT_TRUE(logcapture.Has("sync>>> our process died..." + std::to_string(part.m_u64ProcessId)));
    EXPECT_EQ(ossync.EventIncludeProcessId(0), EOSSTS_SUCCESS);
    EXPECT_EQ(ossync.EventWait(0, nullptr), EOSSTS_SUCCESS);
    EXPECT_EQ(ossync.EventIncludeProcessId(0x7FFFFFFF), EOSSTS_FAIL);
    EXPECT_TRUE(logcapture.HasAt(OS_LOG_ERROR, "sync>>> OpenProcess failed...2147483647"));
}

// -------------------------------------------------------------------------------------------------------------- groups

class GroupedEvent : public FolderTest
{
protected:
    GroupedEvent() { m_cfgfake.Set(OS_CFGTAG_ROOTCOMMONDIRECTORY, m_path.string()); }

    // Fills the group with "event0" to "event7".
    void FillGroup()
    {
        for (const char* szName : {"event0", "event1", "event2", "event3", "event4", "event5", "event6", "event7"})
            ASSERT_EQ(m_listossync.emplace_back().EventCreate(szName, "group"), EOSSTS_SUCCESS);
    }

    static std::string Bytes(uint64_t a_u64) { return {reinterpret_cast<const char*>(&a_u64), sizeof a_u64}; }

    FakeConfiguration m_cfgfake;
    COsMem m_osmem;
    std::list<COsSync> m_listossync;
};

TEST_F(GroupedEvent, WaitOfOneTellsWhichOfEightItWas)
{
    LogCapture logcapture;
    WriteWhole(m_path / "group", Bytes(4176) + std::string(4168, '\1'));   // left behind, lock and slots taken
    FillGroup();
    COsSync ossyncNinth;
    EXPECT_EQ(ossyncNinth.EventCreate("ninth", "group"), EOSSTS_FAIL);
    EXPECT_TRUE(logcapture.HasAt(OS_LOG_CHECK, "sync>>> m_possyncgroupShared is full...<ninth> <group>"));

    COsSync& ossyncFirst = m_listossync.front();
    ASSERT_EQ(ossyncFirst.EventIncludeProcessId(PlatProcessId()), EOSSTS_SUCCESS);   // the last has the ninth place now
    char szName[OS_PATHSIZE];
    int iEvent = 0;
    for (COsSync& ossync : m_listossync)
    {
        ossync.EventSet();
        EXPECT_EQ(ossyncFirst.EventWait(0, szName), EOSSTS_SUCCESS);
        EXPECT_EQ(szName, "event" + std::to_string(iEvent++));
    }
    EXPECT_EQ(ossyncFirst.EventWait(0, szName), EOSSTS_TIMEOUT);

    m_listossync.pop_front();   // makes room in the group that it has made
    EXPECT_EQ(ossyncNinth.EventCreate("ninth", "group"), EOSSTS_SUCCESS);
    m_listossync.clear();
    ossyncNinth.EventClose();
    EXPECT_FALSE(std::filesystem::exists(m_path / "group"));
}

TEST_F(GroupedEvent, EveryCreatorOfManyAtOnceJoinsTheSameGroup)
{
    for (int iRound = 0; iRound < 20; ++iRound)
    {
        COsSync aossync[8];
        InThreads(
            8, [&](int a_iThread) { EXPECT_EQ(aossync[a_iThread].EventCreate("same name", "group"), EOSSTS_SUCCESS); });
        COsSync ossyncNinth;
        EXPECT_EQ(ossyncNinth.EventCreate("ninth", "group"), EOSSTS_FAIL);
    }
}

TEST_F(GroupedEvent, FileThatIsNoGroupIsRejected)
{
    LogCapture logcapture;
    WriteWhole(m_path / "group", Bytes(4175) + std::string(5000, '\0'));
    COsSync ossync;
    EXPECT_EQ(ossync.EventCreate("event", "group"), EOSSTS_FAIL);
    EXPECT_TRUE(logcapture.HasAt(OS_LOG_CHECK, "sync>>> mismatch detected in OsSyncGroup...4175 < 4176"));
    EXPECT_EQ(ossync.EventCreate("event", nullptr), EOSSTS_SUCCESS);
}

// Anybody may write into the file, and a wait needs nothing of it. What we did not put there we do not take away.
TEST_F(GroupedEvent, ForgedOrCutFileDoesNoHarm)
{
    COsSync ossyncOther;
    COsSync ossync;
    COsSync ossyncSecond;
    ASSERT_EQ(ossyncOther.EventCreate("other", "another group"), EOSSTS_SUCCESS);
    ASSERT_EQ(ossync.EventCreate("first", "group"), EOSSTS_SUCCESS);
    ASSERT_EQ(ossyncSecond.EventCreate("second", "group"), EOSSTS_SUCCESS);
    const std::string strForged =
        Bytes(4176) + Bytes(1) + Bytes(ossyncOther.EventHandle()) + Bytes(~uint64_t{1}) + std::string(9000, 'A');
    Overwrite(m_path / "group", 0, strForged);
    ossyncOther.EventSet();
    char szName[OS_PATHSIZE];
    const uint64_t u64Begin = PlatTicks();
    EXPECT_EQ(ossync.EventWait(0, szName), EOSSTS_TIMEOUT);
    ossyncSecond.EventSet();
    EXPECT_EQ(ossync.EventWait(0, szName), EOSSTS_SUCCESS);
    EXPECT_STREQ(szName, "second");
    EXPECT_LT(PlatTicks() - u64Begin, 1000u);   // for a lock's word that stays taken nobody waits
    ossyncSecond.EventClose();
    EXPECT_EQ(ReadWhole(m_path / "group"), strForged);

    for (const unsigned uSize : {1000u, 0u})
    {
        std::filesystem::resize_file(m_path / "group", uSize);
        EXPECT_EQ(ossync.EventWait(0, nullptr), EOSSTS_TIMEOUT);
        ASSERT_EQ(ossyncSecond.EventCreate("second", "group"), EOSSTS_SUCCESS);
        ossyncSecond.EventSet();
        EXPECT_EQ(ossync.EventWait(0, nullptr), EOSSTS_SUCCESS);
        ossyncSecond.EventClose();
    }
    std::filesystem::remove(m_path / "group");
    ASSERT_EQ(ossyncSecond.EventCreate("second", "group"), EOSSTS_SUCCESS);   // of a new file, whose slots are all free
    ossync.EventSet();
    EXPECT_EQ(ossyncSecond.EventWait(0, szName), EOSSTS_SUCCESS);
    EXPECT_STREQ(szName, "first");
}

// A wait on its way lets go of what another thread closes, and ends with its own event.
TEST_F(GroupedEvent, CloseReachesTheWaitsOfTheGroup)
{
    for (int iRound = 0; iRound < 20; ++iRound)
    {
        COsSync ossync;
        COsSync ossyncSecond;
        COsSync ossyncOpened;
        ASSERT_EQ(ossync.EventCreate("first", "group"), EOSSTS_SUCCESS);
        ASSERT_EQ(ossyncSecond.EventCreate("second", "group"), EOSSTS_SUCCESS);
        std::jthread jthread([&] { EXPECT_EQ(ossync.EventWait(g_u32Patience, nullptr), EOSSTS_FAIL); });
        PlatSleep(static_cast<uint32_t>(iRound % 3));
        ossyncSecond.EventClose();
        EXPECT_TRUE(WaitFor(
            [&] {
                const EOSSTS eossts = ossyncOpened.EventOpen("second");
                ossyncOpened.EventClose();
                return eossts == EOSSTS_NOTFOUND;
            },
            5000));
        ossync.EventClose();
    }
}

TEST_F(GroupedEvent, SlotOfAnotherProcessIsFreeWhenThatIsKilled)
{
    const Part part("member " + m_path.string());
    ASSERT_EQ(part.OutputUpTo("ready"), "ready");
    for (int iEvent = 0; iEvent < 7; ++iEvent)
        ASSERT_EQ(m_listossync.emplace_back().EventCreate("ours", "group"), EOSSTS_SUCCESS) << iEvent;
    EXPECT_EQ(m_listossync.emplace_back().EventCreate("ours", "group"), EOSSTS_FAIL);
    part.Kill();
    EXPECT_EQ(m_listossync.back().EventCreate("ours", "group"), EOSSTS_SUCCESS);
}

TEST_F(GroupedEvent, LockThatSomebodyKeepsIsWaitedForTwoSeconds)
{
    LogCapture logcapture;
    COsSync ossync;
    COsSync ossyncSecond;
    ASSERT_EQ(ossync.EventCreate("first", "group"), EOSSTS_SUCCESS);
    const PlatHandle plathandle =
        PlatFileOpen(Wide(PathOf("group")).c_str(), PLAT_ACCESS_READ | PLAT_ACCESS_WRITE,
                     PLAT_SHARE_READ | PLAT_SHARE_WRITE | PLAT_SHARE_DELETE, PLAT_DISPOSITION_OPENEXISTING, 0);
    ASSERT_TRUE(PlatFileLockBriefly(plathandle, 4176, 1, 0));
    const uint64_t u64Begin = PlatTicks();
    EXPECT_EQ(ossyncSecond.EventCreate("second", "group"), EOSSTS_FAIL);
    EXPECT_GE(PlatTicks() - u64Begin, 2000u);
    EXPECT_TRUE(logcapture.HasAt(OS_LOG_CHECK, "sync>>> somebody keeps the lock of the group...<second> <group>"));
    EXPECT_EQ(ossync.EventWait(0, nullptr), EOSSTS_TIMEOUT);

    // The lock is gone with its process, also while a child of that lives on.
    int aiPipe[2];
    ASSERT_EQ(pipe(aiPipe), 0);
    const pid_t pid = fork();
    ASSERT_NE(pid, -1);
    if (pid == 0)
    {
        static_cast<void>(write(aiPipe[1], "x", 1));
        pause();
    }
    char ch;
    EXPECT_EQ(read(aiPipe[0], &ch, 1), 1);
    PlatClose(plathandle);
    EXPECT_EQ(ossyncSecond.EventCreate("second", "group"), EOSSTS_SUCCESS);
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
}

// One object is created, set, waited for and closed by all, and is in a group with one that stays: its waits succeed or
// time out, tell a name of the group, and take nothing of the descriptors that others open meanwhile.
TEST_F(GroupedEvent, ManyThreadsShareOneObject)
{
    const char* const szSeconds = getenv("TEST_SECONDS");
    const uint64_t u64End = PlatTicks() + (szSeconds ? std::stoul(szSeconds) * 1000 : 1000);
    COsSync ossyncStays;
    COsSync ossyncShared;
    ASSERT_EQ(ossyncStays.EventCreate("stays", "group"), EOSSTS_SUCCESS);
    std::atomic<int> iTaken = 0;
    const auto use = [&](int a_iThread, uint32_t a_u32Turn) {
        char szName[OS_PATHSIZE] = "";
        char achRead[16];
        size_t sizetRead = 0;
        PlatHandle aplathandle[2];
        switch (a_iThread)
        {
        case 0:
            return ossyncShared.EventCreate(a_u32Turn % 2 ? "shared" : nullptr, a_u32Turn % 4 == 1 ? "group" : nullptr);
        case 1:
            ossyncShared.EventClose();
            return EOSSTS_SUCCESS;
        case 2:
            return ossyncShared.EventSet();
        case 3:
            return ossyncShared.EventIncludeProcessId(a_u32Turn % 2 ? PlatProcessId() : 0);
        case 4:
            return ossyncShared.EventWait(a_u32Turn % 2, nullptr);
        case 5:
            EXPECT_TRUE(PlatPipeCreate(&aplathandle[0], &aplathandle[1], true));
            EXPECT_TRUE(PlatPipeWrite(aplathandle[1], "what is theirs", 14));
            EXPECT_TRUE(PlatPipeRead(aplathandle[0], achRead, sizeof achRead, &sizetRead) && sizetRead == 14);
            EXPECT_TRUE(PlatClose(aplathandle[0]) && PlatClose(aplathandle[1]));
            return ossyncStays.EventSet();
        default:
            const EOSSTS eossts = ossyncStays.EventWait(a_u32Turn % 2 ? 1000 : 1, szName);
            EXPECT_TRUE(eossts == EOSSTS_TIMEOUT || (eossts == EOSSTS_SUCCESS && *szName == 's')) << eossts;
            iTaken += eossts == EOSSTS_SUCCESS;
            return eossts;
        }
    };
    InThreads(8, [&](int a_iThread) {
        for (uint32_t u32Turn = 0; PlatTicks() < u64End; ++u32Turn)
            use(a_iThread, u32Turn);
    });
    EXPECT_GT(iTaken, 0);
}

TEST(Event, IsWaitedForWithoutADescriptorToSpare)
{
    COsSync ossync;
    ASSERT_EQ(ossync.EventCreate(nullptr, nullptr), EOSSTS_SUCCESS);
    const NoDescriptors nodescriptors;
    EXPECT_EQ(ossync.EventWait(50, nullptr), EOSSTS_TIMEOUT);
    std::thread thread([&] { ossync.EventSet(); });
    EXPECT_EQ(ossync.EventWait(20000, nullptr), EOSSTS_SUCCESS);
    thread.join();
}
