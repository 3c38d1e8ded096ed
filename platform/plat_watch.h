// plat_watch.h: changes inside a folder.
#pragma once

#include "plat_types.h"

enum PlatWatchAction : uint32_t
{
    PLAT_WATCH_ADDED = 1,
    PLAT_WATCH_REMOVED = 2,
    PLAT_WATCH_MODIFIED = 3,
    PLAT_WATCH_OLDNAME = 4,   // renamed: what it was called
    PLAT_WATCH_NEWNAME = 5,   // renamed: what it is called now
};

struct PlatWatchChange
{
    PlatWatchAction platwatchaction;
    bool blWriting;                   // added or modified by a writer whose close, another modification, follows;
                                      // false where the system does not tell
    char16_t wszName[PLAT_PATHMAX];   // relative to the folder
};

// Watches the entries of a folder: names, sizes, times and attributes; not those of its sub-folders. An entry that is
// moved out of the folder or into it may be reported as the one half of a renaming. The handle can be waited for.
PlatHandle PlatWatchCreate(const char16_t* a_wszFolder);

// Takes the next change. PLAT_ERROR_WOULDBLOCK when there is none. When changes were lost because nobody took
// them in time, one PLAT_WATCH_MODIFIED with an empty name stands for them. When the folder itself has gone
// or has another path: PLAT_ERROR_PATHNOTFOUND, from then on, and the handle stays ready.
bool PlatWatchRead(PlatHandle a_plathandle, PlatWatchChange* a_pplatwatchchange);
