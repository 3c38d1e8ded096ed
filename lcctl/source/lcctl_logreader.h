// lcctl_logreader.h: reads one log by records: a line with its prefix, and the following lines without one.
//
// A log may be written while it is read, end in a torn line, be truncated or replaced. Text before the first prefix is
// a record without one.
#pragma once

#include "lcctl_find.h"
#include "lcctl_logdate.h"
#include "lcctl_logline.h"

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

struct LcctlRecord
{
    bool blPrefix = false;   // false: continues the record before, or the log begins inside a record
    LcctlPrefix lcctlprefix{};
    LcctlTime lcctltime = 0;
    size_t sizetLines = 0;
    std::string_view svText;                      // the message with its continuation lines, without the last line end
    const std::string* pstrProcessId = nullptr;   // "-": unknown
};

class CLcctlLogReader
{
public:
    // With a_blFollow a last line counts only once it is complete, and reading continues when the log grows.
    CLcctlLogReader(const LcctlLogFile& a_logfile, bool a_blFollow);

    // Reads the next record. False at the end; with a_blFollow a later call may find more.
    bool Next();

    // Valid until the next call of Next.
    const LcctlRecord& Record() const { return m_lcctlrecord; }

    // The merge key: the record's time, but never less than that of an earlier record. Before the first record: the
    // earliest possible time.
    LcctlTime Key() const { return m_lcctltimeKey; }

    bool HasRecord() const { return m_blRecord; }   // the last call of Next has read one
    bool Failed() const { return m_blFailed; }      // it cannot be opened or read: errno has the reason
    uint64_t BytesRead() const { return m_u64Offset; }
    const std::filesystem::path& Path() const { return m_logfile.path; }

private:
    struct Close
    {
        void operator()(std::FILE* a_pfile) const { std::fclose(a_pfile); }
    };
    // A process whose header is in this log. Threads other than its first one are attributed to the latest process.
    struct Process
    {
        std::string strThread;
        std::string strProcessId;
    };
    enum class Filled
    {
        Yes,
        Ended,
        Full,
    };

    bool Open();
    void Restart();
    bool HasBeenReplaced();
    size_t ReadFile(char* a_pch, size_t a_sizet);
    Filled Fill();
    bool ReadRecord();
    bool TakeLine();
    void TakeLineTo(size_t a_sizetEnd, size_t a_sizetNext);
    void BeginRecord();
    void EndRecord();
    void TakeRunLine(LcctlTime a_lcctltimeRun);
    void AddProcess(const Process& a_process);
    void FindFirstDay();
    const std::string* ProcessOf(std::string_view a_svThread) const;

    LcctlLogFile m_logfile;
    bool m_blFollow;
    bool m_blFailed = false;
    bool m_blRecord = false;
    std::unique_ptr<std::FILE, Close> m_uniqueFile;
    uint64_t m_u64Offset = 0;

    // Offsets in the buffer: the record, the next line if already parsed, the end of the data.
    std::vector<char> m_vecch;
    size_t m_sizetRecord = 0;
    size_t m_sizetLine = 0;
    size_t m_sizetLineEnd = 0;   // after its line end; equals m_sizetLine if there is no such line
    size_t m_sizetEnd = 0;
    LcctlPrefix m_lcctlprefixLine{};
    bool m_blLinePrefix = false;
    bool m_blReplaced = false;

    std::vector<Process> m_vecprocess;
    CLcctlLogDate m_lcctllogdate;
    bool m_blDated = false;
    LcctlTime m_lcctltimeKey = 0;
    LcctlRecord m_lcctlrecord;
};
