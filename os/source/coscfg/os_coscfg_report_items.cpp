// os_coscfg_report_items.cpp: the tables of the support report: facts about the machine, members of the configuration
// object.
#include "os_coscfg_report_items.h"

#include <iterator>

namespace
{
#define OS_INFO(name_, kind_)                                                                                          \
    OsReportInfo                                                                                                       \
    {                                                                                                                  \
        "OS_CFGINFO_" #name_, OS_CFGINFO_##name_, OsReportKind::kind_                                                  \
    }

constexpr OsReportInfo g_aosreportinfo[] = {
    OS_INFO(OS_BUILDSTRING, Text),
    OS_INFO(OS_NAMESTRING, Text),
    OS_INFO(OS_NAMERAWSTRING, Text),
    OS_INFO(OS_VERSIONSTRING, Text),
    OS_INFO(OS_KERNELVERSIONSTRING, Text),
    OS_INFO(OS_USERNAME, Text),
    OS_INFO(MEM_TOTALPHYSICAL, Unsigned),
    OS_INFO(MEM_AVAILABLEPHYSICAL, Unsigned),
    OS_INFO(MEM_TOTALVIRTUAL, Unsigned),
    OS_INFO(MEM_AVAILABLEVIRTUAL, Unsigned),
    OS_INFO(MEM_TOTALPAGEFILE, Unsigned),
    OS_INFO(MEM_AVAILABLEPAGEFILE, Unsigned),
    OS_INFO(MEM_LOAD, Unsigned32),
    OS_INFO(CPU_CACHESIZE, Number),
    OS_INFO(CPU_FAMILY, Number),
    OS_INFO(CPU_IS_3DNOW, Number),
    OS_INFO(CPU_IS_FPU, Number),
    OS_INFO(CPU_IS_HYPERTHREADING, Number),
    OS_INFO(CPU_IS_MMX, Number),
    OS_INFO(CPU_IS_POPCNT, Number),
    OS_INFO(CPU_IS_SSE, Number),
    OS_INFO(CPU_IS_SSE2, Number),
    OS_INFO(CPU_IS_SSE3, Number),
    OS_INFO(CPU_IS_SSE41, Number),
    OS_INFO(CPU_IS_SSE42, Number),
    OS_INFO(CPU_IS_SSE4A, Number),
    OS_INFO(CPU_LEVEL, Number),
    OS_INFO(CPU_MACHINEBITS, Number),
    OS_INFO(CPU_MHZ, Number),
    OS_INFO(CPU_MODEL, Number),
    OS_INFO(CPU_MODELSTRING, Text),
    OS_INFO(CPU_PROCESSBITS, Number),
    OS_INFO(CPU_STEPPING, Number),
    OS_INFO(CPU_TOTAL, Number),
    OS_INFO(CPU_VENDORSTRING, Text),
    OS_INFO(CPU_VENDORNAMESTRING, Text),
    OS_INFO(CPU_HYPERVENDORSTRING, Text),
};
#undef OS_INFO

template <auto Member>
const char* TextOf(const COsCfgImpl& a_oscfgimpl)
{
    return a_oscfgimpl.*Member;
}

// Empty for an INI file that was not read.
template <std::unique_ptr<char[]> COsCfgImpl::*Member>
const char* TextOfFile(const COsCfgImpl& a_oscfgimpl)
{
    return a_oscfgimpl.*Member ? (a_oscfgimpl.*Member).get() : "";
}
#define OS_MEMBER(name_)                                                                                               \
    {                                                                                                                  \
#name_, &TextOf < &COsCfgImpl::name_>                                                                          \
    }
#define OS_MEMBERFILE(name_)                                                                                           \
    {                                                                                                                  \
#name_, &TextOfFile < &COsCfgImpl::name_>                                                                      \
    }

constexpr OsReportMember g_aosreportmemberDirectory[] = {
    OS_MEMBER(m_szSystemDirectory),
    OS_MEMBER(m_szHomeDirectory),
    OS_MEMBER(m_szLibraryPath),
    OS_MEMBER(m_szLegacyRootWriteableDirectory),
    OS_MEMBER(m_szLegacyRootCommonDirectory),
    OS_MEMBER(m_szLegacyRootModelDirectory),
    OS_MEMBER(m_szLegacyCommonDirectory),
    OS_MEMBER(m_szLegacyDeviceDirectory),
    OS_MEMBER(m_szLegacyUserDirectory),
    OS_MEMBER(m_szUserRootWriteableDirectory),
    OS_MEMBER(m_szUserRootCommonDirectory),
    OS_MEMBER(m_szUserRootModelDirectory),
    OS_MEMBER(m_szSharedRootWriteableDirectory),
    OS_MEMBER(m_szSharedRootCommonDirectory),
    OS_MEMBER(m_szSharedRootModelDirectory),
    OS_MEMBER(m_szSharedCommonDirectory),
    OS_MEMBER(m_szSharedDeviceDirectory),
    OS_MEMBER(m_szSharedUserDirectory),
    OS_MEMBER(m_szRootWriteableDirectory),
    OS_MEMBER(m_szRootCommonDirectory),
    OS_MEMBER(m_szRootModelDirectory),
    OS_MEMBER(m_szCommonDirectory),
    OS_MEMBER(m_szUserDirectory),
    OS_MEMBER(m_szDriverDirectory),
    OS_MEMBER(m_szLogDirectory),
    OS_MEMBER(m_szFwDirectory),
    OS_MEMBER(m_szOtterDirectory),
    OS_MEMBER(m_szUiDirectory),
    OS_MEMBER(m_szTmpDirectory),
};

constexpr OsReportMember g_aosreportmember[] = {
    OS_MEMBER(m_szConfigFilenameConstIni),
    OS_MEMBER(m_szSharedConfigFilenameConstIni),
    OS_MEMBER(m_szLegacyConfigFilenameConstIni),
    OS_MEMBER(m_szLogFilename),
    OS_MEMBER(m_szMultimediaDirectory),
    OS_MEMBER(m_szApplication),
    OS_MEMBER(m_szFudge),
    OS_MEMBER(m_szRootDirectory),
    OS_MEMBER(m_szModelDirectory),
    OS_MEMBER(m_szModelDirectoryReal),
    OS_MEMBER(m_szProgramFileName),
    OS_MEMBER(m_szLibraryName),
    OS_MEMBER(m_szLogTimeStamp),
    OS_MEMBER(m_szTmp),
    OS_MEMBERFILE(m_szFileData),
    OS_MEMBERFILE(m_szFileDataLegacy),
    OS_MEMBERFILE(m_szFileDataUnprotected),
    OS_MEMBER(m_szUnitsBehavior),
    OS_MEMBER(m_szLogDebug),
    OS_MEMBER(m_szLogFilter),
    OS_MEMBER(m_szDebugDisplayLength),
    OS_MEMBER(m_szForceUsbMonitorTimeout),
    OS_MEMBER(m_szUiTimeout),
};
#undef OS_MEMBER
#undef OS_MEMBERFILE
}   // namespace

const OsReportInfo* OsReportInfoAt(size_t a_sizetIndex)
{
    return a_sizetIndex < std::size(g_aosreportinfo) ? &g_aosreportinfo[a_sizetIndex] : nullptr;
}

const OsReportMember* OsReportDirectoryAt(size_t a_sizetIndex)
{
    return a_sizetIndex < std::size(g_aosreportmemberDirectory) ? &g_aosreportmemberDirectory[a_sizetIndex] : nullptr;
}

const OsReportMember* OsReportMemberAt(size_t a_sizetIndex)
{
    return a_sizetIndex < std::size(g_aosreportmember) ? &g_aosreportmember[a_sizetIndex] : nullptr;
}
