// os_cosxml.cpp: extracts or replaces a field of an XML-like text by plain substring search.
#include "os_cosxml.h"

#include "os_cosstring.h"
#include "os_log.h"

#include <cstring>
#include <memory>
#include <new>
#include <string_view>

static constexpr char g_szSource[] = "os/source/os_cosxml";

static constexpr std::string_view OS_CDATAOPEN = "<![CDATA[";
static constexpr std::string_view OS_CDATACLOSE = "]]>";

// A value without both CDATA markers is returned unchanged.
static std::string_view UnwrapCdata(std::string_view a_strviewValue)
{
    if (!a_strviewValue.starts_with(OS_CDATAOPEN))
        return a_strviewValue;
    const std::string_view strviewRest = a_strviewValue.substr(OS_CDATAOPEN.size());
    if (!strviewRest.ends_with(OS_CDATACLOSE))
        return a_strviewValue;
    return strviewRest.substr(0, strviewRest.size() - OS_CDATACLOSE.size());
}

// Uses the failed-check hook when there is no logger.
static void ReportOverflow(const char* a_szOpenTag, const char* a_szSource)
{
    static constexpr char szText[] = "data overflow: %s %s";
    if (g_poslogsink.load(std::memory_order_acquire))
    {
        OSLOG(OS_LOG_CHECK, szText, a_szOpenTag, a_szSource);
        return;
    }
    const OsLogCheckProc oslogcheckproc = g_poslogcheckproc.load(std::memory_order_acquire);
    if (!oslogcheckproc)
        return;
    const size_t sizetText = sizeof szText + std::strlen(a_szOpenTag) + std::strlen(a_szSource);
    const std::unique_ptr<char[]> szReport(new (std::nothrow) char[sizetText]);
    if (szReport)
        SStrPrintf(szReport.get(), sizetText, szText, a_szOpenTag, a_szSource);
    oslogcheckproc(g_szSource, __LINE__, szReport ? szReport.get() : a_szOpenTag);
}

static bool AreThere(const void* a_pvSource, const void* a_pvOpenTag, const void* a_pvCloseTag, const void* a_pvResult)
{
    if (a_pvSource && a_pvOpenTag && a_pvCloseTag && a_pvResult)
        return true;
    OSLOG(OS_LOG_CHECK, "OsXmlExtract failed...%p %p %p %p", a_pvSource, a_pvOpenTag, a_pvCloseTag, a_pvResult);
    return false;
}

const char* OsXmlFind(const char* a_szSource, const char* a_szOpenTag, const char* a_szCloseTag, bool a_blCdata,
                      size_t* a_psizetLength)
{
    if (!AreThere(a_szSource, a_szOpenTag, a_szCloseTag, a_psizetLength))
        return nullptr;
    *a_psizetLength = 0;
    const char* const szOpen = std::strstr(a_szSource, a_szOpenTag);
    if (!szOpen)
        return nullptr;
    const char* const szValue = szOpen + std::strlen(a_szOpenTag);
    const char* const szClose = std::strstr(szValue, a_szCloseTag);
    if (!szClose)
        return nullptr;

    const std::string_view strviewWhole(szValue, static_cast<size_t>(szClose - szValue));
    const std::string_view strviewValue = a_blCdata ? UnwrapCdata(strviewWhole) : strviewWhole;
    *a_psizetLength = strviewValue.size();
    return strviewValue.data();
}

bool OsXmlExtract(const char* a_szSource, const char* a_szOpenTag, const char* a_szCloseTag, char* a_szDestination,
                  size_t a_sizetDestination, bool a_blCdata)
{
    if (!AreThere(a_szSource, a_szOpenTag, a_szCloseTag, a_szDestination))
        return false;
    const bool blInPlace = a_szDestination == a_szSource;
    if (!blInPlace)
        *a_szDestination = 0;

    size_t sizetValue = 0;
    const char* const szValue = OsXmlFind(a_szSource, a_szOpenTag, a_szCloseTag, a_blCdata || blInPlace, &sizetValue);
    const bool blOverflow = szValue && a_sizetDestination && sizetValue >= a_sizetDestination;
    if (blOverflow)
        ReportOverflow(a_szOpenTag, a_szSource);
    if (!szValue || blOverflow || (blInPlace && !sizetValue))
    {
        *a_szDestination = 0;
        return false;
    }
    std::memmove(a_szDestination, szValue, sizetValue);
    a_szDestination[sizetValue] = 0;
    return true;
}

// ---------------------------------------------------------------------------------------------- elements by name

namespace
{
struct OsXmlTags
{
    explicit OsXmlTags(const char* a_szName)
    {
        SStrPrintf(szOpen, sizeof szOpen, "<%s>", a_szName);
        SStrPrintf(szClose, sizeof szClose, "</%s>", a_szName);
    }

    char szOpen[64];
    char szClose[64];
};
}   // namespace

bool OsXmlExtractElement(const char* a_szSource, const char* a_szName, char* a_szDestination, size_t a_sizetDestination)
{
    const OsXmlTags osxmltags(a_szName);
    return OsXmlExtract(a_szSource, osxmltags.szOpen, osxmltags.szClose, a_szDestination, a_sizetDestination, true);
}

EOSSTS OsXmlReplaceElement(char* a_szText, size_t a_sizetText, const char* a_szName, const char* a_szValue)
{
    const OsXmlTags osxmltags(a_szName);
    size_t sizetOld = 0;
    const char* const szOld = OsXmlFind(a_szText, osxmltags.szOpen, osxmltags.szClose, true, &sizetOld);
    if (!szOld)
        return EOSSTS_NOSPACE;
    const size_t sizetNew = std::strlen(a_szValue);
    const size_t sizetBefore = static_cast<size_t>(szOld - a_szText);
    const size_t sizetAfter = std::strlen(szOld + sizetOld);
    if (sizetBefore + sizetNew + sizetAfter >= a_sizetText)
    {
        OSLOG(OS_LOG_ERROR, "buffer overflow...<%s> %d <%s> <%s>", a_szText, static_cast<int>(a_sizetText),
              osxmltags.szOpen, a_szValue);
        return EOSSTS_FAIL;
    }
    char* const szPlace = a_szText + sizetBefore;
    std::memmove(szPlace + sizetNew, szPlace + sizetOld, sizetAfter + 1);
    std::memcpy(szPlace, a_szValue, sizetNew);   // NOLINT(bugprone-not-null-terminated-result)
    return EOSSTS_SUCCESS;
}
