// os_cosenv_test.cpp: environment variables as UTF-8 text.
#include "os_cosenv.h"
#include "test_support.h"

TEST(Environment, ValueOrDefault)
{
    char szValue[16];
    EXPECT_EQ(OsEnvSet("MVR_T\xC3\x89ST", "v\xE2\x82\xAC"), EOSSTS_SUCCESS);
    EXPECT_STREQ(getenv("MVR_T\xC3\x89ST"), "v\xE2\x82\xAC");
    EXPECT_EQ(OsEnvGet("MVR_T\xC3\x89ST", "x", sizeof szValue, szValue), EOSSTS_SUCCESS);
    EXPECT_STREQ(szValue, "v\xE2\x82\xAC");

    EXPECT_EQ(OsEnvSet("MVR_T\xC3\x89ST", nullptr), EOSSTS_SUCCESS);
    EXPECT_EQ(getenv("MVR_T\xC3\x89ST"), nullptr);
    EXPECT_EQ(OsEnvGet("MVR_T\xC3\x89ST", "default", sizeof szValue, szValue), EOSSTS_SUCCESS);
    EXPECT_STREQ(szValue, "default");
    EXPECT_EQ(OsEnvGet("MVR_T\xC3\x89ST", nullptr, sizeof szValue, szValue), EOSSTS_SUCCESS);
    EXPECT_STREQ(szValue, "");
}

TEST(Environment, WhatDoesNotFitIsToldWithBothSizes)
{
    LogCapture log;
    char szValue[4] = "xyz";
    setenv("MVR_TEST", "12\xC3\xA9", 1);
    EXPECT_EQ(OsEnvGet("MVR_TEST", "", sizeof szValue, szValue), EOSSTS_NOMEMORY);
    EXPECT_STREQ(szValue, "");
    EXPECT_TRUE(log.HasAt(OS_LOG_ERROR, "GetEnv error, buffer too small...<MVR_TEST> (5 > 4)"));
    EXPECT_EQ(log.Lines().at(0).strSource, "os/source/os_coscfg");
    EXPECT_EQ(OsEnvGet("MVR_UNSET", "long", sizeof szValue, szValue), EOSSTS_NOMEMORY);
    EXPECT_TRUE(log.HasAt(OS_LOG_ERROR, "GetEnv error...<MVR_UNSET> <long> 4"));
    EXPECT_EQ(OsEnvGet("", "", sizeof szValue, szValue), EOSSTS_NOTOPEN);
    EXPECT_EQ(OsEnvSet("A=B", "x"), EOSSTS_FAIL);

    const std::string strLong(9000, 'v');
    ASSERT_EQ(OsEnvSet(("MVR_" + std::string(700, 'N')).c_str(), strLong.c_str()), EOSSTS_SUCCESS);
    std::string strValue(9001, 'x');
    OsEnvGet(("MVR_" + std::string(700, 'N')).c_str(), "", strValue.size(), strValue.data());
    EXPECT_EQ(strValue.c_str(), strLong);
    setenv("MVR_TEST", "-12", 1);
    EXPECT_EQ(OsEnvGetNumber("MVR_TEST", 5), -12);
    setenv("MVR_TEST", "", 1);
    EXPECT_EQ(OsEnvGetNumber("MVR_TEST", 5), 5);
}

TEST(Environment, APrefixDeletesInAnyCaseAndTheRestIsListed)
{
    setenv("MVR_GoneA", "1", 1);
    setenv("mvr_gone", "2", 1);
    setenv("MVR_GON", "3", 1);
    OsEnvDeletePrefix("MVR_GONE");
    EXPECT_EQ(getenv("MVR_GoneA"), nullptr);
    EXPECT_EQ(getenv("mvr_gone"), nullptr);

    setenv("MVR_EMPTY", "", 1);
    setenv("MVR_LATIN", "\xE4\xC3\xA4\xF0x\xC3", 1);
    OsEnvVariables osenvvariables;
    ASSERT_EQ(OsEnvList(&osenvvariables), EOSSTS_SUCCESS);
    const std::pair<std::string, std::string> astr[] = {
        {"MVR_GON", "3"}, {"MVR_EMPTY", ""}, {"MVR_LATIN", "\uFFFD\u00E4\uFFFDx\uFFFD"}};
    for (const auto& listed : astr)
        EXPECT_EQ(std::count(osenvvariables.begin(), osenvvariables.end(), listed), 1) << listed.first;
}
