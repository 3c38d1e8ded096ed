// lcctl_logoutput.cpp: one buffer is written while the caller fills the other one.
#include "lcctl_logoutput.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <stdexcept>
#include <unistd.h>

// A larger pipe buffer lets both ends work at the same time. Other kinds of output are left as they are.
static void WidenPipe()
{
#ifdef F_SETPIPE_SZ
    fcntl(STDOUT_FILENO, F_SETPIPE_SZ, 1 << 20);
#endif
}

void CLcctlLogOutput::HandOver(std::string& a_strBuffer, size_t a_sizetUsed)
{
    std::unique_lock lock(m_mutex);
    m_condition.wait(lock, [this] { return m_sizetUsed == 0; });
    ThrowIfFailed();
    if (!m_jthread.joinable())
    {
        m_strBuffer.resize(a_strBuffer.size());
        if (a_sizetUsed > a_strBuffer.size() / 2)   // the first of many
            WidenPipe();
        m_jthread = std::jthread([this](const std::stop_token& a_stoptoken) { WriteUntilStopped(a_stoptoken); });
    }
    m_strBuffer.swap(a_strBuffer);
    m_sizetUsed = a_sizetUsed;
    m_condition.notify_all();
}

void CLcctlLogOutput::Finish()
{
    std::unique_lock lock(m_mutex);
    m_condition.wait(lock, [this] { return m_sizetUsed == 0; });
    if (m_iErrno == 0 && std::fflush(stdout) != 0)
        m_iErrno = errno;
    ThrowIfFailed();
}

// The lock is not held during a write: the buffer belongs to the thread while there is data to write.
void CLcctlLogOutput::WriteUntilStopped(const std::stop_token& a_stoptoken)
{
    std::unique_lock lock(m_mutex);
    while (m_condition.wait(lock, a_stoptoken, [this] { return m_sizetUsed != 0; }))
    {
        lock.unlock();
        const bool blWritten = std::fwrite(m_strBuffer.data(), 1, m_sizetUsed, stdout) == m_sizetUsed;
        const int iErrno = errno;
        lock.lock();
        m_iErrno = blWritten ? m_iErrno : iErrno;
        m_sizetUsed = 0;
        m_condition.notify_all();
    }
}

void CLcctlLogOutput::ThrowIfFailed() const
{
    if (m_iErrno)
        throw std::runtime_error(fmt::format("cannot write the output: {}", std::strerror(m_iErrno)));
}
