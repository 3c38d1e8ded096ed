// os_coslogcollector_reader.cpp: a reader takes one stream into the file that the stream names.
//
//   LogData          one stream from its first byte to its end
//   the stream       header, file, text
//   the folder       one log folder of the process is handed to the folder management, once
//   the record       finished connections are freed by the next reader
#include "os_coslogcollector_impl.h"

#include "os_cfg.h"
#include "os_cosfile_paths.h"
#include "os_cosfile_system.h"
#include "os_cosmem.h"
#include "os_cosstring.h"
#include "os_new.h"
#include "os_scope.h"

#include <cstring>

static constexpr char g_szSource[] = "os/source/os_coslogcollector";

static constexpr uint32_t g_u32ManageTimeout = 1000;
static constexpr uint32_t g_u32OpenTries = 1000;
static constexpr size_t g_sizetRestMost = 8 << 20;   // more than a connection holds: who sends on and on ends there

uint32_t COsLogCollectorImpl::LogDataEntry(COsThread* a_posthread)
{
    const LogCollectorRecord logcollectorrecord = *static_cast<LogCollectorRecord*>(a_posthread->Argument());
    logcollectorrecord.poslogcollectorimpl->LogData(logcollectorrecord);
    a_posthread->Exit();
    return 0;
}

void COsLogCollectorImpl::LogData(const LogCollectorRecord& a_logcollectorrecord)
{
    SweepFinished();

    COsThread* posthreadManage = nullptr;
    char szLogFile[OS_PATHSIZE] = {};
    TakeStream(a_logcollectorrecord, szLogFile, posthreadManage);
    a_logcollectorrecord.possocket->SocketDisconnect(false);   // who still sends is to notice, at once
    m_oslogopenfiles.Remove(a_logcollectorrecord.posfile);
    a_logcollectorrecord.posfile->Close();
    RemoveIfEmpty(szLogFile);

    // While the record is live: who sweeps a finished one waits for its reader.
    if (posthreadManage)
        posthreadManage->WaitForEnd(g_u32ManageTimeout);
    OSMEMDELETE(posthreadManage);
    const int32_t i32Live = MarkFinished(a_logcollectorrecord.posfile);
    if (m_collectormode == OS_COLLECTORMODE_PRIVATE && i32Live == 0)
        g_bLogCollectorStop.store(1);
}

// -------------------------------------------------------------------------------------------------- the stream

namespace
{
// The pieces of a stream as they arrive, one at a time in one buffer.
class StreamPieces
{
public:
    StreamPieces(COsSocket* a_possocket, COsSync* a_possync)
        : m_possocket(a_possocket),
          m_possync(a_possync),
          m_pchBuffer(static_cast<char*>(OSMEMALLOC(OS_LC_PIECESIZE + 1, OS_MEMFLAG_PAGES)))
    {
    }
    ~StreamPieces()
    {
        if (m_pchBuffer)
            OSMEMFREE(m_pchBuffer, OS_MEMFLAG_PAGES);
    }
    StreamPieces(const StreamPieces&) = delete;
    StreamPieces& operator=(const StreamPieces&) = delete;

    // False at the end of the stream: the peer has closed, or there is no memory. A collector that is stopping takes
    // what has arrived, and no more than that.
    bool Next()
    {
        if (m_pchBuffer && !m_blStopping && Take(PLAT_INFINITE))
            return true;
        m_blStopping = true;
        if (!m_pchBuffer || !g_bLogCollectorStopping.load() || m_sizetRest >= g_sizetRestMost || !Take(0))
            return false;
        m_sizetRest += m_sizetPiece;
        return true;
    }

    const char* Text() const { return m_pchBuffer; }   // a terminator follows
    size_t Size() const { return m_sizetPiece; }

private:
    bool Take(uint32_t a_u32Timeout)
    {
        COsSocket::ReadArgs readargs;
        readargs.pvBuffer = m_pchBuffer;
        readargs.sizetBuffer = OS_LC_PIECESIZE;
        readargs.u32Timeout = a_u32Timeout;
        readargs.possyncStop = m_possync;
        readargs.blQuiet = true;
        readargs.psizetDirty = &m_sizetDirty;
        return m_possocket->SocketRead(readargs, &m_sizetPiece) == EOSSTS_SUCCESS && m_sizetPiece != 0;
    }

    COsSocket* m_possocket;
    COsSync* m_possync;
    char* m_pchBuffer;
    size_t m_sizetPiece = 0;
    size_t m_sizetDirty = 0;
    size_t m_sizetRest = 0;   // taken since the collector is stopping
    bool m_blStopping = false;
};
}   // namespace

// Writes go to the end of the file as it is at that moment: two streams that name one file never overwrite each
// other. What the disk does not take is lost; the stream goes on.
static void WritePiece(COsFile* a_posfile, const char* a_pchText, size_t a_sizetText)
{
    if (a_sizetText != 0)
        a_posfile->Append(a_pchText, a_sizetText);
}

// Another stream of the same file may end, and remove the file because it is still empty, between our open and the
// moment when the file counts as in use: then the file is made again. What never has a name is taken as it is.
static bool OpenLogFile(COsFile* a_posfile, const char* a_szLogFile)
{
    for (uint32_t u32Try = 1; a_posfile->Open(a_szLogFile, OS_FILEOPEN_ALWAYS, OS_FILEACCESS_READWRITE,
                                              OS_FILESHARE_READWRITE) == EOSSTS_SUCCESS;
         ++u32Try)
    {
        if (a_posfile->HasName() || u32Try == g_u32OpenTries)
            return true;
        a_posfile->Close();
    }
    return false;
}

void COsLogCollectorImpl::TakeStream(const LogCollectorRecord& a_logcollectorrecord, char* a_szLogFile,
                                     COsThread*& a_posthreadManage)
{
    StreamPieces streampieces(a_logcollectorrecord.possocket, a_logcollectorrecord.possync);
    if (!streampieces.Next())
        return;

    // A header that names no file, or one whose path is too long, leaves the path empty: the open fails then.
    OsLcReadHeader(streampieces.Text(), a_szLogFile);
    a_posthreadManage = PrepareFolder(a_szLogFile);
    COsFile* const posfile = a_logcollectorrecord.posfile;
    if (!OpenLogFile(posfile, a_szLogFile))
        return;
    m_oslogopenfiles.Add(posfile);

    const size_t sizetHeader = OsLcHeaderLength(streampieces.Text(), streampieces.Size());
    WritePiece(posfile, streampieces.Text() + sizetHeader, streampieces.Size() - sizetHeader);
    while (streampieces.Next() && !OsLcIsEndMarker({streampieces.Text(), streampieces.Size()}))
        WritePiece(posfile, streampieces.Text(), streampieces.Size());
}

// A log file that received no text does not remain. Another stream that has it open keeps it.
void COsLogCollectorImpl::RemoveIfEmpty(const char* a_szLogFile)
{
    if (!*a_szLogFile || !OsFileExists(a_szLogFile))
        return;
    OsFileInfo osfileinfo;
    const EOSSTS eossts = OsFileGetInfo(a_szLogFile, &osfileinfo);
    if (eossts == EOSSTS_SUCCESS && osfileinfo.eosfiletype == OS_FILETYPE_FILE && osfileinfo.u64Size == 0)
        OsFileDelete(a_szLogFile, OS_FILETYPE_FILE, false, false);
}

// -------------------------------------------------------------------------------------------------- the folder

// The log folder that is managed in this process: set once, for the first stream below a "log." folder.
static char g_szManagedFolder[OS_PATHSIZE];
static uint64_t g_u64ManagedLock;

// Cuts a path down to its nearest component that begins with "log.", in either case; empties it when there is none.
static void CutToLogFolder(char* a_szPath)
{
    static constexpr char g_szPrefix[] = "log.";
    for (;;)
    {
        OsPathNormalize(a_szPath);
        char* const pchSeparator = std::strrchr(a_szPath, '\\');
        const char* const szComponent = pchSeparator ? pchSeparator + 1 : a_szPath;
        if (!*szComponent || StrIstr(szComponent, g_szPrefix) == szComponent)
            return;
        *(pchSeparator ? pchSeparator : a_szPath) = 0;
    }
}

static uint32_t ManageLogDirectories(COsThread* a_posthread)
{
    char szFolder[OS_PATHSIZE];
    SStrCpy(szFolder, sizeof szFolder, static_cast<const char*>(a_posthread->Argument()));
    OsCfgManageLogDirectories(szFolder, a_posthread);
    a_posthread->Exit();
    return 0;
}

COsThread* COsLogCollectorImpl::PrepareFolder(const char* a_szLogFile)
{
    char szFolder[OS_PATHSIZE];
    OsPathCopy(szFolder, sizeof szFolder, a_szLogFile);
    char* const pchSeparator = std::strrchr(szFolder, '\\');
    if (pchSeparator && pchSeparator != szFolder)
    {
        *pchSeparator = 0;
        OsFileCreateDirectory(szFolder);
    }
    const COsSpinGuard guard(&g_u64ManagedLock);
    const bool blLogFolder = std::strstr(szFolder, "/log.") || std::strstr(szFolder, "\\log.");
    return *g_szManagedFolder || !blLogFolder ? nullptr : ManageFolder(szFolder);
}

// Under the lock of the managed folder. Returns the thread that was started, or null.
COsThread* COsLogCollectorImpl::ManageFolder(const char* a_szFolder)
{
    char szLogFolder[OS_PATHSIZE] = {};
    COsThread* const posthread = OSMEMNEW(COsThread);
    if (posthread)
    {
        SStrCpy(szLogFolder, sizeof szLogFolder, a_szFolder);
        CutToLogFolder(szLogFolder);
        if (*szLogFolder)
        {
            SStrCpy(g_szManagedFolder, sizeof g_szManagedFolder, szLogFolder);
            posthread->Start("ManageLogDirectories", &ManageLogDirectories, g_szManagedFolder);
        }
    }
    SStrCpy(m_szLeftoverFolder, sizeof m_szLeftoverFolder, *szLogFolder ? szLogFolder : a_szFolder);
    return posthread;
}

// -------------------------------------------------------------------------------------------------- the record

// Takes the finished records out of the list under its lock and frees them outside: freeing waits for the last steps
// of their readers. A reader may have finished before the accept thread is through with starting it; that record stays
// for a later sweep.
void COsLogCollectorImpl::SweepFinished()
{
    for (;;)
    {
        LogCollectorRecord logcollectorrecord{};
        auto* precord = static_cast<LogCollectorRecord*>(
            m_poslnk->GetFirstAndLock("COsLogCollectorImpl::LogData-stale", g_szSource, __LINE__));
        while (precord && (precord->posfile || precord->posthread == m_posthreadStarting.load()))
            precord = static_cast<LogCollectorRecord*>(m_poslnk->GetNext(precord));
        if (precord && !g_bLogCollectorStopping.load())
        {
            logcollectorrecord = *precord;
            m_poslnk->Remove(precord, false, false);
        }
        m_poslnk->Unlock();
        if (!logcollectorrecord.posthread)
            return;
        OSMEMDELETE(logcollectorrecord.posthread);
        FreeRecord(logcollectorrecord);
    }
}

// Marks this reader's record as finished and returns how many are live; 0 when Stop does the bookkeeping.
int32_t COsLogCollectorImpl::MarkFinished(const COsFile* a_posfile)
{
    if (g_bLogCollectorStopping.load())
        return 0;
    int32_t i32Live = 0;
    auto* precord = static_cast<LogCollectorRecord*>(
        m_poslnk->GetFirstAndLock("COsLogCollectorImpl::LogData-cleanup", g_szSource, __LINE__));
    // Stop may have begun between the test above and the lock; then the records are Stop's.
    const bool blOurs = !g_bLogCollectorStopping.load();
    for (; precord && blOurs; precord = static_cast<LogCollectorRecord*>(m_poslnk->GetNext(precord)))
    {
        if (precord->posfile == a_posfile)
            OSMEMDELETE(precord->posfile);
        if (precord->posfile)
            ++i32Live;
    }
    m_poslnk->Unlock();
    return i32Live;
}
