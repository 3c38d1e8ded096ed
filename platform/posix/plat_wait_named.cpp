// plat_wait_named.cpp: events with a name.
//
// A named event is a FIFO in a folder that every user of the machine may make names in: root's own, sticky /dev/shm, or
// the folder that MVR_EVENTROOT names, which must be root's or ours. It exists as long as somebody holds a shared lock
// on it, which every opener does and which the kernel takes back from a process that was killed. The exclusive lock,
// taken without waiting, tells an opener that it is the first and a closer that it is the last. Whoever holds a lock
// looks whether the name still means the FIFO, for the last closer unlinks it.
//
// A FIFO without a holder is a leftover: it holds no signal, since the kernel drops its bytes with the last
// descriptor, and the next opener takes it over as if it had made it.
//
// Others may write to the folder. So nothing in it is ever changed by its name: it is opened without following a link,
// looked at and changed as what is open, and found again by the open folder.
#include "plat_posix.h"
#include "plat_posix_file.h"
#include "plat_system.h"
#include "plat_wait.h"

#include <atomic>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <limits.h>
#include <new>
#include <pthread.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

// The longest wait for a lock, which others hold for a few system calls.
static constexpr uint32_t g_u32LockTimeout = 2000;

static constexpr mode_t g_modeEvent = 0666;     // every user may open it
static constexpr mode_t g_modeFolder = 01777;   // and make names, of which each is its maker's

// ---------------------------------------------------------------------------------------------------------- names

static constexpr char g_szPrefix[] = "mvr.event.";

// The name of a file holds 255 bytes; of a longer name, what follows is told by a hash. It keeps names apart that
// nobody has made alike on purpose, who could as well use the same name.
static constexpr size_t g_sizetReadable = 200;

static bool IsPlain(char a_ch)
{
    return (a_ch >= 'a' && a_ch <= 'z') || (a_ch >= 'A' && a_ch <= 'Z') || (a_ch >= '0' && a_ch <= '9') ||
           a_ch == '_' || a_ch == '-' || (a_ch & 0x80) != 0;
}

static uint64_t HashOf(const std::string& a_strText)
{
    uint64_t u64Hash = 14695981039346656037u;   // FNV-1a
    for (const char ch : a_strText)
        u64Hash = (u64Hash ^ static_cast<unsigned char>(ch)) * 1099511628211u;
    return u64Hash;
}

// Any text as the name of a file, and different texts as different names: of ASCII, what is neither letter, digit,
// "_" nor "-" is written as "%" and two digits.
static std::string FileNameOf(const std::string& a_strName)
{
    std::string strFile = g_szPrefix;
    for (const char ch : a_strName)
    {
        if (strFile.size() >= g_sizetReadable)
        {
            char szHash[24];
            snprintf(szHash, sizeof szHash, "+%016" PRIx64, HashOf(a_strName));
            return strFile + szHash;
        }
        char szEscaped[4] = {ch};
        if (!IsPlain(ch))
            snprintf(szEscaped, sizeof szEscaped, "%%%02X", static_cast<unsigned char>(ch));
        strFile += szEscaped;
    }
    return strFile;
}

// ------------------------------------------------------------------------------------------------------ the folder

// Opens a folder of events, if it is root's or ours. -1 with the last error otherwise.
static int OpenFolder(const std::string& a_strFolder)
{
    PosixDescriptor posixdescriptor(open(a_strFolder.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat status = {};
    if (!posixdescriptor.IsOpen() || fstat(posixdescriptor.Get(), &status) != 0)
    {
        PosixFailErrno();
        return -1;
    }
    if (status.st_uid != 0 && status.st_uid != geteuid())
    {
        PosixFail(PLAT_ERROR_ACCESSDENIED);
        return -1;
    }
    return posixdescriptor.Release();
}

// Makes the folder that MVR_EVENTROOT names, with those above it.
static int MakeFolder(const std::string& a_strFolder)
{
    for (size_t sizetEnd = a_strFolder.find('/', 1); sizetEnd != std::string::npos;
         sizetEnd = a_strFolder.find('/', sizetEnd + 1))
        mkdir(a_strFolder.substr(0, sizetEnd).c_str(), 0777);
    const bool blMade = mkdir(a_strFolder.c_str(), 0777) == 0;
    const int iFolder = OpenFolder(a_strFolder);
    if (blMade && iFolder >= 0)
        fchmod(iFolder, g_modeFolder);   // the process's umask has taken from it
    return iFolder;
}

static int OpenRoot()
{
    std::string strRoot;
    if (!PosixEnvGet("MVR_EVENTROOT", strRoot))
        return OpenFolder("/dev/shm");
    PosixTrimPath(strRoot);
    const int iFolder = OpenFolder(strRoot);
    return iFolder >= 0 || PlatGetLastError() != PLAT_ERROR_FILENOTFOUND ? iFolder : MakeFolder(strRoot);
}

// ---------------------------------------------------------------------------------------------------------- the FIFO

static std::string LinkOf(int a_iDescriptor)
{
    return "/proc/self/fd/" + std::to_string(a_iDescriptor);
}

// Opens for everybody what this process has just made under that name, and gives it its own, unless that is taken.
static bool Publish(int a_iFolder, const std::string& a_strMade, const std::string& a_strName)
try
{
    const PosixDescriptor posixdescriptor(openat(a_iFolder, a_strMade.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    struct stat status = {};
    if (!posixdescriptor.IsOpen() || fstat(posixdescriptor.Get(), &status) != 0)
        return PosixFailErrno();
    if (!S_ISFIFO(status.st_mode) || status.st_uid != geteuid())
        return PosixFail(PLAT_ERROR_ACCESSDENIED);
    const std::string strLink = LinkOf(posixdescriptor.Get());
    return (chmod(strLink.c_str(), g_modeEvent) == 0 &&   // the umask again
            (linkat(AT_FDCWD, strLink.c_str(), a_iFolder, a_strName.c_str(), AT_SYMLINK_FOLLOW) == 0 ||
             errno == EEXIST)) ||
           PosixFailErrno();
}
catch (const std::bad_alloc&)
{
    return PosixFail(PLAT_ERROR_NOMEMORY);
}

// Makes a FIFO of the name, unless there is one already. It is made under another name, so that nobody finds it before
// everybody may open it.
static bool MakeFifo(int a_iFolder, const std::string& a_strName)
{
    static std::atomic<uint32_t> g_u32Made{0};
    std::string strMade;
    do
    {
        strMade = g_szPrefix + std::to_string(getpid()) + "." + std::to_string(++g_u32Made);
        if (mkfifoat(a_iFolder, strMade.c_str(), 0600) == 0)
        {
            const bool blMade = Publish(a_iFolder, strMade, a_strName);
            unlinkat(a_iFolder, strMade.c_str(), 0);
            return blMade;
        }
    } while (errno == EEXIST);
    return PosixFailErrno();
}

static bool Lock(int a_iFifo, int a_iOperation)
{
    return PosixRetry([&] { return flock(a_iFifo, a_iOperation | LOCK_NB); }) == 0;
}

static bool IsStillNamed(int a_iFifo, int a_iFolder, const char* a_szName)
{
    struct stat statFifo = {};
    struct stat statName = {};
    return fstat(a_iFifo, &statFifo) == 0 && fstatat(a_iFolder, a_szName, &statName, AT_SYMLINK_NOFOLLOW) == 0 &&
           statFifo.st_dev == statName.st_dev && statFifo.st_ino == statName.st_ino;
}

// Only what was made as an event is one: a FIFO that everybody may open.
static bool IsEventFifo(int a_iFifo)
{
    struct stat status = {};
    return fstat(a_iFifo, &status) == 0 && S_ISFIFO(status.st_mode) && (status.st_mode & g_modeEvent) == g_modeEvent;
}

// Joins the holders of an open FIFO, at the latest at that time. False when somebody keeps everybody out.
static bool JoinHolders(int a_iFifo, uint64_t a_u64End, bool* a_pblExisted)
{
    *a_pblExisted = !Lock(a_iFifo, LOCK_EX);
    if (!*a_pblExisted)
    {
        fcntl(a_iFifo, F_SETPIPE_SZ, PosixEventRoom);
        PosixDrainEvent(a_iFifo);
    }
    while (!Lock(a_iFifo, LOCK_SH))
    {
        if (errno != EWOULDBLOCK)
            return PosixFailErrno();
        if (PlatTicks() >= a_u64End)
            return PosixFail(PLAT_ERROR_LOCK);
        PlatSleep(1);
    }
    return true;
}

// --------------------------------------------------------------------------------------------------- open and close

enum class Join
{
    Joined,
    Again,   // made just now, or unlinked by its last holder meanwhile
    Failed,
};

// Opens the FIFO of a name and joins its holders, or makes it.
static Join OpenFifo(int a_iFolder, const std::string& a_strName, uint64_t a_u64End, PosixDescriptor& a_posixdescriptor,
                     bool* a_pblExisted)
{
    // Others' FIFOs may be opened, but not with the wish to create them.
    PosixDescriptor posixdescriptor(openat(a_iFolder, a_strName.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC | O_NOFOLLOW));
    if (!posixdescriptor.IsOpen())
    {
        const bool blMade = errno == ENOENT ? MakeFifo(a_iFolder, a_strName) : PosixFailErrno();
        return blMade ? Join::Again : Join::Failed;
    }
    const int iFifo = posixdescriptor.Get();
    if (!IsEventFifo(iFifo) && !PosixFail(PLAT_ERROR_INVALIDHANDLE))
        return Join::Failed;
    if (!JoinHolders(iFifo, a_u64End, a_pblExisted))
        return Join::Failed;
    if (!IsStillNamed(iFifo, a_iFolder, a_strName.c_str()))
        return Join::Again;
    a_posixdescriptor.Take(posixdescriptor.Release());
    return Join::Joined;
}

int PosixOpenNamedEvent(const char16_t* a_wszName, bool* a_pblExisted)
try
{
    std::string strText;
    if (!PosixToUtf8(a_wszName, strText) || (strText.empty() && !PosixFail(PLAT_ERROR_INVALIDNAME)))
        return -1;
    const std::string strName = FileNameOf(strText);
    const PosixDescriptor posixdescriptorFolder(OpenRoot());
    if (!posixdescriptorFolder.IsOpen())
        return -1;

    PosixDescriptor posixdescriptor;
    const uint64_t u64End = PlatTicks() + g_u32LockTimeout;
    Join join = Join::Again;
    while (join == Join::Again && PlatTicks() <= u64End)
        join = OpenFifo(posixdescriptorFolder.Get(), strName, u64End, posixdescriptor, a_pblExisted);
    if (join == Join::Again)
        PosixFail(PLAT_ERROR_LOCK);
    return posixdescriptor.Release();
}
catch (const std::bad_alloc&)
{
    PosixFail(PLAT_ERROR_NOMEMORY);
    return -1;
}

// How many forks lead to this process, as a handle carries it. What a child has got by a fork it shares with its
// parent, the lock included, and leaves to it.
static std::atomic<PlatHandle> g_atomicForks{0};

PlatHandle PosixNamedEventOwner()
{
    [[maybe_unused]] static const int g_iHooked =
        pthread_atfork(nullptr, nullptr, [] { g_atomicForks += PlatHandle{1} << 56; });
    return g_atomicForks;
}

// Takes the name of a FIFO away, wherever it is by now. One that stays for want of memory is in nobody's way.
static void Unlink(int a_iFifo)
try
{
    char szPath[PATH_MAX];
    const ssize_t ssizetPath = readlink(LinkOf(a_iFifo).c_str(), szPath, sizeof szPath);
    const std::string strPath(szPath, ssizetPath > 0 ? static_cast<size_t>(ssizetPath) : 0);
    const size_t sizetName = strPath.rfind('/') + 1;
    const std::string strName = strPath.substr(sizetName);
    if (!strName.starts_with(g_szPrefix))
        return;
    const PosixDescriptor posixdescriptor(OpenFolder(strPath.substr(0, sizetName - 1)));
    if (posixdescriptor.IsOpen() && IsStillNamed(a_iFifo, posixdescriptor.Get(), strName.c_str()))
        unlinkat(posixdescriptor.Get(), strName.c_str(), 0);
}
catch (const std::bad_alloc&)
{
}

bool PosixCloseNamedEvent(PlatHandle a_plathandle)
{
    const int iFifo = PosixDescriptorOf(a_plathandle);
    const bool blOurs = (a_plathandle >> 56) == (PosixNamedEventOwner() >> 56);
    // A lock that is refused takes the shared one with it, which is as well: of two closers the second is the last.
    if (blOurs && Lock(iFifo, LOCK_EX))
        Unlink(iFifo);
    return close(iFifo) == 0 || PosixFailErrno();
}
