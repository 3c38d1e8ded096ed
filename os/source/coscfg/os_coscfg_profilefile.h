// os_coscfg_profilefile.h: the file of a profile, which other processes read and write at the same time.
//
// Nothing here logs. Whoever reads or writes holds the lock of the file meanwhile: one byte of it, far behind its end.
// The file itself is locked, because everybody who may write it can lock it, by whatever path he came and whether or
// not he may make a file in its folder; and a byte lock ends with its process.
#pragma once

#include "os_coscfg_profiletext.h"

#include "plat_file.h"

inline constexpr uint64_t OS_PROFILELOCK = (uint64_t{1} << 61) - 1;   // where the byte is

enum class OsCfgProfileState
{
    Current,
    Changed,   // on the disk since it was loaded
    Missing,
    Unreadable,
};

// What was read of a file. One byte more than a profile may have, so that a longer one is noticed.
struct OsCfgProfileImage
{
    char achFile[OS_PROFILESIZE + 1];
    size_t sizetFile;
    PlatFileIdentity platfileidentity;
    bool blReadOnly;   // it cannot be opened for writing
};

// Reads a file: Current, Missing or Unreadable, also when somebody holds its lock for long.
OsCfgProfileState OsCfgProfileLoad(const char* a_szPath, OsCfgProfileImage* a_poscfgprofileimage);

// Tells which file the path names now, without reading it.
OsCfgProfileState OsCfgProfileIdentify(const char* a_szPath, PlatFileIdentity* a_pplatfileidentity);

// What tells one content from another.
uint64_t OsCfgProfileDigest(const char* a_achFile, size_t a_sizetFile);

enum class OsCfgProfileWritten
{
    Written,
    Same,      // the file has this text already
    Changed,   // the file has another content than it had; nothing is written
    CannotOpen,
    CannotRead,
    CannotWrite,
};

// Writes a text to a file whose content had this digest when it was read (that of no bytes for one that was not there).
// A file that has gone is made. The text takes the old one's place in one step; where the system refuses that for this
// file, it is written over the old one and the rest is cut last.
OsCfgProfileWritten OsCfgProfileStore(const char* a_szPath, uint64_t a_u64Digest, const char* a_achText,
                                      size_t a_sizetText);
