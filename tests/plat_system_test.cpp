// plat_system_test.cpp: what the environment, memory, the clock, the folders and the modules owe, on whichever system.
#include "test_support.h"

#include "plat_env.h"
#include "plat_memory.h"
#include "plat_process.h"

#include <map>

namespace
{
// --------------------------------------------------------------------------------------------------- environment

std::u16string Value(const char16_t* a_wszName)
{
    char16_t wszValue[64] = {};
    return {wszValue, PlatEnvGet(a_wszName, wszValue, 64)};
}

TEST(Environment, KeepsWhatIsSetAndTakesEmptyForUnset)
{
    EXPECT_TRUE(PlatEnvSet(u"MVR_TEST", u"old"));
    EXPECT_TRUE(PlatEnvSet(u"MVR_TEST", u"w\u00e4rt \U0001F600"));
    EXPECT_EQ(Value(u"MVR_TEST"), u"w\u00e4rt \U0001F600");
    EXPECT_TRUE(PlatEnvSet(u"MVR_TEST", u""));
    EXPECT_EQ(Value(u"MVR_TEST"), u"");
    EXPECT_EQ(PlatGetLastError(), PLAT_ERROR_ENVVARNOTFOUND);
    for (const char16_t* wszName : {static_cast<const char16_t*>(nullptr), u"", u"A=B"})
        EXPECT_FALSE(PlatEnvSet(wszName, u"x"));
    EXPECT_EQ(PlatGetLastError(), PLAT_ERROR_INVALIDPARAMETER);
}

TEST(Environment, CopiesNothingWhenTheRoomIsTooSmall)
{
    PlatEnvSet(u"MVR_TEST", u"12345");
    char16_t wszValue[6] = u"old";
    EXPECT_EQ(PlatEnvGet(u"MVR_TEST", nullptr, 0), 5u);
    EXPECT_EQ(PlatEnvGet(u"MVR_TEST", wszValue, 5), 5u);
    EXPECT_EQ(std::u16string(wszValue), u"old");
    EXPECT_EQ(PlatEnvGet(u"MVR_TEST", wszValue, 6), 5u);
    EXPECT_EQ(std::u16string(wszValue), u"12345");
}

TEST(Environment, IsListedOnceEachAndMayBeChangedMeanwhile)
{
    using Seen = std::map<std::u16string, std::vector<std::u16string>>;
    PlatEnvSet(u"MVR_TEST1", u"one=1");
    PlatEnvSet(u"MVR_TEST2", u"two");
    Seen seen;
    const PlatEnvProc platenvproc = [](void* a_pvSeen, const char16_t* a_wszName, const char16_t* a_wszValue) {
        (*static_cast<Seen*>(a_pvSeen))[a_wszName].emplace_back(a_wszValue);
        return PlatEnvSet(a_wszName, nullptr);
    };
    EXPECT_TRUE(PlatEnvList(platenvproc, &seen));
    EXPECT_EQ(seen[u"MVR_TEST1"], std::vector<std::u16string>{u"one=1"});
    EXPECT_EQ(seen[u"MVR_TEST2"], std::vector<std::u16string>{u"two"});
    EXPECT_EQ(Value(u"MVR_TEST1"), u"");
}

// --------------------------------------------------------------------------------------------------------- memory

bool IsZero(const void* a_pvBlock, size_t a_sizetSize)
{
    const auto* pch = static_cast<const char*>(a_pvBlock);
    return std::all_of(pch, pch + a_sizetSize, [](char ch) { return ch == 0; });
}

TEST(Memory, ComesZeroedAndTellsItsSize)
{
    size_t sizetSize = 0;
    void* pvPages = PlatMemoryPageAlloc(PlatMemoryGranularity() + 1, &sizetSize);
    EXPECT_EQ(sizetSize, 2 * PlatMemoryGranularity());
    EXPECT_TRUE(IsZero(pvPages, sizetSize));
    EXPECT_TRUE(PlatMemoryPageFree(pvPages, sizetSize));
    EXPECT_EQ(PlatMemoryPageAlloc(SIZE_MAX, &sizetSize), nullptr);
    EXPECT_EQ(PlatGetLastError(), PLAT_ERROR_NOMEMORY);

    void* pvGlobal = PlatMemoryGlobalAlloc(1000, true, &sizetSize);
    EXPECT_GE(sizetSize, 1000u);
    EXPECT_TRUE(IsZero(pvGlobal, sizetSize));
    PlatMemoryGlobalFree(pvGlobal);
    void* pvHeap = PlatMemoryHeapAlloc(1000);
    EXPECT_TRUE(IsZero(pvHeap, 1000));
    EXPECT_TRUE(PlatMemoryValidate());
    PlatMemoryHeapFree(pvHeap);
}

TEST(Memory, FiguresArePlausible)
{
    PlatMemoryStatus platmemorystatus{};
    ASSERT_TRUE(PlatMemoryGetStatus(&platmemorystatus));
    EXPECT_LE(platmemorystatus.u32Load, 100u);
    EXPECT_GT(platmemorystatus.u64AvailPhysical, 0u);
    EXPECT_GT(platmemorystatus.u64TotalPhysical, platmemorystatus.u64AvailPhysical);
    EXPECT_GE(platmemorystatus.u64TotalPagefile, platmemorystatus.u64AvailPagefile);
    EXPECT_GT(platmemorystatus.u64TotalVirtual, platmemorystatus.u64AvailVirtual);
    uint64_t u64Bytes = 0;
    uint64_t u64Pages = 0;
    ASSERT_TRUE(PlatMemoryWorkingSet(&u64Bytes, &u64Pages));
    EXPECT_GT(u64Pages, 50u);
    EXPECT_EQ(u64Bytes % u64Pages, 0u);
}

// The regions follow one another without a gap, from 0 to the end, and what is used is shown as used.
TEST(Memory, RegionsCoverTheAddressSpace)
{
    std::vector<PlatMemoryRegion> vecregion;
    vecregion.reserve(10000);
    size_t sizetSize = 0;
    const auto u64Used = reinterpret_cast<uint64_t>(PlatMemoryPageAlloc(1, &sizetSize));
    const PlatMemoryRegionProc platmemoryregionproc = [](void* a_pvRegions, const PlatMemoryRegion* a_pplatregion) {
        static_cast<std::vector<PlatMemoryRegion>*>(a_pvRegions)->push_back(*a_pplatregion);
        return true;
    };
    EXPECT_TRUE(PlatMemoryListRegions(platmemoryregionproc, &vecregion));
    uint64_t u64Reached = 0;
    int iCovering = 0;
    for (const PlatMemoryRegion& region : vecregion)
    {
        EXPECT_EQ(region.u64Address, u64Reached);
        u64Reached += region.u64Size;
        iCovering += !region.blFree && region.u64Address <= u64Used && u64Used < u64Reached;
    }
    EXPECT_EQ(iCovering, 1);
    EXPECT_GT(u64Reached, uint64_t{1} << 46);
}

// ---------------------------------------------------------------------------------------------------------- clock

constexpr uint64_t g_u64Second = 10'000'000;
constexpr uint64_t g_u64Year1970 = 116444736000000000;

std::string Text(const PlatTime& a_plattime)
{
    char szText[64];
    snprintf(szText, sizeof szText, "%04d-%02d-%02d(%d) %02d:%02d:%02d.%03d", a_plattime.u16Year, a_plattime.u16Month,
             a_plattime.u16Day, a_plattime.u16DayOfWeek, a_plattime.u16Hour, a_plattime.u16Minute, a_plattime.u16Second,
             a_plattime.u16Milliseconds);
    return szText;
}

TEST(Clock, CountsFrom1601AndKnowsTheCalendar)
{
    const std::pair<uint64_t, const char*> apair[] = {
        {0, "1601-01-01(1) 00:00:00.000"},
        {g_u64Year1970, "1970-01-01(4) 00:00:00.000"},
        {g_u64Year1970 + 951782400 * g_u64Second - 1, "2000-02-28(1) 23:59:59.999"},
        {g_u64Year1970 + 951782400 * g_u64Second, "2000-02-29(2) 00:00:00.000"},
        {2650467743999999999, "9999-12-31(5) 23:59:59.999"},
    };
    PlatTime plattime{};
    for (const auto& [u64Clock, szText] : apair)
    {
        EXPECT_TRUE(PlatTimeUtc(u64Clock, &plattime));
        EXPECT_EQ(Text(plattime), szText);
    }
    EXPECT_FALSE(PlatTimeUtc(2650467744000000000, &plattime));
    EXPECT_FALSE(PlatTimeLocal(UINT64_MAX, &plattime));
    EXPECT_EQ(PlatGetLastError(), PLAT_ERROR_INVALIDPARAMETER);
    EXPECT_TRUE(PlatTimeUtc(PlatClock(), &plattime));
    EXPECT_GE(plattime.u16Year, 2024);
}

TEST(Clock, KnowsTheLocalTimeAndItsSummer)
{
    PlatEnvSet(u"TZ", u"CET-1CEST,M3.5.0,M10.5.0/3");
    PlatTime plattime{};
    int64_t i64Seconds = 0;
    bool blDaylight = true;
    EXPECT_TRUE(PlatTimeLocal(g_u64Year1970 + 1705320000 * g_u64Second, &plattime));
    EXPECT_EQ(Text(plattime), "2024-01-15(1) 13:00:00.000");
    EXPECT_TRUE(PlatTimeToSeconds(&plattime, &i64Seconds, &blDaylight));
    EXPECT_EQ(i64Seconds, 1705320000);
    EXPECT_FALSE(blDaylight);

    // A summer's time that is meant without daylight saving is one hour later than what the clocks show.
    EXPECT_TRUE(PlatTimeLocal(g_u64Year1970 + 1721044800 * g_u64Second, &plattime));
    EXPECT_EQ(Text(plattime), "2024-07-15(1) 14:00:00.000");
    EXPECT_TRUE(PlatTimeToSeconds(&plattime, &i64Seconds, &blDaylight));
    EXPECT_EQ(i64Seconds, 1721044800 + 3600);
    EXPECT_TRUE(blDaylight);
}

// -------------------------------------------------------------------------------------------- folders and modules

TEST(Folders, AreWhereTheVariablesSay)
{
    char16_t wszPath[PLAT_PATHMAX] = {};
    const std::pair<PlatFolder, const char16_t*> apair[] = {
        {PLAT_FOLDER_LOCAL, u"LOCALAPPDATA"}, {PLAT_FOLDER_ROAMING, u"APPDATA"}, {PLAT_FOLDER_PROGRAM, u"PROGRAMDATA"}};
    for (const auto& [platfolder, wszVariable] : apair)
    {
        PlatEnvSet(wszVariable, nullptr);
        EXPECT_TRUE(PlatFolderPath(platfolder, wszPath, PLAT_PATHMAX) && *wszPath);
        PlatEnvSet(wszVariable, u"/some/where");
        EXPECT_TRUE(PlatFolderPath(platfolder, wszPath, PLAT_PATHMAX));
        EXPECT_EQ(std::u16string(wszPath), u"/some/where");
    }
    EXPECT_FALSE(PlatFolderPath(PLAT_FOLDER_TEMP, wszPath, 1));
    EXPECT_EQ(PlatGetLastError(), PLAT_ERROR_INSUFFICIENTBUFFER);
}

TEST(Modules, AreListedTheProgramFirstAndLoadedAsLongAsSomebodyHasThem)
{
    std::vector<std::u16string> vecwstrPath;
    const PlatModuleProc platmoduleproc = [](void* a_pvPaths, const PlatModule* a_pplatmodule) {
        static_cast<std::vector<std::u16string>*>(a_pvPaths)->push_back(Wide(a_pplatmodule->szPath));
        return a_pplatmodule->u64Address != 0 && a_pplatmodule->u64Size != 0;
    };
    EXPECT_TRUE(PlatModuleList(platmoduleproc, &vecwstrPath));
    char16_t wszProgram[PLAT_PATHMAX];
    PlatProgramPath(wszProgram, PLAT_PATHMAX);
    ASSERT_GE(vecwstrPath.size(), 2u);
    EXPECT_EQ(vecwstrPath[0], wszProgram);

    const PlatHandle plathandle = PlatModuleLoad(vecwstrPath.back().c_str());   // which is there already
    EXPECT_TRUE(PlatModuleIsLoaded(plathandle));
    EXPECT_FALSE(PlatClose(plathandle));   // has a release of its own
    EXPECT_TRUE(PlatModuleFree(plathandle));
    EXPECT_TRUE(PlatModuleIsLoaded(plathandle));
    EXPECT_FALSE(PlatModuleIsLoaded(PLAT_INVALID));
    EXPECT_EQ(PlatModuleLoad(u"/none/none.so"), PLAT_INVALID);
    EXPECT_EQ(PlatGetLastError(), PLAT_ERROR_FILENOTFOUND);
}
}   // namespace
