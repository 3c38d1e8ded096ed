// os_cospath.cpp: normalises, joins and splits the text of paths, and converts them for the system.
#include "os_cospath.h"

#include "os_coslocale.h"
#include "os_cosstring.h"
#include "os_log.h"

#include "plat_file.h"

#include <algorithm>
#include <cstring>
#include <string_view>

static constexpr char g_szSource[] = "os/source/os_cosfile";

namespace
{
constexpr size_t g_sizetLongPath = 240;   // a drive path of at least this many characters needs the prefix
constexpr std::u16string_view g_wszLongPrefix = u"\\\\?\\";

template <class Char>
constexpr bool IsSeparator(Char a_char)
{
    return a_char == '/' || a_char == '\\';
}

template <class Char>
constexpr bool BeginsWithDrive(const Char* a_szPath)
{
    const bool blLetter = (a_szPath[0] >= 'A' && a_szPath[0] <= 'Z') || (a_szPath[0] >= 'a' && a_szPath[0] <= 'z');
    return blLetter && a_szPath[1] == ':';
}

template <class Char>
void Normalize(Char* a_szPath, Char a_charSeparator)
{
    Char* szTo = a_szPath;
    const Char* szFrom = a_szPath;
    if (szFrom[0] == '\\' && szFrom[1] == '\\')
    {
        szTo += 2;
        while (IsSeparator(*szFrom))
            ++szFrom;
    }
    while (*szFrom)
    {
        if (!IsSeparator(*szFrom))
        {
            *szTo++ = *szFrom++;
            continue;
        }
        *szTo++ = a_charSeparator;
        while (IsSeparator(*szFrom))
            ++szFrom;
    }
    *szTo = 0;
}

void AppendText(char* a_szPath, size_t a_sizetPath, const char* a_szText)
{
    if (!a_szPath)
    {
        OSLOG(OS_LOG_ERROR, "a_szPath is null...");
        return;
    }
    SStrCat(a_szPath, a_sizetPath, a_szText);
}

bool HasDotComponent(std::u16string_view a_wszPath)
{
    const auto contains = [&](std::u16string_view a_wsz) { return a_wszPath.find(a_wsz) != a_wszPath.npos; };
    return contains(u"\\.\\") || contains(u"\\..\\") || a_wszPath.ends_with(u"\\.") || a_wszPath.ends_with(u"\\..");
}
}   // namespace

void OsPathNormalize(char* a_szPath, char a_chSeparator)
{
    if (a_szPath)
        Normalize(a_szPath, a_chSeparator);
}

void OsPathCopy(char* a_szDestination, size_t a_sizetDestination, const char* a_szSource)
{
    if (!a_szDestination || !a_szSource || a_sizetDestination == 0)
    {
        OSLOG(OS_LOG_CHECK, "null argument...%p %d", static_cast<const void*>(a_szDestination),
              static_cast<int>(a_sizetDestination));
        if (a_szDestination && a_sizetDestination > 0)
            a_szDestination[0] = '\0';
        return;
    }

    const size_t sizetSource = strlen(a_szSource);
    if (sizetSource >= a_sizetDestination)
    {
        OSLOG(OS_LOG_CHECK, "buffer overflow...%u <%s>", static_cast<unsigned>(a_sizetDestination), a_szSource);
        a_szDestination[0] = '\0';
        return;
    }
    memmove(a_szDestination, a_szSource, sizetSource + 1);
    OsPathNormalize(a_szDestination);
}

void OsPathAppend(char* a_szPath, size_t a_sizetPath, const char* a_szComponent)
{
    if (!a_szPath || !a_szComponent || a_sizetPath == 0)
    {
        OSLOG(OS_LOG_CHECK, "null argument...%p %d", static_cast<const void*>(a_szPath), static_cast<int>(a_sizetPath));
        return;
    }

    const char* szComponent = a_szComponent;
    if (BeginsWithDrive(szComponent))
    {
        OSLOG(OS_LOG_NOTE, "PathAppend stripping drive letter...<%s>", a_szComponent);
        szComponent += 2;
    }

    // Strips leading separators of the component: below the root "\" a second one would make a network path.
    while (IsSeparator(*szComponent))
        ++szComponent;
    const size_t sizetPath = strlen(a_szPath);
    const size_t sizetSeparator = sizetPath > 0 && IsSeparator(a_szPath[sizetPath - 1]) ? 0 : 1;
    const size_t sizetComponent = strlen(szComponent);
    if (sizetPath + sizetSeparator + sizetComponent >= a_sizetPath)
    {
        OSLOG(OS_LOG_CHECK, "buffer overflow...%u <%s>", static_cast<unsigned>(a_sizetPath), a_szComponent);
        a_szPath[0] = '\0';
        return;
    }
    memmove(a_szPath + sizetPath + sizetSeparator, szComponent, sizetComponent);
    if (sizetSeparator)
        a_szPath[sizetPath] = '\\';
    a_szPath[sizetPath + sizetSeparator + sizetComponent] = '\0';
    OsPathNormalize(a_szPath);
}

void OsPathSplit(char* a_szPath, size_t* a_psizetFolder, const char** a_pszFilename)
{
    const char* szFilename = a_szPath;
    size_t sizetFolder = 0;
    if (a_szPath)
    {
        OsPathNormalize(a_szPath);
        szFilename = StrFileName(a_szPath);
        sizetFolder = szFilename == a_szPath ? 0 : static_cast<size_t>(szFilename - a_szPath) - 1;
    }
    if (a_psizetFolder)
        *a_psizetFolder = sizetFolder;
    if (a_pszFilename)
        *a_pszFilename = szFilename;
}

bool OsPathFolder(char* a_szPath)
{
    size_t sizetFolder = 0;
    const char* szFilename = nullptr;
    OsPathSplit(a_szPath, &sizetFolder, &szFilename);
    const bool blSeparator = szFilename != a_szPath;
    a_szPath[sizetFolder] = '\0';
    return blSeparator;
}

void OsPathRemoveTrailing(char* a_szPath)
{
    if (!a_szPath)
        return;
    size_t sizetLength = strlen(a_szPath);
    while (sizetLength > 1 && IsSeparator(a_szPath[sizetLength - 1]))
        a_szPath[--sizetLength] = '\0';
}

void OsPathAppendExe(char* a_szPath, size_t a_sizetPath)
{
    AppendText(a_szPath, a_sizetPath, ".exe");
}

void OsPathAppendDll(char* a_szPath, size_t a_sizetPath)
{
    AppendText(a_szPath, a_sizetPath, ".dll");
}

EOSSTS OsPathAbsolute(char* a_szAbsolute, size_t a_sizetAbsolute, const char* a_szName)
{
    if (!a_szAbsolute || a_sizetAbsolute == 0)
    {
        OSLOG(OS_LOG_ERROR, "a_szAbsolute is null...");
        return EOSSTS_FAIL;
    }
    if (!a_szName)
    {
        OSLOG(OS_LOG_ERROR, "a_szName is null...");
        return EOSSTS_FAIL;
    }
    if (!a_szName[0])
    {
        OSLOG(OS_LOG_NOTE, "a_szName is empty...");
        return EOSSTS_FAIL;
    }

    char16_t wszName[OS_PATHSIZE];
    if (CopyStringFromUtf8(wszName, OS_PATHSIZE, a_szName) == 0)
        return EOSSTS_FAIL;
    char16_t wszFull[PLAT_PATHMAX];
    if (!PlatFileFullName(wszName, wszFull, PLAT_PATHMAX))
    {
        OSLOG(OS_LOG_ERROR, "LockGetFullPathName failed...<%s>", a_szName);
        return EOSSTS_FAIL;
    }
    if (CopyStringToUtf8(a_szAbsolute, a_sizetAbsolute, wszFull, SIZE_MAX) == 0)
        return EOSSTS_FAIL;
    OsPathNormalize(a_szAbsolute);
    return EOSSTS_SUCCESS;
}

void OsPathLong(char16_t* a_wszPath, size_t a_sizetPath)
{
    if (!a_wszPath || !BeginsWithDrive(a_wszPath))
        return;
    const std::u16string_view wszPath(a_wszPath);
    if (wszPath.size() < g_sizetLongPath || wszPath.size() > OS_PATHSIZE)
        return;

    char16_t wszLong[OS_WIDEPATHSIZE];
    char16_t* const wszBehind = std::copy(g_wszLongPrefix.begin(), g_wszLongPrefix.end(), wszLong);
    *std::copy(wszPath.begin(), wszPath.end(), wszBehind) = u'\0';
    Normalize(wszBehind, u'\\');

    const std::u16string_view wszResult(wszLong);
    if (HasDotComponent(wszResult) || wszResult.size() >= a_sizetPath)
        return;
    *std::copy(wszResult.begin(), wszResult.end(), a_wszPath) = u'\0';
}

bool OsPathToSystem(char16_t* a_wszPath, size_t a_sizetPath, const char* a_szPath)
{
    if (CopyStringFromUtf8(a_wszPath, std::min(a_sizetPath, OS_PATHSIZE), a_szPath) == 0)
        return false;
    OsPathLong(a_wszPath, a_sizetPath);
    return true;
}
