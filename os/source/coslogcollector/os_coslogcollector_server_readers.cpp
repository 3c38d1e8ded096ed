// os_coslogcollector_server_readers.cpp: a reader processes one stream to its end. The next reader frees the resources
// of its connection.
#include "os_coslogcollector_server.h"

#include "os_coslogcollector_stream.h"
#include "os_new.h"

static constexpr char g_szSource[] = "os/source/os_coslogcollector";

static constexpr uint32_t g_u32ComingTimeout = 1000;   // ms to wait for another stream of our user

uint32_t COsLogCollectorServer::LogDataEntry(COsThread* a_posthread)
{
    const LogCollectorRecord logcollectorrecord = *static_cast<LogCollectorRecord*>(a_posthread->Argument());
    logcollectorrecord.poslogcollectorserver->LogData(logcollectorrecord);
    a_posthread->Exit();
    return 0;
}

// The connection is closed after the last write: a client that has ended its sending waits for that, and writes the
// file itself afterwards.
void COsLogCollectorServer::LogData(const LogCollectorRecord& a_logcollectorrecord)
{
    SweepFinished();
    a_logcollectorrecord.poslogcollectorstream->Run(a_logcollectorrecord.possocket, a_logcollectorrecord.possync);
    a_logcollectorrecord.possocket->SocketDisconnect(false);
    const COsLogCollectorPeer oslogcollectorpeer = a_logcollectorrecord.poslogcollectorstream->Peer();
    if (oslogcollectorpeer.IsOurs() || oslogcollectorpeer.HasLeft())
        m_blServed.store(true);
    if (MarkFinished(a_logcollectorrecord.poslogcollectorstream) == 0 && m_blPrivate &&
        IsLast(a_logcollectorrecord, oslogcollectorpeer.IsOurs()))
        g_bLogCollectorStop.store(1);
}

// The last stream of our user ends the collector at once. One that another user may have opened does so only if a
// stream of ours may have been served, and if none comes for a while: a new stream sweeps this reader and checks again
// at its own end.
bool COsLogCollectorServer::IsLast(const LogCollectorRecord& a_logcollectorrecord, bool a_blOurs)
{
    if (a_blOurs || g_bLogCollectorStopping.load())
        return true;
    return m_blServed.load() && a_logcollectorrecord.posthread->WaitForStop(g_u32ComingTimeout) == EOSSTS_TIMEOUT &&
           MarkFinished(nullptr) == 0;
}

// Takes the finished records out of the list under its lock and frees them without it: freeing waits until their
// readers have returned. A reader may finish before the accept thread has finished starting it; that record is left for
// a later sweep. Once the collector is stopping, Stop owns the records.
void COsLogCollectorServer::SweepFinished()
{
    for (;;)
    {
        LogCollectorRecord logcollectorrecord{};
        auto* precord = static_cast<LogCollectorRecord*>(
            m_poslnk->GetFirstAndLock("COsLogCollectorImpl::LogData-stale", g_szSource, __LINE__));
        while (precord && (precord->poslogcollectorstream || precord->posthread == m_posthreadStarting.load()))
            precord = static_cast<LogCollectorRecord*>(m_poslnk->GetNext(precord));
        if (precord && !g_bLogCollectorStopping.load())
        {
            logcollectorrecord = *precord;
            m_poslnk->Remove(precord, false, false);
        }
        m_poslnk->Unlock();
        if (!logcollectorrecord.posthread)
            return;
        OSMEMDELETE(logcollectorrecord.posthread);
        FreeRecord(logcollectorrecord);
    }
}

// Marks this reader's record (null: none) as finished and returns the number of live ones; 0 when Stop owns the
// records.
int32_t COsLogCollectorServer::MarkFinished(const COsLogCollectorStream* a_poslogcollectorstream)
{
    int32_t i32Live = 0;
    auto* precord = static_cast<LogCollectorRecord*>(
        m_poslnk->GetFirstAndLock("COsLogCollectorImpl::LogData-cleanup", g_szSource, __LINE__));
    const bool blOurs = !g_bLogCollectorStopping.load();
    for (; precord && blOurs; precord = static_cast<LogCollectorRecord*>(m_poslnk->GetNext(precord)))
    {
        if (precord->poslogcollectorstream == a_poslogcollectorstream)
            OSMEMDELETE(precord->poslogcollectorstream);
        if (precord->poslogcollectorstream)
            ++i32Live;
    }
    m_poslnk->Unlock();
    return i32Live;
}
