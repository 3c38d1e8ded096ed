// os_coslog_file.h: a log file that this process writes itself, kept open between lines.
//
// Before each line it is checked that the path still names the open file: that is cheaper than opening the file each
// time, with the same effect. It is reference counted; the last release closes it.
#pragma once

#include "plat_file.h"
#include "plat_types.h"

#include <atomic>
#include <cstdint>
#include <utility>

struct OsLogFile
{
    // Returns one reference. Null when the file cannot be opened.
    static OsLogFile* Open(const char* a_szLogFile);
    static void Release(OsLogFile* a_poslogfile);   // null is allowed

    OsLogFile* AddUser()
    {
        ++u32Users;
        return this;
    }
    bool IsCurrent() const { return PlatAppendIsCurrent(plathandle); }

    PlatHandle plathandle;
    std::atomic<uint32_t> u32Users;
    std::atomic<bool> blFresh;   // it was empty, and may be removed as such until it has a line
};

// Makes the folder of a log file with all its parents. False for a path without a folder.
bool OsLogMakeFolderOf(const char* a_szLogFile);

// The folder of a path with backslashes as separators, OS_PATHSIZE bytes; "" for the root and for a path without a
// folder.
void OsLogFolderOfFile(const char* a_szLogFile, char* a_szFolder);

// Ends the last line of a file if a killed process left it incomplete.
void OsLogEndTornLine(const char* a_szLogFile);

// Reopens the file, so that writes through other handles are flushed to the disk too.
void OsLogFlushFile(const char* a_szLogFile);
