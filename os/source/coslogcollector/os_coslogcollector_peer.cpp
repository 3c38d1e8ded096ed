// os_coslogcollector_peer.cpp: the peer of a connection, and which files it may have written.
#include "os_coslogcollector_peer.h"

#include "os_cosfile_system.h"
#include "os_coslogfolder.h"
#include "os_cospath.h"
#include "os_cossocket.h"
#include "os_cosstring.h"
#include "os_log.h"

#include "plat_socket.h"
#include "plat_user.h"

#include <algorithm>
#include <string_view>

static constexpr char g_szSource[] = "os/source/os_coslogcollector";

static constexpr uint64_t g_u64SystemUser = 0;
static constexpr char g_szLogFileSuffix[] = ".log";

// --------------------------------------------------------------------------------------------------- identity

bool COsLogCollectorPeer::IsTold(uint16_t a_u16Port)
{
    PlatSocketOwner platsocketowner{};
    return PlatSocketListenerOwner(a_u16Port, 0, &platsocketowner);
}

EOSSTS COsLogCollectorPeer::Identify(COsSocket& a_ossocket)
{
    PlatSocketOwner platsocketowner{};
    if (a_ossocket.SocketPeerOwner(&platsocketowner) != EOSSTS_SUCCESS)
        return EOSSTS_FAIL;
    m_u64User = platsocketowner.u64User;
    m_kind = platsocketowner.platowner == PLAT_OWNER_SAME   ? Kind::Ours
             : platsocketowner.platowner == PLAT_OWNER_NONE ? Kind::Left
                                                            : Kind::Other;
    if (m_kind != Kind::Other || PlatUserId() == g_u64SystemUser)
        return EOSSTS_SUCCESS;
    OSLOG(OS_LOG_ERROR, "connection of another user refused...<%llu>", static_cast<unsigned long long>(m_u64User));
    return EOSSTS_ACCESSDENIED;
}

bool COsLogCollectorPeer::TakeRights() const
{
    if (m_kind != Kind::Other || PlatUserActAs(m_u64User))
        return true;
    OSLOG(OS_LOG_ERROR, "acting as another user failed...<%llu>", static_cast<unsigned long long>(m_u64User));
    return false;
}

// -------------------------------------------------------------------------------------------------- allowed names

static constexpr bool IsSeparator(char a_ch)
{
    return a_ch == '\\' || a_ch == '/';
}

static constexpr bool IsLetter(char a_ch)
{
    return (a_ch >= 'a' && a_ch <= 'z') || (a_ch >= 'A' && a_ch <= 'Z');
}

static constexpr bool IsControl(char a_ch)
{
    return static_cast<unsigned char>(a_ch) < 0x20 || a_ch == 0x7F;
}

// Begins at a root or a drive's root. Refuses the prefixes "\\?\" and "\\.\", which bypass path parsing.
static bool IsAbsolute(std::string_view a_strviewPath)
{
    if (a_strviewPath.size() > 2 && a_strviewPath[1] == ':')
        return IsLetter(a_strviewPath[0]) && IsSeparator(a_strviewPath[2]);
    const size_t sizetName = std::min(a_strviewPath.find_first_not_of("\\/"), a_strviewPath.size());
    return sizetName == 1 || (sizetName > 1 && sizetName < a_strviewPath.size() && a_strviewPath[sizetName] != '?' &&
                              a_strviewPath[sizetName] != '.');
}

static bool LeadsUp(std::string_view a_strviewPath)
{
    while (!a_strviewPath.empty())
    {
        const size_t sizetName = std::min(a_strviewPath.find_first_of("\\/"), a_strviewPath.size());
        if (a_strviewPath.substr(0, sizetName) == "..")
            return true;
        a_strviewPath.remove_prefix(std::min(sizetName + 1, a_strviewPath.size()));
    }
    return false;
}

static bool IsProperLog(const char* a_szLogFile)
{
    char szFolder[OS_PATHSIZE];
    return StrEndsWith(a_szLogFile, g_szLogFileSuffix, true) &&
           (PlatUserId() != g_u64SystemUser || OsLogFolderOf(a_szLogFile, szFolder));
}

// A refused name may be an attempt to forge log lines: control characters are never logged.
bool COsLogCollectorPeer::MayName(const char* a_szLogFile) const
{
    if (m_kind == Kind::Ours)
        return true;
    const std::string_view strviewPath = a_szLogFile;
    const bool blControl = std::any_of(strviewPath.begin(), strviewPath.end(), &IsControl);
    if (!blControl && IsAbsolute(strviewPath) && !LeadsUp(strviewPath) &&
        (m_kind == Kind::Other || IsProperLog(a_szLogFile)))
        return true;
    OSLOG(OS_LOG_ERROR, "log file of a stranger refused...<%llu> <%s>", static_cast<unsigned long long>(m_u64User),
          blControl ? "" : a_szLogFile);
    return false;
}

// ------------------------------------------------------------------------------------------------- allowed files

EOSFILEGUARD COsLogCollectorPeer::Guard() const
{
    switch (m_kind)
    {
    case Kind::Other:
        return OS_FILEGUARD_NOLINK;
    case Kind::Left:
        return OS_FILEGUARD_OWNFOLDER;
    default:
        return OS_FILEGUARD_NONE;
    }
}

// Whether the nearest existing folder of the path is writable by our user alone and reached without a link.
static bool IsBelowOwnFolder(const char* a_szFolder)
{
    char szFolder[OS_PATHSIZE];
    OsPathCopy(szFolder, sizeof szFolder, a_szFolder);
    while (*szFolder && !OsFileExists(szFolder))
        OsPathFolder(szFolder);
    COsFile osfile;
    PlatFileOwned platfileowned{};
    return *szFolder &&
           osfile.Open(szFolder, OS_FILEOPEN_DIRECTORY, OS_FILEACCESS_NONE, OS_FILESHARE_READWRITE, false,
                       OS_FILEGUARD_NOLINKS) == EOSSTS_SUCCESS &&
           osfile.GetOwner(&platfileowned) && platfileowned.platowner == PLAT_OWNER_SAME &&
           !platfileowned.blOthersWrite;
}

void COsLogCollectorPeer::MakeFolder(const char* a_szFolder) const
{
    if (m_kind != Kind::Left || IsBelowOwnFolder(a_szFolder))
        OsFileCreateDirectory(a_szFolder);
}
