// The tracker: what a block is, what is counted and recorded, what is told when something is wrong.
#include "os_cosmem.h"

#include "test_support.h"

#include <cstring>
#include <stdexcept>
#include <sys/mman.h>

class Tracker : public FolderTest
{
protected:
    static void* Alloc(size_t a_sizetBytes, uint32_t a_u32Flags = OS_MEMFLAG_BLOCK)
    {
        return OsMemAlloc(a_sizetBytes, "caller", 7, a_u32Flags);
    }
    static void Free(void* a_pvBlock, uint32_t a_u32Flags = OS_MEMFLAG_BLOCK)
    {
        OsMemFree(a_pvBlock, "caller", 8, a_u32Flags);
    }
    static bool IsZero(const void* a_pvBlock, size_t a_sizetBytes)
    {
        const char* const pcBlock = static_cast<const char*>(a_pvBlock);
        return std::all_of(pcBlock, pcBlock + a_sizetBytes, [](char cByte) { return cByte == 0; });
    }
    static std::string Hex(const void* a_pvAddress)
    {
        char szText[32];
        SStrPrintf(szText, sizeof szText, "%p", a_pvAddress);
        return szText;
    }
    static bool IsUnmapped(void* a_pvBlock)
    {
        unsigned char uchResident;
        return mincore(a_pvBlock, 1, &uchResident) != 0;
    }
    // How often a line was logged at the caller's place.
    size_t AtCaller(uint32_t a_u32Level, const std::string& a_strText) const
    {
        size_t sizetLines = 0;
        for (const LogCapture::Line& line : m_logcapture.Lines())
            sizetLines += line.strSource == "caller" && line.u32Level == a_u32Level && line.strText == a_strText;
        return sizetLines;
    }
    // Tells whether a trace line begins with the sign and ends with the counts of the block.
    bool Traced(uint32_t a_u32Level, const char* a_szSign, const void* a_pvBlock, const char* a_szCounts) const
    {
        return AtCaller(a_u32Level, std::string("mem>>> ") + a_szSign + " AD:" + Hex(a_pvBlock) + a_szCounts) == 1;
    }

    LogCapture m_logcapture;
    FakeConfiguration m_cfgfake;
    COsMem m_osmem;
};

TEST_F(Tracker, BlocksOfEveryMethodAreZeroedAndLongerThanAsked)
{
    for (const auto& [eosmemtype, u32Flags] :
         {std::pair{OS_MEMTYPE_GLOBALALLOC, OS_MEMFLAG_BLOCK}, std::pair{OS_MEMTYPE_MALLOC, OS_MEMFLAG_BLOCK},
          std::pair{OS_MEMTYPE_MALLOC, OS_MEMFLAG_PAGES}})
    {
        for (const size_t sizetBytes : {0u, 1u, 100000u})
        {
            m_osmem.SetMethod(eosmemtype);
            void* const pvBlock = Alloc(sizetBytes, u32Flags);
            EXPECT_TRUE(IsZero(pvBlock, sizetBytes + 64));
            EXPECT_GE(m_osmem.GetCounts().u64CurrentBytes, sizetBytes + 64);
            std::memset(pvBlock, 0xAA, sizetBytes + 64);
            Free(pvBlock, u32Flags);
            EXPECT_EQ(m_osmem.GetCounts().u64CurrentBytes, 0u);
        }
    }
    EXPECT_EQ(m_logcapture.Count("mem>>> a_sizetBytes is 0..."), 3u);
    EXPECT_EQ(AtCaller(64, "mem>>> Error occurred here (we're going to keep going)..."), 3u);
    EXPECT_EQ(m_osmem.GetCounts().u32Frees, 9u);
    for (void* pvBlock :
         {Alloc(1, 0x8100), std::calloc(1, 1)})   // as of another module, which has said nothing of its own
    {
        Free(pvBlock, 0x8100);
        EXPECT_TRUE(m_logcapture.HasAt(4, "mem>>> freeing value given to us by another DLL..." + Hex(pvBlock)));
    }
    EXPECT_EQ(m_osmem.GetCounts().u32Current, 0u);
}

TEST_F(Tracker, EveryAllocationAndFreeIsTracedWithItsCounts)
{
    m_osmem.SetMethod(OS_MEMTYPE_MALLOC);
    m_logcapture.m_u32WorkingWord = 1;
    void* const pvFirst = Alloc(100);
    void* const pvSecond = Alloc(200);
    Free(pvFirst, 0x1100);
    Free(Alloc(8));   // the peak stays
    EXPECT_EQ(m_osmem.GetCounts().u64PeakBytes, 428u);
    EXPECT_TRUE(Traced(256, "m+  ", pvSecond,
                       "   SZ:264        AC:2       FC:0       CC:2       CB:428        PB:428        FN:"));
    EXPECT_TRUE(Traced(256, "m-  ", pvFirst,
                       "   SZ:164        AC:2       FC:1       CC:1       CB:264        PB:428        FN:"));
    m_logcapture.m_u32WorkingWord = 0;
    m_logcapture.Clear();
    Free(pvSecond);
    EXPECT_TRUE(m_logcapture.Lines().empty());
}

TEST_F(Tracker, BlocksBeyondAFullTableAreFreedAllTheSame)
{
    std::vector<void*> vecpvBlock(2048);
    std::generate(vecpvBlock.begin(), vecpvBlock.end(), [] { return Alloc(1); });
    EXPECT_FALSE(m_logcapture.Has("mem>>> No free slots..."));
    static constexpr size_t g_sizetBlock = size_t{1} << 20;
    std::vector<void*> vecpvBeyond(1000);
    std::generate(vecpvBeyond.begin(), vecpvBeyond.end(), [] { return Alloc(g_sizetBlock, OS_MEMFLAG_PAGES); });
    EXPECT_TRUE(IsZero(vecpvBeyond.back(), g_sizetBlock + 64));
    EXPECT_EQ(m_logcapture.Count("mem>>> No free slots..."), 1000u);
    EXPECT_EQ(m_osmem.GetCounts().u32Current, 2048u);

    for (void* pvBlock : vecpvBeyond)
    {
        Free(pvBlock);
        EXPECT_TRUE(IsUnmapped(pvBlock));
    }
    EXPECT_TRUE(m_logcapture.HasAt(64, "mem>>> Can't find managed item..." + Hex(vecpvBeyond[0])));
    Free(vecpvBeyond[0]);   // twice
    Free(nullptr);
    EXPECT_TRUE(m_logcapture.HasAt(64, "mem>>> Attempt to free a NULL value..."));
    EXPECT_EQ(AtCaller(1, "mem>>> The error occurred here..."), 1002u);
    EXPECT_EQ(m_osmem.GetCounts().u32Frees, 0u);

    Free(vecpvBlock[1000]);   // its slot is the first free one now
    vecpvBlock[1000] = Alloc(1);
    m_logcapture.Clear();
    OsMemDump(vecpvBlock[1000]);
    EXPECT_TRUE(m_logcapture.HasPart("mem>>> 1000  globalalloc " + Hex(vecpvBlock[1000])));
    std::for_each(vecpvBlock.begin(), vecpvBlock.end(), [](void* pvBlock) { Free(pvBlock); });
}

TEST_F(Tracker, AFailedAllocationLogsTheTableAndLeavesACrashReport)
{
    m_cfgfake.Set(OS_CFGTAG_LOGDIRECTORY, PathOf("logs"));
    std::filesystem::create_directory(PathOf("logs"));
    void* const pvLive = Alloc(36);
    for (const size_t sizetBytes : {SIZE_MAX / 2, SIZE_MAX})
    {
        m_logcapture.Clear();
        EXPECT_EQ(Alloc(sizetBytes, OS_MEMFLAG_PAGES), nullptr);
        EXPECT_EQ(AtCaller(64, "mem>>> Error occurred here..."), 1u);
        EXPECT_TRUE(m_logcapture.HasPart("globalalloc " + Hex(pvLive)));
        EXPECT_TRUE(m_logcapture.HasAt(4, "mem>>> DumpSystem complete..."));
    }
    EXPECT_EQ(m_osmem.GetCounts().u32Current, 1u);
    Free(pvLive);

    m_cfgfake.Set(OS_CFGTAG_LOGDIRECTORY, PathOf("missing\\"));
    EXPECT_EQ(Alloc(SIZE_MAX), nullptr);
    EXPECT_TRUE(m_logcapture.HasPart("mem>>> error creating...<" + PathOf("missing\\") + "MvrMemCrash_"));

    const std::filesystem::path pathReport = *std::filesystem::directory_iterator(PathOf("logs"));
    EXPECT_TRUE(pathReport.filename().string().starts_with("MvrMemCrash_"));
    const std::string strReport = ReadWhole(pathReport);
    const std::string strProgram = TEST_PROGRAMFOLDER "/os_cosmem_test\r\n";
    for (const char* szTitle : {"\r\n\r\nApplication: ", "\r\nMemory Load: ", "\r\nUsed Chunks: ",
                                "Top 16 Largest Contiguous Free Chunks in User-Space:\r\n",
                                "\r\n\r\nTop 16 Largest Contiguous Used Chunks in User-Space:\r\n",
                                "\r\n\r\nDLLs\r\nAddress    Size     Filename\r\n~~~~"})
        EXPECT_NE(strReport.find(szTitle), std::string::npos) << szTitle;
    EXPECT_NE(strReport.find(strProgram, strReport.find("DLLs")), std::string::npos);
}

static void* ExternalAlloc(size_t a_sizetBytes)
{
    return std::memset(std::malloc(a_sizetBytes), 0xEE, a_sizetBytes);
}

static void ExternalFree(void* a_pvBlock)
{
    std::free(a_pvBlock);
    throw std::runtime_error("fault");
}

TEST_F(Tracker, BlocksOfTheExternalAllocatorPassThrough)
{
    m_osmem.SetExternal(ExternalAlloc, ExternalFree);
    m_logcapture.m_u32WorkingWord = 1;
    void* const pvBlock = Alloc(36, 0x8100);
    ASSERT_NE(pvBlock, nullptr);
    EXPECT_TRUE(IsZero(pvBlock, 100));
    EXPECT_TRUE(Traced(0x8100, "d-* ", pvBlock,
                       "   SZ:100        AC:1       FC:1       CC:0       CB:0          PB:100        FN:"));
    Free(pvBlock, 0x8100);
    EXPECT_TRUE(Traced(256, "d-**", pvBlock,
                       "   SZ:0          AC:1       FC:1       CC:0       CB:0          PB:100        FN:"));
    EXPECT_TRUE(m_logcapture.HasAt(64, "mem>>> Exception thrown during free..."));
    EXPECT_EQ(AtCaller(1, "mem>>> The error occurred here..."), 1u);
}
