// os_cosresource_footer.h: how a program file carries its resources.
//
// They follow whatever the file was before, so that it runs as it did:
//
//     the program          to u64Begin
//     the resources        their bytes, one after the other
//     the table            u32Count entries, at u64Table
//     the trailer          the last bytes of the file
//
// Numbers are little-endian, positions count from the start of the file. Whoever reads this checks every number: the
// file may be cut, or somebody else's.
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

// The trailer is one, and the table that it tells of fills the file up to it.
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

// The name is terminated and the bytes lie between the program and the table.
constexpr bool OsResourceIsSound(const OsResourceEntry& a_osresourceentry, const OsResourceTrailer& a_osresourcetrailer)
{
    return a_osresourceentry.szName[OS_RESOURCENAMESIZE - 1] == 0 &&
           a_osresourceentry.u64Offset >= a_osresourcetrailer.u64Begin &&
           a_osresourceentry.u64Offset <= a_osresourcetrailer.u64Table &&
           a_osresourceentry.u64Size <= a_osresourcetrailer.u64Table - a_osresourceentry.u64Offset;
}
