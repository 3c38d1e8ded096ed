// os_coslogcollector_sender.cpp: sending on behalf of many threads.
//
//   the turn        which thread sends, and which texts
//   sending         a batch; waiting until the connection accepts it
//   stalling        when a collector is given up, and which side continues the file
#include "os_coslogcollector_sender.h"

#include "os_cossocket.h"

#include "plat_socket.h"
#include "plat_system.h"
#include "plat_thread.h"
#include "plat_wait.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>
#include <thread>
#include <utility>

// A waiting thread yields this often before it sleeps: a send takes some microseconds unless the collector stalls.
static constexpr uint32_t g_u32Yields = 1000;

// After a send for several threads, this many sends yield first, so that they become batches too.
static constexpr uint32_t g_u32Company = 8;

// ms. A collector that has read nothing for g_u64RoomTimeout is asked to release the file, and has until
// g_u64StillTimeout.
static constexpr uint64_t g_u64RoomTimeout = 4000;
static constexpr uint64_t g_u64StillTimeout = 5000;
static constexpr uint64_t g_u64LookPeriod = 50;

COsLogCollectorSender::COsLogCollectorSender(std::unique_ptr<COsSocket> a_uniqueSocket)
    : m_uniqueSocket(std::move(a_uniqueSocket))
{
}

COsLogCollectorSender::~COsLogCollectorSender() = default;

void COsLogCollectorSender::Close(bool a_blGraceful)
{
    m_uniqueSocket->SocketDisconnect(a_blGraceful);
}

// The waiting texts are on the stacks of the parent's threads.
void COsLogCollectorSender::LeaveToParent()
{
    std::construct_at(&m_mutex);
    std::construct_at(&m_strUnsent);
    m_blSending = false;
    m_ptextFirst = nullptr;
    m_ptextLast = nullptr;
    m_eosstsFailed = EOSSTS_DISCONNECTED;
    m_uniqueSocket->SocketLeaveToParent();
}

// ---------------------------------------------------------------------------------------------------- the turn

EOSSTS COsLogCollectorSender::Send(const void* a_pvBuffer, size_t a_sizetBytes, bool a_blWait)
{
    const PlatThreadDeferral platthreaddeferral;
    Text text{static_cast<const char*>(a_pvBuffer), a_sizetBytes};
    if (BecomeSender(text, a_blWait) || (!text.blLeft && AwaitTurn(text)))
        SendWaiting(text);
    return text.eossts;
}

// A copy that no thread waits for; null without memory.
COsLogCollectorSender::Text* COsLogCollectorSender::MakeLeft(const Text& a_text)
{
    std::unique_ptr<Text> uniqueText(new (std::nothrow) Text{nullptr, a_text.sizet, true});
    char* const pch = uniqueText ? new (std::nothrow) char[a_text.sizet] : nullptr;
    if (!pch)
        return nullptr;
    uniqueText->pch = static_cast<const char*>(std::memcpy(pch, a_text.pch, a_text.sizet));
    return uniqueText.release();
}

// False: another thread is sending, and the text, or a copy (a_text.blLeft then), was queued for it.
bool COsLogCollectorSender::BecomeSender(Text& a_text, bool a_blWait)
{
    const std::lock_guard<std::mutex> guard(m_mutex);
    if (!m_blSending)
    {
        m_blSending = true;
        return true;
    }
    Text* const ptextLeft = a_blWait ? nullptr : MakeLeft(a_text);
    Text* const ptext = ptextLeft ? ptextLeft : &a_text;
    a_text.blLeft = ptextLeft != nullptr;
    (m_ptextLast ? m_ptextLast->ptextNext : m_ptextFirst) = ptext;
    m_ptextLast = ptext;
    return false;
}

std::string COsLogCollectorSender::TakeUnsent()
{
    const std::lock_guard<std::mutex> guard(m_mutex);
    return std::exchange(m_strUnsent, {});
}

// False: the text is settled.
bool COsLogCollectorSender::AwaitTurn(const Text& a_text)
{
    uint32_t u32State = Text::OS_WAITS;
    for (uint32_t u32Tries = 0; (u32State = a_text.u32State.load(std::memory_order_acquire)) == Text::OS_WAITS;
         ++u32Tries)
    {
        if (u32Tries < g_u32Yields)
            std::this_thread::yield();
        else
            PlatSleep(1);
    }
    return u32State == Text::OS_TURN;
}

void COsLogCollectorSender::SendWaiting(Text& a_text)
{
    if (m_u32Company)
    {
        --m_u32Company;
        std::this_thread::yield();
    }
    for (Text* ptextFirst = &a_text; ptextFirst; ptextFirst = PassOn())
    {
        TakeWaiting(*ptextFirst);
        if (ptextFirst->ptextNext)
            m_u32Company = g_u32Company;
        for (Text* ptext = ptextFirst; ptext;)
            ptext = SendBatch(ptext);
    }
}

// Takes all waiting texts, after this thread's own.
void COsLogCollectorSender::TakeWaiting(Text& a_text)
{
    const std::lock_guard<std::mutex> guard(m_mutex);
    a_text.ptextNext = m_ptextFirst;
    m_ptextFirst = nullptr;
    m_ptextLast = nullptr;
}

// Passes the turn to the first text that was queued meanwhile. If no thread waits for that text, it is returned and
// this thread continues with it.
COsLogCollectorSender::Text* COsLogCollectorSender::PassOn()
{
    Text* ptext = nullptr;
    {
        const std::lock_guard<std::mutex> guard(m_mutex);
        ptext = m_ptextFirst;
        if (ptext)
            m_ptextFirst = ptext->ptextNext;
        if (!m_ptextFirst)
            m_ptextLast = nullptr;
        m_blSending = ptext != nullptr;
    }
    if (!ptext || ptext->blLeft)
        return ptext;
    ptext->u32State.store(Text::OS_TURN, std::memory_order_release);
    return nullptr;
}

// ----------------------------------------------------------------------------------------------------- sending

// Sends as many texts as fit one batch and settles them; returns the first remaining one. A settled text is deleted
// with its thread, except for this thread's own.
COsLogCollectorSender::Text* COsLogCollectorSender::SendBatch(Text* a_ptextFirst)
{
    const char* pch = nullptr;
    size_t sizet = 0;
    Text* const ptextEnd = Gather(a_ptextFirst, &pch, &sizet);
    size_t sizetSent = SendAll(pch, sizet);
    for (Text* ptext = a_ptextFirst; ptext != ptextEnd;)
    {
        Text* const ptextNext = ptext->ptextNext;
        const bool blSent = sizetSent >= ptext->sizet;
        sizetSent -= blSent ? ptext->sizet : sizetSent;
        Settle(*ptext, blSent);
        ptext = ptextNext;
    }
    return ptextEnd;
}

void COsLogCollectorSender::Settle(Text& a_text, bool a_blSent)
{
    if (!a_text.blLeft)
    {
        a_text.eossts = a_blSent ? EOSSTS_SUCCESS : m_eosstsFailed;
        a_text.u32State.store(Text::OS_SETTLED, std::memory_order_release);
        return;
    }
    if (!a_blSent)
    {
        const std::lock_guard<std::mutex> guard(m_mutex);
        m_strUnsent.append(a_text.pch, a_text.sizet);
    }
    delete[] a_text.pch;
    delete &a_text;
}

// A single text, or one too long for the batch, is sent without a copy.
COsLogCollectorSender::Text* COsLogCollectorSender::Gather(Text* a_ptextFirst, const char** a_ppch, size_t* a_psizet)
{
    *a_ppch = a_ptextFirst->pch;
    *a_psizet = a_ptextFirst->sizet;
    Text* ptext = a_ptextFirst->ptextNext;
    if (!ptext || a_ptextFirst->sizet + ptext->sizet > sizeof m_achBatch)
        return ptext;

    *a_ppch = m_achBatch;
    std::memcpy(m_achBatch, a_ptextFirst->pch, a_ptextFirst->sizet);
    for (; ptext && *a_psizet + ptext->sizet <= sizeof m_achBatch; ptext = ptext->ptextNext)
    {
        std::memcpy(m_achBatch + *a_psizet, ptext->pch, ptext->sizet);
        *a_psizet += ptext->sizet;
    }
    return ptext;
}

// Returns how much was sent: all, unless the connection is given up.
size_t COsLogCollectorSender::SendAll(const char* a_pch, size_t a_sizet)
{
    size_t sizetSent = 0;
    while (sizetSent < a_sizet && !HasFailed())
    {
        size_t sizetPiece = 0;
        if (m_uniqueSocket->SocketTrySend(a_pch + sizetSent, a_sizet - sizetSent, &sizetPiece) != EOSSTS_SUCCESS)
            GiveUp(EOSSTS_DISCONNECTED);
        sizetSent += sizetPiece;
        m_u64Sent += sizetPiece;
        if (sizetSent < a_sizet && !HasFailed())
            AwaitRoom();
    }
    return sizetSent;
}

// ---------------------------------------------------------------------------------------------------- stalling

bool COsLogCollectorSender::ReadByCollector(uint64_t* a_pu64Read) const
{
    PlatSocketOwner platsocketowner{};
    size_t sizetUnsent = 0;
    if (m_uniqueSocket->SocketUnsent(&sizetUnsent) != EOSSTS_SUCCESS ||
        m_uniqueSocket->SocketPeerOwner(&platsocketowner) != EOSSTS_SUCCESS)
        return false;
    *a_pu64Read = m_u64Sent - std::min(m_u64Sent, sizetUnsent + platsocketowner.u64Unread);
    return true;
}

// Returns when the connection accepts data, or after a moment. Gives up a stalled collector.
void COsLogCollectorSender::AwaitRoom()
{
    const uint64_t u64Now = PlatTicks();
    LookForProgress(u64Now);
    if (u64Now - m_u64StillSince >= g_u64RoomTimeout)
    {
        HandOver();
        return;
    }
    uint32_t u32Write = 0;
    const COsSocket::SelectArgs selectargs{
        .pu32Write = &u32Write, .u32Timeout = static_cast<uint32_t>(g_u64LookPeriod), .blLogging = false};
    if (m_uniqueSocket->SocketSelect(selectargs) != EOSSTS_SUCCESS)
        PlatSleep(1);
}

// Free buffer space does not show that the collector reads: the system finds some in full buffers. Progress is what the
// collector has read; where the system does not tell, what was sent.
void COsLogCollectorSender::LookForProgress(uint64_t a_u64Now)
{
    if (m_blStill && a_u64Now - m_u64LookedAt < g_u64LookPeriod)
        return;
    uint64_t u64Read = m_u64Sent;
    ReadByCollector(&u64Read);
    if (!m_blStill || u64Read > m_u64Read)
        m_u64StillSince = a_u64Now;
    m_blStill = true;
    m_u64LookedAt = a_u64Now;
    m_u64Read = u64Read;
}

// A collector that recovers in time reads what was sent, writes it and closes its end; from then on it does not write
// the file. Otherwise it keeps the file.
void COsLogCollectorSender::HandOver()
{
    m_uniqueSocket->SocketEndSending();
    const uint64_t u64End = m_u64StillSince + g_u64StillTimeout;
    EOSSTS eossts = EOSSTS_TIMEOUT;
    do
    {
        char achNothing[16];
        size_t sizetRead = 0;
        const uint64_t u64Now = PlatTicks();
        COsSocket::ReadArgs readargs;
        readargs.pvBuffer = achNothing;
        readargs.sizetBuffer = sizeof achNothing;
        readargs.u32Timeout = static_cast<uint32_t>(u64Now < u64End ? u64End - u64Now : 1);
        readargs.blQuiet = true;
        eossts = m_uniqueSocket->SocketRead(readargs, &sizetRead);
    } while (eossts == EOSSTS_SUCCESS && PlatTicks() < u64End);
    GiveUp(eossts == EOSSTS_DISCONNECTED ? EOSSTS_DISCONNECTED : EOSSTS_BUSY);
}

void COsLogCollectorSender::GiveUp(EOSSTS a_eossts)
{
    m_eosstsFailed = a_eossts;
    m_uniqueSocket->SocketDisconnect(false);
}
