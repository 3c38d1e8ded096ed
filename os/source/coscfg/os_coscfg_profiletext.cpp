// os_coscfg_profiletext.cpp: the text of one INI file: parsing, searching, changing, serialising.
#include "os_coscfg_profiletext.h"

#include "os_cosstring.h"

#include <algorithm>
#include <cstring>
#include <string_view>

// --------------------------------------------------------------------------------------------------------- the lines

static constexpr char LowerOf(char a_ch)
{
    return a_ch >= 'A' && a_ch <= 'Z' ? static_cast<char>(a_ch + ('a' - 'A')) : a_ch;
}

static bool Equals(std::string_view a_strLeft, std::string_view a_strRight)
{
    return std::equal(a_strLeft.begin(), a_strLeft.end(), a_strRight.begin(), a_strRight.end(),
                      [](char chLeft, char chRight) { return LowerOf(chLeft) == LowerOf(chRight); });
}

static bool IsKeyLine(const char* a_szLine)
{
    return *a_szLine != ';' && *a_szLine != '[' && std::strchr(a_szLine, '=');
}

static bool IsCommentedKeyLine(const char* a_szLine)
{
    return *a_szLine == ';' && std::strchr(a_szLine, '=');
}

size_t OsCfgProfileText::Next(size_t a_sizetLine) const
{
    return a_sizetLine + std::strlen(m_szText + a_sizetLine) + 1;
}

void OsCfgProfileText::Clear()
{
    m_szText[0] = 0;
    m_sizetUsed = 0;
    m_blCut = false;
}

void OsCfgProfileText::Take(const char* a_achFile, size_t a_sizetFile)
{
    Clear();
    m_blCut = a_sizetFile > OS_PROFILESIZE;
    std::string_view strFile(a_achFile, std::min(a_sizetFile, OS_PROFILESIZE));
    if (strFile.substr(0, 3) == "\xEF\xBB\xBF")
        strFile.remove_prefix(3);

    for (const char ch : strFile)
    {
        const bool blEnd = ch == '\n' || ch == 0;
        const bool blEmpty = m_sizetUsed == 0 || m_szText[m_sizetUsed - 1] == 0;
        if (ch != '\r' && !(blEnd && blEmpty))
            m_szText[m_sizetUsed++] = blEnd ? '\0' : ch;
    }
    if (m_sizetUsed > 0 && m_szText[m_sizetUsed - 1] != 0)
        m_szText[m_sizetUsed++] = 0;
}

// ------------------------------------------------------------------------------------------------------------ finding

// Offset of the first line behind the header, SIZE_MAX if the section is missing.
size_t OsCfgProfileText::FindSection(const char* a_szSection) const
{
    for (size_t sizetLine = 0; sizetLine < m_sizetUsed; sizetLine = Next(sizetLine))
    {
        const std::string_view strLine = m_szText + sizetLine;
        if (strLine.size() >= 2 && strLine.front() == '[' && strLine.back() == ']' &&
            Equals(strLine.substr(1, strLine.size() - 2), a_szSection))
            return Next(sizetLine);
    }
    return SIZE_MAX;
}

size_t OsCfgProfileText::FindKey(size_t a_sizetLine, const char* a_szKey) const
{
    const size_t sizetKey = std::strlen(a_szKey);
    for (; a_sizetLine < m_sizetUsed && m_szText[a_sizetLine] != '['; a_sizetLine = Next(a_sizetLine))
    {
        const std::string_view strLine = m_szText + a_sizetLine;
        if (strLine.size() > sizetKey && strLine[sizetKey] == '=' && Equals(strLine.substr(0, sizetKey), a_szKey))
            return a_sizetLine;
    }
    return SIZE_MAX;
}

size_t OsCfgProfileText::FindNumbered(size_t a_sizetLine, int32_t a_i32Number) const
{
    for (; a_sizetLine < m_sizetUsed && m_szText[a_sizetLine] != '['; a_sizetLine = Next(a_sizetLine))
    {
        if (a_i32Number-- == 0)
            return std::strchr(m_szText + a_sizetLine, '=') ? a_sizetLine : SIZE_MAX;
    }
    return SIZE_MAX;
}

static bool IsNumbered(const char* a_szKey)
{
    return a_szKey[0] == '@' && a_szKey[1] && a_szKey[1 + std::strspn(a_szKey + 1, "0123456789")] == 0;
}

const char* OsCfgProfileText::Find(const char* a_szSection, const char* a_szKey) const
{
    if (std::strlen(a_szKey) < 2)
        return nullptr;
    const size_t sizetFirst = FindSection(a_szSection);
    if (sizetFirst == SIZE_MAX)
        return nullptr;
    if (IsNumbered(a_szKey))
    {
        const size_t sizetLine = FindNumbered(sizetFirst, StrToInt32(a_szKey + 1));
        return sizetLine == SIZE_MAX ? nullptr : std::strchr(m_szText + sizetLine, '=') + 1;
    }
    const size_t sizetLine = FindKey(sizetFirst, a_szKey);
    return sizetLine == SIZE_MAX ? nullptr : m_szText + sizetLine + std::strlen(a_szKey) + 1;
}

// ----------------------------------------------------------------------------------------------------------- changing

// Offset behind the last key line of the section that begins at a_sizetLine.
size_t OsCfgProfileText::EndOfKeys(size_t a_sizetLine) const
{
    size_t sizetEnd = a_sizetLine;
    for (; a_sizetLine < m_sizetUsed && m_szText[a_sizetLine] != '['; a_sizetLine = Next(a_sizetLine))
    {
        if (IsKeyLine(m_szText + a_sizetLine))
            sizetEnd = Next(a_sizetLine);
    }
    return sizetEnd;
}

// Replaces a_sizetOld bytes by one line of three parts. False when the text would get too long.
bool OsCfgProfileText::Replace(size_t a_sizetAt, size_t a_sizetOld, const char* a_szFirst, const char* a_szMiddle,
                               const char* a_szLast)
{
    const size_t sizetNew = std::strlen(a_szFirst) + std::strlen(a_szMiddle) + std::strlen(a_szLast) + 1;
    if (sizetNew > sizeof m_szText - (m_sizetUsed - a_sizetOld))
        return false;
    std::memmove(m_szText + a_sizetAt + sizetNew, m_szText + a_sizetAt + a_sizetOld,
                 m_sizetUsed - a_sizetAt - a_sizetOld);
    char* szTo = m_szText + a_sizetAt;
    for (const char* szPart : {a_szFirst, a_szMiddle, a_szLast})
        szTo = std::copy_n(szPart, std::strlen(szPart), szTo);
    *szTo = 0;
    m_sizetUsed += sizetNew - a_sizetOld;
    return true;
}

EOSSTS OsCfgProfileText::Store(const char* a_szSection, const char* a_szKey, const char* a_szValue, bool* a_pblChanged)
{
    *a_pblChanged = false;
    if (m_blCut)
        return EOSSTS_NOMEMORY;
    const char* const szOld = Find(a_szSection, a_szKey);
    if (szOld && std::strcmp(szOld, a_szValue) == 0)
        return EOSSTS_SUCCESS;

    OsCfgProfileText oscfgprofiletext = *this;
    size_t sizetFirst = FindSection(a_szSection);
    if (sizetFirst == SIZE_MAX)
    {
        if (!oscfgprofiletext.Replace(m_sizetUsed, 0, "[", a_szSection, "]"))
            return EOSSTS_NOMEMORY;
        sizetFirst = oscfgprofiletext.m_sizetUsed;
    }
    const size_t sizetLine = oscfgprofiletext.FindKey(sizetFirst, a_szKey);
    const bool blNew = sizetLine == SIZE_MAX;
    const size_t sizetAt = blNew ? oscfgprofiletext.EndOfKeys(sizetFirst) : sizetLine;
    const size_t sizetOld = blNew ? 0 : oscfgprofiletext.Next(sizetLine) - sizetLine;

    char achFile[OS_PROFILESIZE];
    if (!oscfgprofiletext.Replace(sizetAt, sizetOld, a_szKey, "=", a_szValue) ||
        oscfgprofiletext.ToFile(achFile) == SIZE_MAX)
        return EOSSTS_NOMEMORY;
    *this = oscfgprofiletext;
    *a_pblChanged = true;
    return EOSSTS_SUCCESS;
}

// -------------------------------------------------------------------------------------------------------- giving back

size_t OsCfgProfileText::ToFile(char (&a_achFile)[OS_PROFILESIZE]) const
{
    size_t sizetFile = 0;
    bool blBlock = false;
    for (size_t sizetLine = 0; sizetLine < m_sizetUsed; sizetLine = Next(sizetLine))
    {
        const std::string_view strLine = m_szText + sizetLine;
        const bool blKey = IsKeyLine(strLine.data());
        const bool blCommented = IsCommentedKeyLine(strLine.data());
        const std::string_view strBlank = blBlock && !blKey && !blCommented ? "\r\n" : "";
        blBlock = blKey || (blBlock && blCommented);

        if (strBlank.size() + strLine.size() + 2 > sizeof a_achFile - sizetFile)
            return SIZE_MAX;
        for (const std::string_view strPart : {strBlank, strLine, std::string_view("\r\n")})
            sizetFile += strPart.copy(a_achFile + sizetFile, strPart.size());
    }
    return sizetFile;
}
