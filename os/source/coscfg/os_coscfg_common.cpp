// os_coscfg_common.cpp: the common settings file, a flat list of global switches: parsing, loading, lookup.
#include "os_coscfg_impl.h"

#include "os_cosfile_system.h"
#include "os_cosstring.h"

#include <cstring>
#include <new>

namespace
{
// ---------------------------------------------------------------------------------------------------------- the lines

class CommonSettings
{
public:
    // Leaves the list empty when there is no file. False for a failure that may be temporary.
    bool Load();
    const char* Find(const char* a_szKey) const;   // null when it is absent

private:
    static constexpr size_t OS_ENTRIES = 128;
    struct Entry
    {
        const char* szKey;
        const char* szValue;
    };
    void Take(char* a_szLine);

    char m_szText[OS_CFGFILESIZE];
    Entry m_aentry[OS_ENTRIES];
    size_t m_sizetEntries = 0;
};

bool IsSpace(char a_ch)
{
    return a_ch == ' ' || (a_ch >= '\t' && a_ch <= '\r');
}

// Trims in place.
char* Trimmed(char* a_szText)
{
    while (IsSpace(*a_szText))
        ++a_szText;
    size_t sizetLength = std::strlen(a_szText);
    while (sizetLength > 0 && IsSpace(a_szText[sizetLength - 1]))
        a_szText[--sizetLength] = 0;
    return a_szText;
}

void CommonSettings::Take(char* a_szLine)
{
    const char chFirst = a_szLine[std::strspn(a_szLine, " \t")];
    const bool blControl = static_cast<unsigned char>(chFirst) < ' ' || chFirst == '\x7F';   // an empty line as well
    if (blControl || chFirst == ';' || chFirst == '=' || chFirst == '[' || m_sizetEntries == OS_ENTRIES)
        return;
    char* const szEqual = std::strchr(a_szLine, '=');
    if (szEqual)
        *szEqual = 0;
    char* const szValue = szEqual ? szEqual + 1 : a_szLine + std::strlen(a_szLine);
    m_aentry[m_sizetEntries++] = {Trimmed(a_szLine), Trimmed(szValue)};
}

// -------------------------------------------------------------------------------------------------------- the loading

EOSSTS FindFile(char (&a_szPath)[OS_PATHSIZE])
{
    OsFileInfo osfileinfo;
    a_szPath[0] = 0;
    OsCfgResolvePath(OS_PATH_READABLE_FILE_COMMON_CONSTINI, a_szPath, sizeof a_szPath);
    if (!a_szPath[0])
        return EOSSTS_FAIL;
    if (const EOSSTS eossts = OsFileGetInfo(a_szPath, &osfileinfo); eossts != EOSSTS_NOTFOUND)
        return eossts;
    SStrCat(a_szPath, sizeof a_szPath, ".txt");
    return a_szPath[0] ? OsFileGetInfo(a_szPath, &osfileinfo) : EOSSTS_NOTFOUND;
}

bool CommonSettings::Load()
{
    char szPath[OS_PATHSIZE];
    EOSSTS eossts = FindFile(szPath);
    if (eossts == EOSSTS_SUCCESS)
        eossts = OsCfgReadText(szPath, true, m_szText, sizeof m_szText);
    char* szText = eossts == EOSSTS_SUCCESS ? m_szText : nullptr;
    while (char* const szLine = OsCfgNextLine(&szText))
        Take(szLine);
    return eossts != EOSSTS_FAIL;
}

const char* CommonSettings::Find(const char* a_szKey) const
{
    for (size_t sizet = 0; sizet < m_sizetEntries; ++sizet)
    {
        if (StrICmp(m_aentry[sizet].szKey, a_szKey) == 0)
            return m_aentry[sizet].szValue;
    }
    return nullptr;
}

std::atomic<const CommonSettings*> g_pcommonsettings{nullptr};
thread_local bool g_blLoading = false;

std::unique_ptr<const CommonSettings> LoadSettings()
{
    std::unique_ptr<CommonSettings> commonsettings(g_blLoading ? nullptr : new (std::nothrow) CommonSettings);
    if (!commonsettings)
        return nullptr;
    g_blLoading = true;
    const bool blLoaded = commonsettings->Load();
    g_blLoading = false;
    return blLoaded ? std::move(commonsettings) : nullptr;
}

// The settings of the process. Null when they cannot be loaded now, and for lookups made by the thread that is loading
// them: the loader logs, and the logger reads settings.
const CommonSettings* Settings()
{
    return OsCfgPublished(g_pcommonsettings, LoadSettings);
}
}   // namespace

// -------------------------------------------------------------------------------------------------------- the lookups

const char* OsCfgCommonGet(const char* a_szKey, const char* a_szDefault, bool* a_pblFound)
{
    const CommonSettings* const pcommonsettings = a_szKey && *a_szKey ? Settings() : nullptr;
    const char* const szValue = pcommonsettings ? pcommonsettings->Find(a_szKey) : nullptr;
    if (a_pblFound)
        *a_pblFound = szValue != nullptr;
    if (szValue)
        return szValue;
    return a_szDefault ? a_szDefault : "";
}

bool OsCfgCommonIsYes(const char* a_szKey, const char* a_szDefault)
{
    return StrICmp(OsCfgCommonGet(a_szKey, a_szDefault), "yes") == 0;
}

void OsCfgCommonInstall()
{
    g_poscfgcommonproc.store(
        [](const char* a_szKey, const char* a_szDefault) { return OsCfgCommonGet(a_szKey, a_szDefault); },
        std::memory_order_release);
    g_poscfgpathproc.store(OsCfgResolvePath, std::memory_order_release);
}
