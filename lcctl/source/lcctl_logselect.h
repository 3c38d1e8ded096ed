// lcctl_logselect.h: which logs are read: those that are named, or the runs of applications with their children.
#pragma once

#include "lcctl_find.h"

#include <set>
#include <string>
#include <string_view>
#include <vector>

struct LcctlSelectArgs
{
    std::vector<std::string> vecstrNamed;         // files and folders; none: what lies where logs lie
    std::vector<std::string> vecstrApplication;   // none: all
    bool blLastRun = false;                       // the newest run of each application alone
    LcctlFindArgs findargs;
};

class CLcctlLogSelect
{
public:
    explicit CLcctlLogSelect(const LcctlSelectArgs& a_selectargs) : m_selectargs(a_selectargs) {}

    // The logs that have appeared since the last call; at first all there are. Of a run that began later those of
    // processes that NoteMessage was told of count as children.
    std::vector<LcctlLogFile> TakeNew();

    // The runs that the first call of TakeNew has chosen, the oldest first; none for named logs.
    const std::vector<LcctlLogFolder>& Runs() const { return m_veclogfolder; }

    // Looks whether a message names a child process. Of the logs that are read.
    void NoteMessage(std::string_view a_svMessage);

    // A path that was named and is not there, "" for none.
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
    std::set<std::filesystem::path> m_setpathOther;   // folders with logs that were there and are not wanted
    std::set<std::filesystem::path> m_setpathSeen;    // logs
    std::set<uint64_t> m_setProcess;
    std::string m_strMissing;
};
