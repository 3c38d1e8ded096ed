// plat_child.h: cases that start their own program once more, to play a part in another process.
#pragma once

#include "plat_support.h"

#include "plat_process.h"

// What the child does, which each test file defines; the result is its exit code.
int PlayPart(const std::vector<std::string>& a_vecstrArguments);

// A child that plays a part; its input and output are pipes of ours.
class Part
{
public:
    explicit Part(const std::string& a_strPart)
    {
        char16_t wszProgram[PLAT_PATHMAX];
        EXPECT_TRUE(PlatProgramPath(wszProgram, PLAT_PATHMAX));
        const std::u16string wstrCommandLine = u"\"" + std::u16string(wszProgram) + u"\" part " + Wide(a_strPart);
        PlatHandle aplathandle[3] = {PLAT_INVALID, PLAT_INVALID, PLAT_INVALID};
        EXPECT_TRUE(PlatPipeCreate(&aplathandle[0], &m_plathandleInput, false));
        EXPECT_TRUE(PlatPipeCreate(&m_plathandleOutput, &aplathandle[1], true));
        const PlatProcessStart platprocessstart{wszProgram,
                                                wstrCommandLine.c_str(),
                                                nullptr,
                                                nullptr,
                                                {aplathandle[0], aplathandle[1], PLAT_INVALID},
                                                false,
                                                false};
        m_plathandle = PlatProcessCreate(&platprocessstart, &m_u64ProcessId);
        EXPECT_NE(m_plathandle, PLAT_INVALID) << PlatGetLastError();
        PlatClose(aplathandle[0]);
        PlatClose(aplathandle[1]);
    }
    ~Part()
    {
        if (m_plathandle != PLAT_INVALID)
            PlatProcessTerminate(m_plathandle, 1);
        for (const PlatHandle plathandle : {m_plathandle, m_plathandleInput, m_plathandleOutput})
            PlatClose(plathandle);
    }
    Part(const Part&) = delete;
    Part& operator=(const Part&) = delete;

    // What the child writes, up to the text or to its end.
    std::string OutputUpTo(const std::string& a_strEnd = "\xFF") const
    {
        std::string strOutput;
        char achBuffer[4096];
        size_t sizetRead = 0;
        while (strOutput.find(a_strEnd) == std::string::npos && PlatWaitAny(&m_plathandleOutput, 1, 30000) == 0 &&
               PlatPipeRead(m_plathandleOutput, achBuffer, sizeof achBuffer, &sizetRead))
        {
            strOutput.append(achBuffer, sizetRead);
        }
        return strOutput;
    }

    void Kill() const
    {
        PlatProcessTerminate(m_plathandle, 9);
        ExitCode();
    }
    uint32_t ExitCode() const
    {
        EXPECT_EQ(PlatWaitAny(&m_plathandle, 1, 30000), 0u);
        uint32_t u32ExitCode = 0;
        EXPECT_TRUE(PlatProcessExitCode(m_plathandle, &u32ExitCode));
        return u32ExitCode;
    }

    PlatHandle m_plathandle = PLAT_INVALID;
    PlatHandle m_plathandleInput = PLAT_INVALID;    // we write
    PlatHandle m_plathandleOutput = PLAT_INVALID;   // we read
    uint64_t m_u64ProcessId = 0;
};

inline bool Say(const std::string& a_strText)
{
    return PlatStandardWrite(PLAT_STANDARD_OUTPUT, a_strText.data(), a_strText.size());
}

int main(int a_iArguments, char** a_ppchArguments)
{
    if (a_iArguments > 2 && std::string(a_ppchArguments[1]) == "part")
        return PlayPart({a_ppchArguments + 2, a_ppchArguments + a_iArguments});
    testing::InitGoogleTest(&a_iArguments, a_ppchArguments);
    return RUN_ALL_TESTS();
}
