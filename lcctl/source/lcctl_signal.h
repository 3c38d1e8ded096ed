// lcctl_signal.h: the signals that ask a program to end.
#pragma once

#include <cstdint>

// During its lifetime requests to end this process (interrupt, termination, hang-up) are only recorded; one object at a
// time.
class CLcctlSignals
{
public:
    CLcctlSignals();
    ~CLcctlSignals();
    CLcctlSignals(const CLcctlSignals&) = delete;
    CLcctlSignals& operator=(const CLcctlSignals&) = delete;

    // Forwards recorded signals to a process. An interrupt is not forwarded, because the terminal sends it to both.
    // Process 0: does nothing.
    void PassOn(uint64_t a_u64ProcessId) const;
};

// True when the process was asked to end while a CLcctlSignals exists.
bool LcctlAskedToEnd();
