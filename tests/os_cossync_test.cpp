// os_cossync_test.cpp: events between threads and between processes, groups of events, watched processes.
#include "os_cosmem.h"
#include "os_cossync.h"
#include "plat_child.h"

#include <list>

static constexpr uint32_t g_u32Patience = 20000;

TEST(Event, TellsWhatIsWrongWithItsUse)
{
    LogCapture logcapture;
    COsSync ossync;
    EXPECT_TRUE(logcapture.HasPart(" size:   1104  new COsSyncImpl"));
    EXPECT_EQ(ossync.EventSet(), EOSSTS_FAIL);
    EXPECT_TRUE(logcapture.HasAt(OS_LOG_ERROR, "sync>>> sync type isn't an event...0"));
    EXPECT_EQ(ossync.EventWait(0, nullptr), EOSSTS_FAIL);
    EXPECT_EQ(ossync.EventHandle(), PLAT_INVALID);
    EXPECT_EQ(ossync.EventOpen(""), EOSSTS_FAIL);
    EXPECT_TRUE(logcapture.Has("sync>>> a_szName is null or empty..."));
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

TEST_F(NamedEvent, TakesNamesOfUpTo511CharactersAndRefusesLongerOnes)
{
    COsSync ossync;
    EXPECT_EQ(ossync.EventCreate(std::string(511, 'n').c_str(), nullptr), EOSSTS_SUCCESS);
    ossync.EventClose();
    EXPECT_EQ(ossync.EventCreate(std::string(512, 'n').c_str(), nullptr), EOSSTS_FAIL);
    EXPECT_EQ(ossync.EventCreate("free again", nullptr), EOSSTS_SUCCESS);
}

// In another process: sets "pong" at once and then for every "ping".
int PlayPart(const std::vector<std::string>&)
{
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
    m_listossync.back().EventSet();
    EXPECT_EQ(ossyncNinth.EventWait(0, szName), EOSSTS_SUCCESS);
    EXPECT_STREQ(szName, "event7");
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

// A killed process leaves the lock taken and all its events registered.
TEST_F(GroupedEvent, LeftoverOfAKilledProcessIsReplaced)
{
    WriteWhole(m_path / "group", Bytes(4176) + std::string(4168, '\1'));
    FillGroup();
    m_listossync.back().EventSet();
    char szName[OS_PATHSIZE];
    EXPECT_EQ(m_listossync.front().EventWait(g_u32Patience, szName), EOSSTS_SUCCESS);
    EXPECT_STREQ(szName, "event7");
}

// Anybody may write into the block. What is not ours is not waited for, and a name ends where its place ends.
TEST_F(GroupedEvent, ForgedBlockDoesNoHarm)
{
    COsSync ossyncBystander;
    ASSERT_EQ(ossyncBystander.EventCreate(nullptr, nullptr), EOSSTS_SUCCESS);
    ossyncBystander.EventSet();
    COsSync ossync;
    COsSync ossyncSecond;
    ASSERT_EQ(ossync.EventCreate("first", "group"), EOSSTS_SUCCESS);
    ASSERT_EQ(ossyncSecond.EventCreate("second", "group"), EOSSTS_SUCCESS);
    constexpr size_t sizetHandles = 16;
    constexpr size_t sizetNames = 80;
    Overwrite(m_path / "group", sizetHandles + 2 * sizeof(uint64_t),
              Bytes(ossyncBystander.EventHandle()) + Bytes(~uint64_t{1}));
    Overwrite(m_path / "group", sizetNames + OS_PATHSIZE, std::string(OS_PATHSIZE + 5, 'A'));

    char szName[OS_PATHSIZE];
    EXPECT_EQ(ossync.EventWait(0, szName), EOSSTS_TIMEOUT);
    ossyncSecond.EventSet();
    EXPECT_EQ(ossync.EventWait(0, szName), EOSSTS_SUCCESS);
    EXPECT_EQ(szName, std::string(OS_PATHSIZE - 1, 'A'));
    EXPECT_EQ(ossyncBystander.EventWait(0, nullptr), EOSSTS_SUCCESS);
}

TEST_F(GroupedEvent, LockOfAKilledProcessHoldsUpNobodyForLong)
{
    FillGroup();
    m_listossync.back().EventSet();
    Overwrite(m_path / "group", sizeof(uint64_t), Bytes(1));
    char szName[OS_PATHSIZE];
    EXPECT_EQ(m_listossync.front().EventWait(0, szName), EOSSTS_SUCCESS);
    EXPECT_STREQ(szName, "event7");
}
