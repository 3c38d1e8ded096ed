// os_coslogcollector_peer.h: the peer of a connection to a collector, and which files it may have written.
//
// The port is open to all local users, so the system is asked for the connection's owner. The collector's own user may
// name any file. A collector of root serves other users with their own rights; any other collector refuses them. For a
// connection that has been closed the owner is unknown: it may be our user, so its text may go to a log that our user
// alone can write, and nowhere else.
#pragma once

#include "os_cosfile.h"

class COsSocket;

class COsLogCollectorPeer
{
public:
    // Whether the system can tell a connection's owner, tested with this process's listener on that port. If it cannot,
    // every peer counts as our user, as in a new object.
    static bool IsTold(uint16_t a_u16Port);

    // Asks for the owner of the other end. EOSSTS_SUCCESS; EOSSTS_ACCESSDENIED, and logged, when the connection is
    // refused; EOSSTS_FAIL when resources to ask were lacking.
    EOSSTS Identify(COsSocket& a_ossocket);

    bool IsOurs() const { return m_kind == Kind::Ours; }
    bool HasLeft() const { return m_kind == Kind::Left; }

    // Reduces the calling thread to the peer's rights for the rest of its life. False, and logged: do nothing for the
    // peer.
    bool TakeRights() const;

    // Whether the peer's log file may have that name; does not look at the file. False, and logged.
    bool MayName(const char* a_szLogFile) const;

    // The condition that the peer's log file must meet when it is opened.
    EOSFILEGUARD Guard() const;

    // Creates the folder of the peer's log file; for a closed connection only in a folder that our user alone can
    // write.
    void MakeFolder(const char* a_szFolder) const;

private:
    enum class Kind
    {
        Ours,
        Other,   // served with the rights of that user
        Left,
    };

    Kind m_kind = Kind::Ours;
    uint64_t m_u64User = 0;   // user id of another user
};
