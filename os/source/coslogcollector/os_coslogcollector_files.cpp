// os_coslogcollector_files.cpp: the log files that a collector writes.
//
//   the rest        text that is held back
//   what is lost    bytes that were refused, and the rest of their line
//   streams         the streams of a file, and whose turn it is
//   writing         whole lines, parts of lines, the line that reports missing bytes
//   the table       one object for each file
#include "os_coslogcollector_files.h"

#include "os_coslogcollector_protocol.h"
#include "os_coslogline.h"
#include "os_cosmem.h"
#include "os_cosstring.h"
#include "os_log.h"

#include "plat_system.h"
#include "plat_thread.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <new>
#include <utility>

static constexpr char g_szSource[] = "os/source/os_coslogcollector";

static constexpr char g_szLineEnd[] = "\r\n";
static constexpr uint32_t g_u32OpenTries = 1000;
static constexpr uint8_t g_u8MissingS = 9;

// ----------------------------------------------------------------------------------------------------- the rest

static constexpr size_t g_sizetRestBuffer = OS_LC_RESTSIZE + OS_LC_PIECESIZE;

COsLogCollectorRest::~COsLogCollectorRest()
{
    if (m_pchBuffer)
        OSMEMFREE(m_pchBuffer, OS_MEMFLAG_PAGES);
}

bool COsLogCollectorRest::Add(std::string_view a_strviewPiece)
{
    if (!m_pchBuffer)
        m_pchBuffer = static_cast<char*>(OSMEMALLOC(g_sizetRestBuffer, OS_MEMFLAG_PAGES));
    if (!m_pchBuffer || m_sizetText + a_strviewPiece.size() > g_sizetRestBuffer)
        return false;
    std::memcpy(m_pchBuffer + m_sizetText, a_strviewPiece.data(), a_strviewPiece.size());
    m_sizetText += a_strviewPiece.size();
    return true;
}

void COsLogCollectorRest::DropFront(size_t a_sizetText)
{
    m_sizetText -= a_sizetText;
    if (m_sizetText != 0)
        std::memmove(m_pchBuffer, m_pchBuffer + a_sizetText, m_sizetText);
}

// ------------------------------------------------------------------------------------------------- what is lost

void LogCollectorWriter::Lose(std::string_view a_strview)
{
    u64Missing += a_strview.size();
    blDropping = !a_strview.ends_with('\n');
}

std::string_view LogCollectorWriter::Drop(std::string_view a_strview)
{
    if (!blDropping)
        return a_strview;
    const size_t sizetLine = a_strview.find('\n');
    blDropping = sizetLine == std::string_view::npos;
    const size_t sizetDropped = blDropping ? a_strview.size() : sizetLine + 1;
    u64Missing += sizetDropped;
    return a_strview.substr(sizetDropped);
}

// ------------------------------------------------------------------------------------------------------ streams

EOSSTS COsLogCollectorFile::Open(const char* a_szPath, EOSFILEGUARD a_eosfileguard)
{
    SStrCpy(m_szPath, sizeof m_szPath, a_szPath);
    return m_osfile.Open(a_szPath, OS_FILEOPEN_ALWAYS, OS_FILEACCESS_READWRITE, OS_FILESHARE_READWRITE, false,
                         a_eosfileguard);
}

// For the path of the first stream the open file itself is checked; another path may lead to it too.
bool COsLogCollectorFile::IsNamedBy(const char* a_szPath)
{
    OsFileIdentity osfileidentity;
    {
        const Lock lock(m_mutex);
        if (std::strcmp(m_szPath, a_szPath) == 0)
            return m_osfile.IsNamed();
        if (!m_osfile.GetIdentity(&osfileidentity))
            return false;
    }
    COsFile osfile;
    OsFileIdentity osfileidentityNamed;
    return osfile.Open(a_szPath, OS_FILEOPEN_EXISTING, OS_FILEACCESS_NONE, OS_FILESHARE_READWRITE) == EOSSTS_SUCCESS &&
           osfile.GetIdentity(&osfileidentityNamed) && osfileidentity == osfileidentityNamed;
}

size_t COsLogCollectorFile::Enter(LogCollectorWriter& a_logcollectorwriter)
{
    const Lock lock(m_mutex);
    m_vecplogcollectorwriter.push_back(&a_logcollectorwriter);
    return m_vecplogcollectorwriter.size();
}

void COsLogCollectorFile::Leave(LogCollectorWriter& a_logcollectorwriter)
{
    const Lock lock(m_mutex);
    std::erase(m_vecplogcollectorwriter, &a_logcollectorwriter);
    if (m_plogcollectorwriterInside == &a_logcollectorwriter)
        EndsInLineOf(nullptr);
}

void COsLogCollectorFile::EndsInLineOf(const LogCollectorWriter* a_plogcollectorwriter)
{
    m_plogcollectorwriterInside = a_plogcollectorwriter;
    m_u64Inside = PlatTicks();
    if (m_u32Waiting != 0)
        m_conditionvariable.notify_all();
}

// *a_pu64Milliseconds gets the time that the other stream has left.
bool COsLogCollectorFile::IsTurnOf(const LogCollectorWriter& a_logcollectorwriter, uint64_t* a_pu64Milliseconds) const
{
    if (!m_plogcollectorwriterInside || m_plogcollectorwriterInside == &a_logcollectorwriter)
        return true;
    const uint64_t u64Passed = PlatTicks() - m_u64Inside;
    *a_pu64Milliseconds = u64Passed < OS_LC_RESTTIMEOUT ? OS_LC_RESTTIMEOUT - u64Passed : 0;
    return *a_pu64Milliseconds == 0;
}

void COsLogCollectorFile::WaitForTurn(Lock& a_lock, const LogCollectorWriter& a_logcollectorwriter)
{
    for (uint64_t u64Milliseconds = 0; !IsTurnOf(a_logcollectorwriter, &u64Milliseconds);)
        Wait(a_lock, u64Milliseconds);
}

void COsLogCollectorFile::Wait(Lock& a_lock, uint64_t a_u64Milliseconds)
{
    ++m_u32Waiting;
    m_conditionvariable.wait_for(a_lock, std::chrono::milliseconds(a_u64Milliseconds));
    --m_u32Waiting;
}

// ------------------------------------------------------------------------------------------------------ writing

// Waits for the turn and performs the action under the lock. Reports are logged afterwards without the lock, because
// the log may itself be a stream of this collector.
template <class Action>
bool COsLogCollectorFile::InTurn(LogCollectorWriter& a_logcollectorwriter, Action a_action)
{
    bool blWritten = false;
    uint64_t u64Told = 0;
    {
        Lock lock(m_mutex);
        WaitForTurn(lock, a_logcollectorwriter);
        blWritten = a_action();
        u64Told = std::exchange(a_logcollectorwriter.u64Told, 0);
    }
    if (u64Told != 0)
        OSLOG(OS_LOG_ERROR, "%llu bytes are missing here...<%s>", static_cast<unsigned long long>(u64Told), m_szPath);
    return blWritten;
}

bool COsLogCollectorFile::Write(LogCollectorWriter& a_logcollectorwriter, std::string_view a_strviewPiece)
{
    return InTurn(a_logcollectorwriter, [&] {
        const bool blAlone = m_vecplogcollectorwriter.size() == 1;
        return blAlone && a_logcollectorwriter.oslogcollectorrest.IsEmpty()
                   ? Put(a_logcollectorwriter, a_strviewPiece)
                   : PutLines(a_logcollectorwriter, a_strviewPiece, blAlone);
    });
}

bool COsLogCollectorFile::WriteRest(LogCollectorWriter& a_logcollectorwriter)
{
    a_logcollectorwriter.u64RestDue = 0;
    return InTurn(a_logcollectorwriter, [&] { return PutRest(a_logcollectorwriter); });
}

std::string_view COsLogCollectorFile::EndLine(LogCollectorWriter& a_logcollectorwriter, std::string_view a_strviewPiece)
{
    const Lock lock(m_mutex);
    if (m_plogcollectorwriterInside == &a_logcollectorwriter)
        PutRest(a_logcollectorwriter);
    if (m_plogcollectorwriterInside != &a_logcollectorwriter)
        return a_strviewPiece;
    const size_t sizetLine = a_strviewPiece.find('\n');
    const size_t sizetWrite = sizetLine == std::string_view::npos ? a_strviewPiece.size() : sizetLine + 1;
    Put(a_logcollectorwriter, a_strviewPiece.substr(0, sizetWrite));
    return a_strviewPiece.substr(sizetWrite);
}

void COsLogCollectorFile::End(LogCollectorWriter& a_logcollectorwriter)
{
    InTurn(a_logcollectorwriter, [&] {
        PutRest(a_logcollectorwriter);
        return a_logcollectorwriter.u64Missing == 0 || BeginLine(a_logcollectorwriter);
    });
}

// Streams come and go while one waits for its turn; each is served once.
void COsLogCollectorFile::WriteRests(const LogCollectorWriter* a_plogcollectorwriterNot)
{
    std::vector<const LogCollectorWriter*> vecplogcollectorwriterDone{a_plogcollectorwriterNot};
    const auto isLeft = [&](const LogCollectorWriter* a_plogcollectorwriter) {
        return !a_plogcollectorwriter->oslogcollectorrest.IsEmpty() &&
               std::find(vecplogcollectorwriterDone.begin(), vecplogcollectorwriterDone.end(), a_plogcollectorwriter) ==
                   vecplogcollectorwriterDone.end();
    };
    Lock lock(m_mutex);
    for (;;)
    {
        const auto iterator = std::find_if(m_vecplogcollectorwriter.begin(), m_vecplogcollectorwriter.end(), isLeft);
        if (iterator == m_vecplogcollectorwriter.end())
            return;
        uint64_t u64Milliseconds = 0;
        if (!IsTurnOf(**iterator, &u64Milliseconds))
        {
            Wait(lock, u64Milliseconds);
            continue;
        }
        vecplogcollectorwriterDone.push_back(*iterator);
        PutRest(**iterator);
    }
}

bool COsLogCollectorFile::PutRest(LogCollectorWriter& a_logcollectorwriter)
{
    COsLogCollectorRest& oslogcollectorrest = a_logcollectorwriter.oslogcollectorrest;
    const bool blWritten = Put(a_logcollectorwriter, oslogcollectorrest.Text());
    oslogcollectorrest.DropFront(oslogcollectorrest.Text().size());
    return blWritten;
}

// The length of the text that is not held back.
static size_t LengthToWrite(std::string_view a_strview, bool a_blAll)
{
    const size_t sizetLines = a_strview.rfind('\n') + 1;   // 0 for none
    return a_blAll || a_strview.size() - sizetLines > OS_LC_RESTSIZE ? a_strview.size() : sizetLines;
}

// Writes the held-back text and its continuation with one append.
bool COsLogCollectorFile::PutLines(LogCollectorWriter& a_logcollectorwriter, std::string_view a_strviewPiece,
                                   bool a_blAll)
{
    COsLogCollectorRest& oslogcollectorrest = a_logcollectorwriter.oslogcollectorrest;
    const uint64_t u64Now = PlatTicks();
    const bool blHeld = !oslogcollectorrest.IsEmpty();
    const bool blDue = blHeld && a_logcollectorwriter.u64RestDue <= u64Now;
    if (blHeld && !oslogcollectorrest.Add(a_strviewPiece))
        return false;   // cannot happen: there is space for a piece
    const std::string_view strview = blHeld ? oslogcollectorrest.Text() : a_strviewPiece;

    const size_t sizetWrite = LengthToWrite(strview, a_blAll || blDue);
    bool blWritten = Put(a_logcollectorwriter, strview.substr(0, sizetWrite));
    if (blHeld)
        oslogcollectorrest.DropFront(sizetWrite);
    else if (sizetWrite != strview.size() && !oslogcollectorrest.Add(strview.substr(sizetWrite)))
        blWritten = Put(a_logcollectorwriter, strview.substr(sizetWrite)) && blWritten;

    if (oslogcollectorrest.IsEmpty())
        a_logcollectorwriter.u64RestDue = 0;
    else if (!blHeld || sizetWrite != 0)
        a_logcollectorwriter.u64RestDue = u64Now + OS_LC_RESTTIMEOUT;
    return blWritten;
}

// Appends text to the file. After a refused write the next text begins a new line.
bool COsLogCollectorFile::Put(LogCollectorWriter& a_logcollectorwriter, std::string_view a_strview)
{
    a_strview = a_logcollectorwriter.Drop(a_strview);
    if (a_strview.empty())
        return true;
    if ((m_blTorn || a_logcollectorwriter.u64Missing != 0) && !BeginLine(a_logcollectorwriter))
    {
        a_logcollectorwriter.Lose(a_strview);
        return false;
    }
    size_t sizetWritten = 0;
    if (m_osfile.Append(a_strview.data(), a_strview.size(), &sizetWritten) == EOSSTS_SUCCESS)
    {
        const bool blInside = !a_strview.ends_with('\n');
        if (blInside || m_plogcollectorwriterInside)
            EndsInLineOf(blInside ? &a_logcollectorwriter : nullptr);
        return true;
    }
    a_logcollectorwriter.u32Error = PlatGetLastError();
    a_logcollectorwriter.Lose(a_strview.substr(sizetWritten));
    m_blTorn = true;
    EndsInLineOf(nullptr);
    return false;
}

// Ends an incomplete line and reports missing bytes. False when there is no disk space for that yet.
bool COsLogCollectorFile::BeginLine(LogCollectorWriter& a_logcollectorwriter)
{
    static constexpr char g_szMissingSource[] = "os_coslogcollector";
    char szText[OS_LOGPREFIXMAX + 64] = "";
    char* pchEnd = szText;
    if (EndsInsideLine())
        pchEnd = std::copy_n(g_szLineEnd, sizeof g_szLineEnd - 1, pchEnd);
    if (a_logcollectorwriter.u64Missing != 0)
    {
        OsLogLineTime osloglinetime;
        osloglinetime.Take();
        pchEnd = OsLogPutPrefix(pchEnd, {.i32Number = 0,
                                         .ostimerecord = osloglinetime.ostimerecord,
                                         .u32Microseconds = osloglinetime.u32Microseconds,
                                         .pchSource = g_szMissingSource,
                                         .sizetSource = sizeof g_szMissingSource - 1,
                                         .u32Line = __LINE__,
                                         .u32LastError = a_logcollectorwriter.u32Error,
                                         .u64ThreadId = PlatThreadId(),
                                         .u8S = g_u8MissingS,
                                         .u32Level = OS_LOG_ERROR});
        const auto sizetRoom = static_cast<size_t>(std::end(szText) - pchEnd);
        pchEnd += SStrPrintf(pchEnd, sizetRoom, "%llu bytes are missing here...\r\n",
                             static_cast<unsigned long long>(a_logcollectorwriter.u64Missing));
    }
    const auto sizetText = static_cast<size_t>(pchEnd - szText);
    if (sizetText != 0 && m_osfile.Append(szText, sizetText) != EOSSTS_SUCCESS)
        return false;
    a_logcollectorwriter.u64Told += std::exchange(a_logcollectorwriter.u64Missing, 0);
    m_blTorn = false;
    EndsInLineOf(nullptr);
    return true;
}

// Checks the file itself: a refused write may have been partial, and other processes may append.
bool COsLogCollectorFile::EndsInsideLine()
{
    uint64_t u64Size = 0;
    char ch = '\n';
    size_t sizetRead = 0;
    return m_osfile.GetSize(&u64Size) == EOSSTS_SUCCESS && u64Size != 0 &&
           m_osfile.Seek(OS_FILESEEK_START, static_cast<int64_t>(u64Size - 1)) == EOSSTS_SUCCESS &&
           m_osfile.Read(&ch, 1, &sizetRead) == EOSSTS_SUCCESS && sizetRead == 1 && ch != '\n';
}

void COsLogCollectorFile::Flush()
{
    const std::lock_guard<std::mutex> guard(m_mutexFlush);
    if (m_blClosed)
        return;
    WriteRests(nullptr);
    m_osfile.Flush();
}

void COsLogCollectorFile::Close()
{
    const std::lock_guard<std::mutex> guard(m_mutexFlush);
    m_osfile.Close();
    m_blClosed = true;
}

// ---------------------------------------------------------------------------------------------------- the table

// Between our open and our registration another stream of the same file may end and remove the file because it is still
// empty: the file is then created again. A file that is never found under its path is used as it is.
COsLogCollectorFiles::Reference COsLogCollectorFiles::Open(const char* a_szPath, EOSFILEGUARD a_eosfileguard,
                                                           LogCollectorWriter& a_logcollectorwriter)
{
    for (uint32_t u32Try = 1;; ++u32Try)
    {
        Reference reference(new (std::nothrow) COsLogCollectorFile);
        OsFileIdentity osfileidentity;
        if (!reference || reference->Open(a_szPath, a_eosfileguard) != EOSSTS_SUCCESS ||
            !reference->GetIdentity(&osfileidentity))
            return nullptr;
        reference = Enter({osfileidentity, std::move(reference)}, a_logcollectorwriter);
        if (u32Try == g_u32OpenTries || reference->IsNamedBy(a_szPath))
            return reference;
        Leave(reference, a_logcollectorwriter);
    }
}

// Returns the existing object of the file, else adds this one.
COsLogCollectorFiles::Reference COsLogCollectorFiles::Enter(Entry a_entry, LogCollectorWriter& a_logcollectorwriter)
{
    Reference reference;
    {
        const std::lock_guard<std::mutex> guard(m_mutex);
        auto iterator = std::find_if(m_vecentry.begin(), m_vecentry.end(), [&](const Entry& a_entryThere) {
            return a_entryThere.osfileidentity == a_entry.osfileidentity;
        });
        if (iterator == m_vecentry.end())
            iterator = m_vecentry.insert(iterator, a_entry);
        ++iterator->sizetStreams;
        reference = iterator->reference;
    }
    if (reference->Enter(a_logcollectorwriter) == 2)
        reference->WriteRests(&a_logcollectorwriter);
    return reference;
}

bool COsLogCollectorFiles::Leave(Reference& a_reference, LogCollectorWriter& a_logcollectorwriter)
{
    const Reference reference = std::move(a_reference);
    reference->Leave(a_logcollectorwriter);
    {
        const std::lock_guard<std::mutex> guard(m_mutex);
        const auto iterator = std::find_if(m_vecentry.begin(), m_vecentry.end(),
                                           [&](const Entry& a_entry) { return a_entry.reference == reference; });
        if (--iterator->sizetStreams != 0)
            return false;
        m_vecentry.erase(iterator);
    }
    reference->Close();
    return true;
}

void COsLogCollectorFiles::Flush()
{
    std::vector<Entry> vecentry;
    {
        const std::lock_guard<std::mutex> guard(m_mutex);
        vecentry = m_vecentry;
    }
    for (const Entry& entry : vecentry)
        entry.reference->Flush();
}
