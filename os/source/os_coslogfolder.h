// os_coslogfolder.h: log folders ("log." begins their names) and the lock file that says that one is in use.
//
// "log.lock" is held shared, which is an ordinary open with everything but deletion shared, by each process that logs
// in or below the folder, and by a collector as long as a stream of it goes there. Who deletes the folder opens it
// without sharing and holds it until the folder has gone. Whoever lets go last removes it; a killed process leaves it
// behind, free.
#pragma once

#include "os_cosfile.h"

class OsFileTree;

inline constexpr char OS_LOGFOLDERPREFIX[] = "log.";
inline constexpr char OS_LOGFOLDERLOCK[] = "log.lock";

// The nearest log folder that a path is, or lies in or below, of an absolute or relative path with either separator:
// OS_PATHSIZE bytes, its separators "\\", no trailing one. False, and "", for a path in none. The letters of the prefix
// are compared exactly.
bool OsLogFolderOf(const char* a_szPath, char* a_szFolder);

// The shared hold of one log folder. Used by one thread at a time.
class COsLogFolderLock
{
public:
    COsLogFolderLock() = default;
    ~COsLogFolderLock() { Release(); }
    COsLogFolderLock(const COsLogFolderLock&) = delete;
    COsLogFolderLock& operator=(const COsLogFolderLock&) = delete;

    // Takes the lock of a log folder, which must exist; while it holds one already, lets go of that first unless it is
    // the same. Waits for nobody. EOSSTS_SUCCESS; EOSSTS_SHARING when somebody is deleting the folder; otherwise what
    // the open says. Failures are logged.
    EOSSTS Acquire(const char* a_szFolder);

    // Lets go; who is the last one removes the lock file. The folder may have gone.
    void Release();

    bool IsHeld() const { return m_szFolder[0] != 0; }
    const char* Folder() const { return m_szFolder; }   // "" when it holds none

    // True while somebody else, in whichever process, holds the folder that this object may hold itself.
    static bool IsHeldByOthers(const char* a_szFolder);

private:
    COsFile m_osfile;
    char m_szFolder[OS_PATHSIZE] = {};
};

// Deletes the log folder that the walk has just read, unless somebody holds it, with all its content, the lock file
// last. Nobody can begin to log there meanwhile. False, and logged, when it stays.
bool OsLogFolderDelete(OsFileTree& a_osfiletree);
