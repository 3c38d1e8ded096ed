// plat_user_test.cpp: whose a file is, and threads that act as another user.
#include "plat_file.h"
#include "plat_fork.h"
#include "plat_user.h"

#include <fcntl.h>
#include <grp.h>
#include <linux/capability.h>
#include <sched.h>
#include <sys/ptrace.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/xattr.h>

namespace fs = std::filesystem;

namespace
{
constexpr uid_t g_uidOther = 61234;   // needs no account
constexpr gid_t g_gidFurther = 61300;

bool BecomesOther()
{
    return setuid(g_uidOther) == 0;
}

// 0 or the last error of opening a file for reading or writing; a new one is made when it is to be written.
uint32_t OpenError(const std::string& a_strPath, uint32_t a_u32Access)
{
    const auto platdisposition =
        a_u32Access & PLAT_ACCESS_WRITE ? PLAT_DISPOSITION_OPENALWAYS : PLAT_DISPOSITION_OPENEXISTING;
    const PlatHandle plathandle =
        PlatFileOpen(Wide(a_strPath).c_str(), a_u32Access, PLAT_SHARE_READ | PLAT_SHARE_WRITE, platdisposition, 0);
    return plathandle != PLAT_INVALID && PlatClose(plathandle) ? 0 : PlatGetLastError();
}

class User : public FolderTest
{
protected:
    User() { fs::permissions(m_path, fs::perms{0755}); }

    std::string Make(const std::string& a_strName, mode_t a_mode, uid_t a_uid, gid_t a_gid)
    {
        const std::string strPath = PathOf(a_strName);
        WriteWhole(strPath, a_strName);
        EXPECT_EQ(chown(strPath.c_str(), a_uid, a_gid), 0);
        EXPECT_EQ(chmod(strPath.c_str(), a_mode), 0);
        return strPath;
    }
};

// As root, with one further group.
class ActingUser : public User
{
protected:
    void SetUp() override
    {
        if (geteuid() != 0 || setgroups(1, &g_gidFurther) != 0)
            GTEST_SKIP() << "only root can act as another user";
        Make("root", 0600, 0, 0);
        Make("further", 0640, 0, g_gidFurther);
        Make("his", 0600, g_uidOther, 0);
        fs::create_directory(PathOf("open"));
        fs::permissions(PathOf("open"), fs::perms::all);
    }

    uint32_t Read(const std::string& a_strName) const { return OpenError(PathOf(a_strName), PLAT_ACCESS_READ); }
    uint32_t Write(const std::string& a_strName) const { return OpenError(PathOf(a_strName), PLAT_ACCESS_WRITE); }

    void ExpectHisRights(const std::string& a_strNew)
    {
        EXPECT_EQ(Read("root"), PLAT_ERROR_ACCESSDENIED);
        EXPECT_EQ(Read("further"), PLAT_ERROR_ACCESSDENIED);
        EXPECT_EQ(Write("new"), PLAT_ERROR_ACCESSDENIED);
        EXPECT_FALSE(PlatFileDelete(Wide(PathOf("root")).c_str()));
        EXPECT_EQ(OpenError("/proc/sys/kernel/hostname", PLAT_ACCESS_WRITE), PLAT_ERROR_ACCESSDENIED);
        EXPECT_EQ(Write("his"), 0u);
        EXPECT_EQ(Write("open/" + a_strNew), 0u);
        struct stat status = {};
        EXPECT_EQ(stat(PathOf("open/" + a_strNew).c_str(), &status), 0);
        EXPECT_EQ(status.st_uid, g_uidOther);
        EXPECT_EQ(status.st_gid, g_uidOther);   // nobody has a group of this number
        EXPECT_EQ(PlatUserId(), 0u);
    }

    // Runs a procedure while a thread, whose number it receives, acts.
    template <class Procedure>
    static void WhileActing(Procedure a_procedure)
    {
        std::atomic<pid_t> pidThread{0};
        std::atomic<bool> blEnd{false};
        std::jthread jthread([&] {
            EXPECT_TRUE(PlatUserActAs(g_uidOther)) << PlatGetLastError();
            pidThread = gettid();
            EXPECT_TRUE(WaitFor([&] { return blEnd.load(); }));
        });
        EXPECT_TRUE(WaitFor([&] { return pidThread.load() != 0; }));
        a_procedure(pidThread.load());
        blEnd = true;
    }
};

// What a thread may do without being root, as the kernel tells it.
std::string Rights()
{
    std::string strRights;
    std::ifstream stream("/proc/thread-self/status");
    for (std::string strLine; std::getline(stream, strLine);)
    {
        if (strLine.rfind("Uid", 0) == 0 || strLine.rfind("Gid", 0) == 0 || strLine.rfind("Groups", 0) == 0 ||
            strLine.rfind("Cap", 0) == 0)
            strRights += strLine + "\n";
    }
    return strRights;
}

bool LosesCapability(uint32_t a_u32Capability)
{
    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct adata[_LINUX_CAPABILITY_U32S_3];
    if (syscall(SYS_capget, &header, adata) != 0)
        return false;
    adata[0].effective &= ~(1u << a_u32Capability);
    adata[0].permitted &= ~(1u << a_u32Capability);
    return syscall(SYS_capset, &header, adata) == 0;
}
}   // namespace

TEST_F(ActingUser, ThreadAndItsThreadsHaveTheUsersRightsAlone)
{
    const PlatHandle plathandle =
        PlatFileOpen(Wide(PathOf("root")).c_str(), PLAT_ACCESS_WRITE, 0, PLAT_DISPOSITION_OPENEXISTING, 0);
    std::jthread([&] {
        ASSERT_TRUE(PlatUserActAs(g_uidOther)) << PlatGetLastError();
        ExpectHisRights("first");
        std::jthread([&] { ExpectHisRights("second"); }).join();
        EXPECT_NE(Rights().find("CapPrm:\t0000000000000000"), std::string::npos) << Rights();
        EXPECT_TRUE(PlatFileWrite(plathandle, "open", 4, nullptr));   // from before
    }).join();
    PlatClose(plathandle);
    EXPECT_EQ(ReadWhole(PathOf("root")), "open");
}

TEST_F(ActingUser, UserHasNoPowerOverTheThreadThatActsForHim)
{
    const std::string strBefore = Rights();
    WhileActing([&](pid_t a_pid) {
        EXPECT_EQ(Rights(), strBefore) << "other threads keep theirs";
        EXPECT_EQ(Write("new"), 0u);
        cpu_set_t cpuset;
        sched_getaffinity(0, sizeof cpuset, &cpuset);
        const auto kills = [&] { return syscall(SYS_tgkill, getppid(), a_pid, SIGTERM) == 0; };
        const auto moves = [&] { return sched_setaffinity(a_pid, sizeof cpuset, &cpuset) == 0; };
        const auto traces = [&] { return ptrace(PTRACE_SEIZE, a_pid, nullptr, nullptr) == 0; };
        EXPECT_EQ(InOtherProcess(BecomesOther, kills), 0);
        EXPECT_EQ(InOtherProcess(BecomesOther, moves), 0);
        EXPECT_EQ(InOtherProcess(BecomesOther, traces), 0);
    });
}

TEST_F(ActingUser, WhoMayNotActStaysAsHeWas)
{
    const auto staysWith = [](uint64_t a_u64User, uint32_t a_u32Error) {
        const std::string strBefore = Rights();
        return !PlatUserActAs(a_u64User) && PlatGetLastError() == a_u32Error && Rights() == strBefore;
    };
    for (const uint64_t u64User : {uint64_t{0}, uint64_t{0xFFFFFFFE}, uint64_t{0xFFFFFFFF}, uint64_t{1} << 32 | 5})
        EXPECT_TRUE(staysWith(u64User, PLAT_ERROR_INVALIDPARAMETER)) << u64User;
    const auto stays = [&] { return staysWith(g_uidOther + 1, PLAT_ERROR_ACCESSDENIED); };
    EXPECT_EQ(InOtherProcess(BecomesOther, stays), 1);
    EXPECT_EQ(InOtherProcess([] { return PlatUserActAs(g_uidOther); }, stays), 1);
    for (const uint32_t u32Capability :
         {uint32_t{CAP_SETGID}, uint32_t{CAP_SETUID}})   // it fails at once, and half way
        EXPECT_EQ(InOtherProcess([=] { return LosesCapability(u32Capability); }, stays), 1) << u32Capability;
}

static bool OwnerOf(const std::string& a_strPath, PlatFileOwned* a_pplatfileowned)
{
    const PlatHandle plathandle = PlatFileOpen(Wide(a_strPath).c_str(), PLAT_ACCESS_NONE, PLAT_SHARE_READ,
                                               PLAT_DISPOSITION_OPENEXISTING, PLAT_OPEN_FOLDER);
    return plathandle != PLAT_INVALID && PlatFileOwner(plathandle, a_pplatfileowned) && PlatClose(plathandle);
}

TEST_F(User, OwnersAreToldApart)
{
    PlatFileOwned platfileowned{};
    const auto asks = [&](const std::string& a_strPath) {
        return OwnerOf(a_strPath, &platfileowned) ? platfileowned.platowner : PLAT_OWNER_UNKNOWN;
    };
    WriteWhole(PathOf("file"), "");
    EXPECT_EQ(asks(PathOf("file")), PLAT_OWNER_SAME);
    EXPECT_EQ(asks(m_path), PLAT_OWNER_SAME);
    EXPECT_EQ(platfileowned.u64User, PlatUserId());
    EXPECT_EQ(PlatUserId(), geteuid());
    EXPECT_EQ(asks(PathOf("missing")), PLAT_OWNER_UNKNOWN);
    EXPECT_EQ(PlatGetLastError(), PLAT_ERROR_FILENOTFOUND);
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can have files of several users";
    for (const uid_t uid : {g_uidOther, uid_t{65534}})
    {
        EXPECT_EQ(asks(Make("his", 0600, uid, 0)), PLAT_OWNER_OTHER);
        EXPECT_EQ(platfileowned.u64User, uid);
    }
    EXPECT_EQ(InOtherProcess(BecomesOther, [&] { return asks(PathOf("file")); }), PLAT_OWNER_SYSTEM);
}

TEST_F(User, WhetherOthersWriteIsTold)
{
    PlatFileOwned platfileowned{};
    const std::string strPath = PathOf("file");
    WriteWhole(strPath, "");
    const auto others = [&] {
        EXPECT_TRUE(OwnerOf(strPath, &platfileowned));
        return platfileowned.blOthersWrite;
    };
    for (const auto& [mode, blOthers] :
         std::map<mode_t, bool>{{0600, false}, {0755, false}, {0620, true}, {0602, true}})
    {
        EXPECT_EQ(chmod(strPath.c_str(), mode), 0);
        EXPECT_EQ(others(), blOthers) << std::oct << mode;
    }
    // Version 2, then what, rights and who: the owner, a user by name, the group, the most of those two, all others.
    constexpr uint16_t u16Nobody = 0xFFFF;
    const uint16_t au16List[] = {2,          0,         0x01, 6, u16Nobody, u16Nobody, 0x02, 6,
                                 g_uidOther, 0,         0x04, 4, u16Nobody, u16Nobody, 0x10, 6,
                                 u16Nobody,  u16Nobody, 0x20, 4, u16Nobody, u16Nobody};
    EXPECT_EQ(chmod(strPath.c_str(), 0644), 0);
    const bool blListed = setxattr(strPath.c_str(), "system.posix_acl_access", au16List, sizeof au16List, 0) == 0;
    EXPECT_TRUE(!blListed || others());
    fs::remove(strPath);
    fs::create_directory(strPath);
    fs::permissions(strPath, fs::perms{01777});
    EXPECT_TRUE(others());
    fs::permissions(strPath, fs::perms{0755});
}
