// os_coscfg_report.cpp: the support report: one text file with everything that the configuration has decided. From top
// to bottom: its file name, its sections in their order, writing it.
//
// os_coscfg_report_items.cpp has the lists of members and of facts about the machine.
#include "os_coscfg_impl.h"

#include "os_coscfg_report_items.h"
#include "os_cosenv.h"
#include "os_cosfile.h"
#include "os_cosfile_system.h"
#include "os_cosmem.h"
#include "os_cospath.h"
#include "os_cosstring.h"
#include "os_costime.h"
#include "os_log.h"
#include "os_scope.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <string>

static constexpr char g_szSource[] = "os/source/os_coscfg";

bool OsCfgIsReportWanted()
{
    return OsLogGetState() != OS_LOGSTATE_OFF && OsEnvGetNumber("MVR_DEBUG", 0) != 0;
}

namespace
{
// -------------------------------------------------------------------------------------------------------------- name

// A file name with a time stamp, for a folder that collects reports.
void NameInFolder(const char* a_szFolder, char (&a_szPath)[OS_PATHSIZE])
{
    OsTimeRecord ostimerecord = {};
    OsTimeUtc(&ostimerecord, nullptr);
    SStrPrintf(a_szPath, sizeof a_szPath, "%s/mvroscfg_%.4d%.2d%.2d%.2d%.2d%.2d%.3d.txt", a_szFolder,
               static_cast<int>(ostimerecord.u16Year), static_cast<int>(ostimerecord.u16Month),
               static_cast<int>(ostimerecord.u16Day), static_cast<int>(ostimerecord.u16Hour),
               static_cast<int>(ostimerecord.u16Minute), static_cast<int>(ostimerecord.u16Second),
               static_cast<int>(ostimerecord.u16Milliseconds));
    OsPathNormalize(a_szPath);
}

// In the log folder. The tag is set only once the directory set is complete.
void NameInLogFolder(const COsCfgImpl& a_oscfgimpl, char (&a_szPath)[OS_PATHSIZE])
{
    const char* const szTag = a_oscfgimpl.m_oscfgtable.Get(OS_CFGSECTION_DSIDENTITY, OS_CFGTAG_LOGDIRECTORY);
    const char* const szModel = a_oscfgimpl.m_oscfgtable.Get(OS_CFGSECTION_DSIDENTITY, OS_CFGTAG_MODELDIRECTORYREAL);
    const bool blUtility = OsCfgIsUtility(a_oscfgimpl.m_eoscfgentity);
    SStrPrintf(a_szPath, sizeof a_szPath, "%s\\mvroscfg%s%s.txt", *szTag ? szTag : a_oscfgimpl.m_szLogDirectory,
               blUtility ? "_" : "", blUtility ? szModel : "");
    OsPathNormalize(a_szPath);
}

// Empty when the path would be too long.
void NameReport(const COsCfgImpl& a_oscfgimpl, char (&a_szPath)[OS_PATHSIZE])
{
    char szFolder[1024];
    a_szPath[0] = 0;
    if (OsEnvGet("MVR_OSCFGDIR", "", sizeof szFolder, szFolder) == EOSSTS_SUCCESS && szFolder[0])
    {
        NameInFolder(szFolder, a_szPath);
    }
    else
    {
        NameInLogFolder(a_oscfgimpl, a_szPath);
    }
}

bool CreateFolderOf(const char* a_szPath)
{
    char szFolder[OS_PATHSIZE];
    SStrCpy(szFolder, sizeof szFolder, a_szPath);
    const EOSSTS eossts = OsPathFolder(szFolder) ? OsFileCreateDirectory(szFolder) : EOSSTS_FAIL;
    if (eossts == EOSSTS_SUCCESS || eossts == EOSSTS_EXISTS)
        return true;
    OSLOG(OS_LOG_ERROR, "Error creating...<%s>", szFolder);
    return false;
}

// ---------------------------------------------------------------------------------------------------------- sections

class Report
{
public:
    Report(COsFile* a_posfile, COsCfgImpl* a_poscfgimpl) : m_osfile(*a_posfile), m_oscfgimpl(*a_poscfgimpl) {}

    void WriteEnvironment();
    void WriteBrand();
    void WriteInfo();
    void WriteModelFlags();
    void WritePaths();
    void WriteTags();
    void WriteExtension();
    void WriteDirectories();

private:
    void WriteDotted(size_t a_sizetColumn, const char* a_szName, const char* a_szValue);
    void WriteInfoItem(const OsReportInfo& a_osreportinfo);
    void WriteHeader(const char* a_szSection);
    void WriteValue(const char* a_szName, uint32_t a_u32Number, const char* a_szValue);
    void WriteMember(const char* a_szName, const char* a_szValue);
    void WriteProfilePath(const char* a_szName, EOSPATH a_eospath);

    COsFile& m_osfile;
    COsCfgImpl& m_oscfgimpl;
};

// A name, dots up to a column, and a value.
void Report::WriteDotted(size_t a_sizetColumn, const char* a_szName, const char* a_szValue)
{
    static constexpr char g_szDots[] = "............................................................................"
                                       "........";
    const size_t sizetName = std::strlen(a_szName);
    const int iDots = static_cast<int>(sizetName < a_sizetColumn ? a_sizetColumn - sizetName : 0);
    m_osfile.Printf("%s%*.*s%s\r\n", a_szName, iDots, iDots, g_szDots, a_szValue);
}

void Report::WriteEnvironment()
try
{
    static constexpr size_t g_sizetLongest = 8191;
    m_osfile.Printf("\r\n*** Environmentals ***************************************\r\n\r\n");
    OsEnvVariables osenvvariables;
    OsEnvList(&osenvvariables);
    for (const auto& [strName, strValue] : osenvvariables)
    {
        std::string strEntry = strName;
        strEntry.append("=").append(strValue);
        size_t sizetEnd = std::min(strEntry.size(), g_sizetLongest);
        while (sizetEnd < strEntry.size() && (static_cast<unsigned char>(strEntry[sizetEnd]) & 0xC0) == 0x80)
            --sizetEnd;   // do not cut within a character
        strEntry.resize(sizetEnd);
        m_osfile.Printf("%s\r\n", strEntry.c_str());
    }
}
catch (const std::bad_alloc&)
{
    OSLOG(OS_LOG_ERROR, "allocation failed...");
}

void Report::WriteBrand()
{
    m_osfile.Printf("\r\n*** BRAND ************************************************\r\n\r\n");
    const char* szValue = nullptr;
    for (size_t sizet = 0; const char* const szName = OsCfgBrandEntry(sizet, &szValue); ++sizet)
        WriteDotted(38, szName, szValue);
}

void Report::WriteInfoItem(const OsReportInfo& a_osreportinfo)
{
    char szNumber[32] = "";
    const bool blText = a_osreportinfo.osreportkind == OsReportKind::Text;
    const int64_t i64Value = blText ? 0 : OsCfgInfoLong(a_osreportinfo.eoscfginfo);
    switch (a_osreportinfo.osreportkind)
    {
    case OsReportKind::Text:
        break;
    case OsReportKind::Number:
        SStrPrintf(szNumber, sizeof szNumber, "%lld", static_cast<long long>(i64Value));
        break;
    case OsReportKind::Unsigned:
        SStrPrintf(szNumber, sizeof szNumber, "%llu", static_cast<unsigned long long>(i64Value));
        break;
    case OsReportKind::Unsigned32:
        SStrPrintf(szNumber, sizeof szNumber, "%u", static_cast<unsigned>(i64Value));
        break;
    }
    WriteDotted(38, a_osreportinfo.szName, blText ? OsCfgInfoString(a_osreportinfo.eoscfginfo) : szNumber);
}

void Report::WriteInfo()
{
    m_osfile.Printf("\r\n*** CFG Info *********************************************\r\n\r\n");
    for (size_t sizet = 0; const OsReportInfo* const posreportinfo = OsReportInfoAt(sizet); ++sizet)
        WriteInfoItem(*posreportinfo);
}

void Report::WriteModelFlags()
{
    m_osfile.Printf("\r\n*** LocalLogFlags ***************************************\r\n\r\n");
    OsCfgModelFlag oscfgmodelflag;
    for (size_t sizet = 0; OsCfgModelFlagAt(sizet, &oscfgmodelflag); ++sizet)
        WriteDotted(32, oscfgmodelflag.szModel, oscfgmodelflag.blRoaming ? "roaming or legacy" : "local");
}

void Report::WritePaths()
{
    m_osfile.Printf("\r\n*** Paths ***********************************************\r\n\r\n");
    for (uint32_t u32Path = OS_PATH_UNDEFINED + 1; u32Path < OS_PATH_LAST; ++u32Path)
    {
        char szPath[OS_PATHSIZE] = "";
        OsCfgResolvePath(static_cast<EOSPATH>(u32Path), szPath, sizeof szPath);
        WriteDotted(84, OsCfgPathName(u32Path), szPath);
    }
}

// Tags are written in INI format, so that lines can be copied into a const.ini.
void Report::WriteHeader(const char* a_szSection)
{
    m_osfile.Printf("\r\n[%s%s]\r\n", OsCfgSectionPrefix(), a_szSection);
}

void Report::WriteValue(const char* a_szName, uint32_t a_u32Number, const char* a_szValue)
{
    char szNumber[16];
    SStrPrintf(szNumber, sizeof szNumber, "0x%06x", a_u32Number);
    m_osfile.Printf("%-48s <%s>\r\n", *a_szName ? a_szName : szNumber, a_szValue);
}

void Report::WriteTags()
{
    // The tags behind it are certificate passwords, which must not be in a report.
    static constexpr uint32_t g_u32LastIdentity = OS_CFGTAG_PDFRASTERPFXFILE03;
    static_assert(g_u32LastIdentity == 246);
    const OsCfgTable& oscfgtable = m_oscfgimpl.m_oscfgtable;

    m_osfile.Printf("\r\n*** OS Library Items *************************************\r\n");
    WriteHeader("dsidentity");
    for (uint32_t u32Tag = OS_CFGTAG_HOMEDIRECTORY; u32Tag <= g_u32LastIdentity; ++u32Tag)
        WriteValue(OsCfgTagName(u32Tag), u32Tag, oscfgtable.Get(OS_CFGSECTION_DSIDENTITY, u32Tag));

    WriteHeader("supportedsizes");
    for (uint32_t u32Tag = OS_CFGTAG_N00; u32Tag <= OS_CFGTAG_N50; ++u32Tag)
    {
        char szName[16];
        SStrPrintf(szName, sizeof szName, "N%02d", static_cast<int>(u32Tag - OS_CFGTAG_N00));
        WriteValue(szName, u32Tag, oscfgtable.Get(OS_CFGSECTION_SUPPORTEDSIZES, u32Tag));
    }

    WriteHeader("mvr_all.ds");
    for (uint32_t u32Tag = OS_CFGTAG_JPEGQUANTIZATION_Y_00; u32Tag <= OS_CFGTAG_JPEGQUANTIZATION_CBCR_100; ++u32Tag)
    {
        const uint32_t u32Table = u32Tag - OS_CFGTAG_JPEGQUANTIZATION_Y_00;
        char szName[48];
        SStrPrintf(szName, sizeof szName, "OS_CFGTAG_JPEGQUANTIZATION_%s_%02d", u32Table % 2 ? "CBCR" : "Y",
                   static_cast<int>(u32Table / 2 * 5));
        WriteValue(szName, u32Tag, oscfgtable.Get(OS_CFGSECTION_MVRALLDS, u32Tag));
    }
}

void Report::WriteExtension()
{
    const OsCfgTable& oscfgtable = m_oscfgimpl.m_oscfgtable;
    const OsCfgExtension* poscfgextension = oscfgtable.ExtensionSections();
    if (!poscfgextension)
    {
        m_osfile.Printf("\r\n*** There are no local items ************************\r\n");
        return;
    }
    m_osfile.Printf("\r\n*** Local Items *************************************\r\n");
    for (; poscfgextension->u32Number != OS_CFGEXTENSION; ++poscfgextension)
    {
        if (*poscfgextension->szName)
        {
            WriteHeader(poscfgextension->szName);
        }
        else
        {
            m_osfile.Printf("\r\n[0x%06x]\r\n", poscfgextension->u32Number);
        }
        for (const OsCfgExtension* poscfgextensionTag = oscfgtable.ExtensionTags();
             poscfgextensionTag->u32Number != OS_CFGEXTENSION; ++poscfgextensionTag)
        {
            WriteValue(poscfgextensionTag->szName, poscfgextensionTag->u32Number,
                       oscfgtable.Get(poscfgextension->u32Number, poscfgextensionTag->u32Number));
        }
    }
}

void Report::WriteMember(const char* a_szName, const char* a_szValue)
{
    m_osfile.Printf("%-36s= <%s>\r\n", a_szName, a_szValue);
}

// The path of the file with the log settings, as a profile request resolves it.
void Report::WriteProfilePath(const char* a_szName, EOSPATH a_eospath)
{
    char szProfile[OS_PATHSIZE] = "";
    char szSection[OS_PATHSIZE];
    char szPath[OS_PATHSIZE] = "";
    SStrPrintf(szSection, sizeof szSection, "%sdsidentity", OsCfgSectionPrefix());
    OsCfgResolvePath(a_eospath, szProfile, sizeof szProfile);
    if (szProfile[0])
        OsCfgProfileResolve(szProfile, szSection, "Debug", szPath, sizeof szPath);
    WriteMember(a_szName, szPath);
}

void Report::WriteDirectories()
{
    m_osfile.Printf("\r\n*** Directories *************************************\r\n\r\n");
    for (size_t sizet = 0; const OsReportMember* const posreportmember = OsReportDirectoryAt(sizet); ++sizet)
        WriteMember(posreportmember->szName, posreportmember->pfnText(m_oscfgimpl));
    WriteProfilePath("*_const.ini", OS_PATH_READABLE_FILE_PROTECTED_CONSTINI);
    WriteProfilePath("*_debug.ini", OS_PATH_WRITEABLE_FILE_UNPROTECTED_DEBUGINI);
    for (size_t sizet = 0; const OsReportMember* const posreportmember = OsReportMemberAt(sizet); ++sizet)
        WriteMember(posreportmember->szName, posreportmember->pfnText(m_oscfgimpl));
    for (uint32_t u32Tag = OS_CFGTAG_COMPANYNAME; u32Tag <= OS_CFGTAG_SVTTITLE; ++u32Tag)
    {
        char szName[64];
        SStrPrintf(szName, sizeof szName, "m_sz%s", OsCfgTagName(u32Tag));
        WriteMember(szName, OsCfgBrand(OsCfgTagName(u32Tag)));
    }
}
}   // namespace

// --------------------------------------------------------------------------------------------------------- the whole

EOSSTS COsCfgImpl::WriteReport()
{
    char szPath[OS_PATHSIZE];
    NameReport(*this, szPath);
    if (!CreateFolderOf(szPath))
        return EOSSTS_CANNOTCREATE;
    OsFileSetNoCreate(true);
    OsMemSetTrace(false);   // avoids some thousand trace lines
    const ScopeGuard create([] {
        OsFileSetNoCreate(false);
        OsMemSetTrace(true);
    });

    COsFile osfile;
    if (const EOSSTS eossts = osfile.Open(szPath, OS_FILEOPEN_ALWAYS, OS_FILEACCESS_WRITE, OS_FILESHARE_EXCLUSIVE);
        eossts != EOSSTS_SUCCESS)
        return eossts;

    Report report(&osfile, this);
    report.WriteEnvironment();
    report.WriteBrand();
    report.WriteInfo();
    report.WriteModelFlags();
    report.WritePaths();
    report.WriteTags();
    report.WriteExtension();
    report.WriteDirectories();
    osfile.SetEndOfFile();   // truncates an older, longer report
    return EOSSTS_SUCCESS;
}
