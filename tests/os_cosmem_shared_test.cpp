// Shared memory: where it lies, who sees it, who holds its lock, and what an opener makes of a file that is not as it
// should be. Cases named Peer are the second process of another case.
#include "os_cosmem.h"

#include "test_support.h"

#include "plat_file.h"
#include "plat_memory.h"
#include "plat_process.h"

#include <atomic>
#include <sched.h>
#include <sys/inotify.h>
#include <sys/mount.h>
#include <unistd.h>

class Shared : public FolderTest
{
protected:
    static constexpr uint64_t m_u64Bytes = 4176;

    char* Create(uint32_t a_u32Flags, EOSSHAREDLOCK a_eossharedlock = OS_SHAREDLOCK_NONE,
                 uint64_t a_u64Bytes = m_u64Bytes) const
    {
        return static_cast<char*>(OsMemSharedAlloc(OS_SHAREDALLOC_CREATE, m_strFile.c_str(), a_u64Bytes, 0,
                                                   a_eossharedlock, a_u32Flags, "caller", 1));
    }
    char* Open(uint64_t a_u64Bytes = 0, uint32_t a_u32Flags = 0, int64_t a_i64View = 0) const
    {
        return static_cast<char*>(OsMemSharedAlloc(OS_SHAREDALLOC_OPEN, m_strFile.c_str(), a_u64Bytes, a_i64View,
                                                   OS_SHAREDLOCK_NONE, a_u32Flags, "caller", 2));
    }
    static void Put(char* a_pcView, const char* a_szText) { SStrCpy(a_pcView + m_u64Bytes - 5, 5, a_szText); }
    static std::string Get(const char* a_pcView) { return a_pcView + m_u64Bytes - 5; }
    static void Release(void* a_pvView) { OsMemFree(a_pvView, "caller", 3, OS_MEMFLAG_BLOCK); }
    static EOSSTS Lock(void* a_pvView) { return OsMemSharedLock(a_pvView, "caller", 4); }
    static EOSSTS Unlock(void* a_pvView) { return OsMemSharedUnlock(a_pvView, "caller", 5); }
    std::string Logged(const std::string& a_strText, const std::string& a_strRest = "") const
    {
        return a_strText + "<" + m_strFile + ">" + a_strRest;
    }

    std::string m_strFile = PathOf("shared.mem");
    LogCapture m_logcapture;
    FakeConfiguration m_cfgfake;
    COsMem m_osmem;
};

TEST_F(Shared, AFileBackedMemoryIsTheFileAndGoesWithItsCreator)
{
    WriteWhole(m_strFile, "left over");
    char* const pcCreated = Create(OS_SHAREDFLAG_FILE);
    ASSERT_NE(pcCreated, nullptr);
    EXPECT_EQ(std::filesystem::file_size(m_strFile) % PlatMemoryGranularity(), 0u);
    EXPECT_GE(std::filesystem::file_size(m_strFile), m_u64Bytes);
    EXPECT_EQ(pcCreated[0], 0);

    char* const pcOpened = Open();
    ASSERT_NE(pcOpened, nullptr);
    Put(pcCreated, "text");
    EXPECT_EQ(Get(pcOpened), "text");
    EXPECT_EQ(Create(OS_SHAREDFLAG_FILE), nullptr);   // not from under those who have it
    EXPECT_TRUE(m_logcapture.HasAt(1, Logged("mem>>> CreateFile failed...", " 2")));
    EXPECT_EQ(Get(pcOpened), "text");

    Release(pcCreated);
    EXPECT_FALSE(std::filesystem::exists(m_strFile));
    EXPECT_EQ(Get(pcOpened), "text");
    Release(pcOpened);
    EXPECT_EQ(m_osmem.GetCounts().u32Current, 0u);
    EXPECT_EQ(m_osmem.GetCounts().u64CurrentBytes, 0u);
}

TEST_F(Shared, ARefusedReaderIsTriedOnceMoreAsAWriter)
{
    WriteWhole(m_strFile, std::string(m_u64Bytes, 'x'));
    const PlatHandle plathandle =
        PlatFileOpen(Wide(m_strFile).c_str(), PLAT_ACCESS_READ, PLAT_SHARE_NONE, PLAT_DISPOSITION_OPENEXISTING, 0);
    const int iWatch = inotify_init1(IN_NONBLOCK);
    ASSERT_GE(inotify_add_watch(iWatch, m_strFile.c_str(), IN_CLOSE_WRITE), 0);
    EXPECT_EQ(Open(0, OS_SHAREDFLAG_READONLY), nullptr);
    inotify_event event;
    EXPECT_EQ(read(iWatch, &event, sizeof event), static_cast<ssize_t>(sizeof event)) << "it was open for writing";
    close(iWatch);
    PlatClose(plathandle);
}

TEST_F(Shared, ACreateFollowsNoLink)
{
    WriteWhole(PathOf("precious"), "text");
    std::filesystem::create_symlink("precious", m_strFile);
    EXPECT_EQ(Create(OS_SHAREDFLAG_FILE), nullptr);
    EXPECT_TRUE(m_logcapture.HasAt(1, Logged("mem>>> CreateFile failed...", " 2")));
    EXPECT_EQ(ReadWhole(PathOf("precious")), "text");

    std::filesystem::remove(m_strFile);
    std::filesystem::create_hard_link(PathOf("precious"), m_strFile);
    Release(Create(OS_SHAREDFLAG_FILE));
    EXPECT_FALSE(std::filesystem::exists(m_strFile));
}

TEST_F(Shared, AViewWithoutASlotInTheTableIsAView)
{
    std::vector<void*> vecpvBlock(2048);
    std::generate(vecpvBlock.begin(), vecpvBlock.end(), [] { return OsMemAlloc(1, "caller", 1, OS_MEMFLAG_BLOCK); });
    char* pcView = Create(OS_SHAREDFLAG_FILE);
    ASSERT_NE(pcView, nullptr);
    EXPECT_TRUE(m_logcapture.HasAt(64, Logged("mem>>> Manage failed...")));
    Put(pcView, "text");
    EXPECT_EQ(Lock(pcView), EOSSTS_LOCKED);
    pcView = static_cast<char*>(OsMemSharedRemap(pcView, 0, m_u64Bytes, "caller", 1));
    ASSERT_NE(pcView, nullptr);
    EXPECT_EQ(Get(pcView), "text");
    Release(pcView);
    EXPECT_FALSE(std::filesystem::exists(m_strFile));
    for (void* pvBlock : vecpvBlock)
        Release(pvBlock);
}

TEST_F(Shared, APageFileMemoryIsFoundByTheLinkInTheFile)
{
    char* const pcCreated = Create(0);
    ASSERT_NE(pcCreated, nullptr);
    OsMemDump(pcCreated);
    const auto vecline = m_logcapture.Lines();
    const std::string strDump = vecline[vecline.size() - 2].strText;
    char szLink[256];
    SStrPrintf(szLink, sizeof szLink,
               "<osmem>\n\t<pid>%llx</pid>\t<maphandle>%s</maphandle>\n<maxsize>4176</maxsize></osmem>\n",
               static_cast<unsigned long long>(PlatProcessId()), strDump.substr(strDump.find(" m:") + 3, 16).c_str());
    EXPECT_EQ(ReadWhole(m_strFile), szLink);

    m_cfgfake.Set(OS_CFGTAG_FORCEMEMORYMAP, "1");   // the opener's own mode does not matter
    char* const pcOpened = Open();
    ASSERT_NE(pcOpened, nullptr);
    Put(pcOpened, "text");
    EXPECT_EQ(Get(pcCreated), "text");
    EXPECT_EQ(Lock(pcOpened), EOSSTS_LOCKED);
    EXPECT_EQ(Lock(pcCreated), EOSSTS_NOTLOCKED);

    Release(pcCreated);
    EXPECT_FALSE(std::filesystem::exists(m_strFile));
    EXPECT_EQ(Get(pcOpened), "text");
    Release(pcOpened);
}

TEST_F(Shared, TheModeIsChosenOnceFromTheSettings)
{
    const std::tuple<std::string, int64_t, std::string, bool> acase[] = {
        {"0", 18, "is OS_SHAREDMODE_MAPPAGEFILEASNEEDED", true},
        {"0", 12, "is OS_SHAREDMODE_MAPFILEASNEEDED", false},
        {"2", 18, "is OS_SHAREDMODE_MAPFILEALL", false},
        {"4", 12, "is OS_SHAREDMODE_MAPPAGEFILEALL", true},
        {"5", 12, "is OS_SHAREDMODE_LAST", true},
        {"77", 12, "is unknown...77", true}};
    m_logcapture.m_u32WorkingWord = 1;
    for (const auto& [strForce, i64Version, strMode, blLink] : acase)
    {
        m_logcapture.Clear();
        const COsMem osmem;
        m_cfgfake.Set(OS_CFGTAG_FORCEMEMORYMAP, strForce);
        m_cfgfake.SetInfo(OS_CFGINFO_OS_ID, i64Version);
        Release(Create(0));
        void* const pvView = Create(0);
        EXPECT_EQ(ReadWhole(m_strFile).starts_with("<osmem>"), blLink) << strMode;
        Release(pvView);
        EXPECT_EQ(m_logcapture.Count("mem>>> shared mode " + strMode), 1u) << strMode;
        EXPECT_TRUE(m_logcapture.Has("mem>>> ForceMemoryMap=" + strForce +
                                     " Platform=0 Windows=" + std::to_string(i64Version)));
    }
}

TEST_F(Shared, TheLockIsOneViewsAtATime)
{
    char* const pcFirst = Create(OS_SHAREDFLAG_FILE, OS_SHAREDLOCK_LOCKIFNEW);
    char* const pcSecond = Open();
    EXPECT_EQ(Lock(pcSecond), EOSSTS_NOTLOCKED);   // the file was new
    EXPECT_EQ(Lock(pcFirst), EOSSTS_LOCKED);       // again at once
    EXPECT_EQ(Unlock(pcFirst), EOSSTS_SUCCESS);
    EXPECT_EQ(Lock(pcSecond), EOSSTS_LOCKED);
    EXPECT_EQ(OsMemSharedAlloc(OS_SHAREDALLOC_OPEN, m_strFile.c_str(), 0, -1, OS_SHAREDLOCK_LOCK, 0, "caller", 1),
              nullptr);
    Release(pcSecond);   // lets go of the lock
    EXPECT_EQ(Lock(pcFirst), EOSSTS_LOCKED);
    Release(pcFirst);

    WriteWhole(m_strFile, "left over");   // so the next one is not new
    char* const pcThird = Create(OS_SHAREDFLAG_FILE, OS_SHAREDLOCK_LOCKIFNEW);
    char* const pcFourth = Open();
    EXPECT_EQ(Lock(pcFourth), EOSSTS_LOCKED);
    Release(pcThird);
    Release(pcFourth);
    EXPECT_EQ(Create(OS_SHAREDFLAG_FILE, static_cast<EOSSHAREDLOCK>(3)), nullptr);
    EXPECT_TRUE(m_logcapture.HasAt(64, "mem>>> Unrecognized a_eossharedlock...<3>"));
    EXPECT_EQ(Lock(this), EOSSTS_FAIL);   // no view
    EXPECT_EQ(OsMemSharedRemap(this, 0, 0, "caller", 1), nullptr);
}

TEST_F(Shared, OpensThatCannotBeAreTold)
{
    EXPECT_EQ(Open(), nullptr);
    EXPECT_TRUE(m_logcapture.HasAt(1, Logged("mem>>> CreateFile failed...", " 3")));
    WriteWhole(m_strFile, "");
    EXPECT_EQ(Open(), nullptr);
    EXPECT_TRUE(m_logcapture.HasAt(64, Logged("mem>>> attempt to open a 0-length shared memory file...")));
    WriteWhole(m_strFile, "0123456789");
    EXPECT_EQ(Open(11, OS_SHAREDFLAG_READONLY), nullptr);
    EXPECT_TRUE(m_logcapture.HasAt(64, Logged("mem>>> CreateFileMapping failed...")));
    EXPECT_EQ(Open(0, 0, 11), nullptr);
    EXPECT_TRUE(m_logcapture.HasAt(64, Logged("mem>>> MapViewOfFile failed...", " 10 11")));
    EXPECT_EQ(Create(OS_SHAREDFLAG_FILE, OS_SHAREDLOCK_NONE, 0), nullptr);
    EXPECT_TRUE(
        m_logcapture.HasAt(64, "mem>>> a_u64Bytes and a_sizetView can only be 0 and -1 for OS_SHAREDALLOC_OPEN..."));
    EXPECT_EQ(ReadWhole(m_strFile), "0123456789");

    for (const uint64_t u64Bytes : {UINT64_MAX, uint64_t{1} << 60})
    {
        EXPECT_EQ(Create(0, OS_SHAREDLOCK_NONE, u64Bytes), nullptr);
        EXPECT_EQ(Create(OS_SHAREDFLAG_FILE, OS_SHAREDLOCK_NONE, u64Bytes), nullptr);
    }
    EXPECT_FALSE(std::filesystem::exists(m_strFile));
    m_strFile = std::string(600, 'x');
    EXPECT_EQ(Open(), nullptr);
    EXPECT_EQ(m_osmem.GetCounts().u32Current, 0u);
}

TEST_F(Shared, ALinkThatLeadsNowhereIsTold)
{
    char* const pcView = Create(0);
    const std::string strLink = ReadWhole(m_strFile);
    const auto with = [&](const std::string& strOld, const std::string& strNew) {
        return std::string(strLink).replace(strLink.find(strOld), strOld.size(), strNew);
    };
    const std::string strPid = strLink.substr(14, strLink.find('<', 14) - 14);
    const std::string strHandle = strLink.substr(strLink.find("<maphandle>") + 11, 16);
    const std::string strCut = strLink.substr(0, strLink.find("</maphandle>"));
    const std::string strHuge(30, 'F');
    const std::tuple<std::string, std::string, std::string> acase[] = {
        {"<osmem>", "mem>>> failed to find the pid...", "<<osmem>>"},
        {strCut, "mem>>> failed to find the maphandle...", "<" + strCut + ">"},
        {with("</maxsize>", ""), "mem>>> failed to find the maxsize...", "<" + with("</maxsize>", "") + ">"},
        {with(strPid, "12 34"), "mem>>> failed to convert pid...", "<12 34>"},
        {with(strHandle, strHuge), "mem>>> failed to convert maphandle...", "<" + strHuge + ">"},
        {with("4176", "-1"), "mem>>> failed to convert maxsize...", "<-1>"},
        {with("4176", "9999999999999"), "mem>>> MapViewOfFile failed...", "9999999999999 0"},
        {with(strPid, "7FFFFFFF"), "mem>>> OpenProcess failed...", "<7FFFFFFF>"},
        {with(strHandle, strHuge.substr(14)), "mem>>> DuplicateHandle failed...", "<FFFFFFFFFFFFFFFF>"}};
    for (const auto& [strText, strMessage, strValue] : acase)
    {
        WriteWhole(m_strFile, strText);
        EXPECT_EQ(Open(), nullptr) << strText;
        EXPECT_TRUE(m_logcapture.HasAt(64, Logged(strMessage, " " + strValue))) << strMessage;
    }
    WriteWhole(m_strFile, "<osmem>" + std::string(600, ' '));
    EXPECT_EQ(Open(), nullptr);
    EXPECT_TRUE(m_logcapture.HasAt(64, "XML link overflow...(got 607, but only have 512)"));
    Release(pcView);
    WriteWhole(m_strFile, strLink);   // left over from a creator that has gone
    EXPECT_EQ(Open(), nullptr);
    EXPECT_TRUE(m_logcapture.HasAt(64, Logged("mem>>> DuplicateHandle failed...", " <" + strHandle + ">")));
}

// Else the first touch of what found no room would end the process.
TEST_F(Shared, AFullDiskIsToldBeforeTheMemoryIsTouched)
{
    std::filesystem::create_directory(PathOf("disk"));
    const bool blOurs = unshare(CLONE_NEWNS | (geteuid() == 0 ? 0 : CLONE_NEWUSER)) == 0 &&
                        mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
    if (!blOurs || mount("none", PathOf("disk").c_str(), "tmpfs", 0, "size=64k") != 0)
        GTEST_SKIP() << "no disk of our own on this machine";
    m_strFile = PathOf("disk/shared.mem");
    EXPECT_EQ(Create(OS_SHAREDFLAG_FILE, OS_SHAREDLOCK_NONE, 1 << 20), nullptr);
    EXPECT_TRUE(m_logcapture.HasAt(64, "mem>>> SetEndOfFile failed..."));
    EXPECT_FALSE(std::filesystem::exists(m_strFile));
    umount(PathOf("disk").c_str());
}

TEST_F(Shared, AnOpenedFileGrowsForItsViewAndIsCutToItsSize)
{
    WriteWhole(m_strFile, "0123456789");
    char* const pcView = Open(5000);
    ASSERT_NE(pcView, nullptr);
    EXPECT_EQ(std::string(pcView, 11), std::string("0123456789\0", 11));
    EXPECT_EQ(std::filesystem::file_size(m_strFile) % PlatMemoryGranularity(), 0u);
    pcView[4999] = 'x';
    Release(pcView);
    EXPECT_EQ(std::filesystem::file_size(m_strFile), 5000u);
    EXPECT_EQ(ReadWhole(m_strFile).back(), 'x');

    EXPECT_EQ(Open(6000, 0, 1 << 30), nullptr);   // a failure leaves the file as it was
    EXPECT_EQ(std::filesystem::file_size(m_strFile), 5000u);
    char* const pcReader = Open(0, OS_SHAREDFLAG_READONLY);
    EXPECT_EQ(pcReader[4999], 'x');
    Release(pcReader);
    EXPECT_EQ(std::filesystem::file_size(m_strFile), 5000u);
}

TEST_F(Shared, AViewMovesThroughItsFile)
{
    const size_t sizetStep = PlatMemoryGranularity();
    WriteWhole(m_strFile, std::string(sizetStep, 'a') + std::string(sizetStep, 'b') + std::string(100, 'c'));
    char* const pcFirst = Open(0, 0, 10);
    ASSERT_EQ(std::string(pcFirst, 10), std::string(10, 'a'));
    EXPECT_EQ(OsMemSharedRemap(pcFirst, 3 * sizetStep, 1, "caller", 1), nullptr);
    EXPECT_TRUE(m_logcapture.HasAt(64, "mem>>> The offset is larger than the file..."));
    EXPECT_EQ(OsMemSharedRemap(pcFirst, 2 * sizetStep, 101, "caller", 1), nullptr);
    EXPECT_TRUE(m_logcapture.HasAt(
        64, Logged("mem>>> MapViewOfFile failed...", " 0x00000065 " + std::to_string(2 * sizetStep))));
    EXPECT_EQ(Lock(pcFirst), EOSSTS_LOCKED);   // the view is still there

    char* const pcSecond = static_cast<char*>(OsMemSharedRemap(pcFirst, 2 * sizetStep - 1, 101, "caller", 1));
    ASSERT_NE(pcSecond, nullptr);
    EXPECT_EQ(std::string(pcSecond + sizetStep - 1, 101), "b" + std::string(100, 'c'));
    char szText[128];
    SStrPrintf(szText, sizeof szText, "mem>>> remap: %p --> %p %9llu %9d ", static_cast<void*>(pcFirst),
               static_cast<void*>(pcSecond), static_cast<unsigned long long>(sizetStep), 101);
    EXPECT_TRUE(m_logcapture.HasAt(4352, szText + m_strFile));

    pcSecond[sizetStep + 99] = 'z';
    EXPECT_EQ(OsMemSharedFlush(pcSecond, "caller", 1), EOSSTS_SUCCESS);
    EXPECT_EQ(Unlock(pcSecond), EOSSTS_SUCCESS);
    Release(pcSecond);
    EXPECT_EQ(ReadWhole(m_strFile).back(), 'z');
    EXPECT_EQ(m_osmem.GetCounts().u32Current, 0u);
}

// ------------------------------------------------------------------------------------------------- two processes

// The two sides take turns: each waits for the other's number in the first word.
static std::atomic_ref<int> Turn(void* a_pvView)
{
    return std::atomic_ref<int>(*static_cast<int*>(a_pvView));
}

static bool Await(void* a_pvView, int a_iTurn)
{
    return WaitFor([&] { return Turn(a_pvView) == a_iTurn; });
}

// The creator's mode, 0 for the one that is chosen without a setting; the peer has the default one.
class SharedBetweenProcesses : public Shared, public testing::WithParamInterface<std::pair<int, uint32_t>>
{
};

TEST_P(SharedBetweenProcesses, MemoryAndLockAreOne)
{
    m_cfgfake.Set(OS_CFGTAG_FORCEMEMORYMAP, std::to_string(GetParam().first));
    char* const pcView = Create(GetParam().second, OS_SHAREDLOCK_LOCK);
    ASSERT_NE(pcView, nullptr);
    Put(pcView, "ours");
    setenv("TEST_SHAREDFILE", m_strFile.c_str(), 1);
    const std::jthread peer([] {
        EXPECT_EQ(RunDisabledCase(TEST_PROGRAMFOLDER "/os_cosmem_shared_test", "Peer.DISABLED_TakesItsTurns"), 0);
    });

    EXPECT_TRUE(Await(pcView, 1));
    EXPECT_EQ(Get(pcView), "peer");
    EXPECT_EQ(Unlock(pcView), EOSSTS_SUCCESS);
    Turn(pcView) = 2;
    EXPECT_TRUE(Await(pcView, 3));
    EXPECT_EQ(Lock(pcView), EOSSTS_NOTLOCKED);
    Turn(pcView) = 4;
    EXPECT_TRUE(WaitFor([&] { return Lock(pcView) == EOSSTS_LOCKED; }));   // the peer ends holding it
    Release(pcView);
}

INSTANTIATE_TEST_SUITE_P(Modes, SharedBetweenProcesses,
                         testing::Values(std::pair{0, 0u}, std::pair{1, 0u}, std::pair{2, 0u}, std::pair{3, 0u},
                                         std::pair{4, 0u}, std::pair{4, OS_SHAREDFLAG_FILE}));

using Peer = Shared;

TEST_F(Peer, DISABLED_TakesItsTurns)
{
    m_strFile = std::getenv("TEST_SHAREDFILE");
    char* pcView = Open();
    ASSERT_NE(pcView, nullptr);
    EXPECT_EQ(Get(pcView), "ours");
    EXPECT_EQ(Lock(pcView), EOSSTS_NOTLOCKED);
    Put(pcView, "peer");
    EXPECT_EQ(OsMemSharedFlush(pcView, "caller", 1), EOSSTS_SUCCESS);
    pcView = static_cast<char*>(OsMemSharedRemap(pcView, m_u64Bytes - 5, 5, "caller", 1));
    ASSERT_NE(pcView, nullptr);
    EXPECT_STREQ(pcView + (m_u64Bytes - 5) % PlatMemoryGranularity(), "peer");
    pcView = static_cast<char*>(OsMemSharedRemap(pcView, 0, m_u64Bytes, "caller", 1));
    ASSERT_NE(pcView, nullptr);
    Turn(pcView) = 1;
    ASSERT_TRUE(Await(pcView, 2));
    EXPECT_EQ(Lock(pcView), EOSSTS_LOCKED);
    Turn(pcView) = 3;
    ASSERT_TRUE(Await(pcView, 4));
}
