// os_coslog_clean_test.cpp: which log folders the cleaner removes, and what it never touches.
#include "test_support.h"

#include "os_cosfile.h"
#include "os_cosfile_system.h"
#include "os_coslog.h"
#include "os_coslogfolder.h"

#include <thread>
#include <unistd.h>

namespace fs = std::filesystem;

// Ten thousand folders may take a disk that others use a minute.
class InMemory
{
protected:
    InMemory()
    {
        if (access("/dev/shm", W_OK) == 0)
            setenv("TMPDIR", "/dev/shm", 1);
    }
};

class Cleaner : InMemory, public FolderTest
{
protected:
    Cleaner() { fs::create_directories(m_strBrand); }

    std::string In(const std::string& a_strName) const { return m_strBrand + "/" + a_strName; }
    bool Exists(const std::string& a_strName) const { return fs::exists(fs::symlink_status(In(a_strName))); }

    // A file with its folders, written so many hours ago.
    void Write(const std::string& a_strName, int a_iHoursAgo = 0) const
    {
        fs::create_directories(fs::path(In(a_strName)).parent_path());
        WriteWhole(In(a_strName), "text");
        fs::last_write_time(In(a_strName), fs::file_time_type::clock::now() - std::chrono::hours(a_iHoursAgo));
    }
    void Clean(int32_t a_i32Hours = 0) const { OsLogCleanFolders(m_strBrand.c_str(), a_i32Hours); }

    // Folder in folder in folder.
    void Nest(const std::string& a_strName, int a_iDepth) const
    {
        fs::create_directories(In(a_strName));
        fs::current_path(In(a_strName));
        for (int i = 0; i < a_iDepth; ++i)
        {
            ASSERT_TRUE(fs::create_directory("d"));
            fs::current_path("d");
        }
        WriteWhole("x.log", "");
        fs::create_directory("log.1");
        fs::current_path("/");
    }

    std::string m_strBrand = PathOf("MVR_Orvane");
};

TEST_F(Cleaner, TheLastLineDecidesUnlessNoHoursAreKept)
{
    struct Row
    {
        const char* szFile;
        int iHoursAgo;
        int32_t i32Hours;
        bool blKept;
    };
    const Row arow[] = {
        {"log.1/a.log", 2, 3, true},     {"log.1/a.log", 2, 1, false},         {"log.1/a.log", 0, 0, false},
        {"log.1/a.log", 0, -5, false},   {"log.1/a.log", -48, 1, true},        {"log.1/a.log", -48, 0, false},
        {"log.1/a.log", 700, 701, true}, {"log.1/a.log", 700, 699, false},     {"log.1/a.log", 9000, INT_MAX, true},
        {"log.1/a.txt", 0, 1000, false}, {"log.1/a.log/b.txt", 0, 1000, false}};
    for (const Row& row : arow)
    {
        Write(row.szFile, row.iHoursAgo);
        Clean(row.i32Hours);
        EXPECT_EQ(Exists("log.1"), row.blKept) << row.szFile << " " << row.iHoursAgo << " " << row.i32Hours;
        fs::remove_all(In("log.1"));
    }
    for (const char* szFile : {"log.1/a.log", "log.1/b.log", "log.1/c.log"})
        Write(szFile, szFile[6] == 'b' ? 0 : 100);
    Clean(1);
    EXPECT_TRUE(Exists("log.1/a.log")) << "one of its processes still logs";
}

TEST_F(Cleaner, OnlyLogFoldersOfTheProductGo)
{
    for (const char* szFile : {"a/b/log.1/x", "LOG.2/log.3/x", "LOG.2/y", "prolog.4/x", "log.", ".hid/log.5/x", "lo/x"})
        Write(szFile);
    Write("log.6/log.lock");     // nobody holds it any more
    Write("log.7/log.lock/x");   // no file
    Write("log.8/a.log");
    COsFile osfile;
    osfile.Open(In("log.8/a.log").c_str(), OS_FILEOPEN_EXISTING, OS_FILEACCESS_READ, OS_FILESHARE_READWRITE);
    OsLogCleanFolders(nullptr, 0);
    OsLogCleanFolders(PathOf("none").c_str(), 0);
    OsLogCleanFolders(In("log.").c_str(), 0);
    Clean();
    EXPECT_FALSE(Exists("a/b/log.1") || Exists("LOG.2/log.3") || Exists("log.6"));
    EXPECT_TRUE(Exists("log.7/log.lock/x") && Exists("log.8/a.log"));
    EXPECT_TRUE(Exists("a/b") && Exists("LOG.2/y") && Exists("prolog.4/x") && Exists("log.") &&
                Exists(".hid/log.5/x") && Exists("lo/x"));

    fs::create_directories(PathOf("other/log.1"));
    OsLogCleanFolders(PathOf("other").c_str(), 0);
    EXPECT_TRUE(fs::exists(PathOf("other/log.1")));
    for (const char* szBrand : {"QUORRA", "xbrisalx", "orvane"})
    {
        fs::create_directories(PathOf(szBrand) + "/log.1");
        OsLogCleanFolders((PathOf(szBrand) + "//").c_str(), 0);
        EXPECT_FALSE(fs::exists(PathOf(szBrand) + "/log.1")) << szBrand;
    }
}

TEST_F(Cleaner, TheFolderOfThisProcessStays)
{
    for (const char* szFile : {"x/log.2/sub/a.log", "x/log.20/a.log", "x/log.3/a.log"})
        Write(szFile, 100);
    std::string strLog = In("x/log.2/sub/own.log");
    const COsLog oslog({.szLogFile = strLog.c_str()});
    Clean();
    EXPECT_TRUE(Exists("x/log.2/sub/a.log"));
    EXPECT_FALSE(Exists("x/log.3"));
}

TEST_F(Cleaner, WhatALinkPointsToStays)
{
    fs::create_directories(PathOf("out/log.9"));
    WriteWhole(PathOf("out/keep"), "kept");
    for (const char* szFile : {"log.1/a.log", "log.2/a.log", "x/y"})
        Write(szFile, 100);
    fs::create_symlink(PathOf("out/keep"), In("log.1/log.lock"));
    fs::create_directory_symlink(PathOf("out"), In("log.2/out"));
    fs::create_directory_symlink(PathOf("out"), In("x/link"));
    fs::create_directory_symlink(PathOf("out"), In("log.3"));
    fs::create_directory_symlink(PathOf("out"), PathOf("quorra"));
    Clean();
    OsLogCleanFolders(PathOf("quorra").c_str(), 0);
    EXPECT_FALSE(Exists("log.1") || Exists("log.2"));
    EXPECT_EQ(ReadWhole(PathOf("out/keep")), "kept");
    EXPECT_TRUE(fs::exists(PathOf("out/log.9")) && Exists("x/link") && Exists("log.3"));
}

TEST_F(Cleaner, NoNameAndNoDepthSavesALogFolderOrHarmsAnother)
{
    LogCapture logcapture;
    for (const char* szFile : {"log.1/a\\b", "log.1/\xFF/*", "log.1/\n?", "keep/me", "log.2\\..\\keep/x", "log.\xFF/x"})
        Write(szFile, 100);
    Nest("log.3", 10000);
    Nest("deep", 300);
    std::thread([this] { Clean(); }).join();
    EXPECT_FALSE(Exists("log.1") || Exists("log.3"));
    EXPECT_TRUE(Exists("keep/me") && Exists("log.2\\..\\keep/x") && Exists("log.\xFF/x"));
    EXPECT_TRUE(logcapture.HasAt(OS_LOG_CHECK, "buffer overflow...512 <d>")) << "too deep to be looked at";
    EXPECT_TRUE(Exists("deep/d"));
    EXPECT_EQ(OsFileDelete(In("deep").c_str(), OS_FILETYPE_FOLDER, true, false), EOSSTS_SUCCESS);
}
