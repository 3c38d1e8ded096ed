// logcollector_clean.cpp: the clean mode: which folders are cleaned.
#include "logcollector_clean.h"

#include "os_cfg.h"
#include "os_cosfile_system.h"
#include "os_coslog.h"
#include "os_cospath.h"
#include "os_log.h"

#include <algorithm>
#include <string_view>

static constexpr char g_szSource[] = "logcollector/source/logcollector_clean";

static constexpr EOSPATH g_aeospath[] = {OS_PATH_WRITEABLE_FOLDER_BRAND_LEGACY, OS_PATH_WRITEABLE_FOLDER_BRAND_LOCAL,
                                         OS_PATH_WRITEABLE_FOLDER_BRAND_ROAMING};

// "." and "..", and variants that some systems treat the same.
static bool IsDots(std::string_view a_svComponent)
{
    return !a_svComponent.empty() && a_svComponent.find_first_not_of(". ") == std::string_view::npos;
}

static bool IsLink(const char* a_szPath)
{
    OsFileInfo osfileinfo;
    return OsFileGetInfo(a_szPath, &osfileinfo) == EOSSTS_SUCCESS && osfileinfo.blLink;
}

// Checks each component of the path after its first a_sizetBrand bytes.
static bool StaysInside(const char* a_szPath, size_t a_sizetBrand)
{
    const std::string_view svPath = a_szPath;
    for (size_t sizetStart = a_sizetBrand; sizetStart < svPath.size();)
    {
        const size_t sizetEnd = std::min(svPath.find('\\', sizetStart + 1), svPath.size());
        char szFolder[OS_PATHSIZE];
        *std::copy_n(a_szPath, sizetEnd, szFolder) = '\0';
        if (IsDots(svPath.substr(sizetStart + 1, sizetEnd - sizetStart - 1)) || IsLink(szFolder))
            return false;
        sizetStart = sizetEnd;
    }
    return true;
}

static void CleanBrandFolder(EOSPATH a_eospath, int32_t a_i32HoursToKeep, const char* a_szSubfolder)
{
    char szFolder[OS_PATHSIZE];
    if (OsCfgGetPath(a_eospath, szFolder, sizeof szFolder) != EOSSTS_SUCCESS || !szFolder[0])
        return;
    if (a_szSubfolder[0])
    {
        OsPathRemoveTrailing(szFolder);
        const size_t sizetBrand = std::string_view(szFolder).size();
        OsPathAppend(szFolder, sizeof szFolder, a_szSubfolder);
        if (!StaysInside(szFolder, sizetBrand))
        {
            OSLOG(OS_LOG_ERROR, "subfolder leads out of the brand folder...<%s>", szFolder);
            return;
        }
    }
    if (OsFileExists(szFolder))
        OsLogCleanFolders(szFolder, a_i32HoursToKeep);
}

void LogCollectorClean(int32_t a_i32HoursToKeep, const char* a_szSubfolder)
{
    for (const EOSPATH eospath : g_aeospath)
        CleanBrandFolder(eospath, a_i32HoursToKeep, a_szSubfolder);
}
