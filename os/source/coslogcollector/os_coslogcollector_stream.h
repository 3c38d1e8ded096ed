// os_coslogcollector_stream.h: one log stream, from its first byte to the file that it names.
#pragma once

#include "os_coslogcollector_files.h"
#include "os_coslogcollector_folders.h"
#include "os_coslogcollector_peer.h"

class COsSocket;
class COsSync;
class StreamPieces;

class COsLogCollectorStream
{
public:
    COsLogCollectorStream(COsLogCollectorFiles& a_oslogcollectorfiles, COsLogCollectorFolders& a_oslogcollectorfolders);
    COsLogCollectorStream(const COsLogCollectorStream&) = delete;
    COsLogCollectorStream& operator=(const COsLogCollectorStream&) = delete;

    // The owner of the stream; our user if not set. Before Run.
    void SetPeer(const COsLogCollectorPeer& a_oslogcollectorpeer) { m_oslogcollectorpeer = a_oslogcollectorpeer; }
    const COsLogCollectorPeer& Peer() const { return m_oslogcollectorpeer; }

    // Processes the stream, with its peer's rights, to its end. When the event is set or the socket cancelled because
    // the collector stops, processes the data that has arrived. On return everything is written and the file is
    // released; the connection is still open.
    void Run(COsSocket* a_possocket, COsSync* a_possync);

private:
    bool Begin(StreamPieces& a_streampieces);
    void TakeText(StreamPieces& a_streampieces);
    void Write(std::string_view a_strview);
    void End();

    bool OpenFile();
    void MakeFolder();
    EOSSTS HoldFolder(bool a_blEntered);
    void LeaveFolder();
    bool IsInPlace(uint64_t a_u64Now);
    void OpenAnew();

    COsLogCollectorFiles& m_oslogcollectorfiles;
    COsLogCollectorFolders& m_oslogcollectorfolders;
    char m_szPath[OS_PATHSIZE] = {};        // as the stream named it
    char m_szLogFolder[OS_PATHSIZE] = {};   // "" when the file is in none
    bool m_blFolderHeld = false;
    COsLogFolderLock m_oslogfolderlock;   // for another user's stream, which shares nothing with ours
    COsLogCollectorPeer m_oslogcollectorpeer;
    COsLogCollectorFiles::Reference m_reference;   // null when the file could not be created again
    LogCollectorWriter m_logcollectorwriter;
    uint64_t m_u64Looked = 0;   // when the path was last checked
};
