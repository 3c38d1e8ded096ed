// os_cosringbuffer.h: a one-way channel between two processes through a block of shared memory.
//
// One process writes records, another reads them in order. The block is in a file that both map; it contains its own
// header and a user area in which the two sides identify themselves.
//
// Operations take the block's inter-process lock and never wait for it. EOSSTS_BUSY: the peer holds the lock.
// EOSSTS_NOSPACE: nothing to read or no room to write. Retry later in both cases. The lock of a killed process is
// released at once. EOSSTS_FAIL (logged) is any other failure.
//
// Any process that may open the file may write anything into it: header values are checked before use, and an
// inconsistent block is refused. If another process truncates the file during an operation, this operation and all
// later ones fail, even when the file has grown again: its content is lost, and the view no longer shows what others
// see. Release and make a new block.
//
// An object is used by one thread at a time. Sizes and counts are in bytes.
#pragma once

#include "os_types.h"

// Created by the caller with new. Its size appears in the log.
class COsRingBuffer
{
public:
    COsRingBuffer() = default;
    ~COsRingBuffer() { Release(); }
    COsRingBuffer(const COsRingBuffer&) = delete;
    COsRingBuffer& operator=(const COsRingBuffer&) = delete;

    // Creates a block with room for a_u32Size bytes of records and record headers, and attaches to it. Releasing it
    // deletes the file.
    EOSSTS Create(const char* a_szName, bool a_blWriter, uint32_t a_u32Size);

    // Attaches to a block of another process. A block accepts one writer and one reader in its life.
    EOSSTS Connect(const char* a_szName, bool a_blWriter);

    // Appends one record of up to a_i32Length bytes from a_pvBuffer + a_sizetOffset, as many as there is room for:
    // *a_pi32Written.
    EOSSTS Write(const void* a_pvBuffer, size_t a_sizetOffset, int32_t a_i32Length, int32_t* a_pi32Written);

    // Reads up to a_i32Length bytes of the oldest record into a_pvBuffer: *a_pi32Read. *a_pi32Remaining bytes of the
    // record are left for the next call; at 0 its room is freed.
    EOSSTS Read(void* a_pvBuffer, int32_t a_i32Length, int32_t* a_pi32Read, int32_t* a_pi32Remaining);

    // Size of the data at the beginning of the user area.
    static constexpr size_t OS_RINGUSERDATA = 16;
    EOSSTS UserAreaWrite(const void* a_pvData);
    EOSSTS UserAreaRead(void* a_pvData);

    void Release();

private:
    static constexpr int32_t OS_RINGHEADER = 88;
    static constexpr int32_t OS_RINGRECORDHEADER = 16;
    static constexpr int32_t OS_RINGUSERAREA = 64;

    // A copy of the block's header; the numbers are unaligned.
    struct Header
    {
        int32_t Get(size_t a_sizetField) const;
        void Set(size_t a_sizetField, int32_t a_i32Value);

        uint8_t au8[OS_RINGHEADER] = {};
    };

    struct RecordHeader
    {
        int32_t i32Length = 0;     // of the payload, in bytes
        int32_t i32Consumed = 0;   // payload bytes already read
        uint64_t u64Zero = 0;
    };
    static_assert(sizeof(RecordHeader) == OS_RINGRECORDHEADER);

    // An offset in the data area, and the number of free bytes.
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
    uint8_t m_u8RecordsRead = 0;   // modulo 256, like OS_RING_WRITTEN
    Header m_header;               // checked copy; its total size was checked when attaching
    bool m_blCut = false;          // a part of the view is no longer in the file
    RecordHeader m_recordheader;   // of the current record
};
static_assert(sizeof(COsRingBuffer) == 136);
