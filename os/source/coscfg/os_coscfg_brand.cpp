// os_coscfg_brand.cpp: the brand record: names and values from the document that the program carries.
//
// In order: the document, its changes, its elements, the record and its publication.
#include "os_coscfg_impl.h"

#include "os_cosenv.h"
#include "os_cosresource.h"
#include "os_cosstring.h"
#include "os_cosxml.h"
#include "os_log.h"
#include "os_new.h"

#include <atomic>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

static constexpr char g_szSource[] = "os/source/os_coscfg";

static constexpr size_t g_sizetBrandValue = 512;
static constexpr size_t g_sizetBrandEntries = 64;
static constexpr size_t g_sizetShortName = 64;

// The default for a program without a document.
static constexpr char g_szDefaultDocument[] = "<brand>\n"
                                              "\t<master>orvane</master>\n"
                                              "\t<companyname>Orvane Imaging</companyname>\n"
                                              "\t<companynameshort>Orvane</companynameshort>\n"
                                              "\t<companyprefix>orvane</companyprefix>\n"
                                              "\t<copyright>(c) Orvane Imaging</copyright>\n"
                                              "\t<productfamily>Scanner Family</productfamily>\n"
                                              "\t<productname>Scanner 0000</productname>\n"
                                              "\t<servicename>OrvaneScannerService</servicename>\n"
                                              "\t<readablefoldername>mvr_orvane</readablefoldername>\n"
                                              "\t<writeablefoldername>mvr_orvane</writeablefoldername>\n"
                                              "\t<urlcompany></urlcompany>\n"
                                              "\t<urlsupport></urlsupport>\n"
                                              "</brand>\n";
static constexpr char g_szMakerWord[] = "Orvane";
static constexpr char g_szMakerFolder[] = "mvr_orvane";

namespace
{
struct BrandEntry
{
    char szName[OS_BRANDNAMESIZE];
    char szValue[g_sizetBrandValue];
};

struct BrandRecord
{
    std::string strDocument;
    BrandEntry abrandentry[g_sizetBrandEntries];
    size_t sizetEntries = 0;
};
}   // namespace

// --------------------------------------------------------------------------------------------------- the document

static std::string ProgramDocument()
{
    std::string strDocument = g_szDefaultDocument;
    COsResource* posresource = OsResourceGetLocal("BRAND");
    if (posresource && std::strstr(posresource->Data(), "<brand>"))
        strDocument = posresource->Data();
    OSMEMDELETE(posresource);
    return strDocument;
}

// Replaces an element's text, or adds the element at the front.
static void ReplaceElement(std::string& a_strDocument, const std::string& a_strName, const std::string& a_strValue)
{
    const std::string strOpen = "<" + a_strName + ">";
    const std::string strClose = "</" + a_strName + ">";
    const std::string strElement = strOpen + a_strValue + strClose;
    const size_t sizetOpen = a_strDocument.find(strOpen);
    const size_t sizetClose = a_strDocument.find(strClose, sizetOpen);
    if (sizetOpen == std::string::npos || sizetClose == std::string::npos)
    {
        a_strDocument.insert(a_strDocument.find("<brand>") + std::strlen("<brand>"), strElement);
        return;
    }
    a_strDocument.replace(sizetOpen, sizetClose + strClose.size() - sizetOpen, strElement);
}

// A variable of the environment can replace the brand's company.
static void ApplyOverride(std::string& a_strDocument)
{
    char szShortName[g_sizetShortName];
    if (OsEnvGet("MVR_COMPANYNAMESHORT", "", sizeof szShortName, szShortName) != EOSSTS_SUCCESS || !szShortName[0])
        return;
    ReplaceElement(a_strDocument, "companyname", szShortName);
    ReplaceElement(a_strDocument, "companynameshort", szShortName);
    StrLower(szShortName);
    ReplaceElement(a_strDocument, "companyprefix", szShortName);
}

// --------------------------------------------------------------------------------------------------- the elements

// Copies the text if it fits whole.
static bool Fits(std::string_view a_strviewText, char* a_szDestination, size_t a_sizetDestination)
{
    if (a_strviewText.size() >= a_sizetDestination)
        return false;
    std::memcpy(a_szDestination, a_strviewText.data(), a_strviewText.size());
    a_szDestination[a_strviewText.size()] = 0;
    return true;
}

static void AddEntry(BrandRecord& a_brandrecord, std::string_view a_strviewName, std::string_view a_strviewValue)
{
    BrandEntry* const pbrandentry = a_brandrecord.sizetEntries < g_sizetBrandEntries
                                        ? &a_brandrecord.abrandentry[a_brandrecord.sizetEntries]
                                        : nullptr;
    if (pbrandentry && Fits(a_strviewName, pbrandentry->szName, sizeof pbrandentry->szName) &&
        Fits(a_strviewValue, pbrandentry->szValue, sizeof pbrandentry->szValue))
    {
        ++a_brandrecord.sizetEntries;
        return;
    }
    OSLOG(OS_LOG_CHECK, "buffer overflow...<%s> %d <%s> <%s>", "brand",
          static_cast<int>(pbrandentry ? g_sizetBrandValue : g_sizetBrandEntries), std::string(a_strviewName).c_str(),
          std::string(a_strviewValue).c_str());
}

// Adds the entry of the element that begins at a_szElement ("<"). Returns the position behind it, null at the end of
// the document. Skips comments, declarations and empty elements.
static const char* WalkElement(const char* a_szElement, BrandRecord& a_brandrecord)
{
    const char* const szName = a_szElement + 1;
    const size_t sizetName = std::strcspn(szName, " \t\r\n/>");
    const std::string strOpen(a_szElement, std::strcspn(a_szElement, ">"));
    const std::string strClose = "</" + std::string(szName, sizetName) + ">";
    size_t sizetValue = 0;
    const bool blText = sizetName > 0 && !std::strchr("!?", *szName) && strOpen.back() != '/';
    const char* const szValue =
        blText ? OsXmlFind(a_szElement, (strOpen + ">").c_str(), strClose.c_str(), true, &sizetValue) : nullptr;
    if (!szValue)
        return a_szElement + strOpen.size();
    AddEntry(a_brandrecord, {szName, sizetName}, {szValue, sizetValue});
    const char* const szEnd = std::strstr(szValue + sizetValue, strClose.c_str());
    return szEnd ? szEnd + strClose.size() : nullptr;
}

static void WalkDocument(BrandRecord& a_brandrecord)
{
    const char* szPosition = std::strstr(a_brandrecord.strDocument.c_str(), "<brand>") + std::strlen("<brand>");
    while (szPosition)
    {
        szPosition = std::strchr(szPosition, '<');
        if (!szPosition || !std::strncmp(szPosition, "</brand>", std::strlen("</brand>")))
            return;
        szPosition = WalkElement(szPosition, a_brandrecord);
    }
}

// ----------------------------------------------------------------------------------------------------- the record

static const char* FindValue(const BrandRecord& a_brandrecord, const char* a_szName)
{
    for (size_t sizet = 0; sizet < a_brandrecord.sizetEntries; ++sizet)
    {
        if (!StrICmp(a_brandrecord.abrandentry[sizet].szName, a_szName))
            return a_brandrecord.abrandentry[sizet].szValue;
    }
    return "";
}

// The name of the company's folder. Never empty: an empty name would mean the parent folder.
static const char* FolderOf(const BrandRecord& a_brandrecord)
{
    const char* const szWord = FindValue(a_brandrecord, "companynameshort");
    const bool blMaker = !*szWord || StrICmp(szWord, g_szMakerWord) == 0 || std::strlen(szWord) >= OS_BRANDNAMESIZE;
    return blMaker ? g_szMakerFolder : szWord;
}

// If the document has no folder name, or an empty one, uses the company's folder name.
static void FillFolderName(BrandRecord& a_brandrecord, const char* a_szName)
{
    const char* const szFolder = FolderOf(a_brandrecord);
    for (size_t sizet = 0; sizet < a_brandrecord.sizetEntries; ++sizet)
    {
        BrandEntry& brandentry = a_brandrecord.abrandentry[sizet];
        if (StrICmp(brandentry.szName, a_szName))
            continue;
        if (!brandentry.szValue[0])
            SStrCpy(brandentry.szValue, sizeof brandentry.szValue, szFolder);
        return;
    }
    AddEntry(a_brandrecord, a_szName, szFolder);
}

static std::unique_ptr<const BrandRecord> BuildRecord()
{
    auto brandrecord = std::make_unique_for_overwrite<BrandRecord>();   // entries stay uninitialised until used
    brandrecord->strDocument = ProgramDocument();
    ApplyOverride(brandrecord->strDocument);
    WalkDocument(*brandrecord);
    FillFolderName(*brandrecord, "readablefoldername");
    FillFolderName(*brandrecord, "writeablefoldername");
    return brandrecord;
}

// Lives as long as the process.
static const BrandRecord& Record()
{
    static std::atomic<const BrandRecord*> g_pbrandrecord;
    return *OsCfgPublished(g_pbrandrecord, BuildRecord);
}

const char* OsCfgBrand(const char* a_szName)
{
    if (!a_szName)
        return "";
    const BrandRecord& brandrecord = Record();
    return StrICmp(a_szName, "brandxml") ? FindValue(brandrecord, a_szName) : brandrecord.strDocument.c_str();
}

const char* OsCfgBrandWord()
{
    const char* const szWord = OsCfgBrand("companynameshort");
    return *szWord ? szWord : g_szMakerWord;
}

const char* OsCfgBrandFolder()
{
    return FolderOf(Record());
}

const char* OsCfgBrandEntry(size_t a_sizetIndex, const char** a_pszValue)
{
    const BrandRecord& brandrecord = Record();
    if (a_sizetIndex >= brandrecord.sizetEntries)
        return nullptr;
    *a_pszValue = brandrecord.abrandentry[a_sizetIndex].szValue;
    return brandrecord.abrandentry[a_sizetIndex].szName;
}
