// lcctl_signal.h: the signals that ask a program to end.
#pragma once

#include <cstdint>

// For its life, what asks this process to end (interrupt, termination, hang-up) is noted instead; one object at a time.
class CLcctlSignals
{
public:
    CLcctlSignals();
    ~CLcctlSignals();
    CLcctlSignals(const CLcctlSignals&) = delete;
    CLcctlSignals& operator=(const CLcctlSignals&) = delete;

    // Hands what was noted since the last call to a process. An interrupt stays here: the terminal gives it to both.
    // Process 0 is none.
    void PassOn(uint64_t a_u64ProcessId) const;
};

// True when the process was asked to end while a CLcctlSignals lives.
bool LcctlAskedToEnd();
