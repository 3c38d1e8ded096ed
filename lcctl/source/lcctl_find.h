// lcctl_find.h: which log folders and log files of which applications exist on this machine. All paths are in this
// system's form.
//
//   <brand folder>/<model>/<application>/log.<start, UTC>/<application>.log     of each brand folder
//   $MVR_LOGDIR/log.<start, UTC>/<application>.log                              where that is set
//
// Beside "<name>.log" lie "<name>-own.log", in which a process went on whose collector did not answer, and
// "<name>-<pid>.log" of a forked child.
#pragma once

#include "lcctl_logtime.h"

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

struct LcctlLogFile
{
    std::filesystem::path path;
    uint64_t u64Bytes = 0;
    std::filesystem::file_time_type filetimeWritten{};
    std::optional<LcctlTime> runstart;   // as its header tells; none without a header at its beginning
    uint64_t u64ProcessId = 0;           // as the header tells, else the name or the log beside it; 0: unknown
};

struct LcctlLogFolder
{
    std::filesystem::path path;
    std::string strApplication;
    std::string strModel;           // "" where the path has none
    LcctlTime lcctltimeStart = 0;   // of its name, else of its oldest log; on this machine's wall clock
    std::filesystem::file_time_type filetimeWritten{};   // of the log that was written last, else of the folder
    uint64_t u64Files = 0;   // all files in and below it, those of log folders below it left out
    uint64_t u64Bytes = 0;
    std::vector<LcctlLogFile> vecfile;   // its "*.log", by name, those with text alone

    uint64_t ProcessId() const { return vecfile.empty() ? 0 : vecfile.front().u64ProcessId; }
};

struct LcctlFindArgs
{
    std::vector<std::string> vecstrFolder;   // look below these instead
    bool blAllUsers = false;                 // below the homes of all users as well, as far as they may be read
    bool blHeaders = true;                   // read the beginnings of the logs
};

// A path of the library in this system's form.
std::filesystem::path LcctlHostPath(const std::string& a_strPath);

// Where log folders are looked for, and how many folders deep; folders that exist, each once.
struct LcctlLogRoot
{
    std::filesystem::path path;
    int iDepth;
};
std::vector<LcctlLogRoot> LcctlLogRoots(const LcctlFindArgs& a_findargs);

// All log folders, the oldest first. Links are not followed; what cannot be read is left out.
std::vector<LcctlLogFolder> LcctlFindFolders(const LcctlFindArgs& a_findargs);

// One log file as it is now, with its header; its size is 0 when it cannot be read.
LcctlLogFile LcctlLookAtLog(const std::filesystem::path& a_path, bool a_blHeader = true);

// Reads the beginnings of a folder's logs, where LcctlFindFolders was told not to.
void LcctlReadHeaders(LcctlLogFolder& a_logfolder);

// The logs that somebody names: a file, with those that lie beside it and belong to it; of a folder all "*.log" in and
// below it. Empty for a path that is not there or has none.
std::vector<LcctlLogFile> LcctlNamedLogs(const std::filesystem::path& a_path, bool a_blHeaders = true);

// The folder is one of the application's: it has its name, its model's, or a log of that name. Case counts.
bool LcctlIsOf(const LcctlLogFolder& a_logfolder, const std::string& a_strApplication);

// The places of those folders that are the application's, and of those that its processes' children wrote, and
// theirs: a log says which processes it started. Ascending.
std::vector<size_t> LcctlWithChildren(const std::vector<LcctlLogFolder>& a_veclogfolder,
                                      std::vector<size_t> a_vecsizet);
