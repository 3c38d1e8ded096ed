// os_cossync_impl.h: the internals of the event object, shared by its two sources.
//
// Objects shared by threads are reference counted: an event, a watched process, a group. A call copies the references
// it needs under the object's lock and works without it; the last release closes. So a wait never uses a closed handle.
#pragma once

#include "os_cosspinlock.h"
#include "os_types.h"

#include "plat_types.h"

#include <atomic>
#include <utility>

inline constexpr uint32_t OS_SYNCGROUP_SLOTS = 8;

// ---------------------------------------------------------------------------------------- reference counted objects

class OsSyncCounted
{
public:
    OsSyncCounted() = default;
    OsSyncCounted(const OsSyncCounted&) = delete;
    OsSyncCounted& operator=(const OsSyncCounted&) = delete;

    void Add() { m_u32References.fetch_add(1, std::memory_order_relaxed); }
    bool IsLast()   // no other thread can add to the only reference
    {
        return m_u32References.load(std::memory_order_acquire) == 1 ||
               m_u32References.fetch_sub(1, std::memory_order_acq_rel) == 1;
    }

protected:
    ~OsSyncCounted() = default;

private:
    std::atomic<uint32_t> m_u32References = 0;
};

// A reference to one object or none. The object is deleted with its last reference.
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

// A handle, closed with its last reference.
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

// Wakes all current waits at once. A wait takes the bell before it checks anything else, so that it is either woken by
// a change or sees it.
class OsSyncBell
{
public:
    OsSyncReference<OsSyncHandle> Take();   // none until Hang has created one
    bool Hang();                            // creates it; false when the system has none
    void Ring();

private:
    std::atomic<bool> m_blHung = false;
    uint64_t m_u64Lock = 0;
    OsSyncReference<OsSyncHandle> m_ossynchandle;
};

// One event, from its creation or opening to its close.
struct OsSyncEvent final : OsSyncCounted
{
    OsSyncEvent(PlatHandle a_plathandle, const char* a_szName);
    ~OsSyncEvent();

    const PlatHandle plathandle;
    std::atomic<bool> blClosed = false;   // set before its bell, or its group's, is rung
    OsSyncBell bell;                      // of an event without a group
    char szName[OS_PATHSIZE];             // as the caller passed it
};

// The events of one group that this process has registered. A process can wait only for its own events.
struct OsSyncGroup final : OsSyncCounted
{
    explicit OsSyncGroup(const char* a_szPath);
    uint32_t Events(OsSyncReference<OsSyncEvent>* a_aossyncevent) const;   // copied in slot order; returns how many

    OsSyncReference<OsSyncEvent> aossyncevent[OS_SYNCGROUP_SLOTS];   // by slot; guarded by the list's lock
    OsSyncBell bell;
    OsSyncGroup* possyncgroupNext = nullptr;
    char szPath[OS_PATHSIZE];   // of its file
};

enum class OsSyncJoin
{
    Joined,
    Refused,      // the file cannot be read or written
    Mismatched,   // it belongs to another group
    Full,
};

// An event's registration in a group: a slot of its file, reserved as long as the file is open.
class OsSyncMembership
{
public:
    OsSyncMembership() = default;
    ~OsSyncMembership() { Leave(); }
    OsSyncMembership(const OsSyncMembership&) = delete;
    OsSyncMembership& operator=(const OsSyncMembership&) = delete;

    // False, logged and with nothing registered, on failure.
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
    uint32_t m_u32ProcessId = 0;   // the process that joined; a forked child only has a copy
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
    OS_SYNCTYPE_MUTEX = 2,   // never created
};

// A wait's result, plus the index, for an abandoned mutex; this system has none.
inline constexpr uint32_t OS_WAIT_ABANDONED = 128;

// The references that a call uses.
struct OsSyncUse
{
    EOSSYNCSTATE eossyncstate;
    EOSSYNCTYPE eossynctype;
    OsSyncReference<OsSyncEvent> ossyncevent;
    OsSyncReference<OsSyncHandle> ossynchandleWatch;
    OsSyncReference<OsSyncGroup> ossyncgroup;

    OsSyncBell& Bell() const { return ossyncgroup ? ossyncgroup->bell : ossyncevent->bell; }
};

// The handles of one wait, in this order: a watched process, the event or every event of its group, the bell.
struct OsSyncWaitList
{
    explicit OsSyncWaitList(const OsSyncUse& a_ossyncuse);   // which must outlive this

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

// The lock guards the members only; it is never held across a system call or a log call.
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
    char m_szName[OS_PATHSIZE]{};   // as the caller passed it
    char m_szGroup[OS_PATHSIZE]{};
    uint64_t m_u64ProcessId = 0;   // watched
    uint64_t m_u64ThreadId = 0;    // of the thread that created or opened the event
    EOSSYNCTYPE m_eossynctype = OS_SYNCTYPE_NONE;
    OsSyncReference<OsSyncEvent> m_ossyncevent;
    OsSyncReference<OsSyncHandle> m_ossynchandleWatch;
    OsSyncMembership m_ossyncmembership;
    uint64_t m_u64Lock = 0;
};
static_assert(sizeof(COsSyncImpl) == 1104);
