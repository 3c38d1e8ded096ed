// lcctl_logoutput.h: writes the standard output on a thread of its own while the next buffer is filled.
#pragma once

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

class CLcctlLogOutput
{
public:
    CLcctlLogOutput() = default;
    ~CLcctlLogOutput() = default;   // waits until the pending data is written
    CLcctlLogOutput(const CLcctlLogOutput&) = delete;
    CLcctlLogOutput& operator=(const CLcctlLogOutput&) = delete;

    // Queues the first a_sizetUsed bytes for writing and swaps in another buffer of the same size. Throws
    // std::runtime_error when the previous write failed.
    void HandOver(std::string& a_strBuffer, size_t a_sizetUsed);

    // Waits until everything is written; throws as HandOver does.
    void Finish();

private:
    void WriteUntilStopped(const std::stop_token& a_stoptoken);
    void ThrowIfFailed() const;

    std::mutex m_mutex;
    std::condition_variable_any m_condition;
    std::string m_strBuffer;
    size_t m_sizetUsed = 0;   // to be written
    int m_iErrno = 0;
    std::jthread m_jthread;   // joined first
};
