// plat_file.h: files, folders, searches, byte locks and mappings.
//
// Paths accept both separators and the long-path prefix. Where the system knows no drives, "X:" names a folder of
// its own for each letter, which exists as soon as something is created below it. A path means the same to every call,
// which is what the system makes of it: a link on the way is followed, and ".." goes up from where that leads, but
// neither out of a drive nor out of the root.
#pragma once

#include "plat_system.h"
#include "plat_types.h"

// What the handle is for, and what it lets other handles of the same file do meanwhile. A share bit that is not
// set refuses the others' access of that kind with PLAT_ERROR_SHARING, in both orders of opening.
inline constexpr uint32_t PLAT_ACCESS_NONE = 0;   // attributes, times, identity
inline constexpr uint32_t PLAT_ACCESS_READ = 1;
inline constexpr uint32_t PLAT_ACCESS_WRITE = 2;

inline constexpr uint32_t PLAT_SHARE_NONE = 0;
inline constexpr uint32_t PLAT_SHARE_READ = 1;
inline constexpr uint32_t PLAT_SHARE_WRITE = 2;
inline constexpr uint32_t PLAT_SHARE_DELETE = 4;   // the file may be deleted or renamed meanwhile

enum PlatDisposition : uint32_t
{
    PLAT_DISPOSITION_CREATEALWAYS = 2,   // create, or truncate what is there
    PLAT_DISPOSITION_OPENEXISTING = 3,
    PLAT_DISPOSITION_OPENALWAYS = 4,   // open, create when missing
};

// The file goes with this handle, if the name is still its own. The handle counts as one that deletes: others may
// open the file meanwhile only if they share deletion. A link with the name is refused, not followed (123).
inline constexpr uint32_t PLAT_OPEN_DELETEONCLOSE = 1;
inline constexpr uint32_t PLAT_OPEN_FOLDER = 2;   // a folder may be opened

// For a path that somebody else has named. Only a plain file (or a folder, with PLAT_OPEN_FOLDER) is opened or made;
// what is none, as a device or a pipe, is refused (5) and not waited for.
inline constexpr uint32_t PLAT_OPEN_NOLINK = 4;       // the last component is no link (123)
inline constexpr uint32_t PLAT_OPEN_NOLINKS = 8;      // no component is a link (123), and the file has one name (5)
inline constexpr uint32_t PLAT_OPEN_OWNFOLDER = 16;   // and the folder that it is in belongs to this process's user,
                                                      // and no other user but the system's may write that folder (5)

// What is made, no other user but the system's may write, however open-handed this process is else.
inline constexpr uint32_t PLAT_OPEN_OWNWRITE = 32;

// As PLAT_OPEN_OWNFOLDER for the file and its folder; the way to the folder may have links.
inline constexpr uint32_t PLAT_OPEN_OWNPLACE = 64;
inline constexpr uint32_t PLAT_OPEN_PRIVATE = 128;   // what is made, no other user but the system's may read or write

// Opens a file. PLAT_ERROR_ACCESSDENIED for a folder without PLAT_OPEN_FOLDER. A file that is being deleted at this
// moment is waited for, and then created or not found. Who shares reading and writing may still get a file whose
// name goes at this very moment; its identity tells (u32Links).
PlatHandle PlatFileOpen(const char16_t* a_wszPath, uint32_t a_u32Access, uint32_t a_u32Share,
                        PlatDisposition a_platdisposition, uint32_t a_u32Flags);

// At the handle's own position, which moves on. *a_psizetRead 0 with true: the end of the file.
bool PlatFileRead(PlatHandle a_plathandle, void* a_pvBuffer, size_t a_sizetBytes, size_t* a_psizetRead);

// Writes all bytes; *a_psizetWritten (may be null) tells how many were, also on failure. A limit of the file's size is
// a failure like a full disk (112), never a signal that ends the process.
bool PlatFileWrite(PlatHandle a_plathandle, const void* a_pvBuffer, size_t a_sizetBytes, size_t* a_psizetWritten);

// Writes all bytes at what is the end of the file at that moment, in one piece as long as the system takes them in
// one: pieces of several handles never mix. Where the handle's own position is afterwards is not defined.
bool PlatFileAppend(PlatHandle a_plathandle, const void* a_pvBuffer, size_t a_sizetBytes, size_t* a_psizetWritten);

// A file that is written to piece by piece as if it were opened for each piece and closed again, for which most of the
// way is saved. Nobody is refused anything on account of the handle: the file may be deleted, moved, replaced or locked
// at any time. So before each piece: is it still the file that the name stands for? If it is not, close and open.

// Opens the file for appending, with everything shared; creates it when missing. Fails as PlatFileOpen does.
PlatHandle PlatAppendOpen(const char16_t* a_wszPath);

// True when opening the path now would give this very file.
bool PlatAppendIsCurrent(PlatHandle a_plathandle);

// As PlatFileAppend and PlatFileFlush.
bool PlatAppendWrite(PlatHandle a_plathandle, const void* a_pvBuffer, size_t a_sizetBytes, size_t* a_psizetWritten);
bool PlatAppendFlush(PlatHandle a_plathandle);

enum PlatSeek : uint32_t
{
    PLAT_SEEK_START = 1,
    PLAT_SEEK_CURRENT = 2,
    PLAT_SEEK_END = 3,
};

bool PlatFileSeek(PlatHandle a_plathandle, PlatSeek a_platseek, int64_t a_i64Offset, uint64_t* a_pu64Position);
bool PlatFileSize(PlatHandle a_plathandle, uint64_t* a_pu64Size);
bool PlatFileFlush(PlatHandle a_plathandle);   // to the disk

// Cuts or extends the file to the handle's position. What it is extended by is taken from the disk at once, where the
// disk can do that: whoever touches a view of it finds room.
bool PlatFileSetEnd(PlatHandle a_plathandle);

// Locks bytes for this handle alone, without waiting (33 when others hold one of them). The lock belongs to the open
// file, not to the process: two handles of one process exclude each other, closing one leaves the other's lock alone.
// The caller does not lock what the handle holds already. A handle that neither reads nor writes locks nothing (6).
bool PlatFileLock(PlatHandle a_plathandle, uint64_t a_u64Offset, uint64_t a_u64Length);

// For bytes that this handle has locked, as it locked them. What others hold stays locked.
bool PlatFileUnlock(PlatHandle a_plathandle, uint64_t a_u64Offset, uint64_t a_u64Length);

// As those two, for one operation: the lock is waited for up to a_u32Milliseconds (33 then), and a process that is
// forked before it is given back does not get the handle, so that the lock ends with this process.
bool PlatFileLockBriefly(PlatHandle a_plathandle, uint64_t a_u64Offset, uint64_t a_u64Length,
                         uint32_t a_u32Milliseconds);
bool PlatFileUnlockBriefly(PlatHandle a_plathandle, uint64_t a_u64Offset, uint64_t a_u64Length);

enum PlatEntry : uint32_t
{
    PLAT_ENTRY_FOLDER = 1,
    PLAT_ENTRY_FILE = 2,
    PLAT_ENTRY_SYSTEM = 3,   // a file that belongs to the system, or is no plain file: a device, a pipe, a socket
};

struct PlatFileInfo
{
    char16_t wszName[PLAT_PATHMAX];   // the last component
    uint64_t u64Size;
    PlatEntry platentry;
    bool blReadOnly;
    bool blLink;              // a symbolic link; all else here is then of the link itself, and its entry is a file
    uint64_t u64CreateTime;   // 100 ns units since 1601-01-01 UTC
    uint64_t u64WriteTime;
};

// Lists what a_wszPattern names: its last component may hold "*" and "?". The first entry is in *a_pplatfileinfo.
// "." and ".." are listed for a pattern that matches them. 2 when nothing matches, 3 when the folder is missing.
PlatHandle PlatFindFirst(const char16_t* a_wszPattern, PlatFileInfo* a_pplatfileinfo);
bool PlatFindNext(PlatHandle a_plathandle, PlatFileInfo* a_pplatfileinfo);   // 18 when there are no more

// One path, without pattern and without following a link at its end.
bool PlatFileGetInfo(const char16_t* a_wszPath, PlatFileInfo* a_pplatfileinfo);

// The identity of an open file. Two handles of one file have the same volume and index.
struct PlatFileIdentity
{
    uint64_t u64Volume;
    uint64_t u64Index;
    uint64_t u64Size;
    uint64_t u64WriteTime;
    uint32_t u32Links;   // names that the file has; 0 when it was deleted since
};

bool PlatFileGetIdentity(PlatHandle a_plathandle, PlatFileIdentity* a_pplatfileidentity);

// True when opening the path now would give this very file. Opens nothing where the system can tell without.
bool PlatFileIsNamed(PlatHandle a_plathandle, const char16_t* a_wszPath);

// Deletes a file or a link, never what a link points to. PLAT_ERROR_SHARING while a handle of this layer, in
// whichever process, has it open without PLAT_SHARE_DELETE.
bool PlatFileDelete(const char16_t* a_wszPath);
bool PlatFileMove(const char16_t* a_wszOld, const char16_t* a_wszNew);   // 183 when the new name exists

bool PlatFolderCreate(const char16_t* a_wszPath);   // one level; 183 when it exists, 3 when its parent is missing
bool PlatFolderCreatePrivate(const char16_t* a_wszPath);   // likewise; no other user but the system's has any right

// The full path of a name, relative to the current folder, without "." and ".." components and without the long-path
// prefix; the file need not exist. Its separators are "\". A link that ".." follows is replaced by where it leads.
bool PlatFileFullName(const char16_t* a_wszName, char16_t* a_wszFull, size_t a_sizetFull);

// Puts a complete file with these bytes in the place of an open one, in one step: who opens the path gets the old file
// or the new one, whole. What the path leads to is replaced, behind all links; mode and owner stay. The handle is still
// of the old file afterwards. Writers keep one another away themselves: two replacements of one file must not run at
// once. On failure nothing has changed. 2: the path does not lead to the open file (any more). 5: it can only be
// written in place: it has further names, attributes or an owner that a new file cannot have, or nothing may be made in
// its folder. 32: likewise, while a handle is open that does not share deletion. 112: no room.
bool PlatFileReplace(PlatHandle a_plathandle, const char16_t* a_wszPath, const void* a_pvBuffer, size_t a_sizetBytes);

// Makes a file with these bytes where there is none (183): nobody ever finds a part of it. On failure there is none;
// some file systems cannot do it.
bool PlatFileCreateWhole(const char16_t* a_wszPath, const void* a_pvBuffer, size_t a_sizetBytes);

// Maps a_sizetView bytes of an open file from a_u64Offset (a multiple of PlatMemoryGranularity; view 0: to the end
// of the file). 87 when the file ends before the view does. The view stays after the file is closed. PlatMappingRelease
// takes the same view size; it is *a_psizetView.
void* PlatMappingView(PlatHandle a_plathandle, uint64_t a_u64Offset, bool a_blWrite, size_t* a_psizetView);
bool PlatMappingFlush(void* a_pvView, size_t a_sizetView);
bool PlatMappingRelease(void* a_pvView, size_t a_sizetView);

// Between the two calls the thread may touch all of the view, also when somebody cuts its file meanwhile: what has gone
// is zero then, and stays so for this process. One view at a time. Unguard is false when something had gone.
void PlatMappingGuard(const void* a_pvView, size_t a_sizetView);
bool PlatMappingUnguard();

// From now on until its release every thread may touch the view, likewise. One view of the process. A process that is
// forked has an empty copy of its own in its place.
void PlatMappingKeep(void* a_pvView, size_t a_sizetView);

// Memory without a file of its own, which another process opens by the creator's process id and this handle's value.
PlatHandle PlatMemoryFileCreate(uint64_t a_u64Size);
PlatHandle PlatMemoryFileOpen(uint64_t a_u64ProcessId, PlatHandle a_plathandleTheirs);
