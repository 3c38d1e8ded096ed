// Watches: what is reported of a folder's entries, in which order, and what is left when the folder goes.
#include "plat_file.h"
#include "plat_watch.h"

#include "plat_support.h"

namespace
{

class PlatWatch : public FolderTest
{
protected:
    PlatWatch()
    {
        std::filesystem::create_directory(m_path / "folder");
        m_plathandle = PlatWatchCreate(Wide(PathOf("folder")).c_str());
        EXPECT_NE(m_plathandle, PLAT_INVALID);
    }
    ~PlatWatch() override { PlatClose(m_plathandle); }

    bool IsReady() const { return PlatWaitAny(&m_plathandle, 1, 0) == 0; }
    std::string Entry(const std::string& a_strName) const { return PathOf("folder/" + a_strName); }

    // Everything that is there to report, such as "1 name", the same change only once in a row; "..." while a writer
    // has the file open.
    std::vector<std::string> Changes()
    {
        std::vector<std::string> vecstr;
        PlatWatchChange platwatchchange;
        EXPECT_EQ(IsReady(), true);
        while (PlatWatchRead(m_plathandle, &platwatchchange))
        {
            const std::u16string wstrName(platwatchchange.wszName);
            const std::string str = std::to_string(platwatchchange.platwatchaction) + " " +
                                    std::string(wstrName.begin(), wstrName.end()) +
                                    (platwatchchange.blWriting ? "..." : "");
            if (vecstr.empty() || vecstr.back() != str)
                vecstr.push_back(str);
        }
        EXPECT_EQ(PlatGetLastError(), PLAT_ERROR_WOULDBLOCK);
        EXPECT_FALSE(IsReady());
        return vecstr;
    }

    PlatHandle m_plathandle;
};

using Texts = std::vector<std::string>;

TEST_F(PlatWatch, EntriesAddedWrittenRenamedAndRemoved)
{
    EXPECT_FALSE(IsReady());
    const std::string strLong(255, 'n');
    WriteWhole(Entry("a"), "text");
    EXPECT_EQ(Changes(), (Texts{"1 a...", "3 a...", "3 a"}));
    {
        std::ofstream stream(Entry("a"), std::ios::app);
        stream << "more" << std::flush << "more" << std::flush;
        EXPECT_EQ(Changes(), (Texts{"3 a..."}));
    }
    EXPECT_EQ(Changes(), (Texts{"3 a"}));
    std::filesystem::permissions(Entry("a"), std::filesystem::perms{0400});
    EXPECT_EQ(Changes(), (Texts{"3 a"}));
    std::filesystem::rename(Entry("a"), Entry(strLong));
    EXPECT_EQ(Changes(), (Texts{"4 a", "5 " + strLong}));
    std::filesystem::remove(Entry(strLong));
    std::filesystem::create_directory(Entry("sub"));
    WriteWhole(Entry("sub/x"), "not an entry");
    EXPECT_EQ(Changes(), (Texts{"2 " + strLong, "1 sub"}));
}

TEST_F(PlatWatch, AFolderThatIsMovedOrDeletedIsGoneForGood)
{
    PlatWatchChange platwatchchange;
    std::filesystem::rename(PathOf("folder"), PathOf("moved"));
    for (int i = 0; i < 2; ++i)
    {
        EXPECT_TRUE(IsReady());
        EXPECT_FALSE(PlatWatchRead(m_plathandle, &platwatchchange));
        EXPECT_EQ(PlatGetLastError(), PLAT_ERROR_PATHNOTFOUND);
        PlatClose(m_plathandle);
        m_plathandle = PlatWatchCreate(Wide(PathOf("moved")).c_str());
        std::filesystem::remove(PathOf("moved"));
    }
}

TEST_F(PlatWatch, LostChangesAreOneChangeWithoutName)
{
    WriteWhole(Entry("a"), "");
    for (int iRename = 0; iRename < 20000; ++iRename)
    {
        std::filesystem::rename(Entry("a"), Entry("b"));
        std::filesystem::rename(Entry("b"), Entry("a"));
    }
    const Texts vecstr = Changes();
    EXPECT_GT(vecstr.size(), 100u);
    EXPECT_EQ(vecstr.back(), "3 ");
}

}   // namespace
