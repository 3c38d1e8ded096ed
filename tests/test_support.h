// test_support.h: what the tests share: a folder of their own, the log as a list of lines, waiting for a condition,
// whole files.
#pragma once

#include "os_cfg.h"
#include "os_cosstring.h"
#include "os_log.h"

#include "plat_system.h"
#include "plat_wait.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <mutex>
#include <string>
#include <sys/resource.h>
#include <thread>
#include <unistd.h>
#include <vector>

// Waits until a_condition() holds, at most a_u32Milliseconds. Tells whether it does.
template <class Condition>
bool WaitFor(Condition a_condition, uint32_t a_u32Milliseconds = 20000)
{
    const uint64_t u64End = PlatTicks() + a_u32Milliseconds;
    while (!a_condition())
    {
        if (PlatTicks() >= u64End)
            return a_condition();
        PlatSleep(2);
    }
    return true;
}

// While it lives, this process gets no further descriptor.
class NoDescriptors
{
public:
    NoDescriptors()
    {
        getrlimit(RLIMIT_NOFILE, &m_rlimitBefore);
        const int iFree = dup(0);
        close(iFree);
        const rlimit rlimitFull{static_cast<rlim_t>(iFree), m_rlimitBefore.rlim_max};
        setrlimit(RLIMIT_NOFILE, &rlimitFull);
    }
    ~NoDescriptors() { setrlimit(RLIMIT_NOFILE, &m_rlimitBefore); }
    NoDescriptors(const NoDescriptors&) = delete;
    NoDescriptors& operator=(const NoDescriptors&) = delete;

private:
    rlimit m_rlimitBefore{};
};

inline std::string ReadWhole(const std::filesystem::path& a_path)
{
    std::ifstream stream(a_path, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

inline void WriteWhole(const std::filesystem::path& a_path, const std::string& a_strText)
{
    std::ofstream(a_path, std::ios::binary) << a_strText;
}

// Writes into a file that others have open, behind their back.
inline void Overwrite(const std::filesystem::path& a_path, size_t a_sizetOffset, const std::string& a_strBytes)
{
    std::fstream stream(a_path, std::ios::binary | std::ios::in | std::ios::out);
    stream.seekp(static_cast<std::streamoff>(a_sizetOffset)) << a_strBytes;
}

inline std::u16string Wide(const std::string& a_strAscii)
{
    return {a_strAscii.begin(), a_strAscii.end()};
}

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

// A path as the library writes it, and as this machine does.
inline std::string Backslashed(std::string a_strPath)
{
    std::replace(a_strPath.begin(), a_strPath.end(), '/', '\\');
    return a_strPath;
}
inline std::string Slashed(std::string a_strPath)
{
    std::replace(a_strPath.begin(), a_strPath.end(), '\\', '/');
    return a_strPath;
}

// Calls a_procedure(0), a_procedure(1) and so on, each in a thread of its own, and waits for their ends.
template <class Procedure>
void InThreads(int a_iThreads, Procedure a_procedure)
{
    std::vector<std::jthread> vecjthread;
    for (int iThread = 0; iThread < a_iThreads; ++iThread)
        vecjthread.emplace_back([=, &a_procedure] { a_procedure(iThread); });
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

// A case with a temporary folder of its own, below which everything that the library keeps is found as well.
class FolderTest : public testing::Test
{
protected:
    FolderTest()
    {
        std::string strTemplate = (std::filesystem::temp_directory_path() / "ost.XXXXXX").string();
        m_path = mkdtemp(strTemplate.data());
        for (const char* szName :
             {"LOCALAPPDATA", "APPDATA", "PROGRAMDATA", "SYSTEMROOT", "MVR_DRIVEROOT", "MVR_EVENTROOT"})
            setenv(szName, (m_path / "system" / szName).c_str(), 1);
    }
    ~FolderTest() override
    {
        std::error_code error;
        std::filesystem::remove_all(m_path, error);
    }

    std::string PathOf(const std::string& a_strName) const { return (m_path / a_strName).string(); }

    // 0 for a file that is not there.
    size_t SizeOf(const std::string& a_strName) const
    {
        std::error_code error;
        const auto size = std::filesystem::file_size(PathOf(a_strName), error);
        return error ? 0 : size;
    }

    std::filesystem::path m_path;
};
