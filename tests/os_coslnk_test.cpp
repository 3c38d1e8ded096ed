// The locked list: where items land, when chunks come and go, who holds the lock.
#include "os_coslnk.h"
#include "os_cosmem.h"

#include "test_support.h"

#include "plat_thread.h"

#include <thread>

class List : public FolderTest
{
protected:
    List() { std::filesystem::current_path(m_path); }   // where a failed allocation is reported

    static std::vector<int> Items(COsLnk& a_oslnk)
    {
        std::vector<int> veciItem;
        for (void* pvItem = a_oslnk.GetFirstAndLock("Items", "test", 1); pvItem; pvItem = a_oslnk.GetNext(pvItem))
            veciItem.push_back(*static_cast<int*>(pvItem));
        a_oslnk.Unlock();
        return veciItem;
    }
    static void AddRange(COsLnk& a_oslnk, int a_iFirst, int a_iLast)
    {
        for (int i = a_iFirst; i <= a_iLast; i++)
            ASSERT_TRUE(a_oslnk.Add(&i));
    }
    static void RemoveRange(COsLnk& a_oslnk, int a_iFirst, int a_iLast)
    {
        for (int i = a_iFirst; i <= a_iLast; i++)
            a_oslnk.Remove(&i, false, true);
    }

    LogCapture m_logcapture;
    COsMem m_osmem;
};

using Ints = std::vector<int>;

TEST_F(List, AnEmptyChunkGoesAndOtherItemsStayInPlace)
{
    COsLnk oslnk(sizeof(int), 4);
    AddRange(oslnk, 0, 11);
    void* const pvFirst = oslnk.GetFirstAndLock("", "", 0);
    oslnk.Unlock();
    RemoveRange(oslnk, 1, 7);
    EXPECT_EQ(oslnk.ChunkCount(), 2u);
    AddRange(oslnk, 20, 23);   // into the freed nodes, then into a new chunk
    EXPECT_EQ(oslnk.ChunkCount(), 3u);
    EXPECT_EQ(Items(oslnk), (Ints{0, 8, 9, 10, 11, 20, 21, 22, 23}));
    EXPECT_EQ(oslnk.GetFirstAndLock("", "", 0), pvFirst);
    oslnk.Remove(nullptr, true, false);   // all of them; the chunks stay
    oslnk.Unlock();
    EXPECT_EQ(oslnk.Count(), 0);
    EXPECT_EQ(oslnk.ChunkCount(), 3u);
    EXPECT_TRUE(oslnk.Add(nullptr));
    EXPECT_EQ(Items(oslnk), Ints{0});
}

TEST_F(List, ItemsGoInFrontBehindAnotherOrToTheTail)
{
    COsLnk oslnk(sizeof(int), 32);
    const int aiItem[] = {0, 1, 2, 3, 4, 5};
    void* const pvOne = oslnk.AddAndLock(&aiItem[1], nullptr, true, false);
    oslnk.AddAndLock(&aiItem[2], pvOne, false, false);
    oslnk.AddAndLock(&aiItem[3], pvOne, false, false);
    oslnk.AddAndLock(&aiItem[4], nullptr, false, true);
    oslnk.AddAndLock(&aiItem[5], &aiItem[5], false, false);   // behind what is not in the list
    oslnk.Unlock();
    EXPECT_EQ(Items(oslnk), (Ints{4, 1, 3, 2, 5}));
    EXPECT_FALSE(m_logcapture.HasPart("unlocked list"));

    RemoveRange(oslnk, 5, 5);   // the tail moves back
    AddRange(oslnk, 6, 6);
    oslnk.AddAndLock(&aiItem[0], nullptr, true, true);   // in front takes no lock, and tells that nobody holds it
    EXPECT_TRUE(m_logcapture.HasAt(1, "AddAndLock: a_pvAfterItem or a_blNewHead set on an unlocked list!!!"));
    EXPECT_EQ(Items(oslnk), (Ints{0, 4, 1, 3, 2, 6}));

    RemoveRange(oslnk, 7, 7);   // what is not there changes nothing
    oslnk.Remove(nullptr, false, true);
    EXPECT_EQ(oslnk.Count(), 6);
}

TEST_F(List, AnAddWithoutMemoryFailsAndEveryBlockGoesBack)
{
    {
        COsLnk oslnk(sizeof(int), 1);
        AddRange(oslnk, 1, 1);
        m_osmem.SetMethod(OS_MEMTYPE_UNDEFINED);
        const int iItem = 2;
        EXPECT_FALSE(oslnk.Add(&iItem));
        EXPECT_TRUE(m_logcapture.HasAt(64, "OsMemAlloc failed..."));
        m_osmem.SetMethod(OS_MEMTYPE_MALLOC);
        AddRange(oslnk, 3, 9);
        EXPECT_EQ(Items(oslnk), (Ints{1, 3, 4, 5, 6, 7, 8, 9}));
    }
    EXPECT_EQ(m_osmem.GetCounts().u32Current, 0u);
}

TEST_F(List, ThreadsWaitForTheLockAlsoOnAnEmptyList)
{
    COsLnk oslnk(sizeof(int), 4);
    EXPECT_EQ(oslnk.GetFirstAndLock("", "", 0), nullptr);
    const auto work = [&oslnk](int a_iFirst) {
        for (int iItem = a_iFirst; iItem < a_iFirst + 200; iItem++)
        {
            oslnk.Add(&iItem);
            if (iItem % 2)
                oslnk.Remove(&iItem, false, true);
        }
    };
    std::thread athread[] = {std::thread(work, 0), std::thread(work, 1000), std::thread(work, 2000)};
    EXPECT_EQ(oslnk.Count(), 0);
    oslnk.Unlock();
    for (std::thread& thread : athread)
        thread.join();
    EXPECT_EQ(oslnk.Count(), 300);
    EXPECT_EQ(Items(oslnk).size(), 300u);
}

TEST_F(List, TheHolderOfTheLockIsOnRecord)
{
    COsLnk oslnk(sizeof(int), 4);
    AddRange(oslnk, 0, 0);
    oslnk.GetFirstAndLock("function", "file", 7);
    const OsLnkHolder oslnkholder = oslnk.Holder();
    EXPECT_STREQ(oslnkholder.szFunction, "function");
    EXPECT_STREQ(oslnkholder.szFile, "file");
    EXPECT_EQ(oslnkholder.u32Line, 7u);
    EXPECT_EQ(oslnkholder.u64ThreadId, PlatThreadId());
    oslnk.Unlock();
    EXPECT_STREQ(oslnk.Holder().szFunction, "");
}
