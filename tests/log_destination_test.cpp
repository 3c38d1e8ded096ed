// log_destination_test.cpp: where the lines go when the collector, the file or its folder fails: what is lost shows as
// a gap of the numbers, and nothing else is.
#include "collector_client_support.h"

#include "os_cosfile.h"
#include "os_coslogfolder.h"

#include "plat_file.h"

#include <cstring>
#include <set>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>

// ------------------------------------------------------------------------------------- what the system is asked for

static std::atomic<int> g_iFlushed{0};
static std::atomic<const char*> g_szRemovedBeforeWrite{nullptr};   // once

int fsync(int a_iDescriptor)
{
    ++g_iFlushed;
    return static_cast<int>(syscall(SYS_fsync, a_iDescriptor));
}

int fdatasync(int a_iDescriptor)
{
    ++g_iFlushed;
    return static_cast<int>(syscall(SYS_fdatasync, a_iDescriptor));
}

// The next line is cut after so many bytes, for want of room, which is there again when another thread has had time to
// write a line of its own; the thread of the line that was cut is refused the rest.
static std::atomic<size_t> g_sizetCut{0};
static std::atomic<bool> g_blIsCut{false};

static ssize_t WriteCut(int a_iDescriptor, const void* a_pvBuffer, size_t a_sizetBytes, off_t a_offset)
{
    static thread_local bool t_blRefuse = false;
    if (t_blRefuse)
    {
        t_blRefuse = false;
        errno = ENOSPC;
        return -1;
    }
    const size_t sizetCut = g_sizetCut.exchange(0);
    t_blRefuse = sizetCut != 0;
    const ssize_t ssizet =
        syscall(SYS_pwrite64, a_iDescriptor, a_pvBuffer, sizetCut ? sizetCut : a_sizetBytes, a_offset);
    if (t_blRefuse)
    {
        struct stat status = {};
        fstat(a_iDescriptor, &status);
        const off_t offset = status.st_size;
        g_blIsCut = true;
        WaitFor([&] { return fstat(a_iDescriptor, &status) != 0 || status.st_size != offset; }, 300);
    }
    return ssizet;
}

ssize_t pwrite(int a_iDescriptor, const void* a_pvBuffer, size_t a_sizetBytes, off_t a_offset)
{
    if (const char* const szFile = g_szRemovedBeforeWrite.exchange(nullptr))
        unlink(szFile);
    return WriteCut(a_iDescriptor, a_pvBuffer, a_sizetBytes, a_offset);
}

class LogDestination : public LoggerTest
{
};

static int NumberOf(const std::string& a_strLine)
{
    return std::stoi(a_strLine.substr(0, 5));
}

// ----------------------------------------------------------------------------------------------------- the own file

TEST_F(LogDestination, ErrorsFailedChecksAndFlaggedRunsReachTheDisk)
{
    const struct
    {
        uint32_t u32Flags;
        const char* szCheckMode;
        const char* szFilter;
        uint32_t u32Level;
        int iFlushed;
    } arow[] = {
        {0, "0", "", 4, 0},  {0, "0", "", 128, 0}, {0, "0", "", 1, 1},          {0, "0", "", 16, 1},
        {0, "0", "", 64, 1}, {4, "0", "", 4, 1},   {0, "1", "~os_test", 64, 1},
    };
    for (const auto& row : arow)
    {
        m_uniqueLog.reset();
        setenv("MVR_ASSERT", row.szCheckMode, 1);
        Begin(row.u32Flags, row.szFilter);
        g_iFlushed = 0;
        Log(row.u32Level, "x");
        EXPECT_EQ(g_iFlushed, row.iFlushed) << row.u32Flags << row.szFilter << " " << row.u32Level;
    }
}

// The file takes so many bytes more while a_action runs.
template <class Action>
static void WithRoom(size_t a_sizetFile, size_t a_sizetRoom, Action a_action)
{
    rlimit limit;
    getrlimit(RLIMIT_FSIZE, &limit);
    const rlimit limitSmall{a_sizetFile + a_sizetRoom, limit.rlim_max};
    setrlimit(RLIMIT_FSIZE, &limitSmall);
    a_action();
    setrlimit(RLIMIT_FSIZE, &limit);
}

// What follows the line that was cut begins a line, and the numbers tell how many are missing.
TEST_F(LogDestination, FullDiskLeavesAGapInNumbersAndOneTornLine)
{
    const auto logLines = [] {
        InThreads(2, [](int) {
            for (int i = 0; i < 100; ++i)
                Log(OS_LOG_NOTE, "line");
        });
    };
    Begin();
    WithRoom(SizeOf("a.log"), 40, logLines);
    const OsLogHealth osloghealth = m_uniqueLog->Health();
    logLines();
    Texts vecstr = Lines();
    ASSERT_EQ(vecstr.size(), 7u + 1 + 200 + 1);
    EXPECT_EQ(vecstr[7].size(), 40u);
    const auto told = std::find_if(vecstr.begin(), vecstr.end(), [](const std::string& a_str) {
        return a_str.ends_with(" lines were lost...200 (no room on the disk)");
    });
    ASSERT_NE(told, vecstr.end());
    vecstr.erase(told);
    std::set<int> setiNumber;
    for (size_t sizet = 8; sizet < vecstr.size(); ++sizet)
    {
        EXPECT_TRUE(vecstr[sizet].ends_with(" V. line")) << vecstr[sizet];
        setiNumber.insert(NumberOf(vecstr[sizet]));
    }
    EXPECT_EQ(setiNumber.size(), 200u);
    EXPECT_EQ(*setiNumber.begin(), 207);

    EXPECT_EQ(osloghealth.eoslogwhere, OS_LOGWHERE_NOWHERE);
    EXPECT_EQ(osloghealth.au64Lost[OS_LOGLOST_NOSPACE], 200u);
    EXPECT_EQ(osloghealth.u32LastError, PLAT_ERROR_DISKFULL);
    EXPECT_EQ(osloghealth.szLastErrorPath, m_strLog);
    EXPECT_EQ(m_uniqueLog->Health().eoslogwhere, OS_LOGWHERE_OWNFILE);
    EXPECT_EQ(m_uniqueLog->Health().u64Written, 7u + 200 + 1);
}

TEST_F(LogDestination, NoOtherThreadsLineFollowsOneThatIsCut)
{
    Begin();
    g_sizetCut = 40;
    InThreads(2, [](int a_iThread) {
        const bool blCut = a_iThread == 0 || WaitFor([] { return g_blIsCut.load(); });
        EXPECT_TRUE(blCut);
        Log(OS_LOG_NOTE, a_iThread == 0 ? "cut" : "next");
    });
    const Texts vecstr = Lines();
    ASSERT_GE(vecstr.size(), 7u + 2);   // the word of what was lost may follow
    EXPECT_EQ(vecstr[7].size(), 40u);
    EXPECT_TRUE(vecstr[8].ends_with(" V. next")) << vecstr[8];
}

TEST_F(LogDestination, ALineCutInItsLineEndIsCompleted)
{
    Begin();
    WithRoom(SizeOf("a.log"), Lines().back().size() + 1, [] { Log(OS_LOG_NOTE, "other"); });
    Log(OS_LOG_NOTE, "next");
    EXPECT_EQ(Messages(), (Texts{"first", "other", "next"}));
}

// Others may take the file for themselves, also between two lines.
TEST_F(LogDestination, AFileThatIsTakenLosesLinesUntilItIsFreeAgain)
{
    Begin();
    const PlatHandle plathandle =
        PlatFileOpen(Wide(m_strLog).c_str(), PLAT_ACCESS_READ, PLAT_SHARE_READ, PLAT_DISPOSITION_OPENEXISTING, 0);
    ASSERT_NE(plathandle, PLAT_INVALID);
    Log(OS_LOG_NOTE, "refused");
    PlatClose(plathandle);
    EXPECT_EQ(OsLogGetState(), OS_LOGSTATE_ON);
    const size_t sizetBefore = SizeOf("a.log");
    EXPECT_TRUE(WaitFor([&] {
        Log(OS_LOG_NOTE, "written");
        return SizeOf("a.log") > sizetBefore;
    }));
    Texts vecstr = Messages();
    ASSERT_TRUE(vecstr.back().starts_with("lines were lost..."));
    vecstr.pop_back();
    EXPECT_EQ(vecstr, (Texts{"first", "written"}));
    EXPECT_GT(NumberOf(Lines().back()), 7);
}

TEST_F(LogDestination, AFolderThatIsRemovedIsMadeAgainWithItsParents)
{
    m_strLog = PathOf("deep/down/a.log");
    fs::create_directories(PathOf("deep/down"));
    Begin();
    fs::remove_all(PathOf("deep"));
    Log(OS_LOG_NOTE, "again");
    EXPECT_EQ(Messages(), (Texts{"again"}));
}

// Who removes empty files may have looked before the first line was there.
TEST_F(LogDestination, AFileRemovedForBeingEmptyLosesNoLine)
{
    Create();
    m_uniqueLog->Start(m_strLog.c_str(), 0, "");
    g_szRemovedBeforeWrite = m_strLog.c_str();
    Log(OS_LOG_NOTE, "first");
    EXPECT_EQ(Lines().size(), 7u);
    EXPECT_EQ(NumberOf(Lines()[0]), 0);
}

// --------------------------------------------------------------------------------------------------- the log folder

class LogHold : public LoggerTest
{
protected:
    LogHold()
    {
        for (const char* szFolder : {"log.1", "log.2", "plain"})
            fs::create_directory(PathOf(szFolder));
        m_strLog = PathOf("log.1/a.log");
    }
    void StartIn(const char* a_szFolder) { m_uniqueLog->Start((PathOf(a_szFolder) + "/a.log").c_str(), 0, ""); }
    bool IsHeld(const char* a_szFolder) const { return COsLogFolderLock::IsHeldByOthers(PathOf(a_szFolder).c_str()); }
};

TEST_F(LogHold, LastsFromTheStartToTheEndAndMovesWithThePath)
{
    Create();
    EXPECT_FALSE(IsHeld("log.1"));
    StartIn("log.1");
    EXPECT_TRUE(IsHeld("log.1"));
    StartIn("log.2");
    EXPECT_FALSE(IsHeld("log.1"));
    EXPECT_TRUE(IsHeld("log.2"));
    StartIn("plain");
    EXPECT_FALSE(IsHeld("log.2"));
    setenv("MVR_DEBUGDIR", PathOf("log.2").c_str(), 1);
    StartIn("log.1");
    Log(OS_LOG_NOTE, "redirected");
    EXPECT_FALSE(IsHeld("log.1"));
    EXPECT_TRUE(IsHeld("log.2"));
    m_uniqueLog.reset();
    EXPECT_FALSE(IsHeld("log.2"));
}

TEST_F(LogHold, IsNobodysWhileLoggingIsOff)
{
    setenv("MVR_NOLOGGING", "1", 1);
    Begin();
    EXPECT_FALSE(IsHeld("log.1"));
}

TEST_F(LogHold, IsTakenWithALaterLineWhenSomebodyDeletesTheFolder)
{
    {
        COsFile osfile;
        ASSERT_EQ(osfile.Open((PathOf("log.1") + "/log.lock").c_str(), OS_FILEOPEN_TEMPORARY, OS_FILEACCESS_READWRITE,
                              OS_FILESHARE_EXCLUSIVE),
                  EOSSTS_SUCCESS);
        Begin();
        fs::remove_all(PathOf("log.1"));
    }
    const auto heldAfterALine = [this] {
        Log(OS_LOG_NOTE, "x");
        return IsHeld("log.1");
    };
    EXPECT_TRUE(WaitFor(heldAfterALine));
    fs::remove_all(PathOf("log.1"));
    EXPECT_TRUE(WaitFor(heldAfterALine));
}

// --------------------------------------------------------------------------------------------------- the collector

TEST_F(CollectorOfOurs, ARunWithDiagnosticsTellsThatItIsCollected)
{
    BeginAccepted(1);
    EXPECT_EQ(Receive(Header(m_strLog).size()), Header(m_strLog));
    std::string strText;
    while (strText.find("first\r\n") == std::string::npos)
        strText += Receive(1000);
    strText.resize(strText.find("first\r\n"));
    EXPECT_TRUE(
        Matches(strText.substr(strText.find("00006 ")),
                "00006 \\d{12} os/source/os_coslogcollector .* VP LogCollector initialization complete\\.\\.\\.\r\n"
                "00007 \\d{12} os/source/os_coslog .* VP ### OsServicesStart\\.\\.\\.\r\n"
                "00008 .* VE "))
        << strText;
}

TEST_F(CollectorOfOurs, ClientOfAnEndedApplicationDoesNotConnect)
{
    const pid_t pid = fork();
    if (pid == 0)
        _exit(0);
    ASSERT_GT(pid, 0);
    waitpid(pid, nullptr, 0);
    OsCollectorIdentity oscollectoridentity = OsArgumentsCollector();
    oscollectoridentity.u64ProcessIdApplication = static_cast<uint64_t>(pid);
    OsArgumentsSetCollector(oscollectoridentity);
    Begin();
    EXPECT_FALSE(m_uniqueLog->UsesCollector());
    EXPECT_EQ(Messages(), Texts{"first"});
}

// A collector that is behind would find the marker glued to the text.
TEST_F(CollectorOfOurs, EndMarkerIsNotSentBehindTextThatIsNotRead)
{
    FakeConfiguration fakeconfiguration;
    fakeconfiguration.Set(OS_CFGTAG_FORCENETCLOSEDELAY, "1");
    BeginAccepted();
    m_uniqueLog.reset();
    std::string strStream;
    for (std::string strPiece; !(strPiece = Receive(65536, true)).empty();)
        strStream += strPiece;
    EXPECT_NE(strStream.find(" VE first\r\n"), std::string::npos);
    EXPECT_EQ(strStream.find("EEXXIITT"), std::string::npos);
}

TEST_F(CollectorOfOurs, LineTornByAKilledCollectorIsEnded)
{
    BeginAccepted();
    WriteWhole(m_strLog, "part of a li");
    m_ossocketStream.SocketDisconnect(false);
    Log(OS_LOG_NOTE, "next");
    EXPECT_EQ(Lines()[0], "part of a li");
    EXPECT_TRUE(Lines()[1].ends_with(" V. next"));
}

TEST_F(CollectorOfOurs, FolderIsMadeAgainAfterAKilledCollector)
{
    m_strLog = PathOf("deep/down/a.log");
    fs::create_directories(PathOf("deep/down"));
    BeginAccepted();
    fs::remove_all(PathOf("deep"));
    m_ossocketStream.SocketDisconnect(false);
    Log(OS_LOG_NOTE, "next");
    EXPECT_EQ(Messages(), (Texts{"next"}));
}

// It keeps its file: nobody knows when it goes on. Each thread's lines are whole and in order, first in the stream,
// then beside the file.
TEST_F(CollectorOfOurs, StalledOneIsAwaitedOnceAndLosesNoLine)
{
    static constexpr int iThreads = 4;
    const std::string strOwn = PathOf("a-own.log");
    WriteWhole(strOwn, "of an earlier process, tor");
    BeginAccepted();
    const uint64_t u64Begin = PlatTicks();
    std::atomic<int> aiLines[iThreads] = {};
    InThreads(iThreads, [&](int a_iThread) {
        for (int iBehind = 0; iBehind < 20; iBehind += m_uniqueLog->UsesCollector() ? 0 : 1)
        {
            const std::string strLine = std::to_string(a_iThread) + " " + std::to_string(++aiLines[a_iThread]);
            Log(OS_LOG_NOTE, strLine + std::string(1000, '.'));
        }
    });
    EXPECT_LT(PlatTicks() - u64Begin, 9000u);
    EXPECT_STREQ(m_uniqueLog->LogFile(), m_strLog.c_str());
    m_uniqueLog->Start(m_strLog.c_str(), 0, "");
    Log(OS_LOG_NOTE, "9 1.");
    m_uniqueLog->Start(PathOf("b.log").c_str(), 0, "");
    Log(OS_LOG_NOTE, "elsewhere");
    EXPECT_EQ(LinesOf(PathOf("b.log")).size(), 7u);
    EXPECT_FALSE(fs::exists(m_strLog));
    m_uniqueLog.reset();

    const Texts vecstrOwn = LinesOf(strOwn);
    ASSERT_GT(vecstrOwn.size(), 2u);
    EXPECT_EQ(vecstrOwn[0], "of an earlier process, tor");
    EXPECT_EQ(ReadWhole(strOwn).find("log goes on"), ReadWhole(strOwn).rfind("log goes on"));
    EXPECT_TRUE(Matches(vecstrOwn[1], "\\d{5} \\d{12} os/source/os_coslog .* VE log goes on .*<" + m_strLog + ">"));
    WriteWhole(PathOf("stream"), ReadStream(m_ossocketStream).substr(Header(m_strLog).size()));
    Texts vecstr = LinesOf(PathOf("stream"));
    vecstr.insert(vecstr.end(), vecstrOwn.begin() + 1, vecstrOwn.end());

    std::set<int> setiNumber;
    int aiSeen[10] = {};
    for (const std::string& strLine : vecstr)
    {
        EXPECT_TRUE(setiNumber.insert(NumberOf(strLine)).second) << strLine;
        int iThread = 0, iLine = 0;
        if (sscanf(strLine.c_str() + strLine.find(" V"), " V. %d %d.", &iThread, &iLine) == 2)
        {
            EXPECT_EQ(iLine, ++aiSeen[iThread % 10]) << strLine;
        }
    }
    for (int iThread = 0; iThread < iThreads; ++iThread)
        EXPECT_EQ(aiSeen[iThread], aiLines[iThread]);
    EXPECT_EQ(aiSeen[9], 1);
    EXPECT_EQ(*setiNumber.rbegin(), static_cast<int>(setiNumber.size()) - 1);
}

int main(int a_iArguments, char** a_aszArgument)
{
    return RunOutsideTheCollectorsPath(a_iArguments, a_aszArgument);
}
