// allocation_test.cpp: a process whose memory runs short goes on: operations fail as they say, nothing is thrown and
// nothing is left behind.
#include "allocation_support.h"
#include "test_support.h"

#include "os_coscfg.h"
#include "os_cosfile_system.h"
#include "os_cosmem.h"
#include "os_cosservices.h"

#include "plat_tree.h"

#include <cstring>
#include <functional>
#include <sys/wait.h>

namespace fs = std::filesystem;

static constexpr char g_szSource[] = "tests/allocation_test";

// Of the failing allocations, each case takes every so many: a start takes its time.
static constexpr int g_iCases = 4;
#ifdef __SANITIZE_ADDRESS__
static constexpr int g_iStep = 7 * g_iCases;
#else
static constexpr int g_iStep = g_iCases;
#endif

static int Descriptors()
{
    return static_cast<int>(std::distance(fs::directory_iterator("/proc/self/fd"), {}));
}

class Allocation : public FolderTest
{
protected:
    // Without the variables of whoever runs the test, which take memory as well.
    Allocation()
    {
        std::vector<std::string> vecstrName;
        for (char** ppch = environ; *ppch; ++ppch)
            vecstrName.emplace_back(*ppch, strcspn(*ppch, "="));
        for (const std::string& strName : vecstrName)
        {
            const char* const szValue = getenv(strName.c_str());
            if (szValue && !std::string(szValue).starts_with(m_path.string()) && !strName.ends_with("_OPTIONS"))
                unsetenv(strName.c_str());
        }
    }
};

// ---------------------------------------------------------------------------------------------- the file operations

TEST_F(Allocation, EveryFileOperationFailsAsItSays)
{
    const std::string strDeep = PathOf("C/\u00E4/deep");
    const std::string strFile = PathOf("file");
    const std::string strMoved = PathOf("moved");
    const std::string strTree = PathOf("tree");
    const std::string strPattern = PathOf("f*");
    COsMem osmem;
    const std::string strEmpty = PathOf("empty");
    struct Operation
    {
        std::function<EOSSTS()> function;
        EOSSTS eosstsAlso = EOSSTS_FAIL;   // that it may fail with
    };
    const Operation aoperation[] = {
        {[&] { return COsFile().Open(strFile.c_str(), OS_FILEOPEN_ALWAYS, OS_FILEACCESS_READ, OS_FILESHARE_READ); }},
        {[&] { return OsFileExists(strFile.c_str()) ? EOSSTS_SUCCESS : EOSSTS_FAIL; }},
        {[&] {
            OsFileInfo osfileinfo;
            return OsFileGetInfo("C:\\a\\..", &osfileinfo);
        }},
        {[&] {
            OsFileInfo osfileinfo;
            const EOSSTS eossts = OsFileFindFirst(strPattern.c_str(), &osfileinfo);
            OsFileFindClose(&osfileinfo);
            return eossts;
        }},
        {[&] { return OsFileMove(strFile.c_str(), strMoved.c_str()); }},
        {[&] { return OsFileDelete(strFile.c_str(), OS_FILETYPE_FILE, false, false); }},
        {[&] { return OsFileCreateDirectory(strDeep.c_str()); }},
        {[&] { return OsFileRemoveEmptyTree(strEmpty.c_str()); }, EOSSTS_SHARING},
        {[&] { return OsFileRemoveTree(strTree.c_str()); }, EOSSTS_ACCESSDENIED},
        {[&] {
            void* const pvView = OsMemSharedAlloc(OS_SHAREDALLOC_CREATE, strMoved.c_str(), 5000, 0, OS_SHAREDLOCK_LOCK,
                                                  OS_SHAREDFLAG_FILE, "", 0);
            if (pvView)
                OsMemFree(pvView, "", 0, OS_MEMFLAG_BLOCK);
            return pvView ? EOSSTS_SUCCESS : EOSSTS_FAIL;
        }},
    };
    ASSERT_EQ(OsFileCreateDirectory("C:\\a"), EOSSTS_SUCCESS);
    for (const Operation& operation : aoperation)
    {
        bool blEnough = false;
        for (int iFailing = 1; !blEnough; ++iFailing)
        {
            fs::create_directories(PathOf("tree/a/b/c"));
            WriteWhole(PathOf("tree/a/b/file"), "x");
            WriteWhole(strFile, "x");
            fs::remove(strMoved);
            fs::remove_all(PathOf("C"));
            fs::create_directories(strEmpty + "/a/b");
            const int iBlocks = g_iLiveBlocks;
            const int iDescriptors = Descriptors();
            g_iAllocationsLeft = iFailing;
            const EOSSTS eossts = operation.function();
            blEnough = g_iAllocationsLeft > 0;
            g_iAllocationsLeft = 0;
            const int iBlocksAfter = g_iLiveBlocks;
            const bool blStated = eossts == EOSSTS_FAIL || eossts == operation.eosstsAlso;
            const auto iOperation = &operation - aoperation;
            EXPECT_TRUE(eossts == EOSSTS_SUCCESS || (blStated && !blEnough))
                << iOperation << " " << iFailing << " " << eossts;
            EXPECT_EQ(iBlocksAfter, iBlocks) << iOperation << " " << iFailing;
            EXPECT_EQ(Descriptors(), iDescriptors) << iOperation << " " << iFailing;
        }
    }
}

// ------------------------------------------------------------------------------------------ a process from its start

struct RunResult
{
    EOSSTS eosstsStart;
    EOSSTS eosstsProfile;
    EOSSTS eosstsRemoved;
    bool blEnough;   // memory for all of it
};

static RunResult RunOnce(const std::string& a_strFolder, int a_iFailing) noexcept
{
    const std::string strTree = a_strFolder + "/tree";
    const std::string strProfile = a_strFolder + "/profile.ini";
    fs::create_directories(strTree + "/a/b");
    WriteWhole(strTree + "/a/file", "x");
    RunResult runresult{};
    g_iAllocationsLeft = a_iFailing;
    runresult.eosstsStart = OsServicesStart();
    for (int i = 0; i < 10; ++i)
        OSLOG(OS_LOG_ERROR, "line %d of %s", i, "ten");
    runresult.eosstsProfile = OsCfgProfileWrite(strProfile.c_str(), "section", "key", "value");
    if (runresult.eosstsProfile == EOSSTS_SUCCESS)
        runresult.eosstsProfile = OsCfgProfileWriteBack(strProfile.c_str());
    runresult.eosstsRemoved = OsFileRemoveTree(strTree.c_str());
    OsServicesStop();
    runresult.blEnough = a_iFailing == 0 || g_iAllocationsLeft > 0;
    g_iAllocationsLeft = 0;
    return runresult;
}

// What a child tells of itself.
struct ChildResult
{
    RunResult runresult;        // of the run that lacked memory
    RunResult runresultAfter;   // of a second one that did not
    int iBlocks;                // that are live in the end
};

// In a child that has used nothing of the library yet. False when it did not come to its end.
static bool RunChild(const std::string& a_strFolder, int a_iFailing, ChildResult* a_pchildresult)
{
    int aiPipe[2];
    EXPECT_EQ(pipe(aiPipe), 0);
    const pid_t pid = fork();
    if (pid == 0)
    {
        ChildResult childresult{};
        const int iBlocks = g_iLiveBlocks;
        childresult.runresult = RunOnce(a_strFolder, a_iFailing);
        childresult.runresultAfter = RunOnce(a_strFolder, 0);
        WaitFor([] { return std::distance(fs::directory_iterator("/proc/self/task"), {}) == 1; });
        childresult.iBlocks = g_iLiveBlocks - iBlocks;
        const ssize_t ssizet = write(aiPipe[1], &childresult, sizeof childresult);
        _exit(ssizet == sizeof childresult ? 0 : 1);
    }
    close(aiPipe[1]);
    const bool blRead = read(aiPipe[0], a_pchildresult, sizeof *a_pchildresult) == sizeof *a_pchildresult;
    close(aiPipe[0]);
    int iStatus = 0;
    EXPECT_EQ(waitpid(pid, &iStatus, 0), pid);
    EXPECT_EQ(iStatus, 0) << "with allocation " << a_iFailing;
    return blRead && iStatus == 0;
}

static bool IsSuccess(const RunResult& a_runresult)
{
    return a_runresult.eosstsStart == EOSSTS_SUCCESS && a_runresult.eosstsProfile == EOSSTS_SUCCESS &&
           a_runresult.eosstsRemoved == EOSSTS_SUCCESS;
}

class AllocationProcess : public Allocation, public testing::WithParamInterface<int>
{
};

INSTANTIATE_TEST_SUITE_P(, AllocationProcess, testing::Range(1, 1 + g_iCases));

TEST_P(AllocationProcess, SurvivesEachFailureFromStartToStop)
{
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "each of the many starts takes seconds there";
#endif
    const fs::path pathCommon = m_path / "system/SYSTEMROOT/lib/mvr_orvane/common";
    fs::create_directories(pathCommon);
    WriteWhole(pathCommon / "const.ini", "LogCollector=disabled\r\n");
    OsServicesSetDocument("<arguments><uniquename>prog</uniquename><entity>application</entity>"
                          "<loglevel>1</loglevel></arguments>");
    ChildResult childresultWhole{};
    ASSERT_TRUE(RunChild(m_path, 0, &childresultWhole));
    ASSERT_TRUE(IsSuccess(childresultWhole.runresult) && IsSuccess(childresultWhole.runresultAfter));

    ChildResult childresult{};
    for (int iFailing = GetParam(); !childresult.runresult.blEnough; iFailing += g_iStep)
    {
        fs::remove_all(m_path / "system/LOCALAPPDATA");   // each start looks after the logs of those before
        if (!RunChild(m_path, iFailing, &childresult))
            continue;
        const RunResult& runresult = childresult.runresult;
        for (const EOSSTS eossts : {runresult.eosstsStart, runresult.eosstsProfile, runresult.eosstsRemoved})
        {
            const bool blStated = eossts == EOSSTS_FAIL || eossts == EOSSTS_ACCESSDENIED;
            EXPECT_TRUE(eossts == EOSSTS_SUCCESS || (blStated && !runresult.blEnough)) << iFailing << " " << eossts;
        }
        EXPECT_TRUE(IsSuccess(childresult.runresultAfter)) << iFailing;
        EXPECT_EQ(childresult.iBlocks, childresultWhole.iBlocks) << iFailing;
    }
}
