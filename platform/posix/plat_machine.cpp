// plat_machine.cpp: the system and its version, the machine's name, the volume of a folder.
#include "plat_machine.h"
#include "plat_posix.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <string_view>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/utsname.h>
#include <unistd.h>

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
    const std::string strText = PosixReadText("/proc/self/mountinfo");
    std::string_view strviewText = strText;
    while (!strviewText.empty())
    {
        std::string_view strviewLine = PosixTake(strviewText, '\n');
        const std::string strNumber(PosixTake(strviewLine, ' '));
        if (strtoull(strNumber.c_str(), nullptr, 10) != a_u64Mount)
            continue;
        const size_t sizetBehind = strviewLine.find(" - ");
        if (sizetBehind == std::string_view::npos)
            break;
        strviewLine.remove_prefix(sizetBehind + 3);
        PosixTake(strviewLine, ' ');
        return Unescape(PosixTake(strviewLine, ' '));
    }
    return {};
}

bool PlatVolumeGet(const char16_t* a_wszFolder, PlatVolume* a_pplatvolume)
try
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
catch (const std::bad_alloc&)
{
    return PosixFail(PLAT_ERROR_NOMEMORY);
}
