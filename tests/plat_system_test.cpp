// plat_system_test.cpp: what memory and the clock owe, on whichever system.
#include "plat_support.h"

#include "plat_memory.h"

namespace
{
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
}   // namespace
