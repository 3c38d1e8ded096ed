// lcctl_find.h: finds the log folders and log files of all applications on this machine. All paths are in this system's
// form.
//
//   <brand folder>/<model>/<application>/log.<start, UTC>/<application>.log     of each brand folder
//   $MVR_LOGDIR/log.<start, UTC>/<application>.log                              where that is set
//
// Beside "<name>.log" there may be "<name>-own.log" of a process whose collector did not respond, and
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
    std::optional<LcctlTime> runstart;   // from its header; none if it does not begin with one
    uint64_t u64ProcessId = 0;           // from the header, else the name or the log beside it; 0: unknown
};

struct LcctlLogFolder
{
    std::filesystem::path path;
    std::string strApplication;
    std::string strModel;           // "" if the path has none
    LcctlTime lcctltimeStart = 0;   // from its name, else from its oldest log; this machine's local time
    std::filesystem::file_time_type filetimeWritten{};   // of the log written last, else of the folder
    uint64_t u64Files = 0;                               // all files in and below it, without nested log folders
    uint64_t u64Bytes = 0;
    std::vector<LcctlLogFile> vecfile;   // its "*.log" that are not empty, by name

    uint64_t ProcessId() const { return vecfile.empty() ? 0 : vecfile.front().u64ProcessId; }
};

struct LcctlFindArgs
{
    std::vector<std::string> vecstrFolder;   // search below these instead
    bool blAllUsers = false;                 // also below the homes of all users, as far as readable
    bool blHeaders = true;                   // parse the headers of the logs
};

// Converts a path of the library to this system's form.
std::filesystem::path LcctlHostPath(const std::string& a_strPath);

// A folder below which log folders are searched, and how deep. Only existing folders, without duplicates.
struct LcctlLogRoot
{
    std::filesystem::path path;
    int iDepth;
};
std::vector<LcctlLogRoot> LcctlLogRoots(const LcctlFindArgs& a_findargs);

// All log folders, oldest first. Links are not followed; unreadable ones are skipped.
std::vector<LcctlLogFolder> LcctlFindFolders(const LcctlFindArgs& a_findargs);

// The current state of one log file, with its header; size 0 when it cannot be read.
LcctlLogFile LcctlLookAtLog(const std::filesystem::path& a_path, bool a_blHeader = true);

// Parses the headers of a folder's logs, for LcctlFindFolders without blHeaders.
void LcctlReadHeaders(LcctlLogFolder& a_logfolder);

// The logs named by a path: a file with the related logs beside it, or all "*.log" in and below a folder. Empty if
// there are none.
std::vector<LcctlLogFile> LcctlNamedLogs(const std::filesystem::path& a_path, bool a_blHeaders = true);

// Whether the folder belongs to the application: by its name, its model's, or a log of that name. Case-sensitive.
bool LcctlIsOf(const LcctlLogFolder& a_logfolder, const std::string& a_strApplication);

// The indexes of the application's folders and of those that its child processes, direct and indirect, wrote (a log
// names the processes that it started). Ascending.
std::vector<size_t> LcctlWithChildren(const std::vector<LcctlLogFolder>& a_veclogfolder,
                                      std::vector<size_t> a_vecsizet);
