// os_cosspinlock.h: a spin lock for sections of a few instructions, in this process or in shared memory.
//
// A 64-bit word: 0 free, 1 held. Not re-entrant, and it does not record its owner.
#pragma once

#include <atomic>
#include <cstdint>
#include <thread>

inline bool SpinLockTry(uint64_t* a_pu64Word)
{
    uint64_t u64Free = 0;
    return std::atomic_ref<uint64_t>(*a_pu64Word)
        .compare_exchange_strong(u64Free, 1, std::memory_order_acquire, std::memory_order_relaxed);
}

inline void SpinLockAcquire(uint64_t* a_pu64Word)
{
    while (!SpinLockTry(a_pu64Word))
        std::this_thread::yield();
}

inline void SpinLockRelease(uint64_t* a_pu64Word)
{
    std::atomic_ref<uint64_t>(*a_pu64Word).fetch_and(0, std::memory_order_release);
}

inline bool SpinLockIsTaken(uint64_t* a_pu64Word)
{
    return std::atomic_ref<uint64_t>(*a_pu64Word).load(std::memory_order_relaxed) != 0;
}

// Holds the lock for the life of the object.
class COsSpinGuard
{
public:
    explicit COsSpinGuard(uint64_t* a_pu64Word) : m_pu64Word(a_pu64Word) { SpinLockAcquire(m_pu64Word); }
    ~COsSpinGuard() { SpinLockRelease(m_pu64Word); }
    COsSpinGuard(const COsSpinGuard&) = delete;
    COsSpinGuard& operator=(const COsSpinGuard&) = delete;

private:
    uint64_t* m_pu64Word;
};
