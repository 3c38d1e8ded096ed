// plat_tree.cpp: the walk through a tree.
//
// A folder is listed when it is entered and stays open while the walk is in it or not far below, as does the one where
// the walk began. What lies between is closed, so that no depth uses up the descriptors, and found again from below: it
// must be the same folder then.
#include "plat_tree.h"

#include "plat_posix_file.h"

#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <new>
#include <string_view>
#include <utility>

static constexpr size_t g_sizetOpenFolders = 32;   // at most, for one walk
static constexpr size_t g_sizetListBuffer = 32768;

namespace
{
struct TreeFolder
{
    int iDescriptor;   // -1: closed for now
    dev_t dev;         // which folder it was; known when it is closed
    ino_t ino;
    std::string strEntries;   // one after the other: its type, its name, a zero
    size_t sizetEntry;        // the one read last
    size_t sizetNext;

    unsigned char Type() const { return static_cast<unsigned char>(strEntries[sizetEntry]); }
    const char* Name() const { return strEntries.data() + sizetEntry + 1; }
    bool IsAtEntry() const { return iDescriptor >= 0 && sizetEntry < sizetNext; }
};

struct Tree
{
    Tree() = default;
    ~Tree()
    {
        for (const TreeFolder& treefolder : vectreefolder)
        {
            if (treefolder.iDescriptor >= 0)
                close(treefolder.iDescriptor);
        }
    }
    Tree(const Tree&) = delete;
    Tree& operator=(const Tree&) = delete;

    std::vector<TreeFolder> vectreefolder;   // from where the walk began to where it is
};

Tree* TreeOf(PlatHandle a_plathandle)
{
    if (PosixKindOf(a_plathandle) == PosixKind::Tree)
        return PosixObjectOf<Tree>(a_plathandle);
    PosixFail(PLAT_ERROR_INVALIDHANDLE);
    return nullptr;
}

// Where the walk is; null, with the last error, unless an entry has been read there.
TreeFolder* FolderAtEntry(PlatHandle a_plathandle)
{
    Tree* const ptree = TreeOf(a_plathandle);
    if (!ptree)
        return nullptr;
    if (ptree->vectreefolder.back().IsAtEntry())
        return &ptree->vectreefolder.back();
    PosixFail(PLAT_ERROR_PATHNOTFOUND);
    return nullptr;
}

// Some file systems do not tell what an entry is.
unsigned char TypeOf(int a_iFolder, const struct dirent64& a_dirent)
{
    struct stat status;
    if (a_dirent.d_type != DT_UNKNOWN || fstatat(a_iFolder, a_dirent.d_name, &status, AT_SYMLINK_NOFOLLOW) != 0)
        return a_dirent.d_type;
    return static_cast<unsigned char>(IFTODT(status.st_mode));
}

bool ListFolder(int a_iFolder, std::string& a_strEntries)
{
    alignas(struct dirent64) char achBuffer[g_sizetListBuffer];
    for (;;)
    {
        const ssize_t ssizetRead = getdents64(a_iFolder, achBuffer, sizeof achBuffer);
        if (ssizetRead <= 0)
            return ssizetRead == 0 || PosixFailErrno();
        for (ssize_t ssizet = 0; ssizet < ssizetRead;)
        {
            const auto* pdirent = reinterpret_cast<const struct dirent64*>(achBuffer + ssizet);
            ssizet += pdirent->d_reclen;
            const std::string_view svName = pdirent->d_name;
            if (svName == "." || svName == "..")
                continue;
            a_strEntries += static_cast<char>(TypeOf(a_iFolder, *pdirent));
            a_strEntries.append(svName).push_back('\0');
        }
    }
}

int OpenFolder(int a_iFolder, const char* a_szName)
{
    return openat(a_iFolder, a_szName, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
}

// Closes a folder that the walk comes back to. One that cannot be told from others stays open.
void CloseForNow(TreeFolder& a_treefolder)
{
    struct stat status;
    if (a_treefolder.iDescriptor < 0 || fstat(a_treefolder.iDescriptor, &status) != 0)
        return;
    a_treefolder.dev = status.st_dev;
    a_treefolder.ino = status.st_ino;
    close(std::exchange(a_treefolder.iDescriptor, -1));
}

// Finds it again above the folder that was left.
bool OpenAgain(TreeFolder& a_treefolder, int a_iBelow)
{
    PosixDescriptor posixdescriptor(OpenFolder(a_iBelow, ".."));
    struct stat status;
    if (!posixdescriptor.IsOpen() || fstat(posixdescriptor.Get(), &status) != 0 || status.st_dev != a_treefolder.dev ||
        status.st_ino != a_treefolder.ino)
        return PosixFail(PLAT_ERROR_PATHNOTFOUND);
    a_treefolder.iDescriptor = posixdescriptor.Release();
    return true;
}

// Goes into a folder that has been opened, if it can be listed.
bool GoInto(Tree& a_tree, PosixDescriptor& a_posixdescriptor)
{
    std::string strEntries;
    if (!ListFolder(a_posixdescriptor.Get(), strEntries))
        return false;
    a_tree.vectreefolder.push_back({a_posixdescriptor.Get(), 0, 0, std::move(strEntries), 0, 0});
    a_posixdescriptor.Release();
    if (a_tree.vectreefolder.size() > g_sizetOpenFolders + 1)   // where the walk began stays open
        CloseForNow(a_tree.vectreefolder[a_tree.vectreefolder.size() - 1 - g_sizetOpenFolders]);
    return true;
}

bool DeleteEntry(const TreeFolder& a_treefolder)
{
    return a_treefolder.Type() == DT_DIR ? PosixDeleteFolder(a_treefolder.iDescriptor, a_treefolder.Name())
                                         : PosixDeleteFile(a_treefolder.iDescriptor, a_treefolder.Name(), true);
}

// True when the folder was read-only and is not any more.
bool ClearReadOnly(int a_iFolder)
{
    struct stat status;
    return fstat(a_iFolder, &status) == 0 && PosixIsReadOnly(status.st_mode) &&
           fchmod(a_iFolder, (status.st_mode & 07777) | S_IWUSR) == 0;
}
}   // namespace

PlatHandle PlatTreeOpen(const char16_t* a_wszFolder)
try
{
    std::string strPath;
    if (!PosixPath(a_wszFolder, strPath))
        return PLAT_INVALID;
    PosixTrimPath(strPath);
    auto ptree = std::make_unique<Tree>();
    PosixDescriptor posixdescriptor(OpenFolder(AT_FDCWD, strPath.c_str()));
    if (posixdescriptor.IsOpen())
        return GoInto(*ptree, posixdescriptor) ? PosixMakeHandle(PosixKind::Tree, ptree.release()) : PLAT_INVALID;

    struct stat status;
    const int iErrno = errno;
    if ((iErrno == ENOTDIR || iErrno == ELOOP) && lstat(strPath.c_str(), &status) == 0)
    {
        PosixFail(PLAT_ERROR_DIRECTORY);
        return PLAT_INVALID;
    }
    errno = iErrno;
    PosixFailPath(strPath);
    return PLAT_INVALID;
}
catch (const std::bad_alloc&)
{
    PosixFail(PLAT_ERROR_NOMEMORY);
    return PLAT_INVALID;
}

PlatHandle PlatTreeOpenAt(const char16_t* a_wszPath, PlatTreeEntry* a_pplattreeentry)
try
{
    std::string strPath;
    std::string_view strviewFolder;
    if (!PosixPath(a_wszPath, strPath))
        return PLAT_INVALID;
    const std::string strName(PosixSplitPath(strPath, strviewFolder));
    if (strName.empty() || strName == "." || strName == "..")
    {
        PosixFail(PLAT_ERROR_INVALIDNAME);
        return PLAT_INVALID;
    }

    // Whoever may not list the folder may still know what is in it.
    PosixDescriptor posixdescriptor(open(std::string(strviewFolder).c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    struct stat status;
    if (!posixdescriptor.IsOpen() || fstatat(posixdescriptor.Get(), strName.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0)
    {
        PosixFailPath(strPath);
        return PLAT_INVALID;
    }
    auto ptree = std::make_unique<Tree>();
    std::string strEntries(1, static_cast<char>(IFTODT(status.st_mode)));
    strEntries.append(strName).push_back('\0');
    ptree->vectreefolder.push_back({posixdescriptor.Get(), 0, 0, std::move(strEntries), 0, 0});
    posixdescriptor.Release();
    const PlatHandle plathandle = PosixMakeHandle(PosixKind::Tree, ptree.release());
    PlatTreeNext(plathandle, a_pplattreeentry);
    return plathandle;
}
catch (const std::bad_alloc&)
{
    PosixFail(PLAT_ERROR_NOMEMORY);
    return PLAT_INVALID;
}

// Goes up from the folder of the path. What cannot be reached cannot be deleted from here either; where it is only not
// known, it counts as held.
bool PlatTreeHolds(PlatHandle a_plathandle, const char16_t* a_wszFolder)
try
{
    const Tree* const ptree = TreeOf(a_plathandle);
    std::string strPath;
    struct stat statusWalk;
    if (!ptree || !PosixPath(a_wszFolder, strPath) || fstat(ptree->vectreefolder.back().iDescriptor, &statusWalk) != 0)
        return true;
    constexpr int iFlags = O_PATH | O_DIRECTORY | O_CLOEXEC;
    struct stat statusBelow = {};
    PosixDescriptor posixdescriptor(open(strPath.c_str(), iFlags));
    while (posixdescriptor.IsOpen())
    {
        struct stat status;
        if (fstat(posixdescriptor.Get(), &status) != 0 ||
            (status.st_dev == statusWalk.st_dev && status.st_ino == statusWalk.st_ino))
            return true;
        if (status.st_dev == statusBelow.st_dev && status.st_ino == statusBelow.st_ino)
            return false;
        statusBelow = status;
        const PosixDescriptor posixdescriptorBelow(posixdescriptor.Release());
        posixdescriptor.Take(openat(posixdescriptorBelow.Get(), "..", iFlags));
    }
    return errno != ENOENT && errno != ENOTDIR && errno != EACCES && errno != ELOOP && errno != ENAMETOOLONG;
}
catch (const std::bad_alloc&)
{
    return true;
}

bool PosixCloseTree(PlatHandle a_plathandle)
{
    delete PosixObjectOf<Tree>(a_plathandle);
    return true;
}

bool PlatTreeNext(PlatHandle a_plathandle, PlatTreeEntry* a_pplattreeentry)
{
    Tree* const ptree = TreeOf(a_plathandle);
    if (!ptree)
        return false;
    TreeFolder& treefolder = ptree->vectreefolder.back();
    if (treefolder.iDescriptor < 0)
        return PosixFail(PLAT_ERROR_PATHNOTFOUND);
    if (treefolder.sizetNext == treefolder.strEntries.size())
        return PosixFail(PLAT_ERROR_NOMOREFILES);
    treefolder.sizetEntry = treefolder.sizetNext;
    treefolder.sizetNext += 1 + strlen(treefolder.Name()) + 1;

    const unsigned char ucType = treefolder.Type();
    a_pplattreeentry->blLink = ucType == DT_LNK;
    a_pplattreeentry->platentry = ucType == DT_DIR                       ? PLAT_ENTRY_FOLDER
                                  : ucType == DT_REG || ucType == DT_LNK ? PLAT_ENTRY_FILE
                                                                         : PLAT_ENTRY_SYSTEM;
    const uint32_t u32Error = PlatGetLastError();
    if (strchr(treefolder.Name(), '\\') || !PosixToWide(treefolder.Name(), a_pplattreeentry->wszName, PLAT_PATHMAX))
        a_pplattreeentry->wszName[0] = u'\0';
    PlatSetLastError(u32Error);
    return true;
}

bool PlatTreeRewind(PlatHandle a_plathandle)
{
    Tree* const ptree = TreeOf(a_plathandle);
    if (!ptree)
        return false;
    ptree->vectreefolder.back().sizetEntry = 0;
    ptree->vectreefolder.back().sizetNext = 0;
    return true;
}

bool PlatTreeEnter(PlatHandle a_plathandle)
try
{
    const TreeFolder* const ptreefolder = FolderAtEntry(a_plathandle);
    if (!ptreefolder)
        return false;
    PosixDescriptor posixdescriptor(OpenFolder(ptreefolder->iDescriptor, ptreefolder->Name()));
    if (!posixdescriptor.IsOpen())
        return errno == ENOTDIR || errno == ELOOP ? PosixFail(PLAT_ERROR_DIRECTORY) : PosixFailErrno();
    return GoInto(*PosixObjectOf<Tree>(a_plathandle), posixdescriptor);
}
catch (const std::bad_alloc&)
{
    return PosixFail(PLAT_ERROR_NOMEMORY);
}

bool PlatTreeLeave(PlatHandle a_plathandle)
{
    Tree* const ptree = TreeOf(a_plathandle);
    if (!ptree)
        return false;
    if (ptree->vectreefolder.size() == 1)
        return PosixFail(PLAT_ERROR_NOMOREFILES);
    const PosixDescriptor posixdescriptor(ptree->vectreefolder.back().iDescriptor);
    ptree->vectreefolder.pop_back();
    TreeFolder& treefolder = ptree->vectreefolder.back();
    return treefolder.iDescriptor >= 0 || OpenAgain(treefolder, posixdescriptor.Get());
}

bool PlatTreeWriteTime(PlatHandle a_plathandle, uint64_t* a_pu64WriteTime)
{
    const TreeFolder* const ptreefolder = FolderAtEntry(a_plathandle);
    if (!ptreefolder)
        return false;
    struct stat status;
    if (fstatat(ptreefolder->iDescriptor, ptreefolder->Name(), &status, AT_SYMLINK_NOFOLLOW) != 0)
        return PosixFailErrno();
    *a_pu64WriteTime = PosixFileTime(status.st_mtim.tv_sec, static_cast<uint32_t>(status.st_mtim.tv_nsec));
    return true;
}

bool PlatTreeDelete(PlatHandle a_plathandle)
{
    const TreeFolder* const ptreefolder = FolderAtEntry(a_plathandle);
    if (!ptreefolder)
        return false;
    if (DeleteEntry(*ptreefolder))
        return true;
    const uint32_t u32Error = PlatGetLastError();
    if (u32Error == PLAT_ERROR_ACCESSDENIED && ClearReadOnly(ptreefolder->iDescriptor))
        return DeleteEntry(*ptreefolder);
    return PosixFail(u32Error);
}
