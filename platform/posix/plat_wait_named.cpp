// plat_wait_named.cpp: events with a name.
//
// A named event is a FIFO in a folder that every user of the machine shares. It exists as long as somebody holds a
// shared lock on it, which every opener does and which the kernel takes back from a process that was killed. The
// exclusive lock, taken without waiting, tells an opener that it is the first and a closer that it is the last.
// Whoever holds a lock looks whether the path still names the FIFO, for the last closer unlinks it.
//
// A FIFO without a holder is a leftover: it holds no signal, since the kernel drops its bytes with the last
// descriptor, and the next opener takes it over as if it had made it.
#include "plat_posix.h"
#include "plat_wait.h"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <limits.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

// ---------------------------------------------------------------------------------------------------------- paths

// A component of a path holds 255 bytes; a longer name goes on in a folder whose name ends in "+".
static constexpr size_t g_sizetComponent = 200;

static bool IsPlain(char a_ch)
{
    return (a_ch >= 'a' && a_ch <= 'z') || (a_ch >= 'A' && a_ch <= 'Z') || (a_ch >= '0' && a_ch <= '9') ||
           a_ch == '_' || a_ch == '-' || (a_ch & 0x80) != 0;
}

// Any text as the name of a file, and different texts as different names: of ASCII, what is neither letter, digit,
// "_" nor "-" is written as "%" and two digits.
static std::string FileNameOf(const std::string& a_strName)
{
    std::string strFile;
    size_t sizetComponent = 0;
    for (const char ch : a_strName)
    {
        if (sizetComponent >= g_sizetComponent)
        {
            strFile += "+/";
            sizetComponent = 0;
        }
        char szEscaped[4] = {ch};
        if (!IsPlain(ch))
            snprintf(szEscaped, sizeof szEscaped, "%%%02X", static_cast<unsigned char>(ch));
        strFile += szEscaped;
        sizetComponent += strlen(szEscaped);
    }
    return strFile;
}

static std::string Root()
{
    std::string strRoot;
    return PosixEnvGet("MVR_EVENTROOT", strRoot) ? strRoot : "/dev/shm/mvr.events";
}

static bool PathOf(const char16_t* a_wszName, std::string& a_strPath)
{
    std::string strName;
    if (!PosixToUtf8(a_wszName, strName))
        return false;
    if (strName.empty())
        return PosixFail(PLAT_ERROR_INVALIDNAME);
    a_strPath = Root() + "/" + FileNameOf(strName);
    return a_strPath.size() < PATH_MAX || PosixFail(PLAT_ERROR_INVALIDNAME);
}

// Makes the folders above a path; from the root of the events on, they are open to everybody like the FIFO in them.
static bool MakeFolders(const std::string& a_strPath)
{
    const size_t sizetRoot = Root().size();
    for (size_t sizetEnd = a_strPath.find('/', 1); sizetEnd != std::string::npos;
         sizetEnd = a_strPath.find('/', sizetEnd + 1))
    {
        const std::string strFolder = a_strPath.substr(0, sizetEnd);
        const bool blMade = mkdir(strFolder.c_str(), 0777) == 0;
        if (!blMade && errno != EEXIST)
            return PosixFailErrno();
        if (blMade && sizetEnd >= sizetRoot && chmod(strFolder.c_str(), 01777) != 0)
            return PosixFailErrno();
    }
    return true;
}

// Puts a FIFO at the path, unless there is one already. It is made under another name, so that nobody finds it
// before everybody may open it.
static bool MakeFifo(const std::string& a_strPath)
{
    static std::atomic<uint32_t> g_u32Made{0};
    const std::string strFolder = a_strPath.substr(0, a_strPath.rfind('/') + 1);
    std::string strMade;
    do
    {
        strMade = strFolder + "." + std::to_string(getpid()) + "." + std::to_string(++g_u32Made);
    } while (mkfifo(strMade.c_str(), 0666) != 0 && errno == EEXIST);

    const bool blMade = chmod(strMade.c_str(), 0666) == 0 &&   // the process's umask has taken from it
                        (link(strMade.c_str(), a_strPath.c_str()) == 0 || errno == EEXIST);
    const int iError = errno;
    unlink(strMade.c_str());
    return blMade || PosixFail(PosixTranslate(iError));
}

// ---------------------------------------------------------------------------------------------------------- locks

static bool Lock(int a_iFifo, int a_iOperation)
{
    return PosixRetry([&] { return flock(a_iFifo, a_iOperation); }) == 0;
}

static bool IsStillNamed(int a_iFifo, const char* a_szPath)
{
    struct stat statFifo = {};
    struct stat statPath = {};
    return fstat(a_iFifo, &statFifo) == 0 && lstat(a_szPath, &statPath) == 0 && statFifo.st_dev == statPath.st_dev &&
           statFifo.st_ino == statPath.st_ino;
}

enum class Join
{
    Joined,
    Gone,   // its last holder has unlinked it meanwhile
    Failed,
};

// Joins the holders of an open FIFO.
static Join JoinHolders(int a_iFifo, const std::string& a_strPath, bool* a_pblExisted)
{
    struct stat statFifo = {};
    if (fstat(a_iFifo, &statFifo) != 0 || !S_ISFIFO(statFifo.st_mode))
    {
        PlatSetLastError(PLAT_ERROR_INVALIDHANDLE);
        return Join::Failed;
    }
    *a_pblExisted = !Lock(a_iFifo, LOCK_EX | LOCK_NB);
    if (!*a_pblExisted)
    {
        fcntl(a_iFifo, F_SETPIPE_SZ, PosixEventRoom);
        PosixDrainEvent(a_iFifo);
    }
    if (!Lock(a_iFifo, LOCK_SH))
    {
        PosixFailErrno();
        return Join::Failed;
    }
    return IsStillNamed(a_iFifo, a_strPath.c_str()) ? Join::Joined : Join::Gone;
}

// --------------------------------------------------------------------------------------------------- open and close

int PosixOpenNamedEvent(const char16_t* a_wszName, bool* a_pblExisted)
{
    std::string strPath;
    if (!PathOf(a_wszName, strPath))
        return -1;
    for (;;)
    {
        const int iFifo = open(strPath.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC | O_NOFOLLOW);
        if (iFifo < 0 && errno != ENOENT)
        {
            PosixFailErrno();
            return -1;
        }
        if (iFifo < 0)
        {
            if (!MakeFolders(strPath) || !MakeFifo(strPath))
                return -1;
            continue;
        }
        const Join join = JoinHolders(iFifo, strPath, a_pblExisted);
        if (join == Join::Joined)
            return iFifo;
        close(iFifo);
        if (join == Join::Failed)
            return -1;
    }
}

bool PosixCloseNamedEvent(PlatHandle a_plathandle)
{
    const int iFifo = PosixDescriptorOf(a_plathandle);
    // A lock that is refused takes the shared one with it, which is as well: of two closers the second is the last.
    if (Lock(iFifo, LOCK_EX | LOCK_NB))
    {
        char szPath[PATH_MAX];
        const std::string strLink = "/proc/self/fd/" + std::to_string(iFifo);
        const ssize_t ssizetPath = readlink(strLink.c_str(), szPath, sizeof szPath - 1);
        szPath[ssizetPath > 0 ? ssizetPath : 0] = 0;
        if (IsStillNamed(iFifo, szPath))
            unlink(szPath);
    }
    return close(iFifo) == 0 || PosixFailErrno();
}
