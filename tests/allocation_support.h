// allocation_support.h: lets one allocation of a test program fail. It replaces operators, so a program has it once.
#pragma once

#include <atomic>
#include <cstdlib>
#include <new>

// Counts down; the allocation that makes it 0 fails. 0: none fails.
inline std::atomic<int> g_iAllocationsLeft = 0;

inline std::atomic<int> g_iLiveBlocks = 0;

// Not inlined: the compiler would take what malloc gave for something that new gave. The other forms are replaced since
// a sanitizer has its own of each.
[[gnu::noinline]] void* operator new(size_t a_sizetBytes, const std::nothrow_t&) noexcept
{
    const bool blFails = g_iAllocationsLeft > 0 && --g_iAllocationsLeft == 0;
    void* const pv = blFails ? nullptr : std::malloc(a_sizetBytes ? a_sizetBytes : 1);
    g_iLiveBlocks += pv != nullptr;
    return pv;
}
[[gnu::noinline]] void* operator new(size_t a_sizetBytes)
{
    if (void* const pv = operator new(a_sizetBytes, std::nothrow))
        return pv;
    throw std::bad_alloc();
}
[[gnu::noinline]] void* operator new[](size_t a_sizetBytes)
{
    return operator new(a_sizetBytes);
}
[[gnu::noinline]] void* operator new[](size_t a_sizetBytes, const std::nothrow_t&) noexcept
{
    return operator new(a_sizetBytes, std::nothrow);
}
[[gnu::noinline]] void operator delete(void* a_pv) noexcept
{
    g_iLiveBlocks -= a_pv != nullptr;
    std::free(a_pv);
}
[[gnu::noinline]] void operator delete(void* a_pv, size_t) noexcept
{
    operator delete(a_pv);
}
[[gnu::noinline]] void operator delete[](void* a_pv) noexcept
{
    operator delete(a_pv);
}
[[gnu::noinline]] void operator delete[](void* a_pv, size_t) noexcept
{
    operator delete(a_pv);
}
