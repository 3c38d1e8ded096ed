// The ring buffer: the block byte by byte, records in order, who may attach, and blocks that somebody has spoilt.
#include "os_cosmem.h"
#include "os_cosringbuffer.h"
#include "plat_child.h"
#include "ring_support.h"
#include "test_support.h"

#include "plat_file.h"

#include <csetjmp>
#include <csignal>
#include <sys/mman.h>
#include <thread>
#include <unistd.h>

// Writes records until the test ends.
int PlayPart(const std::vector<std::string>& a_vecstrArguments)
{
    const COsMem osmem;
    RecordStream recordstream(3000);
    COsRingBuffer osringbuffer;
    if (osringbuffer.Create(a_vecstrArguments[0].c_str(), true, 20000) != EOSSTS_SUCCESS || !Say("ready"))
        return 1;
    const PlatHandle plathandleTest = PlatProcessOpen(std::stoull(a_vecstrArguments[1]));
    for (uint64_t u64Done = 0; PlatWaitAny(&plathandleTest, 1, 0) == PLAT_WAIT_TIMEOUT;)
    {
        int32_t i32Written = 0;
        if (osringbuffer.Write(recordstream.At(u64Done), 0, recordstream.NextLength(), &i32Written) != EOSSTS_SUCCESS)
            PlatSleep(0);
        u64Done += static_cast<uint64_t>(i32Written);
    }
    return 0;
}

class RingBuffer : public FolderTest
{
protected:
    void Make(uint32_t a_u32Size = 100)
    {
        m_reader.Release();
        m_writer.Release();
        ASSERT_EQ(m_writer.Create(m_strFile.c_str(), true, a_u32Size), EOSSTS_SUCCESS);
        ASSERT_EQ(m_reader.Connect(m_strFile.c_str(), false), EOSSTS_SUCCESS);
    }
    // How much was written.
    int32_t Write(const std::string& a_strText)
    {
        int32_t i32Written = 0;
        m_eossts = m_writer.Write(a_strText.data(), 0, static_cast<int32_t>(a_strText.size()), &i32Written);
        return i32Written;
    }
    // A piece of a record; empty when there is none.
    std::string Read(int32_t a_i32Length = 4096)
    {
        std::string strText(4096, '#');
        int32_t i32Read = 0;
        m_eossts = m_reader.Read(strText.data(), a_i32Length, &i32Read, &m_i32Remaining);
        return strText.substr(0, static_cast<size_t>(i32Read));
    }
    static std::string Bytes(int32_t a_i32Value)
    {
        return {reinterpret_cast<const char*>(&a_i32Value), sizeof a_i32Value};
    }
    static std::string Header(int32_t a_i32Free, int32_t a_i32Write, int32_t a_i32Read, char a_chWritten)
    {
        return "\1\1" + Bytes(208) + Bytes(a_i32Free) + Bytes(a_i32Write) + Bytes(a_i32Read) + a_chWritten;
    }
    std::string Block(size_t a_sizetOffset, size_t a_sizetBytes) const
    {
        return ReadWhole(m_strFile).substr(a_sizetOffset, a_sizetBytes);
    }

    std::string m_strFile = PathOf("block");
    LogCapture m_logcapture;
    COsMem m_osmem;
    COsRingBuffer m_writer;
    COsRingBuffer m_reader;
    EOSSTS m_eossts = EOSSTS_SUCCESS;
    int32_t m_i32Remaining = 0;
};

TEST_F(RingBuffer, BlockIsLaidOutToTheByte)
{
    Make();
    EXPECT_EQ(Block(0, 19), Header(120, 88, 88, 0));
    const char szUser[] = "0123456789abcdef";
    EXPECT_EQ(m_reader.UserAreaWrite(szUser), EOSSTS_SUCCESS);
    char szGot[sizeof szUser] = "";
    EXPECT_EQ(m_writer.UserAreaRead(szGot), EOSSTS_SUCCESS);
    EXPECT_STREQ(szGot, szUser);

    EXPECT_EQ(Write("abcdefghi"), 9);
    EXPECT_EQ(Block(0, 40), Header(120 - 32, 88 + 32, 88, 1) + std::string(5, '\0') + szUser);
    EXPECT_EQ(Block(88, 25), Bytes(9) + std::string(12, '\0') + "abcdefghi");
    EXPECT_EQ(Read(4), "abcd");
    EXPECT_EQ(m_i32Remaining, 5);
    EXPECT_EQ(Block(92, 4), Bytes(4));
    EXPECT_EQ(Block(6, 4), Bytes(120 - 32));   // room only when the record is finished
    EXPECT_EQ(Read(), "efghi");
    EXPECT_EQ(Block(0, 19), Header(120, 120, 120, 1));
    EXPECT_EQ(Block(88, 16), std::string(16, '\0'));
    for (const char* szText :
         {"created as a writer process", "connected as a reader process", "wrote 16 bytes to user area",
          "read 16 bytes from user data", "wrote 9 bytes to memory", "read 5 bytes from memory"})
        EXPECT_TRUE(m_logcapture.HasAt(4, szText)) << szText;
}

TEST_F(RingBuffer, TailsAreSkippedPayloadsWrapAndLongRecordsAreCut)
{
    Make();
    EXPECT_EQ(Write(std::string(96, 'a')), 96);   // leaves a tail of 8 bytes
    EXPECT_EQ(Write("x"), 0);
    EXPECT_EQ(m_eossts, EOSSTS_NOSPACE);
    EXPECT_TRUE(m_logcapture.HasAt(4, "not enough free space, need to retry...0 < (16 + 8)"));
    EXPECT_EQ(Block(0, 19), Header(8, 200, 88, 1));
    EXPECT_EQ(Read(), std::string(96, 'a'));
    EXPECT_EQ(Write(std::string(57, 'b')), 57);
    EXPECT_EQ(Block(0, 19), Header(120 - 8 - 80, 168, 200, 2));
    EXPECT_EQ(Read(), std::string(57, 'b'));
    EXPECT_EQ(Write(std::string(200, 'c')), 104);
    EXPECT_EQ(Block(0, 19), Header(0, 168, 168, 3));   // all the way round
    EXPECT_EQ(Read(), std::string(104, 'c'));
}

// The counter in the block has 8 bits; what it cannot count must not be lost.
TEST_F(RingBuffer, TwoHundredAndFiftySixUnreadRecordsAreThere)
{
    for (const uint32_t u32Size : {100000u, 256 * 24 - 16u})   // with room to spare, and full to the last byte
    {
        Make(u32Size);
        for (int iRecord = 0; iRecord < 256; ++iRecord)
            ASSERT_GT(Write(std::to_string(iRecord)), 0);
        for (int iRecord = 0; iRecord < 256; ++iRecord)
            ASSERT_EQ(Read(), std::to_string(iRecord));
        m_logcapture.Clear();
        EXPECT_EQ(Read(), "");
        EXPECT_EQ(m_eossts, EOSSTS_NOSPACE);
        EXPECT_TRUE(m_logcapture.Lines().empty());   // nothing new is not worth a lock
    }
}

TEST_F(RingBuffer, ABlockTakesOneWriterAndOneReader)
{
    const char* const szFile = m_strFile.c_str();
    EXPECT_EQ(m_writer.Create(szFile, true, 2147483647u - 88 - 16 + 1), EOSSTS_FAIL);
    EXPECT_TRUE(m_logcapture.HasAt(1, "requested size too large"));
    EXPECT_EQ(m_writer.Create(PathOf("no/file").c_str(), true, 100), EOSSTS_FAIL);
    EXPECT_TRUE(m_logcapture.HasAt(1, "unable to create the memory"));
    EXPECT_EQ(m_reader.Connect(szFile, false), EOSSTS_FAIL);
    EXPECT_TRUE(m_logcapture.HasAt(1, "unable to map view of file"));

    Make();
    EXPECT_EQ(m_writer.Connect(szFile, false), EOSSTS_FAIL);
    EXPECT_TRUE(m_logcapture.HasAt(1, "memory already created or connected to"));
    COsRingBuffer third;
    EXPECT_EQ(third.Connect(szFile, true), EOSSTS_FAIL);
    EXPECT_TRUE(m_logcapture.HasAt(1, "writer process is already in use"));
    EXPECT_EQ(third.Connect(szFile, false), EOSSTS_FAIL);
    EXPECT_TRUE(m_logcapture.HasAt(1, "reader process is already in use"));
    Write("");
    EXPECT_TRUE(m_logcapture.HasAt(1, "memory not created/connected OR not setup as writer"));
    Read(0);
    EXPECT_TRUE(m_logcapture.HasAt(1, "memory not created/connected OR not setup as reader"));

    const PlatHandle plathandle = PlatFileOpen(Wide(m_strFile).c_str(), PLAT_ACCESS_READ | PLAT_ACCESS_WRITE, 7,
                                               PLAT_DISPOSITION_OPENEXISTING, 0);
    ASSERT_TRUE(PlatFileLock(plathandle, 0, 1));
    EXPECT_EQ(Write("x"), 0);
    EXPECT_EQ(m_eossts, EOSSTS_BUSY);
    EXPECT_EQ(third.Connect(szFile, false), EOSSTS_BUSY);
    EXPECT_EQ(m_logcapture.Count("memory is currently locked, need to retry"), 2u);
    PlatClose(plathandle);
    EXPECT_EQ(Write("x"), 1);
}

TEST_F(RingBuffer, WhatContradictsItselfIsRefused)
{
    const std::pair<size_t, std::string> apairSpoilt[] = {
        {0, "\2"},        {2, Bytes(5000)},          {2, Bytes(-1)},
        {2, Bytes(88)},   {6, Bytes(128)},           {6, Bytes(-8)},
        {10, Bytes(80)},  {10, Bytes(208)},          {14, Bytes(INT32_MIN)},
        {14, Bytes(216)}, {88, Bytes(-1)},           {88, Bytes(1000000)},
        {88, Bytes(20)},  {88, Bytes(3) + Bytes(3)}, {92, Bytes(-1)},
    };
    for (const auto& [sizetOffset, strBytes] : apairSpoilt)
    {
        Make();
        EXPECT_EQ(Write("abc"), 3);
        Overwrite(m_strFile, sizetOffset, strBytes);
        EXPECT_EQ(Read(), "");
        EXPECT_EQ(m_eossts, EOSSTS_FAIL) << sizetOffset;
        COsRingBuffer third;
        EXPECT_EQ(third.Connect(m_strFile.c_str(), false), EOSSTS_FAIL);
    }
    EXPECT_TRUE(m_logcapture.HasAt(1, "version number not compatible"));
    EXPECT_TRUE(m_logcapture.HasAt(1, "memory is damaged"));
}

TEST_F(RingBuffer, ACutBlockIsRefusedAlsoWhileItIsInUse)
{
    for (const unsigned uSize : {0u, 10u, 87u, 4096u})   // of the last one, a page is there
    {
        Make(uSize == 4096 ? 8000 : 100);
        std::filesystem::resize_file(m_strFile, uSize);
        EXPECT_EQ(Write(std::string(8000, 'x')), 0);
        EXPECT_EQ(m_eossts, EOSSTS_FAIL) << uSize;
        EXPECT_EQ(Read(), "");
        EXPECT_EQ(m_eossts, EOSSTS_FAIL) << uSize;
        COsRingBuffer third;
        EXPECT_EQ(third.Connect(m_strFile.c_str(), false), EOSSTS_FAIL) << uSize;
    }
}

namespace
{
// A payload whose second half can be read only when the block's file has been cut: the file is cut in the middle of
// the operation that reads it. One at a time.
class CuttingPayload
{
public:
    explicit CuttingPayload(const std::string& a_strFile)
    {
        g_strFile = a_strFile;
        g_pvHalf = mmap(nullptr, 2 * OS_HALF, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        m_pvPayload = std::exchange(g_pvHalf, static_cast<char*>(g_pvHalf) + OS_HALF);
        mprotect(g_pvHalf, OS_HALF, PROT_NONE);
        struct sigaction action = {};
        action.sa_handler = Cut;
        sigaction(SIGSEGV, &action, &m_actionBefore);
    }
    ~CuttingPayload()
    {
        sigaction(SIGSEGV, &m_actionBefore, nullptr);
        munmap(m_pvPayload, 2 * OS_HALF);
    }
    CuttingPayload(const CuttingPayload&) = delete;
    CuttingPayload& operator=(const CuttingPayload&) = delete;

    static constexpr size_t OS_HALF = 1 << 20;

    void* m_pvPayload;

private:
    static void Cut(int)
    {
        static_cast<void>(truncate(g_strFile.c_str(), 4096));
        mprotect(g_pvHalf, OS_HALF, PROT_READ);
    }

    static inline std::string g_strFile;
    static inline void* g_pvHalf;
    struct sigaction m_actionBefore;
};

// What the process did with bus errors before the first ring was there.
sigjmp_buf g_sigjmpbuf;
volatile sig_atomic_t g_sigatomicForeign = 0;
[[maybe_unused]] const auto g_handlerBefore = signal(SIGBUS, [](int) {
    if (!g_sigatomicForeign)
        _exit(3);
    g_sigatomicForeign = 0;
    siglongjmp(g_sigjmpbuf, 1);
});
}   // namespace

// Later writes would go to pages that nobody else sees.
TEST_F(RingBuffer, WhatWasCutInAnOperationAndHasGrownIsRefused)
{
    Make(4 * CuttingPayload::OS_HALF);
    const auto uSize = std::filesystem::file_size(m_strFile);
    const CuttingPayload cuttingpayload(m_strFile);
    int32_t i32Written = 0;
    EXPECT_EQ(m_writer.Write(cuttingpayload.m_pvPayload, 0, 2 * CuttingPayload::OS_HALF, &i32Written), EOSSTS_FAIL);
    EXPECT_EQ(i32Written, 0);
    std::filesystem::resize_file(m_strFile, uSize);
    EXPECT_EQ(Write("into a page of our own"), 0);
    EXPECT_EQ(m_eossts, EOSSTS_FAIL);
    Make();
    EXPECT_EQ(Write("new"), 3);
    EXPECT_EQ(Read(), "new");
}

// Its handler sees the error, and rings are as safe as before.
TEST_F(RingBuffer, AForeignBusErrorLeavesTheGuardInPlace)
{
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "the jump out of the signal handler leaves what that sanitizer reports";
#endif
    Make(4 * CuttingPayload::OS_HALF);
    for (int iTurn = 0; iTurn < 2; ++iTurn)
    {
        WriteWhole(PathOf("foreign"), std::string(4096, 'x'));
        const PlatHandle plathandle =
            PlatFileOpen(Wide(PathOf("foreign")).c_str(), PLAT_ACCESS_READ, 7, PLAT_DISPOSITION_OPENEXISTING, 0);
        size_t sizetView = 0;
        const void* const pvView = PlatMappingView(plathandle, 0, false, &sizetView);
        ASSERT_NE(pvView, nullptr);
        std::filesystem::resize_file(PathOf("foreign"), 0);
        g_sigatomicForeign = 1;
        if (sigsetjmp(g_sigjmpbuf, 1) == 0)
            ADD_FAILURE() << *static_cast<const volatile char*>(pvView);
        PlatClose(plathandle);
    }
    const CuttingPayload cuttingpayload(m_strFile);
    int32_t i32Written = 0;
    EXPECT_EQ(m_writer.Write(cuttingpayload.m_pvPayload, 0, 2 * CuttingPayload::OS_HALF, &i32Written), EOSSTS_FAIL);
}

// The writer is killed in the middle of its work, again and again: what it has written is whole and in order, and its
// lock is gone with it.
TEST_F(RingBuffer, AKilledWriterLeavesWholeRecordsAndNoLock)
{
    for (uint64_t u64Kill = 100000; u64Kill <= 2000000; u64Kill += 100000)
    {
        Part part(m_strFile + " " + std::to_string(PlatProcessId()));
        ASSERT_EQ(part.OutputUpTo("ready"), "ready");
        ASSERT_TRUE(WaitFor([&] { return m_reader.Connect(m_strFile.c_str(), false) == EOSSTS_SUCCESS; }));
        RecordStream recordstream(3000);
        uint64_t u64Done = 0;
        bool blKilled = false;
        EXPECT_TRUE(WaitFor([&] {
            std::string strRecord;
            const auto next = [&] {
                do
                    strRecord = Read();
                while (m_eossts == EOSSTS_BUSY);
                return !strRecord.empty();
            };
            while (next() && recordstream.Is(strRecord.data(), strRecord.size(), u64Done))
            {
                u64Done += strRecord.size();
                if (u64Done < u64Kill || blKilled)
                    continue;
                part.Kill();
                blKilled = true;
            }
            return blKilled && m_eossts == EOSSTS_NOSPACE;
        })) << u64Done;
        m_reader.Release();
    }
}
