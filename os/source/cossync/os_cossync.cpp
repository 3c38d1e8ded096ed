// os_cossync.cpp: the event object: the public side, reference counted objects, create and open, set and wait, close.
// The group of an event is in os_cossync_group.cpp.
#include "os_cossync.h"

#include "os_cossync_impl.h"

#include "os_coslocale.h"
#include "os_cosstring.h"
#include "os_log.h"
#include "os_new.h"

#include "plat_process.h"
#include "plat_system.h"
#include "plat_thread.h"
#include "plat_wait.h"

#include <algorithm>
#include <iterator>
#include <new>
#include <type_traits>

static constexpr char g_szSource[] = "os/source/os_cossync";

static_assert(std::is_same_v<OSHANDLE, PlatHandle> && OS_INVALID == PLAT_INVALID && OS_INFINITE == PLAT_INFINITE);

static constexpr char g_szNamespace[] = "Global\\";
static constexpr uint32_t g_u32SliceWithoutBell = 20;   // ms

// ------------------------------------------------------------------------------------------------ the public object

static bool Usable(const COsSyncImpl* a_possyncimpl)
{
    if (!a_possyncimpl)
        OSLOG(OS_LOG_CHECK, "sync>>> m_possyncimpl is null...");
    return a_possyncimpl != nullptr;
}

COsSync::COsSync() : m_possyncimpl(OSMEMNEW(COsSyncImpl)) {}

COsSync::~COsSync()
{
    EventClose();
    OSMEMDELETE(m_possyncimpl);
}

EOSSTS COsSync::EventCreate(const char* a_szName, const char* a_szGroup)
{
    return Usable(m_possyncimpl) ? m_possyncimpl->EventCreate(a_szName, a_szGroup) : EOSSTS_FAIL;
}

EOSSTS COsSync::EventOpen(const char* a_szName)
{
    return Usable(m_possyncimpl) ? m_possyncimpl->EventOpen(a_szName) : EOSSTS_FAIL;
}

EOSSTS COsSync::EventSet()
{
    return Usable(m_possyncimpl) ? m_possyncimpl->EventSet() : EOSSTS_FAIL;
}

EOSSTS COsSync::EventWait(uint32_t a_u32Timeout, char* a_szName)
{
    return Usable(m_possyncimpl) ? m_possyncimpl->EventWait(a_u32Timeout, a_szName) : EOSSTS_FAIL;
}

EOSSTS COsSync::EventIncludeProcessId(uint64_t a_u64ProcessId)
{
    return Usable(m_possyncimpl) ? m_possyncimpl->EventIncludeProcessId(a_u64ProcessId) : EOSSTS_FAIL;
}

void COsSync::EventClose()
{
    if (!Usable(m_possyncimpl))
        return;
    if (const EOSSYNCTYPE eossynctype = m_possyncimpl->Type();
        eossynctype != OS_SYNCTYPE_NONE && eossynctype != OS_SYNCTYPE_EVENT)
    {
        OSLOG(OS_LOG_CHECK, "sync>>> not an event...%d", static_cast<int>(eossynctype));
        return;
    }
    m_possyncimpl->EventClose();
}

PlatHandle COsSync::EventHandle() const
{
    if (!Usable(m_possyncimpl))
        return PLAT_INVALID;
    const OsSyncUse ossyncuse = m_possyncimpl->Use();
    return ossyncuse.ossyncevent ? ossyncuse.ossyncevent->plathandle : PLAT_INVALID;
}

// ---------------------------------------------------------------------------------------- reference counted objects

OsSyncHandle::~OsSyncHandle()
{
    PlatClose(plathandle);
}

OsSyncEvent::OsSyncEvent(PlatHandle a_plathandle, const char* a_szName) : plathandle(a_plathandle)
{
    SStrCpy(szName, sizeof szName, a_szName ? a_szName : "");
}

OsSyncEvent::~OsSyncEvent()
{
    PlatClose(plathandle);
}

OsSyncReference<OsSyncHandle> OsSyncBell::Take()
{
    if (!m_blHung)
        return {};
    const COsSpinGuard spinguard(&m_u64Lock);
    return m_ossynchandle;
}

bool OsSyncBell::Hang()
{
    const PlatHandle plathandle = PlatEventCreate(PLAT_RESET_MANUAL, nullptr);
    if (plathandle == PLAT_INVALID)
        return false;
    OsSyncReference<OsSyncHandle> ossynchandle(new (std::nothrow) OsSyncHandle(plathandle));
    if (!ossynchandle)
    {
        PlatClose(plathandle);
        return false;
    }
    const COsSpinGuard spinguard(&m_u64Lock);
    if (!m_ossynchandle)
        std::swap(m_ossynchandle, ossynchandle);
    m_blHung = true;
    return true;
}

void OsSyncBell::Ring()
{
    if (!m_blHung)
        return;
    OsSyncReference<OsSyncHandle> ossynchandle;
    {
        const COsSpinGuard spinguard(&m_u64Lock);
        std::swap(m_ossynchandle, ossynchandle);
        m_blHung = false;
    }
    if (ossynchandle)
        PlatEventSet(ossynchandle->plathandle);
}

EOSSYNCTYPE COsSyncImpl::Type()
{
    const COsSpinGuard spinguard(&m_u64Lock);
    return m_eossynctype;
}

OsSyncUse COsSyncImpl::Use()
{
    const COsSpinGuard spinguard(&m_u64Lock);
    return {m_eossyncstate, m_eossynctype, m_ossyncevent, m_ossynchandleWatch, m_ossyncmembership.Group()};
}

// --------------------------------------------------------------------------------------------------- create and open

static bool IsEmpty(const char* a_szText)
{
    return !a_szText || !*a_szText;
}

static const char* OrNull(const char* a_szText)
{
    return a_szText ? a_szText : "null";
}

// Creates the event's system object, or opens it: the last error is then PLAT_ERROR_ALREADYEXISTS.
static OsSyncReference<OsSyncEvent> MakeEvent(const char* a_szName)
{
    char16_t wszName[OS_PATHSIZE + std::size(g_szNamespace)];
    if (!IsEmpty(a_szName))
    {
        char szName[std::size(wszName)];
        SStrPrintf(szName, sizeof szName, "%s%s", StrStartsWith(a_szName, g_szNamespace) ? "" : g_szNamespace,
                   a_szName);
        if (!CopyStringFromUtf8(wszName, std::size(wszName), szName))
            return {};
    }
    const PlatHandle plathandle = PlatEventCreate(PLAT_RESET_AUTO, IsEmpty(a_szName) ? nullptr : wszName);
    if (plathandle == PLAT_INVALID)
        return {};
    OsSyncReference<OsSyncEvent> ossyncevent(new (std::nothrow) OsSyncEvent(plathandle, a_szName));
    if (!ossyncevent)
        PlatClose(plathandle);
    return ossyncevent;
}

EOSSTS COsSyncImpl::EventCreate(const char* a_szName, const char* a_szGroup)
{
    OSLOG(OS_LOG_NOTE, "sync>>> Create(%s,%s,%s,%d)", "Event", OrNull(a_szName), OrNull(a_szGroup), 0);
    if (IsEmpty(a_szName) && !IsEmpty(a_szGroup))
    {
        OSLOG(OS_LOG_CHECK, "sync>>> cannot specify a group for an unnamed event...");
        return EOSSTS_FAIL;
    }
    if (!Take(OS_SYNCSTATE_CREATED, a_szName, a_szGroup))
        return EOSSTS_FAIL;

    if (!Publish(MakeEvent(a_szName)))
        return EOSSTS_FAIL;
    if (!IsEmpty(a_szGroup) && !JoinGroup(a_szGroup))
    {
        EventClose();
        return EOSSTS_FAIL;
    }
    PlatSetLastError(PLAT_ERROR_NONE);
    return EOSSTS_SUCCESS;
}

EOSSTS COsSyncImpl::EventOpen(const char* a_szName)
{
    OSLOG(OS_LOG_NOTE, "sync>>> Open(%s,%s)", "Event", OrNull(a_szName));
    if (IsEmpty(a_szName))
    {
        OSLOG(OS_LOG_CHECK, "sync>>> a_szName is null or empty...");
        return EOSSTS_FAIL;
    }
    if (!Take(OS_SYNCSTATE_OPENED, a_szName, nullptr))
        return EOSSTS_FAIL;

    PlatSetLastError(PLAT_ERROR_NONE);
    OsSyncReference<OsSyncEvent> ossyncevent = MakeEvent(a_szName);
    const bool blExisted = PlatGetLastError() == PLAT_ERROR_ALREADYEXISTS;
    if (!Publish(std::move(ossyncevent)))
        return EOSSTS_NOTFOUND;
    if (!blExisted)
    {
        OSLOG(OS_LOG_ERROR, "sync>>> CreateEvent failed...");
        EventClose();
        return EOSSTS_NOTFOUND;
    }
    PlatSetLastError(PLAT_ERROR_NONE);
    return EOSSTS_SUCCESS;
}

// Claims the object and stores its names; no other thread changes it until the event is published. False when it is in
// use, which is logged, or when a name does not fit.
bool COsSyncImpl::Take(EOSSYNCSTATE a_eossyncstate, const char* a_szName, const char* a_szGroup)
{
    const uint64_t u64ThreadId = PlatThreadId();
    bool blFree = false;
    bool blFits = false;
    {
        const COsSpinGuard spinguard(&m_u64Lock);
        blFree = m_eossyncstate == OS_SYNCSTATE_FREE;
        if (blFree)
        {
            m_eossyncstate = a_eossyncstate;
            m_eossynctype = OS_SYNCTYPE_EVENT;
            m_u64ThreadId = u64ThreadId;
            SStrCpy(m_szName, sizeof m_szName, a_szName ? a_szName : "");
            SStrCpy(m_szGroup, sizeof m_szGroup, a_szGroup ? a_szGroup : "");
            m_eossyncnaming = *m_szGroup  ? OS_SYNCNAMING_GROUP
                              : *m_szName ? OS_SYNCNAMING_NAMED
                                          : OS_SYNCNAMING_UNNAMED;
            blFits = IsEmpty(m_szName) == IsEmpty(a_szName) && IsEmpty(m_szGroup) == IsEmpty(a_szGroup);
            if (!blFits)
                Reset();
        }
    }
    if (!blFree)
        OSLOG(OS_LOG_CHECK, "sync>>> this object is already in use...");
    return blFits;
}

// Makes the event usable and closable. False, logged and with the object free again, when there is none.
bool COsSyncImpl::Publish(OsSyncReference<OsSyncEvent> a_ossyncevent)
{
    const bool blEvent = static_cast<bool>(a_ossyncevent);
    {
        const COsSpinGuard spinguard(&m_u64Lock);
        if (blEvent)
        {
            m_ossyncevent = std::move(a_ossyncevent);
        }
        else
        {
            Reset();
        }
    }
    if (!blEvent)
    {
        OSLOG(OS_LOG_ERROR, "sync>>> CreateEvent failed...");
        PlatSetLastError(PLAT_ERROR_NONE);
    }
    return blEvent;
}

bool COsSyncImpl::JoinGroup(const char* a_szGroup)
{
    const OsSyncReference<OsSyncEvent> ossyncevent = Use().ossyncevent;
    OsSyncMembership ossyncmembership;
    if (!ossyncevent || !ossyncmembership.Join(ossyncevent, a_szGroup))
        return false;
    const COsSpinGuard spinguard(&m_u64Lock);
    const bool blOpen = m_ossyncevent == ossyncevent;   // unless another thread has closed it meanwhile
    if (blOpen)
        m_ossyncmembership.Swap(ossyncmembership);
    return blOpen;
}

// ------------------------------------------------------------------------------------------------------ set and wait

static bool IsEvent(const OsSyncUse& a_ossyncuse, uint32_t a_u32Level)
{
    if (a_ossyncuse.eossynctype != OS_SYNCTYPE_EVENT)
        OSLOG(a_u32Level, "sync>>> sync type isn't an event...%d", static_cast<int>(a_ossyncuse.eossynctype));
    return a_ossyncuse.eossynctype == OS_SYNCTYPE_EVENT;
}

static bool IsInUse(const OsSyncUse& a_ossyncuse)
{
    if (a_ossyncuse.eossyncstate == OS_SYNCSTATE_FREE)
        OSLOG(OS_LOG_CHECK, "sync>>> must create/open first...");
    return a_ossyncuse.eossyncstate != OS_SYNCSTATE_FREE;
}

static bool HasHandle(const OsSyncUse& a_ossyncuse)
{
    if (!a_ossyncuse.ossyncevent)
        OSLOG(OS_LOG_ERROR, "sync>>> must create event or mutex first...");
    return static_cast<bool>(a_ossyncuse.ossyncevent);
}

EOSSTS COsSyncImpl::EventSet()
{
    const OsSyncUse ossyncuse = Use();
    if (!IsEvent(ossyncuse, OS_LOG_ERROR) || !IsInUse(ossyncuse))
        return EOSSTS_FAIL;
    if (!ossyncuse.ossyncevent)
    {
        OSLOG(OS_LOG_ERROR, "sync>>> must create event first...");
        return EOSSTS_FAIL;
    }
    if (!PlatEventSet(ossyncuse.ossyncevent->plathandle))
    {
        OSLOG(OS_LOG_ERROR, "sync>>> SetEvent failed...");
        return EOSSTS_FAIL;
    }
    return EOSSTS_SUCCESS;
}

OsSyncWaitList::OsSyncWaitList(const OsSyncUse& a_ossyncuse) : ossynchandleBell(a_ossyncuse.Bell().Take())
{
    if (a_ossyncuse.ossynchandleWatch)
        aplathandle[u32Count++] = a_ossyncuse.ossynchandleWatch->plathandle;
    u32FirstEvent = u32Count;
    if (a_ossyncuse.ossyncgroup)
        u32Events = a_ossyncuse.ossyncgroup->Events(aossyncevent);
    for (uint32_t u32Event = 0; u32Event < u32Events; ++u32Event)
        aplathandle[u32Count++] = aossyncevent[u32Event]->plathandle;
    if (!a_ossyncuse.ossyncgroup)
    {
        possynceventAlone = a_ossyncuse.ossyncevent.Get();
        aplathandle[u32Count++] = possynceventAlone->plathandle;
    }
    if (HasBell())
        aplathandle[u32Count++] = ossynchandleBell->plathandle;
}

const OsSyncEvent* OsSyncWaitList::EventAt(uint32_t a_u32Index) const
{
    const uint32_t u32Event = a_u32Index - u32FirstEvent;
    if (u32Event < u32Events)
        return aossyncevent[u32Event].Get();
    return u32Event == 0 ? possynceventAlone : nullptr;
}

namespace
{
// The rest of a timeout, measured from the first call.
class TimeLeft
{
public:
    explicit TimeLeft(uint32_t a_u32Timeout) : m_u32Timeout(a_u32Timeout) {}

    uint32_t Get()
    {
        if (m_u32Timeout == 0 || m_u32Timeout == OS_INFINITE)
            return m_u32Timeout;
        const uint64_t u64Now = PlatTicks();
        if (m_u64End == 0)
            m_u64End = u64Now + m_u32Timeout;
        return static_cast<uint32_t>(m_u64End > u64Now ? m_u64End - u64Now : 0);
    }

private:
    uint32_t m_u32Timeout;
    uint64_t m_u64End = 0;
};
}   // namespace

// The status of a wait that ended with an event, the watched process, an abandoned mutex or none of these.
static EOSSTS Answer(const OsSyncUse& a_ossyncuse, const OsSyncWaitList& a_ossyncwaitlist, uint32_t a_u32Wait,
                     char* a_szName)
{
    if (a_u32Wait == PLAT_WAIT_TIMEOUT)
        return EOSSTS_TIMEOUT;
    if (a_u32Wait == 0 && a_ossyncuse.ossynchandleWatch)
    {
        OSLOG(OS_LOG_NOTE, "sync>>> our process died...%ld",
              static_cast<long>(a_ossyncuse.ossynchandleWatch->u64ProcessId));
        return EOSSTS_EXITED;
    }
    const OsSyncEvent* const possyncevent = a_ossyncwaitlist.EventAt(a_u32Wait);
    const OsSyncEvent* const possynceventLeft = a_ossyncwaitlist.EventAt(a_u32Wait - OS_WAIT_ABANDONED);
    if (!possyncevent && !possynceventLeft)
    {
        OSLOG(OS_LOG_CHECK, "sync>>> unrecognized return from WaitForSingleObject...%d", static_cast<int>(a_u32Wait));
        return EOSSTS_FAIL;
    }
    if (!possyncevent)
        OSLOG(OS_LOG_ERROR, "sync>>> WaitForSingleObject returned WAIT_ABANDONED...");
    if (a_szName)
        SStrCpy(a_szName, OS_PATHSIZE, (possyncevent ? possyncevent : possynceventLeft)->szName);
    return possyncevent ? EOSSTS_SUCCESS : EOSSTS_EXITED;
}

// The first check needs no bell; one is created when the wait has to block. When the bell rings, an event has been
// closed: this one, which ends the wait, or another of the group, after which the wait continues. Without a descriptor
// for a bell the wait polls.
EOSSTS COsSyncImpl::EventWait(uint32_t a_u32Timeout, char* a_szName)
{
    const OsSyncUse ossyncuse = Use();
    if (!IsEvent(ossyncuse, OS_LOG_CHECK) || !IsInUse(ossyncuse) || !HasHandle(ossyncuse))
        return EOSSTS_FAIL;

    uint32_t u32Slice = 0;   // of a poll without a bell
    for (TimeLeft timeleft(a_u32Timeout);;)
    {
        const OsSyncWaitList ossyncwaitlist(ossyncuse);
        if (ossyncuse.ossyncevent->blClosed)
        {
            OSLOG(OS_LOG_CHECK, "sync>>> the event was closed while it was waited for...");
            return EOSSTS_FAIL;
        }
        const bool blBell = ossyncwaitlist.HasBell();
        const uint32_t u32Left = blBell || u32Slice != 0 ? timeleft.Get() : 0;
        const uint32_t u32Wait = PlatWaitAny(ossyncwaitlist.aplathandle, ossyncwaitlist.u32Count,
                                             blBell ? u32Left : std::min(u32Left, u32Slice));
        const bool blRung = blBell && u32Wait == ossyncwaitlist.u32Count - 1;
        const bool blMore = u32Slice == 0 ? a_u32Timeout != 0 : u32Left > u32Slice;
        const bool blLooked = !blBell && u32Wait == PLAT_WAIT_TIMEOUT && blMore;
        if (!blRung && !blLooked)
            return Answer(ossyncuse, ossyncwaitlist, u32Wait, a_szName);
        if (blLooked && !ossyncuse.Bell().Hang())
            u32Slice = g_u32SliceWithoutBell;
    }
}

EOSSTS COsSyncImpl::EventIncludeProcessId(uint64_t a_u64ProcessId)
{
    const OsSyncUse ossyncuse = Use();
    if (!IsEvent(ossyncuse, OS_LOG_CHECK) || !HasHandle(ossyncuse))
        return EOSSTS_FAIL;
    Watch(ossyncuse.ossyncevent, {});
    if (a_u64ProcessId == 0)
        return EOSSTS_SUCCESS;
    const PlatHandle plathandle = PlatProcessOpen(a_u64ProcessId);
    if (plathandle == PLAT_INVALID)
    {
        OSLOG(OS_LOG_ERROR, "sync>>> OpenProcess failed...%llu", static_cast<unsigned long long>(a_u64ProcessId));
        return EOSSTS_FAIL;
    }
    OsSyncReference<OsSyncHandle> ossynchandle(new (std::nothrow) OsSyncHandle(plathandle, a_u64ProcessId));
    if (!ossynchandle)
    {
        PlatClose(plathandle);
        return EOSSTS_FAIL;
    }
    Watch(ossyncuse.ossyncevent, std::move(ossynchandle));
    return EOSSTS_SUCCESS;
}

// Stores the process handle unless another thread has closed the event meanwhile.
void COsSyncImpl::Watch(const OsSyncReference<OsSyncEvent>& a_ossyncevent, OsSyncReference<OsSyncHandle> a_ossynchandle)
{
    const COsSpinGuard spinguard(&m_u64Lock);
    if (!(m_ossyncevent == a_ossyncevent))
        return;
    m_u64ProcessId = a_ossynchandle ? a_ossynchandle->u64ProcessId : 0;
    std::swap(m_ossynchandleWatch, a_ossynchandle);
}

// ------------------------------------------------------------------------------------------------------------- close

// Called with the lock held and the event and its group already moved out.
void COsSyncImpl::Reset()
{
    m_eossyncstate = OS_SYNCSTATE_FREE;
    m_eossyncnaming = {};
    *m_szName = 0;
    *m_szGroup = 0;
    m_u64ProcessId = 0;
    m_u64ThreadId = 0;
    m_eossynctype = OS_SYNCTYPE_NONE;
}

// Marks the event closed and wakes the waits; its last user closes it. An object that another thread is still creating
// is left to that thread.
void COsSyncImpl::EventClose()
{
    {
        OsSyncReference<OsSyncEvent> ossyncevent;
        OsSyncReference<OsSyncHandle> ossynchandleWatch;
        OsSyncMembership ossyncmembership;
        {
            const COsSpinGuard spinguard(&m_u64Lock);
            if (m_ossyncevent)
                Reset();
            std::swap(m_ossyncevent, ossyncevent);
            std::swap(m_ossynchandleWatch, ossynchandleWatch);
            m_ossyncmembership.Swap(ossyncmembership);
        }
        if (ossyncevent)
        {
            OSLOG(OS_LOG_SYNC, "sync>>> Close...%p (%s)", static_cast<void*>(this), ossyncevent->szName);
            ossyncevent->blClosed = true;
            ossyncevent->bell.Ring();
            ossyncmembership.Leave();
        }
    }
    PlatSetLastError(PLAT_ERROR_NONE);
}
