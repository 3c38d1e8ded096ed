// plat_tree_test.cpp: walking a tree from open folder to open folder.
#include "plat_tree.h"

#include "test_support.h"

namespace fs = std::filesystem;

// Names are relative to the case's own folder.
class PlatTree : public FolderTest
{
protected:
    PlatTree() { fs::current_path(m_path); }
    ~PlatTree() override
    {
        PlatClose(m_plathandle);
        fs::current_path("/");
    }

    void Open(const char16_t* a_wszFolder)
    {
        m_plathandle = PlatTreeOpen(a_wszFolder);
        ASSERT_NE(m_plathandle, PLAT_INVALID);
    }
    bool Next() { return PlatTreeNext(m_plathandle, &m_plattreeentry); }
    bool NextAndEnter() { return Next() && PlatTreeEnter(m_plathandle); }

    PlatHandle m_plathandle = PLAT_INVALID;
    PlatTreeEntry m_plattreeentry;
};

TEST_F(PlatTree, BeginsInAFolderOnly)
{
    fs::create_directory("folder");
    fs::create_directory_symlink("folder", "link");
    WriteWhole("file", "");
    const std::pair<const char16_t*, uint32_t> apair[] = {{u"link", PLAT_ERROR_DIRECTORY},
                                                          {u"link/", PLAT_ERROR_DIRECTORY},
                                                          {u"file", PLAT_ERROR_DIRECTORY},
                                                          {u"none", PLAT_ERROR_FILENOTFOUND},
                                                          {u"none\\x", PLAT_ERROR_PATHNOTFOUND}};
    for (const auto& [wszFolder, u32Error] : apair)
    {
        EXPECT_EQ(PlatTreeOpen(wszFolder), PLAT_INVALID);
        EXPECT_EQ(PlatGetLastError(), u32Error);
    }
    Open(u"folder\\");
    EXPECT_FALSE(Next());
    EXPECT_EQ(PlatGetLastError(), PLAT_ERROR_NOMOREFILES);
    EXPECT_FALSE(PlatTreeDelete(m_plathandle) || PlatTreeEnter(m_plathandle) || PlatTreeLeave(m_plathandle));
}

TEST_F(PlatTree, ListsAndDeletesWhateverItIsCalled)
{
    const uint64_t u64Before = PlatClock();
    fs::create_directories("t/folder");
    WriteWhole("out", "kept");
    fs::create_symlink("../out", "t/link");
    for (const char* szName : {"t/a\\b", "t/\xFF\xFE", "t/file"})
        WriteWhole(szName, "x");
    Open(u"t");
    std::map<std::u16string, int> mapiSeen;
    while (Next())
    {
        ++mapiSeen[m_plattreeentry.wszName];
        uint64_t u64WriteTime;
        EXPECT_TRUE(PlatTreeWriteTime(m_plathandle, &u64WriteTime));
        EXPECT_NEAR(static_cast<double>(u64WriteTime), static_cast<double>(u64Before), 2e8);
        EXPECT_EQ(m_plattreeentry.blLink, std::u16string(m_plattreeentry.wszName) == u"link");
        const bool blFolder = m_plattreeentry.platentry == PLAT_ENTRY_FOLDER;
        EXPECT_EQ(PlatTreeEnter(m_plathandle), blFolder);
        EXPECT_EQ(PlatTreeLeave(m_plathandle), blFolder);
    }
    EXPECT_EQ(mapiSeen, (std::map<std::u16string, int>{{u"", 2}, {u"file", 1}, {u"folder", 1}, {u"link", 1}}));
    for (PlatTreeRewind(m_plathandle); Next();)
        EXPECT_TRUE(PlatTreeDelete(m_plathandle));
    EXPECT_TRUE(fs::is_empty("t"));
    EXPECT_EQ(ReadWhole("out"), "kept");
}

TEST_F(PlatTree, DeletesNoFileThatIsOpenAndNoFullFolder)
{
    fs::create_directories("t/folder/x");
    Open(u"t");
    ASSERT_TRUE(Next());
    EXPECT_FALSE(PlatTreeDelete(m_plathandle));
    EXPECT_EQ(PlatGetLastError(), PLAT_ERROR_DIRNOTEMPTY);
    WriteWhole("t/folder/file", "x");
    fs::remove("t/folder/x");
    const PlatHandle plathandleFile =
        PlatFileOpen(u"t/folder/file", PLAT_ACCESS_READ, PLAT_SHARE_READ, PLAT_DISPOSITION_OPENEXISTING, 0);
    ASSERT_TRUE(PlatTreeEnter(m_plathandle) && Next());
    EXPECT_FALSE(PlatTreeDelete(m_plathandle));
    EXPECT_EQ(PlatGetLastError(), PLAT_ERROR_SHARING);
    PlatClose(plathandleFile);
    EXPECT_TRUE(PlatTreeDelete(m_plathandle));
}

// A link put where a folder was listed, and a folder carried off with the walk in it.
TEST_F(PlatTree, IsLedNowhereElse)
{
    fs::create_directories("out/kept");
    fs::create_directories("t/folder");
    Open(u"t");
    ASSERT_TRUE(Next());
    fs::remove("t/folder");
    fs::create_directory_symlink("../out", "t/folder");
    EXPECT_FALSE(PlatTreeEnter(m_plathandle) || PlatTreeDelete(m_plathandle));
    EXPECT_EQ(PlatGetLastError(), PLAT_ERROR_DIRECTORY);
    PlatClose(m_plathandle);

    std::string strDeep = "moved";
    for (int i = 0; i < 100; ++i)
        strDeep += "/d";
    fs::create_directories(strDeep);
    Open(u"moved");
    for (int i = 0; i < 100; ++i)
        ASSERT_TRUE(NextAndEnter());
    fs::rename("moved/d/d", "out/d");
    int iLeft = 0;
    while (iLeft < 100 && PlatTreeLeave(m_plathandle))
        EXPECT_TRUE(++iLeft < 100 && PlatTreeDelete(m_plathandle));
    EXPECT_EQ(iLeft, 98) << "what was above is not what it was";
    EXPECT_EQ(PlatGetLastError(), PLAT_ERROR_PATHNOTFOUND);
    EXPECT_FALSE(PlatTreeDelete(m_plathandle) || Next());
    EXPECT_TRUE(fs::exists("out/kept"));
}
