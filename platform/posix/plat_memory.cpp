// plat_memory.cpp: memory from the system, and what the system tells about it. The reports read /proc with plain
// reads into buffers on the stack: they are asked for when there is no memory left.
#include "plat_memory.h"
#include "plat_posix.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string_view>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

static size_t PageSize()
{
    static const auto g_sizetPage = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    return g_sizetPage;
}

// ------------------------------------------------------------------------------------------------------ allocation

void* PlatMemoryPageAlloc(size_t a_sizetBytes, size_t* a_psizetCommitted)
{
    const size_t sizetCommitted = (a_sizetBytes + PageSize() - 1) / PageSize() * PageSize();
    void* pvBlock = MAP_FAILED;
    if (sizetCommitted >= a_sizetBytes)
        pvBlock = mmap(nullptr, sizetCommitted, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (pvBlock == MAP_FAILED)
    {
        PlatSetLastError(a_sizetBytes == 0 ? PLAT_ERROR_INVALIDPARAMETER : PLAT_ERROR_NOMEMORY);
        return nullptr;
    }
    *a_psizetCommitted = sizetCommitted;
    return pvBlock;
}

bool PlatMemoryPageFree(void* a_pvBlock, size_t a_sizetCommitted)
{
    return munmap(a_pvBlock, a_sizetCommitted) == 0 || PosixFailErrno();
}

void* PlatMemoryHeapAlloc(size_t a_sizetBytes)
{
    void* pvBlock = calloc(1, a_sizetBytes ? a_sizetBytes : 1);
    if (!pvBlock)
        PlatSetLastError(PLAT_ERROR_NOMEMORY);
    return pvBlock;
}

void PlatMemoryHeapFree(void* a_pvBlock)
{
    free(a_pvBlock);
}

void* PlatMemoryGlobalAlloc(size_t a_sizetBytes, bool, size_t* a_psizetSize)
{
    void* pvBlock = PlatMemoryHeapAlloc(a_sizetBytes);
    if (pvBlock)
        *a_psizetSize = a_sizetBytes;
    return pvBlock;
}

void PlatMemoryGlobalFree(void* a_pvBlock)
{
    free(a_pvBlock);
}

bool PlatMemoryValidate()
{
    return true;
}

size_t PlatMemoryPageSize()
{
    return PageSize();
}

size_t PlatMemoryGranularity()
{
    return PageSize();
}

// -------------------------------------------------------------------------------------------- reading a proc file

namespace
{
// A file read line by line through a buffer of its own.
class LineReader
{
public:
    explicit LineReader(const char* a_szPath) : m_posixdescriptor(open(a_szPath, O_RDONLY | O_CLOEXEC)) {}

    bool IsOpen() const { return m_posixdescriptor.IsOpen(); }

    // The next line without its end, null after the last. Of a line that is longer than the buffer, the rest comes
    // as lines of their own.
    const char* Next()
    {
        char* pchLine = m_achBuffer + m_sizetTaken;
        auto* pchEnd = static_cast<char*>(memchr(pchLine, '\n', m_sizetFilled - m_sizetTaken));
        if (!pchEnd)
        {
            Refill();
            pchLine = m_achBuffer;
            pchEnd = static_cast<char*>(memchr(pchLine, '\n', m_sizetFilled));
            if (m_sizetFilled == 0)
                return nullptr;
            if (!pchEnd)
                pchEnd = pchLine + m_sizetFilled;
        }
        *pchEnd = 0;
        const auto sizetNext = static_cast<size_t>(pchEnd - m_achBuffer) + 1;
        m_sizetTaken = sizetNext < m_sizetFilled ? sizetNext : m_sizetFilled;
        return pchLine;
    }

private:
    void Refill()
    {
        m_sizetFilled -= m_sizetTaken;
        memmove(m_achBuffer, m_achBuffer + m_sizetTaken, m_sizetFilled);
        m_sizetTaken = 0;
        while (m_sizetFilled < sizeof m_achBuffer - 1)
        {
            char* pchFree = m_achBuffer + m_sizetFilled;
            const size_t sizetFree = sizeof m_achBuffer - 1 - m_sizetFilled;
            const ssize_t ssizetRead = PosixRetry([&] { return read(m_posixdescriptor.Get(), pchFree, sizetFree); });
            if (ssizetRead <= 0)
                break;
            m_sizetFilled += static_cast<size_t>(ssizetRead);
        }
    }

    PosixDescriptor m_posixdescriptor;
    size_t m_sizetTaken = 0;
    size_t m_sizetFilled = 0;
    char m_achBuffer[8192] = {};
};

// A line "Name:   123 kB", and where its number goes, in bytes.
struct Figure
{
    std::string_view strviewName;   // with the colon
    uint64_t* pu64Bytes;
};
}   // namespace

template <size_t Count>
static bool ReadFigures(const char* a_szPath, const Figure (&a_afigure)[Count])
{
    LineReader linereader(a_szPath);
    if (!linereader.IsOpen())
        return PosixFailErrno();
    while (const char* szLine = linereader.Next())
    {
        for (const Figure& figure : a_afigure)
        {
            if (std::string_view(szLine).starts_with(figure.strviewName))
                *figure.pu64Bytes = strtoull(szLine + figure.strviewName.size(), nullptr, 10) * 1024;
        }
    }
    return true;
}

// --------------------------------------------------------------------------------------------------------- figures

static constexpr uint64_t g_u64UserSpaceEnd = 0x7ffffffff000;   // 47 bits, less a page that is never mapped

bool PlatMemoryGetStatus(PlatMemoryStatus* a_pplatmemorystatus)
{
    *a_pplatmemorystatus = {};
    uint64_t u64Used = 0;
    const Figure afigureMachine[] = {{"MemTotal:", &a_pplatmemorystatus->u64TotalPhysical},
                                     {"MemAvailable:", &a_pplatmemorystatus->u64AvailPhysical},
                                     {"SwapTotal:", &a_pplatmemorystatus->u64TotalPagefile},
                                     {"SwapFree:", &a_pplatmemorystatus->u64AvailPagefile}};
    const Figure afigureProcess[] = {{"VmSize:", &u64Used}};
    if (!ReadFigures("/proc/meminfo", afigureMachine) || !ReadFigures("/proc/self/status", afigureProcess))
        return false;

    a_pplatmemorystatus->u64TotalVirtual = g_u64UserSpaceEnd;
    a_pplatmemorystatus->u64AvailVirtual = u64Used < g_u64UserSpaceEnd ? g_u64UserSpaceEnd - u64Used : 0;
    if (a_pplatmemorystatus->u64TotalPhysical > 0)
    {
        const uint64_t u64InUse = a_pplatmemorystatus->u64TotalPhysical - a_pplatmemorystatus->u64AvailPhysical;
        a_pplatmemorystatus->u32Load = static_cast<uint32_t>(u64InUse * 100 / a_pplatmemorystatus->u64TotalPhysical);
    }
    return true;
}

bool PlatMemoryWorkingSet(uint64_t* a_pu64Bytes, uint64_t* a_pu64Pages)
{
    LineReader linereader("/proc/self/statm");
    const char* szLine = linereader.IsOpen() ? linereader.Next() : nullptr;
    const char* szResident = szLine ? strchr(szLine, ' ') : nullptr;   // the second number, in pages
    if (!szResident)
        return PosixFail(PLAT_ERROR_GENFAILURE);
    *a_pu64Pages = strtoull(szResident, nullptr, 10);
    *a_pu64Bytes = *a_pu64Pages * PageSize();
    return true;
}

// The system remembers no peak of the private bytes: it is the most that was seen here.
bool PlatMemoryGetUsage(PlatMemoryUsage* a_pplatmemoryusage)
{
    static std::atomic<uint64_t> g_u64Peak{0};
    uint64_t u64Data = 0;
    uint64_t u64Stack = 0;
    struct rusage rusage = {};
    *a_pplatmemoryusage = {};
    const Figure afigure[] = {
        {"VmHWM:", &a_pplatmemoryusage->u64PeakWorkingSet}, {"VmData:", &u64Data}, {"VmStk:", &u64Stack}};
    if (!ReadFigures("/proc/self/status", afigure))
        return false;
    if (getrusage(RUSAGE_SELF, &rusage) != 0)
        return PosixFailErrno();
    a_pplatmemoryusage->u32PageFaults = static_cast<uint32_t>(rusage.ru_minflt + rusage.ru_majflt);
    a_pplatmemoryusage->u64PagefileUsage = u64Data + u64Stack;
    a_pplatmemoryusage->u64PeakPagefileUsage = std::max(g_u64Peak.load(), u64Data + u64Stack);
    g_u64Peak.store(a_pplatmemoryusage->u64PeakPagefileUsage);
    return true;
}

// --------------------------------------------------------------------------------------------------------- regions

// Takes "low-high perm ..." apart. The rest of an overlong line is no such text.
static bool ParseRegion(const char* a_szLine, uint64_t& a_u64Low, uint64_t& a_u64High)
{
    char* pchEnd = nullptr;
    a_u64Low = strtoull(a_szLine, &pchEnd, 16);
    if (pchEnd == a_szLine || *pchEnd != '-')
        return false;
    const char* pchHigh = pchEnd + 1;
    a_u64High = strtoull(pchHigh, &pchEnd, 16);
    return pchEnd != pchHigh && *pchEnd == ' ' && a_u64High > a_u64Low;
}

bool PlatMemoryListRegions(PlatMemoryRegionProc a_platmemoryregionproc, void* a_pvContext)
{
    LineReader linereader("/proc/self/maps");
    if (!linereader.IsOpen())
        return PosixFailErrno();
    uint64_t u64Reached = 0;
    const auto tell = [&](uint64_t a_u64Low, uint64_t a_u64High, bool a_blFree) {
        const PlatMemoryRegion platmemoryregion{a_u64Low, a_u64High - a_u64Low, a_blFree};
        u64Reached = a_u64High;
        return a_u64High == a_u64Low || a_platmemoryregionproc(a_pvContext, &platmemoryregion);
    };
    while (const char* szLine = linereader.Next())
    {
        uint64_t u64Low = 0;
        uint64_t u64High = 0;
        if (!ParseRegion(szLine, u64Low, u64High) || u64Low < u64Reached || u64High > g_u64UserSpaceEnd)
            continue;
        if (!tell(u64Reached, u64Low, true) || !tell(u64Low, u64High, false))
            return true;
    }
    tell(u64Reached, g_u64UserSpaceEnd, true);
    return true;
}
