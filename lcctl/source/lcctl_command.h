// lcctl_command.h: the interface of lcctl's commands, and what they share: results, output, errors.
#pragma once

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <memory>
#include <string>
#include <vector>

// Exit codes. `run` returns the exit code of its program.
enum LcctlResult : int
{
    LCCTL_OK = 0,
    LCCTL_NOTHING = 1,   // nothing found, or the action failed
    LCCTL_USAGE = 2,     // unknown option or bad value
};

// One subcommand: defines its options on its own CLI11 application, then runs.
class CLcctlCommand
{
public:
    virtual ~CLcctlCommand() = default;

    // Sets name, description and options. a_cliapp lives as long as the command.
    virtual void Define(CLI::App& a_cliapp) = 0;
    virtual const char* Name() const = 0;
    virtual const char* Description() const = 0;
    virtual LcctlResult Run() = 0;
};

using LcctlCommands = std::vector<std::unique_ptr<CLcctlCommand>>;

// Each source adds its commands, in the order of the help text.
void LcctlAddCollectors(LcctlCommands& a_lcctlcommands);   // ps, flush, stop, level
void LcctlAddLogs(LcctlCommands& a_lcctlcommands);         // logs
void LcctlAddClean(LcctlCommands& a_lcctlcommands);        // clean
std::unique_ptr<CLcctlCommand> LcctlDoctor();
std::unique_ptr<CLcctlCommand> LcctlReport();
void LcctlAddRun(LcctlCommands& a_lcctlcommands);   // run

// One line on standard error: "lcctl: TEXT".
void LcctlError(const std::string& a_strText);

// Prints one JSON object as a line of standard output. Invalid UTF-8 is replaced.
void LcctlPrintJson(const nlohmann::json& a_json);
