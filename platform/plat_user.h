// plat_user.h: which user this process works for, whose something is, and a thread that works with another user's
// rights.
#pragma once

#include "plat_types.h"

// Who owns a socket, a file or a folder of this machine, as the system tells it.
enum PlatOwner : uint32_t
{
    PLAT_OWNER_UNKNOWN = 0,   // the system does not tell, of no socket
    PLAT_OWNER_NONE = 1,      // there is no such socket, or nobody has it open any more
    PLAT_OWNER_SAME = 2,      // the user that this process works for
    PLAT_OWNER_SYSTEM = 3,    // another user, who may do everything on this machine
    PLAT_OWNER_OTHER = 4,     // any other user, and one that cannot be named here
};

// The system's number of the user that this process works for, also on a thread that acts as another one. 0: the
// system's own user.
uint64_t PlatUserId();

struct PlatFileOwned
{
    PlatOwner platowner;   // SAME, SYSTEM or OTHER
    uint64_t u64User;      // the system's number of the user
    bool blOthersWrite;    // somebody who is neither its owner nor the system's user may write it or, in a folder,
                           // make files; that others' files there may be safe from him does not count
};

// Of an open file or folder.
bool PlatFileOwner(PlatHandle a_plathandle, PlatFileOwned* a_pplatfileowned);

// From now on the calling thread, and every thread that it starts, opens, makes, changes and deletes files and folders
// with that user's rights and as his: with his primary group, without the further groups that he or this process is
// in, and without any privilege. What is open stays open and works as before, as do waits, sockets and memory. The
// user gets no power over the thread.
// There is no way back: the thread ends with it. It must not start a program.
// Only a process of the system's user may. False, with the thread as it was: 5 when it may not, when it acts already,
// or when any of this did not take effect; 87 for what is no user's number.
bool PlatUserActAs(uint64_t a_u64User);
