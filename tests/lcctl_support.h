// lcctl_support.h: running lcctl as its users do.
#pragma once

#include "test_support.h"

#include <regex.h>
#include <sys/wait.h>

struct LcctlOutput
{
    int iExit = -1;
    std::string strOutput;
    std::string strError;

    // Of the error.
    long Lines() const { return std::count(strError.begin(), strError.end(), '\n'); }
};

inline std::string LcctlProgram()
{
    return TEST_PROGRAMFOLDER "/lcctl";
}

// True when a part of the text matches the pattern, whose dots stay within a line.
inline bool Contains(const std::string& a_strText, std::string a_strPattern)
{
    for (size_t sizet = 0; (sizet = a_strPattern.find("\\d", sizet)) != std::string::npos;)
        a_strPattern.replace(sizet, 2, "[0-9]");
    regex_t regex;
    EXPECT_EQ(regcomp(&regex, a_strPattern.c_str(), REG_EXTENDED | REG_NOSUB | REG_NEWLINE), 0) << a_strPattern;
    const bool blContains = regexec(&regex, a_strText.c_str(), 0, nullptr, 0) == 0;
    regfree(&regex);
    return blContains;
}

class LcctlTest : public FolderTest
{
protected:
    LcctlTest()
    {
        std::filesystem::create_directories(LogRoot());
        setenv("MVR_LOGDIR", LogRoot().c_str(), 1);
        unsetenv("MVR_NOLOGGING");
    }

    std::filesystem::path LogRoot() const { return m_path / "runs"; }

    // What a shell command prints.
    std::string Shell(const std::string& a_strCommand) const
    {
        const std::filesystem::path pathOutput = m_path / "shell.out";
        EXPECT_NE(std::system((a_strCommand + " >'" + pathOutput.string() + "'").c_str()), -1);
        return ReadWhole(pathOutput);
    }

    // With what a command writes as its standard input.
    LcctlOutput Lcctl(const std::string& a_strArguments, const std::string& a_strInput = ":") const
    {
        const std::string strError = (m_path / "lcctl.err").string();
        const std::string strOutput = (m_path / "lcctl.out").string();
        const int iStatus = std::system(
            (a_strInput + " | " + LcctlProgram() + " " + a_strArguments + " >'" + strOutput + "' 2>'" + strError + "'")
                .c_str());
        return {WIFEXITED(iStatus) ? WEXITSTATUS(iStatus) : -1, ReadWhole(strOutput), ReadWhole(strError)};
    }

    std::vector<std::filesystem::path> LogFiles() const
    {
        std::vector<std::filesystem::path> vecpath;
        for (const auto& entry : std::filesystem::recursive_directory_iterator(LogRoot()))
        {
            if (entry.path().extension() == ".log")
                vecpath.push_back(entry.path());
        }
        return vecpath;
    }
    size_t Logs() const { return LogFiles().size(); }
    std::string OnlyLog() const { return Logs() == 1 ? ReadWhole(LogFiles()[0]) : "(not one log)"; }
};
