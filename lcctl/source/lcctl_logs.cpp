// lcctl_logs.cpp: the options of "lcctl logs", and their execution.
#include "lcctl_logs.h"

#include "lcctl_logprogress.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <thread>
#include <unistd.h>

static constexpr auto g_durationPoll = std::chrono::milliseconds(250);
static constexpr char g_szLinesFollowed[] = "10";

// ----------------------------------------------------------------------------------------------------- the options

static std::string NoNumber(const std::string& a_strValue)
{
    const bool blNumber = !a_strValue.empty() && a_strValue.size() < 19 &&
                          a_strValue.find_first_not_of("0123456789") == std::string::npos;
    return blNumber ? "" : "\"" + a_strValue + "\" is no number";
}

static void DefineFilters(CLI::App& a_cliapp, LcctlFilterArgs& a_filterargs)
{
    a_cliapp
        .add_option("--source", a_filterargs.vecstrSource,
                    "Lines of these sources alone, as the third column of a log has them; with or without folder, * "
                    "and ? stand for others; several by commas")
        ->delimiter(',')
        ->allow_extra_args(false)
        ->type_name("NAME");
    a_cliapp.add_option("--not-source", a_filterargs.vecstrNotSource, "All but the lines of these sources")
        ->delimiter(',')
        ->allow_extra_args(false)
        ->type_name("NAME");
    a_cliapp.add_option("--thread", a_filterargs.vecstrThread, "Lines of these threads alone, by their ids")
        ->delimiter(',')
        ->allow_extra_args(false)
        ->type_name("ID")
        ->check(CLI::Validator(NoNumber, "", "number"));
    a_cliapp
        .add_option("-g,--grep", a_filterargs.strGrep,
                    "Lines whose message, with the lines that continue it, matches this Perl-compatible regular "
                    "expression; cases count only where it has capital letters")
        ->type_name("PATTERN");
}

void CLcctlLogs::Define(CLI::App& a_cliapp)
{
    a_cliapp.add_option("files", m_selectargs.vecstrNamed,
                        "Logs, and folders with logs; without any, all logs of this machine that you may read");
    a_cliapp
        .add_option("--app", m_selectargs.vecstrApplication,
                    "The runs of this application with the processes that it started; several by commas")
        ->delimiter(',')
        ->allow_extra_args(false)
        ->type_name("NAME");
    a_cliapp.add_flag("--last-run", m_selectargs.blLastRun, "The newest run of each application alone");
    DefineTimes(a_cliapp);
    DefineFilters(a_cliapp, m_filterargs);
    DefineOutput(a_cliapp);
}

void CLcctlLogs::DefineTimes(CLI::App& a_cliapp)
{
    a_cliapp
        .add_option("-S,--since", m_strSince,
                    "From this time on: \"2026-11-23 12:00:00\", \"12:00\", today, yesterday, -1h, \"2 hours ago\"")
        ->type_name("TIME");
    a_cliapp.add_option("-U,--until", m_strUntil, "Until this time")->type_name("TIME");
    a_cliapp
        .add_option("-p,--level", m_strLevel,
                    "This level and worse ones: error, warning, milestone, note; FROM..TO for a range")
        ->type_name("LEVEL");
}

void CLcctlLogs::DefineOutput(CLI::App& a_cliapp)
{
    a_cliapp.add_flag("-f,--follow", m_blFollow,
                      "Shows the last lines of the newest runs, then new lines, logs and runs");
    a_cliapp.add_option("-n,--lines", m_strLines, "The last so many records alone; with --follow 10")
        ->type_name("COUNT")
        ->check(CLI::Validator(NoNumber, "", "number"));
    a_cliapp.add_flag("--list", m_blList,
                      "Lists the runs instead: start, last line, process, size, application, folder");
    a_cliapp.add_flag("--paths", m_blPaths, "Prints the paths of the logs instead");
    a_cliapp.add_flag("--json", m_blJson, "One JSON object a line");
    a_cliapp.add_flag("--all-users", m_selectargs.findargs.blAllUsers, "The logs in the homes of all users as well");
    a_cliapp.add_option("--dir", m_selectargs.findargs.vecstrFolder, "Looks for log folders below this folder instead")
        ->allow_extra_args(false)
        ->type_name("FOLDER");
}

bool CLcctlLogs::ReadTimes()
{
    const LcctlTime lcctltimeNow = LcctlNow();
    const auto read = [&](const char* a_szOption, const std::string& a_strText, std::optional<LcctlTime>& a_time) {
        a_time = a_strText.empty() ? std::nullopt : LcctlParseTime(a_strText, lcctltimeNow);
        const bool blRead = a_strText.empty() || a_time;
        if (!blRead)
            LcctlError(fmt::format("{}={}: no time; write \"2026-11-23 12:00:00\", \"12:00\", today, yesterday, -1h or "
                                   "\"2 hours ago\"",
                                   a_szOption, a_strText));
        return blRead;
    };
    return read("--since", m_strSince, m_filterargs.since) && read("--until", m_strUntil, m_filterargs.until);
}

// "warning", "error..warning"
bool CLcctlLogs::ReadLevels()
{
    if (m_strLevel.empty())
        return true;
    const size_t sizetDots = m_strLevel == ".." ? std::string::npos : m_strLevel.find("..");
    const auto levelTo = LcctlLevelOf(sizetDots == std::string::npos ? m_strLevel : m_strLevel.substr(sizetDots + 2));
    const auto levelFrom =
        sizetDots == std::string::npos ? LCCTL_LEVEL_ERROR : LcctlLevelOf(m_strLevel.substr(0, sizetDots));
    if (!levelFrom || !levelTo)
    {
        LcctlError(fmt::format("--level={}: no level; there are error, warning, milestone and note", m_strLevel));
        return false;
    }
    m_filterargs.lcctllevelFrom = std::min(*levelFrom, *levelTo);
    m_filterargs.lcctllevelTo = std::max(*levelFrom, *levelTo);
    return true;
}

// -------------------------------------------------------------------------------------------------------- the work

LcctlResult CLcctlLogs::Run()
{
    if (!ReadTimes() || !ReadLevels())
        return LCCTL_USAGE;
    try
    {
        m_uniqueFilter = std::make_unique<CLcctlLogFilter>(m_filterargs);
    }
    catch (const std::invalid_argument& invalidargument)
    {
        LcctlError(invalidargument.what());
        return LCCTL_USAGE;
    }
    if (m_blFollow && m_strSince.empty())
    {
        m_selectargs.blLastRun = true;
        m_strLines = m_strLines.empty() ? g_szLinesFollowed : m_strLines;
    }
    m_uniqueSelect = std::make_unique<CLcctlLogSelect>(m_selectargs);
    const std::vector<LcctlLogFile> vecfile = m_uniqueSelect->TakeNew();
    if (!m_uniqueSelect->Missing().empty())
    {
        LcctlError(fmt::format("{}: no log there, and no folder with logs; \"lcctl logs --list\" shows where logs are",
                               m_uniqueSelect->Missing()));
        return LCCTL_NOTHING;
    }
    const bool blRuns = m_blList && m_selectargs.vecstrNamed.empty();
    if (blRuns ? m_uniqueSelect->Runs().empty() : vecfile.empty() && !m_blFollow)
        return Nothing();
    if (m_blList)
        return List();
    return m_blPaths ? Paths(vecfile) : Merge(vecfile);
}

LcctlResult CLcctlLogs::Nothing() const
{
    std::string strFolders;
    for (const LcctlLogRoot& logroot : LcctlLogRoots(m_selectargs.findargs))
        strFolders += (strFolders.empty() ? "" : ", ") + logroot.path.string();
    const std::string strWhere = strFolders.empty() ? "there is no folder for logs yet" : "none below " + strFolders;
    const std::vector<std::string>& vecstr = m_selectargs.vecstrApplication;
    if (vecstr.empty())
        LcctlError(
            fmt::format("no logs: {}; name their folder, or set MVR_LOGDIR as the application has it", strWhere));
    else
        LcctlError(fmt::format("no logs of {}: {}; \"lcctl logs --list\" shows all applications",
                               fmt::join(vecstr, ", "), strWhere));
    return LCCTL_NOTHING;
}

LcctlResult CLcctlLogs::Paths(const std::vector<LcctlLogFile>& a_vecfile) const
{
    for (const LcctlLogFile& logfile : a_vecfile)
    {
        if (m_blJson)
            LcctlPrintJson(
                {{"file", logfile.path.string()}, {"pid", logfile.u64ProcessId}, {"bytes", logfile.u64Bytes}});
        else
            fmt::print("{}\n", logfile.path.string());
    }
    return LCCTL_OK;
}

static std::string SizeText(uint64_t a_u64Bytes)
{
    static constexpr const char* g_aszUnit[] = {"B", "K", "M", "G", "T"};
    auto dSize = static_cast<double>(a_u64Bytes);
    size_t sizetUnit = 0;
    for (; dSize >= 1024 && sizetUnit + 1 < std::size(g_aszUnit); ++sizetUnit)
        dSize /= 1024;
    return fmt::format("{:.{}f}{}", dSize, sizetUnit ? 1 : 0, g_aszUnit[sizetUnit]);
}

// Lists runs, oldest first; for named logs the logs.
LcctlResult CLcctlLogs::List()
{
    const auto seconds = [](LcctlTime a_lcctltime) { return LcctlTimeText(a_lcctltime).substr(0, 19); };
    const auto row = [&](const std::string& a_strApplication, LcctlTime a_lcctltimeStart,
                         std::filesystem::file_time_type a_filetimeLast, uint64_t a_u64ProcessId, uint64_t a_u64Bytes,
                         const std::filesystem::path& a_path) {
        const LcctlTime lcctltimeLast = LcctlWallTime(a_filetimeLast);
        if (m_blJson)
        {
            LcctlPrintJson({{"application", a_strApplication},
                            {"start", LcctlTimeText(a_lcctltimeStart, 'T')},
                            {"last", LcctlTimeText(lcctltimeLast, 'T')},
                            {"pid", a_u64ProcessId},
                            {"bytes", a_u64Bytes},
                            {"path", a_path.string()}});
            return;
        }
        const std::string strProcessId = a_u64ProcessId ? std::to_string(a_u64ProcessId) : "-";
        fmt::print("{} {} {:>7} {:>7} {:<16} {}\n", seconds(a_lcctltimeStart), seconds(lcctltimeLast), strProcessId,
                   SizeText(a_u64Bytes), a_strApplication, a_path.string());
    };
    if (!m_blJson)
        fmt::print("{:<19} {:<19} {:>7} {:>7} {:<16} {}\n", "START", "LAST", "PID", "SIZE", "APPLICATION", "PATH");
    for (const LcctlLogFolder& logfolder : m_uniqueSelect->Runs())
        row(logfolder.strApplication, logfolder.lcctltimeStart, logfolder.filetimeWritten, logfolder.ProcessId(),
            logfolder.u64Bytes, logfolder.path);
    for (const std::string& strNamed : m_selectargs.vecstrNamed)
    {
        for (const LcctlLogFile& logfile : LcctlNamedLogs(strNamed))
            row(logfile.path.stem().string(), logfile.runstart.value_or(LcctlWallTime(logfile.filetimeWritten)),
                logfile.filetimeWritten, logfile.u64ProcessId, logfile.u64Bytes, logfile.path);
    }
    return LCCTL_OK;
}

// ------------------------------------------------------------------------------------------------------- the merge

// Skips a log whose last write precedes the wanted time, whatever its time zone.
void CLcctlLogs::AddLogs(const std::vector<LcctlLogFile>& a_vecfile)
{
    static constexpr LcctlTime g_lcctltimeZones = 27 * LCCTL_HOUR;
    for (const LcctlLogFile& logfile : a_vecfile)
    {
        const bool blTooOld =
            m_filterargs.since && LcctlWallTime(logfile.filetimeWritten) + g_lcctltimeZones < *m_filterargs.since;
        if (blTooOld && !m_blFollow)
            continue;
        m_u64Bytes += logfile.u64Bytes;
        m_lcctllogmerge.Add(logfile, m_blFollow);
    }
}

// A record without a prefix is treated like the one before it in its log.
void CLcctlLogs::WriteOne(const CLcctlLogReader& a_lcctllogreader)
{
    const LcctlRecord& lcctlrecord = a_lcctllogreader.Record();
    if (m_blFollow)
        m_uniqueSelect->NoteMessage(lcctlrecord.svText);
    if (lcctlrecord.blPrefix || m_preader != &a_lcctllogreader)
        m_blRestWanted = m_uniqueFilter->Passes(lcctlrecord);
    m_preader = &a_lcctllogreader;
    if (m_blRestWanted)
        m_uniqueWriter->Write(lcctlrecord, a_lcctllogreader.Path());
}

void CLcctlLogs::WriteAll()
{
    CLcctlLogProgress lcctllogprogress(m_u64Bytes, isatty(STDERR_FILENO) && !isatty(STDOUT_FILENO) && !m_blFollow);
    const auto write = [&](const CLcctlLogReader& a_lcctllogreader) {
        WriteOne(a_lcctllogreader);
        lcctllogprogress.Step([this] { return m_lcctllogmerge.BytesRead(); });
    };
    const auto failed = [this](const CLcctlLogReader& a_lcctllogreader) {
        const bool blGone = errno == ENOENT;   // it was removed by cleaning
        m_blFailed = m_blFailed || !blGone;
        if (!blGone)
            LcctlError(fmt::format("cannot read {}: {}", a_lcctllogreader.Path().string(), std::strerror(errno)));
    };
    m_lcctllogmerge.Run(write, failed);
}

LcctlResult CLcctlLogs::Merge(const std::vector<LcctlLogFile>& a_vecfile)
{
    m_uniqueWriter = std::make_unique<CLcctlLogWriter>(m_blJson, isatty(STDOUT_FILENO));
    if (!m_strLines.empty())
        m_uniqueWriter->KeepLast(std::stoull(m_strLines));
    AddLogs(a_vecfile);
    if (m_blFollow)
        m_lcctllogmerge.LookForMore();
    WriteAll();
    m_uniqueWriter->Release();
    m_uniqueWriter->Flush();
    if (m_blFollow)
        Follow();
    if (m_blFailed)
        return LCCTL_NOTHING;
    if (m_uniqueWriter->Records() == 0)
    {
        LcctlError(fmt::format("no line is what was asked for, in {} logs; \"lcctl logs --list\" shows their times",
                               a_vecfile.size()));
        return LCCTL_NOTHING;
    }
    return LCCTL_OK;
}

// Runs until a signal asks it to end.
void CLcctlLogs::Follow()
{
    for (;;)
    {
        std::this_thread::sleep_for(g_durationPoll);
        AddLogs(m_uniqueSelect->TakeNew());
        m_lcctllogmerge.LookForMore();
        WriteAll();
        m_uniqueWriter->Flush();
    }
}

void LcctlAddLogs(LcctlCommands& a_lcctlcommands)
{
    a_lcctlcommands.push_back(std::make_unique<CLcctlLogs>());
}
