// plat_file_test.cpp: files: share modes, deletion, appending, paths, searches.
#include "plat_child.h"
#include "plat_fork.h"

#include "plat_file.h"
#include "plat_memory.h"

#include <atomic>
#include <csignal>
#include <set>
#include <sys/resource.h>
#include <thread>

namespace
{

constexpr uint32_t R = PLAT_ACCESS_READ;
constexpr uint32_t W = PLAT_ACCESS_WRITE;
constexpr uint32_t ALL = PLAT_SHARE_READ | PLAT_SHARE_WRITE | PLAT_SHARE_DELETE;
constexpr uint32_t RW = PLAT_SHARE_READ | PLAT_SHARE_WRITE;

// An open file that is closed when it is left, and why it could not be opened.
class File
{
public:
    File(const std::string& a_strPath, uint32_t a_u32Access, uint32_t a_u32Share,
         PlatDisposition a_platdisposition = PLAT_DISPOSITION_OPENALWAYS, uint32_t a_u32Flags = 0)
    {
        PlatSetLastError(0);
        m_plathandle = PlatFileOpen(Wide(a_strPath).c_str(), a_u32Access, a_u32Share, a_platdisposition, a_u32Flags);
        m_u32Error = PlatGetLastError();
    }
    ~File() { Close(); }
    File(const File&) = delete;
    File& operator=(const File&) = delete;

    void Close()
    {
        if (IsOpen())
            PlatClose(m_plathandle);
        m_plathandle = PLAT_INVALID;
    }
    bool IsOpen() const { return m_plathandle != PLAT_INVALID; }
    uint32_t Links() const
    {
        PlatFileIdentity platfileidentity = {};
        EXPECT_TRUE(PlatFileGetIdentity(m_plathandle, &platfileidentity));
        return platfileidentity.u32Links;
    }

    PlatHandle m_plathandle;
    uint32_t m_u32Error;
};

// What a failing call says; 0 for one that succeeds.
uint32_t ErrorOf(bool a_blResult)
{
    return a_blResult ? 0 : PlatGetLastError();
}

}   // namespace

// Says what the signal of a file's limit does.
int PlayPart(const std::vector<std::string>&)
{
    return raise(SIGXFSZ);
}

namespace
{

// Names are relative to the case's own folder.
class PlatFile : public FolderTest
{
protected:
    PlatFile() { std::filesystem::current_path(m_path); }
    ~PlatFile() override { std::filesystem::current_path("/"); }
};

using std::filesystem::exists;

// True while the open file has the name, of which one path is asked for.
bool IsNamed(const File& a_file, const std::string& a_strPath)
{
    return PlatFileIsNamed(a_file.m_plathandle, Wide(a_strPath).c_str());
}

TEST_F(PlatFile, IsNamedByEveryPathThatWouldOpenIt)
{
    const File file("a", R | W, ALL);
    const File fileLook("a", PLAT_ACCESS_NONE, ALL, PLAT_DISPOSITION_OPENEXISTING);
    std::filesystem::create_hard_link("a", "hard");
    std::filesystem::create_symlink("a", "link");
    for (const std::string& strPath : {std::string("a"), PathOf("a"), std::string("hard"), std::string("link")})
        EXPECT_TRUE(IsNamed(file, strPath) && IsNamed(fileLook, strPath)) << strPath;

    std::filesystem::rename("a", "moved");
    EXPECT_TRUE(IsNamed(file, "moved"));
    EXPECT_FALSE(IsNamed(file, "a"));
    EXPECT_FALSE(IsNamed(file, "link"));
    WriteWhole(PathOf("a"), "another");
    EXPECT_FALSE(IsNamed(file, "a"));
    std::filesystem::remove("moved");
    EXPECT_FALSE(IsNamed(file, "moved"));
    EXPECT_TRUE(IsNamed(file, "hard"));
}

// ------------------------------------------------------------------------------------------ the limit of a file's size

// Writes more than the limit lets in, and tells what the write said and how much it took.
std::pair<uint32_t, size_t> WriteBeyondTheLimit()
{
    const File file("limited", R | W, ALL);
    rlimit rlimitBefore{};
    getrlimit(RLIMIT_FSIZE, &rlimitBefore);
    const rlimit rlimitSmall{10, rlimitBefore.rlim_max};
    setrlimit(RLIMIT_FSIZE, &rlimitSmall);
    size_t sizetWritten = 0;
    const uint32_t u32Error = ErrorOf(PlatFileAppend(file.m_plathandle, "sixteen letters.", 16, &sizetWritten));
    setrlimit(RLIMIT_FSIZE, &rlimitBefore);
    return {u32Error, sizetWritten};
}

TEST_F(PlatFile, LimitOfAFilesSizeIsAFullDiskAndForNoChild)
{
    EXPECT_EQ(WriteBeyondTheLimit(), std::pair(PLAT_ERROR_DISKFULL, size_t{10}));
    EXPECT_EQ(ReadWhole(PathOf("limited")), "sixteen le");
    std::filesystem::remove("limited");
    EXPECT_EQ(Part("-").ExitCode(), 128u + SIGXFSZ);

    static volatile sig_atomic_t s_iSignals = 0;   // the program's own handler stays
    const auto pfnBefore = signal(SIGXFSZ, [](int) { s_iSignals = s_iSignals + 1; });
    EXPECT_EQ(WriteBeyondTheLimit().first, PLAT_ERROR_DISKFULL);
    EXPECT_EQ(s_iSignals, 1);
    signal(SIGXFSZ, pfnBefore);
}

// ---------------------------------------------------------------------------------------------------- share modes

// Every opener against every other, which is both orders: each must let the other do what it does.
TEST_F(PlatFile, TwoOpenersMustEachShareWhatTheOtherDoes)
{
    struct Opener
    {
        uint32_t u32Does;   // in the bits of what others share
        uint32_t u32Shares;
        File Open(const std::string& a_strPath) const
        {
            return {a_strPath, u32Does & (R | W), u32Shares, PLAT_DISPOSITION_OPENALWAYS,
                    u32Does & PLAT_SHARE_DELETE ? PLAT_OPEN_DELETEONCLOSE : 0};
        }
    };
    std::vector<Opener> vecopener;
    for (uint32_t u32Pair = 0; u32Pair <= ALL * 8 + ALL; ++u32Pair)
    {
        if (u32Pair / 8 & (R | W))
            vecopener.push_back({u32Pair / 8, u32Pair % 8});
    }
    for (const Opener& openerA : vecopener)
    {
        for (const Opener& openerB : vecopener)
        {
            const File fileA = openerA.Open("file");
            const File fileB = openerB.Open("file");
            const bool blShared = !(openerA.u32Does & ~openerB.u32Shares) && !(openerB.u32Does & ~openerA.u32Shares);
            ASSERT_EQ(fileA.m_u32Error, 0u);
            ASSERT_EQ(fileB.m_u32Error, blShared ? 0 : PLAT_ERROR_SHARING)
                << openerA.u32Does << " shares " << openerA.u32Shares << ", then " << openerB.u32Does << " shares "
                << openerB.u32Shares;
        }
    }
}

// ------------------------------------------------------------------------------------------------------- deletion

TEST_F(PlatFile, WhatAnOpenerDoesNotShareIsRefusedAndChangesNothing)
{
    char16_t wszProgram[PLAT_PATHMAX];   // one that runs is read by who denies writing
    ASSERT_TRUE(PlatProgramPath(wszProgram, PLAT_PATHMAX));
    EXPECT_TRUE(PlatClose(PlatFileOpen(wszProgram, R, PLAT_SHARE_READ, PLAT_DISPOSITION_OPENEXISTING, 0)));
    WriteWhole("kept", "kept");
    const File fileKept("kept", R, PLAT_SHARE_NONE);
    EXPECT_EQ(File("kept", W, RW, PLAT_DISPOSITION_CREATEALWAYS).m_u32Error, PLAT_ERROR_SHARING);
    EXPECT_EQ(ReadWhole("kept"), "kept");
    EXPECT_EQ(File("kept", PLAT_ACCESS_NONE, PLAT_SHARE_NONE, PLAT_DISPOSITION_OPENEXISTING).Links(), 1u);
    for (const uint32_t u32Share : {RW, ALL, uint32_t{PLAT_SHARE_NONE}, uint32_t{PLAT_SHARE_DELETE}})
    {
        const bool blShared = u32Share & PLAT_SHARE_DELETE;
        File file("file", W, u32Share);
        EXPECT_EQ(ErrorOf(PlatFileMove(u"file", u"moved")), blShared ? 0u : 32u);
        EXPECT_EQ(ErrorOf(PlatFileDelete(blShared ? u"moved" : u"file")), blShared ? 0u : 32u);
        EXPECT_EQ(file.Links(), blShared ? 0u : 1u);
        file.Close();
        EXPECT_EQ(ErrorOf(PlatFileDelete(u"file")), blShared ? 2u : 0u);
    }
}

TEST_F(PlatFile, TemporaryFileGoesByIdentityNotByName)
{
    File fileMoved("a", W, ALL, PLAT_DISPOSITION_CREATEALWAYS, PLAT_OPEN_DELETEONCLOSE);
    std::filesystem::rename("a", "b");
    WriteWhole("a", "another");
    fileMoved.Close();
    EXPECT_FALSE(exists("b"));

    File fileReplaced("c (deleted)", W, ALL, PLAT_DISPOSITION_CREATEALWAYS, PLAT_OPEN_DELETEONCLOSE);
    std::filesystem::remove("c (deleted)");
    WriteWhole("c (deleted)", "another");
    WriteWhole("c", "another");
    fileReplaced.Close();
    EXPECT_TRUE(exists("a") && exists("c (deleted)") && exists("c"));
}

// A logger opens its file for each line while somebody clears the folder: no line may find the file refused.
TEST_F(PlatFile, DeletionNeverRefusesAnOpener)
{
    std::atomic<bool> blStop{false};
    std::atomic<int> iDeleted{0};
    std::thread thread([&] {
        while (!blStop)
            iDeleted += PlatFileDelete(u"file");
    });
    for (int iOpen = 0; iOpen < 3000 || !iDeleted; ++iOpen)
        ASSERT_EQ(File("file", W, RW).m_u32Error, 0u);
    blStop = true;
    thread.join();
}

// ------------------------------------------------------------------------------------------------- paths, searches

TEST_F(PlatFile, MissingFileIsToldFromMissingFolder)
{
    const auto error = [](const std::string& strPath, PlatDisposition platdisposition) {
        return File(strPath, R, RW, platdisposition).m_u32Error;
    };
    for (const PlatDisposition platdisposition : {PLAT_DISPOSITION_OPENEXISTING, PLAT_DISPOSITION_OPENALWAYS})
    {
        EXPECT_EQ(error("none/file", platdisposition), PLAT_ERROR_PATHNOTFOUND);
        EXPECT_EQ(error("", platdisposition), PLAT_ERROR_PATHNOTFOUND);
        EXPECT_EQ(error(".", platdisposition), PLAT_ERROR_ACCESSDENIED);   // a folder
        EXPECT_EQ(error(std::string(300, 'n'), platdisposition), PLAT_ERROR_INVALIDNAME);
    }
    EXPECT_EQ(error("none", PLAT_DISPOSITION_OPENEXISTING), PLAT_ERROR_FILENOTFOUND);
    EXPECT_TRUE(File(".", R, RW, PLAT_DISPOSITION_OPENEXISTING, PLAT_OPEN_FOLDER).IsOpen());
    EXPECT_EQ(ErrorOf(PlatFileDelete(u"none/file")), PLAT_ERROR_PATHNOTFOUND);
    EXPECT_EQ(ErrorOf(PlatFileDelete(u"none")), PLAT_ERROR_FILENOTFOUND);
    EXPECT_EQ(ErrorOf(PlatFileDelete(u".")), PLAT_ERROR_ACCESSDENIED);
    const char16_t wszLone[] = {u't', 0xD800, u'x', 0};
    EXPECT_EQ(PlatFileOpen(wszLone, R, RW, PLAT_DISPOSITION_OPENALWAYS, 0), PLAT_INVALID);
    EXPECT_EQ(PlatGetLastError(), PLAT_ERROR_NOUNICODE);
}

TEST_F(PlatFile, PathsAreTakenInEverySpelling)
{
    const std::u16string wstrName = u"na\u00efve \U0001F600";
    const std::u16string wstrPath = u"\\\\?\\" + Wide(Backslashed(m_path)) + u"\\" + wstrName;
    EXPECT_TRUE(PlatClose(PlatFileOpen(wstrPath.c_str(), W, RW, PLAT_DISPOSITION_OPENALWAYS, 0)));
    EXPECT_TRUE(exists("na\u00efve \U0001F600"));
    PlatFileInfo platfileinfo;
    EXPECT_TRUE(PlatFileGetInfo(wstrPath.c_str(), &platfileinfo) && platfileinfo.wszName == wstrName);
}

TEST_F(PlatFile, FullNames)
{
    char16_t wszFull[PLAT_PATHMAX];
    const std::u16string wstrHere = Wide(Backslashed(m_path));
    const std::pair<std::u16string, std::u16string> apair[] = {
        {u"x", wstrHere + u"\\x"},
        {u".\\x\\..\\y/", wstrHere + u"\\y\\"},
        {u"/a//b/./c/..", u"\\a\\b"},
        {u"/..", u"\\"},
        {u"C:/a/../b", u"C:\\b"},
        {u"c:\\..\\..", u"c:\\"},
        {u"\\\\server\\share\\..\\..\\x", u"\\\\server\\share\\x"},
        {u"\\\\?\\C:\\x", u"C:\\x"},
    };
    for (const auto& [wstrName, wstrFull] : apair)
    {
        EXPECT_TRUE(PlatFileFullName(wstrName.c_str(), wszFull, PLAT_PATHMAX));
        EXPECT_EQ(wszFull, wstrFull);
    }
    EXPECT_TRUE(PlatFileFullName(u"/abc", wszFull, 5));
    EXPECT_EQ(ErrorOf(PlatFileFullName(u"/abc", wszFull, 4)), PLAT_ERROR_INSUFFICIENTBUFFER);
}

TEST_F(PlatFile, SearchListsWhatThePatternNames)
{
    for (const char* szName : {"a.log", "b.log", "ab.log.1", "Makefile"})
        WriteWhole(szName, szName);
    std::filesystem::create_directory("logs");
    const auto list = [&](const std::string& strPattern) {
        std::set<std::u16string> setName;
        PlatFileInfo platfileinfo;
        const PlatHandle plathandle = PlatFindFirst(Wide(strPattern).c_str(), &platfileinfo);
        if (plathandle == PLAT_INVALID)
            return std::set<std::u16string>{Wide(std::to_string(PlatGetLastError()))};
        do
        {
            EXPECT_TRUE(setName.insert(platfileinfo.wszName).second);
        } while (PlatFindNext(plathandle, &platfileinfo));
        EXPECT_EQ(PlatGetLastError(), PLAT_ERROR_NOMOREFILES);
        EXPECT_TRUE(PlatClose(plathandle));
        return setName;
    };
    using Names = std::set<std::u16string>;
    const Names setAll = {u".", u"..", u"a.log", u"b.log", u"ab.log.1", u"Makefile", u"logs"};
    EXPECT_EQ(list("*"), setAll);
    EXPECT_EQ(list("*.*"), setAll);
    EXPECT_EQ(list("?.log"), (Names{u"a.log", u"b.log"}));
    EXPECT_EQ(list("a*log*"), (Names{u"a.log", u"ab.log.1"}));
    EXPECT_EQ(list("A*"), (Names{u"2"}));
    EXPECT_EQ(list("logs\\"), (Names{u"logs"}));
    EXPECT_EQ(list("none"), (Names{u"2"}));
    EXPECT_EQ(list("none/*"), (Names{u"3"}));
    EXPECT_EQ(list("Makefile/*"), (Names{u"3"}));
}

TEST_F(PlatFile, GuardedViewOutlivesTheCutOfItsFile)
{
    WriteWhole("file", std::string(3 * PlatMemoryGranularity(), 'x'));
    File file("file", R | W, RW);
    size_t sizetView = 0;
    auto* pch = static_cast<char*>(PlatMappingView(file.m_plathandle, 0, true, &sizetView));
    ASSERT_NE(pch, nullptr);
    PlatMappingGuard(pch, sizetView);
    std::filesystem::resize_file(PathOf("file"), 1);
    const char chGone = pch[sizetView - 1];
    pch[PlatMemoryGranularity()] = 'y';
    EXPECT_FALSE(PlatMappingUnguard());
    EXPECT_EQ(std::string({pch[0], chGone, pch[PlatMemoryGranularity()]}), std::string("x\0y", 3));
    PlatMappingGuard(pch, sizetView);
    EXPECT_TRUE(PlatMappingUnguard() && PlatMappingRelease(pch, sizetView));
}

TEST_F(PlatFile, KeptViewOutlivesTheCutOnEveryThreadAndAForkHasItsOwn)
{
    WriteWhole("file", std::string(PlatMemoryGranularity(), 'x'));
    File file("file", R | W, RW);
    size_t sizetView = 0;
    auto* pch = static_cast<char*>(PlatMappingView(file.m_plathandle, 0, true, &sizetView));
    ASSERT_NE(pch, nullptr);
    PlatMappingKeep(pch, sizetView);
    EXPECT_EQ(InOtherProcess([] { return true; },
                             [&] {
                                 const char chFound = *pch;
                                 *pch = 'y';
                                 return chFound;
                             }),
              0);
    EXPECT_EQ(ReadWhole("file")[0], 'x');
    std::filesystem::resize_file(PathOf("file"), 0);
    InThreads(2, [&](int) { EXPECT_EQ(std::atomic_ref<char>(*pch).load(), 0); });
    EXPECT_TRUE(PlatMappingRelease(pch, sizetView));
}

}   // namespace
