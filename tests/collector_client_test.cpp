// collector_client_test.cpp: the application's side of the collector: starting one, connecting to it, and what is left
// in the log when one of the two is killed.
#include "collector_client_support.h"

#include "os_costhread.h"

#include <thread>

// ------------------------------------------------------------------------------------------------- the start

TEST_F(CollectorClient, OnlyACompleteReplyCountsAndNoneTakesLong)
{
    const struct
    {
        std::string strScript;
        int32_t i32Port;   // 0: no collector
    } arow[] = {
        {"exit 0", 0},
        {"echo rubbish", 0},
        {"exec yes", 0},
        {"exec >&-; exec sleep 1000", 0},
        {"printf '<lc><lcport>5000'; exec >&-; exec sleep 1000", 0},
        {"echo '<lc><lcport>5000</lcport><lcpidlc>77</lcpidlc></lc>' >&2; exec sleep 1000", 0},
        {"echo '<lc><port>abort</port></lc>'; exec sleep 1000", 0},
        {"echo '<lc><lcport>0</lcport><lcpidlc>77</lcpidlc></lc>'; exec sleep 1000", 0},
        {"echo '<lc><lcport>65536</lcport><lcpidlc>77</lcpidlc></lc>'; exec sleep 1000", 0},
        {"echo '<lc><lcport>-1</lcport><lcpidlc>77</lcpidlc></lc>'; exec sleep 1000", 0},
        {"printf '<lc><lcport>50'; echo noise >&2; sleep 0.1; printf '00</lcport><lcpidlc>77</lcpidlc></l';"
         "sleep 0.1; printf 'c>'; exec cat",
         5000},
    };
    WriteWhole(m_pathProgram, "no program");
    EXPECT_FALSE(LogCollectorStartCollector()) << "a file that cannot be run";
    for (const auto& row : arow)
    {
        const std::string strProcess = PathOf("process");
        InstallScript("echo $$ > " + strProcess + "\n" + row.strScript);
        const bool blSilent = row.strScript.find(">&2; exec sleep") != std::string::npos;
        const uint64_t u64Begin = PlatTicks();
        EXPECT_EQ(LogCollectorStartCollector(), row.i32Port != 0) << row.strScript;
        EXPECT_LT(PlatTicks() - u64Begin, blSilent ? 11000u : 5000u) << row.strScript;
        const std::string strId = ReadWhole(strProcess);
        EXPECT_TRUE(row.i32Port || WaitFor([&] { return kill(std::stoi(strId), 0) != 0; })) << row.strScript;
        EXPECT_EQ(OsArgumentsCollector().i32Port, row.i32Port) << row.strScript;
        EXPECT_EQ(OsArgumentsCollector().u64ProcessIdApplication, row.i32Port ? PlatProcessId() : 0);
    }
    InstallScript("exit 0");
    EXPECT_TRUE(LogCollectorStartCollector()) << "there is one already";
    EXPECT_EQ(OsArgumentsCollector().u64ProcessIdCollector, 77u);
}

TEST_F(CollectorClient, ACollectorThatIsNotWantedIsNotStarted)
{
    InstallScript("echo '<lc><lcport>5000</lcport><lcpidlc>77</lcpidlc></lc>'");
    setenv("MVR_LOGCOLLECTORXMLOVERRIDE", "off", 1);
    EXPECT_TRUE(LogCollectorStartCollector());
    EXPECT_EQ(OsArgumentsCollector().i32Port, 0);
}

// ------------------------------------------------------------------------------------------------ the stream

TEST_F(CollectorClient, ApplicationEndsItsCollectorWithoutALogTrace)
{
    BeginCollected();
    Log(OS_LOG_NOTE, "collected");
    m_uniqueLog.reset();
    WaitForCollectorsEnd();
    EXPECT_EQ(Messages(), (Texts{"first", "collected"}));
    EXPECT_EQ(Lines()[0].substr(Lines()[0].find("logcollector=")), "logcollector=true");
}

// What the threads logged, as it stands in the file. A thread's numbers go up by one, but for the lines that the dead
// collector had not written yet; those are one gap at most, and only one line can have been cut.
TEST_F(CollectorClient, KilledCollectorLosesNoLineFromTheFailedOneOn)
{
    static constexpr size_t sizetThreads = 4, sizetHeaderLines = 7;
    BeginCollected();
    std::atomic<bool> blStop = false;
    std::atomic<size_t> asizetLogged[sizetThreads] = {};
    std::vector<std::thread> vecthread;
    for (size_t sizetThread = 0; sizetThread < sizetThreads; ++sizetThread)
    {
        vecthread.emplace_back([&, sizetThread] {
            while (!blStop)
                Log(OS_LOG_NOTE, std::to_string(sizetThread) + " " + std::to_string(++asizetLogged[sizetThread]) + ".");
        });
    }
    EXPECT_TRUE(WaitFor([&] { return SizeOf("a.log") > 300000; }));
    EXPECT_TRUE(PlatProcessTerminate(m_plathandleCollector, 1));
    EXPECT_TRUE(WaitFor([&] { return !m_uniqueLog->UsesCollector(); }));
    for (const std::atomic<size_t>& sizetLogged : asizetLogged)
    {
        const size_t sizetBefore = sizetLogged;
        EXPECT_TRUE(WaitFor([&] { return sizetLogged > sizetBefore + 100; }));
    }
    blStop = true;
    for (std::thread& thread : vecthread)
        thread.join();
    m_uniqueLog.reset();
    WaitForCollectorsEnd();

    size_t asizetLast[sizetThreads] = {};
    size_t sizetOther = 0, sizetLost = 0, sizetGaps = 0;
    for (const std::string& strLine : Lines())
    {
        size_t sizetThread = sizetThreads, sizetNumber = 0;
        char chEnd = '\0';
        const size_t sizetMessage = strLine.find(" V. ");
        if (sizetMessage != std::string::npos)
            sscanf(strLine.c_str() + sizetMessage, " V. %zu %zu%c", &sizetThread, &sizetNumber, &chEnd);
        if (chEnd != '.' || sizetThread >= sizetThreads)
        {
            sizetOther += 1;
            continue;
        }
        EXPECT_GT(sizetNumber, asizetLast[sizetThread]) << "doubled, or in the wrong place: " << strLine;
        sizetLost += sizetNumber - asizetLast[sizetThread] - 1;
        sizetGaps += sizetNumber != asizetLast[sizetThread] + 1;
        asizetLast[sizetThread] = sizetNumber;
    }
    for (size_t sizetThread = 0; sizetThread < sizetThreads; ++sizetThread)
        EXPECT_EQ(asizetLast[sizetThread], asizetLogged[sizetThread]);
    EXPECT_LE(sizetGaps, sizetThreads);
    EXPECT_LE(sizetOther, sizetHeaderLines + 1);
    printf("%zu lines were on their way to the collector\n", sizetLost);
}

// ------------------------------------------------------------------------------------------- a shared collector

TEST_F(CollectorClient, SharedOneIsFoundAndAStaleAnnouncementDeleted)
{
    const ReservedPort reservedport;
    setenv("MVR_LOGCOLLECTOR", std::to_string(reservedport.Number()).c_str(), 1);
    COsThread osthread;
    const std::string strProgram = ProgramPath("shared_collector");
    ASSERT_EQ(osthread.Spawn(OS_SPAWNFLAGS_PIPES, strProgram.c_str(), ""), EOSSTS_SUCCESS);
    char szAnnouncement[OS_PATHSIZE] = "";
    size_t sizetRead = 0;
    ASSERT_EQ(osthread.ChildRead(szAnnouncement, sizeof szAnnouncement - 1, &sizetRead, true), EOSSTS_SUCCESS);
    FakeConfiguration fakeconfiguration;
    const std::string strFolder = std::string(szAnnouncement, std::string_view(szAnnouncement).rfind('\\'));
    fakeconfiguration.Set(OS_CFGTAG_ROOTCOMMONDIRECTORYLEGACY, strFolder);

    COsLogCollector oslogcollector(OS_COLLECTORMODE_SHAREDCLIENT, m_strLog.c_str());
    EXPECT_TRUE(WaitFor([&] { return oslogcollector.Start(m_strLog.c_str(), true) == EOSSTS_SUCCESS; }));
    EXPECT_EQ(oslogcollector.ClientWrite("shared\r\n", 8), EOSSTS_SUCCESS);
    EXPECT_TRUE(WaitFor([&] { return ReadWhole(m_strLog) == "shared\r\n"; }));

    EXPECT_TRUE(PlatProcessTerminate(osthread.ChildProcess(), 1));
    EXPECT_TRUE(WaitFor([&] { return !osthread.ChildIsRunning(); }));
    EXPECT_EQ(oslogcollector.ClientWrite("lost\r\n", 6), EOSSTS_DISCONNECTED);
    COsLogCollector oslogcollectorLate(OS_COLLECTORMODE_SHAREDCLIENT, m_strLog.c_str());
    EXPECT_EQ(oslogcollectorLate.Start(m_strLog.c_str(), true), EOSSTS_BUSY);
    EXPECT_EQ(oslogcollectorLate.Start(m_strLog.c_str(), true), EOSSTS_FAIL);
}

int main(int a_iArguments, char** a_aszArgument)
{
    return RunOutsideTheCollectorsPath(a_iArguments, a_aszArgument);
}
