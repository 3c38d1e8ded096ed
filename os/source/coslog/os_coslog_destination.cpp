// os_coslog_destination.cpp: the path, the collector, the own file, writing.
#include "os_coslog_destination.h"

#include "os_coslog_format.h"
#include "os_cosstring.h"
#include "os_log.h"
#include "os_scope.h"

#include "plat_process.h"
#include "plat_system.h"
#include "plat_wait.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <memory>
#include <new>
#include <string_view>
#include <thread>
#include <utility>

static constexpr int g_iYields = 64;   // before a thread sleeps for its turn to append
static constexpr char g_szSource[] = "os/source/os_coslog";
static constexpr char g_szLineEnd[] = "\r\n";
static constexpr size_t g_sizetGoesOn = OS_LOGPREFIXMAX + OS_PATHSIZE + 128;

static constexpr uint32_t g_u32GoesOn = OsLogPath::OS_GOESON | OsLogPath::OS_FORKED;

static constexpr uint64_t g_u64OpenAgain = 1000;   // ms

// --------------------------------------------------------------------------------------------------------- the path

COsLogDestination::~COsLogDestination()
{
    while (m_uniqueClients)
        m_uniqueClients = std::move(m_uniqueClients->uniqueNext);
    for (OsLogPath* poslogpath = m_uniquePaths.get(); poslogpath; poslogpath = poslogpath->uniqueNext.get())
        CloseKept(poslogpath);
    while (m_uniquePaths)
        m_uniquePaths = std::move(m_uniquePaths->uniqueNext);
}

static void FillPath(OsLogPath& a_oslogpath, const char* a_szLogFile)
{
    static constexpr size_t g_sizetSuffix = sizeof OS_LOGFILESUFFIX - 1;
    SStrCpy(a_oslogpath.szLogFile, sizeof a_oslogpath.szLogFile, a_szLogFile);
    const std::string_view strview(a_oslogpath.szLogFile);
    a_oslogpath.blLogs = strview.ends_with(OS_LOGFILESUFFIX);
    if (!a_oslogpath.blLogs)
        return;
    char* const pchSuffix = a_oslogpath.szOwnFile + strview.copy(a_oslogpath.szOwnFile, strview.size() - g_sizetSuffix);
    std::memcpy(pchSuffix, OS_LOGOWNSUFFIX, sizeof OS_LOGOWNSUFFIX);
}

// For the forked child of the process that used the path. It writes no header: creating one calls code whose locks
// other threads of the parent may have held.
static void MovePath(OsLogPath& a_oslogpath)
{
    char* const pchSuffix = a_oslogpath.szOwnFile + std::strlen(a_oslogpath.szLogFile) - (sizeof OS_LOGFILESUFFIX - 1);
    std::memcpy(a_oslogpath.szOwnFile, a_oslogpath.szLogFile, sizeof a_oslogpath.szLogFile);
    LogSStrPrintf(pchSuffix, static_cast<size_t>(std::end(a_oslogpath.szOwnFile) - pchSuffix), "-%llu.log",
                  static_cast<unsigned long long>(PlatProcessId()));
    a_oslogpath.blOwn = true;
    a_oslogpath.u32Owed = OsLogPath::OS_FORKED;
    std::construct_at(&a_oslogpath.strUnsent);
    a_oslogpath.i32LineCounter = -1;
    a_oslogpath.blHeaderPending = false;
    a_oslogpath.u64OpenAgain = 0;
}

static OsLogPath* FindPath(OsLogPath* a_poslogpath, const char* a_szLogFile)
{
    while (a_poslogpath && std::strcmp(a_poslogpath->szLogFile, a_szLogFile) != 0)
        a_poslogpath = a_poslogpath->uniqueNext.get();
    return a_poslogpath;
}

// The file of the previous path is closed when the last call that uses it returns.
void COsLogDestination::SetPath(const char* a_szLogFile, bool a_blHeaderPending, int32_t a_i32LineCounter)
{
    std::unique_ptr<OsLogPath> uniquePath(new (std::nothrow) OsLogPath{});
    if (!uniquePath)
        return;
    FillPath(*uniquePath, a_szLogFile);

    OsLogPath* poslogpathBefore = nullptr;
    {
        const OsLogGuard oslogguard(m_osloglock);
        OsLogPath* poslogpath = FindPath(m_uniquePaths.get(), uniquePath->szLogFile);
        if (!poslogpath)
        {
            poslogpath = uniquePath.get();
            uniquePath->uniqueNext = std::move(m_uniquePaths);
            m_uniquePaths = std::move(uniquePath);
        }
        poslogpath->i32LineCounter = a_i32LineCounter;
        poslogpath->blHeaderPending = a_blHeaderPending;
        poslogpath->u64OpenAgain = 0;
        poslogpathBefore = m_poslogpath.exchange(poslogpath, std::memory_order_acq_rel);
        if (poslogpathBefore == poslogpath)
            poslogpathBefore = nullptr;
    }
    if (poslogpathBefore)
        CloseKept(poslogpathBefore);
}

// --------------------------------------------------------------------------------------------------- the collector

void COsLogDestination::TakeCollector(COsLogCollector* a_poslogcollector)
{
    std::unique_ptr<COsLogCollector> uniqueCollector(a_poslogcollector);
    std::unique_ptr<OsLogClient> uniqueClient(uniqueCollector ? new (std::nothrow) OsLogClient{} : nullptr);
    OsLogClient* const poslogclient = uniqueClient.get();
    OsLogClient* poslogclientBefore = nullptr;
    {
        const std::lock_guard<std::mutex> guard(m_mutexClient);
        if (poslogclient)
        {
            uniqueClient->uniqueCollector = std::move(uniqueCollector);
            uniqueClient->poslogpath = Path();
            uniqueClient->uniqueNext = std::move(m_uniqueClients);
            m_uniqueClients = std::move(uniqueClient);
        }
        poslogclientBefore = m_poslogclient.exchange(poslogclient);
        m_blCollector = poslogclient != nullptr;
    }
    if (!poslogclientBefore)
        return;
    while (poslogclientBefore->u32Calls.load() != 0)
        PlatSleep(1);
    poslogclientBefore->uniqueCollector.reset();
}

// The client for one call, with its call count raised; null for none.
OsLogClient* COsLogDestination::EnterClient()
{
    while (OsLogClient* const poslogclient = m_poslogclient.load())
    {
        ++poslogclient->u32Calls;
        if (m_poslogclient.load() == poslogclient)
            return poslogclient;
        --poslogclient->u32Calls;   // replaced meanwhile, and possibly ended
    }
    return nullptr;
}

// The collector may have received a part of a line that could not be sent: the whole line goes to the file, like all
// that follow.
bool COsLogDestination::Send(std::span<const char> a_spanLine)
{
    OsLogClient* const poslogclient = EnterClient();
    if (!poslogclient)
        return false;
    const ScopeGuard leave([poslogclient] { --poslogclient->u32Calls; });
    const EOSSTS eossts =
        poslogclient->uniqueCollector->ClientWrite(a_spanLine.data(), a_spanLine.size(), OsLogMayWait());
    if (eossts == EOSSTS_SUCCESS)
        return true;
    GiveUp(*poslogclient, eossts == EOSSTS_BUSY);
    return false;
}

// The first thread that notices the failure makes the switch; the others wait for it. No line may get into a file that
// the collector may still write, nor onto the end of a line of which it wrote a part.
void COsLogDestination::GiveUp(const OsLogClient& a_oslogclient, bool a_blLives)
{
    const std::lock_guard<std::mutex> guard(m_mutexClient);
    OsLogPath& oslogpath = *a_oslogclient.poslogpath;
    Owe(oslogpath, a_oslogclient.uniqueCollector->TakeUnsent());
    if (m_poslogclient.load(std::memory_order_acquire) != &a_oslogclient)
        return;
    if (a_blLives && oslogpath.blLogs)
    {
        oslogpath.u32Owed |= OsLogPath::OS_GOESON;
        oslogpath.blOwn = true;
        CloseKept(&oslogpath);
    }
    OsLogEndTornLine(oslogpath.File());
    m_poslogclient.store(nullptr, std::memory_order_release);
}

// The current path is not in the list when the fork happened while it was being set.
void COsLogDestination::LeaveToParent()
{
    m_osloglock.Release();
    std::construct_at(&m_mutexClient);
    std::construct_at(&m_mutexWrite);
    m_poslogclient = nullptr;
    m_blCollector = true;
    for (OsLogClient* poslogclient = m_uniqueClients.get(); poslogclient; poslogclient = poslogclient->uniqueNext.get())
    {
        poslogclient->u32Calls = 0;
        if (poslogclient->uniqueCollector)
            poslogclient->uniqueCollector->LeaveToParent();
    }
    const auto leave = [this](OsLogPath& a_oslogpath) {
        CloseKept(&a_oslogpath);
        if (a_oslogpath.blLogs)
            MovePath(a_oslogpath);
    };
    leave(*Path());
    for (OsLogPath* poslogpath = m_uniquePaths.get(); poslogpath; poslogpath = poslogpath->uniqueNext.get())
        leave(*poslogpath);
}

// ------------------------------------------------------------------------------------------------------- the file

// Drops the path's reference to its open file; calls that use the file continue.
void COsLogDestination::CloseKept(OsLogPath* a_poslogpath)
{
    OsLogFile* poslogfile = nullptr;
    if (const OsLogGuard oslogguard(m_osloglock); oslogguard.Held())
        poslogfile = std::exchange(a_poslogpath->poslogfile, nullptr);
    OsLogFile::Release(poslogfile);
}

// Adds a reference to the file that a path keeps open; null when there is none.
OsLogFile* COsLogDestination::TakeKept(const OsLogPath* a_poslogpath)
{
    const OsLogGuard oslogguard(m_osloglock);
    OsLogFile* const poslogfile = oslogguard.Held() ? a_poslogpath->poslogfile : nullptr;
    return poslogfile ? poslogfile->AddUser() : nullptr;
}

// Opens the file for this call and for later calls while its path is the current one.
bool COsLogDestination::OpenNew(OsLogSlot& a_oslogslot)
{
    OsLogPath* const poslogpath = a_oslogslot.poslogpath;
    OsLogFile* const poslogfile = OsLogFile::Open(poslogpath->File());
    if (!poslogfile)
        return false;
    OsLogFile* poslogfileBefore = nullptr;
    if (const OsLogGuard oslogguard(m_osloglock); oslogguard.Held() && poslogpath == Path())
        poslogfileBefore = std::exchange(poslogpath->poslogfile, poslogfile->AddUser());
    OsLogFile::Release(poslogfileBefore);
    a_oslogslot.poslogfile = poslogfile;
    return true;
}

bool COsLogDestination::Open(OsLogSlot& a_oslogslot)
{
    if (UsesCollector() || OpenFile(a_oslogslot))
        return true;
    OsLogPath& oslogpath = *a_oslogslot.poslogpath;
    oslogpath.TakeNumber();
    m_osloghealth.Lost(OS_LOGLOST_FILE, oslogpath.u32OpenError, oslogpath.File());
    return false;
}

// Ensures that this call has the file open that the path currently names.
bool COsLogDestination::OpenFile(OsLogSlot& a_oslogslot)
{
    OsLogPath& oslogpath = *a_oslogslot.poslogpath;
    Close(a_oslogslot);
    a_oslogslot.poslogfile = TakeKept(&oslogpath);
    if (a_oslogslot.poslogfile && a_oslogslot.poslogfile->IsCurrent())
        return true;
    const bool blTakenAway = a_oslogslot.poslogfile != nullptr;
    Close(a_oslogslot);

    const uint64_t u64OpenAgain = oslogpath.u64OpenAgain.load(std::memory_order_relaxed);
    if (u64OpenAgain && PlatTicks() < u64OpenAgain)
        return false;
    if (OpenNew(a_oslogslot) || (OsLogMakeFolderOf(oslogpath.szLogFile) && OpenNew(a_oslogslot)))
    {
        // Whoever removed the file may have removed the folder's lock file too.
        if (blTakenAway || a_oslogslot.poslogfile->blFresh)
            m_osloghold.Renew();
        return true;
    }
    oslogpath.u32OpenError = PlatGetLastError();
    if (!m_blWritten.load(std::memory_order_relaxed))
    {
        m_osloghealth.GoneOff(OS_LOGLOST_FILE, oslogpath.u32OpenError);
        OsLogSetState(OS_LOGSTATE_OFF);
    }
    oslogpath.u64OpenAgain = PlatTicks() + g_u64OpenAgain;
    return false;
}

// ------------------------------------------------------------------------------------------------------ write-out

bool COsLogDestination::Write(OsLogSlot& a_oslogslot)
{
    OsLogPath& oslogpath = *a_oslogslot.poslogpath;
    const int32_t i32Number = oslogpath.TakeNumber();
    const bool blSent = !a_oslogslot.poslogfile && Send(a_oslogslot.Line(i32Number));
    const bool blOpen = blSent || a_oslogslot.poslogfile || OpenFile(a_oslogslot);
    if (!blOpen)
    {
        m_osloghealth.Lost(OS_LOGLOST_FILE, oslogpath.u32OpenError, oslogpath.File());
        return false;
    }
    if (!blSent && !WriteFile(a_oslogslot, i32Number))
    {
        m_osloghealth.Lost(OS_LOGLOST_WRITE, PlatGetLastError(), oslogpath.File());
        return false;
    }
    m_osloghealth.Wrote(blSent ? OS_LOGWHERE_COLLECTOR : OS_LOGWHERE_OWNFILE);
    if (!m_blWritten.load(std::memory_order_relaxed))
        m_blWritten = true;
    return true;
}

// Writes the call's line after any text that must precede it. The system orders appends, but no other line may come
// between a truncated line and the note about it.
bool COsLogDestination::AppendLine(OsLogSlot& a_oslogslot, int32_t a_i32Number)
{
    // An append takes about a microsecond: sleeping for the mutex would cost more than yielding a few times.
    std::unique_lock<std::mutex> lock(m_mutexWrite, std::try_to_lock);
    for (int iTry = 0; iTry < g_iYields && !lock.owns_lock(); ++iTry)
    {
        std::this_thread::yield();
        lock.try_lock();
    }
    if (!lock.owns_lock())
        lock.lock();
    return a_oslogslot.poslogpath->u32Owed.load(std::memory_order_acquire)
               ? AppendOwed(a_oslogslot, a_i32Number)
               : Append(a_oslogslot, a_oslogslot.Line(a_i32Number));
}

// A collector may remove a file that is empty between our check that it exists and our write: the line is then written
// again.
bool COsLogDestination::WriteFile(OsLogSlot& a_oslogslot, int32_t a_i32Number)
{
    const bool blFresh = a_oslogslot.poslogfile->blFresh.load(std::memory_order_relaxed);
    if (!AppendLine(a_oslogslot, a_i32Number))
        return false;
    if (blFresh && !a_oslogslot.poslogfile->IsCurrent())
    {
        if (!OpenFile(a_oslogslot) || !AppendLine(a_oslogslot, a_i32Number))
            return false;
    }
    else if (blFresh)
    {
        a_oslogslot.poslogfile->blFresh = false;
    }
    if (a_oslogslot.blFlush)
        PlatAppendFlush(a_oslogslot.poslogfile->plathandle);
    return true;
}

// The first line of the "-own.log" file, with the call's thread and time.
static std::span<char> PutGoesOn(char* a_pch, const OsLogSlot& a_oslogslot, int32_t a_i32Number)
{
    OsLogLinePrefix osloglineprefix = a_oslogslot.Prefix(a_i32Number);
    osloglineprefix.pchSource = g_szSource;
    osloglineprefix.sizetSource = sizeof g_szSource - 1;
    osloglineprefix.u32Line = static_cast<uint32_t>(__LINE__);
    const bool blForked = a_oslogslot.poslogpath->u32Owed & OsLogPath::OS_FORKED;
    osloglineprefix.u32Level = blForked ? OS_LOG_MILESTONE : OS_LOG_ERROR;
    char* const pchLine = a_pch + sizeof g_szLineEnd - 1;
    char* const pchMessage = OsLogPutPrefix(pchLine, osloglineprefix);
    const int iMessage = LogSStrPrintf(
        pchMessage, static_cast<size_t>(a_pch + g_sizetGoesOn - pchMessage), "log goes on here, %s...<%s>\r\n",
        blForked ? "in a fork of its process" : "its collector does not answer", a_oslogslot.poslogpath->szLogFile);
    return {pchLine, pchMessage + std::max(iMessage, 0)};
}

// What must precede the next line when the file accepted that many bytes of this one.
static uint32_t OwedAfter(size_t a_sizetWritten, size_t a_sizetLine)
{
    if (a_sizetWritten == 0)
        return 0;
    return a_sizetWritten + 1 == a_sizetLine ? OsLogPath::OS_LINEFEED : OsLogPath::OS_LINEEND;
}

// A full disk accepts a part of a line. The text written when there is space again begins a new line; if only the last
// byte was missing, nothing is lost.
bool COsLogDestination::Append(OsLogSlot& a_oslogslot, std::span<char> a_spanLine)
{
    size_t sizetWritten = 0;
    if (PlatAppendWrite(a_oslogslot.poslogfile->plathandle, a_spanLine.data(), a_spanLine.size(), &sizetWritten))
        return true;
    const uint32_t u32Owed = OwedAfter(sizetWritten, a_spanLine.size());
    a_oslogslot.poslogpath->u32Owed |= u32Owed;
    return u32Owed == OsLogPath::OS_LINEFEED;
}

void COsLogDestination::Owe(OsLogPath& a_oslogpath, const std::string& a_strUnsent)
{
    if (a_strUnsent.empty())
        return;
    const std::lock_guard<std::mutex> guard(m_mutexWrite);
    if (a_oslogpath.strUnsent.empty())
        a_oslogpath.strUnsent = g_szLineEnd;
    a_oslogpath.strUnsent += a_strUnsent;
    a_oslogpath.u32Owed |= OsLogPath::OS_UNSENT;
}

bool COsLogDestination::AppendOwed(OsLogSlot& a_oslogslot, int32_t a_i32Number)
{
    OsLogPath& oslogpath = *a_oslogslot.poslogpath;
    int32_t i32Number = a_i32Number;
    if (oslogpath.u32Owed & g_u32GoesOn)
    {
        char achLine[g_sizetGoesOn];
        if (!AppendBehindEnd(a_oslogslot, PutGoesOn(achLine, a_oslogslot, i32Number)))
            return false;
        oslogpath.u32Owed &= ~g_u32GoesOn;
        i32Number = oslogpath.TakeNumber();
        a_oslogslot.blFlush = true;
    }
    if (oslogpath.u32Owed & OsLogPath::OS_UNSENT)
    {
        if (!AppendBehindEnd(a_oslogslot, std::span(oslogpath.strUnsent).subspan(sizeof g_szLineEnd - 1)))
            return false;
        oslogpath.u32Owed &= ~OsLogPath::OS_UNSENT;
        oslogpath.strUnsent.clear();
    }
    return AppendBehindEnd(a_oslogslot, a_oslogslot.Line(i32Number));
}

// One append with the preceding line end, for which space is reserved before the line: no other process can write
// between the two.
bool COsLogDestination::AppendBehindEnd(OsLogSlot& a_oslogslot, std::span<char> a_spanLine)
{
    static constexpr uint32_t g_u32Ends = OsLogPath::OS_LINEEND | OsLogPath::OS_LINEFEED;
    std::atomic<uint32_t>& u32Owed = a_oslogslot.poslogpath->u32Owed;
    const uint32_t u32Ends = a_oslogslot.poslogfile->blFresh ? 0 : u32Owed & g_u32Ends;
    const size_t sizetEnd = u32Ends == OsLogPath::OS_LINEFEED ? 1 : u32Ends ? 2 : 0;
    char* const pch = a_spanLine.data() - sizetEnd;
    std::memcpy(pch, g_szLineEnd + 2 - sizetEnd, sizetEnd);

    size_t sizetWritten = 0;
    const size_t sizetBytes = sizetEnd + a_spanLine.size();
    const bool blWritten = PlatAppendWrite(a_oslogslot.poslogfile->plathandle, pch, sizetBytes, &sizetWritten);
    if (sizetWritten)
        u32Owed &= ~g_u32Ends;
    const uint32_t u32OwedNow = blWritten ? 0 : OwedAfter(sizetWritten, sizetBytes);
    u32Owed |= u32OwedNow;
    return blWritten || u32OwedNow == OsLogPath::OS_LINEFEED;
}

// ---------------------------------------------------------------------------------------------------------- flush

void COsLogDestination::Flush()
{
    OsLogPath* const poslogpath = Path();
    if (!*poslogpath->szLogFile)
        return;
    CloseKept(poslogpath);
    OsLogFlushFile(poslogpath->File());
}

void COsLogDestination::FlushKept()
{
    OsLogFile* const poslogfile = TakeKept(Path());
    const bool blOpen = poslogfile && poslogfile->IsCurrent();
    if (blOpen)
        PlatAppendFlush(poslogfile->plathandle);
    OsLogFile::Release(poslogfile);
    if (!blOpen)
        Flush();
}
