// os_coslog_call.cpp: the log call: the check whether a line passes, the work before a first line, the line, failed
// checks.
//
// A line that does not pass costs a few loads and comparisons. A line that passes takes the thread's slot; a call from
// within the logger (same thread) is dropped.
#include "os_coslog_format.h"
#include "os_coslog_header.h"
#include "os_coslog_impl.h"

#include "os_cosenv.h"
#include "os_cosfile_system.h"
#include "os_cosstring.h"
#include "os_scope.h"

#include "plat_thread.h"
#include "plat_types.h"

#include <algorithm>
#include <new>

static constexpr char g_szSource[] = "os/source/os_coslog";

static constexpr uint32_t g_u32CheckModeTell = 0x2;
static constexpr uint32_t g_u32LevelsFlushed = 0x51;

void COsLogImpl::Log(const OsLogCall& a_oslogcall, va_list a_valist)
{
    if (Passes(a_oslogcall) && LogLine(a_oslogcall, a_valist) && m_osloghealth.IsOwed())
        TellLost();
    if (a_oslogcall.u32Level == OS_LOG_CHECK && m_u32CheckMode != 0)
        CheckFailed(a_oslogcall);
}

// -------------------------------------------------------------------------------------------------------- levels

bool COsLogImpl::Passes(const OsLogCall& a_oslogcall)
{
    TakeWish();
    return m_oslogdestination.Path()->blLogs && LevelPasses(a_oslogcall.u32Level) && FilterPasses(a_oslogcall) &&
           StateAllows();
}

bool COsLogImpl::FilterPasses(const OsLogCall& a_oslogcall) const
{
    return a_oslogcall.u32Level == OS_LOG_ERROR || m_oslogfilter.Passes(a_oslogcall.szFile);
}

// Logging is also suppressed while another thread prepares a first line. The call waits until that ends, but not from
// inside the logger: the two threads might wait for each other.
bool COsLogImpl::StateAllows()
{
    int iState = OsLogGetState();
    while (iState == OS_LOGSTATE_SUPPRESSED && m_osloglockFirst.IsHeld())
    {
        if (m_oslogslots.IsInside() || m_osloglockFirst.IsOwn())
            return false;
        if (!m_osloglockFirst.Wait(OS_LOGFIRSTTIMEOUT))
        {
            m_osloghealth.Lost(OS_LOGLOST_TIMEOUT);
            return false;
        }
        iState = OsLogGetState();
    }
    if (iState == OS_LOGSTATE_OFF)
        m_osloghealth.LostWhileOff();
    // The lock may have been released, and the state changed, since the state was read.
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

// ------------------------------------------------------------------------------------------------------ the line

// True when the line was written or sent.
bool COsLogImpl::LogLine(const OsLogCall& a_oslogcall, va_list a_valist)
{
    const OsLogKeepError oslogkeeperror;
    const PlatThreadDeferral platthreaddeferral;
    EOSLOGLOST eosloglost = OS_LOGLOST_LAST;
    OsLogSlot* const poslogslot = m_oslogslots.Enter(m_sizetInitialBuffer, eosloglost);
    if (!poslogslot)
    {
        if (eosloglost != OS_LOGLOST_LAST)
            m_osloghealth.Lost(eosloglost);
        return false;
    }
    const ScopeGuard leave([this, poslogslot] { Leave(*poslogslot); });

    Describe(*poslogslot, a_oslogcall, oslogkeeperror.Error());
    return Prepare(*poslogslot) && WriteLine(*poslogslot, a_oslogcall.szFormat, a_valist);
}

void COsLogImpl::Describe(OsLogSlot& a_oslogslot, const OsLogCall& a_oslogcall, uint32_t a_u32LastError)
{
    if (WorkingWord() & OS_LOGFLAG_FLUSH)
    {
        m_u32WorkingWord.fetch_and(~OS_LOGFLAG_FLUSH);
        m_blFlushEvery = true;
    }
    a_oslogslot.u32LastError = a_u32LastError;
    a_oslogslot.u32Line = a_oslogcall.u32Line;
    a_oslogslot.u32Level = a_oslogcall.u32Level;
    a_oslogslot.blFlush = m_blFlushEvery.load(std::memory_order_relaxed) || (a_oslogcall.u32Level & g_u32LevelsFlushed);
    a_oslogslot.blDeterministic = false;
    a_oslogslot.poslogpath = m_oslogdestination.Path();
    a_oslogslot.sizetSource = OsLogSourceName(a_oslogslot.achSource, a_oslogcall.szFile);
    a_oslogslot.osloglinetime.Take();
}

bool COsLogImpl::WriteLine(OsLogSlot& a_oslogslot, const char* a_szFormat, va_list a_valist)
{
    if (const EOSLOGLOST eosloglost = FormatMessage(a_oslogslot, a_szFormat, a_valist); eosloglost != OS_LOGLOST_LAST)
    {
        m_osloghealth.Lost(eosloglost);
        return false;
    }
    char* const szMessage = a_oslogslot.Message();
    szMessage[a_oslogslot.sizetMessage++] = '\r';
    szMessage[a_oslogslot.sizetMessage++] = '\n';
    a_oslogslot.blDeterministic = (WorkingWord() & OS_LOGFLAG_DETERMINISTIC) != 0;
    return m_oslogdestination.Write(a_oslogslot);
}

// Returns OS_LOGLOST_LAST when the message was formatted. Without memory logging is switched off.
EOSLOGLOST COsLogImpl::FormatMessage(OsLogSlot& a_oslogslot, const char* a_szFormat, va_list a_valist)
{
    const auto format = [&] { return OsFormat(a_oslogslot.Message(), a_oslogslot.sizetBuffer, a_szFormat, a_valist); };
    const int iLength = format();
    if (iLength < 0)
    {
        LogTellFormatFailed("LogSStrPrintf", a_oslogslot.szBuffer, a_oslogslot.sizetBuffer, a_szFormat);
        return OS_LOGLOST_FORMAT;
    }
    const auto sizetLength = static_cast<size_t>(iLength);
    a_oslogslot.sizetMessage = sizetLength;
    if (sizetLength + OS_LOGMARGIN < a_oslogslot.sizetBuffer)
        return OS_LOGLOST_LAST;
    if (!a_oslogslot.SetBuffer(sizetLength + OS_LOGMARGIN + OS_LOGGROWTH))
    {
        m_osloghealth.GoneOff(OS_LOGLOST_MEMORY);
        OsLogSetState(OS_LOGSTATE_OFF);
        return OS_LOGLOST_MEMORY;
    }
    // Another thread may have lengthened a text argument meanwhile: the message is cut at the allocated size.
    a_oslogslot.sizetMessage = std::min(static_cast<size_t>(std::max(format(), 0)), sizetLength);
    return OS_LOGLOST_LAST;
}

// A failed check inside the logger requested a flush: it is done while the thread is still marked as inside.
void COsLogImpl::Leave(OsLogSlot& a_oslogslot)
{
    COsLogDestination::Close(a_oslogslot);
    if (a_oslogslot.blFlushWanted.exchange(false))
        m_oslogdestination.FlushKept();
    m_oslogslots.Leave(a_oslogslot);
}

// Logs the losses as a line of its own, after the first line that was written. If it is lost too, the losses are
// reported later.
void COsLogImpl::TellLost()
{
    char szLost[OS_PATHSIZE];
    if (m_oslogslots.IsInside() || !m_osloghealth.TakeOwed(szLost, sizeof szLost))
        return;
    const uint64_t u64Written = m_osloghealth.Tell().u64Written;
    OSLOG(OS_LOG_ERROR, "lines were lost...%s", szLost);
    m_osloghealth.Settle(m_osloghealth.Tell().u64Written != u64Written);
}

// ------------------------------------------------------------------------------------------------- before the line

// Does what must be done before the line is formatted. False: the line is dropped.
bool COsLogImpl::Prepare(OsLogSlot& a_oslogslot)
{
    return IsPrepared(*a_oslogslot.poslogpath) ? Open(a_oslogslot) : PrepareFirst(a_oslogslot);
}

bool COsLogImpl::IsPrepared(const OsLogPath& a_oslogpath) const
{
    return m_blFolderFound.load(std::memory_order_relaxed) && !m_blRedirectPending.load(std::memory_order_relaxed) &&
           !a_oslogpath.blHeaderPending.load(std::memory_order_acquire);
}

bool COsLogImpl::Open(OsLogSlot& a_oslogslot)
{
    if (m_osloghold.IsWanted())
        m_osloghold.TryAgain();
    return m_oslogdestination.Open(a_oslogslot);
}

bool COsLogImpl::PrepareFirst(OsLogSlot& a_oslogslot)
{
    const OsLogGuard oslogguard(m_osloglockFirst, OS_LOGFIRSTTIMEOUT);
    if (!oslogguard.Held())
        m_osloghealth.Lost(OS_LOGLOST_TIMEOUT);
    if (!oslogguard.Held() || !FolderIsThere(a_oslogslot))
        return false;
    a_oslogslot.poslogpath = m_oslogdestination.Path();
    Redirect(a_oslogslot);
    COsLogHeader oslogheader(m_oslogdestination, a_oslogslot, {m_u32StartWord, m_oslogfilter.Text()});
    return Open(a_oslogslot) && oslogheader.WriteIfPending();
}

// Checked until the folder has existed once.
bool COsLogImpl::FolderIsThere(const OsLogSlot& a_oslogslot)
{
    if (m_blFolderFound.load(std::memory_order_relaxed))
        return true;
    const COsLogSuppress oslogsuppress;
    if (!oslogsuppress.WasAllowed())
        return false;
    char szFolder[OS_PATHSIZE];
    OsLogFolderOfFile(a_oslogslot.poslogpath->szLogFile, szFolder);
    const bool blFound = !*szFolder || OsFileExists(szFolder);
    if (blFound)
        m_blFolderFound = true;
    else
        m_osloghealth.Lost(OS_LOGLOST_FILE, PLAT_ERROR_PATHNOTFOUND, a_oslogslot.poslogpath->szLogFile);
    return blFound;
}

// MVR_DEBUGDIR names a folder where this run logs into a separate file, named by the time of its first line.
void COsLogImpl::Redirect(OsLogSlot& a_oslogslot)
{
    if (!m_blRedirectPending.load(std::memory_order_relaxed))
        return;
    const COsLogSuppress oslogsuppress;
    char szLogFile[OS_PATHSIZE] = {};
    if (!oslogsuppress.WasAllowed() || !m_blRedirectPending.exchange(false) ||
        OsEnvGet("MVR_DEBUGDIR", "", sizeof szLogFile, szLogFile) != EOSSTS_SUCCESS || !*szLogFile)
        return;
    OsFileCreateDirectory(szLogFile);
    const OsTimeRecord& ostimerecord = a_oslogslot.osloglinetime.ostimerecord;
    const int iLength = SStrCatf(szLogFile, sizeof szLogFile, "\\%.4d%.2d%.2d%.2d%.2d%.2d%.3d.log",
                                 ostimerecord.u16Year, ostimerecord.u16Month, ostimerecord.u16Day, ostimerecord.u16Hour,
                                 ostimerecord.u16Minute, ostimerecord.u16Second, ostimerecord.u16Milliseconds);
    if (iLength < 0)
        return;
    m_oslogdestination.SetPath(szLogFile, a_oslogslot.poslogpath->blHeaderPending,
                               a_oslogslot.poslogpath->i32LineCounter);
    a_oslogslot.poslogpath = m_oslogdestination.Path();
    COsLogStatusOwn::Get().PutLogFile(szLogFile);
    m_osloghold.MoveIntoLogFolder(szLogFile);
}

// ------------------------------------------------------------------------------------------------- failed checks

// Runs for every failed check, even if its line was dropped. Inside the logger the flush is left to the log call in
// progress.
void COsLogImpl::CheckFailed(const OsLogCall& a_oslogcall)
{
    const OsLogKeepError oslogkeeperror;
    const PlatThreadDeferral platthreaddeferral;
    if (WorkingWord() != 0 && (m_u32CheckMode & g_u32CheckModeTell))
    {
        LogTellStandardError("<%s> <%d> <%s>\r\n", a_oslogcall.szFile, static_cast<int>(a_oslogcall.u32Line),
                             a_oslogcall.szFormat);
    }
    OsLogSlot* poslogslotInside = nullptr;
    OsLogSlot* const poslogslot = m_oslogslots.EnterAgain(&poslogslotInside);
    if (poslogslotInside)
    {
        poslogslotInside->blFlushWanted = true;
        return;
    }
    m_oslogdestination.FlushKept();
    if (poslogslot)
        Leave(*poslogslot);
}
