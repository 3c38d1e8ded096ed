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

static Registers Identify(uint32_t a_u32Function)
{
    Registers registers;
    __get_cpuid(a_u32Function, &registers.au32[0], &registers.au32[1], &registers.au32[2], &registers.au32[3]);
    return registers;
}

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

// Twelve registers hold up to 48 characters; makers pad them on either side.
static void CopyModel(char* a_szModel)
{
    char szModel[49] = {};
    for (uint32_t u32 = 0; u32 < 3; ++u32)
    {
        const Registers registers = Identify(g_u32Extended + 2 + u32);
        memcpy(szModel + u32 * sizeof registers.au32, registers.au32, sizeof registers.au32);
    }
    const char* szBegin = szModel + strspn(szModel, " ");
    size_t sizetLength = strlen(szBegin);
    while (sizetLength > 0 && szBegin[sizetLength - 1] == ' ')
        --sizetLength;
    memcpy(a_szModel, szBegin, sizetLength);
    a_szModel[sizetLength] = 0;
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

static void TakeFeatures(PlatProcessor* a_pplatprocessor)
{
    const Registers features = Identify(1);
    a_pplatprocessor->blFpu = Bit(features.Edx(), 0);
    a_pplatprocessor->blMmx = Bit(features.Edx(), 23);
    a_pplatprocessor->blSse = Bit(features.Edx(), 25);
    a_pplatprocessor->blSse2 = Bit(features.Edx(), 26);
    a_pplatprocessor->blHyperThreading = Bit(features.Edx(), 28);
    a_pplatprocessor->blSse3 = Bit(features.Ecx(), 0);
    a_pplatprocessor->blSse41 = Bit(features.Ecx(), 19);
    a_pplatprocessor->blSse42 = Bit(features.Ecx(), 20);
    a_pplatprocessor->blPopcnt = Bit(features.Ecx(), 23);

    const Registers extended = Identify(g_u32Extended + 1);
    a_pplatprocessor->blSse4a = Bit(extended.Ecx(), 6);
    a_pplatprocessor->bl3dNow = Bit(extended.Edx(), 31);
}

// A hypervisor that shows itself says so among the features; its functions are beyond the range of the others.
static void TakeHypervisor(char* a_szVendor)
{
    if (!Bit(Identify(1).Ecx(), 31))
        return;
    Registers registers;
    __cpuid(g_u32Hypervisor, registers.au32[0], registers.au32[1], registers.au32[2], registers.au32[3]);
    CopyVendor(a_szVendor, registers.au32[1], registers.au32[2], registers.au32[3]);
}

// What the kernel measured. Its list begins with the first processor, whose lines fit well into the buffer.
static uint32_t MeasuredMhz()
{
    char szText[4096] = {};
    const int iFile = open("/proc/cpuinfo", O_RDONLY | O_CLOEXEC);
    if (iFile < 0)
        return 0;
    const ssize_t ssizetRead = read(iFile, szText, sizeof szText - 1);
    close(iFile);
    const char* szMhz = ssizetRead > 0 ? strstr(szText, "cpu MHz") : nullptr;
    szMhz = szMhz ? strchr(szMhz, ':') : nullptr;
    return szMhz ? static_cast<uint32_t>(strtoul(szMhz + 1, nullptr, 10)) : 0;
}

bool PlatProcessorGet(PlatProcessor* a_pplatprocessor)
{
    *a_pplatprocessor = {};
    const Registers registers = Identify(0);
    CopyVendor(a_pplatprocessor->szVendor, registers.au32[1], registers.au32[3], registers.au32[2]);
    a_pplatprocessor->u32Architecture = PLAT_ARCHITECTURE_AMD64;
    a_pplatprocessor->u32MachineBits = 64;
    a_pplatprocessor->u32Level = registers.Eax();
    a_pplatprocessor->u32CacheSize = Identify(g_u32Extended + 6).Ecx() >> 16;
    a_pplatprocessor->u32Mhz = MeasuredMhz();
    SplitSignature(Identify(1).Eax(), a_pplatprocessor);
    TakeFeatures(a_pplatprocessor);
    TakeHypervisor(a_pplatprocessor->szHypervisor);
    CopyModel(a_pplatprocessor->szModel);
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
