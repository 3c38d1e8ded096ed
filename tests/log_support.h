// log_support.h: a logger that writes into the case's folder, and its file as lines.
#pragma once

#include "test_support.h"

#include "os_coslog.h"

#include <memory>
#include <regex.h>

// The whole text is what the extended regular expression says; "\d" is a digit.
inline bool Matches(const std::string& a_strText, std::string a_strPattern)
{
    for (size_t sizet = 0; (sizet = a_strPattern.find("\\d", sizet)) != std::string::npos;)
        a_strPattern.replace(sizet, 2, "[0-9]");
    regex_t regex;
    EXPECT_EQ(regcomp(&regex, ("^" + a_strPattern + "$").c_str(), REG_EXTENDED | REG_NOSUB), 0) << a_strPattern;
    const bool blMatches = regexec(&regex, a_strText.c_str(), 0, nullptr, 0) == 0;
    regfree(&regex);
    return blMatches;
}

class LoggerTest : public FolderTest
{
protected:
    LoggerTest() : m_strLog(PathOf("a.log")) { unsetenv("MVR_NOLOGGING"); }

    void Create(const COsLog::CreateArgs& a_createargs = {}) { m_uniqueLog = std::make_unique<COsLog>(a_createargs); }

    // Created and started, with the first line, which brings the header, behind it.
    void Begin(uint32_t a_u32Flags = 0, const char* a_szFilter = "")
    {
        Create();
        m_uniqueLog->Start(m_strLog.c_str(), a_u32Flags, a_szFilter);
        Log(OS_LOG_ERROR, "first");
    }

    static void Log(uint32_t a_u32Level, const std::string& a_strText, const char* a_szFile = "os/source/os_test")
    {
        OSLOG_AT(a_szFile, 12, a_u32Level, "%s", a_strText.c_str());
    }

    // The lines of a log file. Every one ends with CR LF, and neither is anywhere else.
    static std::vector<std::string> LinesOf(const std::string& a_strFile)
    {
        std::vector<std::string> vecstr;
        const std::string strText = ReadWhole(a_strFile);
        size_t sizetStart = 0;
        for (size_t sizetEnd = 0; (sizetEnd = strText.find("\r\n", sizetStart)) != std::string::npos;)
        {
            vecstr.push_back(strText.substr(sizetStart, sizetEnd - sizetStart));
            EXPECT_EQ(vecstr.back().find_first_of("\r\n"), std::string::npos);
            sizetStart = sizetEnd + 2;
        }
        EXPECT_EQ(sizetStart, strText.size());
        return vecstr;
    }
    std::vector<std::string> Lines() const { return LinesOf(m_strLog); }

    // The messages behind the header, without their prefixes.
    static std::vector<std::string> MessagesOf(const std::string& a_strFile)
    {
        std::vector<std::string> vecstr;
        for (const std::string& strLine : LinesOf(a_strFile))
        {
            const std::string strMessage = strLine.substr(strLine.find(" V", 64) + 4);
            if (strMessage.rfind("### ", 0) != 0)
                vecstr.push_back(strMessage);
        }
        return vecstr;
    }
    std::vector<std::string> Messages() const { return MessagesOf(m_strLog); }

    std::string m_strLog;
    std::unique_ptr<COsLog> m_uniqueLog;
};

using Texts = std::vector<std::string>;
