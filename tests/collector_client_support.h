// collector_client_support.h: a logger that finds a collector: the real one, or one that the case plays.
#pragma once

#include "collector_support.h"
#include "log_support.h"

#include "os_cosarguments.h"
#include "os_coscfg.h"
#include "os_coslogcollector.h"
#include "os_cosmem.h"
#include "os_cossocket.h"

#include <sys/wait.h>
#include <unistd.h>

namespace fs = std::filesystem;

class CollectorClient : public LoggerTest
{
protected:
    CollectorClient()
    {
        OsCfgCommonInstall();
        OsArgumentsSetServicesOwner(true);
        OsLogSetState(OS_LOGSTATE_ALLOW);
        char szPath[OS_PATHSIZE] = "";
        OsCfgGetPath(OS_PATH_READABLE_FILE_COMMON_CONSTINI, szPath, sizeof szPath);
        std::replace(szPath, szPath + sizeof szPath, '\\', '/');
        m_pathProgram = fs::path(szPath).replace_filename("logcollector");
        fs::create_directories(m_pathProgram.parent_path());
    }

    void InstallScript(const std::string& a_strScript) const
    {
        WriteWhole(m_pathProgram, "#!/bin/sh\n" + a_strScript + "\n");
        fs::permissions(m_pathProgram, fs::perms::owner_all);
    }

    // The real collector, started as the start of the library does it, and a logger that uses it.
    void BeginCollected()
    {
        fs::create_symlink(ProgramPath("logcollector"), m_pathProgram);
        ASSERT_TRUE(LogCollectorStartCollector());
        m_plathandleCollector = PlatProcessOpen(OsArgumentsCollector().u64ProcessIdCollector);
        Begin();
        ASSERT_TRUE(m_uniqueLog->UsesCollector());
    }
    void WaitForCollectorsEnd()
    {
        EXPECT_EQ(PlatWaitAny(&m_plathandleCollector, 1, 20000), 0u);
        PlatClose(m_plathandleCollector);
    }

    COsMem m_osmem;
    fs::path m_pathProgram;
    PlatHandle m_plathandleCollector = PLAT_INVALID;
};

// A logger whose collector is this case: its stream is accepted, and read as far as the case does it.
class CollectorOfOurs : public CollectorClient
{
protected:
    CollectorOfOurs()
    {
        char szPort[OS_SOCKETPORTSIZE] = "";
        EXPECT_EQ(m_ossocketListen.SocketCreate("127.0.0.1", "0", "", nullptr), EOSSTS_SUCCESS);
        EXPECT_EQ(m_ossocketListen.SocketListen(), EOSSTS_SUCCESS);
        EXPECT_EQ(m_ossocketListen.SocketGetInfo(nullptr, szPort), EOSSTS_SUCCESS);
        OsArgumentsSetCollector({std::stoi(szPort), PlatProcessId(), 0});
    }

    void BeginAccepted(uint32_t a_u32Flags = 0)
    {
        Begin(a_u32Flags);
        EXPECT_EQ(m_ossocketStream.SocketCreate("127.0.0.1", "0", "", &m_ossocketListen), EOSSTS_SUCCESS);
        EXPECT_EQ(m_ossocketStream.SocketAccept(nullptr), EOSSTS_SUCCESS);
        EXPECT_TRUE(m_uniqueLog->UsesCollector());
    }

    // The next bytes of the stream; "" at its end, if that may come.
    std::string Receive(size_t a_sizetBytes, bool a_blMayEnd = false)
    {
        std::string strText(a_sizetBytes, '\0');
        size_t sizetRead = 0;
        const COsSocket::ReadArgs readargs{.pvBuffer = strText.data(), .sizetBuffer = a_sizetBytes};
        const EOSSTS eossts = m_ossocketStream.SocketRead(readargs, &sizetRead);
        EXPECT_TRUE(eossts == EOSSTS_SUCCESS || (a_blMayEnd && eossts == EOSSTS_DISCONNECTED));
        strText.resize(sizetRead);
        return strText;
    }

    COsSocket m_ossocketListen;
    COsSocket m_ossocketStream;
};

// The stream, to its end; what is behind the last line end is no line.
inline std::string ReadStream(COsSocket& a_ossocket)
{
    std::string strStream;
    std::vector<char> vecch(65536);
    size_t sizetRead = 0;
    const COsSocket::ReadArgs readargs{
        .pvBuffer = vecch.data(), .sizetBuffer = vecch.size(), .u32Timeout = 5000, .blQuiet = true};
    while (a_ossocket.SocketRead(readargs, &sizetRead) == EOSSTS_SUCCESS)
        strStream.append(vecch.data(), sizetRead);
    return strStream.substr(0, strStream.rfind("\r\n") + 2);
}

// A program of the family that has "logcollector" in its path uses no collector. Where this one has, a copy in another
// folder does its work.
inline int RunOutsideTheCollectorsPath(int a_iArguments, char** a_aszArgument)
{
    const fs::path pathProgram = fs::read_symlink("/proc/self/exe");
    if (pathProgram.string().find("logcollector") == std::string::npos)
    {
        testing::InitGoogleTest(&a_iArguments, a_aszArgument);
        return RUN_ALL_TESTS();
    }
    std::string strFolder = (fs::temp_directory_path() / "ost.XXXXXX").string();
    const fs::path pathCopy = fs::path(mkdtemp(strFolder.data())) / "test";
    fs::copy_file(pathProgram, pathCopy);
    int iStatus = 0;
    const pid_t pid = fork();
    if (pid == 0)
    {
        execv(pathCopy.c_str(), a_aszArgument);
        _exit(1);
    }
    waitpid(pid, &iStatus, 0);
    fs::remove_all(strFolder);
    return WIFEXITED(iStatus) ? WEXITSTATUS(iStatus) : 1;
}
