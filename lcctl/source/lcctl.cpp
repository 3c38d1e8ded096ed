// lcctl.cpp: the entry: command line, help, exit codes.
#include "lcctl_command.h"

#include <fmt/format.h>

#include <cstdio>

static constexpr char g_szVersion[] = "lcctl " LCCTL_VERSION;

void LcctlError(const std::string& a_strText)
{
    fmt::print(stderr, "lcctl: {}\n", a_strText);
}

void LcctlPrintJson(const nlohmann::json& a_json)
{
    fmt::print("{}\n", a_json.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace));
}

// Reduces CLI11's message for an invalid command line to one line.
static std::string FirstLine(const std::string& a_strText)
{
    return a_strText.substr(0, a_strText.find('\n'));
}

// "lcctl", and the command as far as it was recognised.
static std::string WordsOf(const CLI::App& a_cliapp)
{
    std::string strWords = a_cliapp.get_name();
    for (const CLI::App* const pcliapp : a_cliapp.get_subcommands())
        strWords += " " + pcliapp->get_name();
    return strWords;
}

static void AddCommands(CLI::App& a_cliapp, const LcctlCommands& a_lcctlcommands, LcctlResult& a_lcctlresult)
{
    for (const std::unique_ptr<CLcctlCommand>& command : a_lcctlcommands)
    {
        CLI::App* const cliapp = a_cliapp.add_subcommand(command->Name(), command->Description());
        cliapp->set_version_flag("--version", g_szVersion);
        command->Define(*cliapp);
        cliapp->callback([&a_lcctlresult, &command] { a_lcctlresult = command->Run(); });
    }
}

int main(int a_iArguments, char** a_ppszArguments)
{
    LcctlCommands lcctlcommands;
    LcctlAddCollectors(lcctlcommands);
    LcctlAddLogs(lcctlcommands);
    LcctlAddClean(lcctlcommands);
    lcctlcommands.push_back(LcctlDoctor());
    lcctlcommands.push_back(LcctlReport());
    LcctlAddRun(lcctlcommands);

    CLI::App cliapp("Finds, reads, watches and cleans the logs of an application, and its collectors.", "lcctl");
    cliapp.set_version_flag("--version", g_szVersion);
    cliapp.require_subcommand(1);
    LcctlResult lcctlresult = LCCTL_OK;
    AddCommands(cliapp, lcctlcommands, lcctlresult);
    try
    {
        cliapp.parse(a_iArguments, a_ppszArguments);
    }
    catch (const CLI::ParseError& parseerror)
    {
        if (parseerror.get_exit_code() == 0)   // help or version requested
            return cliapp.exit(parseerror);
        LcctlError(FirstLine(parseerror.what()) + "; see `" + WordsOf(cliapp) + " --help`");
        return LCCTL_USAGE;
    }
    catch (const std::exception& exception)
    {
        LcctlError(exception.what());
        return LCCTL_NOTHING;
    }
    return lcctlresult;
}
