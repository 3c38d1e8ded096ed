// os_cosfile_whole.cpp: reads, writes or moves a whole file in one call.
#include "os_cosfile.h"

#include "os_cosfile_system.h"
#include "os_cosmem.h"
#include "os_cospath.h"
#include "os_log.h"

#include "plat_file.h"
#include "plat_user.h"

#include <algorithm>
#include <cstring>

static constexpr char g_szSource[] = "os/source/os_cosfile";

namespace
{
// a_blQuiet logs failures as notes: the caller expects them.
constexpr uint32_t LevelOf(bool a_blQuiet)
{
    return a_blQuiet ? OS_LOG_NOTE : OS_LOG_ERROR;
}

void ClearOutput(const OsFileReadArgs& a_osfilereadargs)
{
    if (a_osfilereadargs.sizetBuffer > 0)
    {
        memset(a_osfilereadargs.szBuffer, 0, a_osfilereadargs.sizetBuffer);
    }
    else
    {
        *a_osfilereadargs.pszAllocated = nullptr;
    }
    if (a_osfilereadargs.psizetRead)
        *a_osfilereadargs.psizetRead = 0;
}

// The buffer to read into, or null. An allocated block is one byte longer than the file and zero-filled, so that it is
// terminated even if the file changes meanwhile.
char* BufferFor(const OsFileReadArgs& a_osfilereadargs, uint64_t a_u64Size, size_t* a_psizetRoom)
{
    if (a_osfilereadargs.sizetBuffer > 0)
    {
        *a_psizetRoom = static_cast<size_t>(std::min<uint64_t>(a_u64Size, a_osfilereadargs.sizetBuffer));
        return a_osfilereadargs.szBuffer;
    }
    *a_psizetRoom = static_cast<size_t>(a_u64Size);
    char* const szAllocated = static_cast<char*>(OSMEMALLOC(*a_psizetRoom + 1, OS_MEMFLAG_BLOCK));
    if (!szAllocated)
        OSLOG(OS_LOG_ERROR, "OsMemAlloc failed...");
    return szAllocated;
}

// Reads until the buffer is full or the file ends.
bool ReadAll(COsFile& a_osfile, char* a_szBuffer, size_t a_sizetRoom, size_t* a_psizetRead)
{
    size_t sizetTotal = 0;
    while (sizetTotal < a_sizetRoom)
    {
        size_t sizetRead = 0;
        if (a_osfile.Read(a_szBuffer + sizetTotal, a_sizetRoom - sizetTotal, &sizetRead) != EOSSTS_SUCCESS)
            return false;
        if (sizetRead == 0)
            break;
        sizetTotal += sizetRead;
    }
    *a_psizetRead = sizetTotal;
    return true;
}

EOSSTS ReadOpenFile(COsFile& a_osfile, const OsFileReadArgs& a_osfilereadargs)
{
    uint64_t u64Size = 0;
    if (a_osfile.GetSize(&u64Size) != EOSSTS_SUCCESS)
    {
        OSLOG(LevelOf(a_osfilereadargs.blQuiet), "Size failed...<%s>", a_osfilereadargs.szFilename);
        return EOSSTS_FAIL;
    }

    size_t sizetRoom = 0;
    char* const szBuffer = BufferFor(a_osfilereadargs, u64Size, &sizetRoom);
    if (!szBuffer)
        return EOSSTS_FAIL;

    size_t sizetRead = 0;
    if (!ReadAll(a_osfile, szBuffer, sizetRoom, &sizetRead))
    {
        OSLOG(LevelOf(a_osfilereadargs.blQuiet), "Read failed...<%s>", a_osfilereadargs.szFilename);
        if (a_osfilereadargs.sizetBuffer == 0)
            OSMEMFREE(szBuffer, OS_MEMFLAG_BLOCK);
        return EOSSTS_FAIL;
    }
    if (a_osfilereadargs.sizetBuffer == 0)
        *a_osfilereadargs.pszAllocated = szBuffer;
    if (a_osfilereadargs.psizetRead)
        *a_osfilereadargs.psizetRead = sizetRead;
    return EOSSTS_SUCCESS;
}

// True if only this process's user or the system may write the file.
bool IsTrusted(const COsFile& a_osfile)
{
    PlatFileOwned platfileowned{};
    return a_osfile.GetOwner(&platfileowned) && !platfileowned.blOthersWrite &&
           (platfileowned.platowner == PLAT_OWNER_SAME || platfileowned.platowner == PLAT_OWNER_SYSTEM);
}

EOSSTS OpenAndRead(const OsFileReadArgs& a_osfilereadargs)
{
    COsFile osfile;
    const EOSFILEGUARD eosfileguard = a_osfilereadargs.blTrusted ? OS_FILEGUARD_NOLINK : OS_FILEGUARD_NONE;
    if (osfile.Open(a_osfilereadargs.szFilename, OS_FILEOPEN_EXISTING, OS_FILEACCESS_READ, OS_FILESHARE_READWRITE,
                    a_osfilereadargs.blRedirectionOff, eosfileguard) != EOSSTS_SUCCESS)
    {
        OSLOG(LevelOf(a_osfilereadargs.blQuiet), "Open failed...<%s>", a_osfilereadargs.szFilename);
        return EOSSTS_FAIL;
    }
    if (a_osfilereadargs.blTrusted && !IsTrusted(osfile))
    {
        OSLOG(OS_LOG_ERROR, "others may write it, it is ignored...<%s>", a_osfilereadargs.szFilename);
        return EOSSTS_ACCESSDENIED;
    }

    const bool blLock = a_osfilereadargs.i32LockTimeout >= 0;
    if (blLock)
    {
        const EOSSTS eossts = osfile.LockByte(0, a_osfilereadargs.i32LockTimeout, a_osfilereadargs.szFilename, true);
        if (eossts != EOSSTS_SUCCESS)
        {
            OSLOG(OS_LOG_ERROR, "Lock failed...<%s> %d", a_osfilereadargs.szFilename, static_cast<int>(eossts));
            return eossts;
        }
    }
    const EOSSTS eossts = ReadOpenFile(osfile, a_osfilereadargs);
    if (blLock)
        osfile.UnlockByte(0);
    return eossts;
}

// Appends, or replaces the content.
bool WriteText(COsFile& a_osfile, const char* a_szText, bool a_blAppend)
{
    const size_t sizetText = strlen(a_szText);
    if (!a_blAppend && a_osfile.SetEndOfFile() != EOSSTS_SUCCESS)
        return false;
    if (sizetText == 0)
        return true;
    return (a_blAppend ? a_osfile.Append(a_szText, sizetText) : a_osfile.Write(a_szText, sizetText)) == EOSSTS_SUCCESS;
}
}   // namespace

EOSSTS OsFileReadFile(const OsFileReadArgs& a_osfilereadargs)
{
    const bool blCallerBuffer = a_osfilereadargs.sizetBuffer > 0;
    const void* const pvOutput = blCallerBuffer ? static_cast<const void*>(a_osfilereadargs.szBuffer)
                                                : static_cast<const void*>(a_osfilereadargs.pszAllocated);
    OSLOG(OS_LOG_NOTE, "OsFileReadFile(%s,%p,%d,%d,%p,%d,%d)",
          a_osfilereadargs.szFilename ? a_osfilereadargs.szFilename : "(null)", pvOutput,
          static_cast<int>(a_osfilereadargs.blQuiet), static_cast<int>(a_osfilereadargs.sizetBuffer),
          static_cast<const void*>(a_osfilereadargs.psizetRead), static_cast<int>(a_osfilereadargs.i32LockTimeout),
          static_cast<int>(a_osfilereadargs.blRedirectionOff));
    if (!a_osfilereadargs.szFilename || !pvOutput)
    {
        OSLOG(OS_LOG_ERROR, "null argument...");
        return EOSSTS_FAIL;
    }

    ClearOutput(a_osfilereadargs);
    if (!OsFileExists(a_osfilereadargs.szFilename, a_osfilereadargs.blRedirectionOff))
        return EOSSTS_NOTFOUND;
    return OpenAndRead(a_osfilereadargs);
}

EOSSTS OsLogWriteFile(const char* a_szFilename, const char* a_szText, bool a_blQuiet, bool a_blFlush, bool a_blAppend)
{
    OSLOG(OS_LOG_NOTE, "OsLogWriteFile(%s)", a_szFilename ? a_szFilename : "(null)");
    if (!a_szFilename || !a_szText)
    {
        OSLOG(OS_LOG_ERROR, "null argument...");
        return EOSSTS_FAIL;
    }

    COsFile osfile;
    if (!osfile.IsUsable())
    {
        OSLOG(OS_LOG_ERROR, "OsMemNew failed...");
        return EOSSTS_FAIL;
    }
    if (osfile.Open(a_szFilename, OS_FILEOPEN_ALWAYS, OS_FILEACCESS_WRITE, OS_FILESHARE_READWRITE) != EOSSTS_SUCCESS)
    {
        OSLOG(LevelOf(a_blQuiet), "Open failed...<%s>", a_szFilename);
        return EOSSTS_FAIL;
    }

    if (!WriteText(osfile, a_szText, a_blAppend))
    {
        OSLOG(LevelOf(a_blQuiet), "Write failed...<%s>", a_szFilename);
        return EOSSTS_FAIL;
    }
    if (a_blFlush)
        osfile.Flush();
    return EOSSTS_SUCCESS;
}

EOSSTS OsFileMove(const char* a_szOldName, const char* a_szNewName)
{
    if (!a_szOldName)
    {
        OSLOG(OS_LOG_ERROR, "a_szFilename is null...");
        return EOSSTS_NOTOPEN;
    }
    if (!a_szNewName)
    {
        OSLOG(OS_LOG_ERROR, "a_szNewFilename is NULL...");
        return EOSSTS_NOTOPEN;
    }

    char16_t wszOld[OS_WIDEPATHSIZE];
    char16_t wszNew[OS_WIDEPATHSIZE];
    if (!OsPathToSystem(wszOld, OS_WIDEPATHSIZE, a_szOldName) || !OsPathToSystem(wszNew, OS_WIDEPATHSIZE, a_szNewName))
        return EOSSTS_FAIL;
    if (PlatFileMove(wszOld, wszNew))
        return EOSSTS_SUCCESS;
    OSLOG(OS_LOG_ERROR, "MoveFileW failed...");
    PlatSetLastError(PLAT_ERROR_NONE);
    return EOSSTS_FAIL;
}
