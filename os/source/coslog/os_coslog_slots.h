// os_coslog_slots.h: the per-thread state of the logger.
//
// A thread owns one of 64 slots from its first line to its end. The only wait is for the check whether a slot's thread
// has ended, a few instructions: a signal handler that logs cannot block on the thread that it interrupted.
#pragma once

#include "os_coslog_file.h"
#include "os_coslogline.h"
#include "os_coslogstatus.h"
#include "os_types.h"

#include <atomic>
#include <span>

inline constexpr size_t OS_LOGSLOTS = 64;
inline constexpr uint8_t OS_LOGS = 9;   // the S value of this library's lines

struct OsLogPath;

struct OsLogSlot
{
    enum : uint32_t
    {
        OS_IDLE = 0,
        OS_INSIDE = 1,    // the thread is inside the logger
        OS_RECLAIM = 2,   // another thread checks whether this one has ended
    };
    std::atomic<uint32_t> u32Busy;
    std::atomic<bool> blFlushWanted;   // requested by a failed check inside the logger

    // The call.
    uint32_t u32LastError;
    uint32_t u32Line;
    uint32_t u32Level;
    bool blDeterministic;          // values that differ between runs are 0 in the prefix
    bool blFlush;                  // flush the file after the line
    char achSource[OS_PATHSIZE];   // not terminated
    size_t sizetSource;
    OsLogLineTime osloglinetime;
    OsLogPath* poslogpath;
    OsLogFile* poslogfile;   // null when no file is open

    // The message; space for the longest prefix and a line end precedes it.
    char* szBuffer;
    size_t sizetBuffer;    // capacity for the message
    size_t sizetMessage;   // including its line end

    char* Message() const { return szBuffer + OS_LOGPREFIXMAX; }

    // False without memory; the buffer is then unchanged.
    bool SetBuffer(size_t a_sizetBuffer);

    OsLogLinePrefix Prefix(int32_t a_i32Number) const;

    // The message with its prefix right before it.
    std::span<char> Line(int32_t a_i32Number) const;
};

class COsLogSlots
{
public:
    COsLogSlots() = default;
    ~COsLogSlots();
    COsLogSlots(const COsLogSlots&) = delete;
    COsLogSlots& operator=(const COsLogSlots&) = delete;

    // Enters the calling thread's slot, claiming one if needed, with a buffer of at least a_sizetBuffer. Null when the
    // thread is already inside, without a free slot or without memory; a_eosloglost gets the reason.
    OsLogSlot* Enter(size_t a_sizetBuffer, EOSLOGLOST& a_eosloglost);
    void Leave(OsLogSlot& a_oslogslot) { a_oslogslot.u32Busy.store(OsLogSlot::OS_IDLE, std::memory_order_release); }

    // Enters the slot of a thread that has logged before and is not inside; otherwise null. If the thread is inside,
    // *a_pposlogslotInside gets its slot.
    OsLogSlot* EnterAgain(OsLogSlot** a_pposlogslotInside);

    bool IsInside();        // true when the calling thread is inside the logger
    void LeaveToParent();   // in a forked child, whose thread has another id

private:
    OsLogSlot* Find(uint64_t a_u64ThreadId);
    OsLogSlot* ClaimFree(uint64_t a_u64ThreadId);
    OsLogSlot* Claim(uint64_t a_u64ThreadId);
    void Reclaim();

    std::atomic<uint64_t> m_au64ThreadId[OS_LOGSLOTS] = {};   // 0: the slot is free
    OsLogSlot m_aoslogslot[OS_LOGSLOTS] = {};
};
