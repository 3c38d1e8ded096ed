// os_coslogcollector_server_readers.cpp: a reader takes one stream to its end. What remains of its connection is freed
// by the next reader.
#include "os_coslogcollector_server.h"

#include "os_coslogcollector_stream.h"
#include "os_new.h"

static constexpr char g_szSource[] = "os/source/os_coslogcollector";

uint32_t COsLogCollectorServer::LogDataEntry(COsThread* a_posthread)
{
    const LogCollectorRecord logcollectorrecord = *static_cast<LogCollectorRecord*>(a_posthread->Argument());
    logcollectorrecord.poslogcollectorserver->LogData(logcollectorrecord);
    a_posthread->Exit();
    return 0;
}

// The connection is closed when all is written: a client that has ended its sending waits for that, and writes the file
// itself from then on.
void COsLogCollectorServer::LogData(const LogCollectorRecord& a_logcollectorrecord)
{
    SweepFinished();
    a_logcollectorrecord.poslogcollectorstream->Run(a_logcollectorrecord.possocket, a_logcollectorrecord.possync);
    a_logcollectorrecord.possocket->SocketDisconnect(false);
    const int32_t i32Live = MarkFinished(a_logcollectorrecord.poslogcollectorstream);
    if (m_blPrivate && i32Live == 0)
        g_bLogCollectorStop.store(1);
}

// Takes the finished records out of the list under its lock and frees them outside: freeing waits for the last steps
// of their readers. A reader may have finished before the accept thread is through with starting it; that record stays
// for a later sweep. Once the collector is stopping, the records are Stop's.
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

// Marks this reader's record as finished and returns how many are live; 0 when the records are Stop's.
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
