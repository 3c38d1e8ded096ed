// os_cosringbuffer.cpp: the block, attaching to it, and its records.
//
// The data area runs from the end of the header to the end of the block and wraps around. A record is a header and its
// payload, padded to 8 bytes. A record header is never split: a tail too short for it is skipped, and counts as used
// until the reader has skipped it too. The payload may wrap around.
//
// In order: the header, attaching, the lock, writing, reading, the user area.
#include "os_cosringbuffer.h"

#include "os_cosmem.h"
#include "os_log.h"

#include "plat_file.h"

#include <algorithm>
#include <atomic>
#include <cstring>

static constexpr char g_szSource[] = "os/source/os_cosringbuffer";

// Offsets in the header. The four numbers are signed 32-bit.
static constexpr size_t OS_RING_VERSION = 0;
static constexpr size_t OS_RING_CREATED = 1;
static constexpr size_t OS_RING_TOTAL = 2;          // size of the block
static constexpr size_t OS_RING_FREE = 6;           // free bytes of the data area
static constexpr size_t OS_RING_WRITEOFFSET = 10;   // of the next record to write; 0: no writer attached
static constexpr size_t OS_RING_READOFFSET = 14;    // of the next record to read; 0: no reader attached
static constexpr size_t OS_RING_WRITTEN = 18;       // number of records, modulo 256

static constexpr uint8_t g_u8Version = 1;
static constexpr int32_t g_i32Alignment = 8;
static constexpr int32_t g_i32LeastPayload = 8;   // smallest payload; less room counts as full

static constexpr int64_t RoundUp(int64_t a_i64Value)
{
    return (a_i64Value + g_i32Alignment - 1) / g_i32Alignment * g_i32Alignment;
}

// ------------------------------------------------------------------------------------------------------- the header

int32_t COsRingBuffer::Header::Get(size_t a_sizetField) const
{
    int32_t i32Value;
    std::memcpy(&i32Value, au8 + a_sizetField, sizeof i32Value);
    return i32Value;
}

void COsRingBuffer::Header::Set(size_t a_sizetField, int32_t a_i32Value)
{
    std::memcpy(au8 + a_sizetField, &a_i32Value, sizeof a_i32Value);
}

int32_t COsRingBuffer::Total() const
{
    return m_header.Get(OS_RING_TOTAL);
}

// The first two words of the header, which LookForRecord reads without the lock.
static std::atomic_ref<uint64_t> Word(uint8_t* a_pu8Block, size_t a_sizetWord)
{
    return std::atomic_ref<uint64_t>(*reinterpret_cast<uint64_t*>(a_pu8Block + a_sizetWord * sizeof(uint64_t)));
}

void COsRingBuffer::LoadHeader(Header* a_pheader) const
{
    std::memcpy(a_pheader->au8, m_pvBlock, sizeof a_pheader->au8);
}

// The record counter is stored last, since it publishes the record: a writer killed before that has published nothing.
void COsRingBuffer::StoreHeader()
{
    uint64_t au64Word[2];
    std::memcpy(au64Word, m_header.au8, sizeof au64Word);
    Word(At(0), 0).store(au64Word[0], std::memory_order_relaxed);
    Word(At(0), 1).store(au64Word[1], std::memory_order_relaxed);
    std::memcpy(At(sizeof au64Word), m_header.au8 + sizeof au64Word, OS_RING_WRITTEN - sizeof au64Word);
    std::atomic_ref<uint8_t>(*At(OS_RING_WRITTEN)).store(m_header.au8[OS_RING_WRITTEN], std::memory_order_release);
}

// Another process may have truncated the file.
bool COsRingBuffer::IsWhole(int32_t a_i32Total) const
{
    return !m_blCut && OsMemSharedSize(m_pvBlock, g_szSource, __LINE__) >= static_cast<uint64_t>(a_i32Total);
}

// True if all offsets in the header are inside a block of the size that it states.
bool COsRingBuffer::IsSound(const Header& a_header) const
{
    const int32_t i32Total = a_header.Get(OS_RING_TOTAL);
    const int32_t i32Free = a_header.Get(OS_RING_FREE);
    const auto inData = [&](int32_t a_i32Offset) {
        return a_i32Offset == 0 || (a_i32Offset >= m_i32HeaderSize && a_i32Offset < i32Total);
    };
    const int32_t i32Write = a_header.Get(OS_RING_WRITEOFFSET);
    const int32_t i32Read = a_header.Get(OS_RING_READOFFSET);
    const bool blAligned = ((i32Total | i32Free | i32Write | i32Read) & (g_i32Alignment - 1)) == 0;
    return a_header.au8[OS_RING_VERSION] == g_u8Version && blAligned &&
           i32Total >= m_i32HeaderSize + m_i32RecordHeaderSize && i32Free >= 0 &&
           i32Free <= i32Total - m_i32HeaderSize && inData(i32Write) && inData(i32Read);
}

EOSSTS COsRingBuffer::Damaged() const
{
    OSLOG(OS_LOG_ERROR, "memory is damaged");
    return EOSSTS_FAIL;
}

// -------------------------------------------------------------------------------------------------------- attaching

EOSSTS COsRingBuffer::Create(const char* a_szName, bool a_blWriter, uint32_t a_u32Size)
{
    if (m_pvBlock || !a_szName)
    {
        OSLOG(OS_LOG_ERROR, "memory already created or connected to");
        return EOSSTS_FAIL;
    }
    const int64_t i64Total = OS_RINGHEADER + RoundUp(a_u32Size) + OS_RINGRECORDHEADER;
    if (i64Total > INT32_MAX)
    {
        OSLOG(OS_LOG_ERROR, "requested size too large");
        return EOSSTS_FAIL;
    }
    m_pvBlock = OsMemSharedAlloc(OS_SHAREDALLOC_CREATE, a_szName, static_cast<uint64_t>(i64Total), 0,
                                 OS_SHAREDLOCK_LOCK, OS_SHAREDFLAG_FILE, g_szSource, __LINE__);
    if (!m_pvBlock)
    {
        OSLOG(OS_LOG_ERROR, "unable to create the memory");
        return EOSSTS_FAIL;
    }

    PlatMappingGuard(m_pvBlock, static_cast<size_t>(m_i32HeaderSize));
    m_blWriter = a_blWriter;
    m_header.au8[OS_RING_VERSION] = g_u8Version;
    m_header.au8[OS_RING_CREATED] = 1;
    m_header.Set(OS_RING_TOTAL, static_cast<int32_t>(i64Total));
    m_header.Set(OS_RING_FREE, DataSize());
    m_header.Set(m_blWriter ? OS_RING_WRITEOFFSET : OS_RING_READOFFSET, m_i32HeaderSize);
    StoreHeader();
    if (!Leave())
    {
        Release();
        return Damaged();
    }
    OSLOG(OS_LOG_NOTE, "created as a %s process", m_blWriter ? "writer" : "reader");
    return EOSSTS_SUCCESS;
}

EOSSTS COsRingBuffer::Connect(const char* a_szName, bool a_blWriter)
{
    if (m_pvBlock || !a_szName)
    {
        OSLOG(OS_LOG_ERROR, "memory already created or connected to");
        return EOSSTS_FAIL;
    }
    m_pvBlock = OsMemSharedAlloc(OS_SHAREDALLOC_OPEN, a_szName, 0, -1, OS_SHAREDLOCK_NONE, 0, g_szSource, __LINE__);
    if (!m_pvBlock || !IsWhole(m_i32HeaderSize))
    {
        Release();
        OSLOG(OS_LOG_ERROR, "unable to map view of file");
        return EOSSTS_FAIL;
    }
    if (OsMemSharedLock(m_pvBlock, g_szSource, __LINE__) != EOSSTS_LOCKED)
    {
        Release();
        OSLOG(OS_LOG_NOTE, "memory is currently locked, need to retry");
        return EOSSTS_BUSY;
    }

    PlatMappingGuard(m_pvBlock, static_cast<size_t>(m_i32HeaderSize));
    const EOSSTS eossts = Attach(a_blWriter);
    const bool blWhole = Leave();
    if (eossts != EOSSTS_SUCCESS || !blWhole)
    {
        Release();
        return blWhole ? eossts : Damaged();
    }
    OSLOG(OS_LOG_NOTE, "connected as a %s process", m_blWriter ? "writer" : "reader");
    return EOSSTS_SUCCESS;
}

// Attaches as writer or reader, unless the block already has one.
EOSSTS COsRingBuffer::Attach(bool a_blWriter)
{
    LoadHeader(&m_header);
    if (m_header.au8[OS_RING_VERSION] != g_u8Version)
    {
        OSLOG(OS_LOG_ERROR, "version number not compatible");
        return EOSSTS_FAIL;
    }
    if (!IsSound(m_header) || !IsWhole(Total()))
        return Damaged();
    const size_t sizetField = a_blWriter ? OS_RING_WRITEOFFSET : OS_RING_READOFFSET;
    if (m_header.Get(sizetField) != 0)
    {
        OSLOG(OS_LOG_ERROR, "%s process is already in use", a_blWriter ? "writer" : "reader");
        return EOSSTS_FAIL;
    }
    m_header.Set(sizetField, m_i32HeaderSize);
    StoreHeader();
    m_blWriter = a_blWriter;
    return EOSSTS_SUCCESS;
}

void COsRingBuffer::Release()
{
    if (m_pvBlock)
        OSMEMFREE(m_pvBlock, OS_MEMFLAG_BLOCK);
    m_pvBlock = nullptr;
    m_blWriter = false;
    m_u8RecordsRead = 0;
    m_header = {};
    m_blCut = false;
    m_recordheader = {};
}

// --------------------------------------------------------------------------------------------------------- the lock

// Takes the lock and a checked copy of the header. The lock is held only after EOSSTS_SUCCESS. The block may be
// accessed from then on: if the file is truncated after the check, Leave detects it.
EOSSTS COsRingBuffer::Enter()
{
    const EOSSTS eosstsLock = OsMemSharedLock(m_pvBlock, g_szSource, __LINE__);
    if (eosstsLock == EOSSTS_NOTLOCKED)
    {
        OSLOG(OS_LOG_NOTE, "memory is currently locked, need to retry");
        return EOSSTS_BUSY;
    }
    if (eosstsLock != EOSSTS_LOCKED)
        return EOSSTS_FAIL;

    const int32_t i32Total = Total();
    PlatMappingGuard(m_pvBlock, static_cast<size_t>(i32Total));
    const bool blWhole = IsWhole(i32Total);
    Header header;
    if (blWhole)
        LoadHeader(&header);
    const size_t sizetOwn = m_blWriter ? OS_RING_WRITEOFFSET : OS_RING_READOFFSET;
    if (!blWhole || !IsSound(header) || header.Get(OS_RING_TOTAL) != i32Total || header.Get(sizetOwn) == 0)
    {
        Leave();
        return Damaged();
    }
    m_header = header;
    return EOSSTS_SUCCESS;
}

// Releases the lock. False if bytes accessed since Enter were no longer in the file.
bool COsRingBuffer::Leave()
{
    m_blCut |= !PlatMappingUnguard();
    OsMemSharedUnlock(m_pvBlock, g_szSource, __LINE__);
    return !m_blCut;
}

// ------------------------------------------------------------------------------------------------------------ writing

// Wraps an offset that is less than one round too large.
int32_t COsRingBuffer::Wrap(int64_t a_i64Offset) const
{
    return static_cast<int32_t>(a_i64Offset < Total() ? a_i64Offset : a_i64Offset - DataSize());
}

EOSSTS COsRingBuffer::Write(const void* a_pvBuffer, size_t a_sizetOffset, int32_t a_i32Length, int32_t* a_pi32Written)
{
    *a_pi32Written = 0;
    if (!m_pvBlock || !m_blWriter || !a_pvBuffer || a_i32Length <= 0)
    {
        OSLOG(OS_LOG_ERROR, "memory not created/connected OR not setup as writer");
        return EOSSTS_FAIL;
    }
    if (const EOSSTS eossts = Enter(); eossts != EOSSTS_SUCCESS)
        return eossts;
    Place place = {m_header.Get(OS_RING_WRITEOFFSET), m_header.Get(OS_RING_FREE)};
    const int32_t i32Written = Append(static_cast<const uint8_t*>(a_pvBuffer) + a_sizetOffset, a_i32Length, &place);
    if (!Leave())
        return Damaged();

    if (i32Written == 0)
    {
        OSLOG(OS_LOG_NOTE, "not enough free space, need to retry...%d < (%d + %d)", place.i32Free,
              m_i32RecordHeaderSize, g_i32LeastPayload);
        return EOSSTS_NOSPACE;
    }
    OSLOG(OS_LOG_NOTE, "wrote %d bytes to memory", i32Written);
    *a_pi32Written = i32Written;
    return EOSSTS_SUCCESS;
}

// Returns the number of payload bytes written; 0, with the block unchanged, when there is no room.
int32_t COsRingBuffer::Append(const uint8_t* a_pu8Payload, int32_t a_i32Length, Place* a_pplace)
{
    const int32_t i32Tail = Total() - a_pplace->i32Offset;
    if (i32Tail < m_i32RecordHeaderSize)
        *a_pplace = {m_i32HeaderSize, a_pplace->i32Free - i32Tail};
    if (a_pplace->i32Free < m_i32RecordHeaderSize + g_i32LeastPayload)
        return 0;

    const int32_t i32Payload = a_pplace->i32Offset + m_i32RecordHeaderSize;
    const int32_t i32Length = std::min(a_i32Length, a_pplace->i32Free - m_i32RecordHeaderSize);
    const int32_t i32First = std::min(i32Length, Total() - i32Payload);
    std::memcpy(At(i32Payload), a_pu8Payload, static_cast<size_t>(i32First));
    std::memcpy(At(m_i32HeaderSize), a_pu8Payload + i32First, static_cast<size_t>(i32Length - i32First));
    m_recordheader = {i32Length, 0, 0};
    std::memcpy(At(a_pplace->i32Offset), &m_recordheader, sizeof m_recordheader);

    const int64_t i64Room = RoundUp(i32Length);
    m_header.Set(OS_RING_WRITEOFFSET, Wrap(i32Payload + i64Room));
    m_header.Set(OS_RING_FREE, static_cast<int32_t>(a_pplace->i32Free - m_i32RecordHeaderSize - i64Room));
    ++m_header.au8[OS_RING_WRITTEN];
    StoreHeader();
    return i32Length;
}

// ------------------------------------------------------------------------------------------------------------ reading

EOSSTS COsRingBuffer::Read(void* a_pvBuffer, int32_t a_i32Length, int32_t* a_pi32Read, int32_t* a_pi32Remaining)
{
    *a_pi32Read = 0;
    *a_pi32Remaining = 0;
    if (!m_pvBlock || m_blWriter || !a_pvBuffer || a_i32Length <= 0)
    {
        OSLOG(OS_LOG_ERROR, "memory not created/connected OR not setup as reader");
        return EOSSTS_FAIL;
    }
    if (const EOSSTS eossts = LookForRecord(); eossts != EOSSTS_SUCCESS)
        return eossts;
    if (const EOSSTS eossts = Enter(); eossts != EOSSTS_SUCCESS)
        return eossts;
    const EOSSTS eossts = Take(static_cast<uint8_t*>(a_pvBuffer), a_i32Length, a_pi32Read, a_pi32Remaining);
    const bool blWhole = Leave();

    switch (blWhole ? eossts : EOSSTS_FAIL)
    {
    case EOSSTS_SUCCESS:
        OSLOG(OS_LOG_NOTE, "read %d bytes from memory", *a_pi32Read);
        return eossts;
    case EOSSTS_NOSPACE:
        OSLOG(OS_LOG_NOTE, "no data to read");
        return eossts;
    default:
        *a_pi32Read = 0;
        *a_pi32Remaining = 0;
        return Damaged();
    }
}

// Checks without the lock whether there may be a record.
EOSSTS COsRingBuffer::LookForRecord()
{
    if (!IsWhole(Total()))
        return Damaged();
    PlatMappingGuard(m_pvBlock, static_cast<size_t>(m_i32HeaderSize));
    const bool blEmpty = LooksEmpty();
    m_blCut |= !PlatMappingUnguard();
    if (m_blCut)
        return Damaged();
    return blEmpty ? EOSSTS_NOSPACE : EOSSTS_SUCCESS;
}

// The counter alone is not enough: after exactly 256 unread records it is the same as before, and the writer may be
// waiting for their answer.
bool COsRingBuffer::LooksEmpty() const
{
    if (std::atomic_ref<uint8_t>(*At(OS_RING_WRITTEN)).load(std::memory_order_acquire) != m_u8RecordsRead)
        return false;
    const uint64_t au64Word[] = {Word(At(0), 0).load(std::memory_order_relaxed),
                                 Word(At(0), 1).load(std::memory_order_relaxed)};
    Header header;
    std::memcpy(header.au8, au64Word, sizeof au64Word);
    return IsEmpty(header, {m_header.Get(OS_RING_READOFFSET), header.Get(OS_RING_FREE)});
}

// Must be checked before reading a record header: the bytes there may be payload of an old record.
bool COsRingBuffer::IsEmpty(const Header& a_header, const Place& a_place) const
{
    const int32_t i32Write = a_header.Get(OS_RING_WRITEOFFSET);
    return i32Write == 0 || (i32Write == a_place.i32Offset && a_place.i32Free >= DataSize());
}

// The record must not be larger than the used part of the data area.
bool COsRingBuffer::RecordFits(const Place& a_place) const
{
    const int64_t i64Used = int64_t{DataSize()} - a_place.i32Free;
    return m_recordheader.i32Length > 0 && m_recordheader.i32Consumed >= 0 &&
           m_recordheader.i32Consumed < m_recordheader.i32Length &&
           m_i32RecordHeaderSize + RoundUp(m_recordheader.i32Length) <= i64Used;
}

// EOSSTS_NOSPACE when there is no record, EOSSTS_FAIL when the record is invalid.
EOSSTS COsRingBuffer::Take(uint8_t* a_pu8Buffer, int32_t a_i32Length, int32_t* a_pi32Read, int32_t* a_pi32Remaining)
{
    Place place = {m_header.Get(OS_RING_READOFFSET), m_header.Get(OS_RING_FREE)};
    if (IsEmpty(m_header, place))
        return EOSSTS_NOSPACE;
    const int32_t i32Tail = Total() - place.i32Offset;
    if (i32Tail < m_i32RecordHeaderSize)
        place = {m_i32HeaderSize, place.i32Free + i32Tail};
    std::memcpy(&m_recordheader, At(place.i32Offset), sizeof m_recordheader);
    if (IsEmpty(m_header, place) || m_recordheader.i32Length == 0)
        return EOSSTS_NOSPACE;
    if (!RecordFits(place))
        return EOSSTS_FAIL;

    const int32_t i32Source = Wrap(int64_t{place.i32Offset} + m_i32RecordHeaderSize + m_recordheader.i32Consumed);
    const int32_t i32Read = std::min(a_i32Length, m_recordheader.i32Length - m_recordheader.i32Consumed);
    const int32_t i32First = std::min(i32Read, Total() - i32Source);
    std::memcpy(a_pu8Buffer, At(i32Source), static_cast<size_t>(i32First));
    std::memcpy(a_pu8Buffer + i32First, At(m_i32HeaderSize), static_cast<size_t>(i32Read - i32First));

    m_recordheader.i32Consumed += i32Read;
    *a_pi32Read = i32Read;
    *a_pi32Remaining = m_recordheader.i32Length - m_recordheader.i32Consumed;
    if (*a_pi32Remaining == 0)
    {
        FinishRecord(place);
    }
    else
    {
        std::memcpy(At(place.i32Offset), &m_recordheader, sizeof m_recordheader);
    }
    return EOSSTS_SUCCESS;
}

void COsRingBuffer::FinishRecord(const Place& a_place)
{
    const int64_t i64Room = m_i32RecordHeaderSize + RoundUp(m_recordheader.i32Length);
    std::memset(At(a_place.i32Offset), 0, sizeof m_recordheader);
    m_header.Set(OS_RING_READOFFSET, Wrap(a_place.i32Offset + i64Room));
    m_header.Set(OS_RING_FREE, static_cast<int32_t>(a_place.i32Free + i64Room));
    StoreHeader();
    ++m_u8RecordsRead;
}

// ------------------------------------------------------------------------------------------------------ the user area

// The user area is at the end of the header.
uint8_t* COsRingBuffer::UserArea() const
{
    return At(m_i32HeaderSize - m_i32UserAreaSize);
}

EOSSTS COsRingBuffer::EnterUserArea()
{
    if (m_pvBlock)
        return Enter();
    OSLOG(OS_LOG_ERROR, "memory not created/connected");
    return EOSSTS_FAIL;
}

EOSSTS COsRingBuffer::UserAreaWrite(const void* a_pvData)
{
    if (const EOSSTS eossts = EnterUserArea(); eossts != EOSSTS_SUCCESS)
        return eossts;
    std::memcpy(UserArea(), a_pvData, OS_RINGUSERDATA);
    if (!Leave())
        return Damaged();
    OSLOG(OS_LOG_NOTE, "wrote %d bytes to user area", static_cast<int>(OS_RINGUSERDATA));
    return EOSSTS_SUCCESS;
}

EOSSTS COsRingBuffer::UserAreaRead(void* a_pvData)
{
    if (const EOSSTS eossts = EnterUserArea(); eossts != EOSSTS_SUCCESS)
        return eossts;
    std::memcpy(a_pvData, UserArea(), OS_RINGUSERDATA);
    if (!Leave())
        return Damaged();
    OSLOG(OS_LOG_NOTE, "read %d bytes from user data", static_cast<int>(OS_RINGUSERDATA));
    return EOSSTS_SUCCESS;
}
