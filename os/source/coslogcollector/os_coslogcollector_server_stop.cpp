// os_coslogcollector_server_stop.cpp: Stop, in a fixed order: the flush monitor, the accept thread, the readers. A
// second call does nothing.
#include "os_coslogcollector_server.h"

#include "os_cosfile_system.h"
#include "os_coslogstatus_own.h"
#include "os_cosstring.h"
#include "os_new.h"

#include "plat_wait.h"

#include <algorithm>
#include <utility>
#include <vector>

static constexpr char g_szSource[] = "os/source/os_coslogcollector";

static constexpr uint32_t g_u32AbortTimeout = 20;
static constexpr uint32_t g_u32EndTimeout = 70000;
static constexpr uint32_t g_u32StragglerPause = 1000;

void COsLogCollectorServer::Stop(char* a_szFolder, size_t a_sizetFolder)
{
    g_bLogCollectorStopping.store(1);
    StopMonitors();
    StopAccepting();
    StopReaders();
    if (!m_blStraggler)
        m_oslogcollectorfolders.StopManaging();
    if (m_possyncStop)
        m_possyncStop->EventClose();
    OSMEMDELETE(m_possyncStop);
    OSMEMDELETE(m_possocketListen);
    ReportFolder(a_szFolder, a_sizetFolder);
    CloseStatus();
}

// Also removes status files of killed processes.
void COsLogCollectorServer::CloseStatus()
{
    if (!std::exchange(m_blStatus, false))
        return;
    COsLogStatusOwn::Get().Close(OS_LOGSTATUS_COLLECTS);
    OsLogStatusList(nullptr, nullptr, true);
}

void COsLogCollectorServer::StopAccepting()
{
    if (m_possyncStop)
        m_possyncStop->EventSet();
    if (m_posthreadAccept)
        m_posthreadAccept->WaitForEnd(g_u32AbortTimeout);
    if (m_possocketListen)
        m_possocketListen->SocketDisconnect(false);
    if (m_posthreadAccept)
        m_posthreadAccept->WaitForEnd(g_u32EndTimeout);
    OSMEMDELETE(m_posthreadAccept);
}

// ------------------------------------------------------------------------------------------------- the readers

// Readers leave the records alone once the stopping flag is set, so a thread found here stays valid until its record is
// freed here. The wait is done without the lock, because a reader may be about to take it.
void COsLogCollectorServer::StopReaders()
{
    if (!m_poslnk || m_blStraggler)
        return;
    const std::vector<COsThread*> vecposthread = CancelReaders();
    const auto hasEnded = [](COsThread* a_posthread) { return a_posthread->WaitForEnd(g_u32EndTimeout); };
    if (!std::all_of(vecposthread.begin(), vecposthread.end(), hasEnded))
        PlatSleep(g_u32StragglerPause);
    FreeRecords();
    if (!m_blStraggler)
        OSMEMDELETE(m_poslnk);
}

// The events end all readers' waits; the cancels, which wait a moment each, end the reads that never wait.
std::vector<COsThread*> COsLogCollectorServer::CancelReaders()
{
    std::vector<COsThread*> vecposthread;
    const auto next = [this](LogCollectorRecord* a_precord) {
        return static_cast<LogCollectorRecord*>(m_poslnk->GetNext(a_precord));
    };
    auto* const precordFirst =
        static_cast<LogCollectorRecord*>(m_poslnk->GetFirstAndLock("COsLogCollectorImpl::Stop", g_szSource, __LINE__));
    for (LogCollectorRecord* precord = precordFirst; precord; precord = next(precord))
        precord->possync->EventSet();
    for (LogCollectorRecord* precord = precordFirst; precord; precord = next(precord))
    {
        precord->possocket->SocketCancel();
        vecposthread.push_back(precord->posthread);
    }
    m_poslnk->Unlock();
    return vecposthread;
}

// A reader that exceeded its time limit may still use its objects, the list and this object: they are kept.
void COsLogCollectorServer::FreeRecords()
{
    auto* precord =
        static_cast<LogCollectorRecord*>(m_poslnk->GetFirstAndLock("COsLogCollectorImpl::Stop", g_szSource, __LINE__));
    for (; precord; precord = static_cast<LogCollectorRecord*>(m_poslnk->GetNext(precord)))
    {
        if (precord->posthread->WaitForEnd(0))
        {
            FreeRecord(*precord);
        }
        else
        {
            m_blStraggler = true;
        }
    }
    m_poslnk->Unlock();
}

void COsLogCollectorServer::ReportFolder(char* a_szFolder, size_t a_sizetFolder) const
{
    if (!a_szFolder || a_sizetFolder == 0)
        return;
    std::fill_n(a_szFolder, a_sizetFolder, '\0');
    const char* const szLeftover = m_oslogcollectorfolders.Leftover();
    if (*szLeftover && OsFileExists(szLeftover))
        SStrCpy(a_szFolder, a_sizetFolder, szLeftover);
}
