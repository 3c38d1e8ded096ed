// os_cosstring_test.cpp: bounded text, the formatter, search, versions and redaction.
#include "test_support.h"

#include "os_cosredact.h"
#include "os_coswideprintf.h"

#include <climits>
#include <cmath>
#include <cstring>

namespace
{

// Without the compiler's check: the formats here are the product's, not the compiler's.
int Format(char* a_sz, size_t a_sizet, const char* a_szFormat, ...)
{
    va_list valist;
    va_start(valist, a_szFormat);
    const int iLength = OsFormat(a_sz, a_sizet, a_szFormat, valist);
    va_end(valist);
    return iLength;
}

template <class... Values>
std::string Formatted(const char* a_szFormat, Values... a_values)
{
    static char szText[4096];
    const int iLength = Format(szText, sizeof szText, a_szFormat, a_values...);
    return iLength < 0 ? "refused" : szText;
}

// Shows the value in many sizes, and compares.
template <class Value>
void ExpectAsTheCLibrary(const std::string& a_strFlags, const std::string& a_strKind, Value a_value)
{
    for (const char* szSize : {"", "9", "23", ".0", ".1", "12.3", "3.12", "30.21"})
    {
        std::string strFormat = "<%";
        strFormat.append(a_strFlags).append(szSize).append(a_strKind).append(">");
        char szExpected[4096];
        snprintf(szExpected, sizeof szExpected, strFormat.c_str(), a_value);
        EXPECT_EQ(Formatted(strFormat.c_str(), a_value), szExpected) << strFormat;
    }
}

constexpr const char* g_szFlags[] = {"", "-", "+", " ", "#", "0", "-+#0", "+0", "#0", " 0"};

// Eight bytes between two that must stay as they are.
struct Guarded
{
    char chBefore = 'B';
    char szText[8] = "abc";
    char chAfter = 'A';
    ~Guarded() { EXPECT_TRUE(chBefore == 'B' && chAfter == 'A'); }
};

}   // namespace

// ---------------------------------------------------------------------------------------------------- the formatter

TEST(Formatter, WritesIntegersAsTheCLibraryDoes)
{
    for (const char* szFlags : g_szFlags)
    {
        for (const char* szKind : {"d", "i", "u", "x", "X", "o", "hd", "hu", "hhd", "hhx"})
        {
            for (const int iValue : {0, 1, -1, 8, 1234567, INT_MIN, INT_MAX})
                ExpectAsTheCLibrary(szFlags, szKind, iValue);
        }
        for (const char* szKind : {"ld", "llu", "jx", "zu", "td", "llo"})
        {
            for (const long long llValue : {0LL, -1LL, LLONG_MIN, LLONG_MAX})
                ExpectAsTheCLibrary(szFlags, szKind, llValue);
        }
    }
}

TEST(Formatter, WritesFloatingPointAsTheCLibraryDoes)
{
    for (const char* szFlags : g_szFlags)
    {
        for (const char* szKind : {"f", "F", "e", "E", "g", "G", "a", "A"})
        {
            for (const double dValue : {0.0, -0.0, 1.5, -2.5, 9.9999995, 123456.0, 1234567.0, 1e-5, 1e308, 5e-324,
                                        static_cast<double>(INFINITY), -static_cast<double>(INFINITY)})
            {
                ExpectAsTheCLibrary(szFlags, szKind, dValue);
            }
        }
    }
    for (const char* szFormat : {"%.400f", "%.1200e", "%#.1500g", "%2000.1100f", "%.3000f"})
    {
        char szExpected[4096];
        snprintf(szExpected, sizeof szExpected, szFormat, 0.1);
        EXPECT_EQ(Formatted(szFormat, 0.1), szExpected) << szFormat;
    }
    EXPECT_EQ(Formatted("%Lf", 2.5L), "2.500000");
}

TEST(Formatter, KnowsTheProductsConversions)
{
    EXPECT_EQ(Formatted("%I64d %I64x %I32d %Id", -5LL, ~0ULL, 7, static_cast<ptrdiff_t>(-9)),
              "-5 ffffffffffffffff 7 -9");
    EXPECT_EQ(Formatted("%p|%20p|%-20p|", reinterpret_cast<void*>(0xABCDEF), nullptr, nullptr),
              "0000000000ABCDEF|    0000000000000000|0000000000000000    |");
    EXPECT_EQ(Formatted("%02.2d %0.4d %05.5d 0x%08.8x", 5, 6, 7, 0xBEEF), "05 0006 00007 0x0000beef");
    EXPECT_EQ(Formatted("%*.*d|%-*d|%*d|%.*d", 8, 3, 2, 4, 1, -4, 1, -1, 0), "     002|1   |1   |0");
    EXPECT_EQ(Formatted("%s %S %.3s %8s|%-8s|%%", static_cast<char*>(nullptr), static_cast<char16_t*>(nullptr),
                        static_cast<char*>(nullptr), "right", "left"),
              "(null) (null) (nu    right|left    |%");
}

TEST(Formatter, Writes16BitTextAsUtf8)
{
    EXPECT_EQ(Formatted("%S|%ls|%ws|%hs|%hS", u"a\u00E9\u20AC\U0001F600", u"b", u"c", "d", "e"),
              "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80|b|c|d|e");
    EXPECT_EQ(Formatted("%C%lc%c%hC", 0x20AC, u'w', 'c', 'd'), "\xE2\x82\xACwcd");
    // Width and precision count 16-bit characters; a pair is not cut, half a pair is shown as damaged.
    EXPECT_EQ(Formatted("%4S|%-4.2S|%.1S|%.2S", u"\u00E9", u"abc", u"\U0001F600", u"\U0001F600"),
              "   \xC3\xA9|ab  ||\xF0\x9F\x98\x80");
    const char16_t wszHalf[] = {u'a', 0xD83D, u'b', 0};
    EXPECT_EQ(Formatted("%S", static_cast<const char16_t*>(wszHalf)), "a\xEF\xBF\xBD"
                                                                      "b");
}

TEST(Formatter, ReadsNoFurtherThanThePrecision)
{
    const std::unique_ptr<char[]> achText(new char[3]{'a', 'b', 'c'});
    EXPECT_EQ(Formatted("%.3s|%.2s", achText.get(), achText.get()), "abc|ab");
    const std::unique_ptr<char16_t[]> awchText(new char16_t[2]{u'x', u'y'});
    EXPECT_EQ(Formatted("%*.*S", 2, 2, awchText.get()), "xy");
}

TEST(Formatter, CutsAtTheBufferAndTellsTheWholeLength)
{
    Guarded guarded;
    EXPECT_EQ(Format(guarded.szText, sizeof guarded.szText, "%s-%05d", "abcdef", 1), 12);
    EXPECT_STREQ(guarded.szText, "abcdef-");
    EXPECT_EQ(Format(nullptr, 0, "%s-%05d", "abcdef", 1), 12);
    EXPECT_EQ(Format(guarded.szText, 0, "%d", 1), 1);
    EXPECT_STREQ(guarded.szText, "abcdef-");
}

TEST(Formatter, RefusesWhatItDoesNotKnow)
{
    int iWritten = 0;
    EXPECT_EQ(Formatted("%n", &iWritten), "refused");
    for (const char* szFormat : {"%", "abc%5", "%y", "%lk", "%99999999999999999999d%d"})
        EXPECT_EQ(Formatted(szFormat, 1, 1), "refused") << szFormat;
}

// --------------------------------------------------------------------------------------------------- bounded text

TEST(BoundedText, WhatDoesNotFitEmptiesTheDestination)
{
    LogCapture log;
    Guarded guarded;
    SStrCat(guarded.szText, sizeof guarded.szText, "1234");
    EXPECT_STREQ(guarded.szText, "abc1234");
    SStrCat(guarded.szText, sizeof guarded.szText, "5");
    EXPECT_STREQ(guarded.szText, "");
    SStrCpy(guarded.szText, sizeof guarded.szText, "1234567");
    EXPECT_STREQ(guarded.szText, "1234567");
    SStrCpy(guarded.szText, 0, "x");
    EXPECT_STREQ(guarded.szText, "1234567");
    SStrCpy(guarded.szText, sizeof guarded.szText, "12345678");
    EXPECT_STREQ(guarded.szText, "");
    EXPECT_TRUE(log.HasAt(OS_LOG_CHECK, "SStrCpy failed...<12345678>"));
    EXPECT_TRUE(log.Has("SStrCat failed...<5>"));

    char achNoEnd[2] = {'a', 'b'};
    SStrCat(achNoEnd, sizeof achNoEnd, "");
    EXPECT_EQ(achNoEnd[0], 0);
}

TEST(BoundedText, FormattingThatDoesNotFitFails)
{
    LogCapture log;
    Guarded guarded;
    EXPECT_EQ(SStrPrintf(guarded.szText, sizeof guarded.szText, "%d", 1234567), 7);
    EXPECT_EQ(SStrPrintf(guarded.szText, sizeof guarded.szText, "%d", 12345678), -1);
    EXPECT_STREQ(guarded.szText, "");
    EXPECT_TRUE(log.HasAt(OS_LOG_CHECK, "SStrPrintf failed...<%d>"));

    EXPECT_EQ(SStrCatf(guarded.szText, sizeof guarded.szText, "%s", "abc"), 3);
    EXPECT_EQ(SStrCatf(guarded.szText, sizeof guarded.szText, "%d", 12), 5);
    EXPECT_EQ(SStrCatf(guarded.szText, sizeof guarded.szText, "%d", 345), -1);
    EXPECT_STREQ(guarded.szText, "abc12");
    EXPECT_TRUE(log.HasAt(OS_LOG_CHECK, "SStrCatf failed...<%d>"));

    EXPECT_STREQ(SStrFromNum(guarded.szText, sizeof guarded.szText, 1234567), "1234567");
    EXPECT_STREQ(SStrFromNum(guarded.szText, sizeof guarded.szText, UINT64_MAX), "");
    EXPECT_TRUE(log.Has("SStrFromNum failed...<18446744073709551615>"));
}

TEST(BoundedText, WideTextFollowsTheSameRules)
{
    LogCapture log;
    char16_t wszText[6] = u"";
    SWcsCpy(wszText, std::size(wszText), u"ab");
    SWcsCat(wszText, std::size(wszText), u"cde");
    EXPECT_EQ(std::u16string(wszText), u"abcde");
    SWcsCat(wszText, std::size(wszText), u"\u20AC");
    EXPECT_EQ(wszText[0], 0);
    SWcsCpy(wszText, std::size(wszText), u"abcdef");
    EXPECT_EQ(wszText[0], 0);
    EXPECT_EQ(SWcsPrintf(wszText, std::size(wszText), "%s%S%d", "\xC3\xA9", u"\U0001F600", 12), 5);
    EXPECT_EQ(std::u16string(wszText), u"\u00E9\U0001F600"
                                       u"12");
    EXPECT_EQ(SWcsPrintf(wszText, std::size(wszText), "%s", "\xFF"), -1);
    EXPECT_EQ(SWcsPrintf(wszText, std::size(wszText), "%d", 123456), -1);
    EXPECT_EQ(wszText[0], 0);
    for (const char* szLine :
         {"SWcsCat failed...<\xE2\x82\xAC>", "SWcsCpy failed...<abcdef>", "SWcsPrintf failed...<%d>"})
        EXPECT_TRUE(log.HasAt(OS_LOG_CHECK, szLine)) << szLine;
}

// ---------------------------------------------------------------------------------------------- search and compare

TEST(Search, FindsWithoutRegardToAsciiCase)
{
    LogCapture log;
    const char* const szPath = "C:\\Program Files\\x\\logcollector.exe";
    EXPECT_EQ(StrIstr(szPath, "LOGCOLLECTOR"), szPath + 19);
    EXPECT_EQ(StrIstr(szPath, "logcollectors"), nullptr);
    EXPECT_STREQ(StrIstr("aAaab", "AAB"), "aab");
    EXPECT_STREQ(StrIstr("", ""), "");
    EXPECT_EQ(StrIstr("a", ""), nullptr);
    EXPECT_EQ(StrIstr(nullptr, nullptr), nullptr);
    EXPECT_TRUE(log.Has("StrIstr failed...0000000000000000 0000000000000000"));
    EXPECT_TRUE(StrICmp("Abc", "aBC") == 0 && StrICmp("a", "B") < 0 && StrICmp("ab", "A") > 0);
}

TEST(Search, ComparesStartsAndEnds)
{
    LogCapture log;
    EXPECT_TRUE(StrStartsWith("abc", "ab") && StrStartsWith("abc", "") && !StrStartsWith("abc", "AB"));
    EXPECT_FALSE(StrStartsWith("ab", "abc"));
    EXPECT_TRUE(StrEndsWith("x.LOG", ".log", true) && !StrEndsWith("x.LOG", ".log", false));
    EXPECT_FALSE(StrEndsWith("og", "log", true));
    EXPECT_TRUE(StrEndsWith("", "", false) && StrEndsWith("a", "", false) && !StrEndsWith("ab", "", false));
    EXPECT_TRUE(WcsEndsWith(u"x.log", u".log") && !WcsEndsWith(u"x.log", u".LOG") && !WcsEndsWith(u"ab", u""));
    EXPECT_FALSE(StrStartsWith(nullptr, "a"));
    EXPECT_TRUE(log.HasPart("StrStartsWith failed...0000000000000000 "));
}

TEST(Search, MatchesWildcards)
{
    for (const char* szPattern : {"*", "a*c", "*.log", "?.log", "a.l*", "*a*.*g*", "a.log*", "**g"})
        EXPECT_EQ(StrWildcard("a.log", szPattern, false), std::string(szPattern) == "a*c" ? 1 : 0) << szPattern;
    EXPECT_NE(StrWildcard("a.log", "A.LOG", false), 0);
    EXPECT_EQ(StrWildcard("a.log", "A.?OG", true), 0);
    EXPECT_EQ(StrWildcard("aabaabab", "*aabab", false), 0);
    EXPECT_TRUE(StrWildcard("", "*", false) == 0 && StrWildcard("", "?", false) && StrWildcard("a", "", false));
}

TEST(Search, TrimsWhiteSpace)
{
    LogCapture log;
    char szText[8];
    for (const char* szSource : {"abc d", " \t\r\nabc d\v\f "})
    {
        SStrTrim(szText, sizeof szText, szSource);
        EXPECT_STREQ(szText, "abc d");
    }
    SStrTrim(szText, sizeof szText, "  12345678  ");
    EXPECT_STREQ(szText, "abc d");
    EXPECT_TRUE(log.Has("SStrTrim failed...<  12345678  >"));
    SStrTrim(szText, sizeof szText, " \t ");
    EXPECT_STREQ(szText, "");
}

TEST(Search, ReplacesInPlace)
{
    LogCapture log;
    char szText[12] = "a.b.c";
    struct Row
    {
        const char* szFind;
        const char* szReplacement;
        bool blAll;
        EOSSTS eossts;
        const char* szText;
    };
    for (const Row& row : {Row{".", "--", false, EOSSTS_SUCCESS, "a--b.c"},
                           {".", "....", true, EOSSTS_SUCCESS, "a--b....c"},
                           {"..", "", true, EOSSTS_SUCCESS, "a--bc"},
                           {"-", "123456", true, EOSSTS_FAIL, "a--bc"},
                           {"x", "y", true, EOSSTS_NOSPACE, "a--bc"},
                           {"", "y", true, EOSSTS_SUCCESS, "a--bc"},
                           {nullptr, "y", true, EOSSTS_FAIL, "a--bc"}})
    {
        EXPECT_EQ(SStrReplace(szText, sizeof szText, row.szFind, row.szReplacement, row.blAll), row.eossts);
        EXPECT_STREQ(szText, row.szText);
    }
    EXPECT_TRUE(log.HasAt(OS_LOG_CHECK, "buffer overflow...<a--bc> 12 <-> <123456>"));
}

TEST(Search, ReadsNumbers)
{
    EXPECT_EQ(StrHex("0xFFg"), 0xFFu);
    EXPECT_EQ(StrHex("fFFFffffFFFFFFFF"), UINT64_MAX);
    EXPECT_EQ(StrToInt64("  -12x"), -12);
    EXPECT_EQ(StrToInt64("+7"), 7);
    EXPECT_EQ(StrToInt64("-99999999999999999999"), INT64_MIN);
    EXPECT_EQ(StrToInt32("4294967296"), INT32_MAX);
}

// ----------------------------------------------------------------------------------------- versions and redaction

TEST(Version, IsReadFieldByField)
{
    struct Row
    {
        const char* szText;
        EOSSTS eossts;
        const char* szFields;
        const char* szVersion;
    };
    LogCapture log;
    for (const Row& row :
         {Row{"1.2", EOSSTS_SUCCESS, "1 2 0 0", "1.2"}, Row{"01020304", EOSSTS_SUCCESS, "1 2 3 4", "1.2.3.4"},
          Row{"1.2.3", EOSSTS_SUCCESS, "1 2 3 0", "1.2.3"}, Row{"7", EOSSTS_SUCCESS, "7 0 0 0", "7.0"},
          Row{"1.2.0.5", EOSSTS_SUCCESS, "1 2 0 5", "1.2.0.5"}, Row{"..3", EOSSTS_SUCCESS, "0 0 3 0", "0.0.3"},
          Row{"123456.8", EOSSTS_SUCCESS, "123456 8 0 0", "123456.8"},
          Row{"1.2.3.4.5", EOSSTS_NOTOPEN, "0 0 0 0", "1.2.3.4.5"}, Row{"1.2a", EOSSTS_NOTOPEN, "0 0 0 0", "1.2a"}})
    {
        uint32_t au32[4] = {9, 9, 9, 9};
        EXPECT_EQ(StrVersionParse(row.szText, &au32[0], &au32[1], &au32[2], &au32[3]), row.eossts) << row.szText;
        EXPECT_EQ(Formatted("%u %u %u %u", au32[0], au32[1], au32[2], au32[3]), row.szFields) << row.szText;
        char szVersion[16];
        SStrVersion(szVersion, sizeof szVersion, row.szText);
        EXPECT_STREQ(szVersion, row.szVersion);
    }
    EXPECT_TRUE(log.HasAt(OS_LOG_NOTE, "More than 4 version fields...<1.2.3.4.5>"));
    EXPECT_TRUE(log.HasAt(OS_LOG_NOTE, "Non-numeric version...<1.2a>"));
    uint32_t u32 = 9;
    EXPECT_EQ(StrVersionParse("1", &u32, nullptr, &u32, &u32), EOSSTS_FAIL);
    EXPECT_EQ(u32, 0u);
    EXPECT_TRUE(log.HasAt(OS_LOG_ERROR, "invalid argument"));
}

TEST(Redaction, HidesDottedText)
{
    unsetenv("MVR_REDACT");
    EXPECT_STREQ(Redact(nullptr), "");
    EXPECT_STREQ(Redact("localhost"), "localhost");
    EXPECT_STREQ(Redact("10.0.0.1"), "(redacted)");
    setenv("MVR_REDACT", "0", 1);
    EXPECT_STREQ(Redact("10.0.0.1"), "(redacted)") << "the decision is made once";
}

TEST(Redaction, NotOnAMachineInHouseUnlessTheVariableSaysSo)
{
    OsStringSetInHouseTest([] { return std::string(Redact("host.name")) == "(redacted)"; });
    EXPECT_EXIT((setenv("MVR_REDACT", "-1", 1), _exit(*Redact("10.0.0.1"))), testing::ExitedWithCode('('), "");
    unsetenv("MVR_REDACT");
    EXPECT_STREQ(Redact("10.0.0.1"), "10.0.0.1");
}
