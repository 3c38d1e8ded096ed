// lcctl_logprogress.h: a progress bar on standard error, shown on a terminal when reading takes long.
#pragma once

#include <chrono>
#include <cstdint>

class CLcctlLogProgress
{
public:
    // a_u64Bytes: the total to be read. Without a_blWanted nothing is shown.
    CLcctlLogProgress(uint64_t a_u64Bytes, bool a_blWanted);
    ~CLcctlLogProgress();   // removes the bar
    CLcctlLogProgress(const CLcctlLogProgress&) = delete;
    CLcctlLogProgress& operator=(const CLcctlLogProgress&) = delete;

    // Cheap enough to call for every record; a_bytes() returns how much has been read.
    template <class Bytes>
    void Step(Bytes a_bytes)
    {
        if (m_blWanted && ++m_u32Steps % LCCTL_STEPS == 0 && IsTime())
            Show(a_bytes());
    }

private:
    static constexpr uint32_t LCCTL_STEPS = 4096;   // between two reads of the clock
    bool IsTime();
    void Show(uint64_t a_u64Bytes);

    uint64_t m_u64Bytes;
    bool m_blWanted;
    bool m_blShown = false;
    uint32_t m_u32Steps = 0;
    std::chrono::steady_clock::time_point m_timepointNext;
};
