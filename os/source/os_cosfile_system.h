// os_cosfile_system.h: operations on files and folders by path.
//
// The system resolves paths, for all operations of this header and of os_cosfile.h: links are followed, and ".." goes
// up from a link's target, but not above a drive. Nothing throws: without memory an operation fails with EOSSTS_FAIL
// unless documented otherwise.
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
    bool blLink;   // a symbolic link, not followed
};

// True for a file, a folder or a link, and for a pattern that matches anything.
bool OsFileExists(const char* a_szPath, bool a_blRedirectionOff = false);

// Lists the matches of a pattern; after a success the search must be closed with OsFileFindClose. EOSSTS_NOTFOUND when
// there is no match, EOSSTS_NOTOPEN for a null argument.
inline constexpr uint32_t OS_FINDFLAG_REDIRECTIONOFF = 1;
EOSSTS OsFileFindFirst(const char* a_szPattern, OsFileInfo* a_posfileinfo, uint32_t a_u32Flags = 0);
EOSSTS OsFileFindNext(OsFileInfo* a_posfileinfo);   // EOSSTS_NOTFOUND at the end
void OsFileFindClose(OsFileInfo* a_posfileinfo);

// The information of one existing path. EOSSTS_NOTFOUND for an empty or missing one.
EOSSTS OsFileGetInfo(const char* a_szPath, OsFileInfo* a_posfileinfo);

// Creates a folder with its parents. EOSSTS_EXISTS when it exists, else EOSSTS_NOTFOUND, EOSSTS_ACCESSDENIED or
// EOSSTS_FAIL for the system's error. Safe when other threads or processes create the same tree.
EOSSTS OsFileCreateDirectory(const char* a_szDirectory);

// While on, OsFileCreateDirectory creates nothing and reports success. Affects only the calling thread: other threads
// may log meanwhile and need their folders.
void OsFileSetNoCreate(bool a_blNoCreate);

// Deletes a file, or a folder (with a_blRecursive, including its content at any depth). A missing path is a success; an
// entry of another type than requested (0: any) and a path with "*" are EOSSTS_FAIL. Links are deleted, never followed.
// Log lines truncate paths that are too long.
EOSSTS OsFileDelete(const char* a_szFilename, EOSFILETYPE a_eosfiletype, bool a_blRecursive, bool a_blSystemFiles);

// Deletes a folder tree. A missing path is a success. EOSSTS_ACCESSDENIED for a pattern, for what is not a folder, and
// for a protected folder or a parent of one, by whatever path (a drive, the system's and the users' folders, "/opt",
// "/usr" and "/var"), or when that cannot be determined.
EOSSTS OsFileRemoveTree(const char* a_szFolder);

// Removes the sub-folders without files, at any depth, and then the folder itself if it is empty. EOSSTS_SHARING when
// it is not empty or does not exist. A link is treated as a file.
EOSSTS OsFileRemoveEmptyTree(const char* a_szFolder);

// Makes a name for a kernel object from the file's current identity. Empty when the file cannot be opened. Returns 1,
// with the name empty, when an event of that name already exists; otherwise 0. a_wszName has 512 characters.
uint32_t OsFileSafeName(const char* a_szFilename, const char* a_szSuffix, char16_t* a_wszName);

// Switches the file-system redirection of 32-bit processes off or on, for the whole process. Only a 32-bit process on a
// 64-bit system has one; otherwise does nothing and returns success.
EOSSTS OsFileRedirection(bool a_blOff);

// Switches the redirection off for the life of the object.
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
