// os_cossync.cpp: the event object: the public side, create and open, set and wait, close. The group of an event is in
// os_cossync_group.cpp.
#include "os_cossync.h"

#include "os_cossync_impl.h"

#include "os_coslocale.h"
#include "os_cosstring.h"
#include "os_log.h"
#include "os_new.h"
#include "os_scope.h"

#include "plat_process.h"
#include "plat_thread.h"
#include "plat_wait.h"

#include <iterator>

static constexpr char g_szSource[] = "os/source/os_cossync";

static constexpr char g_szNamespace[] = "Global\\";

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
    return Usable(m_possyncimpl) ? m_possyncimpl->Handle() : PLAT_INVALID;
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

bool COsSyncImpl::IsFree() const
{
    if (m_eossyncstate != OS_SYNCSTATE_FREE)
        OSLOG(OS_LOG_CHECK, "sync>>> this object is already in use...");
    return m_eossyncstate == OS_SYNCSTATE_FREE;
}

EOSSTS COsSyncImpl::EventCreate(const char* a_szName, const char* a_szGroup)
{
    OSLOG(OS_LOG_NOTE, "sync>>> Create(%s,%s,%s,%d)", "Event", OrNull(a_szName), OrNull(a_szGroup), 0);
    if (IsEmpty(a_szName) && !IsEmpty(a_szGroup))
    {
        OSLOG(OS_LOG_CHECK, "sync>>> cannot specify a group for an unnamed event...");
        return EOSSTS_FAIL;
    }
    if (!IsFree())
        return EOSSTS_FAIL;

    ScopeGuard closeOnFailure([this] { EventClose(); });
    if (!Take(OS_SYNCSTATE_CREATED, a_szName, a_szGroup))
        return EOSSTS_FAIL;
    if (m_plathandle)
    {
        OSLOG(OS_LOG_CHECK, "sync>>> event already created...");
        return EOSSTS_FAIL;
    }
    if (!CreateSystemEvent())
    {
        OSLOG(OS_LOG_ERROR, "sync>>> CreateEvent failed...");
        return EOSSTS_FAIL;
    }
    if (m_eossyncnaming == OS_SYNCNAMING_GROUP && !GroupJoin())
        return EOSSTS_FAIL;
    closeOnFailure.Dismiss();
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
    if (!IsFree())
        return EOSSTS_FAIL;

    ScopeGuard closeOnFailure([this] { EventClose(); });
    if (!Take(OS_SYNCSTATE_OPENED, a_szName, nullptr))
        return EOSSTS_FAIL;
    if (m_plathandle)
    {
        OSLOG(OS_LOG_CHECK, "sync>>> event already opened...");
        return EOSSTS_FAIL;
    }
    PlatSetLastError(PLAT_ERROR_NONE);
    if (!CreateSystemEvent() || PlatGetLastError() != PLAT_ERROR_ALREADYEXISTS)
    {
        OSLOG(OS_LOG_ERROR, "sync>>> CreateEvent failed...");
        return EOSSTS_NOTFOUND;
    }
    closeOnFailure.Dismiss();
    PlatSetLastError(PLAT_ERROR_NONE);
    return EOSSTS_SUCCESS;
}

// Notes what the object becomes. False when a name does not fit.
bool COsSyncImpl::Take(EOSSYNCSTATE a_eossyncstate, const char* a_szName, const char* a_szGroup)
{
    m_eossyncstate = a_eossyncstate;
    m_eossynctype = OS_SYNCTYPE_EVENT;
    m_u64ThreadId = PlatThreadId();
    SStrCpy(m_szName, sizeof m_szName, a_szName ? a_szName : "");
    SStrCpy(m_szGroup, sizeof m_szGroup, a_szGroup ? a_szGroup : "");
    m_eossyncnaming = *m_szGroup ? OS_SYNCNAMING_GROUP : *m_szName ? OS_SYNCNAMING_NAMED : OS_SYNCNAMING_UNNAMED;
    return IsEmpty(m_szName) == IsEmpty(a_szName) && IsEmpty(m_szGroup) == IsEmpty(a_szGroup);
}

// The last error is then PLAT_ERROR_ALREADYEXISTS for a named event that was there.
bool COsSyncImpl::CreateSystemEvent()
{
    char16_t wszName[OS_PATHSIZE + std::size(g_szNamespace)];
    const char16_t* pwszName = nullptr;
    if (*m_szName)
    {
        char szName[std::size(wszName)];
        SStrPrintf(szName, sizeof szName, "%s%s", StrStartsWith(m_szName, g_szNamespace) ? "" : g_szNamespace,
                   m_szName);
        if (!CopyStringFromUtf8(wszName, std::size(wszName), szName))
            return false;
        pwszName = wszName;
    }
    const PlatHandle plathandle = PlatEventCreate(PLAT_RESET_AUTO, pwszName);
    if (plathandle == PLAT_INVALID)
        return false;
    m_plathandle = plathandle;
    return true;
}

// ------------------------------------------------------------------------------------------------------ set and wait

bool COsSyncImpl::IsEvent(uint32_t a_u32Level) const
{
    if (m_eossynctype != OS_SYNCTYPE_EVENT)
        OSLOG(a_u32Level, "sync>>> sync type isn't an event...%d", static_cast<int>(m_eossynctype));
    return m_eossynctype == OS_SYNCTYPE_EVENT;
}

bool COsSyncImpl::IsInUse() const
{
    if (m_eossyncstate == OS_SYNCSTATE_FREE)
        OSLOG(OS_LOG_CHECK, "sync>>> must create/open first...");
    return m_eossyncstate != OS_SYNCSTATE_FREE;
}

bool COsSyncImpl::HasHandle() const
{
    if (!m_plathandle)
        OSLOG(OS_LOG_ERROR, "sync>>> must create event or mutex first...");
    return m_plathandle != 0;
}

EOSSTS COsSyncImpl::EventSet() const
{
    if (!IsEvent(OS_LOG_ERROR) || !IsInUse())
        return EOSSTS_FAIL;
    if (!m_plathandle)
    {
        OSLOG(OS_LOG_ERROR, "sync>>> must create event first...");
        return EOSSTS_FAIL;
    }
    if (!PlatEventSet(m_plathandle))
    {
        OSLOG(OS_LOG_ERROR, "sync>>> SetEvent failed...");
        return EOSSTS_FAIL;
    }
    return EOSSTS_SUCCESS;
}

EOSSTS COsSyncImpl::EventWait(uint32_t a_u32Timeout, char* a_szName) const
{
    if (!IsEvent(OS_LOG_CHECK) || !IsInUse() || !HasHandle())
        return EOSSTS_FAIL;

    OsSyncWaitList ossyncwaitlist;
    if (m_plathandleProcess)
        ossyncwaitlist.Append(m_plathandleProcess);
    if (m_possyncgroupShared)
    {
        GroupAppend(ossyncwaitlist);
    }
    else
    {
        ossyncwaitlist.Append(m_plathandle);
    }

    const uint32_t u32Wait = PlatWaitAny(ossyncwaitlist.aplathandle, ossyncwaitlist.u32Count, a_u32Timeout);
    if (u32Wait == PLAT_WAIT_TIMEOUT)
        return EOSSTS_TIMEOUT;
    if (u32Wait == 0 && m_plathandleProcess)
    {
        OSLOG(OS_LOG_NOTE, "sync>>> our process died...%ld", static_cast<long>(m_u64ProcessId));
        return EOSSTS_EXITED;
    }
    if (u32Wait < ossyncwaitlist.u32Count)
        return NameOf(ossyncwaitlist.aplathandle[u32Wait], a_szName) ? EOSSTS_SUCCESS : EOSSTS_FAIL;
    return WaitEndedOddly(u32Wait, ossyncwaitlist, a_szName);
}

// The answers that no event gives.
EOSSTS COsSyncImpl::WaitEndedOddly(uint32_t a_u32Wait, const OsSyncWaitList& a_ossyncwaitlist, char* a_szName) const
{
    const uint32_t u32Index = a_u32Wait - OS_WAIT_ABANDONED;
    if (u32Index < a_ossyncwaitlist.u32Count)
    {
        OSLOG(OS_LOG_ERROR, "sync>>> WaitForSingleObject returned WAIT_ABANDONED...");
        return NameOf(a_ossyncwaitlist.aplathandle[u32Index], a_szName) ? EOSSTS_EXITED : EOSSTS_FAIL;
    }
    OSLOG(OS_LOG_CHECK, "sync>>> unrecognized return from WaitForSingleObject...%d", static_cast<int>(a_u32Wait));
    return EOSSTS_FAIL;
}

// The name of the event that ended a wait; a_szName may be null.
bool COsSyncImpl::NameOf(PlatHandle a_plathandle, char* a_szName) const
{
    if (a_plathandle == m_plathandle)
    {
        if (a_szName)
            SStrCpy(a_szName, OS_PATHSIZE, m_szName);
        return true;
    }
    if (GroupNameOf(a_plathandle, a_szName))
        return true;
    OSLOG(OS_LOG_CHECK, "sync>>> failed to find event or mutex (this should be impossible)...");
    return false;
}

EOSSTS COsSyncImpl::EventIncludeProcessId(uint64_t a_u64ProcessId)
{
    if (!IsEvent(OS_LOG_CHECK) || !HasHandle())
        return EOSSTS_FAIL;
    Unwatch();
    if (a_u64ProcessId == 0)
        return EOSSTS_SUCCESS;
    const PlatHandle plathandle = PlatProcessOpen(a_u64ProcessId);
    if (plathandle == PLAT_INVALID)
    {
        OSLOG(OS_LOG_ERROR, "sync>>> OpenProcess failed...%llu", static_cast<unsigned long long>(a_u64ProcessId));
        return EOSSTS_FAIL;
    }
    m_u64ProcessId = a_u64ProcessId;
    m_plathandleProcess = plathandle;
    return EOSSTS_SUCCESS;
}

void COsSyncImpl::Unwatch()
{
    if (m_plathandleProcess)
        PlatClose(m_plathandleProcess);
    m_plathandleProcess = 0;
    m_u64ProcessId = 0;
}

// ------------------------------------------------------------------------------------------------------------- close

// Leaves the group first: an event that a wait of the group can find is open.
void COsSyncImpl::EventClose()
{
    if (m_plathandle)
    {
        OSLOG(OS_LOG_SYNC, "sync>>> Close...%p (%s)", static_cast<void*>(this), m_szName);
        GroupLeave();
        PlatClose(m_plathandle);
        Unwatch();
    }
    *this = COsSyncImpl{};
    PlatSetLastError(PLAT_ERROR_NONE);
}
