// plat_tree.h: a walk through the tree below a folder.
//
// It goes from one open folder to the next and looks no path up on the way. So it reaches what is there at any depth
// and under any name, and nothing that changes meanwhile, be it a folder that a link replaces or one that is moved
// away, leads it elsewhere. A link is an entry like a file and is never entered. A walk is used by one thread at a
// time and ends with PlatClose.
#pragma once

#include "plat_file.h"

struct PlatTreeEntry
{
    char16_t wszName[PLAT_PATHMAX];   // empty when it is no text or no component of a path
    PlatEntry platentry;              // PLAT_ENTRY_FILE for a link
    bool blLink;
};

// Begins a walk in a folder. 267 for what is no folder, and for a link to one.
PlatHandle PlatTreeOpen(const char16_t* a_wszFolder);

// Begins a walk at one entry: what the path names, which is then the entry read last, in the folder that the path leads
// to. There are no further entries there. 123 for "." and "..", and for the root.
PlatHandle PlatTreeOpenAt(const char16_t* a_wszPath, PlatTreeEntry* a_pplattreeentry);

// True when the folder that the walk is in is this one or lies somewhere above it, and when that cannot be told.
bool PlatTreeHolds(PlatHandle a_plathandle, const char16_t* a_wszFolder);

// The next entry of the folder that the walk is in, without "." and ".."; 18 when there are no more. What is listed is
// what was there when the folder was entered; PlatTreeRewind begins the same list again.
bool PlatTreeNext(PlatHandle a_plathandle, PlatTreeEntry* a_pplattreeentry);
bool PlatTreeRewind(PlatHandle a_plathandle);

// Goes into the folder that was read last.
bool PlatTreeEnter(PlatHandle a_plathandle);

// Goes back to the folder above, where the folder that was left is then the entry read last. 18 where the walk began;
// 3 when somebody has moved a folder on the way: then nothing but PlatTreeLeave and PlatClose works any more.
bool PlatTreeLeave(PlatHandle a_plathandle);

// The following are for the entry read last.

bool PlatTreeWriteTime(PlatHandle a_plathandle, uint64_t* a_pu64WriteTime);   // 100 ns units since 1601-01-01 UTC

// Deletes a file, a link or an empty folder, also where it or the folder around it is read-only. 145 for a folder that
// is not empty; else as PlatFileDelete.
bool PlatTreeDelete(PlatHandle a_plathandle);
