// lcctl_logmerge.h: merges the records of many logs by time; the order within a log is kept.
#pragma once

#include "lcctl_logreader.h"

#include <algorithm>
#include <memory>
#include <vector>

class CLcctlLogMerge
{
public:
    // A log is opened when its first time is reached: only logs written at the same time are open together.
    void Add(const LcctlLogFile& a_logfile, bool a_blFollow)
    {
        m_vecreader.push_back(std::make_unique<CLcctlLogReader>(a_logfile, a_blFollow));
        if (!a_blFollow)
            Push(*m_vecreader.back());
    }

    // When following logs, before each Run: reads what was written since.
    void LookForMore()
    {
        for (const auto& reader : m_vecreader)
        {
            if (reader->Next())
                Push(*reader);
        }
    }

    // Calls a_procedure(reader) for each record to the end of all logs, and a_failed(reader) for a log that cannot be
    // read.
    template <class Procedure, class Failed>
    void Run(Procedure a_procedure, Failed a_failed);

    uint64_t BytesRead() const
    {
        uint64_t u64 = 0;
        for (const auto& reader : m_vecreader)
            u64 += reader->BytesRead();
        return u64;
    }

private:
    // The earliest one is at the end.
    void Push(CLcctlLogReader& a_reader)
    {
        const auto later = [](const CLcctlLogReader* a_preader, LcctlTime a_lcctltime) {
            return a_preader->Key() > a_lcctltime;
        };
        m_vecpreader.insert(std::lower_bound(m_vecpreader.begin(), m_vecpreader.end(), a_reader.Key(), later),
                            &a_reader);
    }

    std::vector<std::unique_ptr<CLcctlLogReader>> m_vecreader;
    std::vector<CLcctlLogReader*> m_vecpreader;   // by time: those with a record, or not opened yet
};

template <class Procedure, class Failed>
void CLcctlLogMerge::Run(Procedure a_procedure, Failed a_failed)
{
    while (!m_vecpreader.empty())
    {
        CLcctlLogReader& reader = *m_vecpreader.back();
        m_vecpreader.pop_back();
        const LcctlTime lcctltimeNext = m_vecpreader.empty() ? INT64_MAX : m_vecpreader.back()->Key();
        bool blMore = true;
        if (!reader.HasRecord())
            blMore = reader.Next();
        while (blMore && reader.Key() <= lcctltimeNext)
        {
            a_procedure(reader);
            blMore = reader.Next();
        }
        if (blMore)
            Push(reader);
        else if (reader.Failed())
            a_failed(reader);
    }
}
