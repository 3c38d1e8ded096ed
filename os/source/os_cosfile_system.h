// os_cosfile_system.h: what can be done to files and folders by their paths.
//
// A path means what the system makes of it, to every operation of this header and of os_cosfile.h: a link on the way is
// followed, and ".." goes up from where that leads, but not out of a drive. The operations throw nothing: without
// memory they fail with EOSSTS_FAIL unless another status is told.
#pragma once

#include "os_cosfile.h"
#include "os_costime.h"
#include "os_types.h"

enum EOSFILETYPE : uint32_t
{
    OS_FILETYPE_ANY = 0,
    OS_FILETYPE_FOLDER = 1,
    OS_FILETYPE_FILE = 2,
    OS_FILETYPE_SYSTEM = 3,
};

struct OsFileInfo
{
    char szName[OS_PATHSIZE];
    char szLowerName[OS_PATHSIZE];
    uint64_t u64Size;
    EOSFILETYPE eosfiletype;
    EOSFILEACCESS eosfileaccess;   // read, or read and write
    OsTimeRecord ostimerecordCreated;
    OsTimeRecord ostimerecordWritten;
    OSHANDLE plathandleSearch;
    bool blLink;   // a symbolic link, which is never followed
};

// True for a file, a folder or a link, and for a pattern that matches anything.
bool OsFileExists(const char* a_szPath, bool a_blRedirectionOff = false);

// Lists what a pattern names; the search is closed with OsFileFindClose after a success. EOSSTS_NOTFOUND when there
// is nothing, EOSSTS_NOTOPEN for a null argument.
inline constexpr uint32_t OS_FINDFLAG_REDIRECTIONOFF = 1;
EOSSTS OsFileFindFirst(const char* a_szPattern, OsFileInfo* a_posfileinfo, uint32_t a_u32Flags = 0);
EOSSTS OsFileFindNext(OsFileInfo* a_posfileinfo);   // EOSSTS_NOTFOUND at the end
void OsFileFindClose(OsFileInfo* a_posfileinfo);

// The information of one existing path. EOSSTS_NOTFOUND for an empty or missing one.
EOSSTS OsFileGetInfo(const char* a_szPath, OsFileInfo* a_posfileinfo);

// Creates a folder with its parents. EOSSTS_EXISTS when it is there, EOSSTS_NOTFOUND, EOSSTS_ACCESSDENIED or
// EOSSTS_FAIL as the system says. Several may create one tree at the same time.
EOSSTS OsFileCreateDirectory(const char* a_szDirectory);

// While on, OsFileCreateDirectory creates nothing, and says that it did. For the calling thread alone: others log
// meanwhile, and need their folders.
void OsFileSetNoCreate(bool a_blNoCreate);

// Deletes a file, or a folder (with a_blRecursive, with all that is in it). A missing path is a success; an entry of
// another type than asked (0: any) is EOSSTS_FAIL, and so is a path with "*". Links are deleted, never followed.
// What is below a folder goes at any depth; a log line tells as much of its way as a path holds.
EOSSTS OsFileDelete(const char* a_szFilename, EOSFILETYPE a_eosfiletype, bool a_blRecursive, bool a_blSystemFiles);

// Deletes a folder tree. EOSSTS_ACCESSDENIED for one that must never go (a drive, the system's and the users' folders,
// "/opt", "/usr" and "/var", whatever they are called by, and what holds one of them) or when that cannot be found out,
// for a pattern and for what is no folder. A missing path is a success.
EOSSTS OsFileRemoveTree(const char* a_szFolder);

// Removes the sub-folders that hold no file, at any depth, and then the folder itself when nothing is left in it.
// EOSSTS_SHARING when it stays, and when there is none. A link counts as a file.
EOSSTS OsFileRemoveEmptyTree(const char* a_szFolder);

// A name for a kernel object that belongs to the file as it is now. Empty for a file that cannot be opened. Returns
// 1, with the name empty, when an event of that name exists already; else 0. a_wszName has 512 characters.
uint32_t OsFileSafeName(const char* a_szFilename, const char* a_szSuffix, char16_t* a_wszName);

// Switches the file-system redirection of 32-bit processes off or on, for the whole process. Only a 32-bit process on
// a 64-bit system has one; for all others this is a success that does nothing.
EOSSTS OsFileRedirection(bool a_blOff);

// Switches it off for the life of the object.
class OsRedirectionGuard
{
public:
    explicit OsRedirectionGuard(bool a_blOff) : m_blOff(a_blOff)
    {
        if (m_blOff)
            OsFileRedirection(true);
    }
    ~OsRedirectionGuard()
    {
        if (m_blOff)
            OsFileRedirection(false);
    }
    OsRedirectionGuard(const OsRedirectionGuard&) = delete;
    OsRedirectionGuard& operator=(const OsRedirectionGuard&) = delete;

private:
    bool m_blOff;
};
