// os_cosfile_monitor_watch.cpp: how the monitor thread finds a change: the folder's notifications, when to look, the
// look and what follows from it.
//
// The system notifies too much (several times for one write, and for other files) and too little (a time is as coarse
// as the clock that it is taken from, and notifications have limits). So a notification only says when to look: at
// once, or, while somebody writes the file, when he has closed it. What counts is which file the name leads to, its
// size and its time together, once two looks agree that lie further apart than one step of that clock: nobody is in the
// middle of writing then, and what comes later has another time. Without notifications the file is looked at by time.
#include "os_cosfile_monitor_impl.h"

#include "os_cosfile_system.h"
#include "os_coslocale.h"
#include "os_cosstring.h"
#include "os_log.h"
#include "os_scope.h"

#include "plat_system.h"
#include "plat_wait.h"

#include <algorithm>

static constexpr char g_szSource[] = "os/source/os_cosfile";

namespace
{
constexpr uint32_t g_u32Settled = 20;    // ms, like the others: longer than a step of the clock that dates files
constexpr uint32_t g_u32Retry = 100;     // after a look that could not be taken
constexpr uint32_t g_u32ByTime = 1000;   // between two looks without notifications
constexpr uint32_t g_u32InVainLimit = 1000;
constexpr uint32_t g_u32WriterLimit = 3000;   // a writer that has not closed by then is not waited for
constexpr uint64_t g_u64ClockPerMillisecond = 10000;
constexpr uint64_t g_u64Never = UINT64_MAX;
constexpr int g_iChangesAtOnce = 256;

// A look that fails like this tells nothing about the file: it is taken again.
bool IsPassing(uint32_t a_u32Error)
{
    return a_u32Error == PLAT_ERROR_TOOMANYOPEN || a_u32Error == PLAT_ERROR_NOMEMORY ||
           a_u32Error == PLAT_ERROR_SHARING || a_u32Error == PLAT_ERROR_GENFAILURE;
}
}   // namespace

// ----------------------------------------------------------------------------------------------------- one look

// Last written more than a step of the clock before that time.
static bool IsOlder(const OsFileLook& a_look, uint64_t a_u64Clock)
{
    return a_look.platfileidentity.u64WriteTime + g_u32Settled * g_u64ClockPerMillisecond < a_u64Clock;
}

// False when it could not be taken.
bool COsFileMonitor::Examine(OsFileLook* a_plook) const
{
    *a_plook = {};
    PlatSetLastError(PLAT_ERROR_NONE);
    a_plook->blThere = OsFileReadIdentity(m_osfilemonitorstate.szPath, 0, &a_plook->platfileidentity);
    return a_plook->blThere || !IsPassing(PlatGetLastError());
}

// What the file is like when the start is asked for. One that was written just now may be written again within the same
// step of the clock.
void COsFileMonitor::TakeBaseline()
{
    m_u64Started = PlatClock();
    m_blKnown = Examine(&m_look) && m_look.blThere;
    if (!m_blKnown)
        m_osfilemonitorstate.eossts = EOSSTS_NOTFOUND;
    m_blVouched = IsOlder(m_look, m_u64Started);
    for (uint32_t u32Waited = 0; m_blKnown && !m_blVouched && u32Waited < g_u32InVainLimit; u32Waited += g_u32Settled)
    {
        PlatSleep(g_u32Settled);
        OsFileLook look;
        m_blKnown = Examine(&look);
        m_blVouched = look == m_look;
        m_look = look;
    }
}

void COsFileMonitor::LookIn(uint32_t a_u32Milliseconds)
{
    m_u64LookAt = PlatTicks() + a_u32Milliseconds;
}

// Until something is notified.
void COsFileMonitor::Rest()
{
    m_u32Event = 0;
    m_u64LookAt = g_u64Never;
    m_u64WriterLimit = 0;
    m_u64InVainSince = 0;
    m_u64SettleLimit = 0;
    m_blCandidate = false;
}

void COsFileMonitor::LookedInVain(const char* a_szFailed)
{
    const uint64_t u64Now = PlatTicks();
    if (m_u64InVainSince == 0)
        m_u64InVainSince = u64Now;
    const bool blLong = u64Now - m_u64InVainSince >= g_u32InVainLimit;
    if (blLong)
        ReportUnreadable(a_szFailed);
    LookIn(blLong ? g_u32ByTime : g_u32Retry);
}

// A file that was missing at the start, or could not be looked at, tells by its time whether it has changed since.
bool COsFileMonitor::IsChanged(const OsFileLook& a_look)
{
    if (!m_blKnown && a_look.blThere)
    {
        m_blKnown = true;
        m_blVouched = true;
        m_look = IsOlder(a_look, m_u64Started) ? a_look : OsFileLook{};
    }
    return m_blKnown && !(m_blVouched && a_look == m_look);
}

void COsFileMonitor::Look()
{
    OsFileLook look;
    m_u64WriterLimit = 0;
    if (!Examine(&look))
    {
        LookedInVain("GetFileTime");
        return;
    }
    if (!IsChanged(look))
    {
        if (look.blThere)
            m_osfilemonitorstate.eossts = EOSSTS_SUCCESS;
        Rest();
        return;
    }
    const bool blSettled = m_blCandidate && look == m_lookCandidate;
    if (m_u64SettleLimit == 0)
        m_u64SettleLimit = PlatTicks() + g_u32WriterLimit;
    if (!blSettled && PlatTicks() < m_u64SettleLimit)
    {
        m_blCandidate = true;
        m_lookCandidate = look;
        LookIn(m_plathandleFolder == PLAT_INVALID ? g_u32ByTime : g_u32Settled);
        return;
    }
    TakeLook(look, blSettled);
}

// The file is open for the call alone: one that is held open could not be replaced everywhere.
void COsFileMonitor::TakeLook(const OsFileLook& a_look, bool a_blSettled)
{
    if (!a_look.blThere)
    {
        ReportUnreadable("GetFileTime");
        Rest();
        return;
    }
    const ScopeGuard close([this] { CloseWatched(); });
    if (!OpenWatched())
    {
        LookedInVain("CreateFileW");
        return;
    }
    m_osfilemonitorstate.eossts = EOSSTS_SUCCESS;
    if (!Report(m_u32Event))
    {
        LookIn(g_u32Retry);
        return;
    }
    m_look = a_look;
    m_blVouched = a_blSettled;
    Rest();
}

bool COsFileMonitor::OpenWatched()
{
    char16_t wszPath[OS_WIDEPATHSIZE];
    if (!OsPathToSystem(wszPath, OS_WIDEPATHSIZE, m_osfilemonitorstate.szPath))
        return false;
    m_plathandleWatched =
        PlatFileOpen(wszPath, PLAT_ACCESS_READ, PLAT_SHARE_READ | PLAT_SHARE_WRITE | PLAT_SHARE_DELETE,
                     PLAT_DISPOSITION_OPENEXISTING, 0);
    return m_plathandleWatched != PLAT_INVALID;
}

void COsFileMonitor::CloseWatched()
{
    if (m_plathandleWatched != PLAT_INVALID)
        PlatClose(m_plathandleWatched);
    m_plathandleWatched = PLAT_INVALID;
}

// ------------------------------------------------------------------------------------------------ notifications

// Without them, which may be for want of something or because the folder is missing, the file is looked at by time, and
// each time they are tried again.
void COsFileMonitor::OpenFolder()
{
    if (m_plathandleFolder != PLAT_INVALID || PlatTicks() < m_u64FolderAt)
        return;
    char16_t wszFolder[OS_WIDEPATHSIZE];
    if (OsPathToSystem(wszFolder, OS_WIDEPATHSIZE, m_szFolder))
        m_plathandleFolder = PlatWatchCreate(wszFolder);
    const bool blOpen = m_plathandleFolder != PLAT_INVALID;
    if (!blOpen && !m_blByTime)
    {
        OSLOG(OS_LOG_ERROR, "OsFileWin32CreateFileW failed...<%s>", m_szFolder);
        OSLOG(OS_LOG_ERROR, "monitor>>> without notifications the file is looked at every %u ms...<%s>", g_u32ByTime,
              m_osfilemonitorstate.szPath);
    }
    if (blOpen && m_blByTime)
        OSLOG(OS_LOG_NOTE, "monitor>>> notifications again...<%s>", m_osfilemonitorstate.szPath);
    m_blByTime = !blOpen;
    m_u64FolderAt = PlatTicks() + g_u32ByTime;
    if (m_u32Event == 0)   // what happened before it was open
        Note(m_u32Mask & OS_FILEMONITOR_MODIFIED, false, false);
}

void COsFileMonitor::CloseFolder()
{
    if (m_plathandleFolder != PLAT_INVALID)
        PlatClose(m_plathandleFolder);
    m_plathandleFolder = PLAT_INVALID;
    m_u64FolderAt = 0;
}

// A reason to look. Of our own name it tells as well whether somebody is writing.
void COsFileMonitor::Note(uint32_t a_u32Event, bool a_blOurs, bool a_blWriting)
{
    if (a_u32Event == 0)
        return;
    if (m_u32Event == 0)
        m_u32Event = a_u32Event;
    if (a_blOurs)
        m_blCandidate = false;
    if (a_blOurs && a_blWriting)
    {
        m_u64WriterLimit = m_u64WriterLimit ? m_u64WriterLimit : PlatTicks() + g_u32WriterLimit;
        m_u64LookAt = m_u64WriterLimit;
    }
    else if (a_blOurs || m_u64WriterLimit == 0)
    {
        m_u64WriterLimit = 0;
        m_u64LookAt = std::min(m_u64LookAt, PlatTicks());
    }
}

// Names may be written in another way than ours: where modifications are wanted, any is a reason.
void COsFileMonitor::TakeChange(const PlatWatchChange& a_platwatchchange)
{
    char szEntry[OS_PATHSIZE];
    CopyStringToUtf8(szEntry, sizeof szEntry, a_platwatchchange.wszName, SIZE_MAX);
    const bool blOurs = StrICmp(szEntry, m_szEntry) == 0;
    const uint32_t u32Event = m_u32Mask & (1u << a_platwatchchange.platwatchaction);
    const uint32_t u32Modified = m_u32Mask & OS_FILEMONITOR_MODIFIED;
    Note(u32Modified || !blOurs ? u32Modified : u32Event, blOurs, a_platwatchchange.blWriting);
}

// Of a folder where something happens all the time the rest is left for the next turn.
void COsFileMonitor::TakeChanges()
{
    PlatWatchChange platwatchchange;
    for (int i = 0; m_plathandleFolder != PLAT_INVALID && i < g_iChangesAtOnce; ++i)
    {
        if (PlatWatchRead(m_plathandleFolder, &platwatchchange))
        {
            TakeChange(platwatchchange);
            continue;
        }
        if (PlatGetLastError() == PLAT_ERROR_WOULDBLOCK)
            return;
        OSLOG(OS_LOG_ERROR, "monitor>>> ReadDirectoryChangesW failed...<%s>", m_osfilemonitorstate.szPath);
        CloseFolder();
    }
}

void COsFileMonitor::Watch()
{
    while (IsRunning())
    {
        OpenFolder();
        const bool blFolder = m_plathandleFolder != PLAT_INVALID;
        const uint64_t u64Next = std::min(m_u64LookAt, blFolder ? g_u64Never : m_u64FolderAt);
        const uint64_t u64Now = PlatTicks();
        const uint64_t u64Wait = u64Next > u64Now ? u64Next - u64Now : 0;
        const PlatHandle aplathandle[] = {m_plathandleStop, m_plathandleFolder};
        PlatWaitAny(aplathandle, blFolder ? 2 : 1,
                    u64Next == g_u64Never ? PLAT_INFINITE : static_cast<uint32_t>(u64Wait));
        TakeChanges();
        if (IsRunning() && PlatTicks() >= m_u64LookAt)
            Look();
    }
}
