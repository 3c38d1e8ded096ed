// plat_process_line.cpp: the arguments of this process as one command line, by the rules of the product's system.
#include "plat_posix.h"
#include "plat_process.h"

#include <algorithm>
#include <new>

// The program's name stands as it is, between quotation marks when it holds a blank.
static void AppendProgram(const std::string& a_strProgram, std::string& a_strLine)
{
    const bool blBlank = a_strProgram.empty() || a_strProgram.find_first_of(" \t") != std::string::npos;
    a_strLine += blBlank ? '"' + a_strProgram + '"' : a_strProgram;
}

// Backslashes count by pairs where a quotation mark follows, so those are doubled and the mark gets one more.
static void AppendArgument(const std::string& a_strArgument, std::string& a_strLine)
{
    a_strLine += ' ';
    if (!a_strArgument.empty() && a_strArgument.find_first_of(" \t\"") == std::string::npos)
    {
        a_strLine += a_strArgument;
        return;
    }
    a_strLine += '"';
    size_t sizetBackslashes = 0;
    for (const char ch : a_strArgument)
    {
        if (ch == '"')
            a_strLine.append(sizetBackslashes + 1, '\\');
        sizetBackslashes = ch == '\\' ? sizetBackslashes + 1 : 0;
        a_strLine += ch;
    }
    a_strLine.append(sizetBackslashes, '\\');
    a_strLine += '"';
}

bool PlatProcessCommandLine(char16_t* a_wszCommandLine, size_t a_sizetCommandLine)
try
{
    const std::string strArguments = PosixReadText("/proc/self/cmdline");
    if (strArguments.empty())
        return PosixFailErrno();
    std::string strLine;
    for (size_t sizetStart = 0; sizetStart < strArguments.size();)
    {
        const size_t sizetEnd = std::min(strArguments.find('\0', sizetStart), strArguments.size());
        const std::string strArgument = strArguments.substr(sizetStart, sizetEnd - sizetStart);
        sizetStart == 0 ? AppendProgram(strArgument, strLine) : AppendArgument(strArgument, strLine);
        sizetStart = sizetEnd + 1;
    }
    return PosixToWide(strLine.c_str(), a_wszCommandLine, a_sizetCommandLine);
}
catch (const std::bad_alloc&)
{
    return PosixFail(PLAT_ERROR_NOMEMORY);
}
