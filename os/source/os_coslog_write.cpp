// os_coslog_write.cpp: the destination: folder check, redirection, own file or collector, write-out, flush.
//
// The file is kept open between the lines and asked before each whether it still is the one that the path names: that
// costs less than to open it each time, and nobody sees a difference. No lock is held while a line is written; the
// system orders what is appended.
#include "os_coslog_impl.h"

#include "os_cosenv.h"
#include "os_cosfile.h"
#include "os_cosfile_paths.h"
#include "os_cosfile_system.h"
#include "os_cosstring.h"

#include "plat_file.h"

#include <cstring>
#include <new>
#include <utility>

static constexpr uint32_t g_u32LevelsFlushed = 0x51;

// -------------------------------------------------------------------------------------------- before the first line

// The folder of a path with its separators made alike, "" for a path without one and for the root.
static void FolderOf(const char* a_szLogFile, char* a_szFolder)
{
    size_t sizetFolder = 0;
    OsPathCopy(a_szFolder, OS_PATHSIZE, a_szLogFile);
    OsPathSplit(a_szFolder, &sizetFolder, nullptr);
    a_szFolder[sizetFolder] = '\0';
}

// Looked up until it has been there once.
bool COsLogImpl::FolderIsThere(const OsLogSlot& a_oslogslot)
{
    if (m_blFolderFound.load(std::memory_order_relaxed))
        return true;
    const COsLogSuppress oslogsuppress;
    if (!oslogsuppress.WasAllowed())
        return false;
    char szFolder[OS_PATHSIZE];
    FolderOf(a_oslogslot.poslogpath->szLogFile, szFolder);
    const bool blFound = !*szFolder || OsFileExists(szFolder);
    if (blFound)
        m_blFolderFound = true;
    return blFound;
}

// MVR_DEBUGDIR names a folder where this run logs into a file of its own, named by the time of its first line.
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
    SetPath(szLogFile, a_oslogslot.poslogpath->blHeaderPending, a_oslogslot.poslogpath->i32LineCounter);
    a_oslogslot.poslogpath = Path();
}

// ------------------------------------------------------------------------------------------------------- the file

void COsLogImpl::ReleaseFile(OsLogFile* a_poslogfile)
{
    if (!a_poslogfile || a_poslogfile->u32Users.fetch_sub(1, std::memory_order_acq_rel) != 1)
        return;
    PlatClose(a_poslogfile->plathandle);
    delete a_poslogfile;
}

// Lets go of the file that a path keeps open; calls that work with it go on.
void COsLogImpl::CloseKept(OsLogPath* a_poslogpath)
{
    OsLogFile* poslogfile = nullptr;
    if (const OsLogGuard oslogguard(m_osloglock); oslogguard.Held())
        poslogfile = std::exchange(a_poslogpath->poslogfile, nullptr);
    ReleaseFile(poslogfile);
}

// The file that a path keeps open, for one more user; null when there is none.
OsLogFile* COsLogImpl::TakeKept(const OsLogPath* a_poslogpath)
{
    const OsLogGuard oslogguard(m_osloglock);
    OsLogFile* const poslogfile = oslogguard.Held() ? a_poslogpath->poslogfile : nullptr;
    if (poslogfile)
        ++poslogfile->u32Users;
    return poslogfile;
}

static PlatHandle OpenForAppending(const char* a_szLogFile)
{
    char16_t wszPath[OS_WIDEPATHSIZE];
    return OsPathToSystem(wszPath, OS_WIDEPATHSIZE, a_szLogFile) ? PlatAppendOpen(wszPath) : PLAT_INVALID;
}

// Opens the file for this call, and for those that follow while its path is the current one.
bool COsLogImpl::OpenFile(OsLogSlot& a_oslogslot)
{
    OsLogPath* const poslogpath = a_oslogslot.poslogpath;
    const PlatHandle plathandle = OpenForAppending(poslogpath->szLogFile);
    if (plathandle == PLAT_INVALID)
        return false;
    auto* const poslogfile = new (std::nothrow) OsLogFile{plathandle, 1};
    if (!poslogfile)
    {
        PlatClose(plathandle);
        return false;
    }
    OsLogFile* poslogfileBefore = nullptr;
    if (const OsLogGuard oslogguard(m_osloglock); oslogguard.Held() && poslogpath == Path())
    {
        ++poslogfile->u32Users;
        poslogfileBefore = std::exchange(poslogpath->poslogfile, poslogfile);
    }
    ReleaseFile(poslogfileBefore);
    ReleaseFile(std::exchange(a_oslogslot.poslogfile, poslogfile));
    return true;
}

static bool MakeFolderOf(const char* a_szLogFile)
{
    char szFolder[OS_PATHSIZE];
    char16_t wszFolder[OS_WIDEPATHSIZE];
    FolderOf(a_szLogFile, szFolder);
    if (!*szFolder || !OsPathToSystem(wszFolder, OS_WIDEPATHSIZE, szFolder))
        return false;
    PlatFolderCreate(wszFolder);
    return true;
}

// Sees to it that this call has the file open that the path names now. What fails switches the logging off.
bool COsLogImpl::OpenDestination(OsLogSlot& a_oslogslot, bool a_blMakeFolder)
{
    a_oslogslot.poslogfile = TakeKept(a_oslogslot.poslogpath);
    if (a_oslogslot.poslogfile && PlatAppendIsCurrent(a_oslogslot.poslogfile->plathandle))
        return true;
    const bool blOpen = OpenFile(a_oslogslot) ||
                        (a_blMakeFolder && MakeFolderOf(a_oslogslot.poslogpath->szLogFile) && OpenFile(a_oslogslot));
    if (!blOpen)
        OsLogSetState(OS_LOGSTATE_OFF);
    return blOpen;
}

// A collector needs no file to be open.
bool COsLogImpl::Open(OsLogSlot& a_oslogslot)
{
    return UsesCollector() || OpenDestination(a_oslogslot, true);
}

// ------------------------------------------------------------------------------------------------------ write-out

// A collector that was killed may have written a part of a line last; what is appended begins a line of its own.
static void EndTornLine(const char* a_szLogFile)
{
    COsFile osfile;
    char chLast = '\n';
    if (osfile.Open(a_szLogFile, OS_FILEOPEN_EXISTING, OS_FILEACCESS_READWRITE, OS_FILESHARE_READWRITE) ==
            EOSSTS_SUCCESS &&
        osfile.Seek(OS_FILESEEK_END, -1) == EOSSTS_SUCCESS && osfile.Read(&chLast, 1, nullptr) == EOSSTS_SUCCESS &&
        chLast != '\n')
        chLast == '\r' ? osfile.Append("\n", 1) : osfile.Append("\r\n", 2);
}

// A line whose sending timed out counts as delivered. Of one that could not be sent the collector may have got a part:
// it goes whole to the file, like all that follow.
bool COsLogImpl::SendToCollector(const OsLogSlot& a_oslogslot, const char* a_pch, size_t a_sizetLength)
{
    const std::lock_guard<std::mutex> guard(m_mutexCollector);
    if (!UsesCollector())
        return false;
    const EOSSTS eossts = m_uniqueCollector->ClientWrite(a_pch, a_sizetLength);
    if (eossts == EOSSTS_SUCCESS || eossts == EOSSTS_TIMEOUT)
        return true;
    EndTornLine(a_oslogslot.poslogpath->szLogFile);
    m_blCollector.store(false, std::memory_order_release);
    return false;
}

// Writes one line, complete with its end. False when it went nowhere.
bool COsLogImpl::WriteOut(OsLogSlot& a_oslogslot, const char* a_pch, size_t a_sizetLength)
{
    if (!a_oslogslot.poslogfile)
    {
        if (SendToCollector(a_oslogslot, a_pch, a_sizetLength))
            return true;
        if (!OpenDestination(a_oslogslot, false))
            return false;
    }
    const PlatHandle plathandle = a_oslogslot.poslogfile->plathandle;
    std::atomic<bool>& blTorn = a_oslogslot.poslogpath->blTorn;
    size_t sizetWritten = 0;
    if (blTorn.load(std::memory_order_relaxed) && PlatAppendWrite(plathandle, "\r\n", 2, nullptr))
        blTorn = false;
    if (!PlatAppendWrite(plathandle, a_pch, a_sizetLength, &sizetWritten))
    {
        // A disk that is full takes a part. What is written when there is room again begins a line of its own.
        if (sizetWritten)
            blTorn = true;
        return false;
    }
    if (m_blFlushEvery.load(std::memory_order_relaxed) || (a_oslogslot.u32Level & g_u32LevelsFlushed))
        PlatAppendFlush(plathandle);
    return true;
}

// Opens the file for it: whatever was written to it is flushed, by whomever.
void COsLogImpl::Flush()
{
    const OsLogKeepError oslogkeeperror;
    OsLogPath* const poslogpath = Path();
    char16_t wszPath[OS_WIDEPATHSIZE];
    if (!*poslogpath->szLogFile)
        return;
    CloseKept(poslogpath);
    if (!OsPathToSystem(wszPath, OS_WIDEPATHSIZE, poslogpath->szLogFile))
        return;
    const PlatHandle plathandle =
        PlatFileOpen(wszPath, PLAT_ACCESS_READ | PLAT_ACCESS_WRITE,
                     PLAT_SHARE_READ | PLAT_SHARE_WRITE | PLAT_SHARE_DELETE, PLAT_DISPOSITION_OPENEXISTING, 0);
    if (plathandle == PLAT_INVALID)
        return;
    PlatFileFlush(plathandle);
    PlatClose(plathandle);
}

// The same, through the file that is open: a check may fail in a signal handler, where nothing is allocated.
void COsLogImpl::FlushKept()
{
    OsLogFile* const poslogfile = TakeKept(Path());
    const bool blOpen = poslogfile && PlatAppendIsCurrent(poslogfile->plathandle);
    if (blOpen)
        PlatAppendFlush(poslogfile->plathandle);
    ReleaseFile(poslogfile);
    if (!blOpen)
        Flush();
}
