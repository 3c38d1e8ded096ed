// os_cosfile_system.cpp: whether a path exists, listing the matches of a pattern, and the redirection switch.
//
// os_cosfile_create.cpp creates folders, os_cosfile_delete.cpp removes files and folders, os_cosfile_name.cpp makes
// names from a file's identity.
#include "os_cosfile_system.h"

#include "os_coslocale.h"
#include "os_cospath.h"
#include "os_log.h"

#include "plat_file.h"

#include <cstring>

static constexpr char g_szSource[] = "os/source/os_cosfile";

namespace
{
// Upper-case ranges with simple lower-case letters of the same UTF-8 length.
struct LowerRow
{
    char16_t wchFirst;
    char16_t wchLast;
    char16_t wchDistance;
};
constexpr LowerRow g_alowerrow[] = {
    {u'A', u'Z', 32},                                         // ASCII
    {u'\u00C0', u'\u00D6', 32}, {u'\u00D8', u'\u00DE', 32},   // Latin-1
    {u'\u0391', u'\u03A1', 32}, {u'\u03A3', u'\u03AB', 32},   // Greek
    {u'\u0400', u'\u040F', 80}, {u'\u0410', u'\u042F', 32},   // Cyrillic
};

char16_t Lower(char16_t a_wch)
{
    for (const LowerRow& lowerrow : g_alowerrow)
    {
        if (a_wch >= lowerrow.wchFirst && a_wch <= lowerrow.wchLast)
            return static_cast<char16_t>(a_wch + lowerrow.wchDistance);
    }
    return a_wch;
}

// Changes a_platfileinfo: its name becomes lower case. A name that does not convert is left empty.
void FillInfo(PlatFileInfo& a_platfileinfo, OsFileInfo* a_posfileinfo)
{
    CopyStringToUtf8(a_posfileinfo->szName, sizeof a_posfileinfo->szName, a_platfileinfo.wszName, SIZE_MAX);
    for (char16_t* wsz = a_platfileinfo.wszName; *wsz; ++wsz)
        *wsz = Lower(*wsz);
    CopyStringToUtf8(a_posfileinfo->szLowerName, sizeof a_posfileinfo->szLowerName, a_platfileinfo.wszName, SIZE_MAX);
    a_posfileinfo->u64Size = a_platfileinfo.u64Size;
    a_posfileinfo->eosfiletype = static_cast<EOSFILETYPE>(a_platfileinfo.platentry);
    a_posfileinfo->eosfileaccess = a_platfileinfo.blReadOnly ? OS_FILEACCESS_READ : OS_FILEACCESS_READWRITE;
    a_posfileinfo->ostimerecordCreated = {};
    a_posfileinfo->ostimerecordWritten = {};
    OsTimeFromClock(a_platfileinfo.u64CreateTime, &a_posfileinfo->ostimerecordCreated);
    OsTimeFromClock(a_platfileinfo.u64WriteTime, &a_posfileinfo->ostimerecordWritten);
    a_posfileinfo->blLink = a_platfileinfo.blLink;
}

static_assert(static_cast<uint32_t>(PLAT_ENTRY_FOLDER) == OS_FILETYPE_FOLDER &&
              static_cast<uint32_t>(PLAT_ENTRY_FILE) == OS_FILETYPE_FILE &&
              static_cast<uint32_t>(PLAT_ENTRY_SYSTEM) == OS_FILETYPE_SYSTEM);

bool CheckFindArguments(const char* a_szFilename, const OsFileInfo* a_posfileinfo)
{
    if (!a_szFilename || !a_posfileinfo)
        OSLOG(OS_LOG_ERROR, "%s", a_szFilename ? "a_posfileinfo is NULL..." : "a_szFilename is null...");
    return a_szFilename && a_posfileinfo;
}

// Converts a path without its trailing separators: with one, the path of a link would mean its target.
bool EntryPath(const char* a_szPath, char16_t* a_wszPath)
{
    char szPath[OS_PATHSIZE];
    OsPathCopy(szPath, sizeof szPath, a_szPath);
    OsPathRemoveTrailing(szPath);
    return szPath[0] && OsPathToSystem(a_wszPath, OS_WIDEPATHSIZE, szPath);
}
}   // namespace

bool OsFileExists(const char* a_szPath, bool a_blRedirectionOff)
{
    if (!a_szPath || !a_szPath[0])
        return false;
    if (strpbrk(a_szPath, "*?"))
    {
        OsFileInfo osfileinfo;
        const uint32_t u32Flags = a_blRedirectionOff ? OS_FINDFLAG_REDIRECTIONOFF : 0;
        const bool blFound = OsFileFindFirst(a_szPath, &osfileinfo, u32Flags) == EOSSTS_SUCCESS;
        if (blFound)
            OsFileFindClose(&osfileinfo);
        return blFound;
    }

    char16_t wszPath[OS_WIDEPATHSIZE];
    if (!EntryPath(a_szPath, wszPath))
        return false;
    const OsRedirectionGuard osredirectionguard(a_blRedirectionOff);
    PlatFileInfo platfileinfo;
    return PlatFileGetInfo(wszPath, &platfileinfo);
}

EOSSTS OsFileFindFirst(const char* a_szPattern, OsFileInfo* a_posfileinfo, uint32_t a_u32Flags)
{
    if (!CheckFindArguments(a_szPattern, a_posfileinfo))
        return EOSSTS_NOTOPEN;
    a_posfileinfo->plathandleSearch = PLAT_INVALID;
    char16_t wszPattern[OS_WIDEPATHSIZE];
    if (!OsPathToSystem(wszPattern, OS_WIDEPATHSIZE, a_szPattern))
        return EOSSTS_FAIL;

    const OsRedirectionGuard osredirectionguard((a_u32Flags & OS_FINDFLAG_REDIRECTIONOFF) != 0);
    PlatFileInfo platfileinfo;
    const PlatHandle plathandle = PlatFindFirst(wszPattern, &platfileinfo);
    if (plathandle == PLAT_INVALID)
        return OsFileStatus(PlatGetLastError());
    FillInfo(platfileinfo, a_posfileinfo);
    a_posfileinfo->plathandleSearch = plathandle;
    return EOSSTS_SUCCESS;
}

EOSSTS OsFileFindNext(OsFileInfo* a_posfileinfo)
{
    if (!CheckFindArguments("", a_posfileinfo))
        return EOSSTS_NOTOPEN;
    PlatFileInfo platfileinfo;
    if (!PlatFindNext(a_posfileinfo->plathandleSearch, &platfileinfo))
        return PlatGetLastError() == PLAT_ERROR_NOMOREFILES ? EOSSTS_NOTFOUND : EOSSTS_FAIL;
    FillInfo(platfileinfo, a_posfileinfo);
    return EOSSTS_SUCCESS;
}

void OsFileFindClose(OsFileInfo* a_posfileinfo)
{
    if (!a_posfileinfo || a_posfileinfo->plathandleSearch == PLAT_INVALID)
        return;
    PlatClose(a_posfileinfo->plathandleSearch);
    a_posfileinfo->plathandleSearch = PLAT_INVALID;
}

EOSSTS OsFileGetInfo(const char* a_szPath, OsFileInfo* a_posfileinfo)
{
    if (!CheckFindArguments(a_szPath, a_posfileinfo))
        return EOSSTS_NOTOPEN;
    a_posfileinfo->plathandleSearch = PLAT_INVALID;
    if (!a_szPath[0])
        return EOSSTS_NOTFOUND;

    char16_t wszPath[OS_WIDEPATHSIZE];
    if (!EntryPath(a_szPath, wszPath))
        return EOSSTS_FAIL;
    PlatFileInfo platfileinfo;
    if (PlatFileGetInfo(wszPath, &platfileinfo))
    {
        FillInfo(platfileinfo, a_posfileinfo);
        return EOSSTS_SUCCESS;
    }
    const EOSSTS eossts = OsFileStatus(PlatGetLastError());
    if (eossts != EOSSTS_NOTFOUND)
        OSLOG(OS_LOG_ERROR, "OsFileFindFirst failed...%d", static_cast<int>(eossts));
    return eossts;
}

// The library runs in 64-bit processes only.
static_assert(sizeof(void*) == 8);

EOSSTS OsFileRedirection(bool)
{
    return EOSSTS_SUCCESS;
}
