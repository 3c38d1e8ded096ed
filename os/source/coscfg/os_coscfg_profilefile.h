// os_coscfg_profilefile.h: the file of a profile, which other processes read and write at the same time.
//
// Nothing here logs. Reads and writes hold a byte lock on the file itself, far behind its end. A lock file would not
// do: every process that may write the file can lock it, by whatever path and without write access to its folder, and a
// byte lock ends with its process.
#pragma once

#include "os_coscfg_profiletext.h"

#include "plat_file.h"

inline constexpr uint64_t OS_PROFILELOCK = (uint64_t{1} << 61) - 1;   // offset of the locked byte

enum class OsCfgProfileState
{
    Current,
    Changed,   // the file has changed since it was loaded
    Missing,
    Unreadable,
};

// The result of a read. One byte larger than the largest profile, to detect longer files.
struct OsCfgProfileImage
{
    char achFile[OS_PROFILESIZE + 1];
    size_t sizetFile;
    PlatFileIdentity platfileidentity;
    bool blReadOnly;   // it cannot be opened for writing
};

// Reads a file: Current, Missing or Unreadable (also when its lock stays held).
OsCfgProfileState OsCfgProfileLoad(const char* a_szPath, OsCfgProfileImage* a_poscfgprofileimage);

// Reports which file the path names now, without reading it.
OsCfgProfileState OsCfgProfileIdentify(const char* a_szPath, PlatFileIdentity* a_pplatfileidentity);

// Digest of a file's content, to detect changes.
uint64_t OsCfgProfileDigest(const char* a_achFile, size_t a_sizetFile);

enum class OsCfgProfileWritten
{
    Written,
    Same,      // the file has this text already
    Changed,   // the content differs from the digest; nothing is written
    CannotOpen,
    CannotRead,
    CannotWrite,
};

// Writes a text to a file whose content had this digest when it was read (the digest of 0 bytes for a missing file). A
// file that has been deleted is created. The file is replaced atomically; where the system refuses that, it is
// overwritten in place and truncated last.
OsCfgProfileWritten OsCfgProfileStore(const char* a_szPath, uint64_t a_u64Digest, const char* a_achText,
                                      size_t a_sizetText);
