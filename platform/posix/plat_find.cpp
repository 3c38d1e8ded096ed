// plat_find.cpp: what is known of a path, and searches.
#include "plat_posix_file.h"

#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <new>
#include <string_view>

// --------------------------------------------------------------------------------------------------- information

static void FillInfo(const struct statx& a_statx, PlatFileInfo& a_platfileinfo)
{
    const mode_t mode = a_statx.stx_mode;
    a_platfileinfo.blLink = S_ISLNK(mode);
    a_platfileinfo.platentry = S_ISDIR(mode)                    ? PLAT_ENTRY_FOLDER
                               : S_ISREG(mode) || S_ISLNK(mode) ? PLAT_ENTRY_FILE
                                                                : PLAT_ENTRY_SYSTEM;
    a_platfileinfo.u64Size = S_ISDIR(mode) ? 0 : a_statx.stx_size;
    a_platfileinfo.blReadOnly = PosixIsReadOnly(mode);
    a_platfileinfo.u64WriteTime = PosixFileTime(a_statx.stx_mtime.tv_sec, a_statx.stx_mtime.tv_nsec);
    a_platfileinfo.u64CreateTime = a_statx.stx_mask & STATX_BTIME
                                       ? PosixFileTime(a_statx.stx_btime.tv_sec, a_statx.stx_btime.tv_nsec)
                                       : a_platfileinfo.u64WriteTime;
}

// Everything but the name. False leaves errno.
static bool Describe(int a_iFolder, const char* a_szName, PlatFileInfo& a_platfileinfo)
{
    struct statx statxEntry;
    if (statx(a_iFolder, a_szName, AT_SYMLINK_NOFOLLOW, STATX_BASIC_STATS | STATX_BTIME, &statxEntry) != 0)
        return false;
    FillInfo(statxEntry, a_platfileinfo);
    return true;
}

// The last component, separators behind it left out.
static std::u16string_view LastComponent(const char16_t* a_wszPath)
{
    std::u16string_view wsv(a_wszPath ? a_wszPath : u"");
    while (!wsv.empty() && (wsv.back() == u'/' || wsv.back() == u'\\'))
        wsv.remove_suffix(1);
    const size_t sizetSlash = wsv.find_last_of(u"/\\");
    return sizetSlash == std::u16string_view::npos ? wsv : wsv.substr(sizetSlash + 1);
}

bool PlatFileGetInfo(const char16_t* a_wszPath, PlatFileInfo* a_pplatfileinfo)
try
{
    std::string strPath;
    if (!PosixPath(a_wszPath, strPath))
        return false;
    PosixTrimPath(strPath);
    const std::u16string_view wsvName = LastComponent(a_wszPath);
    if (wsvName.size() >= PLAT_PATHMAX)
        return PosixFail(PLAT_ERROR_INVALIDNAME);
    if (!Describe(AT_FDCWD, strPath.c_str(), *a_pplatfileinfo))
        return PosixFailPath(strPath);
    a_pplatfileinfo->wszName[wsvName.copy(a_pplatfileinfo->wszName, PLAT_PATHMAX - 1)] = 0;
    return true;
}
catch (const std::bad_alloc&)
{
    return PosixFail(PLAT_ERROR_NOMEMORY);
}

// ------------------------------------------------------------------------------------------------------ searches

struct Find
{
    std::unique_ptr<DIR, int (*)(DIR*)> pdir{nullptr, closedir};   // null: a single name, already reported
    std::u16string wstrPattern;
};

// "*" stands for any text, "?" for any character; "*.*" for every name, with or without a dot.
static bool Matches(std::u16string_view a_wsvPattern, std::u16string_view a_wsvName)
{
    if (a_wsvPattern == u"*.*")
        return true;
    size_t sizetPattern = 0;
    size_t sizetName = 0;
    size_t sizetStar = std::u16string_view::npos;   // the last star, and how far its text reaches so far
    size_t sizetReach = 0;
    while (sizetName < a_wsvName.size())
    {
        const bool blMore = sizetPattern < a_wsvPattern.size();
        if (blMore && a_wsvPattern[sizetPattern] == u'*')
        {
            sizetStar = sizetPattern++;
            sizetReach = sizetName;
        }
        else if (blMore && (a_wsvPattern[sizetPattern] == u'?' || a_wsvPattern[sizetPattern] == a_wsvName[sizetName]))
        {
            ++sizetPattern;
            ++sizetName;
        }
        else if (sizetStar != std::u16string_view::npos)
        {
            sizetPattern = sizetStar + 1;
            sizetName = ++sizetReach;
        }
        else
        {
            return false;
        }
    }
    return a_wsvPattern.find_first_not_of(u'*', sizetPattern) == std::u16string_view::npos;
}

// The next entry that matches. Names that are no text, and entries that have gone since, are passed over.
static bool Next(Find& a_find, PlatFileInfo& a_platfileinfo)
{
    while (a_find.pdir)
    {
        errno = 0;
        const struct dirent* pdirent = readdir(a_find.pdir.get());
        if (!pdirent && errno != 0)
            return PosixFailErrno();
        if (!pdirent)
            break;
        const uint32_t u32Error = PlatGetLastError();
        if (PosixToWide(pdirent->d_name, a_platfileinfo.wszName, PLAT_PATHMAX) &&
            Matches(a_find.wstrPattern, a_platfileinfo.wszName) &&
            Describe(dirfd(a_find.pdir.get()), pdirent->d_name, a_platfileinfo))
        {
            return true;
        }
        PlatSetLastError(u32Error);
    }
    return PosixFail(PLAT_ERROR_NOMOREFILES);
}

// Opens the folder of a pattern.
static bool OpenFolder(const char16_t* a_wszPattern, std::u16string_view a_wsvName, Find& a_find)
{
    std::u16string wstrFolder(a_wszPattern, static_cast<size_t>(a_wsvName.data() - a_wszPattern));
    std::string strFolder;
    if (!PosixPath(wstrFolder.empty() ? u"." : wstrFolder.c_str(), strFolder))
        return false;
    a_find.pdir.reset(opendir(strFolder.c_str()));
    if (!a_find.pdir)
        return errno == ENOENT ? PosixFail(PLAT_ERROR_PATHNOTFOUND) : PosixFailErrno();
    a_find.wstrPattern = a_wsvName;
    return true;
}

PlatHandle PlatFindFirst(const char16_t* a_wszPattern, PlatFileInfo* a_pplatfileinfo)
try
{
    auto pfind = std::make_unique<Find>();
    const std::u16string_view wsvName = LastComponent(a_wszPattern);
    if (wsvName.find_first_of(u"*?") == std::u16string_view::npos)
    {
        if (!PlatFileGetInfo(a_wszPattern, a_pplatfileinfo))
            return PLAT_INVALID;
        return PosixMakeHandle(PosixKind::Find, pfind.release());
    }
    if (!OpenFolder(a_wszPattern, wsvName, *pfind))
        return PLAT_INVALID;
    if (!Next(*pfind, *a_pplatfileinfo))
    {
        if (PlatGetLastError() == PLAT_ERROR_NOMOREFILES)
            PosixFail(PLAT_ERROR_FILENOTFOUND);
        return PLAT_INVALID;
    }
    return PosixMakeHandle(PosixKind::Find, pfind.release());
}
catch (const std::bad_alloc&)
{
    PosixFail(PLAT_ERROR_NOMEMORY);
    return PLAT_INVALID;
}

bool PlatFindNext(PlatHandle a_plathandle, PlatFileInfo* a_pplatfileinfo)
{
    if (PosixKindOf(a_plathandle) != PosixKind::Find)
        return PosixFail(PLAT_ERROR_INVALIDHANDLE);
    return Next(*PosixObjectOf<Find>(a_plathandle), *a_pplatfileinfo);
}

bool PosixCloseFind(PlatHandle a_plathandle)
{
    delete PosixObjectOf<Find>(a_plathandle);
    return true;
}
