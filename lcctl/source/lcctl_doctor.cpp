// lcctl_doctor.cpp: checks for problems with logging on this machine.
//
//   settings    variables that disable or move the log, the application's name
//   collector   where it is found, how fast it responds, whether it writes a line
//   folder      whether it is writable, free disk space
//   system      free file watches, which the command file needs
//   processes   those that log, and their state
//   the command
#include "lcctl_doctor.h"

#include "lcctl_command.h"
#include "lcctl_find.h"
#include "lcctl_process.h"
#include "lcctl_text.h"
#include "lcctl_user.h"

#include "os_cfg.h"
#include "os_coscfg.h"
#include "os_cosfile_system.h"
#include "os_coslog.h"
#include "os_cosservices.h"
#include "os_costhread.h"
#include "os_log.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <fstream>

namespace fs = std::filesystem;

static constexpr char g_szSource[] = "lcctl/source/lcctl_doctor";

static constexpr uintmax_t g_uLittleRoom = uintmax_t{256} << 20;   // bytes
static constexpr int g_iFewWatches = 8;
static constexpr uint32_t g_u32ReplyTimeout = 10000;   // milliseconds, the same as an application's
static constexpr size_t g_sizetLongestName = 63;

using Findings = std::vector<LcctlFinding>;

static void Good(Findings& a_findings, const char* a_szWhat, std::string a_strText)
{
    a_findings.push_back({true, a_szWhat, std::move(a_strText), ""});
}

static void Bad(Findings& a_findings, const char* a_szWhat, std::string a_strText, std::string a_strCure)
{
    a_findings.push_back({false, a_szWhat, std::move(a_strText), std::move(a_strCure)});
}

static std::string PathOf(EOSPATH a_eospath)
{
    char szPath[OS_PATHSIZE];
    return OsCfgGetPath(a_eospath, szPath, sizeof szPath) == EOSSTS_SUCCESS ? LcctlHostPath(szPath).string() : "";
}

// ---------------------------------------------------------------------------------------------------------- settings

static void ExamineVariables(Findings& a_findings)
{
    if (std::getenv("MVR_NOLOGGING"))
        Bad(a_findings, "settings", "MVR_NOLOGGING is set: nothing is logged", "unset MVR_NOLOGGING");
    if (const char* const szFolder = std::getenv("MVR_LOGDIR"))
        Good(a_findings, "settings", fmt::format("MVR_LOGDIR moves log folders to {}", szFolder));
    if (const char* const szFolder = std::getenv("MVR_DEBUGDIR"))
        Good(a_findings, "settings", fmt::format("MVR_DEBUGDIR sends each process's log to a file in {}", szFolder));
    if (const char* const szFlags = std::getenv("MVR_DEBUG"))
        Good(a_findings, "settings", fmt::format("MVR_DEBUG is {}", szFlags));
}

static void ExamineName(Findings& a_findings, const std::string& a_strName)
{
    if (a_strName.empty())
        Bad(a_findings, "name", "an application without a name is refused", "give <uniquename> a value");
    else if (a_strName.size() > g_sizetLongestName)
        Bad(a_findings, "name", fmt::format("\"{}\" has {} bytes and is refused", a_strName, a_strName.size()),
            fmt::format("give <uniquename> at most {} bytes", g_sizetLongestName));
    else if (a_strName.find_first_of("/\\<>:\"|?*") != std::string::npos)
        Bad(a_findings, "name", fmt::format("\"{}\" is no file name", a_strName), "use letters, digits, - and _");
    else
        Good(a_findings, "name", a_strName);
}

static void ExamineEntity(Findings& a_findings, const std::string& a_strEntity)
{
    static constexpr const char* g_aszEntity[] = {"application", "driver", "utility", "apputility", "dll"};
    const auto isIt = [&a_strEntity](const char* a_szEntity) { return a_strEntity == a_szEntity; };
    if (std::any_of(std::begin(g_aszEntity), std::end(g_aszEntity), isIt))
        Good(a_findings, "entity", a_strEntity);
    else
        Bad(a_findings, "entity",
            fmt::format("\"{}\" is unknown: the program counts as none of the family", a_strEntity),
            "give <entity> one of application, driver, utility, apputility, dll");
}

// --------------------------------------------------------------------------------------------------------- collector

// The collector that a program at that path would find: the installed one, else the one beside the program.
static fs::path CollectorOf(const fs::path& a_pathProgram)
{
    const fs::path pathInstalled = fs::path(PathOf(OS_PATH_READABLE_FOLDER_BRAND)) / "common" / "logcollector";
    std::error_code errorcode;
    return fs::exists(pathInstalled, errorcode) ? pathInstalled : a_pathProgram.parent_path() / "logcollector";
}

// Milliseconds until the collector reports its port; negative on failure. It ends with this process.
static double AnswerTime(const fs::path& a_pathCollector)
{
    const auto start = std::chrono::steady_clock::now();
    COsThread osthread;
    const std::string strDocument = fmt::format("--xml=<lc><lcpidapp>{}</lcpidapp></lc>", LcctlOwnProcessId());
    if (osthread.Spawn(OS_SPAWNFLAGS_PIPES | OS_SPAWNFLAGS_NORETRY, a_pathCollector.string().c_str(), "",
                       {strDocument.c_str()}) != EOSSTS_SUCCESS)
        return -1;
    std::string strReply;
    while (strReply.find("</lc>") == std::string::npos)
    {
        char achPiece[256];
        size_t sizetRead = 0;
        if (osthread.ChildRead(achPiece, sizeof achPiece, &sizetRead, true, g_u32ReplyTimeout) != EOSSTS_SUCCESS)
            return -1;
        strReply.append(achPiece, sizetRead);
    }
    const std::chrono::duration<double, std::milli> duration = std::chrono::steady_clock::now() - start;
    return strReply.find("<lcport>") == std::string::npos ? -1 : duration.count();
}

static void ExamineCollector(Findings& a_findings, const fs::path& a_pathProgram)
{
    if (a_pathProgram.string().find("logcollector") != std::string::npos)
        Bad(a_findings, "program",
            fmt::format("\"logcollector\" is in the path {}: it is taken for a collector", a_pathProgram.string()),
            "install the program in a folder of another name");
    const fs::path pathCollector = CollectorOf(a_pathProgram);
    std::error_code errorcode;
    if (!fs::exists(pathCollector, errorcode))
    {
        Bad(a_findings, "collector", fmt::format("not found: neither installed nor at {}", pathCollector.string()),
            "install the package, or put logcollector beside the program");
        return;
    }
    const double dMilliseconds = AnswerTime(pathCollector);
    if (dMilliseconds < 0)
        Bad(a_findings, "collector", fmt::format("{} does not answer", pathCollector.string()),
            "start it by hand with --xml=\"<lc><lcpidapp>1</lcpidapp></lc>\": it has to print its port");
    else
        Good(a_findings, "collector", fmt::format("{} answers in {:.1f} ms", pathCollector.string(), dMilliseconds));
}

// ------------------------------------------------------------------------------------------------------------ folder

static void ExamineRoom(Findings& a_findings, const fs::path& a_pathFolder)
{
    std::error_code errorcode;
    const fs::space_info spaceinfo = fs::space(a_pathFolder, errorcode);
    if (errorcode)
        return;
    const std::string strText =
        fmt::format("{} free for {}", LcctlSizeText(spaceinfo.available), a_pathFolder.string());
    if (spaceinfo.available < g_uLittleRoom)
        Bad(a_findings, "space", strText, "make room, for instance with `lcctl clean --max-size=100M`");
    else
        Good(a_findings, "space", strText);
}

static std::string FileText(const fs::path& a_path)
{
    std::ifstream stream(a_path, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
}

// Logs as an application does and checks that the line is in the log.
static void ExamineLog(Findings& a_findings, const std::string& a_strName)
{
    const std::string strDocument = "<arguments><uniquename>" + a_strName +
                                    "</uniquename><entity>application</entity><loglevel>0</loglevel></arguments>";
    OsServicesSetDocument(strDocument.c_str());
    const bool blStarted = OsServicesStart(true) == EOSSTS_SUCCESS;
    if (!blStarted || OsLogGetState() == OS_LOGSTATE_OFF || !OsLogGet())
    {
        if (!std::getenv("MVR_NOLOGGING"))
            Bad(a_findings, "log", "no log can be written", "set HOME, or MVR_LOGDIR to a folder that can be written");
        OsServicesStop();
        return;
    }
    OSLOG(OS_LOG_NOTE, "a line of lcctl doctor");
    const std::string strLog = OsLogGet()->LogFile();
    const bool blCollector = OsLogGet()->UsesCollector();
    OsServicesStop();

    const fs::path pathLog = LcctlHostPath(strLog);
    const bool blThere = FileText(pathLog).find("a line of lcctl doctor") != std::string::npos;
    if (!blThere)
        Bad(a_findings, "log", fmt::format("{} cannot be written", pathLog.string()),
            fmt::format("make {} writable", pathLog.parent_path().parent_path().string()));
    else if (!blCollector)
        Bad(a_findings, "log", fmt::format("{} was written, but not by the collector", pathLog.string()),
            "see what is said of the collector here");
    else
        Good(a_findings, "log",
             fmt::format("a line went through the collector below {}", pathLog.parent_path().parent_path().string()));
    ExamineRoom(a_findings, pathLog.parent_path().parent_path());
    OsLogRemoveFolder(pathLog.parent_path().string().c_str());
}

// ------------------------------------------------------------------------------------------------------------ system

// The number in use by our user, as far as visible; a shared one counts once per process.
static int UsedWatchInstances()
{
    int iUsed = 0;
    std::error_code errorcode;
    for (const fs::directory_entry& entry : fs::directory_iterator("/proc", errorcode))
    {
        std::error_code errorcodeProcess;
        for (fs::directory_iterator iterator(entry.path() / "fd", errorcodeProcess), end;
             !errorcodeProcess && iterator != end; iterator.increment(errorcodeProcess))
        {
            std::error_code errorcodeLink;
            iUsed += fs::read_symlink(iterator->path(), errorcodeLink) == "anon_inode:inotify" ? 1 : 0;
        }
    }
    return iUsed;
}

static void ExamineWatches(Findings& a_findings)
{
    int iMost = 0;
    if (!(std::ifstream("/proc/sys/fs/inotify/max_user_instances") >> iMost))
        return;
    const int iLeft = std::max(iMost - UsedWatchInstances(), 0);
    const std::string strText = fmt::format("{} of {} watch instances left", iLeft, iMost);
    if (iLeft < g_iFewWatches)
        Bad(a_findings, "watches", strText + ": commands to collectors are seen late",
            "raise fs.inotify.max_user_instances with sysctl");
    else
        Good(a_findings, "watches", strText);
}

// --------------------------------------------------------------------------------------------------------- processes

static std::string LostText(const OsLogHealth& a_osloghealth)
{
    std::string strText;
    for (uint32_t u32 = 0; u32 < OS_LOGLOST_LAST; ++u32)
    {
        if (a_osloghealth.au64Lost[u32] > 0)
            strText += fmt::format("{}{} lines lost: {}", strText.empty() ? "" : ", ", a_osloghealth.au64Lost[u32],
                                   OsLogLostText(static_cast<EOSLOGLOST>(u32)));
    }
    return strText;
}

static void ExamineProcesses(Findings& a_findings)
{
    for (const LcctlProcess& process : LcctlProcesses())
    {
        if (!process.blLogs || process.u64ProcessId == LcctlOwnProcessId())
            continue;
        const OsLogHealth& osloghealth = process.osloghealth;
        std::string strText = fmt::format("{} ({}): {} lines, now into {}", process.strName, process.u64ProcessId,
                                          osloghealth.u64Written, LcctlWhereText(osloghealth.eoslogwhere));
        const std::string strLost = LostText(osloghealth);
        if (!strLost.empty())
            strText += "; " + strLost;
        if (osloghealth.szLastErrorPath[0])
            strText += "; last refused: " + LcctlHostPath(osloghealth.szLastErrorPath).string();
        if (osloghealth.eoslogwhere == OS_LOGWHERE_NOWHERE)
            Bad(a_findings, "process", strText, "see the folder and the space of its log; then start it anew");
        else if (!strLost.empty())
            Bad(a_findings, "process", strText, "its log goes on; see the folder and the space of its log");
        else
            Good(a_findings, "process", strText);
    }
}

// ------------------------------------------------------------------------------------------------------- the command

std::vector<LcctlFinding> LcctlExamine(const std::string& a_strAs, const std::string& a_strEntity)
{
    Findings findings;
    OsCfgCommonInstall();
    ExamineVariables(findings);
    const bool blPath = fs::path(a_strAs).has_parent_path();
    const std::string strName = blPath ? fs::path(a_strAs).stem().string() : a_strAs;
    ExamineName(findings, strName);
    ExamineEntity(findings, a_strEntity);
    std::error_code errorcode;
    ExamineCollector(findings,
                     blPath ? fs::absolute(a_strAs, errorcode) : fs::path(PathOf(OS_PATH_READABLE_FILE_MAINPROGRAM)));
    if (!strName.empty() && strName.size() <= g_sizetLongestName)
        ExamineLog(findings, strName);
    ExamineWatches(findings);
    ExamineProcesses(findings);
    return findings;
}

std::string LcctlFindingsText(const std::vector<LcctlFinding>& a_vecfinding)
{
    std::string strText;
    for (const LcctlFinding& finding : a_vecfinding)
    {
        strText += fmt::format("{:<6} {:<10} {}\n", finding.blGood ? "ok" : "WRONG", finding.strWhat, finding.strText);
        if (!finding.strCure.empty())
            strText += fmt::format("{:<17} -> {}\n", "", finding.strCure);
    }
    return strText;
}

class CLcctlDoctor final : public CLcctlCommand
{
public:
    const char* Name() const override { return "doctor"; }
    const char* Description() const override { return "Look for what keeps applications from logging"; }

    void Define(CLI::App& a_cliapp) override
    {
        a_cliapp.add_option("--as", m_strAs, "As the application of this name, or with this program file");
        a_cliapp.add_option("--entity", m_strEntity, "As this kind of program [application]");
        a_cliapp.add_flag("--json", m_blJson, "One JSON object a finding");
        a_cliapp.footer("Logs one line as an application would, and removes that log again. The exit code is 1 when "
                        "something is wrong.");
    }

    LcctlResult Run() override
    {
        const Findings findings = LcctlExamine(m_strAs, m_strEntity);
        if (!m_blJson)
            fmt::print("{}", LcctlFindingsText(findings));
        bool blGood = true;
        for (const LcctlFinding& finding : findings)
        {
            blGood = blGood && finding.blGood;
            if (m_blJson)
                LcctlPrintJson({{"good", finding.blGood},
                                {"what", finding.strWhat},
                                {"text", finding.strText},
                                {"cure", finding.strCure}});
        }
        return blGood ? LCCTL_OK : LCCTL_NOTHING;
    }

private:
    std::string m_strAs = "lcctl";
    std::string m_strEntity = "application";
    bool m_blJson = false;
};

std::unique_ptr<CLcctlCommand> LcctlDoctor()
{
    return std::make_unique<CLcctlDoctor>();
}
