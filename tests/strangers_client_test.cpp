// strangers_client_test.cpp: our lines and another user of the machine: who listens where a collector should be gets
// none, and none is lost because a connection of ours was short.
#include "strangers_support.h"

#include "os_cosarguments.h"
#include "os_coslogcollector.h"
#include "os_cosmem.h"

namespace
{
// The application of our user.
class OursLogs : public Strangers
{
protected:
    void SetUp() override
    {
        Strangers::SetUp();
        if (!IsSkipped())
            WorkAs(g_userOurs);
    }

    // What the application uses as its collector program.
    void InstallScript(const std::string& a_strScript) const
    {
        fs::remove(PathOf("bin/logcollector"));
        MakeFile("bin/logcollector", g_userRoot, "#!/bin/sh\n" + a_strScript + "\n", 0755);
    }
    // Announces a shared collector, and keeps the announcement locked.
    std::unique_ptr<UserProcess> Announce(const User& a_user, const std::string& a_strPort) const
    {
        const std::string strFolder = "system/PROGRAMDATA/mvr_orvane/common";
        MakeFolder("system/PROGRAMDATA/mvr_orvane", g_userRoot, 0777);
        MakeFolder(strFolder, g_userRoot, 0777);
        fs::create_directories(PathOf("system/SYSTEMROOT/lib/mvr_orvane/common"));
        WriteWhole(PathOf("system/SYSTEMROOT/lib/mvr_orvane/common/const.ini"), "LogCollector=disabled\r\n");
        auto uniqueProcess = std::make_unique<UserProcess>(a_user, [=, this](const UserProcess& a_userprocess) {
            const std::string strText = " <log><ip>127.0.0.1</ip><port>" + a_strPort + "</port><log>";
            umask(0);
            const int iFile = open(PathOf(strFolder + "/logcollector.txt").c_str(), O_RDWR | O_CREAT | O_TRUNC, 0666);
            struct flock lock
            {
            };
            lock.l_type = F_WRLCK;
            lock.l_len = 1;
            const bool blLocked = fcntl(iFile, F_OFD_SETLK, &lock) == 0;
            const bool blWritten = write(iFile, strText.data(), strText.size()) == static_cast<ssize_t>(strText.size());
            a_userprocess.Say(blLocked && blWritten ? "announced" : "failed");
            a_userprocess.Hear(-1);
            return 0;
        });
        EXPECT_EQ(uniqueProcess->Hear(), "announced");
        return uniqueProcess;
    }

    // Runs the application until it has logged for a while; a_prepare() is called in it before.
    template <class Prepare>
    void RunApplication(Prepare a_prepare)
    {
        for (const char* szFile : {"app.start", "app.stop", "app.end"})
            fs::remove(PathOf("result/") + szFile);
        m_vecstrLine.clear();
        const uint64_t u64Begin = PlatTicks();
        UserProcess userprocess(m_user, [&](const UserProcess&) {
            const std::string strResult = "--result=" + PathOf("result");
            if (a_prepare())
                execl(PathOf("bin/chaos_application").c_str(), "chaos_application", "--name=app", "--threads=1",
                      strResult.c_str(), nullptr);
            return 97;
        });
        ASSERT_TRUE(WaitFor([&] { return fs::exists(PathOf("result/app.start")); }));
        EXPECT_LT(PlatTicks() - u64Begin, 12000u) << "the start was held up";
        PlatSleep(100);
        MakeFile("result/app.stop", m_user);
        EXPECT_EQ(userprocess.ExitCode(), 0);
        int iProcess = 0;
        pid_t pidCollector = 0;
        std::string strLog;
        std::istringstream(ReadWhole(PathOf("result/app.start"))) >> iProcess >> pidCollector >> strLog;
        std::istringstream(ReadWhole(PathOf("result/app.end"))) >> m_uLogged;
        TakeLines(Slashed(strLog));
    }
    void RunApplication()
    {
        RunApplication([] { return true; });
    }

    bool HasAllLines()
    {
        unsigned uNext = 1;
        for (const std::string& strLine : m_vecstrLine)
            uNext += strLine.find("chaos 0 " + std::to_string(uNext) + " x") != std::string::npos;
        return m_uLogged > 0 && uNext == m_uLogged + 1;
    }
    // The numbers of the lines of level 1.
    std::vector<size_t> Told() const
    {
        std::vector<size_t> vecsizet;
        for (size_t sizet = 0; sizet < m_vecstrLine.size(); ++sizet)
        {
            std::istringstream stream(m_vecstrLine[sizet]);
            std::string astrField[8];
            for (std::string& strField : astrField)
                stream >> strField;
            if (astrField[7] == "VE")
                vecsizet.push_back(sizet);
        }
        return vecsizet;
    }

    unsigned m_uLogged = 0;
    std::vector<std::string> m_vecstrLine;

private:
    void TakeLines(const std::string& a_strLog)
    {
        const std::string strText = ReadWhole(a_strLog);
        for (size_t sizetStart = 0, sizetEnd = 0; (sizetEnd = strText.find("\r\n", sizetStart)) != std::string::npos;
             sizetStart = sizetEnd + 2)
            m_vecstrLine.push_back(strText.substr(sizetStart, sizetEnd - sizetStart));
    }
};

constexpr size_t g_sizetHeaderLines = 6;
}   // namespace

// The collector's port is another's by now, or was never its own.
TEST_F(OursLogs, NobodyGetsOurLinesThroughAPort)
{
    static constexpr char szGone[] = "$(sh -c 'echo $$')";   // a process that has ended and was reaped
    const struct
    {
        const char* szWhat;
        User userListener;
        const char* szProcess;   // that the reply names, in the shell
        const char* szThen;
        bool blTaken;
    } arow[] = {
        {"a dead collector's port is a stranger's", g_userStranger, "$$", "exit 0", false},
        {"a living collector names a stranger's port", g_userStranger, "$$", "exec sleep 1000", false},
        {"the application's own process is named", g_userStranger, "$PPID", "exit 0", false},
        {"a living collector names the port of another process of ours", g_userOurs, "$$", "exec sleep 1000", false},
        {"a collector that has gone leaves its port to us", g_userOurs, szGone, "exit 0", true},
        {"root's", g_userRoot, szGone, "exit 0", true},
    };
    for (const auto& row : arow)
    {
        Listener listener(row.userListener);
        InstallScript("echo \"<lc><lcport>" + listener.Port() + "</lcport><lcpidlc>" + row.szProcess +
                      "</lcpidlc></lc>\"\nexec >&-\n" + row.szThen);
        ASSERT_NO_FATAL_FAILURE(RunApplication()) << row.szWhat;
        EXPECT_EQ(listener.End() != 0, row.blTaken) << row.szWhat;
        EXPECT_EQ(HasAllLines(), !row.blTaken) << row.szWhat;
        const std::vector<size_t> vecsizetTold(row.blTaken ? 0 : 1, g_sizetHeaderLines + 1);
        EXPECT_EQ(Told(), vecsizetTold) << row.szWhat;
    }
}

// Everybody may announce in the program data. A line of level 1 may tell of it.
TEST_F(OursLogs, NobodyGetsOurLinesThroughAnAnnouncement)
{
    const struct
    {
        User userAnnouncement;
        User userListener;
        bool blTaken;
    } arow[] = {
        {g_userStranger, g_userStranger, false}, {g_userStranger, g_userOurs, false},
        {g_userOurs, g_userStranger, false},     {g_userRoot, g_userStranger, false},
        {g_userOurs, g_userOurs, true},          {g_userRoot, g_userRoot, true},
    };
    for (const auto& row : arow)
    {
        const std::string strWhat =
            std::to_string(row.userAnnouncement.uid) + " announces " + std::to_string(row.userListener.uid);
        fs::remove_all(PathOf("system/PROGRAMDATA/mvr_orvane"));
        Listener listener(row.userListener);
        const auto uniqueAnnouncement = Announce(row.userAnnouncement, listener.Port());
        ASSERT_NO_FATAL_FAILURE(RunApplication()) << strWhat;
        EXPECT_EQ(listener.End() != 0, row.blTaken) << strWhat;
        EXPECT_EQ(HasAllLines(), !row.blTaken) << strWhat;
        EXPECT_TRUE(row.blTaken || Told().size() <= 1) << strWhat;
    }
}

// A stranger listens on every port that the system has to give, and on that of the shared collector.
TEST_F(OursLogs, AStrangerOnEveryPortHoldsUpNoStart)
{
    if (!HaveOwnNetwork())
        GTEST_SKIP() << "no network of its own on this machine";
    WriteWhole("/proc/sys/net/ipv4/ip_local_port_range", "41110 41117");
    std::vector<std::unique_ptr<Listener>> vecuniqueListener;
    for (uint16_t u16Port = 41110; u16Port <= 41117; ++u16Port)
        vecuniqueListener.push_back(std::make_unique<Listener>(g_userStranger, u16Port));
    ASSERT_NO_FATAL_FAILURE(RunApplication());
    EXPECT_TRUE(HasAllLines());
    for (const auto& uniqueListener : vecuniqueListener)
        EXPECT_EQ(uniqueListener->End(), 0u) << uniqueListener->Port();
}

TEST_F(OursLogs, AreCollectedInANetworkOfItsOwnAndWhereNobodyTells)
{
    if (!HaveOwnNetwork())
        GTEST_SKIP() << "no network of its own on this machine";
    for (const int iError : {0, EPERM, EAFNOSUPPORT})
    {
        ASSERT_NO_FATAL_FAILURE(RunApplication([=] { return iError == 0 || TakeAwayDiagnosis(iError); }));
        EXPECT_TRUE(WaitFor([&] { return HasAllLines(); })) << iError;
        EXPECT_NE(m_vecstrLine.at(0).find("logcollector=true"), std::string::npos) << iError;
        EXPECT_EQ(Told(), std::vector<size_t>{}) << iError;
    }
}

// ------------------------------------------------------------------------------------------------- short streams

namespace
{
constexpr size_t g_sizetThreads = 8;
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr size_t g_sizetStreams = 50;   // of each
#else
constexpr size_t g_sizetStreams = 250;   // of each
#endif

std::string LineOf(size_t a_sizetStream)
{
    return "stream " + std::to_string(a_sizetStream) + "\r\n";
}
std::string AllLines()
{
    std::string strText;
    for (size_t sizetStream = 0; sizetStream < g_sizetStreams; ++sizetStream)
        strText += LineOf(sizetStream);
    return strText;
}

// Sorted, as the streams of one file may overtake one another.
std::vector<std::string> SortedLines(const std::string& a_strText)
{
    std::istringstream stream(a_strText);
    std::vector<std::string> vecstr;
    for (std::string strLine; std::getline(stream, strLine);)
        vecstr.push_back(strLine);
    std::sort(vecstr.begin(), vecstr.end());
    return vecstr;
}
}   // namespace

// A client of the library is known when it closes: its file may be any of its user's, also one that counts for nobody
// who is not known. Others are known or not; a proper log takes their lines in any case.
TEST_F(OursLogs, ManyShortStreamsLoseNoLine)
{
    ASSERT_NO_FATAL_FAILURE(BeginCollector(g_userOurs));
    MakeFolder("ours/open", g_userOurs, 0777);
    const auto uniqueOurs = StreamOfOurs(PathOf("ours/running.log"), "ours\r\n");
    ASSERT_TRUE(FileBecomes("ours/running.log", "ours\r\n"));
    const auto sends = [&](auto a_send) {
        return AsUser(g_userOurs, [&] {
            std::atomic<size_t> sizetFailed = 0;
            InThreads(g_sizetThreads, [&](int a_iThread) {
                for (size_t sizetStream = 0; sizetStream < g_sizetStreams; ++sizetStream)
                    sizetFailed += !a_send(std::to_string(a_iThread), LineOf(sizetStream));
            });
            return sizetFailed == 0;
        });
    };
    EXPECT_TRUE(sends([&](const std::string& a_strThread, const std::string& a_strLine) {
        return RawStream(m_u16Port).Send(Header(PathOf("ours/raw" + a_strThread + ".log")) + a_strLine);
    }));
    OsArgumentsSetCollector({m_u16Port, PlatProcessId(), static_cast<uint64_t>(m_pidCollector)});
    const COsMem osmem;
    EXPECT_TRUE(sends([&](const std::string& a_strThread, const std::string& a_strLine) {
        const std::string strPath = PathOf("ours/open/library" + a_strThread + ".txt");
        COsLogCollector oslogcollector(OS_COLLECTORMODE_PRIVATECLIENT, strPath.c_str());
        return oslogcollector.Start(strPath.c_str(), true) == EOSSTS_SUCCESS &&
               oslogcollector.ClientWrite(a_strLine.data(), a_strLine.size()) == EOSSTS_SUCCESS;
    }));
    uniqueOurs->Say("end");
    EXPECT_TRUE(CollectorEnds());
    for (size_t sizetThread = 0; sizetThread < g_sizetThreads; ++sizetThread)
    {
        const std::string strThread = std::to_string(sizetThread);
        for (const std::string& strFile : {"ours/raw" + strThread + ".log", "ours/open/library" + strThread + ".txt"})
            EXPECT_EQ(SortedLines(ReadWhole(PathOf(strFile))), SortedLines(AllLines())) << strFile;
    }
}
