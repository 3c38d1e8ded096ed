// os_coslog_remove.cpp: deleting one log folder that is not in use.
#include "os_coslog.h"

#include "os_cosfile_system.h"
#include "os_cosfile_tree.h"
#include "os_coslogfolder.h"
#include "os_cospath.h"
#include "os_cosstring.h"

#include <cstring>

// Looks the entry up in the opened parent folder, so that exactly this entry is deleted, whatever changes meanwhile.
static bool FindEntry(OsFileTree& a_osfiletree, const char* a_szName)
{
    while (a_osfiletree.Next())
    {
        if (std::strcmp(a_osfiletree.Name(), a_szName) == 0)
            return true;
    }
    return false;
}

bool OsLogIsFolderInUse(const char* a_szFolder)
{
    return COsLogFolderLock::IsHeldByOthers(a_szFolder);
}

EOSSTS OsLogRemoveFolder(const char* a_szFolder)
{
    char szParent[OS_PATHSIZE];
    if (OsPathAbsolute(szParent, sizeof szParent, a_szFolder) != EOSSTS_SUCCESS)
        return EOSSTS_ACCESSDENIED;
    OsPathRemoveTrailing(szParent);
    char* const szSeparator = std::strrchr(szParent, '\\');
    if (!szSeparator || !StrStartsWith(szSeparator + 1, OS_LOGFOLDERPREFIX))
        return EOSSTS_ACCESSDENIED;
    if (!OsFileExists(szParent))
        return EOSSTS_SUCCESS;
    *szSeparator = '\0';

    OsFileTree osfiletree(false);
    if (osfiletree.Open(szParent) != EOSSTS_SUCCESS || !FindEntry(osfiletree, szSeparator + 1))
        return EOSSTS_FAIL;
    if (!osfiletree.IsFolder() || osfiletree.IsLink())
        return EOSSTS_ACCESSDENIED;
    if (OsLogFolderDelete(osfiletree))
        return EOSSTS_SUCCESS;
    return OsLogIsFolderInUse(a_szFolder) ? EOSSTS_SHARING : EOSSTS_FAIL;
}
