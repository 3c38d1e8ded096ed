// os_coslogcollector_announcement.cpp: the file by which a shared collector is found.
#include "os_coslogcollector_announcement.h"

#include "os_cfg.h"
#include "os_cosfile.h"
#include "os_cosfile_system.h"
#include "os_coslogcollector_protocol.h"
#include "os_cospath.h"
#include "os_log.h"

#include "plat_user.h"

#include <cstring>

static constexpr char g_szSource[] = "os/source/os_coslogcollector";

static constexpr int32_t g_i32LockTimeout = 1000;
static constexpr size_t g_sizetTextMost = 1024;

void OsLcAnnouncementPath(char* a_szPath)
{
    OsPathCopy(a_szPath, OS_PATHSIZE, OsCfgGetString(OS_CFGTAG_ROOTCOMMONDIRECTORYLEGACY));
    OsPathAppend(a_szPath, OS_PATHSIZE, OS_LC_ANNOUNCEMENTFILE);
}

static bool IsOf(const COsFile& a_osfile, PlatOwner a_platowner)
{
    PlatFileOwned platfileowned{};
    return a_osfile.GetOwner(&platfileowned) && platfileowned.platowner == a_platowner;
}

// Every user may create a file in a shared folder, so only one owned by our user or root is accepted. The one of root
// may be read-only.
static bool OpenThere(COsFile& a_osfile, const char* a_szPath)
{
    const auto open = [&](EOSFILEACCESS a_eosfileaccess) {
        return a_osfile.Open(a_szPath, OS_FILEOPEN_EXISTING, a_eosfileaccess, OS_FILESHARE_READWRITE, false,
                             OS_FILEGUARD_NOLINK);
    };
    EOSSTS eossts = open(OS_FILEACCESS_READWRITE);
    if (eossts == EOSSTS_ACCESSDENIED)
        eossts = open(OS_FILEACCESS_READ);
    if (eossts != EOSSTS_SUCCESS)
        return false;
    if (IsOf(a_osfile, PLAT_OWNER_SAME) || IsOf(a_osfile, PLAT_OWNER_SYSTEM))
        return true;
    OSLOG(OS_LOG_ERROR, "announcement of another user ignored...<%s>", a_szPath);
    return false;
}

bool OsLcOtherSharedRuns()
{
    char szPath[OS_PATHSIZE];
    OsLcAnnouncementPath(szPath);
    COsFile osfile;
    return OpenThere(osfile, szPath) && osfile.LockByte(0, 1, szPath, true) != EOSSTS_SUCCESS;
}

// Takes the lock before it writes the text, so that a reader of the text finds the lock taken. A client that tests the
// lock may hold it for a moment.
bool OsLcAnnounce(COsFile& a_osfile, const char* a_szPath, const char* a_szHost, const char* a_szPort)
{
    char szText[OS_LC_ANNOUNCEMENTSIZE];
    OsFileCreateDirectory(OsCfgGetString(OS_CFGTAG_ROOTCOMMONDIRECTORYLEGACY));
    if (OsLcBuildAnnouncement(szText, sizeof szText, a_szHost, a_szPort) != EOSSTS_SUCCESS ||
        a_osfile.Open(a_szPath, OS_FILEOPEN_ALWAYS, OS_FILEACCESS_READWRITE, OS_FILESHARE_READWRITE, false,
                      OS_FILEGUARD_NOLINK) != EOSSTS_SUCCESS)
        return false;
    if (!IsOf(a_osfile, PLAT_OWNER_SAME))
    {
        OSLOG(OS_LOG_ERROR, "announcement of another user is in the way...<%s>", a_szPath);
        return false;
    }
    return a_osfile.LockByte(0, g_i32LockTimeout, a_szPath, false) == EOSSTS_SUCCESS &&
           a_osfile.Write(szText, std::strlen(szText)) == EOSSTS_SUCCESS && a_osfile.Flush() == EOSSTS_SUCCESS;
}

// Does not read the first byte, which the collector has locked.
EOSSTS OsLcFindShared(char* a_szHost, char* a_szPort)
{
    char szPath[OS_PATHSIZE];
    char szText[g_sizetTextMost + 1] = {};
    OsLcAnnouncementPath(szPath);
    COsFile osfile;
    if (!OpenThere(osfile, szPath))
        return EOSSTS_FAIL;
    if (osfile.LockByte(0, 1, szPath, true) == EOSSTS_SUCCESS)
    {
        osfile.UnlockByte(0);
        osfile.Close();
        OsFileDelete(szPath, OS_FILETYPE_ANY, false, false);
        return EOSSTS_BUSY;
    }
    osfile.Seek(OS_FILESEEK_START, 1);
    osfile.Read(szText, g_sizetTextMost, nullptr);
    return OsLcReadAnnouncement(szText, a_szHost, a_szPort) ? EOSSTS_SUCCESS : EOSSTS_FAIL;
}
