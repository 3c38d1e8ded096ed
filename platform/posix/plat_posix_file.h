// plat_posix_file.h: what the file sources of this backend share: what a file handle carries beside its descriptor,
// paths, and the locks that stand for share modes.
#pragma once

#include "plat_file.h"
#include "plat_posix.h"

#include <string>
#include <sys/stat.h>

// What a file handle carries beside its descriptor. A descriptor may be open for more than its handle is for,
// because the locks need it; the handle says what was asked for.
inline constexpr PlatHandle POSIX_FILE_READ = PlatHandle{1} << 56;
inline constexpr PlatHandle POSIX_FILE_WRITE = PlatHandle{1} << 57;
inline constexpr PlatHandle POSIX_FILE_EXCLUSIVE = PlatHandle{1} << 58;   // it holds a lock that refuses others

// The descriptor of a file that was opened for all of a_plathandleAccess (POSIX_FILE_READ, POSIX_FILE_WRITE); -1 with
// the last error otherwise.
int PosixFileDescriptor(PlatHandle a_plathandle, PlatHandle a_plathandleAccess);

// Which file it is, without the times of its last change: who asks for those makes the system keep them exactly, and
// every write that follows costs half as much again. The number of an open file is not given to another one.
struct PosixFileIdentity
{
    uint32_t u32Major;
    uint32_t u32Minor;
    uint64_t u64Number;

    bool operator==(const PosixFileIdentity&) const = default;
};

// Of what the path leads to (AT_FDCWD), or of the open file itself for an empty one. Asks no server and opens nothing.
bool PosixIdentityOf(int a_iDescriptor, const char* a_szPath, PosixFileIdentity& a_posixfileidentity);

// Writes all bytes to a descriptor that appends. Threads that share it do not wait for one another here.
bool PosixWriteAppending(int a_iDescriptor, const void* a_pvBuffer, size_t a_sizetBytes, size_t* a_psizetWritten);

// ------------------------------------------------------------------------------------------------------- paths

// Fails with what errno says about a path; a missing file (2) is told from a missing folder on the way to it (3).
bool PosixFailPath(std::string_view a_strviewPath);

// Cuts a path: the name, without separators behind it, is returned; the folder ends with a separator, and is "." for a
// path without one. The name of "/" is empty.
std::string_view PosixSplitPath(std::string_view a_strviewPath, std::string_view& a_strviewFolder);

// Makes the folder that stands for the drive of a path, with its parents. True when it was not there, so that what
// failed for it is worth another try. Leaves errno alone.
bool PosixMakeDrive(const char16_t* a_wszPath);

// Without separators at the end, which would make the system follow a link: "a/b/" becomes "a/b", "/" stays.
void PosixTrimPath(std::string& a_strPath);

// 100 ns units since 1601 from seconds and nanoseconds since 1970.
constexpr uint64_t PosixFileTime(int64_t a_i64Seconds, uint32_t a_u32Nanoseconds)
{
    return static_cast<uint64_t>(a_i64Seconds + 11644473600) * 10000000u + a_u32Nanoseconds / 100u;
}

// Deletes a file or a link (of the read-only ones only those that a_blReadOnly allows), or an empty folder. The name is
// relative to an open folder, or to the current one (AT_FDCWD).
bool PosixDeleteFile(int a_iFolder, const char* a_szName, bool a_blReadOnly);
bool PosixDeleteFolder(int a_iFolder, const char* a_szName);

constexpr bool PosixIsReadOnly(mode_t a_mode)
{
    return (a_mode & (S_IWUSR | S_IWGRP | S_IWOTH)) == 0;
}

// For a path that somebody else has named: opens as the flags of PlatFileOpen in a_u32Guard want it, -1 with errno
// otherwise, and looks at what was opened.
inline constexpr uint32_t POSIX_OPEN_GUARDS =
    PLAT_OPEN_NOLINK | PLAT_OPEN_NOLINKS | PLAT_OPEN_OWNFOLDER | PLAT_OPEN_OWNPLACE;
int PosixOpenGuarded(const std::string& a_strPath, int a_iFlags, uint32_t a_u32Guard, mode_t a_modeNew);
bool PosixGuardAdmits(const struct stat& a_status, uint32_t a_u32Guard, bool a_blFolder);

// Somebody who is neither the owner nor the system's user may write it.
bool PosixOthersWrite(const struct stat& a_status);

// ------------------------------------------------------------------------------------------------- share modes

// What an opener does with a file and lets others do.
struct PosixShareRequest
{
    uint32_t u32Access;   // PLAT_ACCESS_
    uint32_t u32Share;    // PLAT_SHARE_
    bool blDelete;        // the name goes with the handle
    bool blPassing;       // only for the moment of a deletion or a move, which others wait for
};

enum class PosixShare
{
    Granted,
    Passing,   // somebody is deleting or moving the file at this moment
    Refused,
};

// Takes the locks that stand for the request. They end with the descriptor.
PosixShare PosixShareTake(int a_iDescriptor, const PosixShareRequest& a_posixsharerequest);

// Gives all of them back before the descriptor is closed: a process that is being started holds a copy of every
// descriptor until its program runs, and a lock that refuses others must not live on in it.
void PosixShareDrop(int a_iDescriptor);

// Tells whether an opener for reading and writing who shares everything would be let in now. Takes nothing.
bool PosixShareAdmitsAll(int a_iDescriptor);

// Nobody is refused anything.
constexpr bool PosixShareIsOpen(const PosixShareRequest& a_posixsharerequest)
{
    constexpr uint32_t u32Both = PLAT_SHARE_READ | PLAT_SHARE_WRITE;
    return (a_posixsharerequest.u32Share & u32Both) == u32Both && !a_posixsharerequest.blDelete;
}

// Waits for what others hold for a moment only: yields first, sleeps a millisecond at a time then.
class PosixPatience
{
public:
    explicit PosixPatience(uint32_t a_u32Milliseconds) : m_u32Left(a_u32Milliseconds) {}
    bool Wait();   // false when it has run out

private:
    uint32_t m_u32Yields = 16;
    uint32_t m_u32Left;
};
