// lcctl_logs.h: the command that reads logs: its options and its work.
//
//   lcctl_find         finds logs                   lcctl_logselect   selects those that are read
//   lcctl_logreader    one log, record by record    lcctl_logmerge    all of them, by time
//   lcctl_logfilter    selects records              lcctl_logwriter   writes them
//   lcctl_logline, lcctl_logdate, lcctl_logtime     prefixes, days, times
#pragma once

#include "lcctl_command.h"
#include "lcctl_logfilter.h"
#include "lcctl_logmerge.h"
#include "lcctl_logselect.h"
#include "lcctl_logwriter.h"

#include <optional>
#include <string>

class CLcctlLogs final : public CLcctlCommand
{
public:
    void Define(CLI::App& a_cliapp) override;
    const char* Name() const override { return "logs"; }
    const char* Description() const override { return "Merges the logs of an application's processes by time"; }
    LcctlResult Run() override;

private:
    void DefineTimes(CLI::App& a_cliapp);
    void DefineOutput(CLI::App& a_cliapp);
    bool ReadTimes();
    bool ReadLevels();
    LcctlResult Nothing() const;
    LcctlResult List();
    LcctlResult Paths(const std::vector<LcctlLogFile>& a_vecfile) const;
    LcctlResult Merge(const std::vector<LcctlLogFile>& a_vecfile);
    void Follow();
    void WriteAll();
    void WriteOne(const CLcctlLogReader& a_lcctllogreader);
    void AddLogs(const std::vector<LcctlLogFile>& a_vecfile);

    std::string m_strSince;
    std::string m_strUntil;
    std::string m_strLevel;
    std::string m_strLines;
    bool m_blFollow = false;
    bool m_blList = false;
    bool m_blPaths = false;
    bool m_blJson = false;
    LcctlSelectArgs m_selectargs;
    LcctlFilterArgs m_filterargs;

    std::unique_ptr<CLcctlLogSelect> m_uniqueSelect;
    std::unique_ptr<CLcctlLogFilter> m_uniqueFilter;
    std::unique_ptr<CLcctlLogWriter> m_uniqueWriter;
    CLcctlLogMerge m_lcctllogmerge;
    uint64_t m_u64Bytes = 0;   // of all logs
    bool m_blFailed = false;
    bool m_blRestWanted = false;                  // whether the record before was selected
    const CLcctlLogReader* m_preader = nullptr;   // its reader
};
