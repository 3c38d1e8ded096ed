// plat_append_test.cpp: a file that is kept open for appending and in nobody's way.
#include "plat_support.h"

#include "plat_file.h"

class AppendFile : public FolderTest
{
protected:
    AppendFile() : m_strFile(PathOf("a")), m_plathandle(PlatAppendOpen(Wide(m_strFile).c_str())) {}
    ~AppendFile() override { PlatClose(m_plathandle); }

    std::string m_strFile;
    PlatHandle m_plathandle;
};

TEST_F(AppendFile, AppendsBehindWhatOthersHaveWritten)
{
    size_t sizetWritten = 0;
    EXPECT_TRUE(PlatAppendWrite(m_plathandle, "one", 3, &sizetWritten));
    EXPECT_EQ(sizetWritten, 3u);
    std::ofstream(m_strFile, std::ios::app) << "two";
    EXPECT_TRUE(PlatAppendWrite(m_plathandle, "three", 5, nullptr));
    EXPECT_TRUE(PlatAppendFlush(m_plathandle));
    EXPECT_EQ(ReadWhole(m_strFile), "onetwothree");
}

TEST_F(AppendFile, IsCurrentWhileThePathNamesIt)
{
    EXPECT_TRUE(PlatAppendIsCurrent(m_plathandle));
    std::filesystem::rename(m_strFile, PathOf("b"));
    EXPECT_FALSE(PlatAppendIsCurrent(m_plathandle));
    WriteWhole(m_strFile, "");
    EXPECT_FALSE(PlatAppendIsCurrent(m_plathandle));
    std::filesystem::rename(PathOf("b"), m_strFile);
    EXPECT_TRUE(PlatAppendIsCurrent(m_plathandle));
    const PlatHandle plathandle =
        PlatFileOpen(Wide(m_strFile).c_str(), PLAT_ACCESS_READ, PLAT_SHARE_NONE, PLAT_DISPOSITION_OPENEXISTING, 0);
    EXPECT_FALSE(PlatAppendIsCurrent(m_plathandle)) << "somebody refuses us";
    EXPECT_EQ(PlatAppendOpen(Wide(m_strFile).c_str()), PLAT_INVALID);
    EXPECT_EQ(PlatGetLastError(), PLAT_ERROR_SHARING);
    EXPECT_FALSE(PlatAppendWrite(plathandle, "x", 1, nullptr));
    EXPECT_EQ(PlatGetLastError(), PLAT_ERROR_INVALIDHANDLE);
    EXPECT_TRUE(PlatClose(plathandle) && PlatAppendIsCurrent(m_plathandle));
    EXPECT_TRUE(PlatFileDelete(Wide(m_strFile).c_str()));
    EXPECT_FALSE(PlatAppendIsCurrent(m_plathandle));
}
