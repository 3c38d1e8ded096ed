// plat_file_replace.cpp: a complete file takes the place of another in one step: what must be like the old one, the new
// file beside it, the exchange of the name, a file where there was none.
#include "plat_posix_file.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <iterator>
#include <new>
#include <string_view>
#include <sys/xattr.h>

// ----------------------------------------------------------------------------------------------- folder and name

namespace
{
// Fails with what errno says; what only keeps a new file from taking the place is one error (5).
bool Refuse()
{
    static constexpr int g_aiRefusal[] = {EACCES, EPERM, EROFS, EEXIST, EBUSY, ENAMETOOLONG, EINVAL, EOPNOTSUPP};
    const bool blRefusal = std::find(std::begin(g_aiRefusal), std::end(g_aiRefusal), errno) != std::end(g_aiRefusal);
    return blRefusal ? PosixFail(PLAT_ERROR_ACCESSDENIED) : PosixFailErrno();
}

// Where the file itself lies, behind all links: its folder, held open, and its name there.
struct Place
{
    PosixDescriptor posixdescriptorFolder;
    std::string strName;
};

bool FindPlace(const std::string& a_strPath, Place& a_place)
{
    char szReal[PATH_MAX];
    if (!realpath(a_strPath.c_str(), szReal))
        return PosixFailPath(a_strPath);
    std::string_view strviewFolder;
    a_place.strName = PosixSplitPath(szReal, strviewFolder);
    a_place.posixdescriptorFolder.Take(open(std::string(strviewFolder).c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    return a_place.posixdescriptorFolder.IsOpen() || PosixFailErrno();
}

bool IsStillThere(const Place& a_place, const struct stat& a_status)
{
    struct stat status;
    const int iFolder = a_place.posixdescriptorFolder.Get();
    const bool blThere = fstatat(iFolder, a_place.strName.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
                         status.st_dev == a_status.st_dev && status.st_ino == a_status.st_ino;
    return blThere || PosixFail(PLAT_ERROR_FILENOTFOUND);
}

// --------------------------------------------------------------------------------------------------- the new file

// An access list, or whatever else somebody has attached to the file. The security modules label a new file themselves.
bool HasAttributes(int a_iDescriptor)
{
    char achNames[4096];
    const ssize_t ssizetNames = flistxattr(a_iDescriptor, achNames, sizeof achNames);
    if (ssizetNames < 0)
        return errno == ERANGE;
    for (const char* sz = achNames; sz < achNames + ssizetNames; sz += strlen(sz) + 1)
    {
        if (!std::string_view(sz).starts_with("security."))
            return true;
    }
    return false;
}

bool WriteWhole(int a_iDescriptor, const void* a_pvBuffer, size_t a_sizetBytes)
{
    const char* pch = static_cast<const char*>(a_pvBuffer);
    while (a_sizetBytes)
    {
        const ssize_t ssizet = PosixRetry([&] { return write(a_iDescriptor, pch, a_sizetBytes); });
        if (ssizet <= 0)
            return ssizet < 0 ? PosixFailErrno() : PosixFail(PLAT_ERROR_DISKFULL);
        pch += ssizet;
        a_sizetBytes -= static_cast<size_t>(ssizet);
    }
    return true;
}

// The name under which a new file comes about. There is one for each file, so that what a killed process leaves is gone
// with the next exchange.
std::string NameOfNew(const std::string& a_strName)
{
    return "." + a_strName + ".new";
}

// As long as it exists, the new file beside the old one. Without an exchange it goes again.
class NewFile
{
public:
    explicit NewFile(const Place& a_place) : m_place(a_place), m_strName(NameOfNew(a_place.strName)) {}
    ~NewFile()
    {
        if (m_posixdescriptor.IsOpen() && !m_blExchanged)
            unlinkat(Folder(), m_strName.c_str(), 0);
    }
    NewFile(const NewFile&) = delete;
    NewFile& operator=(const NewFile&) = delete;

    bool Make(const struct stat& a_statusOld);
    bool Fill(const void* a_pvBuffer, size_t a_sizetBytes) const
    {
        return WriteWhole(m_posixdescriptor.Get(), a_pvBuffer, a_sizetBytes);
    }
    bool Exchange()
    {
        m_blExchanged = renameat(Folder(), m_strName.c_str(), Folder(), m_place.strName.c_str()) == 0;
        return m_blExchanged || Refuse();
    }

private:
    int Folder() const { return m_place.posixdescriptorFolder.Get(); }

    const Place& m_place;
    const std::string m_strName;
    PosixDescriptor m_posixdescriptor;
    bool m_blExchanged = false;
};

// Changing the owner takes bits from the mode, so the mode comes last.
bool NewFile::Make(const struct stat& a_statusOld)
{
    constexpr int iFlags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
    unlinkat(Folder(), m_strName.c_str(), 0);
    m_posixdescriptor.Take(openat(Folder(), m_strName.c_str(), iFlags, 0600));
    struct stat status;
    const int iDescriptor = m_posixdescriptor.Get();
    if (!m_posixdescriptor.IsOpen() || fstat(iDescriptor, &status) != 0)
        return Refuse();
    const bool blOwner = status.st_uid == a_statusOld.st_uid && status.st_gid == a_statusOld.st_gid;
    return ((blOwner || fchown(iDescriptor, a_statusOld.st_uid, a_statusOld.st_gid) == 0) &&
            fchmod(iDescriptor, a_statusOld.st_mode & 07777) == 0) ||
           Refuse();
}

// --------------------------------------------------------------------------------------------------- the exchange

// Holds off, for the moment of the exchange, those who do not share deletion. A process that is being started holds a
// copy of every descriptor until its program runs: what was closed a moment ago may seem open for that long.
class ExchangeGuard
{
public:
    ExchangeGuard() = default;
    ~ExchangeGuard()
    {
        if (m_posixdescriptor.IsOpen())
            PosixShareDrop(m_posixdescriptor.Get());
    }
    ExchangeGuard(const ExchangeGuard&) = delete;
    ExchangeGuard& operator=(const ExchangeGuard&) = delete;

    bool Take(const Place& a_place)
    {
        constexpr PosixShareRequest posixsharerequest = {
            PLAT_ACCESS_NONE, PLAT_SHARE_READ | PLAT_SHARE_WRITE | PLAT_SHARE_DELETE, true, true};
        constexpr int iFlags = O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
        m_posixdescriptor.Take(openat(a_place.posixdescriptorFolder.Get(), a_place.strName.c_str(), iFlags));
        if (!m_posixdescriptor.IsOpen())
            return PosixFail(PLAT_ERROR_SHARING);
        for (PosixPatience posixpatience(5);;)
        {
            if (PosixShareTake(m_posixdescriptor.Get(), posixsharerequest) == PosixShare::Granted)
                return true;
            if (!posixpatience.Wait())
                return PosixFail(PLAT_ERROR_SHARING);
        }
    }

private:
    PosixDescriptor m_posixdescriptor;
};
}   // namespace

bool PlatFileReplace(PlatHandle a_plathandle, const char16_t* a_wszPath, const void* a_pvBuffer, size_t a_sizetBytes)
try
{
    struct stat status;
    std::string strPath;
    Place place;
    const int iDescriptor = PosixFileDescriptor(a_plathandle, POSIX_FILE_WRITE);
    if (iDescriptor < 0 || !PosixPath(a_wszPath, strPath))
        return false;
    if (fstat(iDescriptor, &status) != 0)
        return PosixFailErrno();
    if (!FindPlace(strPath, place) || !IsStillThere(place, status))
        return false;
    if (!S_ISREG(status.st_mode) || status.st_nlink != 1 || HasAttributes(iDescriptor))
        return PosixFail(PLAT_ERROR_ACCESSDENIED);

    NewFile newfile(place);
    ExchangeGuard exchangeguard;
    return newfile.Make(status) && newfile.Fill(a_pvBuffer, a_sizetBytes) && exchangeguard.Take(place) &&
           IsStillThere(place, status) && newfile.Exchange();
}
catch (const std::bad_alloc&)
{
    return PosixFail(PLAT_ERROR_NOMEMORY);
}

// ----------------------------------------------------------------------------------------- where there was none

// The file has no name until it is complete.
bool PlatFileCreateWhole(const char16_t* a_wszPath, const void* a_pvBuffer, size_t a_sizetBytes)
try
{
    std::string strPath;
    if (!PosixPath(a_wszPath, strPath))
        return false;
    std::string_view strviewFolder;
    PosixSplitPath(strPath, strviewFolder);
    const PosixDescriptor posixdescriptor(
        open(std::string(strviewFolder).c_str(), O_TMPFILE | O_WRONLY | O_CLOEXEC, 0666));
    if (!posixdescriptor.IsOpen())
        return PosixFailErrno();
    if (!WriteWhole(posixdescriptor.Get(), a_pvBuffer, a_sizetBytes))
        return false;
    char szLink[64];
    snprintf(szLink, sizeof szLink, "/proc/self/fd/%d", posixdescriptor.Get());
    if (linkat(AT_FDCWD, szLink, AT_FDCWD, strPath.c_str(), AT_SYMLINK_FOLLOW) == 0)
        return true;
    return errno == EEXIST ? PosixFail(PLAT_ERROR_ALREADYEXISTS) : PosixFailErrno();
}
catch (const std::bad_alloc&)
{
    return PosixFail(PLAT_ERROR_NOMEMORY);
}
