// collector_process.cpp: spawn, read the start reply, wait for the end.
#include "collector_process.h"

#include "os_coslogcollector_protocol.h"
#include "os_cosstring.h"

#include "plat_process.h"
#include "plat_wait.h"

static constexpr uint32_t g_u32ReplyTimeout = 10000;

static std::u16string Widen(const std::string& a_strAscii)
{
    return {a_strAscii.begin(), a_strAscii.end()};
}

CollectorProcess::~CollectorProcess()
{
    Kill();
    for (PlatHandle plathandle : {m_plathandleProcess, m_plathandleOutput})
    {
        if (plathandle != PLAT_INVALID)
            PlatClose(plathandle);
    }
}

bool CollectorProcess::Start(const std::string& a_strProgram, const std::vector<std::string>& a_vecstrArgument)
{
    std::string strCommandLine = "\"" + a_strProgram + "\"";
    for (const std::string& strArgument : a_vecstrArgument)
        strCommandLine += " \"" + strArgument + "\"";
    const std::u16string strProgram = Widen(a_strProgram);
    const std::u16string strWideCommandLine = Widen(strCommandLine);

    PlatHandle plathandleWrite = PLAT_INVALID;
    if (!PlatPipeCreate(&m_plathandleOutput, &plathandleWrite, true))
        return false;
    PlatProcessStart platprocessstart{};
    platprocessstart.wszProgram = strProgram.c_str();
    platprocessstart.wszCommandLine = strWideCommandLine.c_str();
    platprocessstart.aplathandle[PLAT_STANDARD_INPUT] = PLAT_INVALID;
    platprocessstart.aplathandle[PLAT_STANDARD_OUTPUT] = plathandleWrite;
    platprocessstart.aplathandle[PLAT_STANDARD_ERROR] = PLAT_INVALID;
    m_plathandleProcess = PlatProcessCreate(&platprocessstart, &m_u64ProcessId);
    PlatClose(plathandleWrite);
    return m_plathandleProcess != PLAT_INVALID;
}

bool CollectorProcess::StartFor(const std::string& a_strProgram, uint64_t a_u64ProcessIdApplication)
{
    char szArgument[256];
    if (OsLcBuildStartArgument(szArgument, sizeof szArgument, a_u64ProcessIdApplication) != EOSSTS_SUCCESS ||
        !Start(a_strProgram, {szArgument}))
        return false;
    m_strReply = ReadOutput(OS_LC_REPLYEND);
    char szPort[OS_LC_PORTSIZE];
    uint64_t u64ProcessIdCollector = 0;
    if (OsLcReadStartReply(m_strReply.c_str(), szPort, &u64ProcessIdCollector) != EOSSTS_SUCCESS)
        return false;
    m_u16Port = static_cast<uint16_t>(StrToInt32(szPort));
    return true;
}

std::string CollectorProcess::ReadOutput(const std::string& a_strEnd)
{
    std::string strOutput;
    while (strOutput.find(a_strEnd) == std::string::npos)
    {
        char achPiece[4096];
        size_t sizetRead = 0;
        if (PlatWaitAny(&m_plathandleOutput, 1, g_u32ReplyTimeout) != 0)
            return "";
        if (!PlatPipeRead(m_plathandleOutput, achPiece, sizeof achPiece, &sizetRead))
            break;
        strOutput.append(achPiece, sizetRead);
    }
    return strOutput;
}

uint32_t CollectorProcess::WaitForExit(uint32_t a_u32Milliseconds)
{
    uint32_t u32ExitCode = PLAT_STILLACTIVE;
    if (PlatWaitAny(&m_plathandleProcess, 1, a_u32Milliseconds) == 0)
        PlatProcessExitCode(m_plathandleProcess, &u32ExitCode);
    return u32ExitCode;
}

void CollectorProcess::Kill()
{
    if (m_plathandleProcess != PLAT_INVALID && WaitForExit(0) == PLAT_STILLACTIVE)
        PlatProcessTerminate(m_plathandleProcess, 1);
}
