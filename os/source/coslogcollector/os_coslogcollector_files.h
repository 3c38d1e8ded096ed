// os_coslogcollector_files.h: the log files that a collector writes, each with the streams that go into it.
//
// A file is one object, found by its identity, so streams that name it by different paths share it. A stream that has
// its file alone is written as it comes. Of several, only whole lines are written, and what begins a line is held back
// for a while; so their lines never mix, and each is one append, beside which other processes may append theirs.
#pragma once

#include "os_cosfile.h"

#include <condition_variable>
#include <memory>
#include <mutex>
#include <string_view>
#include <vector>

inline constexpr uint32_t OS_LC_RESTTIMEOUT = 200;    // ms that the beginning of a line is held back
inline constexpr size_t OS_LC_RESTSIZE = 64 * 1024;   // bytes of it, at most

// The end of a stream's text that is held back until its line is complete. The memory is there from the first text on.
class COsLogCollectorRest
{
public:
    COsLogCollectorRest() = default;
    ~COsLogCollectorRest();
    COsLogCollectorRest(const COsLogCollectorRest&) = delete;
    COsLogCollectorRest& operator=(const COsLogCollectorRest&) = delete;

    std::string_view Text() const { return {m_pchBuffer, m_sizetText}; }
    bool IsEmpty() const { return m_sizetText == 0; }

    // Appends a piece. False without memory, nothing is changed then.
    bool Add(std::string_view a_strviewPiece);

    void DropFront(size_t a_sizetText);

private:
    char* m_pchBuffer = nullptr;
    size_t m_sizetText = 0;
};

// What a stream has at its file: the text held back, and what was lost. It belongs to the stream, which takes it along
// to another file; while the stream is at a file, it is used under the file's lock.
struct LogCollectorWriter
{
    COsLogCollectorRest oslogcollectorrest;
    uint64_t u64RestDue = 0;   // for the stream alone: when the rest is to be written, 0 for none
    uint64_t u64Missing = 0;   // bytes lost that no line of the file tells of
    uint64_t u64Told = 0;      // that a line of the file tells of, not yet the collector's own log
    uint32_t u32Error = 0;     // with which the system refused the last of them
    bool blDropping = false;   // the beginning of the line was lost, so its rest is dropped

    // Counts text as lost, together with the rest of the line that it ends in.
    void Lose(std::string_view a_strview);

    // Counts what belongs to a line whose beginning was lost; returns the text behind it.
    std::string_view Drop(std::string_view a_strview);
};

// One open log file. All operations from any thread.
class COsLogCollectorFile
{
public:
    // As COsFile says. Before the file is in the table.
    EOSSTS Open(const char* a_szPath, EOSFILEGUARD a_eosfileguard);
    bool GetIdentity(OsFileIdentity* a_posfileidentity) const { return m_osfile.GetIdentity(a_posfileidentity); }

    // True while the path names this file.
    bool IsNamedBy(const char* a_szPath);

    // A stream comes; the number of streams. A stream goes.
    size_t Enter(LogCollectorWriter& a_logcollectorwriter);
    void Leave(LogCollectorWriter& a_logcollectorwriter);

    // Takes a piece of at most OS_LC_PIECESIZE bytes of a stream. While the file ends inside the line of another
    // stream, waits for the rest of that, OS_LC_RESTTIMEOUT at most since its last part. False when the system refused
    // to write: what it did not take is lost and counted.
    bool Write(LogCollectorWriter& a_logcollectorwriter, std::string_view a_strviewPiece);

    // Writes what one stream has held back, or every one but a_plogcollectorwriterNot (may be null).
    bool WriteRest(LogCollectorWriter& a_logcollectorwriter);
    void WriteRests(const LogCollectorWriter* a_plogcollectorwriterNot);

    // A stream is about to go on elsewhere: writes what completes its line, if the file ends in that; returns the rest
    // of the piece.
    std::string_view EndLine(LogCollectorWriter& a_logcollectorwriter, std::string_view a_strviewPiece);

    // A stream ends: writes its rest, and tries once more to tell what is missing.
    void End(LogCollectorWriter& a_logcollectorwriter);

    // Writes what is held back, to the disk. Closing waits for it.
    void Flush();
    void Close();

private:
    using Lock = std::unique_lock<std::mutex>;

    bool IsTurnOf(const LogCollectorWriter& a_logcollectorwriter, uint64_t* a_pu64Milliseconds) const;
    void WaitForTurn(Lock& a_lock, const LogCollectorWriter& a_logcollectorwriter);
    void Wait(Lock& a_lock, uint64_t a_u64Milliseconds);
    template <class Action>
    bool InTurn(LogCollectorWriter& a_logcollectorwriter, Action a_action);
    void EndsInLineOf(const LogCollectorWriter* a_plogcollectorwriter);
    bool PutRest(LogCollectorWriter& a_logcollectorwriter);
    bool PutLines(LogCollectorWriter& a_logcollectorwriter, std::string_view a_strviewPiece, bool a_blAll);
    bool Put(LogCollectorWriter& a_logcollectorwriter, std::string_view a_strview);
    bool BeginLine(LogCollectorWriter& a_logcollectorwriter);
    bool EndsInsideLine();

    COsFile m_osfile;
    char m_szPath[OS_PATHSIZE] = {};   // of the stream that opened it
    std::mutex m_mutexFlush;           // taken before the other one
    bool m_blClosed = false;
    std::mutex m_mutex;
    std::condition_variable m_conditionvariable;
    std::vector<LogCollectorWriter*> m_vecplogcollectorwriter;
    const LogCollectorWriter* m_plogcollectorwriterInside = nullptr;   // in whose line the file ends
    uint64_t m_u64Inside = 0;                                          // since when
    uint32_t m_u32Waiting = 0;                                         // streams that wait for the end of that line
    bool m_blTorn = false;   // a write was refused: the file may end inside a line that nobody completes
};

// The files of a collector. All operations from any thread.
class COsLogCollectorFiles
{
public:
    using Reference = std::shared_ptr<COsLogCollectorFile>;

    // Opens a file for one more stream, with the rights of the calling thread, and only then finds it open already.
    // Null, and logged, when it cannot be opened.
    Reference Open(const char* a_szPath, EOSFILEGUARD a_eosfileguard, LogCollectorWriter& a_logcollectorwriter);

    // A stream leaves its file, which closes with the last one: true then.
    bool Leave(Reference& a_reference, LogCollectorWriter& a_logcollectorwriter);

    // Flushes one file after the other. Nobody waits for the disk but a stream that ends while its own file is at it.
    void Flush();

private:
    struct Entry
    {
        OsFileIdentity osfileidentity;
        Reference reference;
        size_t sizetStreams = 0;
    };

    Reference Enter(Entry a_entry, LogCollectorWriter& a_logcollectorwriter);

    std::mutex m_mutex;   // not while a file's is taken, or waited for: a disk may hold that up
    std::vector<Entry> m_vecentry;
};
