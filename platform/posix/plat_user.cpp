// plat_user.cpp: the process's user, whose a file is, and threads that act as another user.
//
// The kernel keeps users, groups and capabilities for each thread; it is the C library that sets them for all threads
// at once, so the calls here go past it. A thread that acts keeps the process's real and saved user: these decide who
// may send it signals or look into its memory, and they tell on each thread whose process it is.
#include "plat_user.h"
#include "plat_posix_file.h"

#include <algorithm>
#include <cstdlib>
#include <fcntl.h>
#include <iterator>
#include <linux/capability.h>
#include <new>
#include <sys/fsuid.h>
#include <sys/syscall.h>
#include <unistd.h>

// --------------------------------------------------------------------------------------------------- whose it is

uint64_t PlatUserId()
{
    uid_t uidReal = 0;
    uid_t uidEffective = 0;
    uid_t uidSaved = 0;
    getresuid(&uidReal, &uidEffective, &uidSaved);
    return uidSaved;
}

// The user that stands for those whom this process has no number for.
static uint32_t OverflowUser()
{
    constexpr uint32_t u32Usual = 65534;
    char szNumber[16];
    const PosixDescriptor posixdescriptor(open("/proc/sys/kernel/overflowuid", O_RDONLY | O_CLOEXEC));
    const ssize_t ssizet = posixdescriptor.IsOpen() ? read(posixdescriptor.Get(), szNumber, sizeof szNumber - 1) : 0;
    szNumber[std::max<ssize_t>(ssizet, 0)] = '\0';
    return *szNumber ? static_cast<uint32_t>(strtoul(szNumber, nullptr, 10)) : u32Usual;
}

PlatOwner PosixOwnerOf(uint32_t a_u32User)
{
    static const uint32_t g_u32OverflowUser = OverflowUser();
    if (a_u32User == g_u32OverflowUser)
        return PLAT_OWNER_OTHER;
    if (a_u32User == PlatUserId())
        return PLAT_OWNER_SAME;
    return a_u32User == 0 ? PLAT_OWNER_SYSTEM : PLAT_OWNER_OTHER;
}

// Where a file has an access list, the group's bits are the most that anybody on the list may do.
bool PosixOthersWrite(const struct stat& a_status)
{
    return (a_status.st_mode & (S_IWGRP | S_IWOTH)) != 0;
}

static bool TellOwner(const struct stat& a_status, PlatFileOwned* a_pplatfileowned)
{
    *a_pplatfileowned = {PosixOwnerOf(a_status.st_uid), a_status.st_uid, PosixOthersWrite(a_status)};
    return true;
}

bool PlatFileOwner(PlatHandle a_plathandle, PlatFileOwned* a_pplatfileowned)
{
    const int iDescriptor = PosixFileDescriptor(a_plathandle, 0);
    struct stat status;
    if (iDescriptor < 0)
        return false;
    return fstat(iDescriptor, &status) == 0 ? TellOwner(status, a_pplatfileowned) : PosixFailErrno();
}

// -------------------------------------------------------------------------------------------- acting as another

namespace
{
constexpr uid_t g_uidKeep = static_cast<uid_t>(-1);
constexpr gid_t g_gidKeep = static_cast<gid_t>(-1);

// Decides what the user of a process may do to its threads, and what the kernel's settings admit. It must be neither
// the system's user nor him, so it is a number that no account gets.
constexpr uid_t g_uidUnused = static_cast<uid_t>(-2);

struct Capabilities
{
    __user_cap_data_struct adata[_LINUX_CAPABILITY_U32S_3];
};
static_assert(CAP_SETUID < 32 && CAP_SETGID < 32);

// What a thread may do, to be given back.
struct Rights
{
    gid_t gidEffective;
    std::vector<gid_t> vecgidGroups;
    Capabilities capabilities;
};
}   // namespace

static bool GetCapabilities(Capabilities& a_capabilities)
{
    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    return syscall(SYS_capget, &header, a_capabilities.adata) == 0;
}

static bool SetCapabilities(const Capabilities& a_capabilities)
{
    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    return syscall(SYS_capset, &header, a_capabilities.adata) == 0;
}

static bool SetGroups(const std::vector<gid_t>& a_vecgid)
{
    return syscall(SYS_setgroups, a_vecgid.size(), a_vecgid.data()) == 0;
}

static bool GetRights(Rights& a_rights)
{
    a_rights.gidEffective = getegid();
    const int iGroups = getgroups(0, nullptr);
    a_rights.vecgidGroups.resize(static_cast<size_t>(std::max(iGroups, 0)));
    return iGroups >= 0 && getgroups(iGroups, a_rights.vecgidGroups.data()) == iGroups &&
           GetCapabilities(a_rights.capabilities);
}

static void GiveBack(const Rights& a_rights)
{
    syscall(SYS_setresuid, g_uidKeep, 0, g_uidKeep);   // which gives the capabilities back that the next two need
    syscall(SYS_setresgid, g_gidKeep, a_rights.gidEffective, g_gidKeep);
    SetGroups(a_rights.vecgidGroups);
    SetCapabilities(a_rights.capabilities);
}

// What the kernel takes away with the system's user, one capability is needed of once more.
static bool TakeFileUser(uid_t a_uid, const Capabilities& a_capabilities)
{
    Capabilities capabilities = a_capabilities;
    for (auto& data : capabilities.adata)
        data.effective = 0;
    capabilities.adata[0].effective = a_capabilities.adata[0].effective & (1u << CAP_SETUID);
    if (!SetCapabilities(capabilities))
        return false;
    setfsuid(a_uid);
    return true;
}

// Those calls that say nothing are asked what they did.
static bool ActsAs(uid_t a_uid, gid_t a_gid)
{
    return static_cast<uid_t>(setfsuid(g_uidKeep)) == a_uid && static_cast<gid_t>(setfsgid(g_gidKeep)) == a_gid &&
           geteuid() != 0 && getegid() == a_gid && getgroups(0, nullptr) == 0;
}

static bool DropCapabilities()
{
    Capabilities capabilities = {};
    if (!SetCapabilities(capabilities) || !GetCapabilities(capabilities))
        return false;
    return std::all_of(std::begin(capabilities.adata), std::end(capabilities.adata),
                       [](const auto& data) { return (data.effective | data.permitted | data.inheritable) == 0; });
}

static bool ActAs(uid_t a_uid, gid_t a_gid, const Capabilities& a_capabilities)
{
    return SetGroups({}) && syscall(SYS_setresgid, g_gidKeep, a_gid, g_gidKeep) == 0 &&
           (syscall(SYS_setresuid, g_uidKeep, g_uidUnused, g_uidKeep) == 0 ||
            syscall(SYS_setresuid, g_uidKeep, a_uid, g_uidKeep) == 0) &&
           TakeFileUser(a_uid, a_capabilities) && ActsAs(a_uid, a_gid) && DropCapabilities();
}

bool PlatUserActAs(uint64_t a_u64User)
try
{
    if (a_u64User == 0 || a_u64User >= g_uidUnused)
        return PosixFail(PLAT_ERROR_INVALIDPARAMETER);
    const auto uid = static_cast<uid_t>(a_u64User);
    Rights rights;
    if (geteuid() != 0 || !GetRights(rights))
        return PosixFail(PLAT_ERROR_ACCESSDENIED);
    if (ActAs(uid, PosixPrimaryGroup(uid), rights.capabilities))
        return true;
    GiveBack(rights);
    return PosixFail(PLAT_ERROR_ACCESSDENIED);
}
catch (const std::bad_alloc&)
{
    return PosixFail(PLAT_ERROR_NOMEMORY);
}
