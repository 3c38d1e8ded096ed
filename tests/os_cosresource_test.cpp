// os_cosresource_test.cpp: resources of program files, whole, missing and damaged.
#include "os_cosresource.h"
#include "os_cosresource_footer.h"
#include "test_support.h"

#include <cstring>
#include <sys/resource.h>

namespace fs = std::filesystem;

class Resource : public FolderTest
{
protected:
    // A file that looks like a program, with the resources that the tool gives it.
    void MakeProgram(const std::string& a_strResources)
    {
        WriteWhole(m_strProgram, "\x7F"
                                 "ELF and the rest of it");
        ASSERT_EQ(AppendResources(m_strProgram, a_strResources), 0);
    }
    EOSSTS Open(const char* a_szName)
    {
        COsResource osresource;
        const EOSSTS eossts = osresource.Open(m_strProgram.c_str(), a_szName);
        m_strData.assign(osresource.Data() ? osresource.Data() : "(null)");
        EXPECT_EQ(eossts == EOSSTS_SUCCESS, osresource.Data() != nullptr);
        return eossts;
    }

    const std::string m_strProgram = PathOf("program");
    std::string m_strData;
    LogCapture m_log;
};

TEST_F(Resource, IsFoundByItsName)
{
    EXPECT_EQ(Open("ANY"), EOSSTS_FAIL);
    EXPECT_TRUE(m_log.HasAt(OS_LOG_ERROR, "LoadLibrary failed: " + m_strProgram));
    WriteWhole(m_strProgram, "a text");
    EXPECT_EQ(Open("ANY"), EOSSTS_FAIL);

    WriteWhole(PathOf("text"), "two\nlines");
    MakeProgram("OLD=one");
    ASSERT_EQ(AppendResources(m_strProgram, "FIRST=one SECOND=@" + PathOf("text") + " EMPTY="), 0);
    EXPECT_EQ(Open("OLD"), EOSSTS_NOSPACE) << "those that are given again replace the former ones";
    EXPECT_EQ(Open("SECOND"), EOSSTS_SUCCESS);
    EXPECT_EQ(m_strData, "two\nlines");
    EXPECT_EQ(Open("EMPTY"), EOSSTS_SUCCESS);
    EXPECT_EQ(m_strData, "");
    EXPECT_EQ(Open("second"), EOSSTS_NOSPACE);
    EXPECT_TRUE(m_log.HasAt(OS_LOG_NOTE, "FindResource failed...<second>"));

    COsResource osresource;
    EXPECT_EQ(osresource.Open(m_strProgram.c_str(), "FIRST"), EOSSTS_SUCCESS);
    EXPECT_EQ(osresource.Open(m_strProgram.c_str(), "SECOND"), EOSSTS_FAIL);
    EXPECT_TRUE(m_log.HasAt(OS_LOG_CHECK, "this osresource is already in use..."));
    EXPECT_STREQ(osresource.Data(), "one");
}

// Whatever numbers a file holds, nothing outside of its resources is read.
TEST_F(Resource, DamagedFootersHoldNothing)
{
    MakeProgram("FIRST=one");
    const std::string strWhole = ReadWhole(m_strProgram);
    const size_t sizetTrailer = strWhole.size() - sizeof(OsResourceTrailer);
    const size_t sizetEntry = sizetTrailer - sizeof(OsResourceEntry);
    const size_t asizetField[] = {
        sizetTrailer + offsetof(OsResourceTrailer, u64Begin), sizetTrailer + offsetof(OsResourceTrailer, u64Table),
        sizetTrailer + offsetof(OsResourceTrailer, u32Count), sizetTrailer + offsetof(OsResourceTrailer, szMagic),
        sizetEntry + offsetof(OsResourceEntry, u64Offset),    sizetEntry + offsetof(OsResourceEntry, u64Size)};
    for (const size_t sizetField : asizetField)
    {
        for (const uint64_t u64Value : {~uint64_t{0}, uint64_t{1} << 62, uint64_t{0xFFFFFFFF}, uint64_t{4000}})
        {
            std::string strDamaged = strWhole;
            std::memcpy(&strDamaged[sizetField], &u64Value, sizeof(uint32_t));
            if (sizetField != asizetField[2])
                std::memcpy(&strDamaged[sizetField], &u64Value, sizeof u64Value);
            WriteWhole(m_strProgram, strDamaged);
            EXPECT_EQ(Open("FIRST"), EOSSTS_NOSPACE) << sizetField << " " << u64Value;
        }
    }
    for (const size_t sizetCut : {size_t{1}, sizeof(OsResourceTrailer), strWhole.size() - 4})
    {
        WriteWhole(m_strProgram, strWhole.substr(0, strWhole.size() - sizetCut));
        EXPECT_EQ(Open("FIRST"), EOSSTS_NOSPACE) << sizetCut;
    }
    std::string strUnterminated = strWhole;
    strUnterminated.replace(sizetEntry, OS_RESOURCENAMESIZE, OS_RESOURCENAMESIZE, 'N');
    WriteWhole(m_strProgram, strUnterminated);
    EXPECT_EQ(Open("FIRST"), EOSSTS_NOSPACE);
}

TEST_F(Resource, TheProgramCarriesItsBrandAndItsVersion)
{
    COsResource osresourceBrand;
    EXPECT_EQ(osresourceBrand.Open(TEST_PROGRAMFOLDER "/logcollector", "BRAND"), EOSSTS_SUCCESS);
    EXPECT_EQ(osresourceBrand.Data(), ReadWhole(TEST_SOURCEFOLDER "/logcollector/resources/brand.xml"));
    for (const char* szName : {"VERSION", "VERSIONSIMPLE"})
    {
        COsResource osresource;
        EXPECT_EQ(osresource.Open(TEST_PROGRAMFOLDER "/logcollector", szName), EOSSTS_SUCCESS);
        EXPECT_GT(osresource.Size(), 0u);
    }
}

// Runs in a copy of this test that carries the text. At first no file can be opened; then many threads ask at once.
TEST(LocalResource, DISABLED_Text)
{
    struct rlimit rlimitBefore;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &rlimitBefore), 0);
    const struct rlimit rlimitNone = {0, rlimitBefore.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &rlimitNone), 0);
    EXPECT_EQ(OsResourceText("TEXT"), nullptr);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &rlimitBefore), 0);
    InThreads(8, [](int) { EXPECT_STREQ(OsResourceText("TEXT"), "carried"); });
    EXPECT_EQ(OsResourceText("TEXT"), OsResourceText("TEXT"));
}

TEST_F(Resource, TheLocalModuleIsTheProgram)
{
    EXPECT_EQ(OsResourceText("TEXT"), nullptr);
    EXPECT_TRUE(m_log.HasAt(OS_LOG_NOTE, "Resource TEXT not found"));
    fs::copy_file("/proc/self/exe", m_strProgram);
    ASSERT_EQ(AppendResources(m_strProgram, "TEXT=carried"), 0);
    EXPECT_EQ(RunDisabledCase(m_strProgram, "LocalResource.*"), 0);
}
