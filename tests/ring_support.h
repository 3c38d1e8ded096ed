// ring_support.h: the creating side of channels of shared memory, which another process connects to.
#pragma once

#include "os_cosringbuffer.h"
#include "os_cossync.h"

#include "plat_process.h"
#include "plat_wait.h"

#include <cstring>
#include <filesystem>
#include <string>

// One channel as the side has it that made it.
class CreatedChannel
{
public:
    static constexpr uint32_t OS_RINGSIZE = 131072;

    // The event that this side waits for shares a group with the cancel event, unless no group is wanted.
    bool Create(const std::string& a_strFile, bool a_blWrites, bool a_blGroup, uint32_t a_u32Size = OS_RINGSIZE)
    {
        const std::string strName = std::filesystem::path(a_strFile).stem().string();
        const char* const szGroup = a_blGroup ? strName.c_str() : nullptr;
        m_blWrites = a_blWrites;
        const uint64_t au64User[2] = {PlatProcessId(), 0};
        return m_osringbuffer.Create(a_strFile.c_str(), a_blWrites, a_u32Size) == EOSSTS_SUCCESS &&
               m_osringbuffer.UserAreaWrite(au64User) == EOSSTS_SUCCESS &&
               Event(m_ossyncOkToRead, strName + "EventOkToRead", a_blWrites ? nullptr : szGroup) &&
               Event(m_ossyncOkToWrite, strName + "EventOkToWrite", a_blWrites ? szGroup : nullptr) &&
               Event(m_ossyncCancel, strName + "EventCancel", szGroup);
    }

    // Waits end when that process does.
    bool Watch(uint64_t a_u64ProcessId) { return Awaited().EventIncludeProcessId(a_u64ProcessId) == EOSSTS_SUCCESS; }

    // The name of the event that ended the wait; empty when none did.
    std::string Await(uint32_t a_u32Timeout = OS_INFINITE)
    {
        char szName[OS_PATHSIZE] = "";
        Awaited().EventWait(a_u32Timeout, szName);
        return szName;
    }

    // Up to so many bytes of the next record; 0 when the other side has cancelled or ended.
    int32_t Read(void* a_pvBuffer, int32_t a_i32Length)
    {
        int32_t i32Read = 0;
        int32_t i32Remaining = 0;
        if (!Do([&] { return m_osringbuffer.Read(a_pvBuffer, a_i32Length, &i32Read, &i32Remaining); }))
            return 0;
        if (i32Remaining == 0)
            m_ossyncOkToWrite.EventSet();
        return i32Read;
    }

    bool Write(const void* a_pvBuffer, int32_t a_i32Length)
    {
        for (int32_t i32Done = 0, i32Written = 0; i32Done < a_i32Length; i32Done += i32Written)
        {
            if (!Do([&] {
                    return m_osringbuffer.Write(a_pvBuffer, static_cast<size_t>(i32Done), a_i32Length - i32Done,
                                                &i32Written);
                }))
                return false;
            m_ossyncOkToRead.EventSet();
        }
        return true;
    }

    COsRingBuffer m_osringbuffer;
    COsSync m_ossyncOkToRead;
    COsSync m_ossyncOkToWrite;
    COsSync m_ossyncCancel;

private:
    COsSync& Awaited() { return m_blWrites ? m_ossyncOkToWrite : m_ossyncOkToRead; }

    static bool Event(COsSync& a_ossync, const std::string& a_strName, const char* a_szGroup)
    {
        return a_ossync.EventCreate(a_strName.c_str(), a_szGroup) == EOSSTS_SUCCESS;
    }

    template <class Operation>
    bool Do(Operation a_operation)
    {
        for (uint32_t u32Busy = 0;;)
        {
            const EOSSTS eossts = a_operation();
            if (eossts == EOSSTS_BUSY)
            {
                PlatSleep(++u32Busy > 1000 ? 1 : 0);
            }
            else if (eossts != EOSSTS_NOSPACE || Await().find("EventOkTo") == std::string::npos)
            {
                return eossts == EOSSTS_SUCCESS;
            }
        }
    }

    bool m_blWrites = false;
};

// Records of 1 to so many bytes, which together are a stream that both sides know.
class RecordStream
{
public:
    explicit RecordStream(uint32_t a_u32Longest)
        : m_u32Longest(a_u32Longest), m_strPattern(OS_PERIOD + a_u32Longest, '\0')
    {
        for (size_t sizet = 0; sizet < m_strPattern.size(); ++sizet)
            m_strPattern[sizet] = sizet < OS_PERIOD ? static_cast<char>(Random()) : m_strPattern[sizet - OS_PERIOD];
    }

    int32_t NextLength() { return static_cast<int32_t>(1 + Random() % m_u32Longest); }

    // The bytes of the stream from a position on, as many as the longest record has.
    const char* At(uint64_t a_u64Position) const { return m_strPattern.data() + a_u64Position % OS_PERIOD; }
    bool Is(const void* a_pvBytes, size_t a_sizetBytes, uint64_t a_u64Position) const
    {
        return std::memcmp(a_pvBytes, At(a_u64Position), a_sizetBytes) == 0;
    }

private:
    static constexpr size_t OS_PERIOD = 1 << 20;

    uint32_t Random()
    {
        m_u64State = m_u64State * 6364136223846793005u + 1442695040888963407u;
        return static_cast<uint32_t>(m_u64State >> 33);
    }

    uint32_t m_u32Longest;
    uint64_t m_u64State = 1;
    std::string m_strPattern;
};
