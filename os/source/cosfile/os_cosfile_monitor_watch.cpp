// os_cosfile_monitor_watch.cpp: how the monitor thread detects a change: the folder's notifications, when to check the
// file, the check and its result.
//
// The system notifies too much (several times for one write, and for other files) and too little (file times are only
// as fine as the clock behind them, and notifications have limits). So a notification only triggers a check: at once,
// or, while the file is being written, when the writer has closed it. A change is a different file, size or time under
// the name, once two checks further apart than one clock step agree: then no write is in progress, and later writes get
// another time. Without notifications the file is polled.
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
constexpr uint32_t g_u32Settled = 20;    // ms, as below: longer than a step of the clock that dates files
constexpr uint32_t g_u32Retry = 100;     // after a check that failed
constexpr uint32_t g_u32ByTime = 1000;   // polling interval without notifications
constexpr uint32_t g_u32InVainLimit = 1000;
constexpr uint32_t g_u32WriterLimit = 3000;   // then the file is checked although it is still open for writing
constexpr uint64_t g_u64ClockPerMillisecond = 10000;
constexpr uint64_t g_u64Never = UINT64_MAX;
constexpr int g_iChangesAtOnce = 256;

// A temporary failure says nothing about the file: the check is repeated.
bool IsPassing(uint32_t a_u32Error)
{
    return a_u32Error == PLAT_ERROR_TOOMANYOPEN || a_u32Error == PLAT_ERROR_NOMEMORY ||
           a_u32Error == PLAT_ERROR_SHARING || a_u32Error == PLAT_ERROR_GENFAILURE;
}
}   // namespace

// ---------------------------------------------------------------------------------------------------- one check

// True if last written more than a clock step before that time.
static bool IsOlder(const OsFileLook& a_look, uint64_t a_u64Clock)
{
    return a_look.platfileidentity.u64WriteTime + g_u32Settled * g_u64ClockPerMillisecond < a_u64Clock;
}

// False when the check failed temporarily.
bool COsFileMonitor::Examine(OsFileLook* a_plook) const
{
    *a_plook = {};
    PlatSetLastError(PLAT_ERROR_NONE);
    a_plook->blThere = OsFileReadIdentity(m_osfilemonitorstate.szPath, 0, &a_plook->platfileidentity);
    return a_plook->blThere || !IsPassing(PlatGetLastError());
}

// Records the file's state at the start. A recently written file may be written again within the same clock step, so it
// is checked again until it has settled.
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

// Waits for the next notification.
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

// If the file was missing at the start, or the check failed, its write time tells whether it has changed since.
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

// The file is open during the callback only: on some systems an open file cannot be replaced.
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

// Opens the notifications. While that fails (missing folder, no resources) the file is polled, and each poll retries.
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
    if (m_u32Event == 0)   // to catch changes made before it was open
        Note(m_u32Mask & OS_FILEMONITOR_MODIFIED, false, false);
}

void COsFileMonitor::CloseFolder()
{
    if (m_plathandleFolder != PLAT_INVALID)
        PlatClose(m_plathandleFolder);
    m_plathandleFolder = PLAT_INVALID;
    m_u64FolderAt = 0;
}

// Schedules a check. For the watched name, a_blWriting tells whether the file is being written.
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

// The notified name may be spelled differently: if modifications are wanted, any name triggers a check.
void COsFileMonitor::TakeChange(const PlatWatchChange& a_platwatchchange)
{
    char szEntry[OS_PATHSIZE];
    CopyStringToUtf8(szEntry, sizeof szEntry, a_platwatchchange.wszName, SIZE_MAX);
    const bool blOurs = StrICmp(szEntry, m_szEntry) == 0;
    const uint32_t u32Event = m_u32Mask & (1u << a_platwatchchange.platwatchaction);
    const uint32_t u32Modified = m_u32Mask & OS_FILEMONITOR_MODIFIED;
    Note(u32Modified || !blOurs ? u32Modified : u32Event, blOurs, a_platwatchchange.blWriting);
}

// In a busy folder the remaining notifications are left for the next turn.
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
