// os_coslogcollector_peer.h: who is at the other end of a connection to a collector, and what he may have written.
//
// The port is public, so the system is asked. The collector's own user has each file written that he names. A collector
// of the system's user serves everybody else with no more than his own rights; any other collector refuses them. Of a
// connection that has been left already nobody knows whose it was: it may be one of ours, so what it sent goes to a log
// that is ours alone, and to nothing else.
#pragma once

#include "os_cosfile.h"

class COsSocket;

class COsLogCollectorPeer
{
public:
    // Whether the system tells who has a connection, asked about the listener of this process on that port. Where it
    // does not, everybody counts as our user, which is what a new object says.
    static bool IsTold(uint16_t a_u16Port);

    // Asks who has the other end. EOSSTS_SUCCESS; EOSSTS_ACCESSDENIED, and logged, when the connection is refused;
    // EOSSTS_FAIL when there was no answer for want of means.
    EOSSTS Identify(COsSocket& a_ossocket);

    bool IsOurs() const { return m_kind == Kind::Ours; }
    bool HasLeft() const { return m_kind == Kind::Left; }

    // From now on the calling thread has no other rights than the peer may use. It ends with them. False, and logged:
    // then nothing may be done for him.
    bool TakeRights() const;

    // Whether his log file may have that name, which says nothing of what is there. False, and logged.
    bool MayName(const char* a_szLogFile) const;

    // What must hold for his log file when it is opened.
    EOSFILEGUARD Guard() const;

    // Makes the folder of his log file; for one who has left, in a folder that is ours alone.
    void MakeFolder(const char* a_szFolder) const;

private:
    enum class Kind
    {
        Ours,
        Other,   // served with his own rights
        Left,
    };

    Kind m_kind = Kind::Ours;
    uint64_t m_u64User = 0;   // the system's number of another user
};
