// os_coslog_file.h: a log file of this process's own, kept open between the lines.
//
// It is asked before each line whether it still is the one that its path names: that costs less than to open it each
// time, and nobody sees a difference. Everyone who works with it counts, and the last one closes it.
#pragma once

#include "plat_file.h"
#include "plat_types.h"

#include <atomic>
#include <cstdint>
#include <utility>

struct OsLogFile
{
    // For one user. Null when it cannot be opened.
    static OsLogFile* Open(const char* a_szLogFile);
    static void Release(OsLogFile* a_poslogfile);   // null is left alone

    OsLogFile* AddUser()
    {
        ++u32Users;
        return this;
    }
    bool IsCurrent() const { return PlatAppendIsCurrent(plathandle); }

    PlatHandle plathandle;
    std::atomic<uint32_t> u32Users;
    std::atomic<bool> blFresh;   // it was empty, and may be removed for that until there is a line in it
};

// Makes the folder of a log file with all its parents. False for a path without a folder.
bool OsLogMakeFolderOf(const char* a_szLogFile);

// The folder of a path with its separators made alike, OS_PATHSIZE bytes; "" for a path without one and for the root.
void OsLogFolderOfFile(const char* a_szLogFile, char* a_szFolder);

// Ends the last line of a file that a killed process may have written in part.
void OsLogEndTornLine(const char* a_szLogFile);

// Opens the file for it: whatever was written is flushed to the disk, by whomever.
void OsLogFlushFile(const char* a_szLogFile);
