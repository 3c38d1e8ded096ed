// os_coslocale_test.cpp: UTF-8 to UTF-16 and back, and the table of languages.
#include "os_coslocale.h"
#include "test_support.h"

#include <set>

namespace
{

constexpr char g_szMixed[] = "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80\xF4\x8F\xBF\xBF";
constexpr char16_t g_wszMixed[] = u"a\u00E9\u20AC\U0001F600\U0010FFFF";

}   // namespace

TEST(Locale, ConvertsBothWays)
{
    char16_t wszText[16];
    char szText[16];
    EXPECT_EQ(CopyStringFromUtf8(wszText, std::size(wszText), g_szMixed), std::size(g_wszMixed));
    EXPECT_EQ(std::u16string(wszText), g_wszMixed);
    EXPECT_EQ(CopyStringToUtf8(szText, sizeof szText, g_wszMixed, SIZE_MAX), sizeof g_szMixed - 1);
    EXPECT_STREQ(szText, g_szMixed);
    EXPECT_EQ(CopyStringToUtf8(szText, sizeof szText, g_wszMixed, 2), 3u);
    EXPECT_STREQ(szText, "a\xC3\xA9");
    EXPECT_EQ(CopyStringToUtf8(nullptr, 0, g_wszMixed, SIZE_MAX), sizeof g_szMixed - 1);
}

TEST(Locale, WhatDoesNotFitIsRefused)
{
    LogCapture log;
    char16_t wszText[4] = u"xyz";
    char szText[4] = "xyz";
    EXPECT_EQ(CopyStringFromUtf8(wszText, 4, "abc"), 4u);
    EXPECT_EQ(CopyStringFromUtf8(wszText, 4, "ab\xF0\x9F\x98\x80"), 0u);
    EXPECT_EQ(wszText[0], 0);
    EXPECT_TRUE(log.HasAt(OS_LOG_ERROR, "CopyStringFromUtf8 failed <ab\xF0\x9F\x98\x80>"));
    EXPECT_EQ(CopyStringToUtf8(szText, sizeof szText, u"abcd\u00E9", SIZE_MAX), 0u);
    EXPECT_STREQ(szText, "");
    EXPECT_TRUE(log.HasAt(OS_LOG_CHECK, "WideCharToMultiByte failed...s=5 d=6"));
}

TEST(Locale, DamagedTextIsRefused)
{
    LogCapture log;
    char16_t wszText[16];
    for (const char* szText : {"\x80", "\xC0\x80", "a\xC3", "\xE2\x82", "\xED\xA0\x80", "\xF4\x90\x80\x80", "\xFF"})
        EXPECT_EQ(CopyStringFromUtf8(wszText, std::size(wszText), szText), 0u) << szText;

    char szText[16];
    const char16_t wszHigh[] = {0xD83D, 0};
    const char16_t wszLow[] = {0xDE00, u'a', 0};
    EXPECT_EQ(CopyStringToUtf8(szText, sizeof szText, wszHigh, SIZE_MAX), 0u);
    EXPECT_EQ(CopyStringToUtf8(szText, sizeof szText, wszLow, SIZE_MAX), 0u);
    EXPECT_EQ(CopyStringToUtf8(szText, sizeof szText, g_wszMixed, 4), 0u) << "the length cuts a pair";
}

TEST(Language, TableHoldsOneRowForEachKey)
{
    std::set<std::string> setKeys;
    for (uint32_t u32 = 0; u32 < OS_LANGUAGECOUNT; ++u32)
    {
        const OsLanguage* const poslanguage = OsLanguageGet(u32);
        EXPECT_TRUE(setKeys.insert(poslanguage->szKey).second) << poslanguage->szKey;
        EXPECT_EQ(OsLanguageGetId(poslanguage->szKey), u32);
        EXPECT_LE(poslanguage->u32Group, u32);
        const bool blEnglish = std::string(poslanguage->szCulture).starts_with("en-");
        EXPECT_EQ(poslanguage->u32Group == OS_LANGUAGE_ENUSA, blEnglish) << poslanguage->szKey;
    }
    EXPECT_EQ(OsLanguageGet(OS_LANGUAGECOUNT)->u32Group, OS_LANGUAGECOUNT);
    EXPECT_EQ(OsLanguageGet(OS_LANGUAGECOUNT + 1), nullptr);

    const OsLanguage& oslanguage = *OsLanguageGet(2);
    EXPECT_STREQ(oslanguage.szKey, "af_zaf");
    EXPECT_EQ(oslanguage.u64Locale, 1252ull << 32 | 0x436);
    EXPECT_STREQ(OsLanguageGet(54)->szKey, "twain_en_usa");
    EXPECT_EQ(OsLanguageGet(54)->u32Code, 13u);
    EXPECT_STREQ(OsLanguageGet(130)->szKey, "vi_vnm");
}

TEST(Language, CurrentOneComesFromTheConfiguration)
{
    EXPECT_EQ(OsLanguageGetId(nullptr), OS_LANGUAGE_ENUSA);
    FakeConfiguration fakeconfiguration;
    fakeconfiguration.Set(OS_CFGTAG_DEFAULTLANGUAGE, "AF_zaf");
    EXPECT_EQ(OsLanguageGetId(nullptr), 2u);
    fakeconfiguration.Set(OS_CFGTAG_DEFAULTLANGUAGE, "fi_fin");
    EXPECT_EQ(OsLanguageGetId(nullptr), 2u) << "it is computed once";
}

TEST(Language, AnUnknownOneIsEnglish)
{
    FakeConfiguration fakeconfiguration;
    fakeconfiguration.Set(OS_CFGTAG_DEFAULTLANGUAGE, "xx_xxx");
    EXPECT_EQ(OsLanguageGetId(nullptr), OS_LANGUAGE_ENUSA);
}
