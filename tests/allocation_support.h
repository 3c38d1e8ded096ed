// allocation_support.h: lets one allocation of a test program fail. It replaces operators, so a program has it once.
#pragma once

#include <atomic>
#include <cstdlib>
#include <new>

// Counts down; the allocation that makes it 0 fails. 0: none fails.
inline std::atomic<int> g_iAllocationsLeft = 0;

// Not inlined: the compiler would take what malloc gave for something that new gave.
[[gnu::noinline]] void* operator new(size_t a_sizetBytes)
{
    const bool blFails = g_iAllocationsLeft > 0 && --g_iAllocationsLeft == 0;
    void* const pv = blFails ? nullptr : std::malloc(a_sizetBytes ? a_sizetBytes : 1);
    if (!pv)
        throw std::bad_alloc();
    return pv;
}
[[gnu::noinline]] void operator delete(void* a_pv) noexcept
{
    std::free(a_pv);
}
[[gnu::noinline]] void operator delete(void* a_pv, size_t) noexcept
{
    std::free(a_pv);
}
