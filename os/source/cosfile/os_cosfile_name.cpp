// os_cosfile_name.cpp: the identity of a file, and names for kernel objects made from it.
#include "os_cosfile_system.h"

#include "os_cosfile_impl.h"
#include "os_cosstring.h"
#include "os_coswideprintf.h"
#include "os_log.h"

#include "plat_wait.h"

static constexpr char g_szSource[] = "os/source/os_cosfile";

namespace
{
constexpr size_t g_sizetName = 512;
constexpr size_t g_sizetSuffix = 128;

bool IsNameChar(char a_ch)
{
    return (a_ch >= 'a' && a_ch <= 'z') || (a_ch >= 'A' && a_ch <= 'Z') || (a_ch >= '0' && a_ch <= '9') ||
           a_ch == '-' || a_ch == '_';
}

// Replaces every character not allowed in a name by one "_", however many bytes it has. False when it is too long.
bool SafeSuffix(const char* a_szSuffix, char16_t* a_wszSuffix)
{
    size_t sizetLength = 0;
    for (const char* sz = a_szSuffix; *sz; ++sz)
    {
        const bool blContinues = (static_cast<unsigned char>(*sz) & 0xC0) == 0x80;
        if (blContinues)
            continue;
        if (sizetLength == g_sizetSuffix)
            return false;
        a_wszSuffix[sizetLength++] = IsNameChar(*sz) ? static_cast<char16_t>(*sz) : u'_';
    }
    a_wszSuffix[sizetLength] = u'\0';
    return true;
}

void FormatName(const PlatFileIdentity& a_platfileidentity, const char* a_szSuffix, char16_t* a_wszName)
{
    SWcsPrintf(
        a_wszName, g_sizetName, "Global\\%S%x-%x-%x-%x-%x-%x", u"", static_cast<uint32_t>(a_platfileidentity.u64Volume),
        static_cast<uint32_t>(a_platfileidentity.u64Index >> 32), static_cast<uint32_t>(a_platfileidentity.u64Index),
        static_cast<uint32_t>(a_platfileidentity.u64Size), static_cast<uint32_t>(a_platfileidentity.u64WriteTime >> 32),
        static_cast<uint32_t>(a_platfileidentity.u64WriteTime));
    if (!a_szSuffix || !a_szSuffix[0])
        return;

    char16_t wszSuffix[g_sizetSuffix + 1];
    if (!SafeSuffix(a_szSuffix, wszSuffix))
    {
        OSLOG(OS_LOG_ERROR, "GetSafeFileName failed (destination string is too short...%s", a_szSuffix);
        return;
    }
    SWcsCat(a_wszName, g_sizetName, u"-");
    SWcsCat(a_wszName, g_sizetName, wszSuffix);
}

bool IsEventName(const char16_t* a_wszName)
{
    const PlatHandle plathandle = PlatEventCreate(PLAT_RESET_AUTO, a_wszName);
    if (plathandle == PLAT_INVALID)
        return false;
    const bool blExists = PlatGetLastError() == PLAT_ERROR_ALREADYEXISTS;
    PlatClose(plathandle);
    return blExists;
}
}   // namespace

bool OsFileReadIdentity(const char* a_szPath, uint32_t a_u32Flags, PlatFileIdentity* a_pplatfileidentity)
{
    char16_t wszPath[OS_WIDEPATHSIZE];
    if (!OsPathToSystem(wszPath, OS_WIDEPATHSIZE, a_szPath))
        return false;
    const PlatHandle plathandle =
        PlatFileOpen(wszPath, PLAT_ACCESS_NONE, PLAT_SHARE_READ | PLAT_SHARE_WRITE | PLAT_SHARE_DELETE,
                     PLAT_DISPOSITION_OPENEXISTING, a_u32Flags);
    if (plathandle == PLAT_INVALID)
        return false;
    const bool blRead = PlatFileGetIdentity(plathandle, a_pplatfileidentity);
    PlatClose(plathandle);
    return blRead;
}

uint32_t OsFileSafeName(const char* a_szFilename, const char* a_szSuffix, char16_t* a_wszName)
{
    a_wszName[0] = u'\0';
    PlatFileIdentity platfileidentity;
    if (!a_szFilename || !OsFileReadIdentity(a_szFilename, 0, &platfileidentity) || platfileidentity.u64Index == 0)
        return 0;
    FormatName(platfileidentity, a_szSuffix, a_wszName);
    if (!IsEventName(a_wszName))
        return 0;
    a_wszName[0] = u'\0';
    return 1;
}
