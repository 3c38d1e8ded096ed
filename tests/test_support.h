// test_support.h: what the tests of the library share: the log as a list of lines, a configuration, programs with
// resources.
#pragma once

#include "plat_support.h"

#include "os_cfg.h"
#include "os_cosstring.h"
#include "os_log.h"

// Gives a program resources, and runs one case of a copy of this test that is switched off here. Both return 0.
inline int AppendResources(const std::string& a_strProgram, const std::string& a_strResources)
{
    return std::system((TEST_PROGRAMFOLDER "/append_resources " + a_strProgram + " " + a_strResources).c_str());
}
inline int RunDisabledCase(const std::string& a_strProgram, const std::string& a_strCase)
{
    const std::string strArguments = " --gtest_also_run_disabled_tests --gtest_filter=" + a_strCase;
    return std::system((a_strProgram + strArguments + " >/dev/null").c_str());
}

// Installs itself as the process's logger and keeps every line.
class LogCapture final : public COsLogSink
{
public:
    struct Line
    {
        std::string strSource;
        uint32_t u32Level;
        std::string strText;
    };

    LogCapture() { g_poslogsink.store(this); }
    ~LogCapture() { g_poslogsink.store(nullptr); }

    void VPrintf(const char* a_szFile, uint32_t, uint32_t a_u32Level, const char* a_szFormat, va_list a_valist) override
    {
        char szText[4096];
        const uint32_t u32Error = PlatGetLastError();
        OsFormat(szText, sizeof szText, a_szFormat, a_valist);
        const std::lock_guard<std::mutex> guard(m_mutex);
        m_vecline.push_back({a_szFile, a_u32Level, szText});
        PlatSetLastError(u32Error);
    }
    uint32_t WorkingWord() const override { return m_u32WorkingWord; }

    std::vector<Line> Lines() const
    {
        const std::lock_guard<std::mutex> guard(m_mutex);
        return m_vecline;
    }
    size_t Count(const std::string& a_strText) const
    {
        return CountIf([&](const Line& line) { return line.strText == a_strText; });
    }
    bool Has(const std::string& a_strText) const { return Count(a_strText) != 0; }
    bool HasAt(uint32_t a_u32Level, const std::string& a_strText) const
    {
        return CountIf([&](const Line& line) { return line.u32Level == a_u32Level && line.strText == a_strText; }) != 0;
    }
    bool HasPart(const std::string& a_strPart) const
    {
        return CountIf([&](const Line& line) { return line.strText.find(a_strPart) != std::string::npos; }) != 0;
    }
    void Clear()
    {
        const std::lock_guard<std::mutex> guard(m_mutex);
        m_vecline.clear();
    }

    uint32_t m_u32WorkingWord = 0;

private:
    template <class Condition>
    size_t CountIf(Condition a_condition) const
    {
        const std::lock_guard<std::mutex> guard(m_mutex);
        return static_cast<size_t>(std::count_if(m_vecline.begin(), m_vecline.end(), a_condition));
    }

    mutable std::mutex m_mutex;
    std::vector<Line> m_vecline;
};

// A configuration that knows what a case tells it.
class FakeConfiguration final : public COsCfgSource, public COsCfgService
{
public:
    FakeConfiguration()
    {
        g_poscfgsource.store(this);
        g_poscfgservice.store(this);
    }
    ~FakeConfiguration()
    {
        g_poscfgsource.store(nullptr);
        g_poscfgservice.store(nullptr);
    }

    const char* GetString(EOSCFGSECTION, EOSCFGTAG a_eoscfgtag) override
    {
        const std::lock_guard<std::mutex> guard(m_mutex);
        return m_mapstrTag[a_eoscfgtag].c_str();
    }
    const char* InfoGetString(EOSCFGINFO) override { return "(nodata)"; }
    int64_t InfoGetLong(EOSCFGINFO a_eoscfginfo) override
    {
        const std::lock_guard<std::mutex> guard(m_mutex);
        return m_mapi64Info[a_eoscfginfo];
    }
    EOSSTS GetPath(EOSPATH a_eospath, char* a_szPath, size_t a_sizetPath) override
    {
        const std::lock_guard<std::mutex> guard(m_mutex);
        SStrCpy(a_szPath, a_sizetPath, m_mapstrPath[a_eospath].c_str());
        return *a_szPath ? EOSSTS_SUCCESS : EOSSTS_FAIL;
    }
    void ManageLogDirectories(const char* a_szLogFolder, const COsThread*) override
    {
        {
            const std::lock_guard<std::mutex> guard(m_mutex);
            m_vecstrManaged.push_back(a_szLogFolder);
        }
        WaitFor([this] { return !m_blManagesOn; });
        ++m_uManaged;
    }

    void Set(EOSCFGTAG a_eoscfgtag, const std::string& a_strValue)
    {
        const std::lock_guard<std::mutex> guard(m_mutex);
        m_mapstrTag[a_eoscfgtag] = a_strValue;
    }
    void SetPath(EOSPATH a_eospath, const std::string& a_strPath)
    {
        const std::lock_guard<std::mutex> guard(m_mutex);
        m_mapstrPath[a_eospath] = a_strPath;
    }
    void SetInfo(EOSCFGINFO a_eoscfginfo, int64_t a_i64Value)
    {
        const std::lock_guard<std::mutex> guard(m_mutex);
        m_mapi64Info[a_eoscfginfo] = a_i64Value;
    }
    std::vector<std::string> Managed()
    {
        const std::lock_guard<std::mutex> guard(m_mutex);
        return m_vecstrManaged;
    }

    std::atomic<bool> m_blManagesOn = false;   // folders are looked after until it is false again
    std::atomic<unsigned> m_uManaged = 0;

private:
    std::mutex m_mutex;
    std::map<EOSCFGTAG, std::string> m_mapstrTag;
    std::map<EOSPATH, std::string> m_mapstrPath;
    std::map<EOSCFGINFO, int64_t> m_mapi64Info;
    std::vector<std::string> m_vecstrManaged;
};
