// os_coslogcollector_stream.cpp: one log stream.
//
//   the pieces   received data, one read at a time
//   the stream   header, text, end
//   the file     its folder, opening it, creating it again when its path no longer names it
#include "os_coslogcollector_stream.h"

#include "os_cosfile_system.h"
#include "os_coslogcollector.h"
#include "os_coslogcollector_protocol.h"
#include "os_cosmem.h"
#include "os_cospath.h"
#include "os_cossocket.h"
#include "os_cosstring.h"
#include "os_log.h"

#include "plat_system.h"
#include "plat_wait.h"

static constexpr char g_szSource[] = "os/source/os_coslogcollector";

static constexpr size_t g_sizetStoppingMost = 8 << 20;   // more than a connection holds
static constexpr uint64_t g_u64LookPeriod = 1000;        // ms between two checks that the path still names the file
static constexpr uint64_t g_u64FolderTimeout = 1000;     // ms to wait while the folder is being deleted
static constexpr uint32_t g_u32FolderPause = 20;
static constexpr uint64_t g_u64MeansTimeout = 3000;   // ms to wait for descriptors that other streams use
static constexpr uint32_t g_u32MeansPause = 100;

// -------------------------------------------------------------------------------------------------- the pieces

enum class StreamRead
{
    Piece,
    Timeout,
    End,
};

// The received pieces of a stream, one at a time in one buffer.
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

    // End: the peer has closed, or there is no memory. While the collector is stopping, only data that has already
    // arrived is read. A timeout (ms, not 0) is not an end.
    StreamRead Next(uint32_t a_u32Timeout)
    {
        if (!m_pchBuffer)
            return StreamRead::End;
        if (!m_blStopping)
        {
            const StreamRead streamread = Take(a_u32Timeout);
            if (streamread != StreamRead::End)
                return streamread;
            m_blStopping = true;
        }
        if (!g_bLogCollectorStopping.load() || m_sizetStopping >= g_sizetStoppingMost || Take(0) != StreamRead::Piece)
            return StreamRead::End;
        m_sizetStopping += m_sizetPiece;
        return StreamRead::Piece;
    }

    const char* Piece() const { return m_pchBuffer; }   // zero-terminated
    std::string_view Text() const { return {m_pchBuffer, m_sizetPiece}; }

private:
    StreamRead Take(uint32_t a_u32Timeout)
    {
        COsSocket::ReadArgs readargs;
        readargs.pvBuffer = m_pchBuffer;
        readargs.sizetBuffer = OS_LC_PIECESIZE;
        readargs.u32Timeout = a_u32Timeout;
        readargs.possyncStop = m_possync;
        readargs.blQuiet = true;
        readargs.psizetDirty = &m_sizetDirty;
        const EOSSTS eossts = m_possocket->SocketRead(readargs, &m_sizetPiece);
        if (eossts == EOSSTS_TIMEOUT)
            return StreamRead::Timeout;
        return eossts == EOSSTS_SUCCESS && m_sizetPiece != 0 ? StreamRead::Piece : StreamRead::End;
    }

    COsSocket* m_possocket;
    COsSync* m_possync;
    char* m_pchBuffer;
    size_t m_sizetPiece = 0;
    size_t m_sizetDirty = 0;
    size_t m_sizetStopping = 0;   // bytes read since the collector is stopping
    bool m_blStopping = false;
};

// -------------------------------------------------------------------------------------------------- the stream

COsLogCollectorStream::COsLogCollectorStream(COsLogCollectorFiles& a_oslogcollectorfiles,
                                             COsLogCollectorFolders& a_oslogcollectorfolders)
    : m_oslogcollectorfiles(a_oslogcollectorfiles), m_oslogcollectorfolders(a_oslogcollectorfolders)
{
}

void COsLogCollectorStream::Run(COsSocket* a_possocket, COsSync* a_possync)
{
    if (!m_oslogcollectorpeer.TakeRights())
        return;
    StreamPieces streampieces(a_possocket, a_possync);
    if (streampieces.Next(OS_INFINITE) != StreamRead::Piece)
        return;
    if (Begin(streampieces))
        TakeText(streampieces);
    End();
}

// Without a file name, or with one that is too long, the path stays empty and the open fails. For a peer that has
// already disconnected no empty file is created, and so none removed.
bool COsLogCollectorStream::Begin(StreamPieces& a_streampieces)
{
    OsLcReadHeader(a_streampieces.Piece(), m_szPath);
    if (!m_oslogcollectorpeer.MayName(m_szPath))
        return false;
    std::string_view strview = a_streampieces.Text();
    strview.remove_prefix(OsLcHeaderLength(strview.data(), strview.size()));
    if (strview.empty() && m_oslogcollectorpeer.HasLeft())
    {
        if (a_streampieces.Next(OS_INFINITE) != StreamRead::Piece || OsLcIsEndMarker(a_streampieces.Text()))
            return false;
        strview = a_streampieces.Text();
    }
    if (!OpenFile())
        return false;
    Write(strview);
    return true;
}

void COsLogCollectorStream::TakeText(StreamPieces& a_streampieces)
{
    for (;;)
    {
        uint32_t u32Timeout = OS_INFINITE;
        if (m_logcollectorwriter.u64RestDue != 0)
        {
            const uint64_t u64Now = PlatTicks();
            const uint64_t u64Due = m_logcollectorwriter.u64RestDue;
            u32Timeout = u64Due > u64Now ? static_cast<uint32_t>(u64Due - u64Now) : 1;
        }
        switch (a_streampieces.Next(u32Timeout))
        {
        case StreamRead::Piece:
            if (OsLcIsEndMarker(a_streampieces.Text()))
                return;
            Write(a_streampieces.Text());
            break;
        case StreamRead::Timeout:
            m_logcollectorwriter.u64RestDue = 0;
            if (m_reference && !m_reference->WriteRest(m_logcollectorwriter) && !IsInPlace(PlatTicks()))
                OpenAnew();
            break;
        case StreamRead::End:
            return;
        }
    }
}

// Text that no file takes is lost. If the path no longer names the file, the file gets the rest of its incomplete line
// and nothing more; a refused write may have that cause.
void COsLogCollectorStream::Write(std::string_view a_strview)
{
    const uint64_t u64Now = PlatTicks();
    if (u64Now - m_u64Looked >= g_u64LookPeriod && !IsInPlace(u64Now))
    {
        if (m_reference)
            a_strview = m_reference->EndLine(m_logcollectorwriter, a_strview);
        OpenAnew();
    }
    if (a_strview.empty())
        return;
    if (!m_reference)
        m_logcollectorwriter.Lose(m_logcollectorwriter.Drop(a_strview));
    else if (!m_reference->Write(m_logcollectorwriter, a_strview) && !IsInPlace(u64Now))
        OpenAnew();
}

// A log file that received no text is removed. Another stream that has it open keeps it.
static void RemoveIfEmpty(const char* a_szLogFile)
{
    OsFileInfo osfileinfo;
    if (OsFileExists(a_szLogFile) && OsFileGetInfo(a_szLogFile, &osfileinfo) == EOSSTS_SUCCESS &&
        osfileinfo.eosfiletype == OS_FILETYPE_FILE && osfileinfo.u64Size == 0)
        OsFileDelete(a_szLogFile, OS_FILETYPE_FILE, false, false);
}

void COsLogCollectorStream::End()
{
    if (m_reference)
    {
        m_reference->End(m_logcollectorwriter);
        if (m_oslogcollectorfiles.Leave(m_reference, m_logcollectorwriter) && !m_oslogcollectorpeer.HasLeft())
            RemoveIfEmpty(m_szPath);
    }
    if (m_logcollectorwriter.u64Missing != 0)
        OSLOG(OS_LOG_ERROR, "%llu bytes are missing at the end...<%s>",
              static_cast<unsigned long long>(m_logcollectorwriter.u64Missing), m_szPath);
    if (*m_szLogFolder)
        LeaveFolder();
}

// ---------------------------------------------------------------------------------------------------- the file

// Creates the log file's folder and takes the lock of its log folder before the file exists, so that no process deletes
// the folder meanwhile. Waits while another process is deleting it. Without the lock the stream continues; for a peer
// that has already disconnected it is not taken.
void COsLogCollectorStream::MakeFolder()
{
    char szFolder[OS_PATHSIZE];
    OsPathCopy(szFolder, sizeof szFolder, m_szPath);
    OsPathFolder(szFolder);
    if (!*szFolder)
        return;
    const uint64_t u64Begin = PlatTicks();
    for (;;)
    {
        m_oslogcollectorpeer.MakeFolder(szFolder);
        const bool blEntered = *m_szLogFolder;
        if (m_oslogcollectorpeer.HasLeft() || (!blEntered && !OsLogFolderOf(szFolder, m_szLogFolder)))
            return;
        const EOSSTS eossts = HoldFolder(blEntered);
        m_blFolderHeld = eossts == EOSSTS_SUCCESS;
        const bool blDeleted = eossts == EOSSTS_SHARING || eossts == EOSSTS_NOTFOUND;
        if (!blDeleted || PlatTicks() - u64Begin >= g_u64FolderTimeout)
            return;
        PlatSleep(g_u32FolderPause);
    }
}

EOSSTS COsLogCollectorStream::HoldFolder(bool a_blEntered)
{
    if (!m_oslogcollectorpeer.IsOurs())
        return m_oslogfolderlock.Acquire(m_szLogFolder);
    return a_blEntered ? m_oslogcollectorfolders.Hold(m_szLogFolder) : m_oslogcollectorfolders.Enter(m_szLogFolder);
}

void COsLogCollectorStream::LeaveFolder()
{
    if (m_oslogcollectorpeer.IsOurs())
        m_oslogcollectorfolders.Leave(m_szLogFolder);
    else
        m_oslogfolderlock.Release();
}

// Waits for descriptors that other streams may free, but not so long that a client gives up the collector.
bool COsLogCollectorStream::OpenFile()
{
    m_u64Looked = PlatTicks();
    for (;;)
    {
        MakeFolder();
        PlatSetLastError(PLAT_ERROR_NONE);
        m_reference = m_oslogcollectorfiles.Open(m_szPath, m_oslogcollectorpeer.Guard(), m_logcollectorwriter);
        const bool blWant = !m_reference && PlatGetLastError() == PLAT_ERROR_TOOMANYOPEN;
        if (!blWant || g_bLogCollectorStopping.load() || PlatTicks() - m_u64Looked >= g_u64MeansTimeout)
            return m_reference != nullptr;
        PlatSleep(g_u32MeansPause);
    }
}

// Whether the path still names the stream's file. Also retries a hold of the folder that failed before.
bool COsLogCollectorStream::IsInPlace(uint64_t a_u64Now)
{
    m_u64Looked = a_u64Now;
    if (!m_reference || !m_reference->IsNamedBy(m_szPath))
        return false;
    if (*m_szLogFolder && !m_blFolderHeld)
        m_blFolderHeld = HoldFolder(true) == EOSSTS_SUCCESS;
    return true;
}

void COsLogCollectorStream::OpenAnew()
{
    if (m_reference)
        m_oslogcollectorfiles.Leave(m_reference, m_logcollectorwriter);
    OpenFile();
}
