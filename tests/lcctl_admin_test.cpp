// lcctl_admin_test.cpp: what administrators and support engineers do with lcctl: running a program into a log, removing
// log folders, looking for what is wrong, collecting a report.
#include "lcctl_support.h"

#include <sys/stat.h>

namespace fs = std::filesystem;

class LcctlAdmin : public LcctlTest
{
protected:
    // A log folder of an application, with one log of so many bytes that was written so many days ago.
    fs::path MakeRun(const std::string& a_strApplication, const std::string& a_strStart, int a_iDaysAgo,
                     size_t a_sizetBytes = 100) const
    {
        const fs::path pathFolder = m_path / "logs" / a_strApplication / ("log." + a_strStart);
        fs::create_directories(pathFolder);
        const fs::path pathLog = pathFolder / (a_strApplication + ".log");
        WriteWhole(pathLog, std::string(a_sizetBytes, 'x'));
        fs::last_write_time(pathLog, fs::file_time_type::clock::now() - std::chrono::hours(24 * a_iDaysAgo));
        return pathFolder;
    }

    std::string Dir() const { return " --dir=" + (m_path / "logs").string(); }
};

// ------------------------------------------------------------------------------------------------------------- run

TEST_F(LcctlAdmin, RunLogsBothStreamsAndPassesTheExitCodeOn)
{
    const LcctlOutput output = Lcctl(
        "run --name=tool -- sh -c 'cat; echo \"$1|$2|$3\"; echo bad >&2; printf end; exit 7' x 'a \"b\\' '' 'c  d'",
        "printf 'in\\r\\n'");
    EXPECT_EQ(output.iExit, 7);
    const fs::path pathLog = output.strError.substr(11, output.strError.find('\n') - 11);
    EXPECT_EQ(pathLog.filename(), "tool.log");
    const std::string strLog = ReadWhole(pathLog);
    EXPECT_TRUE(Contains(strLog, "stdout +1 .* V\\. in\r\n")) << strLog;
    EXPECT_TRUE(Contains(strLog, "stdout +2 .* V\\. a \"b\\\\\\|\\|c  d\r\n")) << strLog;
    EXPECT_TRUE(Contains(strLog, "stdout +3 .* V\\. end\r\n")) << strLog;
    EXPECT_TRUE(Contains(strLog, "stderr +1 .* VE bad\r\n")) << strLog;
    EXPECT_NE(strLog.find("logcollector=true"), std::string::npos);
}

TEST_F(LcctlAdmin, RunKeepsLongLinesAndZerosAndHandsTerminationOn)
{
    const LcctlOutput output =
        Lcctl("run -q --name=tool -- sh -c 'head -c 70000 /dev/zero | tr \"\\0\" x; printf \"\\na\\0b\"; "
              "trap \"echo asked; exit 3\" TERM; kill -TERM $PPID; while :; do sleep 0.1; done'");
    EXPECT_EQ(output.iExit, 3);
    const std::string strLog = OnlyLog();
    EXPECT_NE(strLog.find(" V. " + std::string(65536, 'x') + "\r\n"), std::string::npos);
    EXPECT_NE(strLog.find(" V. " + std::string(4464, 'x') + "\r\n"), std::string::npos);
    EXPECT_TRUE(Contains(strLog, " V\\. a\\?basked\r\n"));
}

TEST_F(LcctlAdmin, RunSaysWhatItCannotRun)
{
    EXPECT_EQ(Lcctl("run -- no-such-program").iExit, 127);
    EXPECT_EQ(Lcctl("run -- /etc/passwd").iExit, 126);
    EXPECT_EQ(Lcctl("run").iExit, 2);
    EXPECT_EQ(Lcctl("run --name=a/b -- true").iExit, 2);
    setenv("MVR_NOLOGGING", "1", 1);
    const LcctlOutput output = Lcctl("run -- true");
    EXPECT_EQ(output.iExit, 125);
    EXPECT_EQ(output.Lines(), 1) << output.strError;
}

// ------------------------------------------------------------------------------------------------------------ clean

TEST_F(LcctlAdmin, CleanRemovesByAgeSizeAndRunsTheOldestFirst)
{
    const fs::path pathOld = MakeRun("viewer", "20260101120000000000", 30);
    const fs::path pathMiddle = MakeRun("viewer", "20260110120000000000", 10, 3000);
    const fs::path pathNew = MakeRun("viewer", "20260120120000000000", 0, 3000);
    const fs::path pathOther = MakeRun("other app", "20260105120000000000", 20);

    const LcctlOutput output = Lcctl("clean --older=2w --dry-run" + Dir());
    EXPECT_EQ(output.iExit, 0);
    EXPECT_TRUE(Contains(output.strOutput, "would remove +100 .*" + pathOld.string() + " \\(last written 30 d ago\\)"));
    EXPECT_TRUE(Contains(output.strOutput, "keep +2.9K .*" + pathMiddle.string() + " \\(within the limits\\)"));
    EXPECT_TRUE(Contains(output.strOutput, "would remove 2 folders with 200; 2 with 5.9K stay\n"));
    EXPECT_TRUE(fs::exists(pathOld));

    EXPECT_EQ(Lcctl("clean --older=2w --app=viewer" + Dir()).iExit, 0);
    EXPECT_FALSE(fs::exists(pathOld));
    EXPECT_TRUE(fs::exists(pathOther));
    EXPECT_EQ(Lcctl("clean --max-size=3K --app=viewer" + Dir()).iExit, 0);
    EXPECT_FALSE(fs::exists(pathMiddle));
    EXPECT_TRUE(fs::exists(pathNew));
    EXPECT_EQ(Lcctl("clean --max-runs=0" + Dir()).iExit, 0);
    EXPECT_FALSE(fs::exists(pathNew));
    EXPECT_FALSE(fs::exists(pathOther));
}

TEST_F(LcctlAdmin, CleanKeepsWhatIsInUseAndFollowsNoLink)
{
    const fs::path pathOutside = m_path / "outside" / "log.1";
    fs::create_directories(pathOutside);
    WriteWhole(pathOutside / "a.log", "text");
    fs::create_directories(m_path / "logs");
    fs::create_directory_symlink(pathOutside, m_path / "logs" / "log.2");
    MakeRun("viewer", "20260101120000000000", 30);

    const LcctlOutput output = Lcctl("run -q --name=tool -- " + LcctlProgram() + " clean --max-runs=0" + Dir() +
                                     " --dir=" + LogRoot().string());
    EXPECT_EQ(output.iExit, 0);
    EXPECT_TRUE(Contains(OnlyLog(), "keep .*\\(in use by .*lcctl \\(\\d+\\)")) << OnlyLog();
    EXPECT_TRUE(fs::exists(pathOutside / "a.log"));
    EXPECT_TRUE(fs::is_symlink(m_path / "logs" / "log.2"));
    EXPECT_FALSE(fs::exists(m_path / "logs/viewer/log.20260101120000000000"));
}

TEST_F(LcctlAdmin, CleanRefusesWhatItDoesNotUnderstand)
{
    MakeRun("viewer", "20260101120000000000", 30);
    for (const char* szArguments : {"--older=14", "--older=", "--older=1x", "--max-size=5X", "--max-size=-1",
                                    "--max-runs=-1", "--hourstokeep=48", "--older=1d extra", ""})
    {
        const LcctlOutput output = Lcctl("clean" + Dir() + " " + szArguments);
        EXPECT_EQ(output.iExit, 2) << szArguments;
        EXPECT_EQ(output.Lines(), 1) << output.strError;
    }
    EXPECT_EQ(Lcctl("clean --max-runs=0 --dir=" + m_path.string() + "/nowhere").iExit, 2);
    fs::create_directories(m_path / "empty");
    EXPECT_EQ(Lcctl("clean --max-runs=0 --dir=" + m_path.string() + "/empty").iExit, 1);
    EXPECT_TRUE(fs::exists(m_path / "logs/viewer/log.20260101120000000000"));
}

// ------------------------------------------------------------------------------------------------- doctor and report

TEST_F(LcctlAdmin, DoctorSendsALineThroughTheCollectorAndLeavesNoLog)
{
    const LcctlOutput output = Lcctl("doctor");
    EXPECT_EQ(output.iExit, 0) << output.strOutput;
    EXPECT_TRUE(Contains(output.strOutput, "ok +collector +.*/logcollector answers in [0-9.]+ ms\n"));
    EXPECT_TRUE(Contains(output.strOutput, "ok +log +a line went through the collector below "));
    EXPECT_TRUE(Contains(Lcctl("doctor --json").strOutput, "\\{\"cure\":\"\",\"good\":true,\"text\":"));
    EXPECT_EQ(Logs(), 0);
}

TEST_F(LcctlAdmin, DoctorTellsWhatIsWrongAndTheCure)
{
    const LcctlOutput output = Lcctl("doctor --as=/opt/logcollector-1/viewer --entity=tool");
    EXPECT_EQ(output.iExit, 1);
    EXPECT_TRUE(Contains(output.strOutput, "WRONG +entity +\"tool\" is unknown.*\n +-> "));
    EXPECT_TRUE(Contains(output.strOutput, "WRONG +program +\"logcollector\" is in the path.*\n +-> "));
    EXPECT_TRUE(Contains(output.strOutput, "WRONG +collector +not found.*\n +-> install"));
    EXPECT_TRUE(Contains(Lcctl("doctor --as=" + std::string(64, 'n')).strOutput, "WRONG +name .*64 bytes"));
    setenv("MVR_LOGDIR", "/proc/nowhere", 1);
    const LcctlOutput outputNowhere = Lcctl("doctor");
    EXPECT_EQ(outputNowhere.iExit, 1);
    EXPECT_TRUE(Contains(outputNowhere.strOutput, "WRONG +log .*\n +-> ")) << outputNowhere.strOutput;
}

TEST_F(LcctlAdmin, ReportHasTheNewestRunsAndNoSecrets)
{
    MakeRun("viewer", "20260101120000000000", 30);
    MakeRun("viewer", "20260120120000000000", 0);
    MakeRun("other app", "20260105120000000000", 20);
    WriteWhole(m_path / "logs/viewer/log.20260120120000000000/mvroscfg.txt",
               "\r\n*** Environmentals ****\r\n\r\nPASSWORD=hunter2\r\nMVR_X=1\r\n\r\n*** BRAND ***\r\nrest");
    setenv("PASSWORD", "hunter2", 1);

    const LcctlOutput outputList = Lcctl("report --dry-run" + Dir());
    EXPECT_EQ(outputList.iExit, 0);
    EXPECT_TRUE(Contains(outputList.strOutput, "logs/viewer/log.20260120120000000000/viewer.log\n"));
    EXPECT_FALSE(Contains(outputList.strOutput, "log.20260101120000000000"));

    const std::string strArchive = (m_path / "a report.tar.gz").string();
    EXPECT_EQ(Lcctl("report --output='" + strArchive + "'" + Dir()).iExit, 0);
    const std::string strNames = Shell("tar tzf '" + strArchive + "'");
    for (const char* szName : {"a report/logs/viewer/log.20260120120000000000/viewer.log", "a report/doctor.txt",
                               "a report/logs/other app/log.20260105120000000000/other app.log",
                               "a report/support-report.txt", "a report/environment.txt"})
        EXPECT_NE(strNames.find(std::string(szName) + "\n"), std::string::npos) << szName << "\n" << strNames;
    const std::string strText = Shell("tar xzOf '" + strArchive + "'");
    EXPECT_EQ(strText.find("hunter2"), std::string::npos);
    EXPECT_NE(strText.find("MVR_X=1\r\n"), std::string::npos);
    EXPECT_NE(strText.find("OS_CFGINFO_OS_BUILDSTRING"), std::string::npos);
    EXPECT_EQ(Lcctl("report --output=/proc/no.tar.gz" + Dir()).iExit, 1);
}
