// os_coslogcollector_stream.h: one log stream, from its first byte into the file that it names.
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

    // Whose the stream is; without it, our user's. Before Run.
    void SetPeer(const COsLogCollectorPeer& a_oslogcollectorpeer) { m_oslogcollectorpeer = a_oslogcollectorpeer; }
    const COsLogCollectorPeer& Peer() const { return m_oslogcollectorpeer; }

    // Takes the stream, with its peer's rights, to its end, or until the event is set or the socket cancelled and a
    // stop of the collector has begun: then what has arrived. On return all is written and the file is let go of; the
    // connection is still open.
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
    COsLogFolderLock m_oslogfolderlock;   // of another user's stream, which shares nothing with ours
    COsLogCollectorPeer m_oslogcollectorpeer;
    COsLogCollectorFiles::Reference m_reference;   // null when the file could not be made again
    LogCollectorWriter m_logcollectorwriter;
    uint64_t m_u64Looked = 0;   // when the path was last looked at
};
