// os_coslog_call.cpp: the log call: levels, slots, the line.
//
// What does not pass costs a few loads and comparisons. What passes takes the thread's slot; a thread that is inside
// the logger already, on whichever way, drops its line.
#include "os_coslog_impl.h"

#include "os_cosstring.h"
#include "os_scope.h"

#include "plat_process.h"
#include "plat_thread.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <thread>
#include <utility>

static constexpr uint32_t g_u32CheckModeTell = 0x2;

void COsLogImpl::Log(const OsLogCall& a_oslogcall, va_list a_valist)
{
    if (Passes(a_oslogcall))
        LogLine(a_oslogcall, a_valist);
    if (a_oslogcall.u32Level == OS_LOG_CHECK && m_u32CheckMode != 0)
        CheckFailed(a_oslogcall);
}

// -------------------------------------------------------------------------------------------------------- levels

bool COsLogImpl::Passes(const OsLogCall& a_oslogcall)
{
    return Path()->blLogs && LevelPasses(a_oslogcall.u32Level) && FilterPasses(a_oslogcall) && StateAllows();
}

// Logging is suppressed also while another thread does what comes before a first line. Its end is waited for, but not
// from inside the logger, where that thread may wait for this one.
bool COsLogImpl::StateAllows()
{
    int iState = OsLogGetState();
    while (iState == OS_LOGSTATE_SUPPRESSED && m_osloglockFirst.IsHeld())
    {
        if (IsInside() || !m_osloglockFirst.Wait(OS_LOGFIRSTTIMEOUT))
            return false;
        iState = OsLogGetState();
    }
    // The lock may have been let go, and the state with it, after the first look at the state.
    return (iState == OS_LOGSTATE_SUPPRESSED ? OsLogGetState() : iState) == OS_LOGSTATE_ON;
}

bool COsLogImpl::LevelPasses(uint32_t a_u32Level) const
{
    const bool blError = a_u32Level == OS_LOG_ERROR || a_u32Level == OS_LOG_CHECK;
    if (blError)
        return true;
    if (a_u32Level == 32 && !m_blLevel32.load(std::memory_order_relaxed))
        return false;
    if (a_u32Level != OS_LOG_MILESTONE && m_blMilestones.load(std::memory_order_relaxed))
        return false;
    const uint32_t u32WorkingWord = WorkingWord();
    if (u32WorkingWord & OS_LOGFLAG_ONLY8)
        return a_u32Level == 8;
    if (u32WorkingWord & OS_LOGFLAG_ONLYMEMORY)
        return a_u32Level == 0x100 || a_u32Level == 0x1100 || a_u32Level == 0x8100 || a_u32Level == 0x8200;
    return true;
}

// --------------------------------------------------------------------------------------------------------- slots

// Where the thread's slot was last time. Only a place to look first: it may be another thread's, or another logger's.
static thread_local size_t t_sizetSlot = 0;

OsLogSlot* COsLogImpl::FindSlot(uint64_t a_u64ThreadId)
{
    for (size_t sizetTry = 0; sizetTry < OS_LOGSLOTS; ++sizetTry)
    {
        const size_t sizetSlot = (t_sizetSlot + sizetTry) % OS_LOGSLOTS;
        if (m_au64ThreadId[sizetSlot].load(std::memory_order_acquire) == a_u64ThreadId)
        {
            t_sizetSlot = sizetSlot;
            return &m_aoslogslot[sizetSlot];
        }
    }
    return nullptr;
}

bool COsLogImpl::IsInside()
{
    const OsLogSlot* const poslogslot = FindSlot(PlatThreadId());
    return poslogslot && poslogslot->u32Busy.load(std::memory_order_relaxed) == OsLogSlot::OS_INSIDE;
}

OsLogSlot* COsLogImpl::ClaimFree(uint64_t a_u64ThreadId)
{
    for (size_t sizetSlot = 0; sizetSlot < OS_LOGSLOTS; ++sizetSlot)
    {
        uint64_t u64Free = 0;
        if (!m_au64ThreadId[sizetSlot].compare_exchange_strong(u64Free, a_u64ThreadId, std::memory_order_acq_rel))
            continue;
        t_sizetSlot = sizetSlot;
        return &m_aoslogslot[sizetSlot];
    }
    return nullptr;
}

// Claims without a lock, so that a signal handler that logs finds nothing held by the thread that it interrupted.
OsLogSlot* COsLogImpl::ClaimSlot(uint64_t a_u64ThreadId)
{
    if (OsLogSlot* const poslogslot = ClaimFree(a_u64ThreadId))
        return poslogslot;
    ReclaimSlots();
    return ClaimFree(a_u64ThreadId);
}

// Frees the slots of threads that have ended. A slot is marked while it is looked at: its id may be given to a new
// thread at this very moment, which then waits and looks again.
void COsLogImpl::ReclaimSlots()
{
    for (size_t sizetSlot = 0; sizetSlot < OS_LOGSLOTS; ++sizetSlot)
    {
        OsLogSlot& oslogslot = m_aoslogslot[sizetSlot];
        const uint64_t u64ThreadId = m_au64ThreadId[sizetSlot].load(std::memory_order_acquire);
        uint32_t u32Busy = oslogslot.u32Busy.load(std::memory_order_relaxed);
        if (!u64ThreadId || u32Busy == OsLogSlot::OS_RECLAIM || PlatThreadIsAlive(u64ThreadId) ||
            !oslogslot.u32Busy.compare_exchange_strong(u32Busy, OsLogSlot::OS_RECLAIM, std::memory_order_acquire))
            continue;
        const bool blEnded =
            m_au64ThreadId[sizetSlot].load(std::memory_order_relaxed) == u64ThreadId && !PlatThreadIsAlive(u64ThreadId);
        if (blEnded)
        {
            ReleaseFile(std::exchange(oslogslot.poslogfile, nullptr));   // of one that was ended inside a call
            delete[] oslogslot.szBuffer;
            oslogslot.szBuffer = nullptr;
            m_au64ThreadId[sizetSlot].store(0, std::memory_order_release);
        }
        oslogslot.u32Busy.store(blEnded ? OsLogSlot::OS_IDLE : u32Busy, std::memory_order_release);
    }
}

// The thread's slot, taken and with a buffer. Null when the thread is inside already, or when there is no slot or no
// memory for it.
OsLogSlot* COsLogImpl::Enter()
{
    const uint64_t u64ThreadId = PlatThreadId();
    for (;;)
    {
        OsLogSlot* poslogslot = FindSlot(u64ThreadId);
        if (!poslogslot)
            poslogslot = ClaimSlot(u64ThreadId);
        if (!poslogslot)
            return nullptr;

        uint32_t u32Busy = OsLogSlot::OS_IDLE;
        if (!poslogslot->u32Busy.compare_exchange_strong(u32Busy, OsLogSlot::OS_INSIDE, std::memory_order_acquire))
        {
            if (u32Busy == OsLogSlot::OS_INSIDE)
                return nullptr;
            std::this_thread::yield();
            continue;
        }
        std::atomic<uint64_t>& u64Holder = m_au64ThreadId[poslogslot - m_aoslogslot];
        const bool blMine = u64Holder.load(std::memory_order_acquire) == u64ThreadId;
        if (blMine && (poslogslot->szBuffer || SetBuffer(*poslogslot, m_sizetInitialBuffer)))
            return poslogslot;
        poslogslot->u32Busy.store(OsLogSlot::OS_IDLE, std::memory_order_release);
        if (blMine)
        {
            u64Holder.store(0, std::memory_order_release);
            return nullptr;
        }
    }
}

// A failed check inside the logger has asked for a flush: it is done while the thread still counts as inside.
void COsLogImpl::Leave(OsLogSlot& a_oslogslot)
{
    ReleaseFile(a_oslogslot.poslogfile);
    a_oslogslot.poslogfile = nullptr;
    if (a_oslogslot.blFlushWanted.exchange(false))
        FlushKept();
    a_oslogslot.u32Busy.store(OsLogSlot::OS_IDLE, std::memory_order_release);
}

// The buffer is not a tracked allocation: the tracker logs.
bool COsLogImpl::SetBuffer(OsLogSlot& a_oslogslot, size_t a_sizetBuffer)
{
    char* const szBuffer = new (std::nothrow) char[a_sizetBuffer];
    if (!szBuffer)
        return false;
    delete[] a_oslogslot.szBuffer;
    a_oslogslot.szBuffer = szBuffer;
    a_oslogslot.sizetBuffer = a_sizetBuffer;
    return true;
}

// ------------------------------------------------------------------------------------------------------ the line

void COsLogImpl::LogLine(const OsLogCall& a_oslogcall, va_list a_valist)
{
    const OsLogKeepError oslogkeeperror;
    OsLogSlot* const poslogslot = Enter();
    if (!poslogslot)
        return;
    const ScopeGuard leave([this, poslogslot] { Leave(*poslogslot); });

    poslogslot->u32LastError = oslogkeeperror.Error();
    poslogslot->u32Line = a_oslogcall.u32Line;
    poslogslot->u32Level = a_oslogcall.u32Level;
    poslogslot->poslogpath = Path();
    poslogslot->sizetSource = OsLogSourceName(poslogslot->achSource, a_oslogcall.szFile);
    poslogslot->osloglinetime.Take();
    if (Prepare(*poslogslot))
        WriteLine(*poslogslot, a_oslogcall.szFormat, a_valist);
}

// Everything that has to be so before the line is formatted. False: the line is dropped.
bool COsLogImpl::Prepare(OsLogSlot& a_oslogslot)
{
    if (WorkingWord() & OS_LOGFLAG_FLUSH)
    {
        m_u32WorkingWord.fetch_and(~OS_LOGFLAG_FLUSH);
        m_blFlushEvery = true;
    }
    return IsPrepared(*a_oslogslot.poslogpath) ? Open(a_oslogslot) : PrepareFirst(a_oslogslot);
}

bool COsLogImpl::IsPrepared(const OsLogPath& a_oslogpath) const
{
    return m_blFolderFound.load(std::memory_order_relaxed) && !m_blRedirectPending.load(std::memory_order_relaxed) &&
           !a_oslogpath.blHeaderPending.load(std::memory_order_acquire);
}

bool COsLogImpl::PrepareFirst(OsLogSlot& a_oslogslot)
{
    const OsLogGuard oslogguard(m_osloglockFirst, OS_LOGFIRSTTIMEOUT);
    if (!oslogguard.Held() || !FolderIsThere(a_oslogslot))
        return false;
    a_oslogslot.poslogpath = Path();
    Redirect(a_oslogslot);
    return Open(a_oslogslot) && WriteHeaderIfPending(a_oslogslot);
}

// The message is formatted where the longest prefix would end, then the prefix is put right before it. So the number
// is taken last, and a line that cannot be formatted takes none.
void COsLogImpl::WriteLine(OsLogSlot& a_oslogslot, const char* a_szFormat, va_list a_valist)
{
    size_t sizetMessage = 0;
    if (!FormatMessage(a_oslogslot, a_szFormat, a_valist, &sizetMessage))
        return;
    char* const szMessage = a_oslogslot.szBuffer + OS_LOGPREFIXMAX;
    szMessage[sizetMessage] = '\r';
    szMessage[sizetMessage + 1] = '\n';

    std::atomic<int32_t>& i32LineCounter = a_oslogslot.poslogpath->i32LineCounter;
    auto i32Number = static_cast<int32_t>(static_cast<uint32_t>(i32LineCounter.fetch_add(1)) + 1);
    char achPrefix[OS_LOGPREFIXMAX];
    const bool blDeterministic = (WorkingWord() & OS_LOGFLAG_DETERMINISTIC) != 0;
    const size_t sizetPrefix =
        static_cast<size_t>(PutPrefix(achPrefix, a_oslogslot, i32Number, blDeterministic) - achPrefix);
    char* const pchLine = szMessage - sizetPrefix;
    std::memcpy(pchLine, achPrefix, sizetPrefix);

    if (!WriteOut(a_oslogslot, pchLine, sizetPrefix + sizetMessage + 2))
        i32LineCounter.compare_exchange_strong(i32Number, i32Number - 1);
}

// Deterministic: what differs from run to run is 0.
char* COsLogImpl::PutPrefix(char* a_pch, const OsLogSlot& a_oslogslot, int32_t a_i32Number,
                            bool a_blDeterministic) const
{
    OsLogLinePrefix osloglineprefix = {a_i32Number,
                                       a_oslogslot.osloglinetime.ostimerecord,
                                       a_oslogslot.osloglinetime.u32Microseconds,
                                       a_oslogslot.achSource,
                                       a_oslogslot.sizetSource,
                                       a_oslogslot.u32Line,
                                       a_oslogslot.u32LastError,
                                       PlatThreadId(),
                                       m_u8S,
                                       a_oslogslot.u32Level};
    if (a_blDeterministic)
    {
        osloglineprefix.i32Number = 0;
        osloglineprefix.ostimerecord = {};
        osloglineprefix.u32LastError = 0;
    }
    return OsLogPutPrefix(a_pch, osloglineprefix);
}

bool COsLogImpl::FormatMessage(OsLogSlot& a_oslogslot, const char* a_szFormat, va_list a_valist, size_t* a_psizetLength)
{
    const auto format = [&] {
        return OsFormat(a_oslogslot.szBuffer + OS_LOGPREFIXMAX, a_oslogslot.sizetBuffer - OS_LOGPREFIXMAX, a_szFormat,
                        a_valist);
    };
    const int iLength = format();
    if (iLength < 0)
    {
        LogTellFormatFailed("LogSStrPrintf", a_oslogslot.szBuffer, a_oslogslot.sizetBuffer, a_szFormat);
        return false;
    }
    *a_psizetLength = static_cast<size_t>(iLength);
    if (*a_psizetLength + OS_LOGMARGIN < a_oslogslot.sizetBuffer)
        return true;
    if (!SetBuffer(a_oslogslot, *a_psizetLength + OS_LOGMARGIN + OS_LOGGROWTH))
    {
        OsLogSetState(OS_LOGSTATE_OFF);
        return false;
    }
    // A text that another thread changes meanwhile may have grown: it is cut at the room that was made for it.
    *a_psizetLength = std::min(static_cast<size_t>(std::max(format(), 0)), *a_psizetLength);
    return true;
}

// ------------------------------------------------------------------------------------------------- failed checks

// Runs for every failed check, also when its line was dropped. Inside the logger the flush is left to the call that
// is under way.
void COsLogImpl::CheckFailed(const OsLogCall& a_oslogcall)
{
    const OsLogKeepError oslogkeeperror;
    if (WorkingWord() != 0 && (m_u32CheckMode & g_u32CheckModeTell))
    {
        LogTellStandardError("<%s> <%d> <%s>\r\n", a_oslogcall.szFile, static_cast<int>(a_oslogcall.u32Line),
                             a_oslogcall.szFormat);
    }
    OsLogSlot* const poslogslot = FindSlot(PlatThreadId());
    uint32_t u32Busy = OsLogSlot::OS_IDLE;
    const bool blEntered = poslogslot && poslogslot->u32Busy.compare_exchange_strong(u32Busy, OsLogSlot::OS_INSIDE);
    if (blEntered)
    {
        FlushKept();
        Leave(*poslogslot);
    }
    else if (poslogslot && u32Busy == OsLogSlot::OS_INSIDE)
    {
        poslogslot->blFlushWanted = true;
    }
    else
    {
        FlushKept();
    }
}
