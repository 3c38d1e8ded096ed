// os_coscfg_profiletext.h: the text of one INI file as the profile cache keeps it.
#pragma once

#include "os_types.h"

inline constexpr size_t OS_PROFILESIZE = 8192;   // largest file, in bytes

// Stored as consecutive lines with terminators, without empty lines. Section and key names are compared without regard
// to case; nothing is trimmed.
class OsCfgProfileText
{
public:
    void Clear();

    // Parses the first OS_PROFILESIZE bytes of a file. Drops a byte-order mark and every CR.
    void Take(const char* a_achFile, size_t a_sizetFile);

    // The value of a key, null if absent. "@0", "@1" ... is the line with that number behind the header. Keys of fewer
    // than two characters are never found.
    const char* Find(const char* a_szSection, const char* a_szKey) const;

    // Replaces the value, or appends the key to the section's key lines; a missing section is appended at the end.
    // EOSSTS_NOMEMORY, with nothing changed, when the file would exceed OS_PROFILESIZE or did so when it was parsed.
    // *a_pblChanged tells whether the text has changed.
    EOSSTS Store(const char* a_szSection, const char* a_szKey, const char* a_szValue, bool* a_pblChanged);

    // Serialises the text; a blank line follows each block of key lines. Returns the number of bytes, SIZE_MAX when
    // they do not fit.
    size_t ToFile(char (&a_achFile)[OS_PROFILESIZE]) const;

private:
    size_t Next(size_t a_sizetLine) const;   // the line behind this one
    size_t FindSection(const char* a_szSection) const;
    size_t FindKey(size_t a_sizetLine, const char* a_szKey) const;
    size_t FindNumbered(size_t a_sizetLine, int32_t a_i32Number) const;
    size_t EndOfKeys(size_t a_sizetLine) const;
    bool Replace(size_t a_sizetAt, size_t a_sizetOld, const char* a_szFirst, const char* a_szMiddle,
                 const char* a_szLast);

    char m_szText[OS_PROFILESIZE + 1] = {};
    size_t m_sizetUsed = 0;   // end of the last line
    bool m_blCut = false;
};
