// os_cosfile_monitor_test.cpp: a file object watches a file.
#include "test_support.h"

#include "plat_thread.h"

#include "os_cosfile.h"
#include "os_cosfile_system.h"

#include "plat_file.h"

#include <atomic>
#include <functional>
#include <memory>
#include <sched.h>

namespace fs = std::filesystem;

class FileMonitor : public FolderTest
{
protected:
    struct Call
    {
        OsFileMonitorState osfilemonitorstate;
        std::string strContent;   // as the watched handle gives it
    };

    FileMonitor() : m_strPath(PathOf("flush")) { WriteWhole(m_strPath, "old"); }

    EOSSTS Start(const std::string& a_strPath, uint32_t a_u32Mask = OS_FILEMONITOR_START | OS_FILEMONITOR_MODIFIED)
    {
        return m_posfile->MonitorStart(a_strPath.c_str(), "Test", a_u32Mask, &Callback, this);
    }
    static uint32_t Callback(COsFile* a_posfile)
    {
        const OsFileMonitorState& osfilemonitorstate = a_posfile->MonitorState();
        auto& self = *static_cast<FileMonitor*>(osfilemonitorstate.pvContext);
        char achContent[256];
        size_t sizetRead = 0;
        PlatFileRead(osfilemonitorstate.osfilemonitorrecord.plathandle, achContent, sizeof achContent, &sizetRead);
        {
            const std::lock_guard<std::mutex> guard(self.m_mutex);
            self.m_veccall.push_back({osfilemonitorstate, {achContent, sizetRead}});
        }
        self.m_u32Result = 0;
        if (self.m_onCall)
            self.m_onCall(osfilemonitorstate);
        return self.m_u32Result;
    }
    std::vector<Call> Calls()
    {
        const std::lock_guard<std::mutex> guard(m_mutex);
        return m_veccall;
    }
    // Waits for the calls, and then that none follows: a change that was made now would be seen last.
    void ExpectCalls(size_t a_sizetCalls)
    {
        ASSERT_TRUE(WaitFor([&] { return Calls().size() >= a_sizetCalls; }));
        PlatSleep(60);
        EXPECT_EQ(Calls().size(), a_sizetCalls);
    }
    void ReplaceByRename(const std::string& a_strText)
    {
        WriteWhole(m_strPath + ".new", a_strText);
        fs::rename(m_strPath + ".new", m_strPath);
    }

    LogCapture m_log;
    std::string m_strPath;
    std::mutex m_mutex;
    std::vector<Call> m_veccall;
    std::function<void(const OsFileMonitorState&)> m_onCall;   // set before the start
    uint32_t m_u32Result = 0;                                  // of the call that it is in
    std::unique_ptr<COsFile> m_posfile = std::make_unique<COsFile>();
};

TEST_F(FileMonitor, TheStartCallsAndEachChangeCallsOnce)
{
    ASSERT_EQ(Start(m_strPath), EOSSTS_SUCCESS);
    ASSERT_EQ(Calls().size(), 1u);
    EXPECT_EQ(Calls()[0].osfilemonitorstate.osfilemonitorrecord.u32Event, OS_FILEMONITOR_START);
    EXPECT_TRUE(Calls()[0].osfilemonitorstate.blInitialCall);

    WriteWhole(PathOf("other"), "1");
    WriteWhole(m_strPath, "first");
    WriteWhole(PathOf("other"), "2");
    ExpectCalls(2);
    fs::permissions(m_strPath, fs::perms::owner_all);
    WriteWhole(m_strPath, "again");
    ExpectCalls(3);
    for (const fs::directory_entry& entry : fs::directory_iterator("/proc/self/fd"))
    {
        std::error_code error;
        EXPECT_NE(fs::read_symlink(entry, error), m_strPath) << "nobody could replace it everywhere";
    }
    m_posfile->MonitorStop();

    const std::vector<Call> veccall = Calls();
    const OsFileMonitorRecord& osfilemonitorrecord = veccall[1].osfilemonitorstate.osfilemonitorrecord;
    EXPECT_EQ(osfilemonitorrecord.u32Event, OS_FILEMONITOR_MODIFIED);
    EXPECT_STREQ(osfilemonitorrecord.szEntry, "flush");
    EXPECT_EQ(osfilemonitorrecord.szPath, Backslashed(m_strPath));
    EXPECT_TRUE(osfilemonitorrecord.blFirstChange);
    EXPECT_EQ(veccall[1].osfilemonitorstate.szPath, m_strPath);
    EXPECT_EQ(veccall[1].strContent, "first");
    EXPECT_FALSE(veccall[2].osfilemonitorstate.osfilemonitorrecord.blFirstChange);
    EXPECT_EQ(veccall[2].strContent, "again");
}

// Same size, most often within one step of the clock that dates files.
TEST_F(FileMonitor, AChangeRightBehindAnotherOrBehindTheStartIsSeen)
{
    for (char ch = 'a'; ch <= 'j'; ++ch)
    {
        WriteWhole(m_strPath, "old");
        ASSERT_EQ(Start(m_strPath), EOSSTS_SUCCESS);
        for (const char* szText : {"1--", "2--", "3--"})
        {
            WriteWhole(m_strPath, szText + std::string(1, ch));
            ASSERT_TRUE(WaitFor([&] { return Calls().back().strContent == szText + std::string(1, ch); }));
        }
        m_posfile->MonitorStop();
    }
}

TEST_F(FileMonitor, ANameThatIsGivenToAnotherFileIsAChange)
{
    ASSERT_EQ(Start(m_strPath), EOSSTS_SUCCESS);
    ReplaceByRename("new");
    ExpectCalls(2);
    ReplaceByRename("abc");
    ExpectCalls(3);
    fs::remove(m_strPath);
    WriteWhole(m_strPath, "def");
    ExpectCalls(4);
    EXPECT_EQ(Calls()[1].strContent, "new");
    EXPECT_EQ(Calls()[2].strContent, "abc");
    EXPECT_EQ(Calls()[3].strContent, "def");
}

TEST_F(FileMonitor, AFileThatCannotBeReadForAWhileIsWatchedOn)
{
    ASSERT_EQ(Start(m_strPath), EOSSTS_SUCCESS);
    ASSERT_TRUE(WaitFor([&] { return m_log.Has("monitor>>> begin...<" + m_strPath + ">"); }));
    fs::remove(m_strPath);
    ExpectCalls(2);
    EXPECT_EQ(Calls()[1].osfilemonitorstate.eossts, EOSSTS_NOTFOUND);
    EXPECT_TRUE(m_log.HasAt(OS_LOG_ERROR, "monitor>>> GetFileTime failed...<" + m_strPath + ">"));
    fs::create_directory(m_strPath);
    fs::remove(m_strPath);
    WriteWhole(PathOf("other"), "x");
    ExpectCalls(2);

    COsFile osfile;
    ASSERT_EQ(osfile.Open(m_strPath.c_str(), OS_FILEOPEN_CREATEALWAYS, OS_FILEACCESS_WRITE, OS_FILESHARE_EXCLUSIVE),
              EOSSTS_SUCCESS);
    ASSERT_EQ(osfile.Write("own", 3), EOSSTS_SUCCESS);
    PlatSleep(60);
    EXPECT_EQ(Calls().size(), 2u) << "it still cannot be read";
    osfile.Close();
    ExpectCalls(3);
    EXPECT_EQ(Calls()[2].osfilemonitorstate.eossts, EOSSTS_SUCCESS);
    EXPECT_EQ(Calls()[2].strContent, "own");
}

TEST_F(FileMonitor, AFolderMayGoAndComeAndIsFollowed)
{
    const std::string strPath = PathOf("folder/flush");
    ASSERT_EQ(Start(strPath, OS_FILEMONITOR_MODIFIED | OS_FILEMONITOR_MAYBEMISSING), EOSSTS_SUCCESS);
    EXPECT_EQ(Calls().back().osfilemonitorstate.eossts, EOSSTS_NOTFOUND);
    ASSERT_TRUE(WaitFor([&] { return m_log.HasPart("monitor>>> without notifications the file is looked at every"); }));
    fs::create_directory(PathOf("folder"));
    WriteWhole(strPath, "first");
    ASSERT_TRUE(WaitFor([&] { return Calls().back().strContent == "first"; }));
    fs::rename(PathOf("folder"), PathOf("moved"));
    ASSERT_TRUE(WaitFor([&] { return Calls().back().osfilemonitorstate.eossts == EOSSTS_NOTFOUND; }));
    EXPECT_TRUE(m_log.HasAt(OS_LOG_ERROR, "monitor>>> ReadDirectoryChangesW failed...<" + strPath + ">"));
    fs::create_directory(PathOf("folder"));
    WriteWhole(strPath, "second");
    ASSERT_TRUE(WaitFor([&] { return Calls().back().strContent == "second"; }));
    ExpectCalls(4);

    m_posfile->MonitorStop();
    fs::rename(PathOf("folder"), PathOf("away"));
    ASSERT_EQ(Start(strPath, OS_FILEMONITOR_MODIFIED | OS_FILEMONITOR_MAYBEMISSING), EOSSTS_SUCCESS);
    ASSERT_EQ(Calls().size(), 5u);
    PlatSleep(60);
    fs::rename(PathOf("away"), PathOf("folder"));
    ASSERT_TRUE(WaitFor([&] { return m_log.Count("monitor>>> notifications again...<" + strPath + ">") == 3; }));
    WriteWhole(strPath, "third");
    ASSERT_TRUE(WaitFor([&] { return Calls().back().strContent == "third"; }));
    EXPECT_EQ(Calls().size(), 6u) << "what is older than the start is no change";
}

TEST_F(FileMonitor, AWriterWhoPausesIsReportedOnceAndWhole)
{
    ASSERT_EQ(Start(m_strPath), EOSSTS_SUCCESS);
    for (const size_t sizetCalls : {2u, 3u})
    {
        std::ofstream stream(m_strPath, std::ios::binary);
        PlatSleep(300);
        stream << "whole" << sizetCalls << std::flush;
        PlatSleep(300);
        stream.close();
        ExpectCalls(sizetCalls);
        EXPECT_EQ(Calls().back().strContent, "whole" + std::to_string(sizetCalls));
    }
    std::ofstream stream(m_strPath, std::ios::binary);
    stream << "never closed" << std::flush;
    ASSERT_TRUE(WaitFor([&] { return Calls().back().strContent == "never closed"; }));
}

TEST_F(FileMonitor, WantOfDescriptorsDelaysAChangeAndMakesUpNone)
{
    ASSERT_EQ(Start(m_strPath), EOSSTS_SUCCESS);
    WriteWhole(m_strPath + ".new", "new");
    {
        const NoDescriptors nodescriptors;
        fs::permissions(m_strPath, fs::perms::owner_all);
        ASSERT_TRUE(WaitFor([&] { return Calls().back().osfilemonitorstate.eossts == EOSSTS_NOTFOUND; }));
    }
    PlatSleep(1100);   // it looks once a second, after so long
    {
        const NoDescriptors nodescriptors;
        fs::rename(m_strPath + ".new", m_strPath);
        PlatSleep(60);
    }
    ASSERT_TRUE(WaitFor([&] { return Calls().back().strContent == "new"; }));
    const std::vector<Call> veccall = Calls();
    EXPECT_EQ(std::count_if(veccall.begin(), veccall.end(),
                            [](const Call& a_call) { return a_call.osfilemonitorstate.eossts == EOSSTS_SUCCESS; }),
              2)
        << "the start and the change";
}

// In a user namespace of its own, whose limit is nobody else's.
TEST_F(FileMonitor, WithoutNotificationsItLooksByTime)
{
    static constexpr char g_szLimit[] = "/proc/sys/user/max_inotify_instances";
    if (unshare(CLONE_NEWUSER) != 0)
        GTEST_SKIP() << "no user namespaces";
    WriteWhole(g_szLimit, "0");
    ASSERT_EQ(Start(m_strPath), EOSSTS_SUCCESS);
    WriteWhole(m_strPath, "first");
    ASSERT_TRUE(WaitFor([&] { return Calls().back().strContent == "first"; }));
    EXPECT_EQ(m_log.Count("OsFileWin32CreateFileW failed...<" + Backslashed(m_path.string()) + ">"), 1u);
    WriteWhole(g_szLimit, "128");
    ASSERT_TRUE(WaitFor([&] { return m_log.Has("monitor>>> notifications again...<" + m_strPath + ">"); }));
    WriteWhole(m_strPath, "second");
    ASSERT_TRUE(WaitFor([&] { return Calls().back().strContent == "second"; }));
    ExpectCalls(3);
}

TEST_F(FileMonitor, ACallThatCouldNotDoItsWorkIsMadeAgain)
{
    std::atomic<int> iTries{0};
    m_onCall = [&](const OsFileMonitorState&) { m_u32Result = ++iTries < 4 ? OS_FILEMONITOR_CALLAGAIN : 0; };
    ASSERT_EQ(Start(m_strPath), EOSSTS_SUCCESS);
    WriteWhole(m_strPath, "new");
    ExpectCalls(4);
    EXPECT_TRUE(Calls()[3].osfilemonitorstate.osfilemonitorrecord.blFirstChange);
    PlatSleep(150);
    EXPECT_EQ(Calls().size(), 4u);
    m_posfile->MonitorStop();
}

TEST_F(FileMonitor, WhatCannotBeWatchedIsRefused)
{
    EXPECT_EQ(Start(PathOf("missing")), EOSSTS_NOTFOUND);
    EXPECT_TRUE(m_log.HasAt(OS_LOG_ERROR, "File not found or not a file...<" + PathOf("missing") + "> <0>"));
    EXPECT_EQ(Start(m_path.string()), EOSSTS_NOTFOUND);
    EXPECT_TRUE(m_log.HasAt(OS_LOG_ERROR, "File not found or not a file...<" + m_path.string() + "> <1>"));
    EXPECT_FALSE(m_log.HasPart("new COsThread"));
    EXPECT_TRUE(Calls().empty());

    WriteWhole(PathOf("other"), "old");
    ASSERT_EQ(Start(m_strPath), EOSSTS_SUCCESS);
    EXPECT_EQ(Start(m_strPath), EOSSTS_SUCCESS);
    EXPECT_TRUE(
        m_log.HasAt(OS_LOG_NOTE, "Object is already in use (but this is okay in this instance)...<" + m_strPath + ">"));
    EXPECT_EQ(Start(PathOf("other")), EOSSTS_FAIL);
    EXPECT_TRUE(m_log.HasAt(OS_LOG_CHECK, "Object is already in use...<" + m_strPath + "> <" + PathOf("other") + ">"));
    EXPECT_EQ(Calls().size(), 1u);
}

// Of the monitor thread that has logged last.
static uint64_t ThreadIdIn(const LogCapture& a_log)
{
    static const std::string g_strBegin = "file>>> COsFileImpl::Monitor: ";
    uint64_t u64ThreadId = 0;
    for (const LogCapture::Line& line : a_log.Lines())
    {
        if (line.strText.starts_with(g_strBegin))
            u64ThreadId = std::stoull(line.strText.substr(g_strBegin.size()));
    }
    return u64ThreadId;
}

TEST_F(FileMonitor, TheCallbackMayStopItOrFreeTheObject)
{
    m_onCall = [&](const OsFileMonitorState& a_osfilemonitorstate) {
        if (!a_osfilemonitorstate.blInitialCall)
            m_posfile->MonitorStop();
    };
    for (size_t sizetCalls : {2u, 4u})
    {
        ASSERT_EQ(Start(m_strPath), EOSSTS_SUCCESS) << "also while the last one is on its way out";
        WriteWhole(m_strPath, "change");
        ASSERT_TRUE(WaitFor([&] { return Calls().size() == sizetCalls; }));
        ASSERT_TRUE(WaitFor([&] { return m_log.Count("MonitorStop, same thread, monitor...") == sizetCalls / 2; }));
    }

    m_onCall = [&](const OsFileMonitorState& a_osfilemonitorstate) {
        if (!a_osfilemonitorstate.blInitialCall)
            m_posfile.reset();
    };
    m_posfile->MonitorStop();
    m_log.Clear();
    ASSERT_EQ(Start(m_strPath), EOSSTS_SUCCESS);
    WriteWhole(m_strPath, "again");
    EXPECT_TRUE(WaitFor([&] { return m_log.Has("monitor>>> end...<" + m_strPath + ">"); }));
    EXPECT_TRUE(WaitFor([&] { return !PlatThreadIsAlive(ThreadIdIn(m_log)); })) << "it cleans up after itself";

    m_posfile = std::make_unique<COsFile>();
    m_onCall = [&](const OsFileMonitorState&) { m_posfile.reset(); };
    EXPECT_EQ(Start(m_strPath), EOSSTS_EXITED);
}

TEST_F(FileMonitor, AStopIsQuickAndNoCallFollowsIt)
{
    for (int i = 0; i < 30; ++i)
    {
        ASSERT_EQ(Start(m_strPath), EOSSTS_SUCCESS);
        WriteWhole(m_strPath, std::to_string(i));
        PlatSleep(static_cast<uint32_t>(i));
        const uint64_t u64Start = PlatTicks();
        m_posfile->MonitorStop();
        const size_t sizetCalls = Calls().size();
        EXPECT_LT(PlatTicks() - u64Start, 3000u);
        EXPECT_FALSE(PlatThreadIsAlive(ThreadIdIn(m_log)));
        WriteWhole(m_strPath, "after");
        EXPECT_EQ(Calls().size(), sizetCalls);
    }
    EXPECT_FALSE(m_log.HasPart("timeout waiting"));
}
