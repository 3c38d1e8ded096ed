// plat_folder.cpp: names in folders: deleting, moving, making folders. A link is never followed.
#include "plat_posix_file.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <new>

// Holds off the openers of a file while its name goes or changes. Folders and what is no plain file have no share
// modes, and a file that we may not open has no handles of ours to ask; without a descriptor to ask with, the name
// stays. The name is relative to an open folder.
class NameGuard
{
public:
    NameGuard(int a_iFolder, const char* a_szName) : m_iFolder(a_iFolder), m_szName(a_szName) {}
    ~NameGuard() { Release(); }
    NameGuard(const NameGuard&) = delete;
    NameGuard& operator=(const NameGuard&) = delete;

    // False, with the last error, when a handle does not share deletion or that cannot be found out.
    bool Take(const struct stat& a_status);

    // Tells whether the guarded file still has the name.
    bool StillNamed(const struct stat& a_status) const
    {
        struct stat status;
        return fstatat(m_iFolder, m_szName, &status, AT_SYMLINK_NOFOLLOW) == 0 && status.st_dev == a_status.st_dev &&
               status.st_ino == a_status.st_ino;
    }

    // Nobody can come by the name any more: what was taken may go when the descriptor does.
    void NameHasGone() { m_blNamed = false; }

private:
    void Release();

    int m_iFolder;
    const char* m_szName;
    int m_iDescriptor = -1;
    bool m_blNamed = true;
};

void NameGuard::Release()
{
    if (m_iDescriptor < 0)
        return;
    if (m_blNamed)
        PosixShareDrop(m_iDescriptor);
    close(m_iDescriptor);
    m_iDescriptor = -1;
}

bool NameGuard::Take(const struct stat& a_status)
{
    constexpr int iFlags = O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    constexpr PosixShareRequest posixsharerequest = {
        PLAT_ACCESS_NONE, PLAT_SHARE_READ | PLAT_SHARE_WRITE | PLAT_SHARE_DELETE, true, true};
    if (!S_ISREG(a_status.st_mode))
        return true;
    // A process that is being started holds a copy of every descriptor until its program runs; what was closed a
    // moment ago may seem open for that long.
    for (PosixPatience posixpatience(5);;)
    {
        m_iDescriptor = openat(m_iFolder, m_szName, O_RDWR | iFlags);
        if (m_iDescriptor < 0)
            m_iDescriptor = openat(m_iFolder, m_szName, O_RDONLY | iFlags);
        if (m_iDescriptor < 0)
            return (errno != EMFILE && errno != ENFILE) || PosixFailErrno();
        if (PosixShareTake(m_iDescriptor, posixsharerequest) == PosixShare::Granted)
            return true;
        Release();
        if (!posixpatience.Wait())
            return PosixFail(PLAT_ERROR_SHARING);
    }
}

// Calls a_action(guard, status) for what has the name, and again when another file took the name meanwhile.
template <class Action>
static bool WithName(int a_iFolder, const char* a_szName, Action a_action)
{
    for (PosixPatience posixpatience(100);;)
    {
        struct stat status;
        NameGuard nameguard(a_iFolder, a_szName);
        if (fstatat(a_iFolder, a_szName, &status, AT_SYMLINK_NOFOLLOW) != 0)
            return PosixFailPath(a_szName);
        if (!nameguard.Take(status))
            return false;
        if (nameguard.StillNamed(status))
            return a_action(nameguard, status);
        if (!posixpatience.Wait())
            return PosixFail(PLAT_ERROR_SHARING);
    }
}

bool PosixDeleteFile(int a_iFolder, const char* a_szName, bool a_blReadOnly)
{
    return WithName(a_iFolder, a_szName, [&](NameGuard& a_nameguard, const struct stat& a_status) {
        const bool blRefused = S_ISREG(a_status.st_mode) && PosixIsReadOnly(a_status.st_mode) && !a_blReadOnly;
        if (blRefused || S_ISDIR(a_status.st_mode))
            return PosixFail(PLAT_ERROR_ACCESSDENIED);
        if (unlinkat(a_iFolder, a_szName, 0) != 0)
            return PosixFailPath(a_szName);
        a_nameguard.NameHasGone();
        return true;
    });
}

bool PlatFileDelete(const char16_t* a_wszPath)
try
{
    std::string strPath;
    return PosixPath(a_wszPath, strPath) && PosixDeleteFile(AT_FDCWD, strPath.c_str(), false);
}
catch (const std::bad_alloc&)
{
    return PosixFail(PLAT_ERROR_NOMEMORY);
}

// Some file systems cannot rename without replacing: a second name does it for a file, a look for a folder.
static int RenameWithoutReplacing(const char* a_szOld, const char* a_szNew, const struct stat& a_status)
{
    const int iResult = renameat2(AT_FDCWD, a_szOld, AT_FDCWD, a_szNew, RENAME_NOREPLACE);
    if (iResult == 0 || (errno != EINVAL && errno != ENOSYS && errno != EOPNOTSUPP))
        return iResult;
    if (!S_ISDIR(a_status.st_mode))
        return link(a_szOld, a_szNew) == 0 ? unlink(a_szOld) : -1;
    struct stat status;
    if (lstat(a_szNew, &status) != 0)
        return rename(a_szOld, a_szNew);
    errno = EEXIST;
    return -1;
}

bool PlatFileMove(const char16_t* a_wszOld, const char16_t* a_wszNew)
try
{
    std::string strOld;
    std::string strNew;
    if (!PosixPath(a_wszOld, strOld) || !PosixPath(a_wszNew, strNew))
        return false;
    PosixTrimPath(strOld);
    PosixTrimPath(strNew);
    return WithName(AT_FDCWD, strOld.c_str(), [&](const NameGuard&, const struct stat& a_status) {
        const auto rename = [&] { return RenameWithoutReplacing(strOld.c_str(), strNew.c_str(), a_status) == 0; };
        if (rename() || (errno == ENOENT && PosixMakeDrive(a_wszNew) && rename()))
            return true;
        return errno == ENOENT ? PosixFail(PLAT_ERROR_PATHNOTFOUND) : PosixFailErrno();
    });
}
catch (const std::bad_alloc&)
{
    return PosixFail(PLAT_ERROR_NOMEMORY);
}

static bool CreateFolder(const char16_t* a_wszPath, mode_t a_mode)
try
{
    std::string strPath;
    if (!PosixPath(a_wszPath, strPath))
        return false;
    if (mkdir(strPath.c_str(), a_mode) == 0)
        return true;
    if (errno == ENOENT && PosixMakeDrive(a_wszPath))
    {
        // The folder of the drive may have been what was asked for.
        struct stat status;
        if (stat(strPath.c_str(), &status) == 0 || mkdir(strPath.c_str(), a_mode) == 0)
            return true;
    }
    return errno == ENOENT ? PosixFail(PLAT_ERROR_PATHNOTFOUND) : PosixFailErrno();
}
catch (const std::bad_alloc&)
{
    return PosixFail(PLAT_ERROR_NOMEMORY);
}

bool PlatFolderCreate(const char16_t* a_wszPath)
{
    return CreateFolder(a_wszPath, 0777);
}

bool PlatFolderCreatePrivate(const char16_t* a_wszPath)
{
    return CreateFolder(a_wszPath, 0700);
}

bool PosixDeleteFolder(int a_iFolder, const char* a_szName)
{
    if (unlinkat(a_iFolder, a_szName, AT_REMOVEDIR) == 0)
        return true;
    const int iErrno = errno;
    struct stat status;
    if (iErrno == EEXIST)
        return PosixFail(PLAT_ERROR_DIRNOTEMPTY);
    if (iErrno == ENOTDIR && fstatat(a_iFolder, a_szName, &status, AT_SYMLINK_NOFOLLOW) == 0)
        return PosixFail(PLAT_ERROR_DIRECTORY);
    errno = iErrno;
    return PosixFailPath(a_szName);
}
