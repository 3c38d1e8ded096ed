// plat_file_guard.cpp: opening by a path that somebody else has named, without being led elsewhere by a link.
//
// The kernel is asked to refuse links where it can be. Otherwise the way goes from folder to folder, so that nothing
// that is changed meanwhile leads it elsewhere either.
#include "plat_posix_file.h"
#include "plat_user.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>

static constexpr uint32_t g_u32InFolder = PLAT_OPEN_NOLINKS | PLAT_OPEN_OWNFOLDER | PLAT_OPEN_OWNPLACE;

static int FailWith(int a_iErrno)
{
    errno = a_iErrno;
    return -1;
}

// False when the kernel does not have the call, or a container keeps it away.
static bool OpenResolved(const char* a_szPath, int a_iFlags, mode_t a_modeNew, uint64_t a_u64Resolve,
                         int& a_iDescriptor)
{
    struct open_how openhow = {};
    openhow.flags = static_cast<unsigned>(a_iFlags);
    openhow.mode = a_iFlags & O_CREAT ? a_modeNew : 0;
    openhow.resolve = a_u64Resolve;
    a_iDescriptor = static_cast<int>(
        PosixRetry([&] { return syscall(SYS_openat2, AT_FDCWD, a_szPath, &openhow, sizeof openhow); }));
    return a_iDescriptor >= 0 || (errno != ENOSYS && errno != EPERM);
}

static int OpenNoLink(const char* a_szPath, int a_iFlags, mode_t a_modeNew)
{
    int iDescriptor = -1;
    if (OpenResolved(a_szPath, a_iFlags | O_NOFOLLOW, a_modeNew, RESOLVE_NO_MAGICLINKS, iDescriptor))
        return iDescriptor;
    return open(a_szPath, a_iFlags | O_NOFOLLOW, a_modeNew);
}

// ------------------------------------------------------------------------------------------- no link on the way

static bool IsLink(int a_iDescriptor)
{
    struct stat status;
    return fstat(a_iDescriptor, &status) == 0 && S_ISLNK(status.st_mode);
}

static constexpr int g_iWay = O_PATH | O_CLOEXEC;

static int WalkNoLinks(const std::string& a_strFolder)
{
    PosixDescriptor posixdescriptor(open(a_strFolder.starts_with('/') ? "/" : ".", g_iWay | O_DIRECTORY));
    std::string_view strviewRest = a_strFolder;
    while (posixdescriptor.IsOpen() && !strviewRest.empty())
    {
        const std::string strName(PosixTake(strviewRest, '/'));
        if (strName.empty())
            continue;
        PosixDescriptor posixdescriptorNext(openat(posixdescriptor.Get(), strName.c_str(), g_iWay | O_NOFOLLOW));
        if (!posixdescriptorNext.IsOpen())
            return -1;
        if (IsLink(posixdescriptorNext.Get()))
            return FailWith(ELOOP);
        close(posixdescriptor.Release());
        posixdescriptor.Take(posixdescriptorNext.Release());
    }
    return posixdescriptor.Release();
}

static int OpenFolderNoLinks(const std::string& a_strFolder)
{
    int iDescriptor = -1;
    if (OpenResolved(a_strFolder.c_str(), g_iWay | O_DIRECTORY, 0, RESOLVE_NO_SYMLINKS, iDescriptor))
        return iDescriptor;
    return WalkNoLinks(a_strFolder);
}

static bool IsOwnFolder(int a_iFolder)
{
    struct stat status;
    return fstat(a_iFolder, &status) == 0 && PosixOwnerOf(status.st_uid) == PLAT_OWNER_SAME &&
           !PosixOthersWrite(status);
}

// The folder first, then what is in it.
static int OpenInFolder(const std::string& a_strPath, int a_iFlags, mode_t a_modeNew, uint32_t a_u32Guard)
{
    std::string_view strviewFolder;
    const std::string strName(PosixSplitPath(a_strPath, strviewFolder));
    if (strName.empty() || strName == "." || strName == "..")
        return FailWith(EISDIR);
    const std::string strFolder(strviewFolder);
    const PosixDescriptor posixdescriptorFolder(a_u32Guard & (PLAT_OPEN_NOLINKS | PLAT_OPEN_OWNFOLDER)
                                                    ? OpenFolderNoLinks(strFolder)
                                                    : open(strFolder.c_str(), g_iWay | O_DIRECTORY));
    if (!posixdescriptorFolder.IsOpen())
        return -1;
    if ((a_u32Guard & (PLAT_OPEN_OWNFOLDER | PLAT_OPEN_OWNPLACE)) && !IsOwnFolder(posixdescriptorFolder.Get()))
        return FailWith(EACCES);
    return openat(posixdescriptorFolder.Get(), strName.c_str(), a_iFlags | O_NOFOLLOW, a_modeNew);
}

// --------------------------------------------------------------------------------------------------- the file

int PosixOpenGuarded(const std::string& a_strPath, int a_iFlags, uint32_t a_u32Guard, mode_t a_modeNew)
{
    if (!a_u32Guard)
        return open(a_strPath.c_str(), a_iFlags, a_modeNew);
    const int iDescriptor = a_u32Guard & g_u32InFolder ? OpenInFolder(a_strPath, a_iFlags, a_modeNew, a_u32Guard)
                                                       : OpenNoLink(a_strPath.c_str(), a_iFlags, a_modeNew);
    if (iDescriptor < 0 && errno == ENXIO)   // a socket, or a pipe or device that has nobody at its other end
        errno = EACCES;
    return iDescriptor;
}

bool PosixGuardAdmits(const struct stat& a_status, uint32_t a_u32Guard, bool a_blFolder)
{
    if (S_ISLNK(a_status.st_mode))
        return PosixFail(PLAT_ERROR_INVALIDNAME);
    if (S_ISDIR(a_status.st_mode) && a_blFolder)
        return true;
    const bool blOneName = a_u32Guard & g_u32InFolder;
    return (S_ISREG(a_status.st_mode) && (!blOneName || a_status.st_nlink <= 1)) || PosixFail(PLAT_ERROR_ACCESSDENIED);
}
