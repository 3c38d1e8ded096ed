// plat_machine_test.cpp: what every backend tells about its machine.
#include "plat_machine.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <unistd.h>

TEST(Machine, TheSystemHasAVersionAndAName)
{
    PlatVersion platversion = {};
    ASSERT_TRUE(PlatVersionGet(PLAT_VERSION_COOKED, &platversion));
    EXPECT_GT(platversion.u32Major, 0u);

    char16_t wszName[256];
    ASSERT_TRUE(PlatHostName(wszName, 256));
    EXPECT_NE(wszName[0], u'\0');
    EXPECT_FALSE(PlatHostName(wszName, 1));
    EXPECT_EQ(PlatGetLastError(), PLAT_ERROR_INSUFFICIENTBUFFER);
}

TEST(Machine, TheProcessorTellsOfItself)
{
    PlatProcessor platprocessor;
    ASSERT_TRUE(PlatProcessorGet(&platprocessor));
    EXPECT_EQ(std::strlen(platprocessor.szVendor), 12u);
    EXPECT_EQ(platprocessor.u32MachineBits, 64u);
    EXPECT_TRUE(platprocessor.blFpu && platprocessor.blSse2);   // no 64-bit processor is without
    const std::string strModel = platprocessor.szModel;
    EXPECT_TRUE(strModel.empty() || (strModel.front() != ' ' && strModel.back() != ' ')) << strModel;
}

TEST(Machine, AFolderIsOnAVolume)
{
    PlatVolume platvolume;
    EXPECT_TRUE(PlatVolumeGet(nullptr, &platvolume));
    ASSERT_TRUE(PlatVolumeGet(u"/proc", &platvolume));
    EXPECT_EQ(std::u16string(platvolume.wszDevice), u"proc");
    EXPECT_FALSE(PlatVolumeGet(u"/no/such/folder", &platvolume));
    EXPECT_TRUE(PlatGetLastError() == PLAT_ERROR_FILENOTFOUND || PlatGetLastError() == PLAT_ERROR_PATHNOTFOUND);
}

// The name of somebody else's account is not believed when it comes from the environment.
TEST(Machine, TheUserIsTheAccountOfTheProcess)
{
    setenv("LOGNAME", geteuid() == 0 ? "daemon" : "root", 1);
    PlatSetLastError(77);
    char16_t wszName[256] = {};
    if (!PlatUserName(PLAT_USER_SESSION, wszName, 256))
        GTEST_SKIP() << "this account has no name here";
    EXPECT_EQ(PlatGetLastError(), 77u);
    EXPECT_EQ(std::u16string(wszName) == u"root", geteuid() == 0);
    char16_t wszAccount[256] = {};
    EXPECT_TRUE(PlatUserName(PLAT_USER_ACCOUNT, wszAccount, 256));
    EXPECT_EQ(std::u16string(wszName), wszAccount);
}
