// lcctl_logprogress.h: a bar on the standard error stream, where reading takes long and somebody waits before a
// terminal.
#pragma once

#include <chrono>
#include <cstdint>

class CLcctlLogProgress
{
public:
    // a_u64Bytes: all that will be read. Without a_blWanted nothing is shown.
    CLcctlLogProgress(uint64_t a_u64Bytes, bool a_blWanted);
    ~CLcctlLogProgress();   // takes the bar away
    CLcctlLogProgress(const CLcctlLogProgress&) = delete;
    CLcctlLogProgress& operator=(const CLcctlLogProgress&) = delete;

    // Cheap enough to be called for every record; a_bytes() tells how much has been read.
    template <class Bytes>
    void Step(Bytes a_bytes)
    {
        if (m_blWanted && ++m_u32Steps % LCCTL_STEPS == 0 && IsTime())
            Show(a_bytes());
    }

private:
    static constexpr uint32_t LCCTL_STEPS = 4096;   // between two looks at the clock
    bool IsTime();
    void Show(uint64_t a_u64Bytes);

    uint64_t m_u64Bytes;
    bool m_blWanted;
    bool m_blShown = false;
    uint32_t m_u32Steps = 0;
    std::chrono::steady_clock::time_point m_timepointNext;
};
