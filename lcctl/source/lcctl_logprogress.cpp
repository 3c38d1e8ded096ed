// lcctl_logprogress.cpp: shown after one second, then updated five times a second.
#include "lcctl_logprogress.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdio>
#include <string>

using namespace std::chrono_literals;

CLcctlLogProgress::CLcctlLogProgress(uint64_t a_u64Bytes, bool a_blWanted)
    : m_u64Bytes(std::max<uint64_t>(a_u64Bytes, 1)),
      m_blWanted(a_blWanted),
      m_timepointNext(std::chrono::steady_clock::now() + 1s)
{
}

CLcctlLogProgress::~CLcctlLogProgress()
{
    if (m_blShown)
        std::fputs("\r\x1B[K", stderr);
}

bool CLcctlLogProgress::IsTime()
{
    const auto now = std::chrono::steady_clock::now();
    if (now < m_timepointNext)
        return false;
    m_timepointNext = now + 200ms;
    return true;
}

void CLcctlLogProgress::Show(uint64_t a_u64Bytes)
{
    static constexpr uint64_t g_u64Width = 40;
    static constexpr double g_dGigabyte = 1e9;
    const uint64_t u64Done = std::min(a_u64Bytes, m_u64Bytes);
    const std::string strBar(u64Done * g_u64Width / m_u64Bytes, '#');
    m_blShown = true;
    fmt::print(stderr, "\r{:3} % [{:{}}] {:.1f} of {:.1f} GB ", u64Done * 100 / m_u64Bytes, strBar, g_u64Width,
               static_cast<double>(u64Done) / g_dGigabyte, static_cast<double>(m_u64Bytes) / g_dGigabyte);
    std::fflush(stderr);
}
