// os_coslogfolder.h: log folders (names that begin with "log.") and the lock file that marks one as in use.
//
// Each process that logs in or below the folder holds "log.lock" shared (open with everything but deletion shared), and
// so does a collector while a stream writes there. To delete the folder, a process opens the file exclusively and holds
// it until everything else in the folder is gone. The last holder removes it; a killed process leaves it behind
// unlocked.
#pragma once

#include "os_types.h"

#include "plat_types.h"

class OsFileTree;

inline constexpr char OS_LOGFOLDERPREFIX[] = "log.";
inline constexpr char OS_LOGFOLDERLOCK[] = "log.lock";

// The nearest log folder that a path names or lies in; absolute or relative, either separator. Result: OS_PATHSIZE
// bytes, separators "\\", none at the end. False, and "", for a path in none. The prefix is case-sensitive. A last
// component that ends in ".log" is a file, whatever its prefix. Uses only the text, not the file system.
bool OsLogFolderOf(const char* a_szPath, char* a_szFolder);

// The shared hold of one log folder. Used by one thread at a time.
class COsLogFolderLock
{
public:
    COsLogFolderLock() = default;
    ~COsLogFolderLock() { Release(); }
    COsLogFolderLock(const COsLogFolderLock&) = delete;
    COsLogFolderLock& operator=(const COsLogFolderLock&) = delete;

    // Takes the lock of an existing log folder. A hold of another folder, or of a lock file that is gone, is released
    // first. Retries for up to some 60 ms while others briefly open the file to check or remove it. EOSSTS_SUCCESS;
    // EOSSTS_SHARING when the folder is being deleted, worth a retry; EOSSTS_NOTFOUND without the folder; otherwise the
    // status of the open. One line is logged for a failure.
    EOSSTS Acquire(const char* a_szFolder);

    // Releases the hold; the last holder removes the lock file. The folder may be gone: nothing is created or logged.
    void Release();

    bool IsHeld() const { return m_plathandle != PLAT_INVALID; }
    const char* Folder() const { return m_szFolder; }   // full path; "" without a hold

    // True while any process, including this one, holds or deletes the folder, and when that cannot be checked. To
    // learn about others, call it before Acquire. Nothing is logged.
    static bool IsHeldByOthers(const char* a_szFolder);

private:
    EOSSTS OpenOnce();   // the lock file of m_szFolder

    PlatHandle m_plathandle = PLAT_INVALID;
    char m_szFolder[OS_PATHSIZE] = {};
};

// Deletes the log folder that the walk has just read, unless it or a log folder below it is held: first its content,
// then the lock file, then the folder. No process can start logging there meanwhile. False, and logged, when the folder
// remains; the lock file is then gone if it was free.
bool OsLogFolderDelete(OsFileTree& a_osfiletree);
