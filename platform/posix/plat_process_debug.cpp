// plat_process_debug.cpp: whether a debugger is attached, and how errors are told.
#include "plat_posix.h"
#include "plat_process.h"

#include <cstdlib>
#include <new>

// The kernel names the process that traces this one, 0 for none.
bool PlatProcessIsDebugged()
try
{
    static constexpr std::string_view g_strviewField = "\nTracerPid:";
    const std::string strStatus = PosixReadText("/proc/self/status");
    const size_t sizetField = strStatus.find(g_strviewField);
    return sizetField != std::string::npos &&
           std::strtol(strStatus.c_str() + sizetField + g_strviewField.size(), nullptr, 10) != 0;
}
catch (const std::bad_alloc&)
{
    return PosixFail(PLAT_ERROR_NOMEMORY);
}

// This system shows no boxes, and this processor has no faults of alignment.
void PlatProcessSetErrorMode(uint32_t) {}
