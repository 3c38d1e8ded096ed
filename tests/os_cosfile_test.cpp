// os_cosfile_test.cpp: the file object, and whole files in one call.
#include "test_support.h"

#include "os_cosfile.h"
#include "os_cosmem.h"

#include <fstream>
#include <thread>

namespace
{
class File : public FolderTest
{
protected:
    File() : m_szFile(PathOf("a.txt")) {}

    EOSSTS Open(COsFile& a_osfile, EOSFILEOPEN a_eosfileopen = OS_FILEOPEN_ALWAYS,
                EOSFILEACCESS a_eosfileaccess = OS_FILEACCESS_READWRITE,
                EOSFILESHARE a_eosfileshare = OS_FILESHARE_READWRITE) const
    {
        return a_osfile.Open(m_szFile.c_str(), a_eosfileopen, a_eosfileaccess, a_eosfileshare);
    }

    LogCapture m_logcapture;
    COsMem m_osmem;
    std::string m_szFile;
};

int PrintfNullList(COsFile& a_osfile)
{
    return a_osfile.VPrintf("x", nullptr);
}

TEST_F(File, OpenRefusesBadArguments)
{
    const std::tuple<uint32_t, uint32_t, uint32_t, const char*> atuple[] = {{0, 0, 0, "a_eosfileopen is bad..."},
                                                                            {7, 1, 1, "a_eosfileopen is bad..."},
                                                                            {1, 5, 0, "a_eosfileaccess is bad..."},
                                                                            {1, 1, 5, "a_eosfileshare is bad..."}};
    COsFile osfile;
    for (const auto& [u32Open, u32Access, u32Share, szText] : atuple)
    {
        EXPECT_EQ(Open(osfile, static_cast<EOSFILEOPEN>(u32Open), static_cast<EOSFILEACCESS>(u32Access),
                       static_cast<EOSFILESHARE>(u32Share)),
                  EOSSTS_NOTOPEN);
        EXPECT_TRUE(m_logcapture.HasAt(OS_LOG_ERROR, szText)) << szText;
    }
    EXPECT_FALSE(std::filesystem::exists(m_szFile));
    EXPECT_EQ(osfile.Open(nullptr, OS_FILEOPEN_EXISTING, OS_FILEACCESS_READ, OS_FILESHARE_READ), EOSSTS_NOTOPEN);

    // Too long in UTF-8, while its characters would fit.
    std::string strLong;
    while (strLong.size() < OS_PATHSIZE)
        strLong += "\u00E4/";
    EXPECT_EQ(osfile.Open(strLong.c_str(), OS_FILEOPEN_EXISTING, OS_FILEACCESS_READ, OS_FILESHARE_READ), EOSSTS_FAIL);
}

TEST_F(File, EachOpenModeDoesToTheFileWhatItSays)
{
    COsFile osfile;
    EXPECT_EQ(Open(osfile, OS_FILEOPEN_EXISTING), EOSSTS_NOTFOUND);
    EXPECT_TRUE(m_logcapture.HasAt(OS_LOG_NOTE, "CreateFileW failed...257 0xc0000000 0x3 0x3 0x80 <" + m_szFile + ">"));
    EXPECT_EQ(PlatGetLastError(), 0u);

    EXPECT_EQ(Open(osfile, OS_FILEOPEN_ALWAYS), EOSSTS_SUCCESS);
    EXPECT_EQ(osfile.Printf("%s", "text"), 4);
    EXPECT_EQ(Open(osfile, OS_FILEOPEN_EXISTING), EOSSTS_SUCCESS);
    EXPECT_EQ(ReadWhole(m_szFile), "text");
    EXPECT_STREQ(osfile.GetName(), m_szFile.c_str());
    EXPECT_EQ(Open(osfile, OS_FILEOPEN_CREATEALWAYS), EOSSTS_SUCCESS);
    EXPECT_EQ(ReadWhole(m_szFile), "");
    EXPECT_EQ(Open(osfile, OS_FILEOPEN_TEMPORARY), EOSSTS_SUCCESS);
    EXPECT_EQ(osfile.Close(), EOSSTS_SUCCESS);
    EXPECT_FALSE(std::filesystem::exists(m_szFile));

    const std::string szFolder = m_path.string();
    EXPECT_EQ(osfile.Open(szFolder.c_str(), OS_FILEOPEN_EXISTING, OS_FILEACCESS_READ, OS_FILESHARE_READ),
              EOSSTS_ACCESSDENIED);
    EXPECT_TRUE(m_logcapture.HasAt(OS_LOG_NOTE, "CreateFileW failed...258 0x80000000 0x1 0x3 0x80 <" + szFolder + ">"));
    EXPECT_EQ(osfile.Open(szFolder.c_str(), OS_FILEOPEN_DIRECTORY, OS_FILEACCESS_NONE, OS_FILESHARE_READWRITE),
              EOSSTS_SUCCESS);
}

TEST_F(File, AClosedFileSaysSo)
{
    COsFile osfile;
    char ch;
    uint64_t u64Size;
    EXPECT_EQ(osfile.Close(), EOSSTS_SUCCESS);
    for (const EOSSTS eossts : {osfile.Flush(), osfile.Read(&ch, 1, nullptr), osfile.Append("x", 1),
                                osfile.Seek(OS_FILESEEK_END, 0), osfile.GetSize(&u64Size), osfile.SetEndOfFile()})
        EXPECT_EQ(eossts, EOSSTS_NOTOPEN);
    EXPECT_EQ(osfile.Printf("x"), -1);
    EXPECT_EQ(osfile.Lock(0, 1, 0, "x", true, false), EOSSTS_FAIL);
    EXPECT_EQ(osfile.Unlock(0, 1), EOSSTS_FAIL);
    EXPECT_FALSE(osfile.HasName());
    EXPECT_EQ(osfile.GetName(), nullptr);
}

TEST_F(File, PositionSizeAndEndBelongTogether)
{
    COsFile osfile;
    ASSERT_EQ(Open(osfile), EOSSTS_SUCCESS);
    EXPECT_EQ(osfile.Write("0123456789", 10), EOSSTS_SUCCESS);
    EXPECT_EQ(osfile.Seek(OS_FILESEEK_END, -4), EOSSTS_SUCCESS);
    EXPECT_EQ(osfile.Seek(OS_FILESEEK_CURRENT, -1), EOSSTS_SUCCESS);
    EXPECT_EQ(osfile.Seek(static_cast<EOSFILESEEK>(9), 3), EOSSTS_SUCCESS);
    char szRead[16] = {};
    size_t sizetRead = 99;
    EXPECT_EQ(osfile.Read(szRead, 2, &sizetRead), EOSSTS_SUCCESS);
    EXPECT_STREQ(szRead, "56");
    EXPECT_EQ(osfile.SetEndOfFile(), EOSSTS_SUCCESS);
    EXPECT_EQ(osfile.Append("ab", 2), EOSSTS_SUCCESS);
    EXPECT_EQ(osfile.Flush(), EOSSTS_SUCCESS);
    uint64_t u64Size = 0;
    EXPECT_EQ(osfile.GetSize(&u64Size), EOSSTS_SUCCESS);
    EXPECT_EQ(u64Size, 9u);
    EXPECT_EQ(ReadWhole(m_szFile), "0123456ab");
    EXPECT_EQ(osfile.Seek(OS_FILESEEK_END, 0), EOSSTS_SUCCESS);
    EXPECT_EQ(osfile.Read(szRead, 2, &sizetRead), EOSSTS_SUCCESS);
    EXPECT_EQ(sizetRead, 0u);

    EXPECT_EQ(osfile.GetSize(nullptr), EOSSTS_FAIL);
    EXPECT_TRUE(m_logcapture.Has("a_psizetBytes is null..."));
    EXPECT_EQ(osfile.Read(nullptr, 2, &sizetRead), EOSSTS_NOTOPEN);
    EXPECT_TRUE(m_logcapture.Has("a_pBuffer is NULL..."));
}

TEST_F(File, PrintfWritesTextOfAnyLengthUpToTheFirstNul)
{
    COsFile osfile;
    ASSERT_EQ(Open(osfile), EOSSTS_SUCCESS);
    const std::string szLong(5000, 'x');
    EXPECT_EQ(osfile.Printf("<%s>%d", szLong.c_str(), 7), 5003);
    EXPECT_EQ(osfile.Printf("ab%ccd", 0), 2);
    EXPECT_EQ(ReadWhole(m_szFile), "<" + szLong + ">7ab");
    EXPECT_EQ(osfile.Printf("%s", ""), -1);
    EXPECT_EQ(osfile.VPrintf(nullptr, nullptr), -1);
    EXPECT_TRUE(m_logcapture.Has("a_szFormat is null or empty..."));
    EXPECT_EQ(PrintfNullList(osfile), -1);
    EXPECT_TRUE(m_logcapture.Has("a_valist is null..."));
    EXPECT_EQ(m_osmem.GetCounts().u32Current, 0u);

    ASSERT_EQ(Open(osfile, OS_FILEOPEN_EXISTING, OS_FILEACCESS_READ), EOSSTS_SUCCESS);
    EXPECT_EQ(osfile.Printf("refused"), -1);
}

// Both objects are of this process: the lock is the open file's, and goes when it is closed.
TEST_F(File, ALockExcludesEveryOtherObject)
{
    COsFile osfileHolder, osfileOther;
    ASSERT_EQ(Open(osfileHolder), EOSSTS_SUCCESS);
    ASSERT_EQ(Open(osfileOther), EOSSTS_SUCCESS);
    EXPECT_EQ(osfileHolder.Lock(5, 3, 0, nullptr, true, true), EOSSTS_SUCCESS);   // only tested
    EXPECT_EQ(osfileOther.LockByte(5, 0, nullptr, true), EOSSTS_SUCCESS);
    EXPECT_EQ(osfileOther.UnlockByte(5), EOSSTS_SUCCESS);

    EXPECT_EQ(osfileHolder.Lock(5, 3, 0, nullptr, true, false), EOSSTS_SUCCESS);
    EXPECT_EQ(osfileHolder.Lock(5, 3, 0, nullptr, true, false), EOSSTS_SUCCESS);   // it has it
    EXPECT_EQ(osfileOther.LockByte(7, 1, nullptr, true), EOSSTS_BUSY);
    EXPECT_TRUE(m_logcapture.HasAt(OS_LOG_NOTE, "File is already locked...<(not specified)>"));
    EXPECT_EQ(osfileOther.LockByte(7, 1, "quiet", false), EOSSTS_BUSY);
    EXPECT_FALSE(m_logcapture.Has("File is already locked...<quiet>"));
    EXPECT_EQ(Open(*std::make_unique<COsFile>()), EOSSTS_SUCCESS);   // and is closed: the lock of the other one stays
    EXPECT_EQ(osfileHolder.Unlock(5, 2), EOSSTS_SUCCESS);            // no such range: nothing happens
    EXPECT_EQ(osfileOther.LockByte(7, 1, "still", true), EOSSTS_BUSY);

    std::thread thread([&] {
        EXPECT_TRUE(WaitFor([&] { return m_logcapture.Has("go"); }));
        osfileHolder.Close();
    });
    OsLogPrintf(&m_logcapture, "test", 0, 4, "go");
    EXPECT_EQ(osfileOther.LockByte(7, 20000, "waits", true), EOSSTS_SUCCESS);
    thread.join();
    ASSERT_EQ(Open(osfileHolder), EOSSTS_SUCCESS);
    EXPECT_EQ(osfileHolder.Lock(5, 3, 0, nullptr, true, false), EOSSTS_SUCCESS) << "remembered, not locked";
    EXPECT_EQ(osfileHolder.Unlock(5, 3), EOSSTS_SUCCESS);
    EXPECT_EQ(osfileHolder.Lock(5, 3, 0, nullptr, true, false), EOSSTS_BUSY);
    EXPECT_EQ(osfileOther.Lock(0, 0, 0, nullptr, true, false), EOSSTS_FAIL);
    EXPECT_EQ(osfileOther.UnlockByte(7), EOSSTS_SUCCESS);
    const uint64_t u64Start = PlatTicks();
    EXPECT_EQ(osfileOther.LockByte(7, 350, nullptr, true), EOSSTS_SUCCESS);
    EXPECT_EQ(osfileHolder.LockByte(7, 350, nullptr, true), EOSSTS_BUSY);
    EXPECT_GE(PlatTicks() - u64Start, 290u);   // tried every 100 ms while more than that remains

    ASSERT_EQ(Open(osfileHolder), EOSSTS_SUCCESS);
    for (uint32_t u32 = 100; u32 < 228; u32 += 2)
        EXPECT_EQ(osfileHolder.LockByte(u32, 0, nullptr, true), EOSSTS_SUCCESS);
    EXPECT_EQ(osfileHolder.LockByte(300, 0, nullptr, true), EOSSTS_FAIL) << "an object holds 64 ranges";
    EXPECT_EQ(osfileHolder.UnlockByte(120), EOSSTS_SUCCESS);
    EXPECT_EQ(osfileHolder.LockByte(300, 0, nullptr, true), EOSSTS_SUCCESS);
}

// Whatever else is asked for, a range stays locked as a whole until it is unlocked, also where nobody may write.
TEST_F(File, ALockedRangeStaysWhole)
{
    COsFile osfileHolder, osfileOther;
    for (const EOSFILEACCESS eosfileaccess : {OS_FILEACCESS_READWRITE, OS_FILEACCESS_READ})
    {
        ASSERT_EQ(Open(osfileHolder, OS_FILEOPEN_ALWAYS, eosfileaccess), EOSSTS_SUCCESS);
        ASSERT_EQ(Open(osfileOther, OS_FILEOPEN_ALWAYS, eosfileaccess), EOSSTS_SUCCESS);
        ASSERT_EQ(osfileHolder.Lock(10, 10, 0, nullptr, true, false), EOSSTS_SUCCESS);
        EXPECT_EQ(osfileHolder.Lock(12, 3, 0, nullptr, true, true), EOSSTS_BUSY);
        EXPECT_EQ(osfileHolder.Lock(19, 2, 0, nullptr, true, false), EOSSTS_BUSY);
        EXPECT_EQ(osfileHolder.Lock(10, 10, 0, nullptr, true, true), EOSSTS_SUCCESS);
        EXPECT_EQ(osfileHolder.Lock(20, 1, 0, nullptr, true, true), EOSSTS_SUCCESS);
        EXPECT_EQ(osfileHolder.Unlock(19, 2), EOSSTS_SUCCESS);
        for (const uint32_t u32Byte : {10u, 13u, 19u})
            EXPECT_EQ(osfileOther.LockByte(u32Byte, 0, nullptr, true), EOSSTS_BUSY) << u32Byte;
        EXPECT_EQ(osfileOther.LockByte(20, 0, nullptr, true), EOSSTS_SUCCESS);
        EXPECT_EQ(osfileHolder.Unlock(10, 10) + osfileOther.UnlockByte(20), EOSSTS_SUCCESS);
        EXPECT_EQ(osfileOther.Lock(10, 11, 0, nullptr, true, true), EOSSTS_SUCCESS);
    }
    EXPECT_EQ(osfileHolder.LockByte(0, 0, nullptr, true), EOSSTS_SUCCESS);
    ASSERT_EQ(Open(osfileOther), EOSSTS_SUCCESS);
    EXPECT_EQ(osfileOther.LockByte(0, 0, nullptr, true), EOSSTS_BUSY) << "who may write against who may not";
}

TEST_F(File, KnowsWhetherItsNameIsStillThere)
{
    COsFile osfile;
    ASSERT_EQ(Open(osfile), EOSSTS_SUCCESS);
    EXPECT_TRUE(osfile.HasName());
    EXPECT_TRUE(osfile.IsNamed());
    std::filesystem::rename(m_szFile, PathOf("moved"));
    EXPECT_TRUE(osfile.HasName());
    EXPECT_FALSE(osfile.IsNamed());

    COsFile osfileSame, osfileOther;
    OsFileIdentity osfileidentity{}, osfileidentitySame{}, osfileidentityOther{};
    EXPECT_EQ(Open(osfileOther), EOSSTS_SUCCESS);
    EXPECT_EQ(osfileSame.Open(PathOf("moved").c_str(), OS_FILEOPEN_ALWAYS, OS_FILEACCESS_READ, OS_FILESHARE_READWRITE),
              EOSSTS_SUCCESS);
    EXPECT_TRUE(osfile.GetIdentity(&osfileidentity) && osfileSame.GetIdentity(&osfileidentitySame) &&
                osfileOther.GetIdentity(&osfileidentityOther));
    EXPECT_EQ(osfileidentity, osfileidentitySame);
    EXPECT_NE(osfileidentity, osfileidentityOther);
    std::filesystem::remove(PathOf("moved"));
    EXPECT_FALSE(osfile.HasName());
    osfile.Close();
    EXPECT_FALSE(osfile.IsNamed() || osfile.GetIdentity(&osfileidentity));
}

TEST_F(File, ALibraryIsFreedUntilItHasGone)
{
    PlatHandle plathandle = PLAT_INVALID;
    for (int i = 0; i < 3; ++i)
        plathandle = PlatModuleLoad(u"libresolv.so.2");
    ASSERT_NE(plathandle, PLAT_INVALID);
    {
        COsFile osfile;
        osfile.TakeLibrary(plathandle, true, true);
    }
    EXPECT_FALSE(PlatModuleIsLoaded(plathandle));
    EXPECT_TRUE(m_logcapture.HasAt(OS_LOG_NOTE, "SharedLibrary: draining 3 of 10 attempts"));
    EXPECT_FALSE(m_logcapture.Has("SharedLibrary: draining 4 of 10 attempts"));
}

TEST_F(File, ReadFileReturnsTheWholeTextOrFillsTheBuffer)
{
    WriteWhole(m_szFile, "0123456789");
    char* szAllocated = nullptr;
    size_t sizetRead = 0;
    ASSERT_EQ(OsFileReadFile({.szFilename = m_szFile.c_str(), .pszAllocated = &szAllocated, .psizetRead = &sizetRead}),
              EOSSTS_SUCCESS);
    EXPECT_STREQ(szAllocated, "0123456789");
    EXPECT_EQ(sizetRead, 10u);
    OsMemFree(szAllocated, "test", 0, OS_MEMFLAG_BLOCK);

    char acBuffer[5] = "zzzz";
    ASSERT_EQ(OsFileReadFile(
                  {.szFilename = m_szFile.c_str(), .szBuffer = acBuffer, .sizetBuffer = 4, .psizetRead = &sizetRead}),
              EOSSTS_SUCCESS);
    EXPECT_STREQ(acBuffer, "0123");
    EXPECT_EQ(sizetRead, 4u);

    WriteWhole(m_szFile, "");
    ASSERT_EQ(OsFileReadFile({.szFilename = m_szFile.c_str(), .pszAllocated = &szAllocated}), EOSSTS_SUCCESS);
    EXPECT_STREQ(szAllocated, "");
    OsMemFree(szAllocated, "test", 0, OS_MEMFLAG_BLOCK);
    EXPECT_EQ(m_osmem.GetCounts().u32Current, 0u);
}

TEST_F(File, ReadFileTellsMissingLockedAndUnreadableApart)
{
    char* szAllocated = nullptr;
    OsFileReadArgs osfilereadargs{.szFilename = m_szFile.c_str(), .pszAllocated = &szAllocated, .i32LockTimeout = 0};
    EXPECT_EQ(OsFileReadFile(osfilereadargs), EOSSTS_NOTFOUND);
    EXPECT_FALSE(std::filesystem::exists(m_szFile));

    COsFile osfile;
    ASSERT_EQ(Open(osfile), EOSSTS_SUCCESS);
    ASSERT_EQ(osfile.LockByte(0, 0, nullptr, true), EOSSTS_SUCCESS);
    EXPECT_EQ(OsFileReadFile(osfilereadargs), EOSSTS_BUSY);
    EXPECT_TRUE(m_logcapture.HasAt(OS_LOG_ERROR, "Lock failed...<" + m_szFile + "> 4"));
    EXPECT_EQ(osfile.UnlockByte(0), EOSSTS_SUCCESS);
    EXPECT_EQ(OsFileReadFile(osfilereadargs), EOSSTS_SUCCESS);
    OsMemFree(szAllocated, "test", 0, OS_MEMFLAG_BLOCK);

    ASSERT_EQ(Open(osfile, OS_FILEOPEN_EXISTING, OS_FILEACCESS_READ, OS_FILESHARE_EXCLUSIVE), EOSSTS_SUCCESS);
    osfilereadargs.blQuiet = true;
    EXPECT_EQ(OsFileReadFile(osfilereadargs), EOSSTS_FAIL);
    EXPECT_TRUE(m_logcapture.HasAt(OS_LOG_NOTE, "Open failed...<" + m_szFile + ">"));
    EXPECT_EQ(OsFileReadFile({.szFilename = m_szFile.c_str()}), EOSSTS_FAIL);
    EXPECT_TRUE(m_logcapture.Has("OsFileReadFile(" + m_szFile + ",0000000000000000,0,0,0000000000000000,-1,0)"));
    EXPECT_TRUE(m_logcapture.HasAt(OS_LOG_ERROR, "null argument..."));
}

TEST_F(File, WriteFileReplacesOrAppendsAndMoveReplacesNothing)
{
    WriteWhole(PathOf("b.txt"), "1");
    WriteWhole(m_szFile, "2");
    EXPECT_EQ(OsFileMove(m_szFile.c_str(), PathOf("b.txt").c_str()), EOSSTS_FAIL);
    EXPECT_EQ(ReadWhole(PathOf("b.txt")), "1");
    EXPECT_EQ(OsFileMove(m_szFile.c_str(), PathOf("c.txt").c_str()), EOSSTS_SUCCESS);
    EXPECT_EQ(ReadWhole(PathOf("c.txt")), "2");

    EXPECT_EQ(OsLogWriteFile(m_szFile.c_str(), "a long first text", false, true, false), EOSSTS_SUCCESS);
    EXPECT_EQ(OsLogWriteFile(m_szFile.c_str(), "short", false, false, false), EOSSTS_SUCCESS);
    EXPECT_EQ(OsLogWriteFile(m_szFile.c_str(), "+more", false, false, true), EOSSTS_SUCCESS);
    EXPECT_EQ(ReadWhole(m_szFile), "short+more");
    EXPECT_EQ(OsLogWriteFile(m_szFile.c_str(), "", false, false, false), EOSSTS_SUCCESS);
    EXPECT_EQ(ReadWhole(m_szFile), "");
    EXPECT_EQ(OsLogWriteFile("E:\\a.log", "x", false, false, false), EOSSTS_SUCCESS);   // the drive comes with it
    EXPECT_EQ(ReadWhole(m_path / "system/MVR_DRIVEROOT/e/a.log"), "x");
    EXPECT_EQ(OsLogWriteFile(PathOf("no/such").c_str(), "x", false, false, false), EOSSTS_FAIL);
    EXPECT_TRUE(m_logcapture.HasAt(OS_LOG_ERROR, "Open failed...<" + PathOf("no/such") + ">"));
    EXPECT_EQ(OsLogWriteFile("/dev/full", "x", true, false, true), EOSSTS_FAIL);
    EXPECT_TRUE(m_logcapture.HasAt(OS_LOG_NOTE, "Write failed...</dev/full>"));
}

TEST_F(File, GuardOfAnOpenIsPassedOn)
{
    namespace fs = std::filesystem;
    for (const char* szFolder : {"own", "shared"})
        fs::create_directory(PathOf(szFolder));
    fs::permissions(PathOf("own"), fs::perms{0755});
    fs::permissions(PathOf("shared"), fs::perms{01777});
    for (const char* szFile : {"own/file", "shared/file"})
        WriteWhole(PathOf(szFile), "");
    fs::create_symlink("own", PathOf("way"));
    fs::create_symlink("file", PathOf("own/link"));

    COsFile osfile;
    const auto opens = [&](const char* a_szPath, EOSFILEGUARD a_eosfileguard) {
        return osfile.Open(PathOf(a_szPath).c_str(), OS_FILEOPEN_ALWAYS, OS_FILEACCESS_WRITE, OS_FILESHARE_READWRITE,
                           false, a_eosfileguard) == EOSSTS_SUCCESS;
    };
    EXPECT_TRUE(opens("own/link", OS_FILEGUARD_NONE) && !opens("own/link", OS_FILEGUARD_NOLINK));
    EXPECT_TRUE(opens("way/file", OS_FILEGUARD_NOLINK) && !opens("way/file", OS_FILEGUARD_NOLINKS));
    EXPECT_TRUE(opens("shared/file", OS_FILEGUARD_NOLINKS) && !opens("shared/file", OS_FILEGUARD_OWNFOLDER));
    EXPECT_TRUE(opens("own/file", OS_FILEGUARD_OWNFOLDER) && !opens("own/file", static_cast<EOSFILEGUARD>(4)));
}
}   // namespace
