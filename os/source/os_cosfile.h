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
    OS_FILEOPEN_ALWAYSOWN = 6,   // as OS_FILEOPEN_ALWAYS; a created file is not writeable for other users
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

// Checks for a path from an untrusted source; each includes those before it. All but OS_FILEGUARD_NONE open or create
// only plain files, or folders with OS_FILEOPEN_DIRECTORY.
enum EOSFILEGUARD : uint32_t
{
    OS_FILEGUARD_NONE = 0,
    OS_FILEGUARD_NOLINK = 1,      // the last component is no link
    OS_FILEGUARD_NOLINKS = 2,     // no component is a link, and the file has no other hard link
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

// Does not throw: without memory an operation fails as if the system had refused. os_cosfile_system.h says how paths
// are resolved. Used by one thread at a time, except Flush: thread-safe while the file is open.
class COsFile
{
public:
    COsFile();
    ~COsFile();   // closes
    COsFile(const COsFile&) = delete;
    COsFile& operator=(const COsFile&) = delete;

    // Opens a file, closing an open one first. EOSSTS_NOTOPEN for a bad argument; EOSSTS_NOTFOUND, EOSSTS_ACCESSDENIED,
    // EOSSTS_SHARING, EOSSTS_CANNOTCREATE or EOSSTS_FAIL for the system's error. a_blRedirectionOff disables the
    // file-system redirection of 32-bit processes during the call. If a_eosfileguard refuses the path:
    // EOSSTS_ACCESSDENIED, for a link EOSSTS_FAIL.
    EOSSTS Open(const char* a_szFilename, EOSFILEOPEN a_eosfileopen, EOSFILEACCESS a_eosfileaccess,
                EOSFILESHARE a_eosfileshare, bool a_blRedirectionOff = false,
                EOSFILEGUARD a_eosfileguard = OS_FILEGUARD_NONE);
    EOSSTS Close();   // success also when it is not open
    EOSSTS Flush();   // to the disk

    // *a_psizetRead (may be null) is 0 at the end of the file. EOSSTS_NOTOPEN when closed or for a null buffer.
    EOSSTS Read(void* a_pvBuffer, size_t a_sizetBytes, size_t* a_psizetRead);

    // Write writes all bytes at the position. Append writes them atomically at the current end of the file and leaves
    // the position undefined. EOSSTS_FAIL when the system refuses; *a_psizetWritten (may be null) is always the number
    // of bytes written.
    EOSSTS Write(const void* a_pvBuffer, size_t a_sizetBytes);
    EOSSTS Append(const void* a_pvBuffer, size_t a_sizetBytes, size_t* a_psizetWritten = nullptr);

    // Formats and writes a text of any length. Returns the characters written, or -1.
    int Printf(const char* a_szFormat, ...) OS_PRINTFLIKE(2, 3);
    int VPrintf(const char* a_szFormat, va_list a_valist);

    // EOSSTS_FAIL when the system refuses; an invalid origin is ignored.
    EOSSTS Seek(EOSFILESEEK a_eosfileseek, int64_t a_i64Offset);
    EOSSTS GetSize(uint64_t* a_pu64Size);
    EOSSTS SetEndOfFile();   // truncates at the position

    // Locks a byte range against all other objects, retrying every 100 ms for a_i32Timeout ms (at least 100).
    // EOSSTS_BUSY when another object holds part of the range, or this object holds part of it as a different range;
    // a_blReport logs that under a_szName. Locking the same range again succeeds. a_blTestOnly releases the lock at
    // once. At most 64 ranges per object; offset and length are 32-bit. Closing the file ends a lock, but the object
    // remembers it until it is unlocked. On systems with advisory locks only (README, "Limits") a lock excludes other
    // locks, not reads and writes.
    EOSSTS Lock(uint32_t a_u32Offset, uint32_t a_u32Length, int32_t a_i32Timeout, const char* a_szName, bool a_blReport,
                bool a_blTestOnly);
    EOSSTS Unlock(uint32_t a_u32Offset, uint32_t a_u32Length);
    EOSSTS LockByte(uint32_t a_u32Offset, int32_t a_i32Timeout, const char* a_szName, bool a_blReport);
    EOSSTS UnlockByte(uint32_t a_u32Offset);

    const char* GetName() const;   // null (logged) when it is not open

    // True while the open file still has a name: another process may have deleted it.
    bool HasName() const;

    // True while the name used for opening still refers to the open file: another process may have deleted, moved or
    // replaced it. False when it is not open.
    bool IsNamed() const;

    // The identity of the open file, the same for all paths to it. False when it is not open.
    bool GetIdentity(OsFileIdentity* a_posfileidentity) const;

    // The owner of the open file or folder. False when it is not open.
    bool GetOwner(PlatFileOwned* a_pplatfileowned) const;

    // Passes ownership of a loaded shared library, which the object releases in its destructor. a_blLoaded: it was
    // loaded by this object; a_blDrain: it is freed until it is really unloaded, at most 10 times.
    void TakeLibrary(OSHANDLE a_plathandle, bool a_blLoaded, bool a_blDrain);

    // Passes ownership of a tracked block, which the object frees in its destructor.
    void TakeBuffer(void* a_pvBuffer);

    // Watches an existing file, whether or not this object has one open, until MonitorStop or destruction; one file at
    // a time. Only the events in a_u32Mask are reported. EOSSTS_SUCCESS, also when it already watches the path;
    // EOSSTS_NOTFOUND when there is no such file; EOSSTS_EXITED when the callback stopped it in the initial call;
    // EOSSTS_FAIL, also when it watches another path. No change after the return is missed; several changes within some
    // milliseconds may be reported as one. A file that is being written is reported when the writer closes it, or after
    // 3 s. File and folder may be missing temporarily. If the system provides no notifications (logged), the file is
    // polled once a second.
    EOSSTS MonitorStart(const char* a_szPath, const char* a_szName, uint32_t a_u32Mask,
                        OsFileMonitorProc a_osfilemonitorproc, void* a_pvContext);

    // Returns when no callback is running any more. Called in the callback, it returns at once, and no further call is
    // made.
    void MonitorStop();

    const OsFileMonitorState& MonitorState() const;   // for the callback; empty when no file is watched

    bool IsUsable() const { return m_posfileimpl != nullptr; }

private:
    COsFileImpl* m_posfileimpl;   // null only when its allocation failed
};

// Moves a file to a name that does not exist. EOSSTS_NOTOPEN for a null name, EOSSTS_FAIL (logged) when it cannot be
// moved.
EOSSTS OsFileMove(const char* a_szOldName, const char* a_szNewName);

// Reads a whole file, under a lock of its first byte when a_i32LockTimeout is 0 or more (ms). With sizetBuffer the
// bytes go into szBuffer, as many as fit; with 0, *pszAllocated receives a tracked block of size + 1 bytes,
// zero-terminated, that the caller frees. EOSSTS_NOTFOUND when there is no file, EOSSTS_BUSY when it is locked,
// EOSSTS_ACCESSDENIED (logged) when it is not trusted, EOSSTS_FAIL otherwise. blQuiet logs failures as notes.
struct OsFileReadArgs
{
    const char* szFilename = nullptr;
    char* szBuffer = nullptr;   // the caller's buffer, with sizetBuffer
    size_t sizetBuffer = 0;
    char** pszAllocated = nullptr;   // or receives the allocated text
    size_t* psizetRead = nullptr;
    bool blQuiet = false;
    int32_t i32LockTimeout = -1;
    bool blRedirectionOff = false;
    bool blTrusted = false;   // no links; only a file of this user or the system that no other user may write
};
EOSSTS OsFileReadFile(const OsFileReadArgs& a_osfilereadargs);

// Writes a whole text, replacing the file or appending to it.
EOSSTS OsLogWriteFile(const char* a_szFilename, const char* a_szText, bool a_blQuiet, bool a_blFlush, bool a_blAppend);

// Converts a system error of the file layer (plat_types.h) to a status.
EOSSTS OsFileStatus(uint32_t a_u32Error);
