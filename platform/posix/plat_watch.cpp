// plat_watch.cpp: changes of a folder's entries, as the system's own queue of them.
#include "plat_watch.h"

#include "plat_posix_file.h"

#include <cerrno>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <sys/inotify.h>

static constexpr uint32_t g_u32Modified = IN_MODIFY | IN_ATTRIB | IN_CLOSE_WRITE;
static constexpr uint32_t g_u32Gone = IN_DELETE_SELF | IN_MOVE_SELF;   // of the folder

static void FailWatch(const std::string& a_strFolder)
{
    if (errno == ENOSPC)   // the limit of watches, not of the disk
    {
        PosixFail(PLAT_ERROR_TOOMANYOPEN);
    }
    else if (errno == ENOTDIR)
    {
        PosixFail(PLAT_ERROR_DIRECTORY);
    }
    else
    {
        PosixFailPath(a_strFolder);
    }
}

PlatHandle PlatWatchCreate(const char16_t* a_wszFolder)
try
{
    std::string strFolder;
    if (!PosixPath(a_wszFolder, strFolder))
        return PLAT_INVALID;
    PosixDescriptor posixdescriptor(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    if (!posixdescriptor.IsOpen())
    {
        PosixFailErrno();
        return PLAT_INVALID;
    }
    constexpr uint32_t u32Mask =
        IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | g_u32Modified | g_u32Gone | IN_EXCL_UNLINK;
    if (inotify_add_watch(posixdescriptor.Get(), strFolder.c_str(), u32Mask | IN_ONLYDIR) >= 0)
        return PosixMakeHandle(PosixKind::Watch, posixdescriptor.Release());
    FailWatch(strFolder);
    return PLAT_INVALID;
}
catch (const std::bad_alloc&)
{
    PosixFail(PLAT_ERROR_NOMEMORY);
    return PLAT_INVALID;
}

enum class Taken
{
    Event,
    Nothing,
    Gone,
};

// Takes one event off the queue and no more, so that the queue alone says whether there is something to report. A
// name is padded in steps as large as the event itself: the smallest buffer that is not refused holds one event.
static Taken TakeEvent(int a_iDescriptor, char* a_pchEvent, size_t a_sizetEvent)
{
    for (size_t sizet = sizeof(inotify_event); sizet <= a_sizetEvent; sizet += sizeof(inotify_event))
    {
        ssize_t ssizet = 0;
        do
        {
            ssizet = read(a_iDescriptor, a_pchEvent, sizet);
        } while (ssizet < 0 && errno == EINTR);
        if (ssizet >= 0)
            return ssizet ? Taken::Event : Taken::Gone;
        if (errno != EINVAL)
            break;
    }
    return Taken::Nothing;
}

// Puts something that is always ready and always empty in the place of the queue.
static void StayReady(int a_iDescriptor)
{
    const PosixDescriptor posixdescriptor(open("/dev/null", O_RDONLY | O_CLOEXEC));
    if (posixdescriptor.IsOpen())
        dup3(posixdescriptor.Get(), a_iDescriptor, O_CLOEXEC);
}

static PlatWatchAction ActionOf(uint32_t a_u32Mask)
{
    if (a_u32Mask & IN_CREATE)
        return PLAT_WATCH_ADDED;
    if (a_u32Mask & IN_DELETE)
        return PLAT_WATCH_REMOVED;
    if (a_u32Mask & IN_MOVED_FROM)
        return PLAT_WATCH_OLDNAME;
    return a_u32Mask & IN_MOVED_TO ? PLAT_WATCH_NEWNAME : PLAT_WATCH_MODIFIED;
}

bool PlatWatchRead(PlatHandle a_plathandle, PlatWatchChange* a_pplatwatchchange)
{
    if (PosixKindOf(a_plathandle) != PosixKind::Watch)
        return PosixFail(PLAT_ERROR_INVALIDHANDLE);
    const int iDescriptor = PosixDescriptorOf(a_plathandle);
    for (;;)
    {
        alignas(inotify_event) char achEvent[sizeof(inotify_event) + NAME_MAX + 1];
        const Taken taken = TakeEvent(iDescriptor, achEvent, sizeof achEvent);
        if (taken == Taken::Nothing)
            return PosixFailErrno();
        if (taken == Taken::Gone)
            return PosixFail(PLAT_ERROR_PATHNOTFOUND);

        inotify_event inotifyevent;
        memcpy(&inotifyevent, achEvent, sizeof inotifyevent);
        const uint32_t u32Error = PlatGetLastError();
        if (inotifyevent.mask & (g_u32Gone | IN_IGNORED | IN_UNMOUNT))
        {
            StayReady(iDescriptor);
            return PosixFail(PLAT_ERROR_PATHNOTFOUND);
        }
        const char* szName = inotifyevent.len ? achEvent + sizeof inotifyevent : "";
        const bool blNamed = PosixToWide(szName, a_pplatwatchchange->wszName, PLAT_PATHMAX);
        PlatSetLastError(u32Error);
        if (!(inotifyevent.mask & IN_Q_OVERFLOW) && (!*szName || !blNamed))
            continue;
        a_pplatwatchchange->platwatchaction = ActionOf(inotifyevent.mask);
        a_pplatwatchchange->blWriting =
            (inotifyevent.mask & (IN_MODIFY | IN_CREATE)) != 0 && !(inotifyevent.mask & IN_ISDIR);
        return true;
    }
}
