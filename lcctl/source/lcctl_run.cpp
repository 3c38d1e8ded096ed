// lcctl_run.cpp: writes any program's standard output and error into a log of its own.
//
//   finding the program   as a shell does
//   its lines             each one a line of the log; the level shows the stream
//   the command           starting the logger with its collector, the program, its exit code
#include "lcctl_command.h"
#include "lcctl_find.h"
#include "lcctl_signal.h"

#include "os_cfg.h"
#include "os_coslog.h"
#include "os_cosservices.h"
#include "os_costhread.h"
#include "os_log.h"

#include <fmt/format.h>

#include <array>
#include <cctype>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <string_view>
#include <thread>

namespace fs = std::filesystem;

static constexpr int g_iFailed = 125;   // our own failure; the three codes are those of env, nohup and timeout
static constexpr int g_iNotRun = 126;   // found, but not executable
static constexpr int g_iNotFound = 127;

static constexpr size_t g_sizetLongestLine = 64 * 1024;   // bytes; a longer line is split
static constexpr uint32_t g_u32Look = 200;                // milliseconds between two checks for signals

// ------------------------------------------------------------------------------------------------ finding the program

static constexpr char g_chPathSeparator = fs::path::preferred_separator == '/' ? ':' : ';';

// Returns an empty path when no such program exists.
static fs::path FindProgram(const std::string& a_strName)
{
    std::error_code errorcode;
    if (fs::path(a_strName).has_parent_path())
        return fs::exists(a_strName, errorcode) ? fs::absolute(a_strName, errorcode) : fs::path();
    const char* const szPath = std::getenv("PATH");
    std::string_view svRest = szPath ? szPath : "";
    while (!svRest.empty())
    {
        const size_t sizetEnd = std::min(svRest.find(g_chPathSeparator), svRest.size());
        const fs::path pathProgram = fs::path(svRest.substr(0, sizetEnd)) / a_strName;
        if (fs::is_regular_file(pathProgram, errorcode))
            return fs::absolute(pathProgram, errorcode);
        svRest.remove_prefix(std::min(sizetEnd + 1, svRest.size()));
    }
    return {};
}

// Quotes one argument for the library's command line: a quotation mark, and backslashes before one, are escaped by a
// backslash.
static void AppendQuoted(std::string& a_strLine, const std::string& a_strArgument)
{
    a_strLine += '"';
    size_t sizetSlashes = 0;
    for (const char ch : a_strArgument)
    {
        if (ch == '"')
            a_strLine.append(sizetSlashes + 1, '\\');
        sizetSlashes = ch == '\\' ? sizetSlashes + 1 : 0;
        a_strLine += ch;
    }
    a_strLine.append(sizetSlashes, '\\') += "\" ";
}

// The log's name, at most 63 bytes in the library: letters, digits and characters that are safe in file names.
static std::string LogName(const fs::path& a_pathProgram)
{
    std::string strName = a_pathProgram.stem().string().substr(0, 63);
    for (char& ch : strName)
        ch = std::isalnum(static_cast<unsigned char>(ch)) || ch == '-' || ch == '_' ? ch : '_';
    return strName;
}

// --------------------------------------------------------------------------------------------------------- its lines

// One of the program's two streams, split into lines.
class CLcctlStream
{
public:
    CLcctlStream(const char* a_szName, uint32_t a_u32Level) : m_szName(a_szName), m_u32Level(a_u32Level) {}

    void Take(std::string_view a_svPiece)
    {
        for (const char ch : a_svPiece)
        {
            if (ch == '\n')
                Log();
            else
                m_strLine += ch == '\0' ? '?' : ch;   // a zero would end the log line
            if (m_strLine.size() == g_sizetLongestLine)
                Log();
        }
    }

    // The last line may be incomplete.
    void Finish()
    {
        if (!m_strLine.empty())
            Log();
    }

private:
    // Uses the line's number in place of the source line.
    void Log()
    {
        if (m_strLine.ends_with('\r'))
            m_strLine.pop_back();
        OSLOG_AT(m_szName, ++m_u32Lines, m_u32Level, "%s", m_strLine.c_str());
        m_strLine.clear();
    }

    const char* m_szName;
    uint32_t m_u32Level;
    uint32_t m_u32Lines = 0;
    std::string m_strLine;
};

// ------------------------------------------------------------------------------------------------------- the command

// Logs until the program ends; requests to end this process are forwarded to it.
static void LogUntilItEnds(COsThread& a_osthread, const CLcctlSignals& a_signals)
{
    CLcctlStream streamOutput("stdout", OS_LOG_NOTE);
    CLcctlStream streamError("stderr", OS_LOG_ERROR);
    for (;;)
    {
        std::array<char, 16 * 1024> achPiece;
        size_t sizetRead = 0;
        bool blError = false;
        const EOSSTS eossts =
            a_osthread.ChildRead(achPiece.data(), achPiece.size(), &sizetRead, false, g_u32Look, &blError);
        (blError ? streamError : streamOutput).Take({achPiece.data(), sizetRead});
        a_signals.PassOn(a_osthread.ChildProcessId());
        if (eossts != EOSSTS_SUCCESS && eossts != EOSSTS_TIMEOUT && eossts != EOSSTS_NOSPACE)
            break;
    }
    streamOutput.Finish();
    streamError.Finish();
}

class CLcctlRun final : public CLcctlCommand
{
public:
    const char* Name() const override { return "run"; }
    const char* Description() const override { return "Run a program whose output and errors become a log"; }

    void Define(CLI::App& a_cliapp) override
    {
        a_cliapp.add_option("--name", m_strName, "Name of the log [that of the program]")
            ->check([](const std::string& a_str) {
                const bool blFits = !a_str.empty() && a_str == LogName(a_str) && a_str.size() < 64;
                return blFits ? std::string() : std::string("--name takes up to 63 letters, digits, - and _");
            });
        a_cliapp.add_flag("--quiet,-q", m_blQuiet, "Do not say where the log is");
        a_cliapp.add_option("program", m_vecstrProgram, "Program and arguments, behind --")->required();
        a_cliapp.positionals_at_end();
        a_cliapp.footer(
            "Lines of the standard output have the level note, those of the standard error the level error.\n"
            "The exit code is that of the program; 127: not found, 126: it cannot be run, 125: no log.");
    }

    LcctlResult Run() override { return static_cast<LcctlResult>(RunProgram()); }

private:
    int RunProgram() const
    {
        const fs::path pathProgram = FindProgram(m_vecstrProgram[0]);
        if (pathProgram.empty())
        {
            LcctlError(fmt::format("{}: no such program in PATH; give its path", m_vecstrProgram[0]));
            return g_iNotFound;
        }
        const std::string strDocument = "<arguments><uniquename>" +
                                        (m_strName.empty() ? LogName(pathProgram) : m_strName) +
                                        "</uniquename><entity>application</entity><loglevel>0</"
                                        "loglevel><logfilter>stdout stderr</logfilter></arguments>";
        OsServicesSetDocument(strDocument.c_str());
        if (OsServicesStart() != EOSSTS_SUCCESS || OsLogGetState() == OS_LOGSTATE_OFF)
        {
            LcctlError("no log can be written; `lcctl doctor` tells why");
            OsServicesStop();
            return g_iFailed;
        }
        const int iResult = RunLogged(pathProgram);
        OsServicesStop();
        return iResult;
    }

    int RunLogged(const fs::path& a_pathProgram) const
    {
        if (!m_blQuiet)
            fmt::print(stderr, "lcctl: log {}\n", LcctlHostPath(OsLogGet()->LogFile()).string());
        std::string strArguments;
        for (size_t sizet = 1; sizet < m_vecstrProgram.size(); ++sizet)
            AppendQuoted(strArguments, m_vecstrProgram[sizet]);
        const CLcctlSignals signals;
        COsThread osthread;
        if (osthread.Spawn(OS_SPAWNFLAGS_PIPES | OS_SPAWNFLAGS_OWNINPUT | OS_SPAWNFLAGS_NORETRY |
                               OS_SPAWNFLAGS_NOQUOTES | OS_SPAWNFLAGS_NOFOLDER,
                           a_pathProgram.string().c_str(), "", {strArguments.c_str()}) != EOSSTS_SUCCESS)
        {
            LcctlError(fmt::format("{} cannot be run; is it executable?", a_pathProgram.string()));
            return g_iNotRun;
        }
        LogUntilItEnds(osthread, signals);
        while (osthread.ChildIsRunning())
            std::this_thread::sleep_for(std::chrono::milliseconds(g_u32Look));
        return static_cast<int>(osthread.ChildExitCode());
    }

    std::string m_strName;
    bool m_blQuiet = false;
    std::vector<std::string> m_vecstrProgram;
};

void LcctlAddRun(LcctlCommands& a_lcctlcommands)
{
    a_lcctlcommands.push_back(std::make_unique<CLcctlRun>());
}
