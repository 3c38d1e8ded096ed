// os_coscfg_ini.cpp: loads an INI file into the table: the section prefix, splitting text into lines, which settings a
// file may make, loading.
#include "os_coscfg_impl.h"

#include "os_cosarguments.h"
#include "os_cosenv.h"
#include "os_cosfile.h"
#include "os_cospath.h"
#include "os_cossocket.h"
#include "os_cosstring.h"
#include "os_log.h"

#include <cstring>
#include <new>

static constexpr char g_szSource[] = "os/source/os_coscfg";

// --------------------------------------------------------------------------------------------------- section prefix

static constexpr size_t g_sizetPrefix = 128;

namespace
{
struct SectionPrefix
{
    SectionPrefix();
    void TakeOverrideFolder();

    char szPrefix[g_sizetPrefix] = {};
    char szBuilt[3 * OS_PATHSIZE] = {};
};

void SectionPrefix::TakeOverrideFolder()
{
    SStrCpy(szBuilt, sizeof szBuilt, OsArgumentsGet(OS_ARGUMENT_OVERRIDEFOLDER));
    if (!szBuilt[0])
        return;
    for (char* pch = szBuilt; *pch; ++pch)
    {
        if (*pch == '\\' || *pch == '/')
            *pch = '.';
    }
    SStrReplace(szBuilt, sizeof szBuilt, "drvlet.hvcfgmgr", "hvcfgmgr", true);
    SStrReplace(szBuilt, sizeof szBuilt, "drvlet.drvlettst", "drvlettst", true);
    SStrCat(szBuilt, sizeof szBuilt, ".");
}

SectionPrefix::SectionPrefix()
{
    TakeOverrideFolder();
    const char* const szUniqueName = OsArgumentsGet(OS_ARGUMENT_UNIQUENAME);
    SStrCat(szBuilt, sizeof szBuilt, std::strcmp(szUniqueName, "mvr") == 0 ? "twain" : szUniqueName);
    if (!*OsArgumentsGet(OS_ARGUMENT_MODELDIRECTORY) && !szBuilt[0])
        return;
    SStrCat(szBuilt, sizeof szBuilt, ".");
    SStrCpy(szPrefix, sizeof szPrefix, szBuilt);
}
}   // namespace

const char* OsCfgSectionPrefix()
{
    static const SectionPrefix g_sectionprefix;
    return g_sectionprefix.szPrefix;
}

// -------------------------------------------------------------------------------------------------- texts and lines

EOSSTS OsCfgReadText(const char* a_szPath, bool a_blRedirectionOff, char* a_szBuffer, size_t a_sizetBuffer)
{
    *a_szBuffer = 0;
    COsFile osfile;
    if (const EOSSTS eossts =
            osfile.Open(a_szPath, OS_FILEOPEN_EXISTING, OS_FILEACCESS_READ, OS_FILESHARE_READ, a_blRedirectionOff);
        eossts != EOSSTS_SUCCESS)
        return eossts == EOSSTS_FAIL ? EOSSTS_FAIL : EOSSTS_NOTFOUND;

    size_t sizetTotal = 0;
    for (size_t sizetRead = 1; sizetRead != 0 && sizetTotal < a_sizetBuffer - 1; sizetTotal += sizetRead)
    {
        if (osfile.Read(a_szBuffer + sizetTotal, a_sizetBuffer - 1 - sizetTotal, &sizetRead) != EOSSTS_SUCCESS)
        {
            OSLOG(OS_LOG_ERROR, "ReadFile failed...<%s>", a_szPath);
            *a_szBuffer = 0;
            return EOSSTS_FAIL;
        }
    }
    a_szBuffer[sizetTotal] = 0;

    static constexpr char g_szMark[] = "\xEF\xBB\xBF";
    static constexpr size_t g_sizetMark = sizeof g_szMark - 1;
    if (std::strncmp(a_szBuffer, g_szMark, g_sizetMark) == 0)
        std::memmove(a_szBuffer, a_szBuffer + g_sizetMark, sizetTotal + 1 - g_sizetMark);
    return EOSSTS_SUCCESS;
}

char* OsCfgNextLine(char** a_pszText)
{
    char* const szLine = *a_pszText;
    if (!szLine)
        return nullptr;
    char* const szEnd = szLine + std::strcspn(szLine, "\r\n");
    *a_pszText = *szEnd ? szEnd + 1 : nullptr;
    *szEnd = 0;
    return szLine;
}

// ------------------------------------------------------------------------------------------------- permitted settings

namespace
{
bool EndsWith(const char* a_szText, const char* a_szSuffix)
{
    return StrEndsWith(a_szText, a_szSuffix, true);
}

// Parses the lines of one file in place: the stored values point into the text.
class IniLines
{
public:
    IniLines(OsCfgTable* a_poscfgtable, OsCfgLoadMode a_oscfgloadmode)
        : m_poscfgtable(a_poscfgtable),
          m_oscfgloadmode(a_oscfgloadmode),
          m_szPrefix(a_oscfgloadmode == OsCfgLoadMode::Path ? "" : OsCfgSectionPrefix()),
          m_blDebugIni(OsCfgCommonIsYes("UseDebugIni", "yes"))
    {
    }

    void Take(char* a_szText);

private:
    void TakeHeader(char* a_szHeader);
    void TakeKey(char* a_szLine);
    const char* NameBehindPrefix(const char* a_szHeader) const;
    bool IsSectionOurs(const char* a_szName) const;
    bool IsKeyOurs(const char* a_szKey) const;

    OsCfgTable* m_poscfgtable;
    OsCfgLoadMode m_oscfgloadmode;
    const char* m_szPrefix;
    bool m_blDebugIni;
    uint32_t m_u32Section = 0;   // 0: ignore the key lines
    bool m_blIdentity = false;
};

void IniLines::Take(char* a_szText)
{
    while (char* const szLine = OsCfgNextLine(&a_szText))
    {
        if (*szLine == '[')
        {
            TakeHeader(szLine + 1);
            continue;
        }
        const bool blComment = *szLine == ';';
        if (!blComment && m_u32Section != 0)
            TakeKey(szLine);
    }
}

void IniLines::TakeHeader(char* a_szHeader)
{
    m_u32Section = 0;
    char* const szEnd = std::strchr(a_szHeader, ']');
    if (!szEnd)
        return;
    *szEnd = 0;

    const char* szName = a_szHeader;
    if (*m_szPrefix)
    {
        if (!StrIStartsWith(a_szHeader, m_szPrefix))
            return;
        szName = NameBehindPrefix(a_szHeader);
    }
    m_blIdentity = EndsWith(szName, "dsidentity");
    if (IsSectionOurs(szName))
        m_u32Section = m_poscfgtable->FindSection(szName);
}

// The section's name is the part behind the last ".", or a longer part if that is a known name: one of the names
// contains a ".".
const char* IniLines::NameBehindPrefix(const char* a_szHeader) const
{
    const char* const szLast = std::strrchr(a_szHeader, '.') + 1;   // the prefix ends with one
    const char* const szFirst = a_szHeader + std::strlen(m_szPrefix);
    for (const char* sz = szFirst; sz != szLast; ++sz)
    {
        if (sz[-1] == '.' && m_poscfgtable->FindSection(sz) != 0)
            return sz;
    }
    return szLast;
}

// Which sections a file may set: diagnostic sections are taken from debug.ini while that is in use.
bool IniLines::IsSectionOurs(const char* a_szName) const
{
    const bool blDiagnostic = EndsWith(a_szName, "simulation") || EndsWith(a_szName, "images");
    switch (m_oscfgloadmode)
    {
    case OsCfgLoadMode::Protected:
        return !(m_blDebugIni && blDiagnostic);
    case OsCfgLoadMode::Unprotected:
        return blDiagnostic || m_blIdentity;
    case OsCfgLoadMode::Path:
        break;
    }
    return true;
}

bool IniLines::IsKeyOurs(const char* a_szKey) const
{
    const bool blDebug = StrIStartsWith(a_szKey, "debug");
    if (m_oscfgloadmode == OsCfgLoadMode::Protected)
        return !(m_blDebugIni && blDebug);
    if (m_oscfgloadmode == OsCfgLoadMode::Unprotected)
        return !m_blIdentity || blDebug;
    return true;
}

void IniLines::TakeKey(char* a_szLine)
{
    char* const szEqual = std::strchr(a_szLine, '=');
    if (!szEqual)
        return;
    *szEqual = 0;
    if (!IsKeyOurs(a_szLine))
        return;
    if (const uint32_t u32Tag = m_poscfgtable->FindTag(m_u32Section, a_szLine))
        m_poscfgtable->Set(m_u32Section, u32Tag, szEqual + 1 + std::strspn(szEqual + 1, " \t"));
}

// ------------------------------------------------------------------------------------------------------------- loading

// On the maker's own machines an environment variable can replace the path of a file.
void Redirect(char (&a_szPath)[OS_PATHSIZE])
{
    static constexpr struct
    {
        const char* szVariable;
        const char* szSuffix;
    } g_aredirect[] = {{"MVR_CONSTINI", "const.ini"}, {"MVR_DEBUGINI", "debug.ini"}};

    for (const auto& redirect : g_aredirect)
    {
        char szOther[OS_PATHSIZE];
        OsEnvGet(redirect.szVariable, "", sizeof szOther, szOther);
        if (!szOther[0] || !OsIsInHouseMachine() || !StrEndsWith(a_szPath, redirect.szSuffix, false))
            continue;
        OsPathCopy(a_szPath, sizeof a_szPath, szOther);
        return;
    }
}

void FindIni(const char* a_szPath, OsCfgLoadMode a_oscfgloadmode, char (&a_szFound)[OS_PATHSIZE])
{
    a_szFound[0] = 0;
    switch (a_oscfgloadmode)
    {
    case OsCfgLoadMode::Path:
        SStrCpy(a_szFound, sizeof a_szFound, a_szPath);
        break;
    case OsCfgLoadMode::Protected:
        OsCfgResolvePath(OS_PATH_READABLE_FILE_PROTECTED_CONSTINI, a_szFound, sizeof a_szFound);
        break;
    case OsCfgLoadMode::Unprotected:
        OsCfgResolvePath(OS_PATH_WRITEABLE_FILE_UNPROTECTED_DEBUGINI, a_szFound, sizeof a_szFound);
        break;
    }
    Redirect(a_szFound);
}
}   // namespace

EOSSTS COsCfgImpl::LoadIni(const char* a_szPath, std::unique_ptr<char[]>& a_szBuffer, OsCfgLoadMode a_oscfgloadmode)
{
    char szPath[OS_PATHSIZE];
    FindIni(a_szPath, a_oscfgloadmode, szPath);
    if (!szPath[0])
        return EOSSTS_NOTFOUND;
    std::unique_ptr<char[]> szBuffer(new (std::nothrow) char[OS_CFGFILESIZE]);
    if (!szBuffer)
        return EOSSTS_FAIL;
    const EOSSTS eossts = OsCfgReadText(szPath, a_oscfgloadmode != OsCfgLoadMode::Path, szBuffer.get(), OS_CFGFILESIZE);
    if (eossts != EOSSTS_SUCCESS)
        return eossts;
    a_szBuffer = std::move(szBuffer);
    IniLines(&m_oscfgtable, a_oscfgloadmode).Take(a_szBuffer.get());
    return EOSSTS_SUCCESS;
}
