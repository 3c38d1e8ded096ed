// os_cosresource_footer.h: how resources are stored in a program file.
//
// They are appended to the program file, so that it still runs:
//
//     the program          to u64Begin
//     the resources        their bytes, one after the other
//     the table            u32Count entries, at u64Table
//     the trailer          the last bytes of the file
//
// Numbers are little-endian, positions count from the start of the file. A reader must check every number: the file may
// be truncated or not contain resources.
#pragma once

#include <cstddef>
#include <cstdint>

inline constexpr size_t OS_RESOURCENAMESIZE = 32;
inline constexpr uint32_t OS_RESOURCEVERSION = 1;
inline constexpr uint32_t OS_RESOURCECOUNT = 64;   // at most
inline constexpr char OS_RESOURCEMAGIC[8] = {'O', 'S', 'R', 'S', 'R', 'C', '\r', '\n'};

struct OsResourceEntry
{
    char szName[OS_RESOURCENAMESIZE];   // terminated, the rest is zero
    uint64_t u64Offset;
    uint64_t u64Size;
};

struct OsResourceTrailer
{
    uint64_t u64Begin;
    uint64_t u64Table;
    uint32_t u32Count;
    uint32_t u32Version;
    char szMagic[sizeof OS_RESOURCEMAGIC];   // not terminated
};

static_assert(sizeof(OsResourceEntry) == 48 && sizeof(OsResourceTrailer) == 32);

// Checks the magic, and that the table reaches exactly to the trailer.
constexpr bool OsResourceIsSound(const OsResourceTrailer& a_osresourcetrailer, uint64_t a_u64FileSize)
{
    for (size_t sizet = 0; sizet < sizeof OS_RESOURCEMAGIC; ++sizet)
    {
        if (a_osresourcetrailer.szMagic[sizet] != OS_RESOURCEMAGIC[sizet])
            return false;
    }
    if (a_osresourcetrailer.u32Version != OS_RESOURCEVERSION || a_osresourcetrailer.u32Count > OS_RESOURCECOUNT ||
        a_u64FileSize < sizeof(OsResourceTrailer))
        return false;
    const uint64_t u64End = a_u64FileSize - sizeof(OsResourceTrailer);
    return a_osresourcetrailer.u64Begin <= a_osresourcetrailer.u64Table && a_osresourcetrailer.u64Table <= u64End &&
           u64End - a_osresourcetrailer.u64Table == a_osresourcetrailer.u32Count * sizeof(OsResourceEntry);
}

// Checks that the name is terminated and that the bytes lie between the program and the table.
constexpr bool OsResourceIsSound(const OsResourceEntry& a_osresourceentry, const OsResourceTrailer& a_osresourcetrailer)
{
    return a_osresourceentry.szName[OS_RESOURCENAMESIZE - 1] == 0 &&
           a_osresourceentry.u64Offset >= a_osresourcetrailer.u64Begin &&
           a_osresourceentry.u64Offset <= a_osresourcetrailer.u64Table &&
           a_osresourceentry.u64Size <= a_osresourcetrailer.u64Table - a_osresourceentry.u64Offset;
}
