// lcctl_logwriter.h: writes records to standard output as lines or JSON objects.
//
//   2026-11-23 14:01:24.993477 13983 error os/source/os_cosfile:194 message
//
// Following lines without a date continue that line. On a terminal, control characters are escaped.
#pragma once

#include "lcctl_logoutput.h"
#include "lcctl_logreader.h"

#include <cstdint>
#include <deque>
#include <string>

class CLcctlLogWriter
{
public:
    CLcctlLogWriter(bool a_blJson, bool a_blTerminal);

    // Throws std::runtime_error when a write fails.
    void Write(const LcctlRecord& a_lcctlrecord, const std::filesystem::path& a_path);
    void Flush();

    // From now on keeps only the last so many records, until Release writes them.
    void KeepLast(uint64_t a_u64Records);
    void Release();

    uint64_t Records() const { return m_u64Records; }

private:
    char* Room(size_t a_sizet);
    void Put(std::string_view a_svText);
    void PutLine(const LcctlRecord& a_lcctlrecord);
    char* PutTime(char* a_pch, const LcctlRecord& a_lcctlrecord);
    void PutText(const LcctlRecord& a_lcctlrecord);
    void PutPiece(std::string_view a_svLine);
    void PutJson(const LcctlRecord& a_lcctlrecord, const std::filesystem::path& a_path);
    void WriteOut();

    bool m_blJson;
    bool m_blTerminal;
    CLcctlLogOutput m_lcctllogoutput;
    std::string m_strBuffer;   // always at full size
    size_t m_sizetUsed = 0;
    uint64_t m_u64Records = 0;
    int64_t m_i64Day = INT64_MIN;   // of m_achDate
    char m_achDate[10] = {};
    bool m_blKeep = false;
    uint64_t m_u64Keep = 0;
    std::deque<std::string> m_dequestrKept;
};
