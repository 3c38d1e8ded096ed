// os_coslogcollector_sender.h: the one connection to a collector on which all threads of a process send.
//
// A thread that finds the connection busy leaves its text with the thread that is sending, which sends all that wait
// with one call and tells each its result. Under load that is a fraction of the sends; a single thread pays two short
// locks. Whoever is to be ended meanwhile ends when its text is settled: the others wait for it.
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

    // Sends all of a text, in one piece among those of other threads; returns when it is with the system. Any thread.
    // EOSSTS_SUCCESS; EOSSTS_DISCONNECTED when the collector has closed the connection; EOSSTS_BUSY when it stands
    // still and keeps it open. After a failure, which may leave a part sent, every call fails the same way.
    // Without a_blWait a text that finds another thread sending is left to that, and this is a success.
    EOSSTS Send(const void* a_pvBuffer, size_t a_sizetBytes, bool a_blWait = true);

    // The texts that were left and could not be sent. Any thread.
    std::string TakeUnsent();

    // What follows is for the time when no thread sends.

    bool HasFailed() const { return m_eosstsFailed != EOSSTS_SUCCESS; }
    uint64_t Sent() const { return m_u64Sent; }

    // How much of what was sent the collector has read. False where the system cannot tell.
    bool ReadByCollector(uint64_t* a_pu64Read) const;

    void Close(bool a_blGraceful);   // what was sent still arrives
    void LeaveToParent();            // in a fork

private:
    struct Text
    {
        enum : uint32_t
        {
            OS_WAITS,
            OS_SETTLED,   // eossts tells how
            OS_TURN,      // its thread is the one that sends now
        };
        const char* pch;
        size_t sizet;
        bool blLeft = false;   // with its bytes: no thread waits for it
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

    // Under the mutex.
    std::mutex m_mutex;
    bool m_blSending = false;
    Text* m_ptextFirst = nullptr;   // those that wait, oldest first
    Text* m_ptextLast = nullptr;
    std::string m_strUnsent;

    // The sending thread's.
    std::unique_ptr<COsSocket> m_uniqueSocket;
    EOSSTS m_eosstsFailed = EOSSTS_SUCCESS;
    uint64_t m_u64Sent = 0;
    uint32_t m_u32Company = 0;      // sends for which it is worth to let others come first
    bool m_blStill = false;         // the collector has read nothing since:
    uint64_t m_u64StillSince = 0;   // PlatTicks
    uint64_t m_u64LookedAt = 0;
    uint64_t m_u64Read = 0;   // by the collector, at the last look
    char m_achBatch[8192];    // less than there is room for when there is any: whole lines, also of a killed process
};
