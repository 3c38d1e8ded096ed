// os_cosfile.h: one open file, and reading or writing a whole file in one call.
#pragma once

#include "os_cosfile_monitor.h"
#include "os_types.h"

#include <compare>
#include <cstdarg>

enum EOSFILEOPEN : uint32_t
{
    OS_FILEOPEN_CREATEALWAYS = 1,   // create or truncate
    OS_FILEOPEN_EXISTING = 2,
    OS_FILEOPEN_ALWAYS = 3,      // open, create when missing
    OS_FILEOPEN_TEMPORARY = 4,   // create, delete when closed
    OS_FILEOPEN_DIRECTORY = 5,   // an existing folder
    OS_FILEOPEN_ALWAYSOWN = 6,   // as OS_FILEOPEN_ALWAYS; what is created, no other user may write
};

enum EOSFILEACCESS : uint32_t
{
    OS_FILEACCESS_READ = 1,
    OS_FILEACCESS_WRITE = 2,
    OS_FILEACCESS_READWRITE = 3,
    OS_FILEACCESS_NONE = 4,   // attributes only
};

enum EOSFILESHARE : uint32_t
{
    OS_FILESHARE_EXCLUSIVE = 1,
    OS_FILESHARE_READ = 2,
    OS_FILESHARE_WRITE = 3,
    OS_FILESHARE_READWRITE = 4,
};

// What must hold for a path that somebody else has named; each includes those before it. Anything but OS_FILEGUARD_NONE
// opens or makes only a plain file, or a folder with OS_FILEOPEN_DIRECTORY.
enum EOSFILEGUARD : uint32_t
{
    OS_FILEGUARD_NONE = 0,
    OS_FILEGUARD_NOLINK = 1,      // the last component is no link
    OS_FILEGUARD_NOLINKS = 2,     // no component is a link, and the file has no other name
    OS_FILEGUARD_OWNFOLDER = 3,   // it is in a folder of this process's user that no other user may write
};

enum EOSFILESEEK : uint32_t
{
    OS_FILESEEK_START = 1,
    OS_FILESEEK_CURRENT = 2,
    OS_FILESEEK_END = 3,
};

struct OsFileIdentity
{
    uint64_t u64Volume;
    uint64_t u64Index;

    auto operator<=>(const OsFileIdentity&) const = default;
};

class COsFileImpl;
struct PlatFileOwned;   // plat_user.h

// No operation throws: without memory it fails as when the system refuses. What a path means: os_cosfile_system.h.
// Used by one thread at a time. While it is open, Flush may be called from any thread.
class COsFile
{
public:
    COsFile();
    ~COsFile();   // closes
    COsFile(const COsFile&) = delete;
    COsFile& operator=(const COsFile&) = delete;

    // Opens a file. EOSSTS_NOTOPEN for a bad argument; EOSSTS_NOTFOUND, EOSSTS_ACCESSDENIED, EOSSTS_SHARING,
    // EOSSTS_CANNOTCREATE or EOSSTS_FAIL as the system says. a_blRedirectionOff switches the file-system redirection
    // of 32-bit processes off around the call. A file that is open is closed first. What a_eosfileguard does not
    // admit is EOSSTS_ACCESSDENIED, a link EOSSTS_FAIL.
    EOSSTS Open(const char* a_szFilename, EOSFILEOPEN a_eosfileopen, EOSFILEACCESS a_eosfileaccess,
                EOSFILESHARE a_eosfileshare, bool a_blRedirectionOff = false,
                EOSFILEGUARD a_eosfileguard = OS_FILEGUARD_NONE);
    EOSSTS Close();   // success also when it is not open
    EOSSTS Flush();   // to the disk

    // *a_psizetRead (may be null) is 0 at the end of the file. EOSSTS_NOTOPEN when closed or for a null buffer.
    EOSSTS Read(void* a_pvBuffer, size_t a_sizetBytes, size_t* a_psizetRead);

    // Writes all bytes at the position; Append writes them at what is the end of the file at that moment, in one
    // piece, and leaves the position undefined. EOSSTS_FAIL when the system refuses; *a_psizetWritten (may be null)
    // tells how many bytes were written, also then.
    EOSSTS Write(const void* a_pvBuffer, size_t a_sizetBytes);
    EOSSTS Append(const void* a_pvBuffer, size_t a_sizetBytes, size_t* a_psizetWritten = nullptr);

    // Formats and writes, at any length. Returns the characters written, or -1.
    int Printf(const char* a_szFormat, ...) OS_PRINTFLIKE(2, 3);
    int VPrintf(const char* a_szFormat, va_list a_valist);

    // EOSSTS_FAIL when the system refuses; an origin that is none does nothing.
    EOSSTS Seek(EOSFILESEEK a_eosfileseek, int64_t a_i64Offset);
    EOSSTS GetSize(uint64_t* a_pu64Size);
    EOSSTS SetEndOfFile();   // cuts at the position

    // Locks bytes against every other object, trying every 100 ms until a_i32Timeout ms (at least 100) have gone.
    // EOSSTS_BUSY when others hold a part of it, and when this object holds a part of it as another range; a_blReport
    // logs that under a_szName. Locking a range again succeeds. With a_blTestOnly the lock is given back at once. An
    // object holds at most 64 ranges; offset and length are 32-bit. A lock ends with the open file, but the object
    // remembers it until it is unlocked. Where the system forbids nothing (README, "Limits"), a lock keeps others from
    // locking, not from reading and writing.
    EOSSTS Lock(uint32_t a_u32Offset, uint32_t a_u32Length, int32_t a_i32Timeout, const char* a_szName, bool a_blReport,
                bool a_blTestOnly);
    EOSSTS Unlock(uint32_t a_u32Offset, uint32_t a_u32Length);
    EOSSTS LockByte(uint32_t a_u32Offset, int32_t a_i32Timeout, const char* a_szName, bool a_blReport);
    EOSSTS UnlockByte(uint32_t a_u32Offset);

    const char* GetName() const;   // null, and logged, when it is not open

    // True while the open file still has a name: another party may have deleted it since.
    bool HasName() const;

    // True while the name that it was opened with still names the open file: another party may have deleted, moved or
    // replaced it since. False when it is not open.
    bool IsNamed() const;

    // Which file is open: objects of one file have the same identity, by whatever path. False when it is not open.
    bool GetIdentity(OsFileIdentity* a_posfileidentity) const;

    // Whose the open file or folder is. False when it is not open.
    bool GetOwner(PlatFileOwned* a_pplatfileowned) const;

    // Gives the object a loaded shared library to release at its end: a_blLoaded: this object loaded it; a_blDrain:
    // it is freed until it has really gone, 10 times at most.
    void TakeLibrary(OSHANDLE a_plathandle, bool a_blLoaded, bool a_blDrain);

    // Gives the object a tracked block to free at its end.
    void TakeBuffer(void* a_pvBuffer);

    // Watches an existing file, whether or not this object has one open, until MonitorStop or the object's end; one
    // file at a time. Only the bits of a_u32Mask are reported. EOSSTS_SUCCESS, also when it watches the path already;
    // EOSSTS_NOTFOUND for what is no file; EOSSTS_EXITED when the callback stopped it in the initial call; EOSSTS_FAIL,
    // also when it watches another path. No change from the return on is missed; several that follow each other within
    // some milliseconds may be one. What somebody is writing is reported when he has closed it, or after 3 s. File and
    // folder may be missing for a while. Where the system has no notifications to give, which is logged, the file is
    // looked at once a second.
    EOSSTS MonitorStart(const char* a_szPath, const char* a_szName, uint32_t a_u32Mask,
                        OsFileMonitorProc a_osfilemonitorproc, void* a_pvContext);

    // Returns when no call is made any more. In the callback it returns at once, and that call is the last.
    void MonitorStop();

    const OsFileMonitorState& MonitorState() const;   // for the callback; empty when nothing is watched

    bool IsUsable() const { return m_posfileimpl != nullptr; }

private:
    COsFileImpl* m_posfileimpl;   // null only when its allocation failed
};

// Moves a file to a name that does not exist. EOSSTS_NOTOPEN for a null name, EOSSTS_FAIL (logged) when it stays.
EOSSTS OsFileMove(const char* a_szOldName, const char* a_szNewName);

// Reads a whole file, under a lock of its first byte when a_i32LockTimeout is 0 or more (ms). With a_sizetBuffer the
// bytes go into a_pszBuffer's buffer, as far as it reaches; with 0, *a_pszBuffer receives a tracked block of size + 1
// bytes, zero-terminated, that the caller frees. EOSSTS_NOTFOUND when there is no file, EOSSTS_BUSY when it is
// locked, EOSSTS_ACCESSDENIED, and logged, when it is not to be trusted, EOSSTS_FAIL else. blQuiet logs failures as
// notes.
struct OsFileReadArgs
{
    const char* szFilename = nullptr;
    char* szBuffer = nullptr;   // the caller's buffer, with sizetBuffer
    size_t sizetBuffer = 0;
    char** pszAllocated = nullptr;   // or where the allocated text goes
    size_t* psizetRead = nullptr;
    bool blQuiet = false;
    int32_t i32LockTimeout = -1;
    bool blRedirectionOff = false;
    bool blTrusted = false;   // only a file of our user or the system's that nobody else may write, and no link
};
EOSSTS OsFileReadFile(const OsFileReadArgs& a_osfilereadargs);

// Writes a whole text, replacing the file or appending to it.
EOSSTS OsLogWriteFile(const char* a_szFilename, const char* a_szText, bool a_blQuiet, bool a_blFlush, bool a_blAppend);

// The status that stands for a system error of the file layer (plat_types.h).
EOSSTS OsFileStatus(uint32_t a_u32Error);
