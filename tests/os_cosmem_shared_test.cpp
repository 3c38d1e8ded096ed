// Shared memory: where it lies, who sees it, who holds its lock, and what an opener makes of a file that is not as it
// should be. Cases named Peer are the second process of another case.
#include "os_cfg.h"
#include "os_cosmem.h"

#include "test_support.h"

#include "plat_memory.h"
#include "plat_process.h"

#include <atomic>
#include <cstring>

// The settings that choose the mode.
class CfgFake final : public COsCfgSource
{
public:
    CfgFake() { g_poscfgsource.store(this); }
    ~CfgFake() { g_poscfgsource.store(nullptr); }
    const char* GetString(EOSCFGSECTION, EOSCFGTAG a_eoscfgtag) override
    {
        return a_eoscfgtag == OS_CFGTAG_FORCEMEMORYMAP ? m_strForce.c_str() : "";
    }
    EOSSTS GetInfo(EOSCFGINFO a_eoscfginfo, int64_t* a_pi64Value) override
    {
        *a_pi64Value = a_eoscfginfo == OS_CFGINFO_PLATFORM ? 2 : m_i64Version;
        return EOSSTS_SUCCESS;
    }
    void ManageLogDirectories(const char*) override {}

    std::string m_strForce = "0";
    int64_t m_i64Version = 10;
};

class Shared : public FolderTest
{
protected:
    static constexpr uint64_t m_u64Bytes = 4176;

    char* Create(uint32_t a_u32Flags, EOSSHAREDLOCK a_eossharedlock = OS_SHAREDLOCK_NONE) const
    {
        return static_cast<char*>(OsMemSharedAlloc(OS_SHAREDALLOC_CREATE, m_strFile.c_str(), m_u64Bytes, 0,
                                                   a_eossharedlock, a_u32Flags, "caller", 1));
    }
    char* Open(uint64_t a_u64Bytes = 0, uint32_t a_u32Flags = 0, int64_t a_i64View = 0) const
    {
        return static_cast<char*>(OsMemSharedAlloc(OS_SHAREDALLOC_OPEN, m_strFile.c_str(), a_u64Bytes, a_i64View,
                                                   OS_SHAREDLOCK_NONE, a_u32Flags, "caller", 2));
    }
    static void Release(void* a_pvView) { OsMemFree(a_pvView, "caller", 3, OS_MEMFLAG_BLOCK); }
    static EOSSTS Lock(void* a_pvView) { return OsMemSharedLock(a_pvView, "caller", 4); }
    static EOSSTS Unlock(void* a_pvView) { return OsMemSharedUnlock(a_pvView, "caller", 5); }
    std::string Logged(const std::string& a_strText, const std::string& a_strRest = "") const
    {
        return a_strText + "<" + m_strFile + ">" + a_strRest;
    }

    std::string m_strFile = PathOf("shared.mem");
    LogCapture m_logcapture;
    CfgFake m_cfgfake;
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
    std::strcpy(pcCreated + m_u64Bytes - 5, "text");
    EXPECT_STREQ(pcOpened + m_u64Bytes - 5, "text");
    EXPECT_EQ(Create(OS_SHAREDFLAG_FILE), nullptr);   // not from under those who have it
    EXPECT_TRUE(m_logcapture.HasAt(1, Logged("mem>>> CreateFile failed...", " 2")));
    EXPECT_STREQ(pcOpened + m_u64Bytes - 5, "text");

    Release(pcCreated);
    EXPECT_FALSE(std::filesystem::exists(m_strFile));
    EXPECT_STREQ(pcOpened + m_u64Bytes - 5, "text");
    Release(pcOpened);
    EXPECT_EQ(m_osmem.GetCounts().u32Current, 0u);
    EXPECT_EQ(m_osmem.GetCounts().u64CurrentBytes, 0u);
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

    m_cfgfake.m_strForce = "1";   // the opener's own mode does not matter
    char* const pcOpened = Open();
    ASSERT_NE(pcOpened, nullptr);
    std::strcpy(pcOpened + m_u64Bytes - 5, "text");
    EXPECT_STREQ(pcCreated + m_u64Bytes - 5, "text");
    EXPECT_EQ(Open(m_u64Bytes + 1), nullptr);
    EXPECT_TRUE(m_logcapture.HasAt(64, Logged("mem>>> MapViewOfFile failed...", " 4177 0")));
    EXPECT_EQ(Lock(pcOpened), EOSSTS_LOCKED);
    EXPECT_EQ(Lock(pcCreated), EOSSTS_NOTLOCKED);

    Release(pcCreated);
    EXPECT_FALSE(std::filesystem::exists(m_strFile));
    EXPECT_STREQ(pcOpened + m_u64Bytes - 5, "text");
    Release(pcOpened);
}

TEST_F(Shared, TheModeIsChosenOnceFromTheSettings)
{
    const struct
    {
        const char* szForce;
        int64_t i64Version;
        const char* szMode;
        bool blLink;
    } acase[] = {{"0", 10, "is OS_SHAREDMODE_MAPPAGEFILEASNEEDED", true},
                 {"0", 7, "is OS_SHAREDMODE_MAPFILEASNEEDED", false},
                 {"2", 10, "is OS_SHAREDMODE_MAPFILEALL", false},
                 {"4", 7, "is OS_SHAREDMODE_MAPPAGEFILEALL", true},
                 {"5", 7, "is OS_SHAREDMODE_LAST", true},
                 {"77", 7, "is unknown...77", true}};
    m_logcapture.m_u32WorkingWord = 1;
    for (const auto& testcase : acase)
    {
        m_logcapture.Clear();
        const COsMem osmem;
        m_cfgfake.m_strForce = testcase.szForce;
        m_cfgfake.m_i64Version = testcase.i64Version;
        for (int i = 0; i < 2; i++)
        {
            void* const pvView = Create(0);
            EXPECT_EQ(ReadWhole(m_strFile).starts_with("<osmem>"), testcase.blLink) << testcase.szMode;
            Release(pvView);
        }
        EXPECT_EQ(m_logcapture.Count(std::string("mem>>> shared mode ") + testcase.szMode), 1u) << testcase.szMode;
        EXPECT_TRUE(m_logcapture.Has("mem>>> ForceMemoryMap=" + std::string(testcase.szForce) +
                                     " Platform=2 Windows=" + std::to_string(testcase.i64Version)));
    }
}

TEST_F(Shared, AViewIsTracedAndDumpedWithItsFile)
{
    m_logcapture.m_u32WorkingWord = 1;
    char* const pcView = Create(OS_SHAREDFLAG_FILE);
    char szView[32];
    SStrPrintf(szView, sizeof szView, "%p", static_cast<void*>(pcView));
    OsMemDump(pcView);
    Release(pcView);
    EXPECT_TRUE(m_logcapture.HasAt(4352, std::string("mem>>> f+   AD:") + szView +
                                             "   SZ:4176       AC:1       FC:0       CC:1       CB:4176       "
                                             "PB:4176      " +
                                             m_strFile));
    EXPECT_TRUE(m_logcapture.HasPart(std::string("mem>>> 0000    memorymap ") + szView + "(" + szView +
                                     ") s:4176 o:0 v:4176 f:"));
    EXPECT_TRUE(m_logcapture.HasAt(256, std::string("mem>>> f-   AD:") + szView +
                                            "   SZ:4176       AC:1       FC:1       CC:0       CB:0          "
                                            "PB:4176       FN:" +
                                            m_strFile));
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

    WriteWhole(m_strFile, "left over");
    char* const pcThird = Create(OS_SHAREDFLAG_FILE, OS_SHAREDLOCK_LOCKIFNEW);
    char* const pcFourth = Open();
    EXPECT_EQ(Lock(pcFourth), EOSSTS_LOCKED);   // it was there before
    Release(pcThird);
    Release(pcFourth);
    EXPECT_EQ(Create(OS_SHAREDFLAG_FILE, static_cast<EOSSHAREDLOCK>(3)), nullptr);
    EXPECT_TRUE(m_logcapture.HasAt(64, "mem>>> Unrecognized a_eossharedlock...<3>"));
}

TEST_F(Shared, OnlyViewsCanBeLockedFlushedAndMoved)
{
    void* const pvBlock = OsMemAlloc(8, "caller", 1, OS_MEMFLAG_BLOCK);
    int iStranger = 0;
    const std::pair<void*, const char*> acase[] = {{pvBlock, "mem>>> This isn't a memory mapped pointer..."},
                                                   {&iStranger, "mem>>> Manage didn't find mapping..."},
                                                   {nullptr, "mem>>> Manage didn't find mapping..."}};
    for (const auto& [pvWrong, szText] : acase)
    {
        m_logcapture.Clear();
        EXPECT_EQ(Lock(pvWrong), EOSSTS_FAIL);
        EXPECT_EQ(Unlock(pvWrong), EOSSTS_FAIL);
        EXPECT_EQ(OsMemSharedFlush(pvWrong, "caller", 1), EOSSTS_FAIL);
        EXPECT_EQ(OsMemSharedRemap(pvWrong, 0, 0, "caller", 1), nullptr);
        EXPECT_EQ(m_logcapture.Count(szText), 4u);
        EXPECT_EQ(m_logcapture.Count("mem>>> Error occurred here..."), 4u);
    }
    Release(pvBlock);
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
    for (const int64_t i64View : {int64_t{0}, int64_t{-1}})
        EXPECT_EQ(
            OsMemSharedAlloc(OS_SHAREDALLOC_CREATE, m_strFile.c_str(), 0, i64View, OS_SHAREDLOCK_NONE, 4, "caller", 1),
            nullptr);
    EXPECT_EQ(m_logcapture.Count("mem>>> a_u64Bytes and a_sizetView can only be 0 and -1 for OS_SHAREDALLOC_OPEN..."),
              2u);
    EXPECT_EQ(
        OsMemSharedAlloc(OS_SHAREDALLOC_OPEN, std::string(600, 'x').c_str(), 0, 0, OS_SHAREDLOCK_NONE, 0, "caller", 1),
        nullptr);
    EXPECT_EQ(ReadWhole(m_strFile), "0123456789");
    EXPECT_EQ(m_osmem.GetCounts().u32Current, 0u);

    for (const uint64_t u64Bytes : {UINT64_MAX, uint64_t{1} << 60})
        for (const uint32_t u32Flags : {0u, OS_SHAREDFLAG_FILE})
            EXPECT_EQ(OsMemSharedAlloc(OS_SHAREDALLOC_CREATE, m_strFile.c_str(), u64Bytes, 0, OS_SHAREDLOCK_NONE,
                                       u32Flags, "caller", 1),
                      nullptr);
    EXPECT_FALSE(std::filesystem::exists(m_strFile));
}

TEST_F(Shared, ALinkThatLeadsNowhereIsTold)
{
    const std::string strOurs = [this] {
        void* const pvView = Create(0);
        const std::string strLink = ReadWhole(m_strFile);
        Release(pvView);   // the handle that the link names is closed now
        return strLink;
    }();
    char szPid[32];
    SStrPrintf(szPid, sizeof szPid, "%llx", static_cast<unsigned long long>(PlatProcessId()));
    const std::string strHandle = "<maphandle>0007000000000001</maphandle>";
    const std::string strSize = "<maxsize>10</maxsize>";
    const auto withPid = [&](const std::string& strPid, const std::string& strRest) {
        return "<osmem><pid>" + strPid + "</pid>" + strRest;
    };
    const std::string strHuge(30, 'F');
    const std::string strNoHandle = withPid(szPid, "<maphandle>12");
    const std::string strNoSize = withPid(szPid, strHandle + "<maxsize>");
    const std::pair<std::string, std::string> acase[] = {
        {"<osmem>", Logged("mem>>> failed to find the pid...", " <<osmem>>")},
        {withPid("", strHandle), Logged("mem>>> failed to convert pid...", " <>")},
        {withPid("12 34", strHandle + strSize), Logged("mem>>> failed to convert pid...", " <12 34>")},
        {strNoHandle, Logged("mem>>> failed to find the maphandle...", " <" + strNoHandle + ">")},
        {withPid(szPid, "<maphandle>" + strHuge + "</maphandle>" + strSize),
         Logged("mem>>> failed to convert maphandle...", " <" + strHuge + ">")},
        {strNoSize, Logged("mem>>> failed to find the maxsize...", " <" + strNoSize + ">")},
        {withPid(szPid, strHandle + "<maxsize>-1</maxsize>"), Logged("mem>>> failed to convert maxsize...", " <-1>")},
        {withPid("7FFFFFFF", strHandle + strSize), Logged("mem>>> OpenProcess failed...", " <7FFFFFFF>")},
        {withPid("FFFFFFFFFFFFFFFF", strHandle + strSize),
         Logged("mem>>> OpenProcess failed...", " <FFFFFFFFFFFFFFFF>")},
        {withPid(szPid, strHandle + strSize), Logged("mem>>> DuplicateHandle failed...", " <0007000000000001>")},
        {strOurs, ""},
        {"<osmem>" + std::string(600, ' '), "XML link overflow...(got 607, but only have 512)"}};
    for (const auto& [strLink, strText] : acase)
    {
        m_logcapture.Clear();
        WriteWhole(m_strFile, strLink);
        EXPECT_EQ(Open(), nullptr) << strLink;
        EXPECT_TRUE(strText.empty() ? m_logcapture.HasPart("mem>>> DuplicateHandle failed...")
                                    : m_logcapture.HasAt(64, strText))
            << strText;
    }
}

TEST_F(Shared, ALinkThatPromisesTooMuchIsRefused)
{
    char* const pcCreated = Create(0);
    std::string strLink = ReadWhole(m_strFile);
    strLink.replace(strLink.find("4176"), 4, "9999999999999");
    WriteWhole(m_strFile, strLink);
    EXPECT_EQ(Open(), nullptr);
    EXPECT_TRUE(m_logcapture.HasAt(64, Logged("mem>>> MapViewOfFile failed...", " 9999999999999 0")));
    Release(pcCreated);
}

TEST_F(Shared, AnOpenedFileGrowsForItsViewAndIsCutToTheSizeAskedFor)
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

TEST_F(Shared, AViewThatCannotBeRecordedGoesAgain)
{
    std::vector<void*> vecpvBlock;
    for (int i = 0; i < 2048; i++)
        vecpvBlock.push_back(OsMemAlloc(1, "caller", 1, OS_MEMFLAG_BLOCK));
    EXPECT_EQ(Create(OS_SHAREDFLAG_FILE), nullptr);
    EXPECT_TRUE(m_logcapture.HasAt(64, Logged("mem>>> Manage failed...")));
    EXPECT_FALSE(std::filesystem::exists(m_strFile));
    for (void* pvBlock : vecpvBlock)
        Release(pvBlock);
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

class SharedBetweenProcesses : public Shared, public testing::WithParamInterface<uint32_t>
{
protected:
    PlatHandle StartPeer() const
    {
        setenv("TEST_SHAREDFILE", m_strFile.c_str(), 1);
        char16_t wszProgram[PLAT_PATHMAX];
        EXPECT_TRUE(PlatProgramPath(wszProgram, PLAT_PATHMAX));
        const std::u16string wstrCommandLine =
            u"peer --gtest_also_run_disabled_tests --gtest_filter=Peer.DISABLED_TakesItsTurns";
        PlatProcessStart platprocessstart = {};
        platprocessstart.wszProgram = wszProgram;
        platprocessstart.wszCommandLine = wstrCommandLine.c_str();
        platprocessstart.blInheritStandard = true;
        uint64_t u64ProcessId = 0;
        return PlatProcessCreate(&platprocessstart, &u64ProcessId);
    }
};

TEST_P(SharedBetweenProcesses, MemoryAndLockAreOne)
{
    char* const pcView = Create(GetParam(), OS_SHAREDLOCK_LOCK);
    ASSERT_NE(pcView, nullptr);
    std::strcpy(pcView + 100, "from the creator");
    const PlatHandle plathandlePeer = StartPeer();
    ASSERT_NE(plathandlePeer, PLAT_INVALID);

    EXPECT_TRUE(Await(pcView, 1));
    EXPECT_STREQ(pcView + 100, "from the peer");
    EXPECT_EQ(Unlock(pcView), EOSSTS_SUCCESS);
    Turn(pcView) = 2;
    EXPECT_TRUE(Await(pcView, 3));
    EXPECT_EQ(Lock(pcView), EOSSTS_NOTLOCKED);
    Turn(pcView) = 4;
    EXPECT_TRUE(WaitFor([&] { return Lock(pcView) == EOSSTS_LOCKED; }));   // the peer ends holding it

    ASSERT_EQ(PlatWaitAny(&plathandlePeer, 1, 20000), 0u);
    uint32_t u32ExitCode = 1;
    EXPECT_TRUE(PlatProcessExitCode(plathandlePeer, &u32ExitCode));
    EXPECT_EQ(u32ExitCode, 0u);
    PlatClose(plathandlePeer);
    Release(pcView);
}

INSTANTIATE_TEST_SUITE_P(Modes, SharedBetweenProcesses, testing::Values(0u, OS_SHAREDFLAG_FILE));

TEST(Peer, DISABLED_TakesItsTurns)
{
    const COsMem osmem;
    char* const pcView = static_cast<char*>(
        OsMemSharedAlloc(OS_SHAREDALLOC_OPEN, std::getenv("TEST_SHAREDFILE"), 0, 0, OS_SHAREDLOCK_NONE, 0, "peer", 1));
    ASSERT_NE(pcView, nullptr);
    EXPECT_STREQ(pcView + 100, "from the creator");
    EXPECT_EQ(OsMemSharedLock(pcView, "peer", 1), EOSSTS_NOTLOCKED);
    std::strcpy(pcView + 100, "from the peer");
    Turn(pcView) = 1;
    ASSERT_TRUE(Await(pcView, 2));
    EXPECT_EQ(OsMemSharedLock(pcView, "peer", 1), EOSSTS_LOCKED);
    Turn(pcView) = 3;
    ASSERT_TRUE(Await(pcView, 4));
}
