// lcctl_clean.cpp: which log folders are removed, and why the others are kept.
//
//   amounts       "14d", "5G"
//   in use        the processes that use a folder
//   the verdicts  one for each folder, oldest first
//   the command   listing and removing
#include "lcctl_command.h"
#include "lcctl_find.h"
#include "lcctl_process.h"
#include "lcctl_text.h"
#include "lcctl_user.h"

#include "os_coslog.h"

#include <fmt/format.h>

#include <map>
#include <optional>
#include <set>

namespace fs = std::filesystem;

// ------------------------------------------------------------------------------------------------------------ in use

// "viewer (4242)" by log folder.
using Holders = std::map<fs::path, std::set<std::string>>;

static std::string ProcessText(const std::string& a_strName, uint64_t a_u64ProcessId)
{
    return fmt::format("{} ({})", a_strName.empty() ? "process" : a_strName, a_u64ProcessId);
}

// Reads the open files of all processes where the system shows them; those of other users as far as permitted.
static void AddOpenLocks(Holders& a_holders)
{
    std::error_code errorcode;
    for (const fs::directory_entry& entry : fs::directory_iterator("/proc", errorcode))
    {
        const std::string strProcessId = entry.path().filename().string();
        if (strProcessId.find_first_not_of("0123456789") != std::string::npos)
            continue;
        for (fs::directory_iterator iterator(entry.path() / "fd", errorcode), end; !errorcode && iterator != end;
             iterator.increment(errorcode))
        {
            const fs::path pathOpen = fs::read_symlink(iterator->path(), errorcode);
            if (!errorcode && pathOpen.filename() == "log.lock")
            {
                std::error_code errorcodeName;
                const fs::path pathProgram = fs::read_symlink(entry.path() / "exe", errorcodeName);
                a_holders[pathOpen.parent_path()].insert(
                    ProcessText(pathProgram.filename().string(), std::stoull(strProcessId)));
            }
            errorcode.clear();
        }
        errorcode.clear();
    }
}

static Holders FindHolders()
{
    Holders holders;
    AddOpenLocks(holders);
    for (const LcctlProcess& process : LcctlProcesses())
    {
        const fs::path pathFolder = LcctlFolderOf(process);
        if (!pathFolder.empty() && !holders.count(pathFolder))
            holders[pathFolder].insert(ProcessText(process.strName, process.u64ProcessId));
    }
    return holders;
}

// "" for a folder that is not in use.
static std::string UsedBy(const Holders& a_holders, const fs::path& a_pathFolder)
{
    if (!OsLogIsFolderInUse(a_pathFolder.string().c_str()))
        return "";
    const auto iterator = a_holders.find(a_pathFolder);
    return iterator == a_holders.end() ? "a process that cannot be looked at"
                                       : fmt::format("{}", fmt::join(iterator->second, ", "));
}

// ------------------------------------------------------------------------------------------------------ the verdicts

namespace
{
struct Limits
{
    std::string strApplication;
    std::optional<int64_t> i64Older;   // seconds
    std::optional<uint64_t> u64MaxSize;
    std::optional<uint64_t> u64MaxRuns;   // per application
};

struct Verdict
{
    LcctlLogFolder logfolder;
    bool blGoes = false;
    bool blDone = false;
    std::string strReason;
};

// Decides the folders in order, oldest first.
class Judge
{
public:
    Judge(const Limits& a_limits, const Holders& a_holders) : m_limits(a_limits), m_holders(a_holders) {}

    std::vector<Verdict> Decide(std::vector<LcctlLogFolder> a_veclogfolder)
    {
        std::vector<Verdict> vecverdict;
        for (LcctlLogFolder& logfolder : a_veclogfolder)
        {
            if (!m_limits.strApplication.empty() && !LcctlIsOf(logfolder, m_limits.strApplication))
                continue;
            m_u64Size += logfolder.u64Bytes;
            ++m_mapRuns[logfolder.path.parent_path()][logfolder.strApplication];
            vecverdict.emplace_back().logfolder = std::move(logfolder);
        }
        for (Verdict& verdict : vecverdict)
            DecideOne(verdict);
        return vecverdict;
    }

private:
    void DecideOne(Verdict& a_verdict)
    {
        const LcctlLogFolder& logfolder = a_verdict.logfolder;
        uint64_t& u64Runs = m_mapRuns[logfolder.path.parent_path()][logfolder.strApplication];
        const std::string strGoes = WhyItGoes(logfolder, u64Runs);
        const std::string strUsedBy = UsedBy(m_holders, logfolder.path);
        if (!strUsedBy.empty())
        {
            a_verdict.strReason = "in use by " + strUsedBy;
        }
        else if (strGoes.empty())
        {
            a_verdict.strReason = "within the limits";
        }
        else
        {
            a_verdict.blGoes = true;
            a_verdict.strReason = strGoes;
            m_u64Size -= logfolder.u64Bytes;
            --u64Runs;
        }
    }

    std::string WhyItGoes(const LcctlLogFolder& a_logfolder, uint64_t a_u64Runs) const
    {
        const LcctlTime lcctltimeAge = LcctlNow() - LcctlWallTime(a_logfolder.filetimeWritten);
        if (m_limits.i64Older && lcctltimeAge >= *m_limits.i64Older * LCCTL_SECOND)
            return "last written " + LcctlDurationText(lcctltimeAge / LCCTL_SECOND) + " ago";
        if (m_limits.u64MaxRuns && a_u64Runs > *m_limits.u64MaxRuns)
            return fmt::format("{} newer {}", a_u64Runs - 1, a_u64Runs == 2 ? "run" : "runs");
        if (m_limits.u64MaxSize && m_u64Size > *m_limits.u64MaxSize)
            return fmt::format("{} in all", LcctlSizeText(m_u64Size));
        return "";
    }

    const Limits& m_limits;
    const Holders& m_holders;
    uint64_t m_u64Size = 0;                                          // of the folders kept
    std::map<fs::path, std::map<std::string, uint64_t>> m_mapRuns;   // kept runs by folder and application
};
}   // namespace

// ------------------------------------------------------------------------------------------------------- the command

class CLcctlClean final : public CLcctlCommand
{
public:
    const char* Name() const override { return "clean"; }
    const char* Description() const override { return "Remove old log folders, and say which stay and why"; }

    void Define(CLI::App& a_cliapp) override
    {
        a_cliapp.add_option("--older", m_strOlder, "Folders in which nothing was written for so long: 36h, 14d, 2w")
            ->check(LcctlCheck(LcctlParseDuration, "is no time; write 36h, 14d or 2w"));
        a_cliapp.add_option("--max-size", m_strMaxSize, "The oldest, until all that stay have so many bytes: 500M, 5G")
            ->check(LcctlCheck(LcctlParseSize, "is no size; write 500M or 5G"));
        a_cliapp.add_option("--max-runs", m_strMaxRuns, "All but so many of each application, the newest")
            ->check(CLI::Range(0, 1000000));
        a_cliapp.add_option("--app", m_limits.strApplication, "Folders of this application alone");
        a_cliapp.add_option("--dir", m_findargs.vecstrFolder, "Look below this folder instead; may be repeated")
            ->check(CLI::ExistingDirectory)
            ->take_all();
        a_cliapp.add_flag("--all-users", m_findargs.blAllUsers, "Of all users, as far as permitted");
        a_cliapp.add_flag("--dry-run,-n", m_blDryRun, "Only say what would go");
        a_cliapp.add_flag("--json", m_blJson, "One JSON object a folder");
        a_cliapp.footer("A folder is one run of an application. One that a process logs in never goes.");
    }

    LcctlResult Run() override
    {
        if (m_strOlder.empty() && m_strMaxSize.empty() && m_strMaxRuns.empty())
        {
            LcctlError("say what is to go: --older=14d, --max-size=5G or --max-runs=10");
            return LCCTL_USAGE;
        }
        m_limits.i64Older = LcctlParseDuration(m_strOlder);
        m_limits.u64MaxSize = LcctlParseSize(m_strMaxSize);
        if (!m_strMaxRuns.empty())
            m_limits.u64MaxRuns = std::stoull(m_strMaxRuns);
        m_findargs.blHeaders = false;
        std::vector<Verdict> vecverdict = Judge(m_limits, FindHolders()).Decide(LcctlFindFolders(m_findargs));
        if (vecverdict.empty())
        {
            LcctlError("no log folders found; --dir names another place, --all-users looks into all homes");
            return LCCTL_NOTHING;
        }
        bool blFailed = false;
        for (Verdict& verdict : vecverdict)
        {
            blFailed |= !Carry(verdict);
            Show(verdict);
        }
        if (!m_blJson)
            ShowSum(vecverdict);
        return blFailed ? LCCTL_NOTHING : LCCTL_OK;
    }

private:
    // False, and reported, when the folder could not be removed, for example because a process has begun to log there.
    bool Carry(Verdict& a_verdict) const
    {
        if (!a_verdict.blGoes || m_blDryRun)
            return true;
        const std::string strFolder = a_verdict.logfolder.path.string();
        const CLcctlActAs actas(LcctlHomeOwner(a_verdict.logfolder.path));
        const EOSSTS eossts = OsLogRemoveFolder(strFolder.c_str());
        a_verdict.blDone = eossts == EOSSTS_SUCCESS;
        a_verdict.blGoes = a_verdict.blDone;
        if (a_verdict.blDone)
            return true;
        a_verdict.strReason = eossts == EOSSTS_SHARING ? "in use" : "cannot be removed";
        if (eossts == EOSSTS_SHARING)
            return true;
        LcctlError(fmt::format("{} cannot be removed; is it yours, and its file system writable?", strFolder));
        return false;
    }

    void Show(const Verdict& a_verdict) const
    {
        const LcctlLogFolder& logfolder = a_verdict.logfolder;
        if (m_blJson)
        {
            LcctlPrintJson({{"folder", logfolder.path.string()},
                            {"application", logfolder.strApplication},
                            {"start", LcctlTimeText(logfolder.lcctltimeStart, 'T')},
                            {"bytes", logfolder.u64Bytes},
                            {"files", logfolder.u64Files},
                            {"goes", a_verdict.blGoes},
                            {"removed", a_verdict.blDone},
                            {"reason", a_verdict.strReason}});
            return;
        }
        const char* const szWord = !a_verdict.blGoes ? "keep" : m_blDryRun ? "would remove" : "removed";
        fmt::print("{:<12} {:>7}  {}  {} ({})\n", szWord, LcctlSizeText(logfolder.u64Bytes),
                   LcctlTimeText(logfolder.lcctltimeStart).substr(0, 19), logfolder.path.string(), a_verdict.strReason);
    }

    void ShowSum(const std::vector<Verdict>& a_vecverdict) const
    {
        uint64_t au64Folders[2] = {};
        uint64_t au64Bytes[2] = {};
        for (const Verdict& verdict : a_vecverdict)
        {
            ++au64Folders[verdict.blGoes ? 1 : 0];
            au64Bytes[verdict.blGoes ? 1 : 0] += verdict.logfolder.u64Bytes;
        }
        fmt::print("{} {} folders with {}; {} with {} stay\n", m_blDryRun ? "would remove" : "removed", au64Folders[1],
                   LcctlSizeText(au64Bytes[1]), au64Folders[0], LcctlSizeText(au64Bytes[0]));
    }

    Limits m_limits;
    LcctlFindArgs m_findargs;
    std::string m_strOlder;
    std::string m_strMaxSize;
    std::string m_strMaxRuns;
    bool m_blDryRun = false;
    bool m_blJson = false;
};

void LcctlAddClean(LcctlCommands& a_lcctlcommands)
{
    a_lcctlcommands.push_back(std::make_unique<CLcctlClean>());
}
