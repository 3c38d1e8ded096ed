// lcctl_logselect.cpp: the initial selection, and new logs.
#include "lcctl_logselect.h"

#include <algorithm>
#include <charconv>
#include <map>

bool CLcctlLogSelect::IsWanted(const LcctlLogFolder& a_logfolder) const
{
    const std::vector<std::string>& vecstr = m_selectargs.vecstrApplication;
    return vecstr.empty() || std::any_of(vecstr.begin(), vecstr.end(), [&](const std::string& a_strApplication) {
               return LcctlIsOf(a_logfolder, a_strApplication);
           });
}

void CLcctlLogSelect::ChooseRuns()
{
    const std::vector<LcctlLogFolder> veclogfolder = LcctlFindFolders(m_selectargs.findargs);
    std::vector<size_t> vecsizet;
    std::map<std::string, size_t> mapNewest;
    for (size_t sizet = 0; sizet < veclogfolder.size(); ++sizet)
    {
        if (!IsWanted(veclogfolder[sizet]))
            continue;
        if (m_selectargs.blLastRun && !veclogfolder[sizet].vecfile.empty())
            mapNewest[veclogfolder[sizet].strApplication] = sizet;
        else if (!m_selectargs.blLastRun)
            vecsizet.push_back(sizet);
    }
    for (const auto& [strApplication, sizet] : mapNewest)
        vecsizet.push_back(sizet);
    if (!m_selectargs.vecstrApplication.empty())
        vecsizet = LcctlWithChildren(veclogfolder, vecsizet);
    std::sort(vecsizet.begin(), vecsizet.end());
    for (size_t sizet = 0; sizet < veclogfolder.size(); ++sizet)
    {
        const bool blChosen = std::binary_search(vecsizet.begin(), vecsizet.end(), sizet);
        const LcctlLogFolder& logfolder = veclogfolder[sizet];
        if (blChosen)
            m_veclogfolder.push_back(logfolder);
        else if (!logfolder.vecfile.empty())
            m_setpathOther.insert(logfolder.path);
    }
}

void CLcctlLogSelect::TakeFiles(const std::vector<LcctlLogFile>& a_vecfile, std::vector<LcctlLogFile>& a_vecfileNew)
{
    for (const LcctlLogFile& logfile : a_vecfile)
    {
        if (m_setpathSeen.insert(logfile.path.lexically_normal()).second)
            a_vecfileNew.push_back(logfile);
    }
}

bool CLcctlLogSelect::HasUnseen(const std::vector<LcctlLogFile>& a_vecfile) const
{
    return std::any_of(a_vecfile.begin(), a_vecfile.end(), [this](const LcctlLogFile& a_logfile) {
        return !m_setpathSeen.count(a_logfile.path.lexically_normal());
    });
}

// Headers are read only when there are new logs.
std::vector<LcctlLogFile> CLcctlLogSelect::TakeNamed()
{
    std::vector<LcctlLogFile> vecfileNew;
    for (const std::string& strNamed : m_selectargs.vecstrNamed)
    {
        const std::vector<LcctlLogFile> vecfile = LcctlNamedLogs(strNamed, false);
        if (vecfile.empty())
            m_strMissing = strNamed;
        else if (HasUnseen(vecfile))
            TakeFiles(LcctlNamedLogs(strNamed), vecfileNew);
    }
    return vecfileNew;
}

std::vector<LcctlLogFile> CLcctlLogSelect::TakeFound()
{
    std::vector<LcctlLogFile> vecfileNew;
    LcctlFindArgs findargs = m_selectargs.findargs;
    findargs.blHeaders = false;
    for (LcctlLogFolder& logfolder : LcctlFindFolders(findargs))
    {
        if (m_setpathOther.count(logfolder.path) || !HasUnseen(logfolder.vecfile))
            continue;
        LcctlReadHeaders(logfolder);
        if (IsWanted(logfolder) || m_setProcess.count(logfolder.ProcessId()))
            TakeFiles(logfolder.vecfile, vecfileNew);
    }
    return vecfileNew;
}

std::vector<LcctlLogFile> CLcctlLogSelect::TakeNew()
{
    if (!m_selectargs.vecstrNamed.empty())
        return TakeNamed();
    if (m_blChosen)
        return TakeFound();
    m_blChosen = true;
    ChooseRuns();
    std::vector<LcctlLogFile> vecfileNew;
    for (const LcctlLogFolder& logfolder : m_veclogfolder)
        TakeFiles(logfolder.vecfile, vecfileNew);
    return vecfileNew;
}

void CLcctlLogSelect::NoteMessage(std::string_view a_svMessage)
{
    static constexpr std::string_view g_svSpawned = "Spawn: dwProcessId.....";
    uint64_t u64ProcessId = 0;
    if (!a_svMessage.starts_with(g_svSpawned))
        return;
    const char* const pch = a_svMessage.data() + g_svSpawned.size();
    std::from_chars(pch, a_svMessage.data() + a_svMessage.size(), u64ProcessId);
    m_setProcess.insert(u64ProcessId);
}
