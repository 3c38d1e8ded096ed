// os_coslogfolder.h: log folders ("log." begins their names) and the lock file that says that one is in use.
//
// "log.lock" is held shared, which is an ordinary open with everything but deletion shared, by each process that logs
// in or below the folder, and by a collector as long as a stream of it goes there. Who deletes the folder opens it
// without sharing and holds it until all else in the folder has gone. Whoever lets go last removes it; a killed
// process leaves it behind, free.
#pragma once

#include "os_types.h"

#include "plat_types.h"

class OsFileTree;

inline constexpr char OS_LOGFOLDERPREFIX[] = "log.";
inline constexpr char OS_LOGFOLDERLOCK[] = "log.lock";

// The nearest log folder that a path is, or lies in or below, of an absolute or relative path with either separator:
// OS_PATHSIZE bytes, its separators "\\", no trailing one. False, and "", for a path in none. The letters of the prefix
// are compared exactly. A last component that ends in ".log" is a file, however it begins. Looks at nothing but the
// text.
bool OsLogFolderOf(const char* a_szPath, char* a_szFolder);

// The shared hold of one log folder. Used by one thread at a time.
class COsLogFolderLock
{
public:
    COsLogFolderLock() = default;
    ~COsLogFolderLock() { Release(); }
    COsLogFolderLock(const COsLogFolderLock&) = delete;
    COsLogFolderLock& operator=(const COsLogFolderLock&) = delete;

    // Takes the lock of a log folder, which must exist. While it holds one already, lets go of that first, unless it is
    // the same and its lock file is still there. Waits for those who hold it for a moment to look at it or to remove
    // it, some 60 ms at most. EOSSTS_SUCCESS; EOSSTS_SHARING when somebody is deleting the folder, which is worth
    // another try; EOSSTS_NOTFOUND without the folder; otherwise what the open says. One line is logged for a failure.
    EOSSTS Acquire(const char* a_szFolder);

    // Lets go; who is the last one removes the lock file. The folder may have gone: nothing is created, and nothing is
    // logged.
    void Release();

    bool IsHeld() const { return m_plathandle != PLAT_INVALID; }
    const char* Folder() const { return m_szFolder; }   // its full path; "" when it holds none

    // True while somebody holds the folder, be it this process, or deletes it, and for one that cannot be looked at. So
    // whoever wants to know about others asks before it acquires. Nothing is logged.
    static bool IsHeldByOthers(const char* a_szFolder);

private:
    EOSSTS OpenOnce();   // m_szFolder's lock file

    PlatHandle m_plathandle = PLAT_INVALID;
    char m_szFolder[OS_PATHSIZE] = {};
};

// Deletes the log folder that the walk has just read, unless somebody holds it or a log folder below it: all its
// content, then the lock file, then the folder. Nobody can begin to log there meanwhile. False, and logged, when it
// stays; then the lock file is gone if it was free.
bool OsLogFolderDelete(OsFileTree& a_osfiletree);
