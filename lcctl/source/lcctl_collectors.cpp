// lcctl_collectors.cpp: ps, flush, stop and level: listing running collectors and loggers, and controlling them.
//
// A logger is controlled through its status file, a collector through its user's command file, which all of them watch.
#include "lcctl_command.h"
#include "lcctl_process.h"

#include "os_cfg.h"
#include "os_coscfg.h"

#include <fmt/format.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

static std::vector<LcctlProcess> Collectors()
{
    std::vector<LcctlProcess> veclcctlprocess = LcctlProcesses();
    std::erase_if(veclcctlprocess, [](const LcctlProcess& a_lcctlprocess) { return !a_lcctlprocess.blCollects; });
    return veclcctlprocess;
}

static LcctlResult NoCollector()
{
    LcctlError("no collector of this user runs");
    return LCCTL_NOTHING;
}

// ------------------------------------------------------------------------------------------------------- the command

// This user's command file; "" without one. Collectors create it when they start.
static std::string CommandFile()
{
    char szFolder[OS_PATHSIZE];
    OsCfgCommonInstall();
    const bool blFound =
        OsCfgGetPath(OS_PATH_WRITEABLE_FOLDER_LOGCOLLECTOR, szFolder, sizeof szFolder) == EOSSTS_SUCCESS && *szFolder;
    return blFound ? LcctlNativePath(szFolder) + "/flush" : "";
}

// Does not follow a link; collectors ignore a file that other users can write.
static bool Command(const std::string& a_strCommand)
{
    const std::string strFile = CommandFile();
    const int iFile = open(strFile.c_str(), O_WRONLY | O_TRUNC | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
    const bool blWritten = iFile >= 0 && write(iFile, a_strCommand.data(), a_strCommand.size()) ==
                                             static_cast<ssize_t>(a_strCommand.size());
    if (!blWritten)
        LcctlError(fmt::format("{}: {}", strFile, std::strerror(errno)));
    if (iFile >= 0)
        close(iFile);
    return blWritten;
}

// ---------------------------------------------------------------------------------------------------------------- ps

static nlohmann::json Lost(const OsLogHealth& a_osloghealth)
{
    nlohmann::json json = nlohmann::json::object();
    for (uint32_t u32 = 0; u32 < OS_LOGLOST_LAST; ++u32)
    {
        if (a_osloghealth.au64Lost[u32] != 0)
            json[OsLogLostText(static_cast<EOSLOGLOST>(u32))] = a_osloghealth.au64Lost[u32];
    }
    return json;
}

static nlohmann::json Described(const LcctlProcess& a_lcctlprocess)
{
    nlohmann::json json = {{"pid", a_lcctlprocess.u64ProcessId},
                           {"collector", a_lcctlprocess.blCollects},
                           {"program", a_lcctlprocess.strProgram},
                           {"since", LcctlUtcTime(a_lcctlprocess.timeSince)}};
    if (a_lcctlprocess.iPort != 0)
    {
        json["port"] = a_lcctlprocess.iPort;
        json["application"] = a_lcctlprocess.u64ProcessIdApplication;
    }
    if (a_lcctlprocess.iStreams >= 0)
        json["streams"] = a_lcctlprocess.iStreams;
    if (!a_lcctlprocess.blLogs)
        return json;
    const OsLogHealth& osloghealth = a_lcctlprocess.osloghealth;
    json["name"] = a_lcctlprocess.strName;
    json["log"] = a_lcctlprocess.strLog;
    json["flags"] = a_lcctlprocess.u32Flags;
    json["where"] = LcctlWhereText(osloghealth.eoslogwhere);
    json["written"] = osloghealth.u64Written;
    json["lost"] = Lost(osloghealth);
    if (osloghealth.u32LastError != 0)
        json["lastError"] = {{"number", osloghealth.u32LastError},
                             {"path", LcctlNativePath(osloghealth.szLastErrorPath)}};
    return json;
}

static void PrintCollectors(const std::vector<LcctlProcess>& a_veclcctlprocess)
{
    fmt::print("{:>8}  {:>5}  {:>11}  {:>7}  {:<19}  {}\n", "PID", "PORT", "APPLICATION", "STREAMS", "SINCE",
               "PROGRAM");
    for (const LcctlProcess& lcctlprocess : a_veclcctlprocess)
    {
        fmt::print("{:>8}  {:>5}  {:>11}  {:>7}  {:<19}  {}\n", lcctlprocess.u64ProcessId, lcctlprocess.iPort,
                   lcctlprocess.u64ProcessIdApplication,
                   lcctlprocess.iStreams < 0 ? "?" : std::to_string(lcctlprocess.iStreams),
                   LcctlLocalTime(lcctlprocess.timeSince), lcctlprocess.strProgram);
    }
}

static void PrintAll(const std::vector<LcctlProcess>& a_veclcctlprocess)
{
    fmt::print("{:>8}  {:<9}  {:>6}  {:>10}  {:>8}  {:<19}  {}\n", "PID", "WHERE", "FLAGS", "WRITTEN", "LOST", "SINCE",
               "LOG OR PROGRAM");
    for (const LcctlProcess& lcctlprocess : a_veclcctlprocess)
    {
        const OsLogHealth& osloghealth = lcctlprocess.osloghealth;
        fmt::print("{:>8}  {:<9}  {:>6}  {:>10}  {:>8}  {:<19}  {}\n", lcctlprocess.u64ProcessId,
                   lcctlprocess.blLogs ? LcctlWhereText(osloghealth.eoslogwhere) : "-",
                   fmt::format("0x{:X}", lcctlprocess.u32Flags), osloghealth.u64Written, OsLogLostSum(osloghealth),
                   LcctlLocalTime(lcctlprocess.timeSince),
                   lcctlprocess.blLogs ? lcctlprocess.strLog : lcctlprocess.strProgram);
    }
}

class CLcctlPs final : public CLcctlCommand
{
public:
    const char* Name() const override { return "ps"; }
    const char* Description() const override { return "Lists the collectors of this user that run"; }
    void Define(CLI::App& a_cliapp) override
    {
        a_cliapp.add_flag("--all", m_blAll, "the processes that log as well, and how their loggers fare");
        a_cliapp.add_flag("--json", m_blJson, "one JSON object a line");
    }
    LcctlResult Run() override
    {
        const std::vector<LcctlProcess> veclcctlprocess = m_blAll ? LcctlProcesses() : Collectors();
        if (veclcctlprocess.empty() && !m_blAll)
            return NoCollector();
        if (veclcctlprocess.empty())
        {
            LcctlError("no process of this user logs or collects");
            return LCCTL_NOTHING;
        }
        if (m_blJson)
        {
            for (const LcctlProcess& lcctlprocess : veclcctlprocess)
                LcctlPrintJson(Described(lcctlprocess));
        }
        else if (m_blAll)
        {
            PrintAll(veclcctlprocess);
        }
        else
        {
            PrintCollectors(veclcctlprocess);
        }
        return LCCTL_OK;
    }

private:
    bool m_blAll = false;
    bool m_blJson = false;
};

// -------------------------------------------------------------------------------------------------------------- flush

class CLcctlFlush final : public CLcctlCommand
{
public:
    const char* Name() const override { return "flush"; }
    const char* Description() const override { return "Has all collectors of this user bring their logs to the disk"; }
    void Define(CLI::App&) override {}
    LcctlResult Run() override
    {
        const size_t sizetCollectors = Collectors().size();
        if (sizetCollectors == 0)
            return NoCollector();
        if (!Command("<cmd>flush</cmd>"))
            return LCCTL_NOTHING;
        fmt::print("{} collector{} told to flush\n", sizetCollectors, sizetCollectors == 1 ? "" : "s");
        return LCCTL_OK;
    }
};

// --------------------------------------------------------------------------------------------------------------- stop

// Waits for all to end and reports each result. True when all have ended.
static bool WaitForEnds(const std::vector<LcctlProcess>& a_veclcctlprocess, unsigned a_uSeconds)
{
    using Clock = std::chrono::steady_clock;
    const Clock::time_point timepointEnd = Clock::now() + std::chrono::seconds(a_uSeconds);
    bool blAll = true;
    for (const LcctlProcess& lcctlprocess : a_veclcctlprocess)
    {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(timepointEnd - Clock::now());
        const bool blEnded = LcctlWaitForEnd(lcctlprocess, left);
        if (blEnded)
            fmt::print("{}: ended\n", lcctlprocess.u64ProcessId);
        else
            LcctlError(
                fmt::format("{}: still running after {} s: it may wait for a disk or not watch the command file; "
                            "kill {} ends it, and its streams go on in files of their own",
                            lcctlprocess.u64ProcessId, a_uSeconds, lcctlprocess.u64ProcessId));
        blAll = blAll && blEnded;
    }
    return blAll;
}

class CLcctlStop final : public CLcctlCommand
{
public:
    const char* Name() const override { return "stop"; }
    const char* Description() const override { return "Ends a collector, or all of this user, and waits for the end"; }
    void Define(CLI::App& a_cliapp) override
    {
        CLI::Option* const optionPid =
            a_cliapp.add_option("PID", m_u64ProcessId, "the collector's process, as lcctl ps shows it")
                ->check(CLI::PositiveNumber);
        CLI::Option* const optionAll = a_cliapp.add_flag("--all", m_blAll, "all collectors of this user");
        optionAll->excludes(optionPid);
        a_cliapp.add_option("--timeout", m_uTimeout, "how many seconds to wait for the end")
            ->check(CLI::Range(1u, 3600u))
            ->capture_default_str();
    }
    LcctlResult Run() override
    {
        if (!m_blAll && m_u64ProcessId == 0)
        {
            LcctlError("PID or --all is required");
            return LCCTL_USAGE;
        }
        std::vector<LcctlProcess> veclcctlprocess = Collectors();
        if (!m_blAll)
        {
            std::erase_if(veclcctlprocess, [this](const LcctlProcess& a_lcctlprocess) {
                return a_lcctlprocess.u64ProcessId != m_u64ProcessId;
            });
        }
        if (veclcctlprocess.empty())
            return m_blAll ? NoCollector() : NotFound();
        const LcctlProcess& lcctlprocess = veclcctlprocess.front();
        const std::string strExit = m_blAll ? "<cmd>exitall</cmd>"
                                            : fmt::format("<cmd>exit</cmd><lcport>{}</lcport><lcpidapp>{}</lcpidapp>",
                                                          lcctlprocess.iPort, lcctlprocess.u64ProcessIdApplication);
        return Command(strExit) && WaitForEnds(veclcctlprocess, m_uTimeout) ? LCCTL_OK : LCCTL_NOTHING;
    }

private:
    LcctlResult NotFound() const
    {
        std::string strHint = "lcctl ps lists them";
        for (const LcctlProcess& lcctlprocess : LcctlProcesses())
        {
            if (lcctlprocess.blCollects && lcctlprocess.u64ProcessIdApplication == m_u64ProcessId)
                strHint = fmt::format("its collector is {}", lcctlprocess.u64ProcessId);
        }
        LcctlError(fmt::format("{} is no collector of this user: {}", m_u64ProcessId, strHint));
        return LCCTL_NOTHING;
    }

    uint64_t m_u64ProcessId = 0;
    bool m_blAll = false;
    unsigned m_uTimeout = 10;
};

// -------------------------------------------------------------------------------------------------------------- level

class CLcctlLevel final : public CLcctlCommand
{
public:
    const char* Name() const override { return "level"; }
    const char* Description() const override { return "Sets the logger's flags of a running process"; }
    void Define(CLI::App& a_cliapp) override
    {
        a_cliapp.add_option("PID", m_u64ProcessId, "the process, as lcctl ps --all shows it")
            ->required()
            ->check(CLI::PositiveNumber);
        a_cliapp
            .add_option("FLAGS", m_u32Flags,
                        "decimal or 0x...: 0 errors and what is always logged, 1 diagnostics as well, 0x4 flush every "
                        "line, 0x10 only level 8, 0x40 only the memory tracker, 0x400 level 32 as well, 0x800 only "
                        "errors and milestones; added up. In force from the next log call until the next start")
            ->required();
    }
    LcctlResult Run() override
    {
        OsCfgCommonInstall();
        const EOSSTS eossts = OsLogStatusAskFlags(m_u64ProcessId, m_u32Flags);
        if (eossts == EOSSTS_SUCCESS)
        {
            fmt::print("{}: flags 0x{:X} from its next log call on\n", m_u64ProcessId, m_u32Flags);
            return LCCTL_OK;
        }
        LcctlError(
            eossts == EOSSTS_NOTFOUND
                ? fmt::format("{} is no process of this user that logs: lcctl ps --all lists them", m_u64ProcessId)
                : fmt::format("the status file of {} cannot be written", m_u64ProcessId));
        return LCCTL_NOTHING;
    }

private:
    uint64_t m_u64ProcessId = 0;
    uint32_t m_u32Flags = 0;
};

void LcctlAddCollectors(LcctlCommands& a_lcctlcommands)
{
    a_lcctlcommands.push_back(std::make_unique<CLcctlPs>());
    a_lcctlcommands.push_back(std::make_unique<CLcctlFlush>());
    a_lcctlcommands.push_back(std::make_unique<CLcctlStop>());
    a_lcctlcommands.push_back(std::make_unique<CLcctlLevel>());
}
