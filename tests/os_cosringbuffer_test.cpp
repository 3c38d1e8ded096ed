// The ring buffer: the block byte by byte, records in order, who may attach, and blocks that somebody has spoilt.
#include "os_cosmem.h"
#include "os_cosringbuffer.h"
#include "plat_child.h"
#include "ring_support.h"

#include "plat_file.h"

#include <random>

// Writes records without an end.
int PlayPart(const std::vector<std::string>& a_vecstrArguments)
{
    const COsMem osmem;
    RecordStream recordstream(3000);
    COsRingBuffer osringbuffer;
    if (osringbuffer.Create(a_vecstrArguments[0].c_str(), true, 20000) != EOSSTS_SUCCESS || !Say("ready"))
        return 1;
    for (uint64_t u64Done = 0;;)
    {
        int32_t i32Written = 0;
        if (osringbuffer.Write(recordstream.At(u64Done), 0, recordstream.NextLength(), &i32Written) != EOSSTS_SUCCESS)
            PlatSleep(0);
        u64Done += static_cast<uint64_t>(i32Written);
    }
}

class RingBuffer : public FolderTest
{
protected:
    static EOSSTS Write(COsRingBuffer& a_osringbuffer, const std::string& a_strText, int32_t* a_pi32Written = nullptr)
    {
        int32_t i32Written = 0;
        return a_osringbuffer.Write(a_strText.data(), 0, static_cast<int32_t>(a_strText.size()),
                                    a_pi32Written ? a_pi32Written : &i32Written);
    }
    // A piece of a record; empty when there is none.
    std::string Read(int32_t a_i32Length = 4096)
    {
        std::string strText(static_cast<size_t>(a_i32Length), '#');
        int32_t i32Read = 0;
        m_eossts = m_reader.Read(strText.data(), a_i32Length, &i32Read, &m_i32Remaining);
        return strText.substr(0, static_cast<size_t>(i32Read));
    }
    int32_t Number(size_t a_sizetOffset) const
    {
        int32_t i32Value = 0;
        std::memcpy(&i32Value, ReadWhole(m_strFile).data() + a_sizetOffset, sizeof i32Value);
        return i32Value;
    }
    void Spoil(size_t a_sizetOffset, const std::string& a_strBytes) const
    {
        std::fstream(m_strFile, std::ios::binary | std::ios::in | std::ios::out)
                .seekp(static_cast<std::streamoff>(a_sizetOffset))
            << a_strBytes;
    }
    static std::string Bytes(int32_t a_i32Value)
    {
        return {reinterpret_cast<const char*>(&a_i32Value), sizeof a_i32Value};
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
    ASSERT_EQ(m_writer.Create(m_strFile.c_str(), true, 100), EOSSTS_SUCCESS);
    EXPECT_TRUE(m_logcapture.HasAt(4, "created as a writer process"));
    const std::string strCreated = ReadWhole(m_strFile);
    EXPECT_EQ(strCreated.substr(0, 24), "\1\1" + Bytes(208) + Bytes(120) + Bytes(88) + Bytes(0) + std::string(6, '\0'));
    EXPECT_EQ(m_reader.Connect(m_strFile.c_str(), false), EOSSTS_SUCCESS);
    EXPECT_TRUE(m_logcapture.HasAt(4, "connected as a reader process"));

    const char achUser[] = "0123456789abcdef";
    EXPECT_EQ(m_reader.UserAreaWrite(achUser), EOSSTS_SUCCESS);
    char achGot[17] = "";
    EXPECT_EQ(m_writer.UserAreaRead(achGot), EOSSTS_SUCCESS);
    EXPECT_STREQ(achGot, achUser);
    EXPECT_EQ(Write(m_writer, "abcdefghi"), EOSSTS_SUCCESS);
    const std::string strBlock = ReadWhole(m_strFile);
    EXPECT_EQ(strBlock.substr(0, 40), "\1\1" + Bytes(208) + Bytes(120 - 32) + Bytes(88 + 32) + Bytes(88) + "\1" +
                                          std::string(5, '\0') + achUser);
    EXPECT_EQ(strBlock.substr(88, 25), Bytes(9) + std::string(12, '\0') + "abcdefghi");
    EXPECT_EQ(Read(4), "abcd");
    EXPECT_EQ(m_i32Remaining, 5);
    EXPECT_EQ(Number(92), 4);
    EXPECT_EQ(Number(6), 120 - 32);   // room only when the record is finished
    EXPECT_EQ(Read(), "efghi");
    EXPECT_EQ(Number(6), 120);
    EXPECT_EQ(Number(14), 120);
    EXPECT_EQ(ReadWhole(m_strFile).substr(88, 16), std::string(16, '\0'));
    for (const char* szText : {"wrote 16 bytes to user area", "read 16 bytes from user data", "wrote 9 bytes to memory",
                               "read 5 bytes from memory"})
        EXPECT_TRUE(m_logcapture.HasAt(4, szText)) << szText;
}

TEST_F(RingBuffer, TailsAreSkippedPayloadsWrapAndLongRecordsAreCut)
{
    ASSERT_EQ(m_writer.Create(m_strFile.c_str(), true, 100), EOSSTS_SUCCESS);
    ASSERT_EQ(m_reader.Connect(m_strFile.c_str(), false), EOSSTS_SUCCESS);
    EXPECT_EQ(Write(m_writer, std::string(96, 'a')), EOSSTS_SUCCESS);   // leaves a tail of 8 bytes
    EXPECT_EQ(Number(10), 200);
    EXPECT_EQ(Write(m_writer, "x"), EOSSTS_NOSPACE);
    EXPECT_TRUE(m_logcapture.HasAt(4, "not enough free space, need to retry...0 < (16 + 8)"));
    EXPECT_EQ(Number(6), 8);
    EXPECT_EQ(Read(), std::string(96, 'a'));
    EXPECT_EQ(Read(), "");
    EXPECT_EQ(m_eossts, EOSSTS_NOSPACE);
    EXPECT_EQ(Write(m_writer, std::string(57, 'b')), EOSSTS_SUCCESS);
    EXPECT_EQ(Number(88), 57);
    EXPECT_EQ(Number(6), 120 - 8 - 80);
    EXPECT_EQ(Read(), std::string(57, 'b'));
    EXPECT_EQ(Number(6), 120);
    int32_t i32Written = 0;
    EXPECT_EQ(Write(m_writer, std::string(200, 'c'), &i32Written), EOSSTS_SUCCESS);
    EXPECT_EQ(i32Written, 104);
    EXPECT_EQ(Number(10), 168);   // all the way round
    EXPECT_EQ(Read(), std::string(104, 'c'));
}

// The counter in the block has 8 bits; what it cannot count must not be lost.
TEST_F(RingBuffer, TwoHundredAndFiftySixUnreadRecordsAreThere)
{
    for (const uint32_t u32Size : {100000u, 256 * 24 - 16u})   // with room to spare, and full to the last byte
    {
        ASSERT_EQ(m_writer.Create(m_strFile.c_str(), true, u32Size), EOSSTS_SUCCESS);
        ASSERT_EQ(m_reader.Connect(m_strFile.c_str(), false), EOSSTS_SUCCESS);
        for (int iRecord = 0; iRecord < 256; ++iRecord)
            ASSERT_EQ(Write(m_writer, std::to_string(iRecord)), EOSSTS_SUCCESS);
        for (int iRecord = 0; iRecord < 256; ++iRecord)
            ASSERT_EQ(Read(), std::to_string(iRecord));
        m_logcapture.Clear();
        EXPECT_EQ(Read(), "");
        EXPECT_TRUE(m_logcapture.Lines().empty());   // nothing new is not worth a lock
        m_writer.Release();
        m_reader.Release();
    }
}

TEST_F(RingBuffer, ABlockTakesOneWriterAndOneReader)
{
    const char* const szFile = m_strFile.c_str();
    EXPECT_EQ(m_writer.Create(szFile, true, 2147483647u - 88 - 16 + 1), EOSSTS_FAIL);
    EXPECT_EQ(m_writer.Create(szFile, true, 2147483647u - 88 - 16), EOSSTS_FAIL);   // padded, it is more
    EXPECT_EQ(m_logcapture.Count("requested size too large"), 2u);
    EXPECT_EQ(m_writer.Create(PathOf("no/file").c_str(), true, 100), EOSSTS_FAIL);
    EXPECT_TRUE(m_logcapture.HasAt(1, "unable to create the memory"));
    EXPECT_EQ(m_reader.Connect(szFile, false), EOSSTS_FAIL);
    EXPECT_TRUE(m_logcapture.HasAt(1, "unable to map view of file"));
    EXPECT_EQ(m_reader.UserAreaWrite(szFile), EOSSTS_FAIL);
    EXPECT_TRUE(m_logcapture.HasAt(1, "memory not created/connected"));

    ASSERT_EQ(m_writer.Create(szFile, true, 100), EOSSTS_SUCCESS);
    EXPECT_EQ(m_writer.Connect(szFile, false), EOSSTS_FAIL);
    EXPECT_EQ(m_reader.Connect(nullptr, false), EOSSTS_FAIL);
    EXPECT_EQ(m_logcapture.Count("memory already created or connected to"), 2u);
    EXPECT_EQ(m_reader.Connect(szFile, true), EOSSTS_FAIL);
    EXPECT_TRUE(m_logcapture.HasAt(1, "writer process is already in use"));
    ASSERT_EQ(m_reader.Connect(szFile, false), EOSSTS_SUCCESS);
    COsRingBuffer second;
    EXPECT_EQ(second.Connect(szFile, false), EOSSTS_FAIL);
    EXPECT_TRUE(m_logcapture.HasAt(1, "reader process is already in use"));

    EXPECT_EQ(Write(m_writer, ""), EOSSTS_FAIL);
    EXPECT_EQ(Write(m_reader, "x"), EOSSTS_FAIL);
    EXPECT_EQ(m_logcapture.Count("memory not created/connected OR not setup as writer"), 2u);
    Read(0);
    EXPECT_TRUE(m_logcapture.HasAt(1, "memory not created/connected OR not setup as reader"));

    const PlatHandle plathandle = PlatFileOpen(Wide(m_strFile).c_str(), PLAT_ACCESS_READ | PLAT_ACCESS_WRITE, 7,
                                               PLAT_DISPOSITION_OPENEXISTING, 0);
    ASSERT_TRUE(PlatFileLock(plathandle, 0, 1));
    EXPECT_EQ(Write(m_writer, "x"), EOSSTS_BUSY);
    char achUser[COsRingBuffer::OS_RINGUSERDATA];
    EXPECT_EQ(m_reader.UserAreaRead(achUser), EOSSTS_BUSY);
    EXPECT_EQ(second.Connect(szFile, false), EOSSTS_BUSY);
    EXPECT_EQ(m_logcapture.Count("memory is currently locked, need to retry"), 3u);
    PlatClose(plathandle);
    EXPECT_EQ(Write(m_writer, "x"), EOSSTS_SUCCESS);
}

TEST_F(RingBuffer, WhatAnybodyWroteIntoTheBlockIsRefused)
{
    struct
    {
        size_t sizetOffset;
        std::string strBytes;
    } const aspoilt[] = {
        {0, "\2"},       {2, Bytes(5000)},    {2, Bytes(-1)},         {2, Bytes(88)},   {2, Bytes(INT32_MAX & ~7)},
        {6, Bytes(128)}, {6, Bytes(-8)},      {6, Bytes(1)},          {10, Bytes(80)},  {10, Bytes(208)},
        {10, Bytes(-8)}, {10, Bytes(100001)}, {14, Bytes(INT32_MIN)}, {14, Bytes(216)},
    };
    for (const auto& spoilt : aspoilt)
    {
        ASSERT_EQ(m_writer.Create(m_strFile.c_str(), true, 100), EOSSTS_SUCCESS);
        ASSERT_EQ(m_reader.Connect(m_strFile.c_str(), false), EOSSTS_SUCCESS);
        EXPECT_EQ(Write(m_writer, "abc"), EOSSTS_SUCCESS);
        Spoil(spoilt.sizetOffset, spoilt.strBytes);
        EXPECT_EQ(Write(m_writer, "abc"), EOSSTS_FAIL) << spoilt.sizetOffset;
        EXPECT_EQ(Read(), "");
        EXPECT_EQ(m_eossts, EOSSTS_FAIL) << spoilt.sizetOffset;
        COsRingBuffer third;
        EXPECT_EQ(third.Connect(m_strFile.c_str(), false), EOSSTS_FAIL);
        m_writer.Release();
        m_reader.Release();
    }
    EXPECT_TRUE(m_logcapture.HasAt(1, "version number not compatible"));
    EXPECT_TRUE(m_logcapture.HasAt(1, "memory is damaged"));

    for (const std::string& strRecord :
         {Bytes(-1), Bytes(1000000), Bytes(20), Bytes(3) + Bytes(3), Bytes(3) + Bytes(-1)})
    {
        ASSERT_EQ(m_writer.Create(m_strFile.c_str(), true, 100), EOSSTS_SUCCESS);
        ASSERT_EQ(m_reader.Connect(m_strFile.c_str(), false), EOSSTS_SUCCESS);
        EXPECT_EQ(Write(m_writer, "abc"), EOSSTS_SUCCESS);
        Spoil(88, strRecord);
        EXPECT_EQ(Read(), "");
        EXPECT_EQ(m_eossts, EOSSTS_FAIL);
        m_writer.Release();
        m_reader.Release();
    }
}

TEST_F(RingBuffer, ACutBlockIsRefusedAlsoWhileItIsInUse)
{
    for (const uintmax_t uSize : {0, 10, 87, 207, 4096})   // to the last: whole pages are there, but not all
    {
        ASSERT_EQ(m_writer.Create(m_strFile.c_str(), true, uSize == 4096 ? 8000 : 100), EOSSTS_SUCCESS);
        ASSERT_EQ(m_reader.Connect(m_strFile.c_str(), false), EOSSTS_SUCCESS);
        std::filesystem::resize_file(m_strFile, uSize);
        EXPECT_EQ(Write(m_writer, std::string(8000, 'x')), EOSSTS_FAIL) << uSize;
        EXPECT_EQ(Read(), "");
        EXPECT_EQ(m_eossts, EOSSTS_FAIL) << uSize;
        COsRingBuffer third;
        EXPECT_EQ(third.Connect(m_strFile.c_str(), false), EOSSTS_FAIL) << uSize;
        m_writer.Release();
        m_reader.Release();
    }
}

// Whatever stands in the header and in front of the records: a status, and nothing touched outside the block, which
// here ends with its page.
TEST_F(RingBuffer, RandomBlocksNeverLeadOutside)
{
    std::minstd_rand random(7);
    for (int iRound = 0; iRound < 600; ++iRound)
    {
        std::string strBlock(8192, '\0');
        for (size_t sizet = 0; sizet < strBlock.size(); sizet += 1 + random() % 64)
            strBlock[sizet] = static_cast<char>(random());
        const auto offset = [&](uint32_t u32Lowest) {
            return Bytes(static_cast<int32_t>((u32Lowest + random() % 9000) & ~7u));
        };
        strBlock.replace(0, 18, "\1\1" + Bytes(8192) + offset(0) + offset(0) + offset(0));
        const bool blWriter = random() % 2;
        const size_t sizetOwn = blWriter ? 10 : 14;
        const std::string strOwn = strBlock.substr(sizetOwn, 4);
        strBlock.replace(sizetOwn, 4, Bytes(0));
        WriteWhole(m_strFile, strBlock);
        COsRingBuffer osringbuffer;
        if (osringbuffer.Connect(m_strFile.c_str(), blWriter) != EOSSTS_SUCCESS)
            continue;
        Spoil(sizetOwn, strOwn);
        std::string strBuffer(10000, 'x');
        int32_t i32Count = 0;
        for (int iTry = 0; iTry < 3; ++iTry)
        {
            const EOSSTS eossts = blWriter ? osringbuffer.Write(strBuffer.data(), 0, 10000, &i32Count)
                                           : osringbuffer.Read(strBuffer.data(), 10000, &i32Count, &m_i32Remaining);
            EXPECT_TRUE(eossts == EOSSTS_SUCCESS || eossts == EOSSTS_FAIL || eossts == EOSSTS_NOSPACE);
        }
    }
}

// The writer is killed in the middle of its work, again and again: what it has written is whole and in order, and its
// lock is gone with it.
TEST_F(RingBuffer, AKilledWriterLeavesWholeRecordsAndNoLock)
{
    for (int iRound = 0; iRound < 20; ++iRound)
    {
        Part part(m_strFile);
        ASSERT_EQ(part.OutputUpTo("ready"), "ready");
        ASSERT_TRUE(WaitFor([&] { return m_reader.Connect(m_strFile.c_str(), false) == EOSSTS_SUCCESS; }));
        RecordStream recordstream(3000);
        uint64_t u64Done = 0;
        const uint64_t u64Kill = uint64_t{100000} * static_cast<uint64_t>(iRound + 1);
        bool blKilled = false;
        const uint64_t u64Deadline = PlatTicks() + 30000;
        while (PlatTicks() < u64Deadline)
        {
            const std::string strRecord = Read();
            if (strRecord.empty() && blKilled && m_eossts == EOSSTS_NOSPACE)
                break;
            ASSERT_TRUE(!strRecord.empty() || m_eossts == EOSSTS_BUSY || m_eossts == EOSSTS_NOSPACE);
            ASSERT_TRUE(recordstream.Is(strRecord.data(), strRecord.size(), u64Done)) << u64Done;
            u64Done += strRecord.size();
            if (!blKilled && u64Done >= u64Kill)
            {
                PlatProcessTerminate(part.m_plathandle, 9);
                part.ExitCode();
                blKilled = true;
            }
        }
        EXPECT_TRUE(blKilled);
        EXPECT_LT(PlatTicks(), u64Deadline);
        m_reader.Release();
    }
}
