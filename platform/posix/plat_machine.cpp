// plat_machine.cpp: the system and its version, the machine's name, its accounts, the volume of a folder.
//
// Accounts are read from the account file itself: the C library's look-up wants plug-ins at run time, which a program
// that is linked statically cannot have.
#include "plat_machine.h"
#include "plat_posix.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string_view>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/utsname.h>
#include <unistd.h>

// The whole of a text file; what cannot be read is empty.
static std::string ReadText(const char* a_szPath)
{
    std::string strText;
    const int iFile = open(a_szPath, O_RDONLY | O_CLOEXEC);
    if (iFile < 0)
        return strText;
    char szPiece[4096];
    ssize_t ssizetRead;
    while ((ssizetRead = read(iFile, szPiece, sizeof szPiece)) > 0)
        strText.append(szPiece, static_cast<size_t>(ssizetRead));
    close(iFile);
    return strText;
}

// Takes the text up to the separator off the front of a_strviewText.
static std::string_view Take(std::string_view& a_strviewText, char a_chSeparator)
{
    const size_t sizetEnd = a_strviewText.find(a_chSeparator);
    const std::string_view strview = a_strviewText.substr(0, sizetEnd);
    a_strviewText.remove_prefix(sizetEnd == std::string_view::npos ? a_strviewText.size() : sizetEnd + 1);
    return strview;
}

// ---------------------------------------------------------------------------------------------------- the version

static uint32_t TakeNumber(const char*& a_szText)
{
    char* szEnd = nullptr;
    const unsigned long ulNumber = strtoul(a_szText, &szEnd, 10);
    a_szText = *szEnd == '.' ? szEnd + 1 : szEnd;
    return static_cast<uint32_t>(ulNumber);
}

// This system tells every program the same.
bool PlatVersionGet(PlatVersionReading, PlatVersion* a_pplatversion)
{
    utsname system;
    if (uname(&system) != 0)
        return PosixFailErrno();
    *a_pplatversion = {};
    a_pplatversion->u32Platform = PLAT_PLATFORM_OTHER;
    a_pplatversion->u32ProductType = PLAT_PRODUCT_WORKSTATION;
    const char* szRelease = system.release;
    a_pplatversion->u32Major = TakeNumber(szRelease);
    a_pplatversion->u32Minor = TakeNumber(szRelease);
    a_pplatversion->u32Build = TakeNumber(szRelease);
    return true;
}

bool PlatHostName(char16_t* a_wszName, size_t a_sizetName)
{
    utsname system;
    if (uname(&system) != 0)
        return PosixFailErrno();
    return PosixToWide(system.nodename, a_wszName, a_sizetName);
}

// --------------------------------------------------------------------------------------------------- the accounts

namespace
{
struct Account
{
    std::string strName;
    unsigned long ulId;
};
}   // namespace

// Accounts that people have, as the system hands out their numbers.
static constexpr unsigned long g_ulFirstOrdinary = 1000;
static constexpr unsigned long g_ulLastOrdinary = 60000;

// The first account of the machine that a_select chooses; its name is empty when there is none.
template <class Select>
static Account FindAccount(Select a_select)
{
    const std::string strText = ReadText("/etc/passwd");
    std::string_view strviewText = strText;
    while (!strviewText.empty())
    {
        std::string_view strviewLine = Take(strviewText, '\n');
        Account account;
        account.strName = Take(strviewLine, ':');
        Take(strviewLine, ':');
        const std::string strId(Take(strviewLine, ':'));
        char* szEnd = nullptr;
        account.ulId = strtoul(strId.c_str(), &szEnd, 10);
        if (!account.strName.empty() && !strId.empty() && !*szEnd && a_select(account))
            return account;
    }
    return {};
}

// Whom the environment names. It is believed for an account that the machine has from elsewhere, not for a name that
// belongs to somebody else here.
static std::string EnvironmentUser()
{
    std::string strName;
    if (!PosixEnvGet("LOGNAME", strName) && !PosixEnvGet("USER", strName))
        return {};
    const Account account = FindAccount([&](const Account& candidate) { return candidate.strName == strName; });
    return account.strName.empty() ? strName : std::string();
}

static std::string ProcessUser()
{
    const unsigned long ulId = geteuid();
    const Account account = FindAccount([&](const Account& candidate) { return candidate.ulId == ulId; });
    return account.strName.empty() ? EnvironmentUser() : account.strName;
}

static std::string FirstUser()
{
    return FindAccount([](const Account& candidate) {
               return candidate.ulId >= g_ulFirstOrdinary && candidate.ulId <= g_ulLastOrdinary;
           })
        .strName;
}

// Everybody is in a session of his own here, so it is the process's account that works in it.
bool PlatUserName(PlatUser a_platuser, char16_t* a_wszName, size_t a_sizetName)
{
    const uint32_t u32Error = PlatGetLastError();
    const std::string strName = a_platuser == PLAT_USER_FIRST ? FirstUser() : ProcessUser();
    if (strName.empty())
        return PosixFail(PLAT_ERROR_FILENOTFOUND);
    if (!PosixToWide(strName.c_str(), a_wszName, a_sizetName))
        return false;
    PlatSetLastError(u32Error);   // variables that are not set are no failure
    return true;
}

bool PlatServiceProcess(const char16_t*, uint64_t*)
{
    return PosixFail(PLAT_ERROR_INVALIDFUNCTION);
}

// ----------------------------------------------------------------------------------------------------- the volume

// The table of mounts writes white space and the backslash as three octal digits.
static std::string Unescape(std::string_view a_strviewText)
{
    std::string strText;
    for (size_t sizet = 0; sizet < a_strviewText.size(); ++sizet)
    {
        if (a_strviewText[sizet] != '\\' || sizet + 3 >= a_strviewText.size())
        {
            strText += a_strviewText[sizet];
            continue;
        }
        const std::string strDigits(a_strviewText.substr(sizet + 1, 3));
        strText += static_cast<char>(strtoul(strDigits.c_str(), nullptr, 8));
        sizet += 3;
    }
    return strText;
}

// A line of the table: the mount's number, other fields, then "-", the kind of file system and the device.
static std::string DeviceOf(uint64_t a_u64Mount)
{
    const std::string strText = ReadText("/proc/self/mountinfo");
    std::string_view strviewText = strText;
    while (!strviewText.empty())
    {
        std::string_view strviewLine = Take(strviewText, '\n');
        const std::string strNumber(Take(strviewLine, ' '));
        if (strtoull(strNumber.c_str(), nullptr, 10) != a_u64Mount)
            continue;
        const size_t sizetBehind = strviewLine.find(" - ");
        if (sizetBehind == std::string_view::npos)
            break;
        strviewLine.remove_prefix(sizetBehind + 3);
        Take(strviewLine, ' ');
        return Unescape(Take(strviewLine, ' '));
    }
    return {};
}

bool PlatVolumeGet(const char16_t* a_wszFolder, PlatVolume* a_pplatvolume)
{
    std::string strPath = "/";
    if (a_wszFolder && !PosixPath(a_wszFolder, strPath))
        return false;
    struct statx status;
    if (statx(AT_FDCWD, strPath.c_str(), 0, STATX_BASIC_STATS | STATX_MNT_ID, &status) != 0)
        return PosixFailErrno();
    a_pplatvolume->wszDevice[0] = 0;
    a_pplatvolume->u32SerialNumber =
        static_cast<uint32_t>(makedev(status.stx_dev_major, status.stx_dev_minor) & 0xFFFFFFFF);
    if (!(status.stx_mask & STATX_MNT_ID))
        return true;
    return PosixToWide(DeviceOf(status.stx_mnt_id).c_str(), a_pplatvolume->wszDevice, PLAT_PATHMAX);
}
