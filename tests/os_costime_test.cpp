// os_costime_test.cpp: time records and time stamps.
#include "os_costime.h"
#include "test_support.h"

#include "plat_system.h"

#include <ctime>

TEST(Time, StampIsTwentyDigits)
{
    const OsTimeRecord record{2024, 1, 3, 31, 23, 59, 59, 123};
    char szTime[OS_TIMESTAMPSIZE];
    std::fill(std::begin(szTime), std::end(szTime), 'x');
    EXPECT_EQ(OsTimeStamp(&record, 456, szTime), EOSSTS_SUCCESS);
    EXPECT_STREQ(szTime, "20240131235959123456");
    EXPECT_TRUE(std::all_of(szTime + 20, std::end(szTime), [](char a_ch) { return a_ch == 0; }));
    EXPECT_EQ(OsTimeStamp(&record, 7, szTime), EOSSTS_SUCCESS);
    EXPECT_STREQ(szTime, "20240131235959123007");
}

// Five hours west of Greenwich, without daylight saving: the UTC record read as a local one lies five hours ahead.
TEST(Time, RecordsHoldTheClock)
{
    setenv("TZ", "XST5", 1);
    tzset();
    const auto Now = [] { return static_cast<int64_t>(std::time(nullptr)); };
    const int64_t i64Before = Now();
    OsTimeRecord recordUtc{};
    OsTimeRecord recordLocal{};
    uint32_t u32Microseconds = 9999;
    int64_t i64Utc = 0;
    int64_t i64Local = 0;
    ASSERT_EQ(OsTimeUtc(&recordUtc, &u32Microseconds), EOSSTS_SUCCESS);
    ASSERT_EQ(OsTimeLocal(&recordLocal, nullptr), EOSSTS_SUCCESS);
    ASSERT_EQ(OsTimeToSeconds(&recordUtc, &i64Utc), EOSSTS_SUCCESS);
    ASSERT_EQ(OsTimeToSeconds(&recordLocal, &i64Local), EOSSTS_SUCCESS);
    EXPECT_LT(u32Microseconds, 1000u);
    EXPECT_TRUE(i64Local >= i64Before - 1 && i64Local <= Now() + 1);
    EXPECT_TRUE(i64Utc >= i64Before - 1 + 18000 && i64Utc <= i64Local + 18000);
}

TEST(Time, SecondsOfALocalDateAreMeantWithoutDaylightSaving)
{
    setenv("TZ", "EST5EDT,M3.2.0,M11.1.0", 1);
    tzset();
    const OsTimeRecord recordWinter{2024, 1, 1, 15, 12, 0, 0, 0};
    const OsTimeRecord recordSummer{2024, 7, 1, 15, 12, 0, 0, 0};
    int64_t i64Winter = 0;
    int64_t i64Summer = 0;
    ASSERT_EQ(OsTimeToSeconds(&recordWinter, &i64Winter), EOSSTS_SUCCESS);
    ASSERT_EQ(OsTimeToSeconds(&recordSummer, &i64Summer), EOSSTS_SUCCESS);
    EXPECT_EQ(i64Winter, 1705338000);   // 2024-01-15 17:00 UTC

    const PlatTime plattimeSummer{2024, 7, 1, 15, 12, 0, 0, 0};
    bool blDaylight = false;
    int64_t i64Plain = 0;
    ASSERT_TRUE(PlatTimeToSeconds(&plattimeSummer, &i64Plain, &blDaylight));
    EXPECT_TRUE(blDaylight);
    EXPECT_EQ(i64Summer, i64Plain - 3600);
}
