// os_coslogcollector_sender.h: the single connection to a collector, used by all threads of a process.
//
// A thread that finds the connection busy queues its text for the thread that is sending, which sends all queued texts
// with one call and reports each result. Under load this takes a fraction of the sends; a single thread pays for two
// short locks. A thread that is terminated meanwhile ends when its text is settled, because others wait for it.
#pragma once

#include "os_types.h"

#include <atomic>
#include <memory>
#include <mutex>
#include <string>

class COsSocket;

class COsLogCollectorSender
{
public:
    explicit COsLogCollectorSender(std::unique_ptr<COsSocket> a_uniqueSocket);
    ~COsLogCollectorSender();   // closes
    COsLogCollectorSender(const COsLogCollectorSender&) = delete;
    COsLogCollectorSender& operator=(const COsLogCollectorSender&) = delete;

    // Sends a complete text, not mixed with those of other threads; returns when the system has taken it. Any thread.
    // EOSSTS_SUCCESS; EOSSTS_DISCONNECTED when the collector has closed the connection; EOSSTS_BUSY when it has stalled
    // with the connection open. After a failure, which may have sent a part, every call fails the same way. Without
    // a_blWait a text that finds another thread sending is queued, and this is a success.
    EOSSTS Send(const void* a_pvBuffer, size_t a_sizetBytes, bool a_blWait = true);

    // Returns the queued texts that could not be sent. Any thread.
    std::string TakeUnsent();

    // The following may be called only while no thread sends.

    bool HasFailed() const { return m_eosstsFailed != EOSSTS_SUCCESS; }
    uint64_t Sent() const { return m_u64Sent; }

    // How much of the sent data the collector has read. False where the system cannot tell.
    bool ReadByCollector(uint64_t* a_pu64Read) const;

    void Close(bool a_blGraceful);   // sent data still arrives
    void LeaveToParent();            // in a forked child

private:
    struct Text
    {
        enum : uint32_t
        {
            OS_WAITS,
            OS_SETTLED,   // eossts is the result
            OS_TURN,      // its thread is the next sender
        };
        const char* pch;
        size_t sizet;
        bool blLeft = false;   // an owned copy: no thread waits for it
        EOSSTS eossts = EOSSTS_SUCCESS;
        Text* ptextNext = nullptr;
        std::atomic<uint32_t> u32State{OS_WAITS};
    };

    static Text* MakeLeft(const Text& a_text);
    bool BecomeSender(Text& a_text, bool a_blWait);
    static bool AwaitTurn(const Text& a_text);
    void Settle(Text& a_text, bool a_blSent);
    void SendWaiting(Text& a_text);
    void TakeWaiting(Text& a_text);
    Text* PassOn();
    Text* SendBatch(Text* a_ptextFirst);
    Text* Gather(Text* a_ptextFirst, const char** a_ppch, size_t* a_psizet);
    size_t SendAll(const char* a_pch, size_t a_sizet);
    void AwaitRoom();
    void LookForProgress(uint64_t a_u64Now);
    void HandOver();
    void GiveUp(EOSSTS a_eossts);

    // Guarded by the mutex.
    std::mutex m_mutex;
    bool m_blSending = false;
    Text* m_ptextFirst = nullptr;   // the waiting texts, oldest first
    Text* m_ptextLast = nullptr;
    std::string m_strUnsent;

    // Owned by the sending thread.
    std::unique_ptr<COsSocket> m_uniqueSocket;
    EOSSTS m_eosstsFailed = EOSSTS_SUCCESS;
    uint64_t m_u64Sent = 0;
    uint32_t m_u32Company = 0;      // sends left that yield first
    bool m_blStill = false;         // the collector has read nothing since:
    uint64_t m_u64StillSince = 0;   // PlatTicks
    uint64_t m_u64LookedAt = 0;
    uint64_t m_u64Read = 0;   // by the collector, at the last check
    char m_achBatch[8192];    // smaller than the least free space reported: whole lines survive a kill
};
