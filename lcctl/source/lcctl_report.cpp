// lcctl_report.cpp: packs everything that a support engineer needs into one archive.
//
//   the contents   the newest run of each application, the support report, the doctor's findings, the environment
//   the archive    a compressed tar file
//   the command
#include "lcctl_command.h"
#include "lcctl_doctor.h"
#include "lcctl_find.h"
#include "lcctl_text.h"
#include "lcctl_user.h"

#include "os_coscfg.h"
#include "os_coslog.h"
#include "os_cosservices.h"

#include <archive.h>
#include <archive_entry.h>
#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <fstream>
#include <map>
#include <string_view>

namespace fs = std::filesystem;

extern char** environ;

// One file of the archive: the content is a file or a text.
struct Content
{
    std::string strName;
    fs::path path;
    std::string strText;
};
using Contents = std::vector<Content>;

// ------------------------------------------------------------------------------------------------------ the contents

// Only variables about logging: others may contain secrets.
static bool IsTold(std::string_view a_svVariable)
{
    static constexpr std::string_view g_asvName[] = {"LANG=", "LANGUAGE=", "TZ=", "PATH="};
    return a_svVariable.starts_with("MVR_") || a_svVariable.starts_with("LC_") ||
           std::any_of(std::begin(g_asvName), std::end(g_asvName),
                       [a_svVariable](std::string_view a_sv) { return a_svVariable.starts_with(a_sv); });
}

static std::string EnvironmentText()
{
    std::string strText;
    for (char** ppsz = environ; ppsz && *ppsz; ++ppsz)
    {
        if (IsTold(*ppsz))
            strText += std::string(*ppsz) + "\r\n";
    }
    return strText;
}

static std::string FileText(const fs::path& a_path)
{
    std::ifstream stream(a_path, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
}

// The first section of the library's report lists the whole environment.
static std::string WithoutSecrets(const std::string& a_strReport)
{
    const size_t sizetFirst = a_strReport.find("*** Environmentals ***");
    const size_t sizetBody = a_strReport.find("\r\n", sizetFirst);
    const size_t sizetNext = a_strReport.find("\r\n*** BRAND ***", sizetBody);
    if (sizetNext == std::string::npos)
        return "";
    std::string strReport = a_strReport.substr(0, sizetBody + 2) + "\r\n";
    for (size_t sizetLine = sizetBody + 2; sizetLine < sizetNext;)
    {
        const size_t sizetEnd = a_strReport.find('\n', sizetLine) + 1;
        const std::string_view svLine = std::string_view(a_strReport).substr(sizetLine, sizetEnd - sizetLine);
        if (IsTold(svLine))
            strReport += svLine;
        sizetLine = sizetEnd;
    }
    return strReport + a_strReport.substr(sizetNext);
}

// The library's report, written to a temporary folder.
static std::string SupportReport()
{
    std::string strFolder = (fs::temp_directory_path() / "lcctl.XXXXXX").string();
    if (!mkdtemp(strFolder.data()))
        return "";
    setenv("MVR_OSCFGDIR", strFolder.c_str(), 1);
    OsServicesSetDocument("<arguments><uniquename>lcctl</uniquename><entity>application</entity>"
                          "<loglevel>0</loglevel></arguments>");
    std::string strReport;
    if (OsServicesStart(true) == EOSSTS_SUCCESS && OsCfgGet())
        OsCfgGet()->WriteReport();
    const std::string strLog = OsLogGet() ? OsLogGet()->LogFile() : "";
    OsServicesStop();
    unsetenv("MVR_OSCFGDIR");
    std::error_code errorcode;
    for (const fs::directory_entry& entry : fs::directory_iterator(strFolder, errorcode))
        strReport = FileText(entry.path());
    fs::remove_all(strFolder, errorcode);
    if (!strLog.empty())
        OsLogRemoveFolder(LcctlHostPath(strLog).parent_path().string().c_str());
    return WithoutSecrets(strReport);
}

// The newest folder of each application, with all its files.
static void AddRuns(Contents& a_contents, const LcctlFindArgs& a_findargs, const std::string& a_strApplication)
{
    std::map<std::pair<fs::path, std::string>, const LcctlLogFolder*> mapNewest;
    const std::vector<LcctlLogFolder> veclogfolder = LcctlFindFolders(a_findargs);
    for (const LcctlLogFolder& logfolder : veclogfolder)   // oldest first
    {
        if (!logfolder.vecfile.empty() && (a_strApplication.empty() || LcctlIsOf(logfolder, a_strApplication)))
            mapNewest[{logfolder.path.parent_path(), logfolder.strApplication}] = &logfolder;
    }
    for (const auto& [pair, poslogfolder] : mapNewest)
    {
        std::error_code errorcode;
        for (fs::recursive_directory_iterator iterator(poslogfolder->path, errorcode), end;
             !errorcode && iterator != end; iterator.increment(errorcode))
        {
            const fs::path& path = iterator->path();
            const std::string strFile = path.filename().string();
            if (iterator->symlink_status(errorcode).type() != fs::file_type::regular || strFile == "log.lock")
                continue;
            const bool blReport = strFile.starts_with("mvroscfg");
            a_contents.push_back({"logs/" + poslogfolder->strApplication + "/" +
                                          fs::relative(path, poslogfolder->path.parent_path()).generic_string(),
                                      blReport ? "" : path, blReport ? WithoutSecrets(FileText(path)) : ""});
        }
    }
}

// ------------------------------------------------------------------------------------------------------- the archive

namespace
{
class Archive
{
public:
    explicit Archive(const std::string& a_strPath) : m_parchive(archive_write_new())
    {
        m_blGood = m_parchive && archive_write_add_filter_gzip(m_parchive) == ARCHIVE_OK &&
                   archive_write_set_format_pax_restricted(m_parchive) == ARCHIVE_OK &&
                   archive_write_open_filename(m_parchive, a_strPath.c_str()) == ARCHIVE_OK;
    }
    ~Archive() { archive_write_free(m_parchive); }
    Archive(const Archive&) = delete;
    Archive& operator=(const Archive&) = delete;

    void Add(const std::string& a_strFolder, const Content& a_content)
    {
        std::error_code errorcode;
        const uintmax_t uSize =
            a_content.path.empty() ? a_content.strText.size() : fs::file_size(a_content.path, errorcode);
        archive_entry* const pentry = archive_entry_new();
        archive_entry_set_pathname(pentry, (a_strFolder + "/" + a_content.strName).c_str());
        archive_entry_set_size(pentry, errorcode ? 0 : static_cast<la_int64_t>(uSize));
        archive_entry_set_filetype(pentry, AE_IFREG);
        archive_entry_set_perm(pentry, 0600);
        archive_entry_set_mtime(pentry, std::time(nullptr), 0);
        m_blGood = m_blGood && archive_write_header(m_parchive, pentry) == ARCHIVE_OK;
        archive_entry_free(pentry);
        if (a_content.path.empty())
            Write(a_content.strText.data(), a_content.strText.size());
        else
            CopyFile(a_content.path, errorcode ? 0 : uSize);
    }

    // False when any step has failed; the error as text.
    bool Close()
    {
        m_blGood = archive_write_close(m_parchive) == ARCHIVE_OK && m_blGood;
        return m_blGood;
    }
    std::string Error() const
    {
        const char* const szError = archive_error_string(m_parchive);
        return szError ? szError : "it cannot be written";
    }

private:
    void Write(const char* a_pch, size_t a_sizetBytes)
    {
        m_blGood = m_blGood && archive_write_data(m_parchive, a_pch, a_sizetBytes) >= 0;
    }

    // A log may grow meanwhile: only its initial size is copied. If it shrinks, the rest is filled with zeros.
    void CopyFile(const fs::path& a_path, uintmax_t a_uBytes)
    {
        std::ifstream stream(a_path, std::ios::binary);
        std::array<char, 64 * 1024> achPiece;
        while (a_uBytes > 0 && stream)
        {
            stream.read(achPiece.data(), static_cast<std::streamsize>(std::min<uintmax_t>(a_uBytes, achPiece.size())));
            Write(achPiece.data(), static_cast<size_t>(stream.gcount()));
            a_uBytes -= static_cast<uintmax_t>(stream.gcount());
        }
    }

    archive* m_parchive;
    bool m_blGood;
};
}   // namespace

// ------------------------------------------------------------------------------------------------------- the command

class CLcctlReport final : public CLcctlCommand
{
public:
    const char* Name() const override { return "report"; }
    const char* Description() const override { return "Collect logs and settings for a support engineer"; }

    void Define(CLI::App& a_cliapp) override
    {
        a_cliapp.add_option("--output,-o", m_strOutput, "The archive [lcctl-report-DATE.tar.gz in this folder]");
        a_cliapp.add_option("--app", m_strApplication, "Logs of this application alone");
        a_cliapp.add_option("--dir", m_findargs.vecstrFolder, "Look for logs below this folder instead")
            ->check(CLI::ExistingDirectory)
            ->take_all();
        a_cliapp.add_flag("--dry-run,-n", m_blDryRun, "Only list what would be in it");
        a_cliapp.add_flag("--json", m_blJson, "One JSON object a file");
        a_cliapp.footer("Takes the newest run of each application, the support report, the findings of `lcctl doctor`, "
                        "and of\nthe environment MVR_*, language, time zone and PATH.");
    }

    LcctlResult Run() override
    {
        m_findargs.blHeaders = false;
        Contents contents;
        AddRuns(contents, m_findargs, m_strApplication);
        if (contents.empty())
            LcctlError("no logs found; the archive has settings only (--dir names another place)");
        contents.push_back(
            {"doctor.txt", "", m_blDryRun ? "" : LcctlFindingsText(LcctlExamine("lcctl", "application"))});
        contents.push_back({"support-report.txt", "", m_blDryRun ? "" : SupportReport()});
        contents.push_back({"environment.txt", "", EnvironmentText()});
        if (!m_blDryRun && !Pack(contents))
            return LCCTL_NOTHING;
        Show(contents);
        return LCCTL_OK;
    }

private:
    // The archive's name without folder and extensions is the name of the folder inside it.
    bool Pack(const Contents& a_contents)
    {
        if (m_strOutput.empty())
            m_strOutput = "lcctl-report-" + LcctlTimeText(LcctlNow()).substr(0, 10) + ".tar.gz";
        const std::string strName = fs::path(m_strOutput).filename().string();
        const std::string strFolder = strName.substr(0, strName.find(".tar"));
        std::error_code errorcode;
        Archive archive(m_strOutput);
        for (const Content& content : a_contents)
            archive.Add(strFolder, content);
        if (archive.Close())
            return true;
        LcctlError(fmt::format("{}: {}; --output names another place", m_strOutput, archive.Error()));
        fs::remove(m_strOutput, errorcode);
        return false;
    }

    void Show(const Contents& a_contents) const
    {
        for (const Content& content : a_contents)
        {
            std::error_code errorcode;
            const uintmax_t uSize =
                content.path.empty() ? content.strText.size() : fs::file_size(content.path, errorcode);
            const uint64_t u64Bytes = errorcode ? 0 : uSize;
            if (m_blJson)
                LcctlPrintJson({{"name", content.strName}, {"path", content.path.string()}, {"bytes", u64Bytes}});
            else
                fmt::print("{:>7}  {}\n", content.path.empty() && m_blDryRun ? "" : LcctlSizeText(u64Bytes),
                           content.strName);
        }
        if (!m_blDryRun && !m_blJson)
            fmt::print("{}\n", m_strOutput);
    }

    std::string m_strOutput;
    std::string m_strApplication;
    LcctlFindArgs m_findargs;
    bool m_blDryRun = false;
    bool m_blJson = false;
};

std::unique_ptr<CLcctlCommand> LcctlReport()
{
    return std::make_unique<CLcctlReport>();
}
