// plat_tree_test.cpp: walking a tree from open folder to open folder.
#include "plat_tree.h"

#include "plat_support.h"

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
