// plat_processor.cpp: what the processor tells of itself.
#include "plat_machine.h"
#include "plat_posix.h"

#if defined(__x86_64__)

#include <cpuid.h>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace
{
// The four registers of one identification function; zero for a function that the processor does not have.
struct Registers
{
    uint32_t au32[4] = {};   // EAX, EBX, ECX, EDX
    uint32_t Eax() const { return au32[0]; }
    uint32_t Ecx() const { return au32[2]; }
    uint32_t Edx() const { return au32[3]; }
};
}   // namespace

static constexpr uint32_t g_u32Extended = 0x80000000;
static constexpr uint32_t g_u32Hypervisor = 0x40000000;

static Registers Execute(uint32_t a_u32Function)
{
    Registers registers;
    __cpuid(a_u32Function, registers.au32[0], registers.au32[1], registers.au32[2], registers.au32[3]);
    return registers;
}

// Where a hypervisor stands between, the instruction takes as long as hundreds of others: each function is asked once.
namespace
{
struct Identification
{
    Registers vendor = Execute(0);
    Registers features = vendor.Eax() >= 1 ? Execute(1) : Registers{};
    uint32_t u32ExtendedMost = Execute(g_u32Extended).Eax();

    Registers Extended(uint32_t a_u32Function) const
    {
        return u32ExtendedMost >= g_u32Extended + a_u32Function ? Execute(g_u32Extended + a_u32Function) : Registers{};
    }
};
}   // namespace

static bool Bit(uint32_t a_u32Register, uint32_t a_u32Bit)
{
    return ((a_u32Register >> a_u32Bit) & 1) != 0;
}

// Three registers hold twelve characters, in the order given.
static void CopyVendor(char* a_szVendor, uint32_t a_u32First, uint32_t a_u32Second, uint32_t a_u32Third)
{
    const uint32_t au32[] = {a_u32First, a_u32Second, a_u32Third};
    memcpy(a_szVendor, au32, sizeof au32);
    a_szVendor[sizeof au32] = 0;
}

// The numbers are in two parts; only these families have the second one.
static void SplitSignature(uint32_t a_u32Signature, PlatProcessor* a_pplatprocessor)
{
    const uint32_t u32Family = (a_u32Signature >> 8) & 0xF;
    const uint32_t u32Model = (a_u32Signature >> 4) & 0xF;
    a_pplatprocessor->u32Stepping = a_u32Signature & 0xF;
    a_pplatprocessor->u32Family = u32Family == 15 ? u32Family + ((a_u32Signature >> 20) & 0xFF) : u32Family;
    a_pplatprocessor->u32Model =
        u32Family == 15 || u32Family == 6 ? u32Model | ((a_u32Signature >> 12) & 0xF0) : u32Model;
}

static void TakeFeatures(const Identification& a_identification, PlatProcessor* a_pplatprocessor)
{
    const Registers& features = a_identification.features;
    a_pplatprocessor->blFpu = Bit(features.Edx(), 0);
    a_pplatprocessor->blMmx = Bit(features.Edx(), 23);
    a_pplatprocessor->blSse = Bit(features.Edx(), 25);
    a_pplatprocessor->blSse2 = Bit(features.Edx(), 26);
    a_pplatprocessor->blHyperThreading = Bit(features.Edx(), 28);
    a_pplatprocessor->blSse3 = Bit(features.Ecx(), 0);
    a_pplatprocessor->blSse41 = Bit(features.Ecx(), 19);
    a_pplatprocessor->blSse42 = Bit(features.Ecx(), 20);
    a_pplatprocessor->blPopcnt = Bit(features.Ecx(), 23);

    const Registers extended = a_identification.Extended(1);
    a_pplatprocessor->blSse4a = Bit(extended.Ecx(), 6);
    a_pplatprocessor->bl3dNow = Bit(extended.Edx(), 31);
}

// A hypervisor that shows itself says so among the features; its functions are beyond the range of the others.
static void TakeHypervisor(const Identification& a_identification, char* a_szVendor)
{
    if (!Bit(a_identification.features.Ecx(), 31))
        return;
    const Registers registers = Execute(g_u32Hypervisor);
    CopyVendor(a_szVendor, registers.au32[1], registers.au32[2], registers.au32[3]);
}

// Behind the colon of the first line of this name, without blanks on either side; null when there is none.
static const char* ValueOf(const char* a_szText, const char* a_szName, size_t* a_psizetLength)
{
    const char* sz = strstr(a_szText, a_szName);
    sz = sz ? strchr(sz, ':') : nullptr;
    if (!sz)
        return nullptr;
    sz += 1 + strspn(sz + 1, " \t");
    *a_psizetLength = strcspn(sz, "\n");
    while (*a_psizetLength > 0 && sz[*a_psizetLength - 1] == ' ')
        --*a_psizetLength;
    return sz;
}

// What the kernel knows already. Its list begins with the first processor, whose lines fit well into the buffer.
static void TakeFromKernel(PlatProcessor* a_pplatprocessor)
{
    char szText[4096] = {};
    const int iFile = open("/proc/cpuinfo", O_RDONLY | O_CLOEXEC);
    if (iFile < 0)
        return;
    const ssize_t ssizetRead = read(iFile, szText, sizeof szText - 1);
    close(iFile);
    if (ssizetRead <= 0)
        return;
    size_t sizetLength = 0;
    if (const char* const szMhz = ValueOf(szText, "cpu MHz", &sizetLength))
        a_pplatprocessor->u32Mhz = static_cast<uint32_t>(strtoul(szMhz, nullptr, 10));
    const char* const szModel = ValueOf(szText, "model name", &sizetLength);
    if (szModel && sizetLength < sizeof a_pplatprocessor->szModel)
        memcpy(a_pplatprocessor->szModel, szModel, sizetLength);
}

bool PlatProcessorGet(PlatProcessor* a_pplatprocessor)
{
    *a_pplatprocessor = {};
    const Identification identification;
    const Registers& vendor = identification.vendor;
    CopyVendor(a_pplatprocessor->szVendor, vendor.au32[1], vendor.au32[3], vendor.au32[2]);
    a_pplatprocessor->u32Architecture = PLAT_ARCHITECTURE_AMD64;
    a_pplatprocessor->u32MachineBits = 64;
    a_pplatprocessor->u32Level = vendor.Eax();
    a_pplatprocessor->u32CacheSize = identification.Extended(6).Ecx() >> 16;
    SplitSignature(identification.features.Eax(), a_pplatprocessor);
    TakeFeatures(identification, a_pplatprocessor);
    TakeHypervisor(identification, a_pplatprocessor->szHypervisor);
    TakeFromKernel(a_pplatprocessor);
    return true;
}

#else

bool PlatProcessorGet(PlatProcessor* a_pplatprocessor)
{
    *a_pplatprocessor = {};
    a_pplatprocessor->u32Architecture = PLAT_ARCHITECTURE_UNKNOWN;
    a_pplatprocessor->u32MachineBits = sizeof(void*) * 8;
    return PosixFail(PLAT_ERROR_INVALIDFUNCTION);
}

#endif
