// os_coscfg_profiletext.h: the text of one INI file as the profile cache keeps it.
#pragma once

#include "os_types.h"

inline constexpr size_t OS_PROFILESIZE = 8192;   // of a file, in bytes

// Lines, each with its terminator, one behind the other. There are no empty ones. Names of sections and keys are
// compared without regard to case, and nothing is trimmed.
class OsCfgProfileText
{
public:
    void Clear();

    // Takes the first OS_PROFILESIZE bytes of a file, whatever they are. A byte-order mark and every CR are dropped.
    void Take(const char* a_achFile, size_t a_sizetFile);

    // The value of a key, null for none. "@0", "@1" ... is the line of that number behind the header. A key of less
    // than two characters is never found.
    const char* Find(const char* a_szSection, const char* a_szKey) const;

    // Replaces the value, or adds the key at the end of the section's key lines; a section that is missing is added at
    // the end. EOSSTS_NOMEMORY, with nothing changed, when the file would be larger than OS_PROFILESIZE, and when it
    // was so when it was taken. *a_pblChanged tells whether the text is another one now.
    EOSSTS Store(const char* a_szSection, const char* a_szKey, const char* a_szValue, bool* a_pblChanged);

    // The bytes of the file: a blank line follows each block of key lines. Returns their number, SIZE_MAX when they do
    // not fit.
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
    size_t m_sizetUsed = 0;   // where the next line would begin; the end is "no line"
    bool m_blCut = false;
};
