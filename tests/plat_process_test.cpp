// plat_process_test.cpp: what processes, pipes and standard streams owe, on whichever system.
#include "plat_child.h"

#include "plat_env.h"

#include <iostream>

namespace
{
std::string Variable(const char16_t* a_wszName)
{
    char16_t wszValue[256] = {};
    return {wszValue, wszValue + PlatEnvGet(a_wszName, wszValue, 256)};
}
}   // namespace

int PlayPart(const std::vector<std::string>& a_vecstrArguments)
{
    const std::string& strPart = a_vecstrArguments[0];
    if (strPart == "code")
        return std::stoi(a_vecstrArguments[1]);
    if (strPart == "place")
        Say(std::filesystem::current_path().filename().string() + "|" + Variable(u"ONE") + "|" + Variable(u"TWO"));
    for (size_t sizet = 1; strPart == "arguments" && sizet < a_vecstrArguments.size(); ++sizet)
        Say("<" + a_vecstrArguments[sizet] + ">");
    for (std::string strLine; strPart == "copy" && std::getline(std::cin, strLine);)
        Say(strLine + "\n");
    return 0;
}

namespace
{
using Process = FolderTest;

TEST_F(Process, SplitsTheCommandLineAsItIsQuoted)
{
    const std::pair<const char*, const char*> apair[] = {
        {R"("one two" three )", "<one two><three>"},
        {R"("")", "<>"},
        {R"(a"b c"d)", "<ab cd>"},
        {R"("C:\a b\\" "x")", R"(<C:\a b\><x>)"},
        {R"(\\server\share\x)", R"(<\\server\share\x>)"},
        {R"("say \"hi\"" \" a\\\"b)", R"(<say "hi"><"><a\"b>)"},
        {R"("a""b" """")", R"(<a"b><">)"},
        {"\ta  \t b", "<a><b>"},
    };
    for (const auto& [szLine, szArguments] : apair)
        EXPECT_EQ(Part(std::string("arguments ") + szLine).OutputUpTo(), szArguments) << szLine;
}

TEST_F(Process, RunsWithTheFolderAndTheEnvironmentThatItIsGiven)
{
    std::filesystem::create_directory(PathOf("here"));
    EXPECT_EQ(Part("place", Wide(PathOf("here")).c_str(), u"ONE=1\0TWO=zwei\0").OutputUpTo(), "here|1|zwei");
    PlatEnvSet(u"ONE", u"ours");
    EXPECT_EQ(Part("place").OutputUpTo(), std::filesystem::current_path().filename().string() + "|ours|");
}

TEST_F(Process, StreamsConnectItWithUsAndTellTheirEnd)
{
    Part part("copy");
    char achBuffer[16];
    size_t sizetRead = 0;
    EXPECT_FALSE(PlatPipeRead(part.m_plathandleOutput, achBuffer, sizeof achBuffer, &sizetRead));
    EXPECT_EQ(PlatGetLastError(), PLAT_ERROR_WOULDBLOCK);
    EXPECT_TRUE(PlatPipeWrite(part.m_plathandleInput, "text\n", 5));
    EXPECT_EQ(part.OutputUpTo("\n"), "text\n");
    EXPECT_EQ(PlatWaitAny(&part.m_plathandleOutput, 1, 0), PLAT_WAIT_TIMEOUT);
    PlatClose(std::exchange(part.m_plathandleInput, PLAT_INVALID));
    EXPECT_EQ(PlatWaitAny(&part.m_plathandleOutput, 1, 30000), 0u);
    EXPECT_FALSE(PlatPipeRead(part.m_plathandleOutput, achBuffer, sizeof achBuffer, &sizetRead));
    EXPECT_EQ(PlatGetLastError(), PLAT_ERROR_BROKENPIPE);
}

TEST_F(Process, APipeOfOursReachesNoChildAndOutlivesItsReader)
{
    PlatHandle aplathandle[4];
    PlatPipeCreate(&aplathandle[0], &aplathandle[1], true);
    PlatPipeCreate(&aplathandle[2], &aplathandle[3], true);
    const Part part("copy");
    PlatClose(aplathandle[1]);   // the last writer, unless the child had it too
    EXPECT_EQ(PlatWaitAny(aplathandle, 1, 0), 0u);
    PlatClose(aplathandle[2]);
    EXPECT_FALSE(PlatPipeWrite(aplathandle[3], "x", 1));
    EXPECT_EQ(PlatGetLastError(), PLAT_ERROR_BROKENPIPE);
}

TEST_F(Process, TellsWhyAProgramCannotRun)
{
    WriteWhole(PathOf("text"), "no program");
    std::filesystem::permissions(PathOf("text"), std::filesystem::perms::owner_all);
    const auto error = [](const std::u16string& a_wstrProgram, const std::u16string& a_wstrFolder) {
        PlatProcessStart platprocessstart{
            a_wstrProgram.c_str(), u"program", a_wstrFolder.c_str(), nullptr, {}, true, false};
        uint64_t u64ProcessId = 0;
        EXPECT_EQ(PlatProcessCreate(&platprocessstart, &u64ProcessId), PLAT_INVALID);
        return PlatGetLastError();
    };
    char16_t wszProgram[PLAT_PATHMAX];
    PlatProgramPath(wszProgram, PLAT_PATHMAX);
    const std::u16string wstrFolder = Wide(PathOf(""));
    EXPECT_EQ(error(Wide(PathOf("none")), wstrFolder), PLAT_ERROR_FILENOTFOUND);
    EXPECT_EQ(error(Wide(PathOf("none/none")), wstrFolder), PLAT_ERROR_PATHNOTFOUND);
    EXPECT_EQ(error(wstrFolder, wstrFolder), PLAT_ERROR_ACCESSDENIED);
    EXPECT_EQ(error(Wide(PathOf("text")), wstrFolder), PLAT_ERROR_BADEXEFORMAT);
    EXPECT_EQ(error(wszProgram, Wide(PathOf("none"))), PLAT_ERROR_DIRECTORY);
    EXPECT_FALSE(PlatProgramPath(wszProgram, 4));
    EXPECT_EQ(PlatGetLastError(), PLAT_ERROR_INSUFFICIENTBUFFER);
}

TEST_F(Process, TellsItsExitCode)
{
    const Part partEnded("code 42");
    EXPECT_EQ(PlatWaitAny(&partEnded.m_plathandle, 1, 30000), 0u);
    const PlatHandle plathandle = PlatProcessOpen(partEnded.m_u64ProcessId);   // nobody has asked for its code yet
    EXPECT_EQ(PlatWaitAny(&plathandle, 1, 0), 0u);
    EXPECT_TRUE(PlatClose(plathandle));
    EXPECT_EQ(partEnded.ExitCode(), 42u);

    const Part part("copy");
    uint32_t u32ExitCode = 0;
    EXPECT_TRUE(PlatProcessExitCode(part.m_plathandle, &u32ExitCode));
    EXPECT_EQ(u32ExitCode, PLAT_STILLACTIVE);
    EXPECT_TRUE(PlatProcessTerminate(part.m_plathandle, 99));
    EXPECT_EQ(part.ExitCode(), 99u);
    EXPECT_TRUE(PlatProcessTerminate(part.m_plathandle, 98));   // has ended already
    EXPECT_EQ(part.ExitCode(), 99u);
}

// Also when its creator has closed its handle.
TEST_F(Process, IsWaitedForByItsId)
{
    Part part("copy");
    const PlatHandle plathandle = PlatProcessOpen(part.m_u64ProcessId);
    PlatClose(std::exchange(part.m_plathandle, PLAT_INVALID));
    uint32_t u32ExitCode = 0;
    EXPECT_EQ(PlatWaitAny(&plathandle, 1, 0), PLAT_WAIT_TIMEOUT);
    EXPECT_TRUE(PlatProcessExitCode(plathandle, &u32ExitCode));
    EXPECT_EQ(u32ExitCode, PLAT_STILLACTIVE);
    EXPECT_TRUE(PlatProcessTerminate(plathandle, 1));
    EXPECT_EQ(PlatWaitAny(&plathandle, 1, 30000), 0u);
    EXPECT_TRUE(PlatProcessExitCode(plathandle, &u32ExitCode));
    EXPECT_EQ(u32ExitCode, 0u);
    EXPECT_TRUE(PlatClose(plathandle));

    // Nobody holds it any more, so that its number is free.
    EXPECT_TRUE(WaitFor([&] {
        const PlatHandle plathandleAgain = PlatProcessOpen(part.m_u64ProcessId);
        return plathandleAgain == PLAT_INVALID || !PlatClose(plathandleAgain);
    }));
    for (const uint64_t u64ProcessId : {part.m_u64ProcessId, uint64_t{0}, UINT64_MAX})
    {
        EXPECT_EQ(PlatProcessOpen(u64ProcessId), PLAT_INVALID);
        EXPECT_EQ(PlatGetLastError(), PLAT_ERROR_INVALIDPARAMETER);
    }
}

TEST_F(Process, TheUserOfASessionIsToldToAdministratorsAlone)
{
    const PlatHandle plathandle = PlatSessionUser(PlatSessionActive());
    uint32_t u32Integrity = 0;
    EXPECT_TRUE(PlatProcessIntegrity(&u32Integrity));
    if (plathandle == PLAT_INVALID)
        EXPECT_EQ(PlatGetLastError(),
                  u32Integrity == PLAT_INTEGRITY_HIGH ? PLAT_ERROR_NOTOKEN : PLAT_ERROR_PRIVILEGENOTHELD);
    else
        EXPECT_TRUE(PlatClose(plathandle));
}

TEST_F(Process, BelongsToASession)
{
    uint32_t u32Session = 0;
    EXPECT_TRUE(PlatProcessSession(PlatProcessId(), &u32Session));
    EXPECT_NE(u32Session, 0u);
    PlatEnvSet(u"MVR_SESSION", u"0");
    EXPECT_TRUE(PlatProcessSession(PlatProcessId(), &u32Session));
    EXPECT_EQ(u32Session, 0u);
    EXPECT_FALSE(PlatProcessSession(0, &u32Session));
    EXPECT_EQ(PlatGetLastError(), PLAT_ERROR_INVALIDPARAMETER);
}
}   // namespace
