// plat_support.h: what the cases of the platform layer share, and all others with them: a folder of their own, waiting
// for a condition, whole files.
#pragma once

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
