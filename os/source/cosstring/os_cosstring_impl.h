// os_cosstring_impl.h: shared by the sources of the formatter: the output, one conversion of a format, and a number in
// its pieces.
#pragma once

#include "os_types.h"

#include <algorithm>
#include <cstring>
#include <string_view>

namespace osformat
{

// Stores what fits and counts everything.
class Output
{
public:
    Output(char* a_sz, size_t a_sizet) : m_pch(a_sz), m_sizetRoom(a_sz && a_sizet ? a_sizet - 1 : 0) {}

    void Put(const char* a_pch, size_t a_sizetBytes)
    {
        const size_t sizetFits = std::min(a_sizetBytes, m_sizetRoom);
        if (sizetFits)
            std::memcpy(m_pch, a_pch, sizetFits);
        Advance(sizetFits, a_sizetBytes);
    }
    void Fill(char a_ch, size_t a_sizetBytes)
    {
        const size_t sizetFits = std::min(a_sizetBytes, m_sizetRoom);
        if (sizetFits)
            std::memset(m_pch, a_ch, sizetFits);
        Advance(sizetFits, a_sizetBytes);
    }
    char* Next() const { return m_pch; }
    uint64_t Length() const { return m_u64Length; }

private:
    void Advance(size_t a_sizetFits, size_t a_sizetBytes)
    {
        if (a_sizetFits)
            m_pch += a_sizetFits;
        m_sizetRoom -= a_sizetFits;
        m_u64Length += a_sizetBytes;
    }

    char* m_pch;
    size_t m_sizetRoom;   // capacity without the terminator
    uint64_t m_u64Length = 0;
};

// The length modifier of a conversion. None means an int, or the default width of a text conversion.
enum class Length
{
    None,
    Char,
    Short,
    Long,
    LongLong,
    Size,
    LongDouble,
    Wide,
};

inline constexpr size_t OS_NOPRECISION = SIZE_MAX;

// One conversion of a format.
struct Conversion
{
    bool blLeft = false;
    bool blPlus = false;
    bool blSpace = false;
    bool blAlternate = false;
    bool blZero = false;
    size_t sizetWidth = 0;
    size_t sizetPrecision = OS_NOPRECISION;
    Length length = Length::None;
    char chKind = 0;
};

// A number in its pieces: sign or radix prefix, digits, trailing zeros, and the exponent.
struct NumberText
{
    std::string_view strviewPrefix;
    std::string_view strviewDigits;
    size_t sizetZeros = 0;
    std::string_view strviewExponent;
};

// Writes a_sizetLeading zeros before the digits; with a_blZeroPad zeros also fill the width.
void PutNumber(Output& a_output, const Conversion& a_conversion, const NumberText& a_numbertext, size_t a_sizetLeading,
               bool a_blZeroPad);

// The sign: "-", or what the flags ask for.
inline std::string_view SignOf(const Conversion& a_conversion, bool a_blNegative)
{
    if (a_blNegative)
        return "-";
    return a_conversion.blPlus ? "+" : a_conversion.blSpace ? " " : "";
}

// The conversions e, f, g and a, in either case.
void PutFloat(Output& a_output, const Conversion& a_conversion, double a_dNumber);

}   // namespace osformat
