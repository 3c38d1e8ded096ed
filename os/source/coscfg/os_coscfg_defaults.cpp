// os_coscfg_defaults.cpp: the defaults procedure, in its order; a later step overrides an earlier one.
#include "os_coscfg_impl.h"

#include "os_cosarguments.h"
#include "os_cosenv.h"
#include "os_coslog.h"
#include "os_cospath.h"
#include "os_cosstring.h"
#include "os_costhread.h"
#include "os_new.h"

#include <cstdlib>
#include <initializer_list>
#include <iterator>

static constexpr char g_szSource[] = "os/source/os_coscfg";

void COsCfgImpl::Load()
{
    if (!SetDirectories())
    {
        OSLOG(OS_LOG_ERROR, "SetDirectories failed...");
        return;
    }
    StoreDefaults();
    LoadIniFiles();
    StoreComputed();
    RestartLogger();
    StoreBrand();
    StoreNames();
    StoreProgram();
}

void COsCfgImpl::Store(EOSCFGTAG a_eoscfgtag, const char* a_szValue)
{
    m_oscfgtable.Set(OS_CFGSECTION_DSIDENTITY, a_eoscfgtag, a_szValue);
}

long COsCfgImpl::Number(EOSCFGTAG a_eoscfgtag) const
{
    return std::strtol(m_oscfgtable.Get(OS_CFGSECTION_DSIDENTITY, a_eoscfgtag), nullptr, 0);
}

// ------------------------------------------------------------------------------------------- defaults and INI files

void COsCfgImpl::StoreDefaults()
{
    OSLOG(OS_LOG_NOTE, "Setting configuration defaults...");
    m_oscfgtable.Clear();
    for (uint32_t u32Tag = OS_CFGTAG_HOMEDIRECTORY; u32Tag < OS_CFGTAG_LAST; ++u32Tag)
        m_oscfgtable.Set(OsCfgTagSection(u32Tag), u32Tag, OsCfgTagDefault(u32Tag));

    Store(OS_CFGTAG_DEBUG, m_szLogDebug);
    Store(OS_CFGTAG_DEBUGFILTER, m_szLogFilter);
    Store(OS_CFGTAG_DEBUGDISPLAYLENGTH, m_szDebugDisplayLength);
    Store(OS_CFGTAG_FORCEUSBMONITORTIMEOUT, m_szForceUsbMonitorTimeout);
    Store(OS_CFGTAG_UITIMEOUT, m_szUiTimeout);
    static_assert(OS_CFGTAG_VERSIONYEAR - OS_CFGTAG_VERSIONMAJORNUM + 1 == OS_CFGVERSIONS);
    for (uint32_t u32 = 0; u32 < OS_CFGVERSIONS; ++u32)
        Store(static_cast<EOSCFGTAG>(OS_CFGTAG_VERSIONMAJORNUM + u32), m_aszVersion[u32]);
}

void COsCfgImpl::LoadIniFiles()
{
    const long lMajor = Number(OS_CFGTAG_VERSIONMAJORNUM);
    const long lMinor = Number(OS_CFGTAG_VERSIONMINORNUM);
    if (OsCfgCommonIsYes("UseProtectedConstIni", "yes"))
    {
        LoadIni(nullptr, m_szFileData, OsCfgLoadMode::Protected);
        if (OsCfgCommonIsYes("UseDebugIni", "yes"))
            LoadIni(nullptr, m_szFileDataUnprotected, OsCfgLoadMode::Unprotected);
    }
    else
    {
        if (m_blUsersFolder)
            LoadIni(m_szLegacyConfigFilenameConstIni, m_szFileDataLegacy, OsCfgLoadMode::Path);
        LoadIni(m_szSharedConfigFilenameConstIni, m_szFileData, OsCfgLoadMode::Path);
    }
    OSLOG(OS_LOG_NOTE, "Done setting configuration defaults...");
    m_blVersionOverridden = Number(OS_CFGTAG_VERSIONMAJORNUM) != lMajor || Number(OS_CFGTAG_VERSIONMINORNUM) != lMinor;
}

// --------------------------------------------------------------------------------------------------- computed values

void COsCfgImpl::StoreComputed()
{
    static constexpr struct
    {
        EOSCFGTAG eoscfgtag;
        char (COsCfgImpl::*pszMember)[OS_PATHSIZE];
    } g_acomputed[] = {
        {OS_CFGTAG_MAINPROGRAM, &COsCfgImpl::m_szMainProgram},
        {OS_CFGTAG_LOGDIRECTORY, &COsCfgImpl::m_szLogDirectory},
        {OS_CFGTAG_HOMEDIRECTORY, &COsCfgImpl::m_szHomeDirectory},
        {OS_CFGTAG_HOMENAME, &COsCfgImpl::m_szProgramFileName},
        {OS_CFGTAG_ROOTCOMMONDIRECTORY, &COsCfgImpl::m_szRootCommonDirectory},
        {OS_CFGTAG_ROOTCOMMONDIRECTORYSHARED, &COsCfgImpl::m_szSharedRootCommonDirectory},
        {OS_CFGTAG_ROOTCOMMONDIRECTORYLEGACY, &COsCfgImpl::m_szLegacyRootCommonDirectory},
        {OS_CFGTAG_ROOTCOMMONDIRECTORYUSER, &COsCfgImpl::m_szUserRootCommonDirectory},
        {OS_CFGTAG_COMMONDIRECTORY, &COsCfgImpl::m_szCommonDirectory},
        {OS_CFGTAG_USERDIRECTORY, &COsCfgImpl::m_szUserDirectory},
        {OS_CFGTAG_DRIVERDIRECTORY, &COsCfgImpl::m_szDriverDirectory},
        {OS_CFGTAG_DEVICEDIRECTORYSHARED, &COsCfgImpl::m_szSharedDeviceDirectory},
        {OS_CFGTAG_DEVICEDIRECTORYLEGACY, &COsCfgImpl::m_szLegacyDeviceDirectory},
        {OS_CFGTAG_ROOTPATH, &COsCfgImpl::m_szRootWriteableDirectory},
        {OS_CFGTAG_ROOTPATHSHARED, &COsCfgImpl::m_szSharedRootWriteableDirectory},
        {OS_CFGTAG_ROOTPATHLEGACY, &COsCfgImpl::m_szLegacyRootWriteableDirectory},
        {OS_CFGTAG_ROOTPATHUSER, &COsCfgImpl::m_szUserRootWriteableDirectory},
        {OS_CFGTAG_ROOTMODELDIRECTORY, &COsCfgImpl::m_szRootModelDirectory},
        {OS_CFGTAG_ROOTMODELDIRECTORYSHARED, &COsCfgImpl::m_szSharedRootModelDirectory},
        {OS_CFGTAG_ROOTMODELDIRECTORYLEGACY, &COsCfgImpl::m_szLegacyRootModelDirectory},
        {OS_CFGTAG_ROOTMODELDIRECTORYUSER, &COsCfgImpl::m_szUserRootModelDirectory},
        {OS_CFGTAG_USERNAMEDIRECTORYLEGACY, &COsCfgImpl::m_szLegacyUserDirectory},
        {OS_CFGTAG_MODELDIRECTORY, &COsCfgImpl::m_szModelDirectory},
        {OS_CFGTAG_MODELDIRECTORYREAL, &COsCfgImpl::m_szModelDirectoryReal},
        {OS_CFGTAG_MULTIMEDIADIRECTORY, &COsCfgImpl::m_szMultimediaDirectory},
        {OS_CFGTAG_DRIVERPATH, &COsCfgImpl::m_szLibraryPath},
        {OS_CFGTAG_SYSTEMDIRECTORY, &COsCfgImpl::m_szSystemDirectory},
        {OS_CFGTAG_TMPDIRECTORY, &COsCfgImpl::m_szTmpDirectory},
    };

    if (!m_szModelDirectoryReal[0])
        SStrCpy(m_szModelDirectoryReal, sizeof m_szModelDirectoryReal, m_szModelDirectory);
    for (const auto& computed : g_acomputed)
        Store(computed.eoscfgtag, this->*computed.pszMember);
    Store(OS_CFGTAG_DRIVERNAME, m_szLibraryName);
    Store(OS_CFGTAG_USERNAME, OsCfgInfoString(OS_CFGINFO_OS_USERNAME));
}

void COsCfgImpl::RestartLogger()
{
    COsLog* const poslog = OsLogGet();
    if (!poslog)
        return;
    const uint32_t u32Flags =
        static_cast<uint32_t>(Number(OS_CFGTAG_DEBUG)) | poslog->WorkingWord() | OsArgumentsDebugFlags();
    // If the INI files set no filter, the filter from the program's document is used.
    const char* const szFilter = m_oscfgtable.Get(OS_CFGSECTION_DSIDENTITY, OS_CFGTAG_DEBUGFILTER);
    poslog->Start(m_szLogFilename, u32Flags, *szFilter ? szFilter : nullptr);
}

// Names in the brand record are tag names; its texts live as long as the process.
void COsCfgImpl::StoreBrand()
{
    for (uint32_t u32Tag = OS_CFGTAG_COMPANYNAME; u32Tag <= OS_CFGTAG_SVTTITLE; ++u32Tag)
    {
        const char* const szValue = OsCfgBrand(OsCfgTagName(u32Tag));
        const char* const szGate = u32Tag == OS_CFGTAG_URLSUPPORTMODEL ? OsCfgBrand("UrlSupport") : szValue;
        if (*szGate)
            m_oscfgtable.Set(OS_CFGSECTION_BRAND, u32Tag, szValue);
    }
    if (const char* const szCompany = OsCfgBrand("CompanyName"); *szCompany)
        Store(OS_CFGTAG_MANUFACTURER, szCompany);
}

void COsCfgImpl::StoreNames()
{
    Store(OS_CFGTAG_MVRLOG, m_szLogFilename);
    for (auto* pszDirectory : {&m_szFwDirectory, &m_szOtterDirectory, &m_szUiDirectory})
    {
        if (**pszDirectory)
            OsPathAppend(*pszDirectory, sizeof *pszDirectory, "");
    }
    const bool blLogPath = *m_oscfgtable.Get(OS_CFGSECTION_DSIDENTITY, OS_CFGTAG_OTTER_LOGPATH) != 0;
    if (m_eoscfgentity == OS_CFGENTITY_DRIVER && !blLogPath)
        Store(OS_CFGTAG_OTTER_LOGPATH, m_szOtterDirectory);
    Store(OS_CFGTAG_OSNAME, OsCfgInfoString(OS_CFGINFO_OS_NAMESTRING));
    Store(OS_CFGTAG_CONSTINI, m_szConfigFilenameConstIni);
    Store(OS_CFGTAG_CONSTINISHARED, m_szSharedConfigFilenameConstIni);
    StoreSaneTwainVersion();
}

void COsCfgImpl::StoreSaneTwainVersion()
{
    if (Number(OS_CFGTAG_SANETWAINVERSION) != 0)
        return;
    if (OsEnvGet("SANETWAIN_VERSION", "00000000", sizeof m_szSaneTwainVersion, m_szSaneTwainVersion) == EOSSTS_SUCCESS)
        Store(OS_CFGTAG_SANETWAINVERSION, m_szSaneTwainVersion);
}

// ------------------------------------------------------------------------------------------------------- the program

namespace
{
// Host applications that need special treatment: the file name, and the tag to set.
constexpr struct
{
    const char* szProgram;
    EOSCFGTAG eoscfgtag;
} g_ahostprogram[] = {
    {"hostprogram01.exe", OS_CFGTAG_HOSTPROGRAM01}, {"hostprogram02.exe", OS_CFGTAG_HOSTPROGRAM02},
    {"hostprogram03.exe", OS_CFGTAG_HOSTPROGRAM03}, {"hostprogram04.exe", OS_CFGTAG_HOSTPROGRAM04},
    {"hostprogram05.exe", OS_CFGTAG_HOSTPROGRAM05}, {"hostprogram06.exe", OS_CFGTAG_HOSTPROGRAM06},
    {"hostprogram07.exe", OS_CFGTAG_HOSTPROGRAM07}, {"hostprogram08.exe", OS_CFGTAG_HOSTPROGRAM08},
    {"hostprogram09.exe", OS_CFGTAG_HOSTPROGRAM09}, {"hostprogram10.exe", OS_CFGTAG_HOSTPROGRAM10},
    {"hostprogram11.exe", OS_CFGTAG_HOSTPROGRAM11}, {"hostprogram12.exe", OS_CFGTAG_HOSTPROGRAM12},
    {"hostprogram13.exe", OS_CFGTAG_HOSTPROGRAM13}, {"hostprogram14.exe", OS_CFGTAG_HOSTPROGRAM14},
    {"hostprogram15.exe", OS_CFGTAG_HOSTPROGRAM15}, {"hostprogram16.exe", OS_CFGTAG_HOSTPROGRAM16},
    {"hostprogram17.exe", OS_CFGTAG_HOSTPROGRAM17}, {"hostprogram18.exe", OS_CFGTAG_HOSTPROGRAM18},
    {"hostprogram19.exe", OS_CFGTAG_HOSTPROGRAM19}, {"hostprogram20.exe", OS_CFGTAG_HOSTPROGRAM20},
};

// A family of programs is recognised by a part of the file name; for one program the units behaviour is forced.
constexpr char g_szFamily[] = "hostprogramfamily";
constexpr EOSCFGTAG g_eoscfgtagFamily = OS_CFGTAG_HOSTPROGRAM20;
constexpr EOSCFGTAG g_eoscfgtagUnits = OS_CFGTAG_HOSTPROGRAM01;
}   // namespace

void COsCfgImpl::StoreProgram()
{
    FindApplication();
    const char* const szForced = m_oscfgtable.Get(OS_CFGSECTION_DSIDENTITY, OS_CFGTAG_FORCEPROGRAMNAME);
    if (*szForced)
    {
        OSLOG(OS_LOG_NOTE, "Real program is...<%s>", m_szApplication);
        SStrCpy(m_szApplication, sizeof m_szApplication, szForced);
    }
    OSLOG(OS_LOG_NOTE, "Program is...<%s>", m_szApplication);
    Store(OS_CFGTAG_APPLICATION, m_szApplication);
    StoreHostProgram();
}

void COsCfgImpl::FindApplication()
{
    if (!m_szApplication[0])
        SStrCpy(m_szApplication, sizeof m_szApplication, m_szMainProgram);
    OsPathNormalize(m_szApplication);
    if (StrIstr(StrFileName(m_szApplication), g_szFamily))
        Store(g_eoscfgtagFamily, "1");
}

void COsCfgImpl::StoreHostProgram()
{
    static_assert(std::size(g_ahostprogram) == OS_CFGTAG_HOSTPROGRAM20 - OS_CFGTAG_HOSTPROGRAM01 + 1);
    const char* const szFileName = StrFileName(m_szApplication);
    for (const auto& hostprogram : g_ahostprogram)
    {
        if (StrICmp(szFileName, hostprogram.szProgram) != 0)
            continue;
        Store(hostprogram.eoscfgtag, "1");
        if (hostprogram.eoscfgtag == g_eoscfgtagUnits)
        {
            SStrCpy(m_szUnitsBehavior, sizeof m_szUnitsBehavior, "1");
            Store(OS_CFGTAG_FORCEUNITSBEHAVIOR, m_szUnitsBehavior);
        }
        return;
    }
}

// ------------------------------------------------------------------------------------------------- the log folders

static uint32_t ManageProc(COsThread* a_posthread)
{
    auto* const poscfgimpl = static_cast<COsCfgImpl*>(a_posthread->Argument());
    poscfgimpl->ManageLogDirectories(poscfgimpl->m_szLogDirectory, a_posthread);
    return 0;
}

void COsCfgImpl::StartManagement()
{
    if (m_posthreadManage || !*m_szLogDirectory)
        return;
    char szClean[16];
    OsEnvGet("MVR_CLEANLOGFOLDERS", "1", sizeof szClean, szClean);
    if (!OsArgumentsIsServicesOwner() || OsCfgIsCertificationHost() || szClean[0] != '1')
        return;
    m_posthreadManage = OSMEMNEW(COsThread);
    if (m_posthreadManage && m_posthreadManage->Start("managelogdirectories", ManageProc, this) != EOSSTS_SUCCESS)
        OSMEMDELETE(m_posthreadManage);
}
