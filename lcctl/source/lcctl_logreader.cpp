// lcctl_logreader.cpp: the file, its lines, its records, its days.
#include "lcctl_logreader.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace fs = std::filesystem;

static constexpr size_t g_sizetBuffer = size_t{256} << 10;
static constexpr size_t g_sizetBufferMost = size_t{4} << 20;   // a longer record is split
static constexpr size_t g_sizetAhead = 8192;   // bytes after a run line that are searched for its process
static constexpr int g_iLinesAhead = 4;
static constexpr size_t g_sizetProcesses = 16;   // distinguished per log

CLcctlLogReader::CLcctlLogReader(const LcctlLogFile& a_logfile, bool a_blFollow)
    : m_logfile(a_logfile), m_blFollow(a_blFollow), m_lcctltimeKey(a_logfile.runstart.value_or(0))
{
    m_vecprocess.push_back({"", a_logfile.u64ProcessId ? std::to_string(a_logfile.u64ProcessId) : "-"});
}

// -------------------------------------------------------------------------------------------------------- the file

bool CLcctlLogReader::Open()
{
    m_uniqueFile.reset(std::fopen(m_logfile.path.c_str(), "rb"));
    m_blFailed = !m_uniqueFile;
    if (m_blFailed)
        return false;
    std::setvbuf(m_uniqueFile.get(), nullptr, _IONBF, 0);
    m_vecch.resize(g_sizetBuffer);
    return true;
}

// The log was truncated or replaced: reads it from its beginning.
void CLcctlLogReader::Restart()
{
    m_uniqueFile.reset();
    m_u64Offset = 0;
    m_sizetRecord = m_sizetLine = m_sizetLineEnd = m_sizetEnd = 0;
    m_blReplaced = false;
}

size_t CLcctlLogReader::ReadFile(char* a_pch, size_t a_sizet)
{
    std::clearerr(m_uniqueFile.get());
    const size_t sizetRead = std::fread(a_pch, 1, a_sizet, m_uniqueFile.get());
    m_blFailed = sizetRead == 0 && std::ferror(m_uniqueFile.get());
    m_u64Offset += sizetRead;
    return sizetRead;
}

// At the end of the open file: whether the path now names a file of another size.
bool CLcctlLogReader::HasBeenReplaced()
{
    std::error_code error;
    const auto bytes = fs::file_size(m_logfile.path, error);
    return !error && bytes != m_u64Offset;
}

// Reads more data after the existing; moves the current record to the front of the buffer.
CLcctlLogReader::Filled CLcctlLogReader::Fill()
{
    if (m_sizetRecord)
    {
        std::memmove(m_vecch.data(), m_vecch.data() + m_sizetRecord, m_sizetEnd - m_sizetRecord);
        m_sizetLine -= m_sizetRecord;
        m_sizetLineEnd -= m_sizetRecord;
        m_sizetEnd -= m_sizetRecord;
        m_sizetRecord = 0;
        if (m_lcctlrecord.blPrefix)
            LcctlParsePrefix(m_vecch.data(), m_vecch.data() + m_sizetEnd, m_lcctlrecord.lcctlprefix);
    }
    if (m_sizetEnd == m_vecch.size())
    {
        if (m_vecch.size() >= g_sizetBufferMost)
            return Filled::Full;
        m_vecch.resize(m_vecch.size() * 2);
        if (m_lcctlrecord.blPrefix)
            LcctlParsePrefix(m_vecch.data(), m_vecch.data() + m_sizetEnd, m_lcctlrecord.lcctlprefix);
    }
    size_t sizetRead = ReadFile(m_vecch.data() + m_sizetEnd, m_vecch.size() - m_sizetEnd);
    if (sizetRead == 0 && m_blFollow && HasBeenReplaced())
    {
        sizetRead = ReadFile(m_vecch.data() + m_sizetEnd, m_vecch.size() - m_sizetEnd);   // it may just have grown
        m_blReplaced = sizetRead == 0;
    }
    m_sizetEnd += sizetRead;
    return sizetRead ? Filled::Yes : Filled::Ended;
}

// ------------------------------------------------------------------------------------------------------- its lines

void CLcctlLogReader::TakeLineTo(size_t a_sizetEnd, size_t a_sizetNext)
{
    const char* const pchStart = m_vecch.data() + m_sizetLine;
    const char* pchEnd = m_vecch.data() + a_sizetEnd;
    if (pchEnd > pchStart && pchEnd[-1] == '\r')
        --pchEnd;
    m_blLinePrefix = LcctlParsePrefix(pchStart, pchEnd, m_lcctlprefixLine);
    m_sizetLineEnd = a_sizetNext;
}

// Parses the next line. False at the end of the log, or when the line is incomplete.
bool CLcctlLogReader::TakeLine()
{
    m_sizetLine = m_sizetLineEnd;
    size_t sizetSearched = 0;   // bytes of the line already searched for its end
    for (;;)
    {
        const char* const pch = m_vecch.data() + m_sizetLine + sizetSearched;
        const size_t sizetLeft = m_sizetEnd - m_sizetLine - sizetSearched;
        if (const void* const pvEnd = sizetLeft ? std::memchr(pch, '\n', sizetLeft) : nullptr)
        {
            const auto sizetEnd = static_cast<size_t>(static_cast<const char*>(pvEnd) - m_vecch.data());
            TakeLineTo(sizetEnd, sizetEnd + 1);
            return true;
        }
        sizetSearched = m_sizetEnd - m_sizetLine;
        const Filled filled = Fill();
        if (filled == Filled::Yes)
            continue;
        const bool blTaken = sizetSearched && (filled == Filled::Full || !m_blFollow || m_blReplaced);
        if (blTaken)
            TakeLineTo(m_sizetEnd, m_sizetEnd);
        return blTaken;
    }
}

// ----------------------------------------------------------------------------------------------------- its records

// A log that is not followed is closed at its end.
bool CLcctlLogReader::Next()
{
    m_blRecord = (m_uniqueFile || Open()) && ReadRecord();
    if (!m_blRecord && !m_blFollow)
    {
        m_uniqueFile.reset();
        m_vecch = {};
    }
    return m_blRecord;
}

bool CLcctlLogReader::ReadRecord()
{
    const bool blLooked = m_sizetLineEnd > m_sizetLine;
    m_sizetRecord = m_sizetLine;
    m_lcctlrecord.blPrefix = false;
    if (!blLooked && !TakeLine())
    {
        if (!m_blReplaced)
            return false;
        Restart();
        return Open() && ReadRecord();
    }
    BeginRecord();
    do
    {
        ++m_lcctlrecord.sizetLines;
    } while (TakeLine() && !m_blLinePrefix && m_sizetLine - m_sizetRecord < g_sizetBufferMost);
    EndRecord();
    return true;
}

void CLcctlLogReader::BeginRecord()
{
    m_lcctlrecord.sizetLines = 0;
    m_lcctlrecord.blPrefix = m_blLinePrefix;
    if (!m_blLinePrefix)
        return;
    m_lcctlrecord.lcctlprefix = m_lcctlprefixLine;
    const LcctlPrefix& lcctlprefix = m_lcctlrecord.lcctlprefix;
    const std::string_view svMessage(lcctlprefix.pchMessage, m_vecch.data() + m_sizetLineEnd - lcctlprefix.pchMessage);
    if (svMessage.starts_with("### ("))
    {
        const auto runstart = LcctlRunStart(svMessage);
        if (runstart && std::abs(*runstart % LCCTL_DAY - lcctlprefix.lcctltimeOfDay) < LCCTL_SECOND)
            TakeRunLine(*runstart);
    }
    if (!m_blDated)
        FindFirstDay();
    m_lcctlrecord.lcctltime =
        lcctlprefix.blTimeless ? m_lcctllogdate.Last() : m_lcctllogdate.Take(lcctlprefix.lcctltimeOfDay);
    m_lcctltimeKey = std::max(m_lcctltimeKey, m_lcctlrecord.lcctltime);
    m_lcctlrecord.pstrProcessId =
        m_vecprocess.size() == 1 ? &m_vecprocess.front().strProcessId : ProcessOf(lcctlprefix.svThread);
}

// The record ends where the next line begins.
void CLcctlLogReader::EndRecord()
{
    const char* pchEnd = m_vecch.data() + m_sizetLine;
    const char* const pchText =
        m_lcctlrecord.blPrefix ? m_lcctlrecord.lcctlprefix.pchMessage : m_vecch.data() + m_sizetRecord;
    if (pchEnd > pchText && pchEnd[-1] == '\n')
        --pchEnd;
    if (pchEnd > pchText && pchEnd[-1] == '\r')
        --pchEnd;
    m_lcctlrecord.svText = {pchText, static_cast<size_t>(std::max<ptrdiff_t>(pchEnd - pchText, 0))};
    if (!m_lcctlrecord.pstrProcessId)
        m_lcctlrecord.pstrProcessId = &m_vecprocess.back().strProcessId;
}

// -------------------------------------------------------------------------------------------------- a run's header

// A new run: its date applies from here on. One of the next lines names its process.
void CLcctlLogReader::TakeRunLine(LcctlTime a_lcctltimeRun)
{
    m_lcctllogdate.Set(a_lcctltimeRun);
    m_blDated = true;
    if (m_sizetEnd - m_sizetLineEnd < g_sizetAhead)
        Fill();
    const std::string strThread(m_lcctlrecord.lcctlprefix.svThread);
    const char* pch = m_vecch.data() + m_sizetLineEnd;
    const char* const pchEnd = m_vecch.data() + m_sizetEnd;
    for (int iLine = 0; iLine < g_iLinesAhead && pch < pchEnd; ++iLine)
    {
        const char* const pchLineEnd = std::find(pch, pchEnd, '\n');
        LcctlPrefix lcctlprefix;
        const bool blSame = LcctlParsePrefix(pch, pchLineEnd, lcctlprefix) && lcctlprefix.svThread == strThread;
        const auto process =
            blSame ? LcctlRunProcess({lcctlprefix.pchMessage, static_cast<size_t>(pchLineEnd - lcctlprefix.pchMessage)})
                   : std::nullopt;
        if (process)
        {
            AddProcess({strThread, std::to_string(*process)});
            return;
        }
        pch = std::min(pchLineEnd + 1, pchEnd);
    }
}

// For the first process the header, or the log's name, has been read already.
void CLcctlLogReader::AddProcess(const Process& a_process)
{
    std::erase_if(m_vecprocess, [&](const Process& a_other) {
        const bool blSame = a_other.strProcessId == "-" || a_other.strProcessId == a_process.strProcessId;
        return a_other.strThread == a_process.strThread || (a_other.strThread.empty() && blSame);
    });
    if (m_vecprocess.size() == g_sizetProcesses)
        m_vecprocess.erase(m_vecprocess.begin());
    m_vecprocess.push_back(a_process);
}

const std::string* CLcctlLogReader::ProcessOf(std::string_view a_svThread) const
{
    for (const Process& process : m_vecprocess)
    {
        if (process.strThread == a_svThread)
            return &process.strProcessId;
    }
    return &m_vecprocess.back().strProcessId;
}

// For a log that does not begin with a run line ("-own.log", or truncated): counts its days to the next run line, or
// else to its end, whose day is that of the file's last write.
void CLcctlLogReader::FindFirstDay()
{
    m_blDated = true;
    CLcctlLogReader lcctllogreader(m_logfile, false);
    lcctllogreader.m_blDated = true;
    CLcctlLogDate lcctllogdate;
    bool blFirst = true;
    while (lcctllogreader.Next())
    {
        const LcctlRecord& lcctlrecord = lcctllogreader.Record();
        if (!lcctlrecord.blPrefix || lcctlrecord.lcctlprefix.blTimeless)
            continue;
        if (std::exchange(blFirst, false))
            lcctllogdate.Set(lcctlrecord.lcctlprefix.lcctltimeOfDay);
        lcctllogdate.Take(lcctlrecord.lcctlprefix.lcctltimeOfDay);
        const auto runstart =
            lcctlrecord.svText.starts_with("### (") ? LcctlRunStart(lcctlrecord.svText) : std::nullopt;
        if (!runstart)
            continue;
        m_lcctllogdate.Set((*runstart / LCCTL_DAY - lcctllogdate.Last() / LCCTL_DAY) * LCCTL_DAY +
                           m_lcctlrecord.lcctlprefix.lcctltimeOfDay);
        return;
    }
    const LcctlTime lcctltimeWritten = LcctlWallTime(m_logfile.filetimeWritten);
    const auto i64Day = std::llround(static_cast<double>(lcctltimeWritten - lcctllogdate.Last()) / LCCTL_DAY);
    m_lcctllogdate.Set(i64Day * LCCTL_DAY + m_lcctlrecord.lcctlprefix.lcctltimeOfDay);
}
