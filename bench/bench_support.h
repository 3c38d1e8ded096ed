// bench_support.h: what the benchmarks share: a folder of their own, whole files, the figure that stands for several
// runs, and what is said to one that has a limit.
#pragma once

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <unistd.h>
#include <vector>

inline double Median(std::vector<double> a_vecd)
{
    if (a_vecd.empty())
        return 0;
    std::sort(a_vecd.begin(), a_vecd.end());
    return a_vecd[a_vecd.size() / 2];
}

// A folder in memory where there is one, unless the disk is what is measured.
class WorkFolder
{
public:
    explicit WorkFolder(bool a_blOnDisk = false)
    {
        const char* const szBase = !a_blOnDisk && access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
        std::string strTemplate = std::string(szBase) + "/bench.XXXXXX";
        m_strPath = mkdtemp(strTemplate.data());
    }
    ~WorkFolder()
    {
        std::error_code error;
        std::filesystem::remove_all(m_strPath, error);
    }
    WorkFolder(const WorkFolder&) = delete;
    WorkFolder& operator=(const WorkFolder&) = delete;

    const std::string& Path() const { return m_strPath; }

private:
    std::string m_strPath;
};

inline std::string ReadFile(const std::string& a_strPath)
{
    std::ifstream stream(a_strPath, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

inline std::string Verdict(double a_dFigure, double a_dLimit)
{
    char szVerdict[64];
    std::snprintf(szVerdict, sizeof szVerdict, "limit %g: %s", a_dLimit, a_dFigure <= a_dLimit ? "ok" : "OVER");
    return szVerdict;
}
