// os_coslogfolder_test.cpp: which log folder a path belongs to, who holds one, and that nobody deletes it meanwhile.
#include "coscfg_support.h"
#include "plat_child.h"

#include "os_cosfile_tree.h"
#include "os_coslogfolder.h"

#include <sys/stat.h>

namespace fs = std::filesystem;

// Deletes the log folders of a folder; tells how many.
static int DeleteLogFolders(const std::string& a_strParent)
{
    int iDeleted = 0;
    OsFileTree osfiletree(false);
    EXPECT_EQ(osfiletree.Open(a_strParent.c_str()), EOSSTS_SUCCESS);
    while (osfiletree.Next())
        iDeleted += osfiletree.IsFolder() && OsLogFolderDelete(osfiletree);
    return iDeleted;
}

// "hold": holds a folder until the end of its input. "delete": deletes the log folders of a folder again and again.
int PlayPart(const std::vector<std::string>& a_vecstrArguments)
{
    const std::string& strFolder = a_vecstrArguments[1];
    COsLogFolderLock oslogfolderlock;
    if (a_vecstrArguments[0] == "hold" && oslogfolderlock.Acquire(strFolder.c_str()) != EOSSTS_SUCCESS)
        return 1;
    Say("ready");
    while (a_vecstrArguments[0] == "delete")
        DeleteLogFolders(strFolder);
    PlatSleep(60000);
    return 0;
}

class LogFolder : public FolderTest
{
protected:
    LogFolder() { Make(); }

    void Make() const
    {
        fs::create_directories(m_strFolder + "/sub");
        WriteWhole(m_strFolder + "/sub/a.log", "text");
    }
    bool Exists() const { return fs::exists(m_strFolder); }
    bool Delete() const { return DeleteLogFolders(PathOf("logs")) == 1; }
    bool IsHeld() const { return COsLogFolderLock::IsHeldByOthers(m_strFolder.c_str()); }

    // Which file the lock file is, 0 without one.
    ino_t LockFile() const
    {
        struct stat status;
        return stat((m_strFolder + "/log.lock").c_str(), &status) == 0 ? status.st_ino : 0;
    }

    const std::string m_strFolder = PathOf("logs/log.1");
    LogCapture m_logcapture;
};

TEST_F(LogFolder, TheNearestOfAPathIsFound)
{
    const std::pair<const char*, const char*> apair[] = {{"/a/log.1/x.log", "\\a\\log.1"},
                                                         {"C:\\a\\log.1\\log.2\\b\\c", "C:\\a\\log.1\\log.2"},
                                                         {"log.1//", "log.1"},
                                                         {"log.1/log.app.LOG", "log.1"},
                                                         {"/log.log/a", "\\log.log"},
                                                         {"/LOG.1/prolog.1/log", ""},
                                                         {"log.app.log", ""},
                                                         {"", ""}};
    for (const auto& [szPath, szExpected] : apair)
    {
        char szFolder[OS_PATHSIZE];
        EXPECT_EQ(OsLogFolderOf(szPath, szFolder), *szExpected != 0) << szPath;
        EXPECT_STREQ(szFolder, szExpected);
    }
}

TEST_F(LogFolder, AllWhoHoldItKeepItAndTheLastRemovesItsLockFile)
{
    COsLogFolderLock aoslogfolderlock[2];
    EXPECT_FALSE(IsHeld());
    for (COsLogFolderLock& oslogfolderlock : aoslogfolderlock)
        ASSERT_EQ(oslogfolderlock.Acquire(m_strFolder.c_str()), EOSSTS_SUCCESS);
    for (COsLogFolderLock& oslogfolderlock : aoslogfolderlock)
    {
        EXPECT_TRUE(IsHeld());
        EXPECT_FALSE(Delete());
        EXPECT_EQ(ReadWhole(m_strFolder + "/sub/a.log"), "text");
        EXPECT_TRUE(m_logcapture.Has("CreateFileW failed...260 0xc0000000 0x0 0x2 0x4000080 <" +
                                     Backslashed(m_strFolder) + "\\log.lock>"));
        oslogfolderlock.Release();
    }
    EXPECT_FALSE(IsHeld() || LockFile());
    EXPECT_TRUE(Delete());
    EXPECT_FALSE(Exists());
}

// A lock file may be removed by the last who lets go, just when the next one has opened it.
TEST_F(LogFolder, WhoeverComesWhenTheLastOneGoesHoldsItAsWell)
{
    std::atomic<int> iFaults = 0;
    const uint64_t u64End = PlatTicks() + 1500;
    InThreads(4, [&](int) {
        while (PlatTicks() < u64End)
        {
            COsLogFolderLock oslogfolderlock;
            iFaults += oslogfolderlock.Acquire(m_strFolder.c_str()) == EOSSTS_SUCCESS && !LockFile();
        }
    });
    EXPECT_EQ(iFaults, 0);
    EXPECT_FALSE(LockFile());
}

TEST_F(LogFolder, AKilledHolderLeavesItFree)
{
    const Part part("hold " + m_strFolder);
    ASSERT_EQ(part.OutputUpTo("ready"), "ready");
    EXPECT_TRUE(IsHeld());
    EXPECT_FALSE(Delete());
    part.Kill();
    EXPECT_TRUE(LockFile());
    EXPECT_FALSE(IsHeld());
    EXPECT_TRUE(Delete());
}

TEST_F(LogFolder, NothingIsCreatedByLettingGo)
{
    COsLogFolderLock oslogfolderlock;
    ASSERT_EQ(oslogfolderlock.Acquire(m_strFolder.c_str()), EOSSTS_SUCCESS);
    fs::remove_all(m_strFolder);
    EXPECT_EQ(oslogfolderlock.Acquire(m_strFolder.c_str()), EOSSTS_NOTFOUND) << "it holds nothing any more";
    EXPECT_FALSE(oslogfolderlock.IsHeld());
    EXPECT_TRUE(m_logcapture.HasPart("CreateFileW failed...257 0xc0000000 0x3 0x4 0x80 <"));

    Make();
    ASSERT_EQ(oslogfolderlock.Acquire(m_strFolder.c_str()), EOSSTS_SUCCESS);
    fs::remove_all(m_strFolder);
    m_logcapture.Clear();
    oslogfolderlock.Release();
    EXPECT_FALSE(Exists());
    EXPECT_TRUE(m_logcapture.Lines().empty()) << "nothing is wrong with that";
}

// With every line that the deletion logs, somebody tries to begin to log there.
TEST_F(LogFolder, NobodyBeginsToLogThereWhileItIsDeleted)
{
    for (const bool blLockFile : {false, true})
    {
        Make();
        if (blLockFile)
            WriteWhole(m_strFolder + "/log.lock", "left behind");
        int iRefused = 0;
        int iAdmittedThen = 0;
        {
            CallingSink callingsink([&] {
                COsLogFolderLock oslogfolderlock;
                const EOSSTS eossts = oslogfolderlock.Acquire(m_strFolder.c_str());
                iRefused += eossts == EOSSTS_SHARING;
                iAdmittedThen += eossts == EOSSTS_SUCCESS && iRefused > 0;
            });
            EXPECT_TRUE(Delete());
        }
        EXPECT_GE(iRefused, 2) << "a folder and a file";
        EXPECT_EQ(iAdmittedThen, 0);
        EXPECT_FALSE(Exists());
    }
}

TEST_F(LogFolder, WhatCannotGoKeepsItWithoutALockFile)
{
    WriteWhole(m_strFolder + "/log.lock", "left behind");
    COsFile osfile;
    ASSERT_EQ(osfile.Open((m_strFolder + "/sub/a.log").c_str(), OS_FILEOPEN_EXISTING, OS_FILEACCESS_READ,
                          OS_FILESHARE_EXCLUSIVE),
              EOSSTS_SUCCESS);
    EXPECT_FALSE(Delete());
    EXPECT_TRUE(m_logcapture.HasPart("DeleteFile failed..."));
    EXPECT_EQ(ReadWhole(m_strFolder + "/sub/a.log"), "text");
    EXPECT_FALSE(LockFile()) << "whoever logs there next takes a new one";
}

TEST_F(LogFolder, ALinkInPlaceOfItsLockFileIsNotFollowed)
{
    fs::create_symlink(PathOf("elsewhere"), m_strFolder + "/log.lock");
    COsLogFolderLock oslogfolderlock;
    EXPECT_NE(oslogfolderlock.Acquire(m_strFolder.c_str()), EOSSTS_SUCCESS);
    EXPECT_TRUE(IsHeld()) << "nobody can tell";
    EXPECT_FALSE(fs::exists(PathOf("elsewhere")));
    EXPECT_TRUE(Delete());
}

TEST_F(LogFolder, OneInsideAnotherIsKeptByItsHolder)
{
    const std::string strInner = m_strFolder + "/z/log.2";
    fs::create_directories(strInner);
    COsLogFolderLock oslogfolderlock;
    ASSERT_EQ(oslogfolderlock.Acquire(strInner.c_str()), EOSSTS_SUCCESS);
    EXPECT_FALSE(Delete());
    EXPECT_EQ(ReadWhole(m_strFolder + "/sub/a.log"), "text");
    oslogfolderlock.Release();
    EXPECT_TRUE(Delete());
}

// Those who log make the folder and hold it for a moment; a thread and a process delete it all the time.
TEST_F(LogFolder, NothingIsDeletedUnderAHolderInARace)
{
    const Part part("delete " + PathOf("logs"));
    ASSERT_EQ(part.OutputUpTo("ready"), "ready");
    std::atomic<int> iHeld = 0;
    std::atomic<int> iDeleted = 0;
    std::atomic<int> iFaults = 0;
    const auto log = [&](const std::string& a_strFile) {
        std::error_code error;
        fs::create_directories(m_strFolder, error);
        COsLogFolderLock oslogfolderlock;
        if (oslogfolderlock.Acquire(m_strFolder.c_str()) != EOSSTS_SUCCESS)
            return;
        const ino_t ino = LockFile();
        iDeleted += iHeld > 0 && !fs::exists(a_strFile);
        WriteWhole(a_strFile, "line");
        for (int i = 0; i < 5; ++i)
            std::this_thread::yield();
        iFaults += !ino || LockFile() != ino || ReadWhole(a_strFile) != "line";
        ++iHeld;
    };
    const uint64_t u64End = PlatTicks() + 30000;
    InThreads(4, [&](int a_iThread) {
        while (!iFaults && (iHeld < 500 || iDeleted < 50) && PlatTicks() < u64End)
        {
            if (a_iThread == 0)
            {
                DeleteLogFolders(PathOf("logs"));
            }
            else
            {
                log(m_strFolder + "/" + std::to_string(a_iThread) + ".log");
            }
            PlatSleep(static_cast<uint32_t>(a_iThread));
        }
    });
    EXPECT_EQ(iFaults, 0);
    EXPECT_GT(iHeld, 0);
    EXPECT_GT(iDeleted, 3) << "each of the three began without its file";
}
