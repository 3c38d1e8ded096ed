// lcctl_logwriter.cpp: the buffer, keeping the last records, lines, JSON.
#include "lcctl_logwriter.h"

#include "lcctl_command.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <utility>

static constexpr size_t g_sizetBuffer = size_t{256} << 10;
static constexpr size_t g_sizetPrefix = 256;   // more than the text before the message and a line end take
static constexpr size_t g_sizetVisible = 4;    // of "\\x1B"

CLcctlLogWriter::CLcctlLogWriter(bool a_blJson, bool a_blTerminal) : m_blJson(a_blJson), m_blTerminal(a_blTerminal)
{
    m_strBuffer.resize(g_sizetBuffer);
}

// ------------------------------------------------------------------------------------------------------ the buffer

void CLcctlLogWriter::WriteOut()
{
    if (m_sizetUsed)
        m_lcctllogoutput.HandOver(m_strBuffer, std::exchange(m_sizetUsed, 0));
}

void CLcctlLogWriter::Flush()
{
    WriteOut();
    m_lcctllogoutput.Finish();
}

// Returns space for so many bytes, at most the buffer's initial size. Kept records stay in the buffer.
char* CLcctlLogWriter::Room(size_t a_sizet)
{
    if (m_strBuffer.size() - m_sizetUsed < a_sizet)
    {
        if (m_blKeep)
            m_strBuffer.resize(m_strBuffer.size() * 2);
        else
            WriteOut();
    }
    return m_strBuffer.data() + m_sizetUsed;
}

void CLcctlLogWriter::Put(std::string_view a_svText)
{
    while (!a_svText.empty())
    {
        const size_t sizetPiece = std::min(a_svText.size(), g_sizetBuffer);
        std::memcpy(Room(sizetPiece), a_svText.data(), sizetPiece);
        m_sizetUsed += sizetPiece;
        a_svText.remove_prefix(sizetPiece);
    }
}

// --------------------------------------------------------------------------------------------------------- records

void CLcctlLogWriter::Write(const LcctlRecord& a_lcctlrecord, const std::filesystem::path& a_path)
{
    m_u64Records += a_lcctlrecord.blPrefix;
    if (m_blKeep)
        WriteOut();
    if (m_blJson)
        PutJson(a_lcctlrecord, a_path);
    else
        PutLine(a_lcctlrecord);
    if (!m_blKeep)
        return;
    m_dequestrKept.emplace_back(m_strBuffer, 0, std::exchange(m_sizetUsed, 0));
    if (m_dequestrKept.size() > m_u64Keep)
        m_dequestrKept.pop_front();
}

void CLcctlLogWriter::KeepLast(uint64_t a_u64Records)
{
    m_blKeep = true;
    m_u64Keep = a_u64Records;
}

void CLcctlLogWriter::Release()
{
    m_blKeep = false;
    for (const std::string& str : m_dequestrKept)
        Put(str);
    m_dequestrKept.clear();
}

static char* PutBytes(char* a_pch, std::string_view a_svText)
{
    std::memcpy(a_pch, a_svText.data(), a_svText.size());
    return a_pch + a_svText.size();
}

// "HH:MM:SS.mmmuuu" of twelve digits.
static char* PutTimeOfDay(char* a_pch, const char* a_pchTime)
{
    std::memcpy(a_pch, a_pchTime, 2);
    a_pch[2] = ':';
    std::memcpy(a_pch + 3, a_pchTime + 2, 2);
    a_pch[5] = ':';
    std::memcpy(a_pch + 6, a_pchTime + 4, 2);
    a_pch[8] = '.';
    std::memcpy(a_pch + 9, a_pchTime + 6, 6);
    return a_pch + 15;
}

// Whether a byte is a control character or, with its predecessor (0: none) or successor, a part of one.
static bool Controls(unsigned char a_u8Before, unsigned char a_u8, unsigned char a_u8Behind)
{
    const auto second = [](unsigned char a_u8Second) { return a_u8Second >= 0x80 && a_u8Second < 0xA0; };
    return (a_u8 < 0x20 && a_u8 != '\t') || a_u8 == 0x7F || (a_u8 == 0xC2 && second(a_u8Behind)) ||
           (second(a_u8) && (a_u8Before < 0x80 || a_u8Before == 0xC2));
}

// Escapes control characters; each takes at most g_sizetVisible bytes.
static char* PutVisible(char* a_pch, std::string_view a_svText)
{
    static constexpr char g_szDigits[] = "0123456789ABCDEF";
    const auto byte = [&](size_t a_sizet) {
        return static_cast<unsigned char>(a_sizet < a_svText.size() ? a_svText[a_sizet] : '\0');
    };
    for (size_t sizet = 0; sizet < a_svText.size(); ++sizet)
    {
        if (!Controls(byte(sizet - 1), byte(sizet), byte(sizet + 1)))   // -1 is out of range too
        {
            *a_pch++ = a_svText[sizet];
            continue;
        }
        *a_pch++ = '\\';
        *a_pch++ = 'x';
        *a_pch++ = g_szDigits[byte(sizet) >> 4];
        *a_pch++ = g_szDigits[byte(sizet) & 15];
    }
    return a_pch;
}

char* CLcctlLogWriter::PutTime(char* a_pch, const LcctlRecord& a_lcctlrecord)
{
    if (const int64_t i64Day = a_lcctlrecord.lcctltime / LCCTL_DAY; i64Day != m_i64Day)
    {
        m_i64Day = i64Day;
        std::memcpy(m_achDate, LcctlTimeText(a_lcctlrecord.lcctltime).data(), sizeof m_achDate);
    }
    a_pch = PutBytes(a_pch, {m_achDate, sizeof m_achDate});
    *a_pch++ = ' ';
    if (a_lcctlrecord.lcctlprefix.blTimeless)
        return PutBytes(a_pch, LcctlTimeText(a_lcctlrecord.lcctltime).substr(sizeof m_achDate + 1));
    return PutTimeOfDay(a_pch, a_lcctlrecord.lcctlprefix.pchTime);
}

// Most records are one line, which goes directly into the buffer.
void CLcctlLogWriter::PutLine(const LcctlRecord& a_lcctlrecord)
{
    static constexpr size_t g_sizetLineNumber = 20;   // a longer one is invalid
    if (!a_lcctlrecord.blPrefix)
    {
        PutText(a_lcctlrecord);
        return;
    }
    const LcctlPrefix& lcctlprefix = a_lcctlrecord.lcctlprefix;
    const std::string_view svText = a_lcctlrecord.svText;
    const bool blAtOnce =
        !m_blTerminal && a_lcctlrecord.sizetLines == 1 && svText.size() < g_sizetBuffer - g_sizetPrefix;
    char* pch = PutTime(Room(g_sizetPrefix + (blAtOnce ? svText.size() : 0)), a_lcctlrecord);
    *pch++ = ' ';
    pch = PutBytes(pch, *a_lcctlrecord.pstrProcessId);
    *pch++ = ' ';
    pch = PutBytes(pch, LcctlLevelName(lcctlprefix.lcctllevel));
    *pch++ = ' ';
    pch = m_blTerminal ? PutVisible(pch, lcctlprefix.svSource) : PutBytes(pch, lcctlprefix.svSource);
    *pch++ = ':';
    pch = PutBytes(pch, lcctlprefix.svLine.substr(0, g_sizetLineNumber));
    *pch++ = ' ';
    if (blAtOnce)
    {
        pch = PutBytes(pch, svText);
        *pch++ = '\n';
    }
    m_sizetUsed = static_cast<size_t>(pch - m_strBuffer.data());
    if (!blAtOnce)
        PutText(a_lcctlrecord);
}

void CLcctlLogWriter::PutText(const LcctlRecord& a_lcctlrecord)
{
    std::string_view svText = a_lcctlrecord.svText;
    for (size_t sizetLine = 1; sizetLine < a_lcctlrecord.sizetLines; ++sizetLine)
    {
        const size_t sizetEnd = std::min(svText.find('\n'), svText.size());
        const std::string_view svLine = svText.substr(0, sizetEnd);
        PutPiece(svLine.ends_with('\r') ? svLine.substr(0, sizetEnd - 1) : svLine);
        Put("\n");
        svText.remove_prefix(std::min(sizetEnd + 1, svText.size()));
    }
    PutPiece(svText);
    Put("\n");
}

// In pieces that fit the buffer.
void CLcctlLogWriter::PutPiece(std::string_view a_svLine)
{
    static constexpr size_t g_sizetPiece = g_sizetBuffer / g_sizetVisible;
    if (!m_blTerminal)
    {
        Put(a_svLine);
        return;
    }
    for (size_t sizet = 0; sizet < a_svLine.size(); sizet += g_sizetPiece)
    {
        const std::string_view svPiece = a_svLine.substr(sizet, g_sizetPiece);
        char* const pchEnd = PutVisible(Room(svPiece.size() * g_sizetVisible), svPiece);
        m_sizetUsed = static_cast<size_t>(pchEnd - m_strBuffer.data());
    }
}

// ------------------------------------------------------------------------------------------------------------ JSON

static int64_t NumberOf(std::string_view a_svDigits)
{
    int64_t i64 = 0;
    std::from_chars(a_svDigits.data(), a_svDigits.data() + a_svDigits.size(), i64);
    return i64;
}

static std::string WithoutCarriageReturns(std::string_view a_svText)
{
    std::string strText(a_svText);
    for (size_t sizet = 0; (sizet = strText.find("\r\n", sizet)) != std::string::npos; ++sizet)
        strText.erase(sizet, 1);
    return strText;
}

void CLcctlLogWriter::PutJson(const LcctlRecord& a_lcctlrecord, const std::filesystem::path& a_path)
{
    nlohmann::json json;
    json["message"] = WithoutCarriageReturns(a_lcctlrecord.svText);
    json["file"] = a_path.string();
    if (a_lcctlrecord.blPrefix)
    {
        const LcctlPrefix& lcctlprefix = a_lcctlrecord.lcctlprefix;
        json["time"] = LcctlTimeText(a_lcctlrecord.lcctltime, 'T');
        json["number"] = NumberOf(lcctlprefix.svNumber);
        json["source"] = std::string(lcctlprefix.svSource);
        json["line"] = NumberOf(lcctlprefix.svLine);
        json["lasterror"] = NumberOf(lcctlprefix.svError);
        json["thread"] = NumberOf(lcctlprefix.svThread);
        json["level"] = LcctlLevelName(lcctlprefix.lcctllevel);
    }
    if (const int64_t i64ProcessId = NumberOf(*a_lcctlrecord.pstrProcessId))
        json["pid"] = i64ProcessId;
    Put(json.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n");
}
