// os_cosarguments_intake.cpp: reads the inherited document and the other variables for this process when the library
// starts.
//
// A program without a parent of the family finds nothing here, and that must be cheap: it reads a few variables and
// clears no buffers.
#include "os_cosarguments_impl.h"

#include "os_cosenv.h"
#include "os_cosmem.h"
#include "os_cosstring.h"
#include "os_cosxml.h"

#include "plat_process.h"

#include <atomic>
#include <cstring>
#include <initializer_list>

static constexpr size_t g_sizetWork = 8192;   // of a variable's value
static constexpr int64_t g_i64PortMost = 65535;

// -------------------------------------------------------------------------------------------- one variable

// Reads the variable's text, decoding base64 if asked; "" when it is unset or damaged. EOSSTS_NOMEMORY when the text is
// larger than any document.
static EOSSTS ReadVariable(const char* a_szVariable, bool a_blEncoded, char* a_szText, size_t a_sizetText)
{
    if (!a_blEncoded)
        return OsEnvGet(a_szVariable, "", a_sizetText, a_szText);
    *a_szText = 0;
    char szEncoded[g_sizetWork];
    const EOSSTS eossts = OsEnvGet(a_szVariable, "", sizeof szEncoded, szEncoded);
    size_t sizetText = 0;
    if (eossts == EOSSTS_SUCCESS && szEncoded[0])
        Base64Decode(a_szText, a_sizetText - 1, &sizetText, szEncoded, std::strlen(szEncoded));
    a_szText[sizetText] = 0;
    return eossts;
}

// ------------------------------------------------------------------------------------------ the inherited document

struct OsArgumentsCarrier
{
    const char* szFamily;
    bool blThread;    // only for the calling thread
    bool blEncoded;   // in base64
};

// In the order in which they are tried.
static constexpr OsArgumentsCarrier g_aosargumentscarrier[] = {
    {OS_VARIABLEB64, true, true},
    {OS_VARIABLEB64, false, true},
    {OS_VARIABLEUNICODE, true, false},
};

static void DropDisabled()
{
    char szDisabled[16];
    OsEnvGet("MVR_OSSERVICESARGUMENTSDISABLED", "", sizeof szDisabled, szDisabled);
    if (std::strcmp(szDisabled, "1") == 0)
        OsEnvDeletePrefix(OS_VARIABLE);
}

// Empties the buffer when the variable holds no document.
static EOSSTS ReadCarrier(const OsArgumentsCarrier& a_osargumentscarrier, const char* a_szName, char* a_szDocument,
                          size_t a_sizetDocument)
{
    char szText[g_sizetWork];
    const EOSSTS eossts = ReadVariable(a_szName, a_osargumentscarrier.blEncoded, szText, sizeof szText);
    if (eossts != EOSSTS_SUCCESS || !std::strstr(szText, "<arguments>") || !std::strstr(szText, "</arguments>"))
        return eossts;
    if (std::strlen(szText) >= a_sizetDocument)
        return EOSSTS_NOMEMORY;
    SStrCpy(a_szDocument, a_sizetDocument, szText);
    return EOSSTS_SUCCESS;
}

static EOSSTS ReadDocument(char* a_szDocument, size_t a_sizetDocument, char (&a_szVariable)[OS_VARIABLESIZE])
{
    EOSSTS eosstsAll = EOSSTS_SUCCESS;
    *a_szDocument = 0;
    DropDisabled();
    for (const OsArgumentsCarrier& osargumentscarrier : g_aosargumentscarrier)
    {
        SStrCpy(a_szVariable, sizeof a_szVariable, osargumentscarrier.szFamily);
        if (osargumentscarrier.blThread)
            OsArgumentsThreadVariable(osargumentscarrier.szFamily, a_szVariable);
        const EOSSTS eossts = ReadCarrier(osargumentscarrier, a_szVariable, a_szDocument, a_sizetDocument);
        if (*a_szDocument)
            return EOSSTS_SUCCESS;
        if (eossts != EOSSTS_SUCCESS)
            eosstsAll = eossts;
    }
    SStrCpy(a_szVariable, sizeof a_szVariable, OS_VARIABLEB64);
    return eosstsAll;
}

EOSSTS OsArgumentsRead(char* a_szDocument, size_t a_sizetDocument)
{
    char szVariable[OS_VARIABLESIZE];
    if (!a_szDocument)
        return ReadDocument(g_osargumentstexts.szDocument, OS_ARGUMENTSSIZE, g_osargumentstexts.szVariable);
    return a_sizetDocument ? ReadDocument(a_szDocument, a_sizetDocument, szVariable) : EOSSTS_NOMEMORY;
}

// ---------------------------------------------------------------------------------------------- elements of documents

namespace
{
struct OsArgumentsElement
{
    const char* szName;
    EOSARGUMENT eosargument;
};

constexpr OsArgumentsElement g_aosargumentselementDriverlet[] = {
    {"modeldir", OS_ARGUMENT_MODELDIRECTORY},
    {"drvletapp", OS_ARGUMENT_APPLICATION},
    {"drvletidentity", OS_ARGUMENT_DRVLETIDENTITY},
};

constexpr OsArgumentsElement g_aosargumentselementInherited[] = {
    {"overridefoldername", OS_ARGUMENT_OVERRIDEFOLDER},
    {"logmodel", OS_ARGUMENT_MODELDIRECTORY},
    {"logpath", OS_ARGUMENT_LOGPATH},
    {"loglevel", OS_ARGUMENT_LOGLEVEL},
    {"drvletidentity", OS_ARGUMENT_DRVLETIDENTITY},
    {"rootpath", OS_ARGUMENT_ROOTPATH},
    {"legacyrootpath", OS_ARGUMENT_LEGACYROOTPATH},
    {"userrootpath", OS_ARGUMENT_USERROOTPATH},
    {"app", OS_ARGUMENT_CALLERSAPPLICATION},
};

// Keeps a value that is already set.
void TakeUnknown(const char* a_szDocument, const OsArgumentsElement& a_osargumentselement)
{
    char szValue[OS_PATHSIZE];
    if (!*OsArgumentsGet(a_osargumentselement.eosargument) &&
        OsXmlExtractElement(a_szDocument, a_osargumentselement.szName, szValue, sizeof szValue))
        OsArgumentsSet(a_osargumentselement.eosargument, szValue);
}

void TakeCallersName(const char* a_szDocument)
{
    char szName[64];
    if (OsXmlExtractElement(a_szDocument, "callersuniquename", szName, sizeof szName))
        OsArgumentsSet(OS_ARGUMENT_CALLERSUNIQUENAME, szName);
}

int64_t NumberOf(const char* a_szDocument, const char* a_szElement)
{
    char szNumber[32];
    return OsXmlExtractElement(a_szDocument, a_szElement, szNumber, sizeof szNumber) ? StrToInt64(szNumber) : 0;
}

// Ignores an invalid port or process id.
void TakeCollector(const char* a_szDocument)
{
    const int64_t i64Port = NumberOf(a_szDocument, "lcport");
    const int64_t i64Application = NumberOf(a_szDocument, "lcpidapp");
    const int64_t i64Collector = NumberOf(a_szDocument, "lcpidlc");
    if (i64Port >= 1 && i64Port <= g_i64PortMost && i64Application > 0 && i64Collector > 0)
    {
        OsArgumentsSetCollector({static_cast<int32_t>(i64Port), static_cast<uint64_t>(i64Application),
                                 static_cast<uint64_t>(i64Collector)});
    }
}
}   // namespace

// ------------------------------------------------------------------------------------------------------ the intake

namespace
{
struct OsArgumentsFiles
{
    OsArgumentsFiles()
    {
        OsArgumentsProgramPath(szProgram);
        OsArgumentsModulePath(szModule);
    }

    char szProgram[OS_PATHSIZE];
    char szModule[OS_PATHSIZE];
};
}   // namespace

static bool EndsWithOneOf(const char* a_szText, std::initializer_list<const char*> a_suffixes)
{
    for (const char* szSuffix : a_suffixes)
    {
        if (StrEndsWith(a_szText, szSuffix, true))
            return true;
    }
    return false;
}

static void SetErrorMode()
{
    static constexpr uint32_t g_u32NoAlignmentFault = 0x4;
    static constexpr uint32_t g_u32NoOpenFileBox = 0x8000;
    if (OsEnvGetNumber("MVR_SETERRORMODE", 0) != 0)
        PlatProcessSetErrorMode(g_u32NoAlignmentFault | g_u32NoOpenFileBox);
}

static void TakeDriverlet()
{
    char szInfo[g_sizetWork];
    ReadVariable("MVR_DRVLETINFOB64", true, szInfo, sizeof szInfo);
    for (const OsArgumentsElement& osargumentselement : g_aosargumentselementDriverlet)
        TakeUnknown(szInfo, osargumentselement);
}

static std::atomic<bool> g_blOverride{false};

bool OsArgumentsHasOverride()
{
    return g_blOverride.load(std::memory_order_relaxed);
}

// Applies to this process only: the variable is removed so that no child sees it. An override without a program name is
// ignored.
static void TakeOverride(const char* a_szProgram)
{
    static constexpr char g_szVariable[] = "MVR_OSSERVICESOVERRIDEB64";
    char(&szOverride)[OS_OVERRIDESIZE] = g_osargumentstexts.szOverride;
    ReadVariable(g_szVariable, true, szOverride, sizeof szOverride);
    OsEnvSet(g_szVariable, nullptr);
    TakeCallersName(szOverride);
    g_blOverride = *OsArgumentsGet(OS_ARGUMENT_CALLERSUNIQUENAME) != 0;
    if (!std::strstr(a_szProgram, "lib\\drvlet") && !std::strstr(a_szProgram, "lib/drvlet"))
        TakeUnknown(szOverride, {"overridefoldername", OS_ARGUMENT_OVERRIDEFOLDER});
    TakeUnknown(szOverride, {"modeldir", OS_ARGUMENT_MODELDIRECTORY});
}

// The application of a driver-let ignores the inherited document.
static void FindDocument()
{
    const char* const szCaller = OsArgumentsGet(OS_ARGUMENT_CALLERSUNIQUENAME);
    if (StrEndsWith(szCaller, "-drvlet-app", true) || StrICmp(szCaller, "hvcfgmgr-drvlet-hvcfgmgr") == 0)
    {
        OsArgumentsClear(OS_CLEARARGUMENTS_DOCUMENT | OS_CLEARARGUMENTS_ENVIRONMENT | OS_CLEARARGUMENTS_COLLECTOR);
        SStrCpy(g_osargumentstexts.szVariable, sizeof g_osargumentstexts.szVariable, OS_VARIABLEB64);
        return;
    }
    OsArgumentsRead(nullptr, 0);
}

// In a family of processes the first one owns the services. Some modules always own them, others never do.
static bool OwnsServices(const OsArgumentsFiles& a_osargumentsfiles)
{
    if (StrEndsWith(a_osargumentsfiles.szModule, "mvr.ds", true))
        return true;
    if (EndsWithOneOf(a_osargumentsfiles.szModule, {"device.dll", "device.so"}))
        return EndsWithOneOf(a_osargumentsfiles.szProgram, {"hvscannerservice.exe", "hvscannerservice"});
    return !*OsArgumentsDocument();
}

static void TakeInherited()
{
    for (const OsArgumentsElement& osargumentselement : g_aosargumentselementInherited)
        TakeUnknown(OsArgumentsDocument(), osargumentselement);
    TakeCollector(OsArgumentsDocument());
}

// A process that was moved to another folder passes that folder on, under its matching name.
static void HandDownOverride()
{
    const char* const szFolder = OsArgumentsGet(OS_ARGUMENT_OVERRIDEFOLDER);
    if (!*szFolder)
        return;
    OsArgumentsReplace("overridefoldername", szFolder);
    const char* const szCaller = OsArgumentsGet(OS_ARGUMENT_CALLERSUNIQUENAME);
    if (*szCaller)
    {
        OsArgumentsReplace("callersuniquename", szCaller);
    }
    else
    {
        TakeCallersName(OsArgumentsDocument());
    }
    OsArgumentsPublishNow();
    if (const char* const szIdentity = OsArgumentsGet(OS_ARGUMENT_DRVLETIDENTITY); *szIdentity)
        OsArgumentsReplace("drvletidentity", szIdentity);
}

// A program is never a driver, wherever it is installed.
static bool IsDriver(const OsArgumentsFiles& a_osargumentsfiles)
{
    const char* const szModule = a_osargumentsfiles.szModule;
    if (EndsWithOneOf(szModule, {".ds", "wia.dll"}))
        return true;
    return std::strcmp(szModule, a_osargumentsfiles.szProgram) != 0 &&
           (std::strstr(szModule, "/lib/") || std::strstr(szModule, "/usr/local/"));
}

// If only one of the model's name and the model's folder is known, it is used for both.
static void SettleModel(const OsArgumentsFiles& a_osargumentsfiles)
{
    char szModel[32] = "";
    if (IsDriver(a_osargumentsfiles))
        OsArgumentsModuleName(szModel, sizeof szModel);
    const char* const szFolder = OsArgumentsGet(OS_ARGUMENT_MODELDIRECTORY);
    OsArgumentsSet(OS_ARGUMENT_LOGMODEL, szModel[0] ? szModel : szFolder);
    if (!*szFolder)
        OsArgumentsSet(OS_ARGUMENT_MODELDIRECTORY, szModel);
}

void OsArgumentsIntake()
{
    static std::atomic<bool> g_blTaken{false};
    if (g_blTaken.exchange(true))
        return;
    OsArgumentsClear(OS_CLEARARGUMENTS_DOCUMENT);
    OsArgumentsSet(OS_ARGUMENT_CALLERSUNIQUENAME, "");

    const OsArgumentsFiles osargumentsfiles;
    SetErrorMode();
    TakeDriverlet();
    TakeOverride(osargumentsfiles.szProgram);
    FindDocument();
    OsArgumentsSetServicesOwner(OwnsServices(osargumentsfiles));
    TakeInherited();
    HandDownOverride();
    SettleModel(osargumentsfiles);
}
