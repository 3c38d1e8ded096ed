// The tracker: what a block is, what is counted and recorded, what is told when something is wrong.
#include "os_cfg.h"
#include "os_cosmem.h"

#include "test_support.h"

#include <cstdio>
#include <cstring>
#include <sstream>
#include <stdexcept>
#include <thread>

// The log folder of the crash report.
class CfgFake final : public COsCfgSource
{
public:
    explicit CfgFake(std::string a_strFolder) : m_strFolder(std::move(a_strFolder)) { g_poscfgsource.store(this); }
    ~CfgFake() { g_poscfgsource.store(nullptr); }
    const char* GetString(EOSCFGSECTION, EOSCFGTAG a_eoscfgtag) override
    {
        return a_eoscfgtag == OS_CFGTAG_LOGDIRECTORY ? m_strFolder.c_str() : "";
    }
    EOSSTS GetInfo(EOSCFGINFO, int64_t*) override { return EOSSTS_FAIL; }
    void ManageLogDirectories(const char*) override {}

private:
    std::string m_strFolder;
};

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
    // How often a line was logged at the caller's place.
    size_t AtCaller(uint32_t a_u32Level, const std::string& a_strText) const
    {
        const auto vecline = m_logcapture.Lines();
        return static_cast<size_t>(std::count_if(vecline.begin(), vecline.end(), [&](const auto& line) {
            return line.strSource == "caller" && line.u32Level == a_u32Level && line.strText == a_strText;
        }));
    }

    LogCapture m_logcapture;
    CfgFake m_cfgfake{PathOf("logs\\")};
    COsMem m_osmem;
};

TEST_F(Tracker, BlocksOfEveryMethodAreZeroedAndLongerThanAsked)
{
    const struct
    {
        EOSMEMTYPE eosmemtype;
        uint32_t u32Flags;
    } acase[] = {{OS_MEMTYPE_GLOBALALLOC, OS_MEMFLAG_BLOCK},
                 {OS_MEMTYPE_GLOBALALLOC, OS_MEMFLAG_MOVEABLE},
                 {OS_MEMTYPE_MALLOC, OS_MEMFLAG_BLOCK},
                 {OS_MEMTYPE_MALLOC, OS_MEMFLAG_PAGES}};
    for (const auto& testcase : acase)
        for (const size_t sizetBytes : {0u, 1u, 100000u})
        {
            m_osmem.SetMethod(testcase.eosmemtype);
            void* const pvBlock = Alloc(sizetBytes, testcase.u32Flags);
            ASSERT_NE(pvBlock, nullptr);
            EXPECT_TRUE(IsZero(pvBlock, sizetBytes + 64));
            EXPECT_GE(m_osmem.GetCounts().u64CurrentBytes, sizetBytes + 64);
            std::memset(pvBlock, 0xAA, sizetBytes + 64);
            Free(pvBlock, testcase.u32Flags);
            EXPECT_EQ(m_osmem.GetCounts().u64CurrentBytes, 0u);
        }
    EXPECT_EQ(m_logcapture.Count("mem>>> a_sizetBytes is 0..."), 4u);
    EXPECT_EQ(AtCaller(64, "mem>>> Error occurred here (we're going to keep going)..."), 4u);
    EXPECT_EQ(m_osmem.GetCounts().u32Allocations, 12u);
    EXPECT_EQ(m_osmem.GetCounts().u32Frees, 12u);
}

TEST_F(Tracker, EveryAllocationAndFreeIsTracedWithItsCounts)
{
    m_osmem.SetMethod(OS_MEMTYPE_MALLOC);
    m_logcapture.m_u32WorkingWord = 1;
    void* const pvFirst = Alloc(100);
    void* const pvSecond = Alloc(200);
    Free(pvFirst, 0x1100);
    EXPECT_EQ(AtCaller(256, "mem>>> m+   AD:" + Hex(pvSecond) +
                                "   SZ:264        AC:2       FC:0       CC:2       CB:428        PB:428        FN:"),
              1u);
    EXPECT_EQ(AtCaller(256, "mem>>> m-   AD:" + Hex(pvFirst) +
                                "   SZ:164        AC:2       FC:1       CC:1       CB:264        PB:428        FN:"),
              1u);
    m_logcapture.m_u32WorkingWord = 0;
    m_logcapture.Clear();
    Free(pvSecond);
    EXPECT_TRUE(m_logcapture.Lines().empty());
}

TEST_F(Tracker, WrongFreesAreToldAndDoNothing)
{
    void* const pvBlock = Alloc(10);
    Free(pvBlock);
    const char* const szUnknown = "never allocated";
    for (const void* pvWrong : {static_cast<const void*>(pvBlock), static_cast<const void*>(szUnknown)})
    {
        m_logcapture.Clear();
        Free(const_cast<void*>(pvWrong));
        EXPECT_TRUE(m_logcapture.HasAt(64, "mem>>> Can't find managed item..." + Hex(pvWrong)));
        EXPECT_EQ(AtCaller(1, "mem>>> The error occurred here..."), 1u);
    }
    m_logcapture.Clear();
    Free(nullptr);
    EXPECT_TRUE(m_logcapture.HasAt(64, "mem>>> Attempt to free a NULL value..."));
    EXPECT_EQ(AtCaller(1, "mem>>> The error occurred here..."), 1u);
    EXPECT_EQ(m_osmem.GetCounts().u32Frees, 1u);
}

TEST_F(Tracker, AFullTableLeavesFurtherBlocksUntracked)
{
    std::vector<void*> vecpvBlock;
    for (int i = 0; i < 2048; i++)
        vecpvBlock.push_back(Alloc(1));
    EXPECT_FALSE(m_logcapture.Has("mem>>> No free slots..."));
    void* const pvUntracked = Alloc(1);
    ASSERT_NE(pvUntracked, nullptr);
    EXPECT_TRUE(IsZero(pvUntracked, 65));
    EXPECT_TRUE(m_logcapture.HasAt(64, "mem>>> No free slots..."));
    EXPECT_EQ(m_osmem.GetCounts().u32Current, 2048u);
    Free(pvUntracked);
    EXPECT_TRUE(m_logcapture.HasAt(64, "mem>>> Can't find managed item..." + Hex(pvUntracked)));

    Free(vecpvBlock[1000]);   // its slot is the first free one now
    vecpvBlock[1000] = Alloc(1);
    m_logcapture.Clear();
    OsMemDump(vecpvBlock[1000]);
    EXPECT_TRUE(m_logcapture.HasPart("mem>>> 1000  globalalloc " + Hex(vecpvBlock[1000])));
    for (void* pvBlock : vecpvBlock)
        Free(pvBlock);
    EXPECT_EQ(m_osmem.GetCounts().u32Current, 0u);
    std::free(pvUntracked);
}

TEST_F(Tracker, TheDumpShowsOneBlockOrAll)
{
    void* const pvFirst = Alloc(36);
    void* const pvSecond = Alloc(5000, OS_MEMFLAG_PAGES);
    m_logcapture.Clear();
    OsMemDump(pvFirst);
    const std::string strFirst = "mem>>> 0000  globalalloc " + Hex(pvFirst) + "(" + Hex(pvFirst) +
                                 ") s:100 o:0 v:0 f:" + Hex(nullptr) + " m:" + Hex(nullptr) + " <>";
    EXPECT_EQ(m_logcapture.Lines().size(), 3u);
    EXPECT_TRUE(m_logcapture.HasAt(4, "mem>>> OsMemDump begin..."));
    EXPECT_TRUE(m_logcapture.HasAt(4, strFirst));
    EXPECT_TRUE(m_logcapture.HasAt(4, "mem>>> OsMemDump end..."));

    Free(pvFirst);
    m_logcapture.Clear();
    OsMemDump(nullptr);
    EXPECT_EQ(m_logcapture.Lines().size(), 3u);
    EXPECT_TRUE(m_logcapture.HasPart("mem>>> 0001      virtual " + Hex(pvSecond)));
    Free(pvSecond);
}

// Tells whether the whole line is what the format, which assigns nothing, describes.
static bool Scans(const std::string& a_strLine, const std::string& a_strFormat)
{
    int iEnd = 0;
    std::sscanf(a_strLine.c_str(), a_strFormat.c_str(), &iEnd);
    return static_cast<size_t>(iEnd) == a_strLine.size();
}

TEST_F(Tracker, AFailedAllocationLogsTheTableAndLeavesACrashReport)
{
    std::filesystem::create_directory(PathOf("logs"));
    void* const pvLive = Alloc(36);
    for (const size_t sizetBytes : {SIZE_MAX / 2, SIZE_MAX})
    {
        m_logcapture.Clear();
        EXPECT_EQ(Alloc(sizetBytes, OS_MEMFLAG_PAGES), nullptr);
        EXPECT_EQ(AtCaller(64, "mem>>> Error occurred here..."), 1u);
        EXPECT_TRUE(m_logcapture.HasPart("globalalloc " + Hex(pvLive)));
        EXPECT_TRUE(m_logcapture.HasAt(4, "mem>>> DumpSystem running..."));
        EXPECT_TRUE(m_logcapture.HasAt(4, "mem>>> DumpSystem complete..."));
    }
    EXPECT_EQ(m_osmem.GetCounts().u32Current, 1u);
    Free(pvLive);

    const std::filesystem::path pathReport = *std::filesystem::directory_iterator(PathOf("logs"));
    EXPECT_TRUE(Scans(pathReport.filename().string(), "MvrMemCrash_%*9[0-9].txt%n"));
    std::istringstream stream(ReadWhole(pathReport));
    const auto next = [&stream] {
        std::string strLine;
        std::getline(stream, strLine);
        EXPECT_TRUE(strLine.ends_with('\r'));
        return strLine.substr(0, strLine.size() - 1);
    };
    for (const char* szFormat :
         {"MVR Memory Dump (%*4d/%*2d/%*2d %*2d:%*2d:%*2d.%*3d)%n", "", "Application:          /%*[^ ]%n",
          "Module:               /%*[^ ]%n", "", "Memory Load:          %*d%% in use%n"})
        EXPECT_TRUE(Scans(next(), szFormat)) << szFormat;
    for (const std::string strWhat :
         {"Total Physical:   ", "Total Virtual:    ", "Total Pagefile:   ", "Avail Physical:   ", "Avail Virtual:    ",
          "Avail Pagefile:   ", "Avail Extended:   ", "", "Bytes:            "})
        EXPECT_TRUE(Scans(next(), strWhat.empty() ? "" : strWhat + "%*f MB%n")) << strWhat;
    for (const char* szFormat :
         {"Pages:            %*12d%n", "Free Chunks:      %*12d%n", "Used Chunks:      %*12d%n", ""})
        EXPECT_TRUE(Scans(next(), szFormat)) << szFormat;
    for (const std::string strKind : {"Free", "Used"})
    {
        EXPECT_EQ(next(), "Top 16 Largest Contiguous " + strKind + " Chunks in User-Space:");
        double dLast = 1e12;
        int iChunks = 0;
        for (std::string strLine = next(); !strLine.empty(); strLine = next(), iChunks++)
        {
            double dMb = -1;
            EXPECT_EQ(std::sscanf(strLine.c_str(), "%*16[0-9A-F]:%*16[0-9A-F] %lf MB", &dMb), 1) << strLine;
            EXPECT_LE(dMb, dLast);
            dLast = dMb;
        }
        EXPECT_LE(iChunks, 16);
        EXPECT_GE(iChunks, strKind == "Used" ? 16 : 1);
    }
    EXPECT_EQ(next(), "DLLs");
    EXPECT_EQ(next(), "Address    Size     Filename");
    EXPECT_EQ(next(), std::string(28, '~'));
    EXPECT_TRUE(Scans(next(), "%*16[0-9A-F] %*d /%*[^ ]%n"));
}

TEST_F(Tracker, ACrashReportThatCannotBeWrittenIsTold)
{
    m_osmem.SetMethod(OS_MEMTYPE_VIRTUAL);   // not for ordinary blocks
    EXPECT_EQ(Alloc(1), nullptr);
    EXPECT_TRUE(m_logcapture.HasAt(64, "mem>>> unrecognized method...3"));
    EXPECT_TRUE(m_logcapture.HasPart("mem>>> error creating...<" + PathOf("logs\\") + "MvrMemCrash_"));
}

static void* ExternalAlloc(size_t a_sizetBytes)
{
    return a_sizetBytes < 10000 ? std::memset(std::malloc(a_sizetBytes), 0xEE, a_sizetBytes) : nullptr;
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
    EXPECT_EQ(AtCaller(0x8100, "mem>>> d-*  AD:" + Hex(pvBlock) +
                                   "   SZ:100        AC:1       FC:1       CC:0       CB:0          PB:100        FN:"),
              1u);
    Free(pvBlock, 0x8100);
    EXPECT_EQ(AtCaller(256, "mem>>> d-** AD:" + Hex(pvBlock) +
                                "   SZ:0          AC:1       FC:1       CC:0       CB:0          PB:100        FN:"),
              1u);
    EXPECT_TRUE(m_logcapture.HasAt(64, "mem>>> Exception thrown during free..."));
    EXPECT_EQ(AtCaller(1, "mem>>> The error occurred here..."), 1u);

    EXPECT_EQ(Alloc(20000, 0x8100), nullptr);
    EXPECT_TRUE(m_logcapture.HasAt(64, ">>> memory manager failed to allocate..."));
}

TEST_F(Tracker, WithoutAnExternalAllocatorItsFlagStillFreesTheBlock)
{
    void* const pvOurs = Alloc(1, 0x8100);
    void* const pvTheirs = std::calloc(1, 1);
    for (void* pvBlock : {pvOurs, pvTheirs})
    {
        Free(pvBlock, 0x8100);
        EXPECT_TRUE(m_logcapture.HasAt(4, "mem>>> freeing value given to us by another DLL..." + Hex(pvBlock)));
    }
    EXPECT_EQ(m_osmem.GetCounts().u32Current, 0u);
    EXPECT_FALSE(m_logcapture.HasPart("Can't find"));
}

TEST_F(Tracker, ThreadsShareTheTable)
{
    std::vector<std::thread> vecthread;
    for (int i = 0; i < 4; i++)
        vecthread.emplace_back([] {
            std::vector<void*> vecpvBlock;
            for (size_t sizetRound = 0; sizetRound < 50; sizetRound++)
            {
                for (size_t sizetBytes = 1; sizetBytes < 20; sizetBytes++)
                    vecpvBlock.push_back(Alloc(sizetBytes));
                OsMemDump(vecpvBlock[0]);
                for (void* pvBlock : vecpvBlock)
                    Free(pvBlock);
                vecpvBlock.clear();
            }
        });
    for (std::thread& thread : vecthread)
        thread.join();
    const COsMem::Counts counts = m_osmem.GetCounts();
    EXPECT_EQ(counts.u32Current, 0u);
    EXPECT_EQ(counts.u64CurrentBytes, 0u);
    EXPECT_EQ(counts.u32Frees, 4u * 50 * 19);
    EXPECT_FALSE(m_logcapture.HasPart("Can't find"));
}

TEST(TrackerAlone, WithoutAManagerTheOperationsFail)
{
    LogCapture logcapture;
    EXPECT_FALSE(OsMemExists());
    EXPECT_EQ(OsMemAlloc(1, "caller", 1, OS_MEMFLAG_BLOCK), nullptr);
    EXPECT_TRUE(logcapture.HasAt(1, "mem>>> m_posmemimpl is null..."));
    EXPECT_TRUE(logcapture.HasAt(64, "mem>>> Error occurred here..."));
    OsMemFree(&logcapture, "caller", 1, OS_MEMFLAG_BLOCK);
    EXPECT_TRUE(logcapture.HasAt(64, "mem>>> m_posmemimpl is null..."));
    {
        const COsMem osmem;
        EXPECT_TRUE(OsMemExists());
    }
    EXPECT_FALSE(OsMemExists());
}
