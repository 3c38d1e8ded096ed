// plat_file_guard_test.cpp: files that are opened by a path that somebody else has named.
#include "plat_file.h"
#include "plat_fork.h"

#include <cstddef>
#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>

namespace fs = std::filesystem;

namespace
{
constexpr uint32_t RW = PLAT_SHARE_READ | PLAT_SHARE_WRITE;
constexpr uint32_t DENIED = PLAT_ERROR_ACCESSDENIED;
constexpr uint32_t LINK = PLAT_ERROR_INVALIDNAME;
constexpr uint32_t MISSING = PLAT_ERROR_PATHNOTFOUND;

uint32_t OpenError(const std::string& a_strPath, uint32_t a_u32Access, uint32_t a_u32Guard)
{
    const PlatHandle plathandle =
        PlatFileOpen(Wide(a_strPath).c_str(), a_u32Access, RW, PLAT_DISPOSITION_OPENALWAYS, a_u32Guard);
    return plathandle != PLAT_INVALID && PlatClose(plathandle) ? 0 : PlatGetLastError();
}

class FileGuard : public FolderTest
{
protected:
    FileGuard()
    {
        for (const char* szFolder : {"own", "shared"})
            fs::create_directory(PathOf(szFolder));
        fs::permissions(PathOf("own"), fs::perms{0755});
        fs::permissions(PathOf("shared"), fs::perms{01777});
        for (const char* szFile : {"own/file", "own/twice", "shared/file"})
            WriteWhole(PathOf(szFile), "");
        fs::create_symlink("own", PathOf("way"));
        fs::create_symlink("file", PathOf("own/link"));
        fs::create_symlink("nothing", PathOf("own/dangling"));
        fs::create_hard_link(PathOf("own/twice"), PathOf("own/again"));
        EXPECT_EQ(mkfifo(PathOf("own/pipe").c_str(), 0666), 0);
        MakeSocket(PathOf("own/socket"));
    }

    static void MakeSocket(const std::string& a_strPath)
    {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        a_strPath.copy(address.sun_path, sizeof address.sun_path - 1);
        const int iSocket = socket(AF_UNIX, SOCK_STREAM, 0);
        EXPECT_EQ(bind(iSocket, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        close(iSocket);
    }

    void ExpectGuarded() const;
};

// Without guard, and with each of the three; the last component is looked at by all of them.
struct Row
{
    const char* szPath;
    uint32_t au32Error[4];
};
constexpr Row g_arow[] = {
    {"own/file", {0, 0, 0, 0}},
    {"own/new", {0, 0, 0, 0}},
    {"own/../own/file", {0, 0, 0, 0}},
    {"own/link", {0, LINK, LINK, LINK}},
    {"own/dangling", {0, LINK, LINK, LINK}},
    {"way/file", {0, 0, LINK, LINK}},
    {"way/new2", {0, 0, LINK, LINK}},
    {"own/again", {0, 0, DENIED, DENIED}},
    {"own/pipe", {0, DENIED, DENIED, DENIED}},
    {"own/socket", {PLAT_ERROR_GENFAILURE, DENIED, DENIED, DENIED}},
    {"own/..", {DENIED, DENIED, DENIED, DENIED}},
    {"missing/file", {MISSING, MISSING, MISSING, MISSING}},
    {"own/file/file", {MISSING, MISSING, MISSING, MISSING}},
    {"shared/file", {0, 0, 0, DENIED}},
    {"shared/new", {0, 0, 0, DENIED}},
};

// The guarded opens first: what the open without guard makes is not there for them.
void FileGuard::ExpectGuarded() const
{
    constexpr uint32_t au32Guard[] = {0, PLAT_OPEN_NOLINK, PLAT_OPEN_NOLINKS, PLAT_OPEN_OWNFOLDER};
    for (const Row& row : g_arow)
    {
        for (const size_t sizet : {3u, 2u, 1u, 0u})
        {
            EXPECT_EQ(OpenError(PathOf(row.szPath), PLAT_ACCESS_WRITE, au32Guard[sizet]), row.au32Error[sizet])
                << row.szPath << " guard " << sizet;
        }
        fs::remove(PathOf("own/nothing"));
    }
}

// As in a container that keeps the call away which opens without links.
bool KeepsCallAway()
{
    sock_filter afilter[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_openat2, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ENOSYS),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    const sock_fprog program = {static_cast<unsigned short>(std::size(afilter)), afilter};
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}
}   // namespace

TEST_F(FileGuard, LinksAndWhatIsNoPlainFileAreRefused)
{
    ExpectGuarded();
    for (const uint32_t u32Guard : {PLAT_OPEN_NOLINK, PLAT_OPEN_NOLINKS, PLAT_OPEN_OWNFOLDER})
    {
        EXPECT_EQ(OpenError("/dev/null", PLAT_ACCESS_WRITE, u32Guard), DENIED);
        EXPECT_EQ(OpenError(PathOf("own/pipe"), PLAT_ACCESS_READ, u32Guard), DENIED);
        EXPECT_EQ(OpenError("/proc/self/cwd/file", PLAT_ACCESS_READ, u32Guard), LINK);
        EXPECT_EQ(OpenError(PathOf("own/link"), PLAT_ACCESS_NONE, u32Guard), LINK);
    }
}

TEST_F(FileGuard, HoldsWhereTheKernelCannotBeAsked)
{
    const int iAnswer = InOtherProcess(KeepsCallAway, [&] {
        ExpectGuarded();
        return HasFailure();
    });
    if (iAnswer == 99)
        GTEST_SKIP() << "no call can be kept away here";
    EXPECT_EQ(iAnswer, 0);
}

TEST_F(FileGuard, ShareModesHoldForGuardedOpens)
{
    const std::u16string wstrPath = Wide(PathOf("own/file"));
    for (const uint32_t u32Guard : {PLAT_OPEN_NOLINK, PLAT_OPEN_NOLINKS, PLAT_OPEN_OWNFOLDER})
    {
        const PlatHandle plathandle =
            PlatFileOpen(wstrPath.c_str(), PLAT_ACCESS_WRITE, PLAT_SHARE_NONE, PLAT_DISPOSITION_CREATEALWAYS, u32Guard);
        EXPECT_TRUE(PlatFileAppend(plathandle, "x", 1, nullptr));
        EXPECT_EQ(OpenError(PathOf("own/file"), PLAT_ACCESS_WRITE, u32Guard), PLAT_ERROR_SHARING);
        PlatClose(plathandle);
        EXPECT_EQ(SizeOf("own/file"), 1u);
    }
}

// A folder that is open can be asked whose it is.
TEST_F(FileGuard, FolderIsOpenedThroughNoLink)
{
    constexpr uint32_t u32Flags = PLAT_OPEN_FOLDER | PLAT_OPEN_NOLINKS;
    for (const auto& [szPath, u32Error] : std::map<const char*, uint32_t>{{"own", 0}, {"own/", 0}, {"way", LINK}})
    {
        const PlatHandle plathandle =
            PlatFileOpen(Wide(PathOf(szPath)).c_str(), PLAT_ACCESS_NONE, RW, PLAT_DISPOSITION_OPENEXISTING, u32Flags);
        EXPECT_EQ(plathandle != PLAT_INVALID && PlatClose(plathandle) ? 0 : PlatGetLastError(), u32Error) << szPath;
    }
}

TEST_F(FileGuard, FolderOfAnotherUserIsNotOurs)
{
    if (geteuid() != 0 || chown(PathOf("own").c_str(), 61234, 0) != 0)
        GTEST_SKIP() << "only root can give a folder away";
    EXPECT_EQ(OpenError(PathOf("own/file"), PLAT_ACCESS_WRITE, PLAT_OPEN_OWNFOLDER), DENIED);
    EXPECT_EQ(OpenError(PathOf("own/file"), PLAT_ACCESS_WRITE, PLAT_OPEN_NOLINKS), 0u);
}

TEST_F(FileGuard, OwnPlaceMayBeReachedThroughALink)
{
    EXPECT_EQ(OpenError(PathOf("way/file"), PLAT_ACCESS_WRITE, PLAT_OPEN_OWNPLACE), 0u);
    EXPECT_EQ(OpenError(PathOf("own/link"), PLAT_ACCESS_WRITE, PLAT_OPEN_OWNPLACE), LINK);
    EXPECT_EQ(OpenError(PathOf("shared/file"), PLAT_ACCESS_WRITE, PLAT_OPEN_OWNPLACE), DENIED);
}

TEST_F(FileGuard, PrivateFilesAndFoldersAreForTheirUserAlone)
{
    EXPECT_EQ(OpenError(PathOf("own/private"), PLAT_ACCESS_WRITE, PLAT_OPEN_OWNPLACE | PLAT_OPEN_PRIVATE), 0u);
    EXPECT_TRUE(PlatFolderCreatePrivate(Wide(PathOf("own/folder")).c_str()));
    EXPECT_EQ(fs::status(PathOf("own/private")).permissions(), fs::perms::owner_read | fs::perms::owner_write);
    EXPECT_EQ(fs::status(PathOf("own/folder")).permissions(), fs::perms::owner_all);
}
