// plat_path.cpp: paths of the product as paths of this system, the folders that stand for drives, full names.
#include "plat_posix_file.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <new>
#include <string_view>

static constexpr bool IsSeparator(char16_t a_wch)
{
    return a_wch == u'/' || a_wch == u'\\';
}

// The letter in lower case when the path begins with a drive, 0 otherwise.
static constexpr char DriveOf(const char16_t* a_wszPath)
{
    const char16_t wchLower = a_wszPath[0] | 0x20;
    return wchLower >= u'a' && wchLower <= u'z' && a_wszPath[1] == u':' ? static_cast<char>(wchLower) : '\0';
}

// Steps over the long-path prefix. Behind "\\?\UNC" the network path lacks its second leading separator.
static const char16_t* WithoutPrefix(const char16_t* a_wszPath, bool& a_blNetwork)
{
    a_blNetwork = false;
    const bool blPrefix =
        IsSeparator(a_wszPath[0]) && IsSeparator(a_wszPath[1]) && a_wszPath[2] == u'?' && IsSeparator(a_wszPath[3]);
    if (!blPrefix)
        return a_wszPath;
    const char16_t* pwch = a_wszPath + 4;
    if (pwch[0] != u'U' || pwch[1] != u'N' || pwch[2] != u'C' || !IsSeparator(pwch[3]))
        return pwch;
    a_blNetwork = true;
    return pwch + 3;
}

// Appends a path without drive or prefix; "\" becomes "/". Nearly every path is ASCII and is copied as it stands.
static bool AppendPath(const char16_t* a_wszPath, std::string& a_strPath)
{
    const std::u16string_view wsv(a_wszPath);
    const size_t sizetStart = a_strPath.size();
    a_strPath.resize(sizetStart + wsv.size());
    char* pch = a_strPath.data() + sizetStart;
    unsigned uAll = 0;
    for (const char16_t wch : wsv)
    {
        uAll |= wch;
        *pch++ = wch == u'\\' ? '/' : static_cast<char>(wch);
    }
    if (uAll < 0x80)
        return true;

    std::string strText;
    if (!PosixToUtf8(a_wszPath, strText))
        return false;
    for (char& ch : strText)
        ch = ch == '\\' ? '/' : ch;
    a_strPath.replace(sizetStart, std::string::npos, strText);
    return true;
}

// The folder below which each drive has its own.
static bool DriveRoot(std::string& a_strRoot)
{
    const uint32_t u32Error = PlatGetLastError();
    if (PosixEnvGet("MVR_DRIVEROOT", a_strRoot))
    {
        std::replace(a_strRoot.begin(), a_strRoot.end(), '\\', '/');
    }
    else
    {
        char16_t wszLocal[PLAT_PATHMAX];
        a_strRoot.clear();
        if (!PlatFolderPath(PLAT_FOLDER_LOCAL, wszLocal, PLAT_PATHMAX) || !AppendPath(wszLocal, a_strRoot))
            return false;
        a_strRoot += "/drives";
    }
    PosixTrimPath(a_strRoot);
    PlatSetLastError(u32Error);
    return true;
}

static bool DriveFolder(char a_chDrive, std::string& a_strFolder)
{
    if (!DriveRoot(a_strFolder))
        return false;
    a_strFolder += '/';
    a_strFolder += a_chDrive;
    return true;
}

static bool IsFolderOf(const std::string& a_strPath, const struct stat& a_status)
{
    struct stat status;
    return stat(a_strPath.c_str(), &status) == 0 && status.st_dev == a_status.st_dev &&
           status.st_ino == a_status.st_ino;
}

// The system goes up from where a link leads, and so do we. In the folder of the drive ".." leads nowhere else, as in
// the root of the system: it is left out there.
static void StayInDrive(std::string& a_strPath, size_t a_sizetDrive)
{
    size_t sizetUp = a_strPath.find("/..", a_sizetDrive);
    if (sizetUp == std::string::npos)
        return;
    struct stat status;
    const int iErrno = errno;
    const bool blDrive = stat(a_strPath.substr(0, a_sizetDrive).c_str(), &status) == 0;
    while (sizetUp != std::string::npos)
    {
        const size_t sizetBehind = sizetUp + 3;
        const bool blUp = sizetBehind == a_strPath.size() || a_strPath[sizetBehind] == '/';
        if (blUp && (sizetUp == a_sizetDrive || (blDrive && IsFolderOf(a_strPath.substr(0, sizetUp), status))))
            a_strPath.erase(sizetUp, 3);
        else
            sizetUp = sizetBehind;
        sizetUp = a_strPath.find("/..", sizetUp);
    }
    errno = iErrno;
}

bool PosixPath(const char16_t* a_wszPath, std::string& a_strPath)
{
    if (!a_wszPath || !*a_wszPath)
        return PosixFail(PLAT_ERROR_PATHNOTFOUND);
    bool blNetwork = false;
    const char16_t* pwch = WithoutPrefix(a_wszPath, blNetwork);
    a_strPath.assign(blNetwork ? 1 : 0, '/');
    const char chDrive = DriveOf(pwch);
    if (!chDrive)
        return AppendPath(pwch, a_strPath);
    pwch += 2;
    if (!DriveFolder(chDrive, a_strPath))
        return false;
    const size_t sizetDrive = a_strPath.size();
    if (*pwch && !IsSeparator(*pwch))
        a_strPath += '/';
    if (!AppendPath(pwch, a_strPath))
        return false;
    StayInDrive(a_strPath, sizetDrive);
    return true;
}

bool PosixMakeDrive(const char16_t* a_wszPath)
{
    const int iErrno = errno;
    bool blNetwork = false;
    std::string strFolder;
    const char chDrive = DriveOf(WithoutPrefix(a_wszPath, blNetwork));
    if (!chDrive || !DriveFolder(chDrive, strFolder))
    {
        errno = iErrno;
        return false;
    }
    for (size_t sizetEnd = strFolder.find('/', 1); sizetEnd != std::string::npos;
         sizetEnd = strFolder.find('/', sizetEnd + 1))
    {
        mkdir(strFolder.substr(0, sizetEnd).c_str(), 0777);
    }
    const bool blMade = mkdir(strFolder.c_str(), 0777) == 0;
    errno = iErrno;
    return blMade;
}

void PosixTrimPath(std::string& a_strPath)
{
    while (a_strPath.size() > 1 && a_strPath.back() == '/')
        a_strPath.pop_back();
}

std::string_view PosixSplitPath(std::string_view a_strviewPath, std::string_view& a_strviewFolder)
{
    while (a_strviewPath.size() > 1 && a_strviewPath.back() == '/')
        a_strviewPath.remove_suffix(1);
    const size_t sizetName = a_strviewPath.rfind('/') + 1;   // 0 without a separator
    a_strviewFolder = sizetName ? a_strviewPath.substr(0, sizetName) : std::string_view(".");
    return a_strviewPath.substr(sizetName);
}

bool PosixFailPath(std::string_view a_strviewPath)
{
    if (errno != ENOENT)
        return PosixFailErrno();
    std::string_view strviewFolder;
    char szFolder[PATH_MAX];
    struct stat status;
    PosixSplitPath(a_strviewPath, strviewFolder);
    if (strviewFolder.size() >= sizeof szFolder)
        return PosixFail(PLAT_ERROR_PATHNOTFOUND);
    szFolder[strviewFolder.copy(szFolder, sizeof szFolder)] = '\0';
    const bool blFolder = stat(szFolder, &status) == 0 && S_ISDIR(status.st_mode);
    return PosixFail(blFolder ? PLAT_ERROR_FILENOTFOUND : PLAT_ERROR_PATHNOTFOUND);
}

// --------------------------------------------------------------------------------------------------- full names

// Takes the next component off the text, with the separator behind it. It is empty between two separators.
static std::u16string_view TakeComponent(std::u16string_view& a_wsvName)
{
    const size_t sizetEnd = std::min(a_wsvName.find_first_of(u"/\\"), a_wsvName.size());
    const std::u16string_view wsvComponent = a_wsvName.substr(0, sizetEnd);
    a_wsvName.remove_prefix(std::min(sizetEnd + 1, a_wsvName.size()));
    return wsvComponent;
}

// The part of a full name that ".." never removes: a drive, or the first two components of a network path. The rest
// is left in a_wsvName.
static std::u16string TakeRoot(const std::u16string& a_wstrName, std::u16string_view& a_wsvName)
{
    std::u16string wstrRoot;
    a_wsvName = a_wstrName;
    if (DriveOf(a_wstrName.c_str()))
    {
        wstrRoot = a_wstrName.substr(0, 2);
        a_wsvName.remove_prefix(2);
    }
    else if (a_wsvName.size() > 2 && IsSeparator(a_wsvName[0]) && IsSeparator(a_wsvName[1]))
    {
        a_wsvName.remove_prefix(2);
        wstrRoot = u"\\";
        for (int iComponent = 0; iComponent < 2 && !a_wsvName.empty(); ++iComponent)
            wstrRoot.append(u"\\").append(TakeComponent(a_wsvName));
    }
    return wstrRoot;
}

// The real path of a link; false for what is none.
static bool ReadLink(const std::u16string& a_wstrPath, std::string& a_strReal)
{
    std::string strPath;
    char szReal[PATH_MAX];
    struct stat status;
    if (!PosixPath(a_wstrPath.c_str(), strPath) || lstat(strPath.c_str(), &status) != 0 || !S_ISLNK(status.st_mode) ||
        !realpath(strPath.c_str(), szReal))
        return false;
    a_strReal = szReal;
    return true;
}

// Takes the folder of the drive off the front of a real path that lies in it.
static bool TakeDrive(const std::u16string& a_wstrRoot, std::string& a_strReal)
{
    std::string strDrive;
    char szDrive[PATH_MAX];
    if (a_wstrRoot.size() != 2 || !PosixPath(a_wstrRoot.c_str(), strDrive) || !realpath(strDrive.c_str(), szDrive))
        return false;
    const size_t sizetDrive = strlen(szDrive);
    if (!a_strReal.starts_with(szDrive) || (a_strReal.size() > sizetDrive && a_strReal[sizetDrive] != '/'))
        return false;
    a_strReal.erase(0, sizetDrive);
    return true;
}

// Puts the real path in the place of one that ends in a link. It has the same root if it lies in the same drive.
static void FollowLink(std::u16string& a_wstrFull, size_t& a_sizetRoot)
{
    std::string strReal;
    char16_t wszReal[PLAT_PATHMAX];
    const uint32_t u32Error = PlatGetLastError();
    if (ReadLink(a_wstrFull, strReal))
    {
        a_wstrFull.resize(a_sizetRoot);
        if (!TakeDrive(a_wstrFull, strReal))
            a_wstrFull.clear();
        a_sizetRoot = a_wstrFull.size();
        std::replace(strReal.begin(), strReal.end(), '/', '\\');
        if (PosixToWide(strReal.c_str(), wszReal, PLAT_PATHMAX))
            a_wstrFull += wszReal;
    }
    PlatSetLastError(u32Error);
}

// Appends the components. "." is left out; ".." goes up from where the path leads so far, but never beyond the first
// a_sizetRoot units.
static void AppendComponents(std::u16string_view a_wsvName, size_t& a_sizetRoot, std::u16string& a_wstrFull)
{
    while (!a_wsvName.empty())
    {
        const std::u16string_view wsvComponent = TakeComponent(a_wsvName);
        if (wsvComponent == u"..")
        {
            FollowLink(a_wstrFull, a_sizetRoot);
            a_wstrFull.resize(std::max(a_sizetRoot, std::min(a_wstrFull.rfind(u'\\'), a_wstrFull.size())));
        }
        else if (!wsvComponent.empty() && wsvComponent != u".")
        {
            a_wstrFull.append(u"\\").append(wsvComponent);
        }
    }
}

static bool CurrentFolder(std::u16string& a_wstrFolder)
{
    char szFolder[PATH_MAX];
    char16_t wszFolder[PLAT_PATHMAX];
    if (!getcwd(szFolder, sizeof szFolder))
        return PosixFailErrno();
    if (!PosixToWide(szFolder, wszFolder, PLAT_PATHMAX))
        return false;
    std::u16string_view wsvFolder = wszFolder;
    while (!wsvFolder.empty())
    {
        if (const std::u16string_view wsvComponent = TakeComponent(wsvFolder); !wsvComponent.empty())
            a_wstrFolder.append(u"\\").append(wsvComponent);
    }
    return true;
}

bool PlatFileFullName(const char16_t* a_wszName, char16_t* a_wszFull, size_t a_sizetFull)
try
{
    if (!a_wszName || !*a_wszName)
        return PosixFail(PLAT_ERROR_INVALIDNAME);
    bool blNetwork = false;
    std::u16string wstrName(WithoutPrefix(a_wszName, blNetwork));
    if (blNetwork)
        wstrName.insert(0, 1, u'\\');
    if (wstrName.empty())
        return PosixFail(PLAT_ERROR_INVALIDNAME);

    std::u16string_view wsvName;
    std::u16string wstrFull = TakeRoot(wstrName, wsvName);
    size_t sizetRoot = wstrFull.size();
    if (!sizetRoot && !IsSeparator(wstrName[0]) && !CurrentFolder(wstrFull))
        return false;
    AppendComponents(wsvName, sizetRoot, wstrFull);
    const bool blFolder = IsSeparator(wstrName.back());
    if (blFolder || wstrFull.empty() || (sizetRoot == 2 && wstrFull.size() == 2))
        wstrFull += u'\\';

    if (wstrFull.size() >= a_sizetFull)
        return PosixFail(PLAT_ERROR_INSUFFICIENTBUFFER);
    memcpy(a_wszFull, wstrFull.c_str(), (wstrFull.size() + 1) * sizeof(char16_t));
    return true;
}
catch (const std::bad_alloc&)
{
    return PosixFail(PLAT_ERROR_NOMEMORY);
}
