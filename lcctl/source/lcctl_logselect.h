// lcctl_logselect.h: selects the logs to read: named ones, or the runs of applications with their children.
#pragma once

#include "lcctl_find.h"

#include <set>
#include <string>
#include <string_view>
#include <vector>

struct LcctlSelectArgs
{
    std::vector<std::string> vecstrNamed;         // files and folders; empty: search the usual folders
    std::vector<std::string> vecstrApplication;   // empty: all
    bool blLastRun = false;                       // only the newest run of each application
    LcctlFindArgs findargs;
};

class CLcctlLogSelect
{
public:
    explicit CLcctlLogSelect(const LcctlSelectArgs& a_selectargs) : m_selectargs(a_selectargs) {}

    // The logs that have appeared since the last call; at first all existing ones. In later runs, processes named in
    // messages passed to NoteMessage count as children.
    std::vector<LcctlLogFile> TakeNew();

    // The runs selected by the first call of TakeNew, oldest first; empty for named logs.
    const std::vector<LcctlLogFolder>& Runs() const { return m_veclogfolder; }

    // Checks whether a message of a selected log names a child process.
    void NoteMessage(std::string_view a_svMessage);

    // A named path that does not exist, "" if all exist.
    const std::string& Missing() const { return m_strMissing; }

private:
    bool IsWanted(const LcctlLogFolder& a_logfolder) const;
    void ChooseRuns();
    void TakeFiles(const std::vector<LcctlLogFile>& a_vecfile, std::vector<LcctlLogFile>& a_vecfileNew);
    bool HasUnseen(const std::vector<LcctlLogFile>& a_vecfile) const;
    std::vector<LcctlLogFile> TakeNamed();
    std::vector<LcctlLogFile> TakeFound();

    LcctlSelectArgs m_selectargs;
    bool m_blChosen = false;
    std::vector<LcctlLogFolder> m_veclogfolder;
    std::set<std::filesystem::path> m_setpathOther;   // existing folders with logs that are not selected
    std::set<std::filesystem::path> m_setpathSeen;    // logs
    std::set<uint64_t> m_setProcess;
    std::string m_strMissing;
};
