// os_cosservices_identity.cpp: parses the program's own document (name, kind, log, version), and answers the logger's
// queries for the header from the program's files.
#include "os_cosservices_identity.h"

#include "os_cosarguments.h"
#include "os_cosenv.h"
#include "os_coslog.h"
#include "os_cospath.h"
#include "os_cosresource.h"
#include "os_cosstring.h"
#include "os_cosxml.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <string_view>

static constexpr char g_szSource[] = "os/source/os_cosservices";

namespace
{
// Empty when the element is missing or does not fit.
template <size_t a_sizetText>
void Take(const char* a_szDocument, const char* a_szName, char (&a_szText)[a_sizetText])
{
    OsXmlExtractElement(a_szDocument, a_szName, a_szText, a_sizetText);
}

// ---------------------------------------------------------------------------------------------------------- the name

// Checks that the name can be a file name: the log and the INI files are named after it.
bool IsName(const char* a_szName)
{
    return *a_szName && a_szName[std::strcspn(a_szName, "/\\:*?\"<>|\r\n\t")] == 0;
}

// An override's name has priority over the program's own. Children are told the result.
bool TakeName(const char* a_szDocument, OsServicesIdentity& a_osservicesidentity)
{
    char(&szName)[sizeof a_osservicesidentity.szUniqueName] = a_osservicesidentity.szUniqueName;
    Take(a_szDocument, "uniquename", szName);
    if (OsArgumentsHasOverride())
        SStrCpy(szName, sizeof szName, OsArgumentsGet(OS_ARGUMENT_CALLERSUNIQUENAME));
    if (std::strcmp(szName, "*") == 0)
        OsArgumentsModuleName(szName, sizeof szName);
    if (!IsName(szName))
    {
        OsServicesTell("the document has no uniquename of at most %d bytes that a file can have...<%s>",
                       static_cast<int>(sizeof szName) - 1, a_szDocument);
        return false;
    }
    OsArgumentsSet(OS_ARGUMENT_UNIQUENAME, szName);
    OsArgumentsSet(OS_ARGUMENT_CALLERSUNIQUENAME, szName);
    return true;
}

EOSCFGENTITY EntityOf(const char* a_szEntity)
{
    static constexpr struct
    {
        const char* szEntity;
        EOSCFGENTITY eoscfgentity;
    } g_aentity[] = {
        {"application", OS_CFGENTITY_APPLICATION}, {"driver", OS_CFGENTITY_DRIVER}, {"utility", OS_CFGENTITY_UTILITY},
        {"apputility", OS_CFGENTITY_APPUTILITY},   {"dll", OS_CFGENTITY_DLL},
    };
    for (const auto& entity : g_aentity)
    {
        if (std::strcmp(entity.szEntity, a_szEntity) == 0)
            return entity.eoscfgentity;
    }
    return OS_CFGENTITY_UNDEFINED;
}

// ----------------------------------------------------------------------------------------------------------- the log

// Strips _T("..."); "0" and "NULL" mean empty.
template <size_t a_sizetText>
void Unwrap(char (&a_szText)[a_sizetText])
{
    static constexpr char g_szOpen[] = "_T(\"";
    static constexpr size_t g_sizetClose = 2;
    static constexpr size_t g_sizetOpen = sizeof g_szOpen - 1;
    const size_t sizetText = std::strlen(a_szText);
    if (sizetText >= g_sizetOpen + g_sizetClose && std::strncmp(a_szText, g_szOpen, g_sizetOpen) == 0)
    {
        const size_t sizetInside = sizetText - g_sizetOpen - g_sizetClose;
        std::memmove(a_szText, a_szText + g_sizetOpen, sizetInside);
        a_szText[sizetInside] = 0;
    }
    if (std::strcmp(a_szText, "0") == 0 || StrICmp(a_szText, "NULL") == 0)
        a_szText[0] = 0;
}

void TakeLog(const char* a_szDocument, OsServicesIdentity& a_osservicesidentity)
{
    Take(a_szDocument, "logfile", a_osservicesidentity.szLogFile);
    if (const char* const szInherited = OsArgumentsGet(OS_ARGUMENT_LOGPATH); *szInherited)
    {
        SStrCpy(a_osservicesidentity.szLogFile, OS_PATHSIZE, szInherited);
        if (OsCfgIsUtility(a_osservicesidentity.eoscfgentity))
            OsServicesLogInto(szInherited, a_osservicesidentity);
    }
    Unwrap(a_osservicesidentity.szLogFile);

    char szLevel[16];
    Take(a_szDocument, "loglevel", szLevel);
    const char* const szInheritedLevel = OsArgumentsGet(OS_ARGUMENT_LOGLEVEL);
    a_osservicesidentity.u32Level =
        static_cast<uint32_t>(StrToInt32(*szInheritedLevel ? szInheritedLevel : szLevel)) | OsArgumentsDebugFlags();
    Take(a_szDocument, "logfilter", a_osservicesidentity.szFilter);
    Unwrap(a_osservicesidentity.szFilter);
}

// ------------------------------------------------------------------------------------------------------- the version

// The text resource of a module, null if it has none. a_szModule is the program, or null for the module that contains
// this library, which the program may have loaded. Valid until the thread's next call.
const char* ResourceOfModule(const char* a_szModule, const char* a_szName)
{
    char szOwn[OS_PATHSIZE];
    OsArgumentsModulePath(szOwn);
    if (!a_szModule || std::strcmp(a_szModule, szOwn) == 0)
        return OsResourceText(a_szName);
    static thread_local char t_szText[OS_PATHSIZE];
    COsResource osresource;
    if (osresource.Open(a_szModule, a_szName) != EOSSTS_SUCCESS)
        return nullptr;
    const std::string_view svText = osresource.Data();
    t_szText[svText.copy(t_szText, sizeof t_szText - 1)] = 0;
    return t_szText;
}

// The version resource of a module; false if it has none.
bool VersionOfFile(const char* a_szModule, uint16_t* a_au16Version)
{
    const char* szVersion = ResourceOfModule(a_szModule, "VERSION");
    if (!szVersion)
        return false;
    for (size_t sizet = 0; sizet < 4; ++sizet)
    {
        a_au16Version[sizet] = static_cast<uint16_t>(StrToInt32(szVersion));
        szVersion += std::strcspn(szVersion, ".");
        szVersion += *szVersion ? 1 : 0;
    }
    return true;
}

void TakeVersion(const char* a_szDocument, OsServicesIdentity& a_osservicesidentity)
{
    static constexpr const char* g_aszPart[OS_CFGVERSIONS] = {"major", "minor", "patch", "build",
                                                              "day",   "month", "year"};
    static constexpr size_t g_sizetYear = OS_CFGVERSIONS - 1;
    char szVersion[OS_PATHSIZE];
    Take(a_szDocument, "version", szVersion);
    // Without a version element the file's version is used; there is no date then.
    int32_t ai32Part[OS_CFGVERSIONS] = {};
    uint16_t au16File[4] = {};
    if (!szVersion[0] && VersionOfFile(nullptr, au16File))
        std::copy(std::begin(au16File), std::end(au16File), ai32Part);
    for (size_t sizet = 0; sizet < OS_CFGVERSIONS; ++sizet)
    {
        char szPart[16];
        Take(szVersion, g_aszPart[sizet], szPart);
        if (szPart[0])
            ai32Part[sizet] = StrToInt32(szPart);
        char(&szFormatted)[16] = a_osservicesidentity.aszVersion[sizet];
        SStrPrintf(szFormatted, sizeof szFormatted, sizet == g_sizetYear ? "%04d" : "%02d", ai32Part[sizet]);
    }
}

// --------------------------------------------------------------------------------------- queries of the log header

// Reads setup.txt, which the installation puts beside the program or into the system's folder.
const char* SetupOfModule(const char* a_szModule, const char* a_szName)
{
    static thread_local char t_szValue[OS_PATHSIZE];
    char szFile[OS_PATHSIZE];
    OsPathCopy(szFile, sizeof szFile, OsCfgGetString(OS_CFGTAG_SYSTEMDIRECTORY));
    if (!szFile[0])
    {
        OsPathCopy(szFile, sizeof szFile, a_szModule);
        OsPathFolder(szFile);
    }
    OsPathAppend(szFile, sizeof szFile, "setup.txt");
    OsCfgProfileRead(szFile, "versions", a_szName, t_szValue, sizeof t_szValue);
    return t_szValue;
}
}   // namespace

void OsServicesTell(const char* a_szFormat, ...)
{
    char szText[2 * OS_ARGUMENTSSIZE];
    va_list valist;
    va_start(valist, a_szFormat);
    OsFormat(szText, sizeof szText, a_szFormat, valist);
    va_end(valist);
    OSLOG(OS_LOG_ERROR, "%s", szText);
    std::fprintf(stderr, "<%s> %s\n", g_szSource, szText);
    std::fflush(stderr);
}

void OsServicesLogInto(const char* a_szFolder, OsServicesIdentity& a_osservicesidentity)
{
    char szFile[sizeof a_osservicesidentity.szUniqueName + sizeof ".log"];
    SStrPrintf(szFile, sizeof szFile, "%s.log", a_osservicesidentity.szUniqueName);
    SStrCpy(a_osservicesidentity.szLogFile, OS_PATHSIZE, a_szFolder);
    OsPathAppend(a_osservicesidentity.szLogFile, OS_PATHSIZE, szFile);
}

void OsServicesAnswerHeader()
{
    g_poslogresourceproc.store(&ResourceOfModule, std::memory_order_release);
    g_poslogsetupproc.store(&SetupOfModule, std::memory_order_release);
    g_poslogversionproc.store(&VersionOfFile, std::memory_order_release);
}

bool OsServicesIdentify(const char* a_szDocument, OsServicesIdentity& a_osservicesidentity)
{
    char szText[16];
    a_osservicesidentity = {};
    if (!TakeName(a_szDocument, a_osservicesidentity))
        return false;
    Take(a_szDocument, "entity", szText);
    a_osservicesidentity.eoscfgentity = EntityOf(szText);
    TakeLog(a_szDocument, a_osservicesidentity);
    Take(a_szDocument, "forcesetaccess", szText);
    a_osservicesidentity.blForceSetAccess = std::strcmp(szText, "true") == 0;
    a_osservicesidentity.blInherit = !std::strstr(a_szDocument, "<inherit>false</inherit>");
    TakeVersion(a_szDocument, a_osservicesidentity);
    return true;
}
