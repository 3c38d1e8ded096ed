// os_cossync_impl.h: the event object's insides, which its two sources share.
#pragma once

#include "os_types.h"

#include "plat_types.h"

inline constexpr uint32_t OS_SYNCGROUP_SLOTS = 8;

// The block of a sync group as it lies in shared memory. Whoever may open the file may write anything into it: it is
// read under its lock, names are cut to their slot, and a handle counts only where this process put it.
struct OsSyncGroup
{
    uint64_t u64Size;                          // of this block, written by the process that creates the file
    uint64_t u64Lock;                          // a spin lock
    uint64_t au64Handle[OS_SYNCGROUP_SLOTS];   // of the process that registered the event; 0: a free slot
    char aszName[OS_SYNCGROUP_SLOTS][OS_PATHSIZE];
};
static_assert(sizeof(OsSyncGroup) == 4176);

enum EOSSYNCSTATE : uint32_t
{
    OS_SYNCSTATE_FREE = 0,
    OS_SYNCSTATE_CREATED = 1,
    OS_SYNCSTATE_OPENED = 2,
};

enum EOSSYNCNAMING : uint32_t
{
    OS_SYNCNAMING_UNNAMED = 1,
    OS_SYNCNAMING_NAMED = 2,
    OS_SYNCNAMING_GROUP = 3,
};

enum EOSSYNCTYPE : uint32_t
{
    OS_SYNCTYPE_NONE = 0,
    OS_SYNCTYPE_EVENT = 1,
    OS_SYNCTYPE_MUTEX = 2,   // no operation makes one
};

// What a wait answers, plus the index, for an abandoned mutex, of which this system has none.
inline constexpr uint32_t OS_WAIT_ABANDONED = 128;

// The handles of one wait: a watched process and every event of a group.
struct OsSyncWaitList
{
    PlatHandle aplathandle[1 + OS_SYNCGROUP_SLOTS];
    uint32_t u32Count = 0;

    void Append(PlatHandle a_plathandle) { aplathandle[u32Count++] = a_plathandle; }
};

// All zero is the free object; a handle of 0 is none here. Set and wait only read, so that they can run at once.
class COsSyncImpl
{
public:
    EOSSTS EventCreate(const char* a_szName, const char* a_szGroup);
    EOSSTS EventOpen(const char* a_szName);
    EOSSTS EventSet() const;
    EOSSTS EventWait(uint32_t a_u32Timeout, char* a_szName) const;
    EOSSTS EventIncludeProcessId(uint64_t a_u64ProcessId);
    void EventClose();

    EOSSYNCTYPE Type() const { return m_eossynctype; }
    PlatHandle Handle() const { return m_plathandle ? m_plathandle : PLAT_INVALID; }

private:
    bool IsFree() const;
    bool Take(EOSSYNCSTATE a_eossyncstate, const char* a_szName, const char* a_szGroup);
    bool CreateSystemEvent();
    bool IsEvent(uint32_t a_u32Level) const;
    bool IsInUse() const;
    bool HasHandle() const;
    EOSSTS WaitEndedOddly(uint32_t a_u32Wait, const OsSyncWaitList& a_ossyncwaitlist, char* a_szName) const;
    bool NameOf(PlatHandle a_plathandle, char* a_szName) const;
    void Unwatch();

    // os_cossync_group.cpp
    bool GroupJoin();
    bool GroupMap();
    bool GroupRegister();
    void GroupUnregister();
    void GroupLeave();
    void GroupAppend(OsSyncWaitList& a_ossyncwaitlist) const;
    bool GroupNameOf(PlatHandle a_plathandle, char* a_szName) const;
    static bool IsRegistered(uint64_t a_u64Handle, uint32_t a_u32Slot);

    EOSSYNCSTATE m_eossyncstate = OS_SYNCSTATE_FREE;
    EOSSYNCNAMING m_eossyncnaming{};
    char m_szName[OS_PATHSIZE]{};   // as the caller wrote it
    char m_szGroup[OS_PATHSIZE]{};
    uint64_t m_u64ProcessId = 0;   // watched
    uint64_t m_u64ThreadId = 0;    // of the thread that created or opened
    EOSSYNCTYPE m_eossynctype = OS_SYNCTYPE_NONE;
    PlatHandle m_plathandle = 0;
    PlatHandle m_plathandleProcess = 0;
    uint64_t m_u64Slot = 0;   // 1 more than the index in the group; 0: not registered
    OsSyncGroup* m_possyncgroupShared = nullptr;
    OsSyncGroup* m_possyncgroupCopy = nullptr;   // of the last wait, kept and read under the shared block's lock
    COsSyncImpl* m_possyncimplNext = nullptr;    // in this process's list of registered events
};
static_assert(sizeof(COsSyncImpl) == 1104);
