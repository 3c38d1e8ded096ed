// os_coslogcollector_files.h: the log files that a collector writes, each with the streams that go into it.
//
// A file is one object, identified by file identity, so streams that use different paths share it. A single stream is
// written as received. With several, only whole lines are written, and an incomplete line is held back for a limited
// time; each write is one append, so lines neither mix among streams nor with those of other processes.
#pragma once

#include "os_cosfile.h"

#include <condition_variable>
#include <memory>
#include <mutex>
#include <string_view>
#include <vector>

inline constexpr uint32_t OS_LC_RESTTIMEOUT = 200;    // ms that an incomplete line is held back
inline constexpr size_t OS_LC_RESTSIZE = 64 * 1024;   // its maximum in bytes

// The end of a stream's text, held back until its line is complete. Allocated with the first text.
class COsLogCollectorRest
{
public:
    COsLogCollectorRest() = default;
    ~COsLogCollectorRest();
    COsLogCollectorRest(const COsLogCollectorRest&) = delete;
    COsLogCollectorRest& operator=(const COsLogCollectorRest&) = delete;

    std::string_view Text() const { return {m_pchBuffer, m_sizetText}; }
    bool IsEmpty() const { return m_sizetText == 0; }

    // Appends a piece. False without memory; nothing is changed then.
    bool Add(std::string_view a_strviewPiece);

    void DropFront(size_t a_sizetText);

private:
    char* m_pchBuffer = nullptr;
    size_t m_sizetText = 0;
};

// A stream's state at its file: the text held back, and losses. Owned by the stream, which keeps it when it changes
// files; guarded by the file's lock while the stream is at a file.
struct LogCollectorWriter
{
    COsLogCollectorRest oslogcollectorrest;
    uint64_t u64RestDue = 0;   // when the rest must be written, for the stream's own use; 0: none
    uint64_t u64Missing = 0;   // lost bytes not yet reported in the file
    uint64_t u64Told = 0;      // reported in the file, not yet in the collector's own log
    uint32_t u32Error = 0;     // the system error of the last loss
    bool blDropping = false;   // the beginning of the line was lost: drop the rest

    // Counts text as lost, and marks the rest of its last line to be dropped.
    void Lose(std::string_view a_strview);

    // Counts the remainder of a line whose beginning was lost; returns the text after it.
    std::string_view Drop(std::string_view a_strview);
};

// One open log file. All operations are thread-safe.
class COsLogCollectorFile
{
public:
    // As COsFile::Open. Before the file is in the table.
    EOSSTS Open(const char* a_szPath, EOSFILEGUARD a_eosfileguard);
    bool GetIdentity(OsFileIdentity* a_posfileidentity) const { return m_osfile.GetIdentity(a_posfileidentity); }

    // True while the path names this file.
    bool IsNamedBy(const char* a_szPath);

    // Adds a stream and returns the number of streams; removes a stream.
    size_t Enter(LogCollectorWriter& a_logcollectorwriter);
    void Leave(LogCollectorWriter& a_logcollectorwriter);

    // Writes a stream's piece of at most OS_LC_PIECESIZE bytes. While the file ends inside another stream's line, waits
    // for its rest, at most OS_LC_RESTTIMEOUT after its last part. False when the system refused a write; the refused
    // bytes are lost and counted.
    bool Write(LogCollectorWriter& a_logcollectorwriter, std::string_view a_strviewPiece);

    // Writes the text held back of one stream, or of all except a_plogcollectorwriterNot (may be null).
    bool WriteRest(LogCollectorWriter& a_logcollectorwriter);
    void WriteRests(const LogCollectorWriter* a_plogcollectorwriterNot);

    // Called before a stream changes files: if the file ends inside its line, writes the part of the piece that
    // completes the line. Returns the rest of the piece.
    std::string_view EndLine(LogCollectorWriter& a_logcollectorwriter, std::string_view a_strviewPiece);

    // Called at a stream's end: writes its held-back text and tries once more to report missing bytes.
    void End(LogCollectorWriter& a_logcollectorwriter);

    // Writes held-back text and flushes to the disk. Closing waits for it.
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
    char m_szPath[OS_PATHSIZE] = {};   // as named by the stream that opened it
    std::mutex m_mutexFlush;           // locked before m_mutex
    bool m_blClosed = false;
    std::mutex m_mutex;
    std::condition_variable m_conditionvariable;
    std::vector<LogCollectorWriter*> m_vecplogcollectorwriter;
    const LogCollectorWriter* m_plogcollectorwriterInside = nullptr;   // the stream inside whose line the file ends
    uint64_t m_u64Inside = 0;                                          // since when
    uint32_t m_u32Waiting = 0;                                         // streams waiting for the end of that line
    bool m_blTorn = false;   // a write was refused: the file may end in an incomplete line
};

// The files of a collector. All operations are thread-safe.
class COsLogCollectorFiles
{
public:
    using Reference = std::shared_ptr<COsLogCollectorFile>;

    // Opens a file for one more stream, with the rights of the calling thread even if the file is already open. Null,
    // and logged, on failure.
    Reference Open(const char* a_szPath, EOSFILEGUARD a_eosfileguard, LogCollectorWriter& a_logcollectorwriter);

    // Removes a stream from its file; true when it was the last one and the file was closed.
    bool Leave(Reference& a_reference, LogCollectorWriter& a_logcollectorwriter);

    // Flushes one file after the other. Only a stream that ends while its own file is being flushed waits for the disk.
    void Flush();

private:
    struct Entry
    {
        OsFileIdentity osfileidentity;
        Reference reference;
        size_t sizetStreams = 0;
    };

    Reference Enter(Entry a_entry, LogCollectorWriter& a_logcollectorwriter);

    std::mutex m_mutex;   // never held while a file's mutex is taken: a disk may block that
    std::vector<Entry> m_vecentry;
};
