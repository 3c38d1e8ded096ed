// plat_file.cpp: one open file: opening, closing, reading, writing, appending, position, size, identity.
//
// Share modes are in plat_file_share.cpp, byte locks in plat_file_lock.cpp, names without an open file in
// plat_find.cpp and plat_folder.cpp.
#include "plat_posix_file.h"

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <new>
#include <sys/uio.h>
#include <sys/utsname.h>

// ------------------------------------------------------------------------------------------------------- opening

// What an open call wants, worked out once for all its tries.
struct OpenRequest
{
    const char16_t* wszPath;
    std::string strPath;
    PosixShareRequest posixsharerequest;
    bool blCreate;        // when it is missing
    bool blTruncate;      // when it is there
    bool blFolder;        // a folder will do
    bool blMustWrite;     // without a descriptor that may write it is no use
    bool blExclusive;     // somebody will be refused something
    bool blInformation;   // attributes only: no descriptor for data, no share modes
    uint32_t u32Guard;    // of PLAT_OPEN_: what the way to it must be
    mode_t modeNew;       // of what is made, before the process's mask
};

static bool MakeRequest(const char16_t* a_wszPath, uint32_t a_u32Access, uint32_t a_u32Share,
                        PlatDisposition a_platdisposition, uint32_t a_u32Flags, OpenRequest& a_openrequest)
{
    if (a_platdisposition < PLAT_DISPOSITION_CREATEALWAYS || a_platdisposition > PLAT_DISPOSITION_OPENALWAYS)
        return PosixFail(PLAT_ERROR_INVALIDPARAMETER);
    const bool blTemporary = a_u32Flags & PLAT_OPEN_DELETEONCLOSE;
    a_openrequest.wszPath = a_wszPath;
    a_openrequest.posixsharerequest = {a_u32Access, a_u32Share, blTemporary, false};
    a_openrequest.blCreate = a_platdisposition != PLAT_DISPOSITION_OPENEXISTING;
    a_openrequest.blTruncate = a_platdisposition == PLAT_DISPOSITION_CREATEALWAYS;
    a_openrequest.blFolder = a_u32Flags & PLAT_OPEN_FOLDER;
    a_openrequest.u32Guard = a_u32Flags & POSIX_OPEN_GUARDS;
    a_openrequest.modeNew = a_u32Flags & PLAT_OPEN_PRIVATE ? 0600 : a_u32Flags & PLAT_OPEN_OWNWRITE ? 0644 : 0666;
    a_openrequest.blMustWrite = (a_u32Access & PLAT_ACCESS_WRITE) || a_openrequest.blTruncate || blTemporary;
    a_openrequest.blInformation = a_u32Access == PLAT_ACCESS_NONE && !blTemporary;
    if (a_openrequest.blMustWrite)
        PosixIgnoreFileSizeSignal();
    a_openrequest.blExclusive = !a_openrequest.blInformation && !PosixShareIsOpen(a_openrequest.posixsharerequest);
    return PosixPath(a_wszPath, a_openrequest.strPath);
}

// Opening never waits (a pipe without a partner), and makes no terminal ours. Where the system refuses to create in
// a folder that everybody may write to, the file may still be there and ours to open.
static int OpenOnce(const OpenRequest& a_openrequest, int a_iFlags)
{
    a_iFlags |= O_CLOEXEC | O_NONBLOCK | O_NOCTTY;
    if (a_openrequest.posixsharerequest.blDelete)
        a_iFlags |= O_NOFOLLOW;
    const auto open = [&](int a_iMore) {
        return PosixOpenGuarded(a_openrequest.strPath, a_iFlags | a_iMore, a_openrequest.u32Guard,
                                a_openrequest.modeNew);
    };
    if (!a_openrequest.blCreate)
        return open(0);
    int iDescriptor = open(O_CREAT);
    if (iDescriptor < 0 && errno == ENOENT && PosixMakeDrive(a_openrequest.wszPath))
        iDescriptor = open(O_CREAT);
    if (iDescriptor < 0 && errno == EACCES)
    {
        iDescriptor = open(0);
        if (iDescriptor < 0 && errno == ENOENT)
            errno = EACCES;
    }
    return iDescriptor;
}

// Opens for reading and writing where the locks need both, and for what the permissions give otherwise.
static int OpenDescriptor(const OpenRequest& a_openrequest)
{
    if (a_openrequest.blInformation && !a_openrequest.blCreate)
        return OpenOnce(a_openrequest, O_PATH);
    const bool blBoth = a_openrequest.blMustWrite || a_openrequest.blExclusive;
    const int iDescriptor = OpenOnce(a_openrequest, blBoth ? O_RDWR : O_RDONLY);
    if (iDescriptor >= 0 || !blBoth)
        return iDescriptor;
    const bool blRefused = errno == EACCES || errno == EPERM || errno == EROFS || errno == ETXTBSY || errno == EISDIR;
    if (blRefused && !a_openrequest.blMustWrite)
        return OpenOnce(a_openrequest, O_RDONLY);
    if (errno == EACCES && a_openrequest.posixsharerequest.u32Access == PLAT_ACCESS_WRITE)
        return OpenOnce(a_openrequest, O_WRONLY);
    return iDescriptor;
}

enum class Admission
{
    Granted,
    Again,    // by its name: the file is being deleted or moved
    Failed,   // the last error is set
};

static Admission Refuse(uint32_t a_u32Error)
{
    PosixFail(a_u32Error);
    return Admission::Failed;
}

// Decides whether the opened file may be used. For an opener for writing who shares everything but deletion it
// takes one system call.
static Admission Admit(const PosixDescriptor& a_posixdescriptor, const OpenRequest& a_openrequest)
{
    const int iDescriptor = a_posixdescriptor.Get();
    struct stat status = {};
    const bool blMayBeFolder = !a_openrequest.blMustWrite && !a_openrequest.blCreate;
    if (blMayBeFolder || a_openrequest.blExclusive || a_openrequest.u32Guard)
    {
        if (fstat(iDescriptor, &status) != 0)
            return Refuse(PosixTranslate(errno));
        if (a_openrequest.u32Guard && !PosixGuardAdmits(status, a_openrequest.u32Guard, a_openrequest.blFolder))
            return Admission::Failed;
        if (S_ISDIR(status.st_mode) && !a_openrequest.blFolder)
            return Refuse(PLAT_ERROR_ACCESSDENIED);
        if (!S_ISREG(status.st_mode))
            return Admission::Granted;
    }
    if (a_openrequest.blInformation)
        return Admission::Granted;

    switch (PosixShareTake(iDescriptor, a_openrequest.posixsharerequest))
    {
    case PosixShare::Granted:
        break;
    case PosixShare::Passing:
        return Admission::Again;
    case PosixShare::Refused:
        return Refuse(PLAT_ERROR_SHARING);
    }
    // Who excludes others must hold the file that the name stands for; who does not finds out when it matters.
    const bool blGone = a_openrequest.blExclusive && fstat(iDescriptor, &status) == 0 && status.st_nlink == 0;
    return blGone ? Admission::Again : Admission::Granted;
}

static PlatHandle MakeFileHandle(int a_iDescriptor, const OpenRequest& a_openrequest)
{
    const uint32_t u32Access = a_openrequest.posixsharerequest.u32Access;
    const bool blTemporary = a_openrequest.posixsharerequest.blDelete;
    PlatHandle plathandle = PosixMakeHandle(blTemporary ? PosixKind::FileTemporary : PosixKind::File, a_iDescriptor);
    plathandle |= u32Access & PLAT_ACCESS_READ ? POSIX_FILE_READ : 0;
    plathandle |= u32Access & PLAT_ACCESS_WRITE ? POSIX_FILE_WRITE : 0;
    plathandle |= a_openrequest.blExclusive ? POSIX_FILE_EXCLUSIVE : 0;
    return plathandle;
}

// A file that is no plain file has no end to cut it at.
static bool Truncate(int a_iDescriptor)
{
    return ftruncate(a_iDescriptor, 0) == 0 || errno == EINVAL || PosixFailErrno();
}

PlatHandle PlatFileOpen(const char16_t* a_wszPath, uint32_t a_u32Access, uint32_t a_u32Share,
                        PlatDisposition a_platdisposition, uint32_t a_u32Flags)
try
{
    OpenRequest openrequest;
    if (!MakeRequest(a_wszPath, a_u32Access, a_u32Share, a_platdisposition, a_u32Flags, openrequest))
        return PLAT_INVALID;

    for (PosixPatience posixpatience(100);;)
    {
        PosixDescriptor posixdescriptor(OpenDescriptor(openrequest));
        if (!posixdescriptor.IsOpen())
        {
            PosixFailPath(openrequest.strPath);
            return PLAT_INVALID;
        }
        const Admission admission = Admit(posixdescriptor, openrequest);
        if (admission == Admission::Granted && (!openrequest.blTruncate || Truncate(posixdescriptor.Get())))
            return MakeFileHandle(posixdescriptor.Release(), openrequest);
        if (openrequest.blExclusive)
            PosixShareDrop(posixdescriptor.Get());
        if (admission != Admission::Again)
            return PLAT_INVALID;
        if (!posixpatience.Wait())
        {
            PosixFail(PLAT_ERROR_SHARING);
            return PLAT_INVALID;
        }
    }
}
catch (const std::bad_alloc&)
{
    PosixFail(PLAT_ERROR_NOMEMORY);
    return PLAT_INVALID;
}

// ------------------------------------------------------------------------------------------------------- closing

static bool UnlinkIfSame(const char* a_szPath, const struct stat& a_status)
{
    struct stat status;
    if (lstat(a_szPath, &status) != 0 || status.st_dev != a_status.st_dev || status.st_ino != a_status.st_ino)
        return false;
    return unlink(a_szPath) == 0;
}

// Takes the name of an open file away, if it still is its own: the file may have been moved, or deleted and the name
// given to another. Some file systems call a file deleted that has only been looked up anew. A close does not fail for
// want of memory, so nothing is allocated.
static void UnlinkByIdentity(int a_iDescriptor)
{
    static constexpr char g_szDeleted[] = " (deleted)";
    struct stat status;
    char szLink[64];
    char szPath[PATH_MAX];
    if (fstat(a_iDescriptor, &status) != 0 || status.st_nlink == 0)
        return;
    snprintf(szLink, sizeof szLink, "/proc/self/fd/%d", a_iDescriptor);
    const ssize_t ssizetLength = readlink(szLink, szPath, sizeof szPath - 1);
    if (ssizetLength <= 0)
        return;
    szPath[ssizetLength] = 0;
    if (UnlinkIfSame(szPath, status) || !std::string_view(szPath).ends_with(g_szDeleted))
        return;
    szPath[static_cast<size_t>(ssizetLength) - (sizeof g_szDeleted - 1)] = 0;
    UnlinkIfSame(szPath, status);
}

bool PosixCloseFile(PlatHandle a_plathandle)
{
    const int iDescriptor = PosixDescriptorOf(a_plathandle);
    if (PosixKindOf(a_plathandle) == PosixKind::FileTemporary)
        UnlinkByIdentity(iDescriptor);
    if (a_plathandle & POSIX_FILE_EXCLUSIVE)
        PosixShareDrop(iDescriptor);
    return close(iDescriptor) == 0 || PosixFailErrno();
}

// ---------------------------------------------------------------------------------------------- reading, writing

int PosixFileDescriptor(PlatHandle a_plathandle, PlatHandle a_plathandleAccess)
{
    const PosixKind posixkind = PosixKindOf(a_plathandle);
    const bool blFile =
        posixkind == PosixKind::File || posixkind == PosixKind::FileTemporary || posixkind == PosixKind::MemoryFile;
    if (blFile && (a_plathandle & a_plathandleAccess) == a_plathandleAccess)
        return PosixDescriptorOf(a_plathandle);
    PosixFail(blFile ? PLAT_ERROR_ACCESSDENIED : PLAT_ERROR_INVALIDHANDLE);
    return -1;
}

bool PlatFileRead(PlatHandle a_plathandle, void* a_pvBuffer, size_t a_sizetBytes, size_t* a_psizetRead)
{
    const int iDescriptor = PosixFileDescriptor(a_plathandle, POSIX_FILE_READ);
    *a_psizetRead = 0;
    if (iDescriptor < 0)
        return false;
    // One call reads at most 2 GiB; only then can there be more although it did not fill the buffer.
    constexpr size_t sizetMost = 0x7FFFF000;
    for (;;)
    {
        const ssize_t ssizet =
            read(iDescriptor, static_cast<char*>(a_pvBuffer) + *a_psizetRead, a_sizetBytes - *a_psizetRead);
        if (ssizet < 0 && errno == EINTR)
            continue;
        if (ssizet < 0)
            return PosixFailErrno();
        *a_psizetRead += static_cast<size_t>(ssizet);
        if (static_cast<size_t>(ssizet) != sizetMost || *a_psizetRead == a_sizetBytes)
            return true;
    }
}

// Writes all bytes with a call that may take a part of them.
template <class Piece>
static bool WriteAll(const void* a_pvBuffer, size_t a_sizetBytes, size_t* a_psizetWritten, Piece a_piece)
{
    size_t sizetIgnored = 0;
    size_t& sizetWritten = a_psizetWritten ? *a_psizetWritten : sizetIgnored;
    sizetWritten = 0;
    while (sizetWritten < a_sizetBytes)
    {
        const ssize_t ssizet =
            a_piece(static_cast<const char*>(a_pvBuffer) + sizetWritten, a_sizetBytes - sizetWritten);
        if (ssizet < 0 && errno == EINTR)
            continue;
        if (ssizet < 0)
            return PosixFailErrno();
        if (ssizet == 0)
            return PosixFail(PLAT_ERROR_DISKFULL);
        sizetWritten += static_cast<size_t>(ssizet);
    }
    return true;
}

bool PlatFileWrite(PlatHandle a_plathandle, const void* a_pvBuffer, size_t a_sizetBytes, size_t* a_psizetWritten)
{
    if (a_psizetWritten)
        *a_psizetWritten = 0;
    const int iDescriptor = PosixFileDescriptor(a_plathandle, POSIX_FILE_WRITE);
    return iDescriptor >= 0 && WriteAll(a_pvBuffer, a_sizetBytes, a_psizetWritten,
                                        [=](const char* pch, size_t sizet) { return write(iDescriptor, pch, sizet); });
}

// ----------------------------------------------------------------------------------------------------- appending

// A write to a position that is told does not wait for those who use the descriptor's own; the bytes are appended all
// the same. What has no positions takes the bytes as they come.
bool PosixWriteAppending(int a_iDescriptor, const void* a_pvBuffer, size_t a_sizetBytes, size_t* a_psizetWritten)
{
    return WriteAll(a_pvBuffer, a_sizetBytes, a_psizetWritten, [=](const char* pch, size_t sizet) {
        const ssize_t ssizet = pwrite(a_iDescriptor, pch, sizet, 0);
        return ssizet < 0 && errno == ESPIPE ? write(a_iDescriptor, pch, sizet) : ssizet;
    });
}

// Set once a descriptor was made an appending one for good: then a seek has to take that back.
static std::atomic<bool> g_blAppendFlagUsed{false};

// Before 6.8 the kernel loses the request to append on a file of an overlay, the ordinary root of a container, and
// writes to the offset instead: over the first line of the log.
static bool KernelAppends()
{
    struct utsname utsname;
    int iMajor = 0;
    int iMinor = 0;
    return uname(&utsname) == 0 && sscanf(utsname.release, "%d.%d", &iMajor, &iMinor) == 2 &&
           (iMajor > 6 || (iMajor == 6 && iMinor >= 8));
}

static ssize_t AppendPiece(int a_iDescriptor, const char* a_pch, size_t a_sizetBytes)
{
    static const bool g_blKernelAppends = KernelAppends();
    if (g_blKernelAppends)
    {
        const struct iovec iovec = {const_cast<char*>(a_pch), a_sizetBytes};
        const ssize_t ssizet = pwritev2(a_iDescriptor, &iovec, 1, 0, RWF_APPEND);
        if (ssizet >= 0 || (errno != EOPNOTSUPP && errno != EINVAL && errno != ENOSYS && errno != ESPIPE))
            return ssizet;
    }
    g_blAppendFlagUsed.store(true, std::memory_order_relaxed);
    fcntl(a_iDescriptor, F_SETFL, O_NONBLOCK | O_APPEND);
    return write(a_iDescriptor, a_pch, a_sizetBytes);
}

bool PlatFileAppend(PlatHandle a_plathandle, const void* a_pvBuffer, size_t a_sizetBytes, size_t* a_psizetWritten)
{
    if (a_psizetWritten)
        *a_psizetWritten = 0;
    const int iDescriptor = PosixFileDescriptor(a_plathandle, POSIX_FILE_WRITE);
    return iDescriptor >= 0 && WriteAll(a_pvBuffer, a_sizetBytes, a_psizetWritten, [=](const char* pch, size_t sizet) {
               return AppendPiece(iDescriptor, pch, sizet);
           });
}

// ------------------------------------------------------------------------------------- position, size, identity

bool PlatFileSeek(PlatHandle a_plathandle, PlatSeek a_platseek, int64_t a_i64Offset, uint64_t* a_pu64Position)
{
    const int iDescriptor = PosixFileDescriptor(a_plathandle, 0);
    if (iDescriptor < 0)
        return false;
    if (a_platseek < PLAT_SEEK_START || a_platseek > PLAT_SEEK_END)
        return PosixFail(PLAT_ERROR_INVALIDPARAMETER);
    if (g_blAppendFlagUsed.load(std::memory_order_relaxed))
        fcntl(iDescriptor, F_SETFL, O_NONBLOCK);
    static constexpr int g_aiWhence[] = {SEEK_SET, SEEK_CUR, SEEK_END};
    const off_t off = lseek(iDescriptor, a_i64Offset, g_aiWhence[a_platseek - PLAT_SEEK_START]);
    if (off < 0)
        return PosixFailErrno();
    if (a_pu64Position)
        *a_pu64Position = static_cast<uint64_t>(off);
    return true;
}

static bool Status(PlatHandle a_plathandle, struct stat& a_status)
{
    const int iDescriptor = PosixFileDescriptor(a_plathandle, 0);
    return iDescriptor >= 0 && (fstat(iDescriptor, &a_status) == 0 || PosixFailErrno());
}

bool PlatFileSize(PlatHandle a_plathandle, uint64_t* a_pu64Size)
{
    struct stat status;
    if (!Status(a_plathandle, status))
        return false;
    *a_pu64Size = static_cast<uint64_t>(status.st_size);
    return true;
}

// False, with the file as long as before, when there is no room. A disk that cannot tell promises none.
static bool TakeRoom(int a_iDescriptor, off_t a_offEnd)
{
    struct stat status;
    if (fstat(a_iDescriptor, &status) != 0)
        return PosixFailErrno();
    const off_t offBefore = status.st_size;
    if (offBefore >= a_offEnd ||
        PosixRetry([&] { return fallocate(a_iDescriptor, 0, offBefore, a_offEnd - offBefore); }) == 0 ||
        errno == EOPNOTSUPP || errno == ENOSYS)
        return true;
    const int iError = errno;
    return ftruncate(a_iDescriptor, offBefore) == 0 ? PosixFail(PosixTranslate(iError)) : PosixFailErrno();
}

bool PlatFileSetEnd(PlatHandle a_plathandle)
{
    const int iDescriptor = PosixFileDescriptor(a_plathandle, POSIX_FILE_WRITE);
    if (iDescriptor < 0)
        return false;
    const off_t off = lseek(iDescriptor, 0, SEEK_CUR);
    if (off < 0)
        return PosixFailErrno();
    return TakeRoom(iDescriptor, off) && (ftruncate(iDescriptor, off) == 0 || PosixFailErrno());
}

bool PlatFileFlush(PlatHandle a_plathandle)
{
    const int iDescriptor = PosixFileDescriptor(a_plathandle, 0);
    if (iDescriptor < 0)
        return false;
    // What has no disk below it says EINVAL, and is flushed.
    return fsync(iDescriptor) == 0 || errno == EINVAL || errno == EROFS || PosixFailErrno();
}

bool PlatFileGetIdentity(PlatHandle a_plathandle, PlatFileIdentity* a_pplatfileidentity)
{
    struct stat status;
    if (!Status(a_plathandle, status))
        return false;
    *a_pplatfileidentity = {status.st_dev, status.st_ino, static_cast<uint64_t>(status.st_size),
                            PosixFileTime(status.st_mtim.tv_sec, static_cast<uint32_t>(status.st_mtim.tv_nsec)),
                            static_cast<uint32_t>(status.st_nlink)};
    return true;
}

bool PosixIdentityOf(int a_iDescriptor, const char* a_szPath, PosixFileIdentity& a_posixfileidentity)
{
    struct statx statx_;
    const int iFlags = AT_STATX_DONT_SYNC | (*a_szPath ? 0 : AT_EMPTY_PATH);
    if (statx(a_iDescriptor, a_szPath, iFlags, STATX_INO, &statx_) != 0)
        return PosixFailErrno();
    a_posixfileidentity = {statx_.stx_dev_major, statx_.stx_dev_minor, statx_.stx_ino};
    return true;
}

bool PlatFileIsNamed(PlatHandle a_plathandle, const char16_t* a_wszPath)
try
{
    const int iDescriptor = PosixFileDescriptor(a_plathandle, 0);
    std::string strPath;
    PosixFileIdentity posixfileidentityFile = {};
    PosixFileIdentity posixfileidentityName = {};
    return iDescriptor >= 0 && PosixPath(a_wszPath, strPath) &&
           PosixIdentityOf(AT_FDCWD, strPath.c_str(), posixfileidentityName) &&
           PosixIdentityOf(iDescriptor, "", posixfileidentityFile) && posixfileidentityFile == posixfileidentityName;
}
catch (const std::bad_alloc&)
{
    return PosixFail(PLAT_ERROR_NOMEMORY);
}
