// collector_process.h: starts the collector program for a living process, as an application does.
#pragma once

#include "plat_types.h"

#include <cstdint>
#include <string>
#include <vector>

class CollectorProcess
{
public:
    CollectorProcess() = default;
    ~CollectorProcess();   // ends the program if it still runs
    CollectorProcess(const CollectorProcess&) = delete;
    CollectorProcess& operator=(const CollectorProcess&) = delete;

    // Starts the program with these arguments. False on failure.
    bool Start(const std::string& a_strProgram, const std::vector<std::string>& a_vecstrArgument);

    // Starts it as the collector of that process and waits for its reply. False without a port within 10 s.
    bool StartFor(const std::string& a_strProgram, uint64_t a_u64ProcessIdApplication);

    // Reads standard output until it contains a_strEnd or the program closes it; "" after 10 s.
    std::string ReadOutput(const std::string& a_strEnd);

    // Waits for the end and returns the exit code; PLAT_STILLACTIVE on a timeout.
    uint32_t WaitForExit(uint32_t a_u32Milliseconds);
    void Kill();

    uint16_t Port() const { return m_u16Port; }
    uint64_t ProcessId() const { return m_u64ProcessId; }
    const std::string& Reply() const { return m_strReply; }

private:
    PlatHandle m_plathandleProcess = PLAT_INVALID;
    PlatHandle m_plathandleOutput = PLAT_INVALID;
    uint64_t m_u64ProcessId = 0;
    uint16_t m_u16Port = 0;
    std::string m_strReply;
};
