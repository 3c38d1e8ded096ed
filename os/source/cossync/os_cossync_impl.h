// os_cossync_impl.h: the event object's insides, which its two sources share.
//
// What several threads and processes use is counted: an event, a watched process, a group. A call copies the references
// that it needs under the object's lock and works without it; the last reference closes. So a wait never looks at
// anything that was closed meanwhile.
#pragma once

#include "os_cosspinlock.h"
#include "os_types.h"

#include "plat_types.h"

#include <atomic>
#include <utility>

inline constexpr uint32_t OS_SYNCGROUP_SLOTS = 8;

// ---------------------------------------------------------------------------------------------- what is referred to

class OsSyncCounted
{
public:
    OsSyncCounted() = default;
    OsSyncCounted(const OsSyncCounted&) = delete;
    OsSyncCounted& operator=(const OsSyncCounted&) = delete;

    void Add() { m_u32References.fetch_add(1, std::memory_order_relaxed); }
    bool IsLast()   // nobody can add to the only reference
    {
        return m_u32References.load(std::memory_order_acquire) == 1 ||
               m_u32References.fetch_sub(1, std::memory_order_acq_rel) == 1;
    }

protected:
    ~OsSyncCounted() = default;

private:
    std::atomic<uint32_t> m_u32References = 0;
};

// Refers to one object or to none. The object is deleted with its last reference.
template <class Object>
class OsSyncReference
{
public:
    OsSyncReference() = default;
    explicit OsSyncReference(Object* a_pobject) : m_pobject(a_pobject)
    {
        if (m_pobject)
            m_pobject->Add();
    }
    OsSyncReference(const OsSyncReference& a_reference) : OsSyncReference(a_reference.m_pobject) {}
    OsSyncReference(OsSyncReference&& a_reference) noexcept : m_pobject(std::exchange(a_reference.m_pobject, nullptr))
    {
    }
    OsSyncReference& operator=(OsSyncReference a_reference) noexcept
    {
        std::swap(m_pobject, a_reference.m_pobject);
        return *this;
    }
    ~OsSyncReference()
    {
        if (m_pobject && m_pobject->IsLast())
            delete m_pobject;
    }

    Object* operator->() const { return m_pobject; }
    Object* Get() const { return m_pobject; }
    explicit operator bool() const { return m_pobject != nullptr; }
    bool operator==(const OsSyncReference& a_reference) const { return m_pobject == a_reference.m_pobject; }

private:
    Object* m_pobject = nullptr;
};

// A handle that is closed with its last reference.
struct OsSyncHandle final : OsSyncCounted
{
    explicit OsSyncHandle(PlatHandle a_plathandle, uint64_t a_u64ProcessId = 0)
        : plathandle(a_plathandle), u64ProcessId(a_u64ProcessId)
    {
    }
    ~OsSyncHandle();

    const PlatHandle plathandle;
    const uint64_t u64ProcessId;   // of a watched process
};

// Wakes all waits at once that are on their way then. Who waits takes the bell first and looks at everything else after
// that, so that it either hears of a change or sees it.
class OsSyncBell
{
public:
    OsSyncReference<OsSyncHandle> Take();   // none until somebody needed one
    bool Hang();                            // false when the system gives none
    void Ring();

private:
    std::atomic<bool> m_blHung = false;
    uint64_t m_u64Lock = 0;
    OsSyncReference<OsSyncHandle> m_ossynchandle;
};

// One event from its creation or opening to its close.
struct OsSyncEvent final : OsSyncCounted
{
    OsSyncEvent(PlatHandle a_plathandle, const char* a_szName);
    ~OsSyncEvent();

    const PlatHandle plathandle;
    std::atomic<bool> blClosed = false;   // set before its bell, or its group's, is rung
    OsSyncBell bell;                      // of an event without a group
    char szName[OS_PATHSIZE];             // as the caller wrote it
};

// The events of one group that this process has registered; another process cannot wait for them, nor this one for
// others'.
struct OsSyncGroup final : OsSyncCounted
{
    explicit OsSyncGroup(const char* a_szPath);
    uint32_t Events(OsSyncReference<OsSyncEvent>* a_aossyncevent) const;   // copies them in slot order; how many

    OsSyncReference<OsSyncEvent> aossyncevent[OS_SYNCGROUP_SLOTS];   // by slot; under the lock of the list of groups
    OsSyncBell bell;
    OsSyncGroup* possyncgroupNext = nullptr;
    char szPath[OS_PATHSIZE];   // of its file
};

enum class OsSyncJoin
{
    Joined,
    Refused,      // the file cannot be read or written
    Mismatched,   // it is another one's
    Full,
};

// An event's place in a group: a slot of its file, which is this event's for as long as the open file is.
class OsSyncMembership
{
public:
    OsSyncMembership() = default;
    ~OsSyncMembership() { Leave(); }
    OsSyncMembership(const OsSyncMembership&) = delete;
    OsSyncMembership& operator=(const OsSyncMembership&) = delete;

    // False, and logged, with nothing joined.
    bool Join(const OsSyncReference<OsSyncEvent>& a_ossyncevent, const char* a_szGroup);
    void Leave();
    void Swap(OsSyncMembership& a_ossyncmembership);

    const OsSyncReference<OsSyncGroup>& Group() const { return m_ossyncgroup; }

private:
    bool Open(const char16_t* a_wszPath);
    OsSyncJoin TakeSlot(const OsSyncReference<OsSyncEvent>& a_ossyncevent,
                        const OsSyncReference<OsSyncGroup>& a_ossyncgroup, uint64_t* a_pu64Size);
    void GiveSlotBack(const OsSyncEvent& a_ossyncevent);
    void CloseFile();

    OsSyncReference<OsSyncGroup> m_ossyncgroup;
    PlatHandle m_plathandleFile = 0;   // 0: none
    uint32_t m_u32Slot = 0;
    uint32_t m_u32ProcessId = 0;   // that has joined; a forked child only has a copy
};

// ------------------------------------------------------------------------------------------------------- the object

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

// What a call works with.
struct OsSyncUse
{
    EOSSYNCSTATE eossyncstate;
    EOSSYNCTYPE eossynctype;
    OsSyncReference<OsSyncEvent> ossyncevent;
    OsSyncReference<OsSyncHandle> ossynchandleWatch;
    OsSyncReference<OsSyncGroup> ossyncgroup;

    OsSyncBell& Bell() const { return ossyncgroup ? ossyncgroup->bell : ossyncevent->bell; }
};

// The handles of one look of a wait, in this order: a watched process, the event or every event of its group, the bell.
struct OsSyncWaitList
{
    explicit OsSyncWaitList(const OsSyncUse& a_ossyncuse);   // which must outlive it

    const OsSyncEvent* EventAt(uint32_t a_u32Index) const;   // null for another handle
    bool HasBell() const { return static_cast<bool>(ossynchandleBell); }

    OsSyncReference<OsSyncHandle> ossynchandleBell;
    OsSyncReference<OsSyncEvent> aossyncevent[OS_SYNCGROUP_SLOTS];   // of a group
    const OsSyncEvent* possynceventAlone = nullptr;                  // without a group
    PlatHandle aplathandle[1 + OS_SYNCGROUP_SLOTS + 1];
    uint32_t u32FirstEvent = 0;
    uint32_t u32Events = 0;
    uint32_t u32Count = 0;
};

// The lock holds for the bookkeeping alone, never over a system call or a line in the log.
class COsSyncImpl
{
public:
    EOSSTS EventCreate(const char* a_szName, const char* a_szGroup);
    EOSSTS EventOpen(const char* a_szName);
    EOSSTS EventSet();
    EOSSTS EventWait(uint32_t a_u32Timeout, char* a_szName);
    EOSSTS EventIncludeProcessId(uint64_t a_u64ProcessId);
    void EventClose();

    OsSyncUse Use();
    EOSSYNCTYPE Type();

private:
    bool Take(EOSSYNCSTATE a_eossyncstate, const char* a_szName, const char* a_szGroup);
    bool Publish(OsSyncReference<OsSyncEvent> a_ossyncevent);
    bool JoinGroup(const char* a_szGroup);
    void Watch(const OsSyncReference<OsSyncEvent>& a_ossyncevent, OsSyncReference<OsSyncHandle> a_ossynchandle);
    void Reset();

    EOSSYNCSTATE m_eossyncstate = OS_SYNCSTATE_FREE;
    EOSSYNCNAMING m_eossyncnaming{};
    char m_szName[OS_PATHSIZE]{};   // as the caller wrote it
    char m_szGroup[OS_PATHSIZE]{};
    uint64_t m_u64ProcessId = 0;   // watched
    uint64_t m_u64ThreadId = 0;    // of the thread that created or opened
    EOSSYNCTYPE m_eossynctype = OS_SYNCTYPE_NONE;
    OsSyncReference<OsSyncEvent> m_ossyncevent;
    OsSyncReference<OsSyncHandle> m_ossynchandleWatch;
    OsSyncMembership m_ossyncmembership;
    uint64_t m_u64Lock = 0;
};
static_assert(sizeof(COsSyncImpl) == 1104);
