// os_cosringbuffer.h: a one-way channel between two processes through a block of shared memory.
//
// One process writes records, another reads them in order. The block lies in a file that both map; it carries its own
// header and a user area in which the two sides tell each other who they are.
//
// An operation holds the block's lock between processes and never waits for it: EOSSTS_BUSY says that the other side
// has it, EOSSTS_NOSPACE that there is nothing to read or no room to write; try again later. The lock of a process
// that was killed is free at once. EOSSTS_FAIL is everything else, logged.
//
// Whoever may open the file may write anything into it: what the block says of itself is checked before it is used, and
// a block that contradicts itself is refused. Where somebody cuts the file in the middle of an operation, this fails
// and so does every later one, also when the file has grown again: what was in it is lost, and what its view shows is
// no longer what others see. Release and a new block are the way on.
//
// An object is used by one thread at a time. Sizes and counts are in bytes.
#pragma once

#include "os_types.h"

// Made by its user with new. Its size is part of the log.
class COsRingBuffer
{
public:
    COsRingBuffer() = default;
    ~COsRingBuffer() { Release(); }
    COsRingBuffer(const COsRingBuffer&) = delete;
    COsRingBuffer& operator=(const COsRingBuffer&) = delete;

    // Makes the block, with room for so many bytes of records and their headers, and attaches to it. Whoever made it
    // takes the file along when it releases it.
    EOSSTS Create(const char* a_szName, bool a_blWriter, uint32_t a_u32Size);

    // Attaches to a block that another has made. A block takes one writer and one reader in its life.
    EOSSTS Connect(const char* a_szName, bool a_blWriter);

    // Appends one record of a_i32Length bytes from a_pvBuffer + a_sizetOffset, or of as many as there is room for:
    // *a_pi32Written.
    EOSSTS Write(const void* a_pvBuffer, size_t a_sizetOffset, int32_t a_i32Length, int32_t* a_pi32Written);

    // Takes up to a_i32Length bytes of the oldest record into a_pvBuffer: *a_pi32Read. *a_pi32Remaining bytes of the
    // record are left for the next call; the record makes room once that is 0.
    EOSSTS Read(void* a_pvBuffer, int32_t a_i32Length, int32_t* a_pi32Read, int32_t* a_pi32Remaining);

    // The first bytes of the user area.
    static constexpr size_t OS_RINGUSERDATA = 16;
    EOSSTS UserAreaWrite(const void* a_pvData);
    EOSSTS UserAreaRead(void* a_pvData);

    void Release();

private:
    static constexpr int32_t OS_RINGHEADER = 88;
    static constexpr int32_t OS_RINGRECORDHEADER = 16;
    static constexpr int32_t OS_RINGUSERAREA = 64;

    // A copy of the block's header, byte by byte as it lies there: the numbers are not aligned.
    struct Header
    {
        int32_t Get(size_t a_sizetField) const;
        void Set(size_t a_sizetField, int32_t a_i32Value);

        uint8_t au8[OS_RINGHEADER] = {};
    };

    struct RecordHeader
    {
        int32_t i32Length = 0;     // of the payload
        int32_t i32Consumed = 0;   // payload that the reader has taken
        uint64_t u64Zero = 0;
    };
    static_assert(sizeof(RecordHeader) == OS_RINGRECORDHEADER);

    // Where a side is in the data, and how much of the data is free.
    struct Place
    {
        int32_t i32Offset;
        int32_t i32Free;
    };

    EOSSTS Attach(bool a_blWriter);
    EOSSTS Enter();
    EOSSTS EnterUserArea();
    bool Leave();
    EOSSTS Damaged() const;

    int32_t Append(const uint8_t* a_pu8Payload, int32_t a_i32Length, Place* a_pplace);
    EOSSTS Take(uint8_t* a_pu8Buffer, int32_t a_i32Length, int32_t* a_pi32Read, int32_t* a_pi32Remaining);
    void FinishRecord(const Place& a_place);
    EOSSTS LookForRecord();
    bool LooksEmpty() const;

    void LoadHeader(Header* a_pheader) const;
    void StoreHeader();
    bool IsSound(const Header& a_header) const;
    bool IsWhole(int32_t a_i32Total) const;
    bool IsEmpty(const Header& a_header, const Place& a_place) const;
    int32_t Total() const;
    int32_t DataSize() const { return Total() - m_i32HeaderSize; }
    int32_t Wrap(int64_t a_i64Offset) const;
    bool RecordFits(const Place& a_place) const;
    uint8_t* UserArea() const;
    uint8_t* At(int64_t a_i64Offset) const { return static_cast<uint8_t*>(m_pvBlock) + a_i64Offset; }

    int32_t m_i32HeaderSize = OS_RINGHEADER;
    int32_t m_i32RecordHeaderSize = OS_RINGRECORDHEADER;
    int32_t m_i32UserAreaSize = OS_RINGUSERAREA;
    void* m_pvBlock = nullptr;   // null while not attached
    bool m_blWriter = false;
    uint8_t m_u8RecordsRead = 0;   // modulo 256, as the block counts
    Header m_header;               // the block's, checked; its total size is the one that was checked when attaching
    bool m_blCut = false;          // a part of the view has gone
    RecordHeader m_recordheader;   // of the record that is worked on
};
static_assert(sizeof(COsRingBuffer) == 136);
