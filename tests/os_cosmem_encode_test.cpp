// os_cosmem_encode_test.cpp: base64 and URL encoding.
#include "os_cosmem.h"
#include "test_support.h"

#include <cstring>

namespace
{

std::string Encode(const std::string& a_strBytes, bool a_blUrlSafe)
{
    char szText[1024];
    size_t sizetLength = 0;
    const EOSSTS eossts =
        Base64Encode(szText, sizeof szText, &sizetLength, a_strBytes.data(), a_strBytes.size(), a_blUrlSafe);
    EXPECT_EQ(sizetLength, std::strlen(szText));
    return eossts == EOSSTS_SUCCESS ? szText : "failed";
}

std::string Decode(const std::string& a_strText, size_t a_sizetSize = 1024)
{
    std::string strBytes(a_sizetSize, 'x');
    size_t sizetLength = 99;
    if (Base64Decode(strBytes.data(), strBytes.size(), &sizetLength, a_strText.data(), a_strText.size()) !=
        EOSSTS_SUCCESS)
        return "failed";
    EXPECT_TRUE(sizetLength == strBytes.size() || strBytes[sizetLength] == 0);
    return strBytes.substr(0, sizetLength);
}

}   // namespace

TEST(Base64, GoesThereAndBack)
{
    EXPECT_EQ(Encode("\xFB\xFF", false), "+/8=");
    EXPECT_EQ(Encode("\xFB\xFF", true), "-_8=");
    EXPECT_EQ(Decode("+/8="), "\xFB\xFF");
    EXPECT_EQ(Decode("-_8="), "\xFB\xFF");
    EXPECT_EQ(Encode("a", false), "YQ==");

    std::string strBytes;
    for (int i = 0; i < 256; ++i)
    {
        strBytes += static_cast<char>(i);
        ASSERT_EQ(Decode(Encode(strBytes, i % 2 == 0)), strBytes);
    }
}

TEST(Base64, EncodingLeavesRoomForTheTerminator)
{
    LogCapture log;
    char szText[9] = "xxxxxxxx";
    size_t sizetLength = 9;
    EXPECT_EQ(Base64Encode(szText, 9, &sizetLength, "abcd", 4, false), EOSSTS_SUCCESS);
    EXPECT_EQ(sizetLength, 8u);
    EXPECT_STREQ(szText, "YWJjZA==");
    EXPECT_EQ(Base64Encode(szText, 8, &sizetLength, "abcd", 4, false), EOSSTS_FAIL);
    EXPECT_STREQ(szText, "");
    EXPECT_TRUE(log.HasAt(OS_LOG_ERROR, "destination overflow...8 8"));
    EXPECT_EQ(Base64Encode(szText, 8, &sizetLength, "", 0, false), EOSSTS_FAIL);
    EXPECT_TRUE(log.HasAt(OS_LOG_ERROR, "bad argument..."));
    EXPECT_EQ(log.Lines().at(0).strSource, "os/source/os_cosmem");
}

TEST(Base64, DamagedTextIsRefused)
{
    LogCapture log;
    char szText[4] = "xyz";
    size_t sizetLength = 9;
    EXPECT_EQ(Base64Decode(szText, sizeof szText, &sizetLength, "YWJjZ", 5), EOSSTS_FAIL);
    EXPECT_STREQ(szText, "xyz") << "a wrong length is found before the destination is touched";
    EXPECT_TRUE(log.HasAt(OS_LOG_ERROR, "a_iSrc is not a multiple of 3...5"));
    EXPECT_EQ(Base64Decode(szText, sizeof szText, &sizetLength, "YW!j", 4), EOSSTS_FAIL);
    EXPECT_TRUE(log.HasAt(OS_LOG_ERROR, "illegal character...Base64-33"));
    EXPECT_EQ(Base64Decode(szText, sizeof szText, &sizetLength, "YWJjZGVm", 8), EOSSTS_FAIL);
    EXPECT_TRUE(log.HasAt(OS_LOG_ERROR, "destination overflow...5 4"));
    EXPECT_TRUE(std::all_of(szText, szText + 4, [](char a_ch) { return a_ch == 0; }));

    EXPECT_EQ(Decode("YWJj", 3), "abc") << "a result that fits exactly";
    EXPECT_EQ(Decode("YWJj", 2), "failed");
    EXPECT_EQ(Decode(""), "");
    EXPECT_EQ(Decode("YW=!"), "a") << "what follows the first = is not looked at";
}

TEST(Url, EscapesAllButLettersAndDigits)
{
    char szText[OS_URLSIZE];
    size_t sizetLength = 0;
    EXPECT_EQ(UrlEncode(szText, &sizetLength, "aZ09 /\xFF", 7), EOSSTS_SUCCESS);
    EXPECT_STREQ(szText, "aZ09%20%2F%FF");
    EXPECT_EQ(sizetLength, 13u);

    LogCapture log;
    const std::string strLong(683, ' ');
    EXPECT_EQ(UrlEncode(szText, &sizetLength, strLong.data(), 682), EOSSTS_SUCCESS);
    EXPECT_EQ(sizetLength, 2046u);
    EXPECT_EQ(UrlEncode(szText, &sizetLength, strLong.data(), 683), EOSSTS_NOMEMORY);
    EXPECT_TRUE(log.HasAt(OS_LOG_ERROR, "destination is too small...2048 683"));
}
