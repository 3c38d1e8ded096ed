// os_cosfile_system_test.cpp: the text of paths, and what is done to files and folders by their paths.
#include "test_support.h"

#include "os_cosfile_system.h"
#include "os_cospath.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

namespace fs = std::filesystem;

namespace
{
class FileSystem : public FolderTest
{
protected:
    bool Exists(const std::string& a_strName) const { return fs::exists(fs::symlink_status(PathOf(a_strName))); }

    EOSSTS Delete(const std::string& a_strName, bool a_blRecursive = true) const
    {
        return OsFileDelete(PathOf(a_strName).c_str(), OS_FILETYPE_ANY, a_blRecursive, false);
    }

    LogCapture m_logcapture;
};

std::string Normal(std::string a_strPath)
{
    OsPathNormalize(a_strPath.data());
    return a_strPath.c_str();
}

std::string Joined(const char* a_szPath, const char* a_szComponent, size_t a_sizetPath = OS_PATHSIZE)
{
    char szPath[OS_PATHSIZE];
    SStrCpy(szPath, sizeof szPath, a_szPath);
    OsPathAppend(szPath, a_sizetPath, a_szComponent);
    return szPath;
}

std::u16string Long(const std::u16string& a_wstrPath)
{
    char16_t wszPath[OS_WIDEPATHSIZE];
    SWcsCpy(wszPath, OS_WIDEPATHSIZE, a_wstrPath.c_str());
    OsPathLong(wszPath, OS_WIDEPATHSIZE);
    return wszPath;
}

TEST(Path, NormalisingKeepsTheLeadingPair)
{
    EXPECT_EQ(Normal("\\\\server//share\\\\\\dir/"), "\\\\server\\share\\dir\\");
    EXPECT_EQ(Normal("//a\\/b"), "\\a\\b");
    EXPECT_EQ(Normal("\\\\"), "\\\\");
    EXPECT_EQ(Normal("\\\\\\\\x"), "\\\\x");
    EXPECT_EQ(Normal("plain"), "plain");
    std::string strSlashes = "a\\\\b";
    OsPathNormalize(strSlashes.data(), '/');
    EXPECT_STREQ(strSlashes.c_str(), "a/b");
}

TEST(Path, AppendJoinsWithOneSeparator)
{
    LogCapture logcapture;
    EXPECT_EQ(Joined("D:\\a", "C:\\x"), "D:\\a\\x");
    EXPECT_TRUE(logcapture.HasAt(OS_LOG_NOTE, "PathAppend stripping drive letter...<C:\\x>"));
    EXPECT_EQ(Joined("D:/a/", "b//c"), "D:\\a\\b\\c");
    EXPECT_EQ(Joined("D:\\a", ""), "D:\\a\\");
    EXPECT_EQ(Joined("\\", "/tmp"), "\\tmp");
    EXPECT_EQ(Joined("abc", "defg", 8), "");
    EXPECT_TRUE(logcapture.HasAt(OS_LOG_CHECK, "buffer overflow...8 <defg>"));
    EXPECT_EQ(Joined("abc", "def", 8), "abc\\def");
    char szTrailing[] = "C:\\a/\\";
    OsPathRemoveTrailing(szTrailing);
    EXPECT_STREQ(szTrailing, "C:\\a");
    char szRoot[] = "//";
    OsPathRemoveTrailing(szRoot);
    EXPECT_STREQ(szRoot, "/");
}

TEST(Path, OnlyLongDrivePathsGetThePrefix)
{
    const std::u16string wstrShort = u"C:\\" + std::u16string(236, u'a');
    EXPECT_EQ(Long(wstrShort), wstrShort);
    EXPECT_EQ(Long(u"C:/" + std::u16string(237, u'a')), u"\\\\?\\C:\\" + std::u16string(237, u'a'));
    for (const char16_t* wszTail : {u"\\..\\x", u"\\.\\x", u"\\.", u"\\.."})
        EXPECT_EQ(Long(wstrShort + wszTail), wstrShort + wszTail);
    EXPECT_EQ(Long(u"\\" + wstrShort), u"\\" + wstrShort);
}

TEST_F(FileSystem, FindListsWhatAPatternNames)
{
    setenv("TZ", "XST5", 1);
    tzset();
    WriteWhole(PathOf("Log.\xC3\x84.TXT"), "12345");
    const timespec atimespec[2] = {{962366400, 0}, {962366400, 0}};   // 2000-06-30 12:00 UTC
    ASSERT_EQ(utimensat(AT_FDCWD, PathOf("Log.\xC3\x84.TXT").c_str(), atimespec, 0), 0);
    WriteWhole(PathOf("other"), "");
    fs::permissions(PathOf("other"), fs::perms::owner_read);
    OsFileInfo osfileinfo;
    ASSERT_EQ(OsFileFindFirst(PathOf("Log.*").c_str(), &osfileinfo), EOSSTS_SUCCESS);
    EXPECT_STREQ(osfileinfo.szName, "Log.\xC3\x84.TXT");
    EXPECT_STREQ(osfileinfo.szLowerName, "log.\xC3\xA4.txt");
    EXPECT_EQ(osfileinfo.u64Size, 5u);
    EXPECT_EQ(osfileinfo.eosfiletype, OS_FILETYPE_FILE);
    EXPECT_EQ(osfileinfo.eosfileaccess, OS_FILEACCESS_READWRITE);
    EXPECT_EQ(osfileinfo.ostimerecordWritten.u16Year, 2000);
    EXPECT_EQ(osfileinfo.ostimerecordWritten.u16Hour, 7) << "five hours west of Greenwich";
    EXPECT_GT(osfileinfo.ostimerecordCreated.u16Year, 2000);
    EXPECT_EQ(OsFileFindNext(&osfileinfo), EOSSTS_NOTFOUND);
    OsFileFindClose(&osfileinfo);

    EXPECT_EQ(OsFileGetInfo(PathOf("other").c_str(), &osfileinfo), EOSSTS_SUCCESS);
    EXPECT_EQ(osfileinfo.eosfileaccess, OS_FILEACCESS_READ);
    EXPECT_EQ(OsFileGetInfo((m_path.string() + "/").c_str(), &osfileinfo), EOSSTS_SUCCESS);
    EXPECT_EQ(osfileinfo.eosfiletype, OS_FILETYPE_FOLDER);
    EXPECT_EQ(OsFileGetInfo("", &osfileinfo), EOSSTS_NOTFOUND);
    EXPECT_EQ(OsFileGetInfo(PathOf("none").c_str(), &osfileinfo), EOSSTS_NOTFOUND);
    EXPECT_TRUE(OsFileExists(PathOf("oth*").c_str()));
    EXPECT_FALSE(OsFileExists(PathOf("none*").c_str()));
    EXPECT_FALSE(OsFileExists(""));
}

TEST_F(FileSystem, CreatesAFolderWithItsParents)
{
    EXPECT_EQ(OsFileCreateDirectory("C:\\a/b\\c\\"), EOSSTS_SUCCESS);
    EXPECT_EQ(OsFileCreateDirectory("C:\\a\\b\\c"), EOSSTS_EXISTS);
    EXPECT_TRUE(fs::is_directory(m_path / "system/MVR_DRIVEROOT/c/a/b/c"));

    WriteWhole(PathOf("file"), "");
    EXPECT_EQ(OsFileCreateDirectory(PathOf("file/x").c_str()), EOSSTS_NOTFOUND);
    EXPECT_EQ(OsFileCreateDirectory(PathOf(std::string(300, 'x')).c_str()), EOSSTS_FAIL);
    EXPECT_EQ(OsFileCreateDirectory("D:\\"), EOSSTS_SUCCESS);
    EXPECT_TRUE(OsFileExists("D:"));
    setenv("MVR_DRIVEROOT", PathOf("file/drives").c_str(), 1);
    EXPECT_EQ(OsFileCreateDirectory("D:\\"), EOSSTS_NOTFOUND);

    OsFileSetNoCreate(true);
    EXPECT_EQ(OsFileCreateDirectory(PathOf("n").c_str()), EOSSTS_SUCCESS);
    EXPECT_EQ(OsFileCreateDirectory(m_path.c_str()), EOSSTS_EXISTS);
    std::thread([this] { OsFileCreateDirectory(PathOf("other").c_str()); }).join();
    OsFileSetNoCreate(false);
    EXPECT_TRUE(!Exists("n") && Exists("other"));
}

// ".." goes up from where a link leads, in whatever is done with a path, and not out of a drive.
TEST_F(FileSystem, APathMeansTheSameToEveryOperation)
{
    fs::create_directories(PathOf("far/in"));
    fs::create_directory_symlink(PathOf("far/in"), PathOf("link"));
    ASSERT_EQ(OsFileCreateDirectory("C:\\a\\b"), EOSSTS_SUCCESS);
    fs::create_directory_symlink("b", m_path / "system/MVR_DRIVEROOT/c/a/link");
    const std::string strDrives = PathOf("system/MVR_DRIVEROOT/");
    const std::tuple<std::string, std::string, std::string> atuple[] = {
        {PathOf("link/../x"), PathOf("far/x"), Backslashed(PathOf("far/x"))},
        {PathOf("link/./../../y"), PathOf("y"), Backslashed(PathOf("y"))},
        {PathOf("none/../z"), PathOf("z"), Backslashed(PathOf("z"))},
        {"C:\\a\\link\\..\\x", strDrives + "c/a/x", "C:\\a\\x"},
        {"C:\\a\\..\\..\\..\\x", strDrives + "c/x", "C:\\x"},
        {"C:..\\y", strDrives + "c/y", "C:\\y"},
    };
    for (const auto& [strPath, strMeant, strAbsolute] : atuple)
    {
        char szAbsolute[OS_PATHSIZE];
        EXPECT_EQ(OsPathAbsolute(szAbsolute, sizeof szAbsolute, strPath.c_str()), EOSSTS_SUCCESS);
        EXPECT_EQ(szAbsolute, strAbsolute);
        EXPECT_EQ(OsFileCreateDirectory((strPath + "\\deep").c_str()), EOSSTS_SUCCESS) << strPath;
        EXPECT_TRUE(fs::is_directory(strMeant + "/deep")) << strPath;
        EXPECT_EQ(OsLogWriteFile((strPath + "\\file").c_str(), "x", false, false, false), EOSSTS_SUCCESS);
        EXPECT_EQ(ReadWhole(strMeant + "/file"), "x") << strPath;
        EXPECT_EQ(OsFileRemoveTree(strPath.c_str()), EOSSTS_SUCCESS);
        EXPECT_FALSE(fs::exists(strMeant)) << strPath;
    }
}

TEST_F(FileSystem, FolderCreationIsTracedWhenWanted)
{
    setenv("MVR_TRACE_COSFILE_CREATE", PathOf("trace").c_str(), 1);
    WriteWhole(PathOf("f"), "");
    OsFileCreateDirectory(PathOf("t").c_str());
    OsFileCreateDirectory(PathOf("t").c_str());
    OsFileCreateDirectory(PathOf("f/x").c_str());
    const std::string strNames = "os_cosfile_syst os_cosfile_syst ";
    EXPECT_EQ(ReadWhole(PathOf("trace")), "pass:   " + strNames + PathOf("t") + "\r\nexists: " + strNames +
                                              PathOf("t") + "\r\nerror:  " + strNames + PathOf("f/x") + " 0 3\r\n");
}

TEST_F(FileSystem, DeleteChecksWhatItIsAskedFor)
{
    WriteWhole(PathOf("f"), "");
    fs::create_directories(PathOf("d/e"));
    EXPECT_EQ(OsFileDelete("", OS_FILETYPE_ANY, false, false), EOSSTS_FAIL);
    EXPECT_TRUE(m_logcapture.Has("a_szFilename is null or empty..."));
    EXPECT_EQ(Delete("*"), EOSSTS_FAIL);
    EXPECT_TRUE(m_logcapture.Has("we don't support deleting with wildcards..."));
    EXPECT_EQ(OsFileDelete(PathOf("f").c_str(), OS_FILETYPE_FOLDER, true, false), EOSSTS_FAIL);
    EXPECT_EQ(Delete("d", false), EOSSTS_FAIL);
    EXPECT_TRUE(m_logcapture.HasPart("RemoveDirectory failed..."));
    EXPECT_TRUE(Exists("f") && Exists("d/e"));
    EXPECT_EQ(Delete("missing"), EOSSTS_SUCCESS);
    fs::permissions(PathOf("f"), fs::perms::owner_read);
    EXPECT_EQ(Delete("f"), EOSSTS_SUCCESS);
    EXPECT_TRUE(m_logcapture.HasAt(OS_LOG_NOTE, "Delete: <" + PathOf("f") + "> 0 1"));
    EXPECT_EQ(Delete("d"), EOSSTS_SUCCESS);
    EXPECT_FALSE(Exists("f") || Exists("d"));
}

// Whether somebody has it open takes a descriptor to ask with.
TEST_F(FileSystem, AnOpenFileStaysWhenThereAreNoDescriptors)
{
    const std::string strPath = PathOf("log");
    COsFile osfile;
    ASSERT_EQ(osfile.Open(strPath.c_str(), OS_FILEOPEN_ALWAYS, OS_FILEACCESS_WRITE, OS_FILESHARE_READWRITE),
              EOSSTS_SUCCESS);
    const NoDescriptors nodescriptors;
    EXPECT_EQ(OsFileDelete(strPath.c_str(), OS_FILETYPE_FILE, false, false), EOSSTS_FAIL);
    EXPECT_TRUE(Exists("log"));
}

TEST_F(FileSystem, ASystemFileGoesOnlyWhenAllowed)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    SStrCpy(address.sun_path, sizeof address.sun_path, PathOf("socket").c_str());
    const int iSocket = socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_EQ(bind(iSocket, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    close(iSocket);
    EXPECT_EQ(Delete("socket"), EOSSTS_FAIL);
    EXPECT_TRUE(Exists("socket"));
    EXPECT_EQ(OsFileDelete(PathOf("socket").c_str(), OS_FILETYPE_ANY, false, true), EOSSTS_SUCCESS);
    EXPECT_FALSE(Exists("socket"));

    fs::create_directory(PathOf("tree"));
    for (const char* szName : {"tree/1", "tree/2", "tree/3"})
        ASSERT_EQ(mkfifo(PathOf(szName).c_str(), 0600), 0);
    m_logcapture.Clear();
    EXPECT_EQ(Delete("tree"), EOSSTS_FAIL);
    EXPECT_EQ(m_logcapture.Lines().size(), 3u) << "the tree, its first entry, the failure, and no further entry";
}

// Whatever is named or linked below a tree, nothing outside of it goes with it.
TEST_F(FileSystem, DeletingATreeNeverLeavesIt)
{
    fs::create_directories(PathOf("out"));
    WriteWhole(PathOf("out/keep"), "x");
    fs::permissions(PathOf("out/keep"), fs::perms::owner_read);
    fs::create_directories(PathOf("tree/read-only"));
    WriteWhole(PathOf("tree/read-only/*.log"), "x");
    WriteWhole(PathOf("tree/c:keep"), "x");
    WriteWhole(PathOf("tree/\xFF\xFE"), "no text");
    fs::permissions(PathOf("tree/read-only"), fs::perms::owner_read | fs::perms::owner_exec);
    fs::create_directory_symlink(PathOf("out"), PathOf("tree/folder"));
    fs::create_symlink(PathOf("out/keep"), PathOf("tree/file"));
    fs::create_symlink(PathOf("nowhere"), PathOf("tree/dangling"));
    EXPECT_EQ(Delete("tree"), EOSSTS_SUCCESS);
    EXPECT_FALSE(Exists("tree"));

    fs::create_directories(PathOf("tree"));
    fs::create_directory_symlink(PathOf("out"), PathOf("tree/a"));
    WriteWhole(PathOf("tree/a\\keep"), "as a path this is the file behind the link");
    EXPECT_EQ(Delete("tree"), EOSSTS_SUCCESS);

    fs::create_directory_symlink(PathOf("out"), PathOf("link"));
    EXPECT_EQ(OsFileRemoveTree(PathOf("link/").c_str()), EOSSTS_ACCESSDENIED);
    EXPECT_EQ(Delete("link/"), EOSSTS_SUCCESS);
    EXPECT_FALSE(Exists("link"));
    EXPECT_EQ(ReadWhole(PathOf("out/keep")), "x");
    EXPECT_EQ(fs::status(PathOf("out/keep")).permissions(), fs::perms::owner_read);
}

// Deeper than a path can tell.
TEST_F(FileSystem, ATreeGoesAtAnyDepth)
{
    fs::create_directory(PathOf("deep"));
    fs::current_path(PathOf("deep"));
    for (int i = 0; i < 400; ++i)
    {
        fs::create_directory("d");
        fs::current_path("d");
        fs::create_directory("empty");
    }
    WriteWhole("file", "x");
    fs::current_path("/");
    std::thread([&] { EXPECT_EQ(OsFileRemoveEmptyTree(PathOf("deep").c_str()), EOSSTS_SHARING); }).join();
    EXPECT_TRUE(Exists("deep/d/d"));
    EXPECT_FALSE(Exists("deep/d/d/empty"));
    std::thread([&] { EXPECT_EQ(Delete("deep"), EOSSTS_SUCCESS); }).join();
    EXPECT_FALSE(Exists("deep"));
}

// The machine's own folders are at stake here, so this runs without the rights to remove them.
TEST_F(FileSystem, AProtectedFolderStaysWhateverItIsCalledBy)
{
    for (const char* szFolder : {"C:\\Windows\\x", "C:\\Users\\x", "C:\\a"})
        ASSERT_EQ(OsFileCreateDirectory(szFolder), EOSSTS_SUCCESS);
    fs::create_directory_symlink("..", m_path / "system/MVR_DRIVEROOT/c/a/up");
    fs::create_directory_symlink("../Windows", m_path / "system/MVR_DRIVEROOT/c/a/link");
    const std::string strRoot = PathOf("system/MVR_DRIVEROOT");
    if (geteuid() == 0)
    {
        fs::permissions(m_path, fs::perms::all);
        ASSERT_EQ(setegid(65534), 0);
        ASSERT_EQ(seteuid(65534), 0);
    }
    m_logcapture.Clear();
    const auto stays = [](auto... a_szFolder) {
        for (const char* szFolder : {a_szFolder...})
        {
            EXPECT_EQ(OsFileRemoveTree(szFolder), EOSSTS_ACCESSDENIED) << szFolder;
            EXPECT_EQ(OsFileRemoveEmptyTree(szFolder), EOSSTS_SHARING) << szFolder;
        }
    };
    stays("", "/", "\\", "//", "\\\\", "/usr", "\\usr", "/usr//", "\\\\usr", "/./usr", "/tmp/../var", "/opt/.",
          "/usr/..", "/var/./", "C:", "C:/", "c:\\\\", "C:\\Windows", "C:\\\\Windows\\", "c:/windows/", "c:/windows/.",
          "C:Windows", "C:\\a\\..\\Windows", "C:\\a\\..", "C:\\Users", "c:/USERS//", "C:\\a\\up\\Users", "C:\\a\\up",
          "C:\\a*", "C:\\?", "C:\\a\\.", "..", ".", "C:\\a\\link\\..\\Users", "C:\\a\\link\\..", strRoot.c_str(),
          (strRoot + "/c").c_str(), (strRoot + "/c/Users").c_str(), PathOf("system").c_str());
    EXPECT_FALSE(m_logcapture.HasPart("Delete: <"));
    EXPECT_TRUE(OsFileExists("C:\\Windows\\x") && OsFileExists("C:\\Users\\x"));
    EXPECT_EQ(seteuid(getuid()), 0);

    ASSERT_EQ(OsFileCreateDirectory("C:\\logs\\Windows\\Users"), EOSSTS_SUCCESS);   // these names are free elsewhere
    EXPECT_EQ(OsFileRemoveTree("C:\\logs\\\\Windows/"), EOSSTS_SUCCESS);
    EXPECT_TRUE(OsFileExists("C:\\logs") && !OsFileExists("C:\\logs\\Windows"));
}

TEST_F(FileSystem, EmptyFoldersGoAndFilesStay)
{
    fs::create_directories(PathOf("t/empty/1/2"));
    fs::create_directories(PathOf("t/full/3"));
    fs::create_directories(PathOf("out/inner"));
    WriteWhole(PathOf("t/full/log"), "");
    fs::create_directory_symlink(PathOf("out"), PathOf("t/full/link"));
    EXPECT_EQ(OsFileRemoveEmptyTree(PathOf("t").c_str()), EOSSTS_SHARING);
    EXPECT_FALSE(Exists("t/empty") || Exists("t/full/3"));
    EXPECT_TRUE(Exists("t/full/log") && Exists("t/full/link") && Exists("out/inner"));

    fs::remove(PathOf("t/full/log"));
    fs::remove(PathOf("t/full/link"));
    EXPECT_EQ(OsFileRemoveEmptyTree(PathOf("t/").c_str()), EOSSTS_SUCCESS);
    EXPECT_FALSE(Exists("t"));
}

TEST_F(FileSystem, ASafeNameStandsForTheFileAsItIsNow)
{
    WriteWhole(PathOf("a"), "1");
    WriteWhole(PathOf("b"), "1");
    const auto nameOf = [&](const char* a_szFile, const char* a_szSuffix = nullptr) {
        char16_t wszName[512];
        EXPECT_EQ(OsFileSafeName(PathOf(a_szFile).c_str(), a_szSuffix, wszName), 0u);
        return std::u16string(wszName);
    };
    const std::u16string wstrName = nameOf("a");
    EXPECT_TRUE(wstrName.starts_with(u"Global\\"));
    EXPECT_EQ(std::count(wstrName.begin(), wstrName.end(), u'-'), 5);
    EXPECT_EQ(nameOf("a"), wstrName);
    EXPECT_NE(nameOf("b"), wstrName);
    EXPECT_EQ(nameOf("a", "x y\\\xC3\xA4-_9"), wstrName + u"-x_y__-_9");
    EXPECT_EQ(nameOf("a", std::string(129, 'x').c_str()), wstrName);
    EXPECT_TRUE(m_logcapture.HasPart("GetSafeFileName failed (destination string is too short...xxx"));
    EXPECT_EQ(nameOf("missing"), u"");

    const PlatHandle plathandle = PlatEventCreate(PLAT_RESET_AUTO, wstrName.c_str());
    char16_t wszName[512];
    EXPECT_EQ(OsFileSafeName(PathOf("a").c_str(), "", wszName), 1u);
    EXPECT_EQ(std::u16string(wszName), u"");
    PlatClose(plathandle);
    WriteWhole(PathOf("a"), "22");
    EXPECT_NE(nameOf("a"), wstrName);
}
}   // namespace
