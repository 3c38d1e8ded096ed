// lcctl_logoutput.h: the standard output, written by a thread of its own, so that the next buffer is filled meanwhile.
#pragma once

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

class CLcctlLogOutput
{
public:
    CLcctlLogOutput() = default;
    ~CLcctlLogOutput() = default;   // what was handed over is written
    CLcctlLogOutput(const CLcctlLogOutput&) = delete;
    CLcctlLogOutput& operator=(const CLcctlLogOutput&) = delete;

    // Takes the first a_sizetUsed bytes, and gives another buffer of that size back. Throws std::runtime_error when the
    // output did not take what was handed over before.
    void HandOver(std::string& a_strBuffer, size_t a_sizetUsed);

    // Returns when all has been written; throws as HandOver does.
    void Finish();

private:
    void WriteUntilStopped(const std::stop_token& a_stoptoken);
    void ThrowIfFailed() const;

    std::mutex m_mutex;
    std::condition_variable_any m_condition;
    std::string m_strBuffer;
    size_t m_sizetUsed = 0;   // that is to be written
    int m_iErrno = 0;
    std::jthread m_jthread;   // ends first
};
