// os_cosstring_format.cpp: the formatter of the product's printf dialect.
//
// From top to bottom: the output that counts what it cannot hold, the parsing of one conversion, then numbers,
// floating point and text. Nothing here allocates, locks, logs or asks the locale, so that the logger can use it
// wherever it is called from.
#include "os_coslocale_utf.h"
#include "os_cosstring.h"

#include <algorithm>
#include <charconv>
#include <climits>
#include <cmath>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace
{

// Takes what fits and counts everything.
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
    size_t m_sizetRoom;   // without the terminator
    uint64_t m_u64Length = 0;
};

// The values: a va_list inside a structure is handed on alike on every machine.
struct Values
{
    va_list valist;
};

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

constexpr size_t NOPRECISION = SIZE_MAX;

// One conversion of a format.
struct Conversion
{
    bool blLeft = false;
    bool blPlus = false;
    bool blSpace = false;
    bool blAlternate = false;
    bool blZero = false;
    size_t sizetWidth = 0;
    size_t sizetPrecision = NOPRECISION;
    Length length = Length::None;
    char chKind = 0;
};

// ------------------------------------------------------------------------------------------- reading a conversion

bool TakeFlag(char a_ch, Conversion& a_conversion)
{
    switch (a_ch)
    {
    case '-':
        return a_conversion.blLeft = true;
    case '+':
        return a_conversion.blPlus = true;
    case ' ':
        return a_conversion.blSpace = true;
    case '#':
        return a_conversion.blAlternate = true;
    case '0':
        return a_conversion.blZero = true;
    default:
        return false;
    }
}

// A number, or "*" for the next value. What is beyond an int becomes INT_MAX, which makes the whole text too long.
int TakeNumber(const char*& a_szFormat, Values& a_values)
{
    if (*a_szFormat == '*')
    {
        ++a_szFormat;
        return va_arg(a_values.valist, int);
    }
    int64_t i64Number = 0;
    for (; *a_szFormat >= '0' && *a_szFormat <= '9'; ++a_szFormat)
        i64Number = std::min<int64_t>(i64Number * 10 + (*a_szFormat - '0'), INT_MAX);
    return static_cast<int>(i64Number);
}

Length TakeLength(const char*& a_szFormat)
{
    const char ch = *a_szFormat;
    switch (ch)
    {
    case 'h':
    case 'l': {
        const bool blTwice = a_szFormat[1] == ch;
        a_szFormat += blTwice ? 2 : 1;
        return ch == 'h' ? (blTwice ? Length::Char : Length::Short) : (blTwice ? Length::LongLong : Length::Long);
    }
    case 'I': {
        const bool bl64 = std::strncmp(a_szFormat, "I64", 3) == 0;
        const bool bl32 = std::strncmp(a_szFormat, "I32", 3) == 0;
        a_szFormat += bl64 || bl32 ? 3 : 1;
        return bl64 ? Length::LongLong : bl32 ? Length::None : Length::Size;
    }
    case 'z':
    case 't':
        ++a_szFormat;
        return Length::Size;
    case 'j':
        ++a_szFormat;
        return Length::LongLong;
    case 'L':
        ++a_szFormat;
        return Length::LongDouble;
    case 'w':
        ++a_szFormat;
        return Length::Wide;
    default:
        return Length::None;
    }
}

// Reads what follows the "%".
Conversion TakeConversion(const char*& a_szFormat, Values& a_values)
{
    Conversion conversion;
    while (TakeFlag(*a_szFormat, conversion))
        ++a_szFormat;

    const int64_t i64Width = TakeNumber(a_szFormat, a_values);
    if (i64Width < 0)
        conversion.blLeft = true;
    conversion.sizetWidth = static_cast<size_t>(std::abs(i64Width));

    if (*a_szFormat == '.')
    {
        ++a_szFormat;
        const int iPrecision = TakeNumber(a_szFormat, a_values);
        if (iPrecision >= 0)
            conversion.sizetPrecision = static_cast<size_t>(iPrecision);
    }
    conversion.length = TakeLength(a_szFormat);
    conversion.chKind = *a_szFormat;
    if (conversion.chKind)
        ++a_szFormat;
    return conversion;
}

// ------------------------------------------------------------------------------------------------------- numbers

// A number in its pieces: sign or radix prefix, digits, zeros that the digits go on with, and the exponent.
struct NumberText
{
    std::string_view strviewPrefix;
    std::string_view strviewDigits;
    size_t sizetZeros = 0;
    std::string_view strviewExponent;
};

// a_sizetLeading zeros stand before the digits; with a_blZeroPad they fill the width.
void PutNumber(Output& a_output, const Conversion& a_conversion, const NumberText& a_numbertext, size_t a_sizetLeading,
               bool a_blZeroPad)
{
    const size_t sizetText = a_numbertext.strviewPrefix.size() + a_sizetLeading + a_numbertext.strviewDigits.size() +
                             a_numbertext.sizetZeros + a_numbertext.strviewExponent.size();
    const size_t sizetPad = a_conversion.sizetWidth > sizetText ? a_conversion.sizetWidth - sizetText : 0;
    const bool blZeroPad = a_blZeroPad && a_conversion.blZero && !a_conversion.blLeft;

    if (!blZeroPad && !a_conversion.blLeft)
        a_output.Fill(' ', sizetPad);
    a_output.Put(a_numbertext.strviewPrefix.data(), a_numbertext.strviewPrefix.size());
    a_output.Fill('0', a_sizetLeading + (blZeroPad ? sizetPad : 0));
    a_output.Put(a_numbertext.strviewDigits.data(), a_numbertext.strviewDigits.size());
    a_output.Fill('0', a_numbertext.sizetZeros);
    a_output.Put(a_numbertext.strviewExponent.data(), a_numbertext.strviewExponent.size());
    if (a_conversion.blLeft)
        a_output.Fill(' ', sizetPad);
}

constexpr size_t DIGITSIZE = 24;   // the digits of 64 bits in octal, and some

// Writes the digits so that they end at a_pchEnd; none for 0.
template <unsigned Base>
std::string_view Digits(uint64_t a_u64Number, const char* a_szDigits, char* a_pchEnd)
{
    char* pch = a_pchEnd;
    for (; a_u64Number; a_u64Number /= Base)
        *--pch = a_szDigits[a_u64Number % Base];
    return {pch, static_cast<size_t>(a_pchEnd - pch)};
}

constexpr char LOWERDIGITS[] = "0123456789abcdef";
constexpr char UPPERDIGITS[] = "0123456789ABCDEF";

void PutInteger(Output& a_output, const Conversion& a_conversion, uint64_t a_u64Number, std::string_view a_strviewSign)
{
    char achDigits[DIGITSIZE];
    char* const pchEnd = achDigits + DIGITSIZE;
    NumberText numbertext{a_strviewSign, {}, 0, {}};
    size_t sizetLeast = a_conversion.sizetPrecision == NOPRECISION ? 1 : a_conversion.sizetPrecision;

    switch (a_conversion.chKind)
    {
    case 'x':
    case 'X': {
        const bool blUpper = a_conversion.chKind == 'X';
        numbertext.strviewDigits = Digits<16>(a_u64Number, blUpper ? UPPERDIGITS : LOWERDIGITS, pchEnd);
        if (a_conversion.blAlternate && a_u64Number)
            numbertext.strviewPrefix = blUpper ? "0X" : "0x";
        break;
    }
    case 'o':
        numbertext.strviewDigits = Digits<8>(a_u64Number, LOWERDIGITS, pchEnd);
        if (a_conversion.blAlternate)
            sizetLeast = std::max(sizetLeast, numbertext.strviewDigits.size() + 1);
        break;
    default:
        numbertext.strviewDigits = Digits<10>(a_u64Number, LOWERDIGITS, pchEnd);
        break;
    }
    const size_t sizetDigits = numbertext.strviewDigits.size();
    PutNumber(a_output, a_conversion, numbertext, sizetLeast > sizetDigits ? sizetLeast - sizetDigits : 0,
              a_conversion.sizetPrecision == NOPRECISION);
}

int64_t TakeSigned(const Conversion& a_conversion, Values& a_values)
{
    switch (a_conversion.length)
    {
    case Length::Char:
        return static_cast<signed char>(va_arg(a_values.valist, int));
    case Length::Short:
        return static_cast<short>(va_arg(a_values.valist, int));
    case Length::Long:
        return va_arg(a_values.valist, long);
    case Length::LongLong:
    case Length::LongDouble:
        return va_arg(a_values.valist, long long);
    case Length::Size:
        return va_arg(a_values.valist, ptrdiff_t);
    case Length::None:
    case Length::Wide:
        break;
    }
    return va_arg(a_values.valist, int);
}

uint64_t TakeUnsigned(const Conversion& a_conversion, Values& a_values)
{
    switch (a_conversion.length)
    {
    case Length::Char:
        return static_cast<unsigned char>(va_arg(a_values.valist, unsigned int));
    case Length::Short:
        return static_cast<unsigned short>(va_arg(a_values.valist, unsigned int));
    case Length::Long:
        return va_arg(a_values.valist, unsigned long);
    case Length::LongLong:
    case Length::LongDouble:
        return va_arg(a_values.valist, unsigned long long);
    case Length::Size:
        return va_arg(a_values.valist, size_t);
    case Length::None:
    case Length::Wide:
        break;
    }
    return va_arg(a_values.valist, unsigned int);
}

std::string_view SignOf(const Conversion& a_conversion, bool a_blNegative)
{
    if (a_blNegative)
        return "-";
    return a_conversion.blPlus ? "+" : a_conversion.blSpace ? " " : "";
}

void PutSigned(Output& a_output, const Conversion& a_conversion, Values& a_values)
{
    const int64_t i64Number = TakeSigned(a_conversion, a_values);
    const uint64_t u64Number = static_cast<uint64_t>(i64Number);
    PutInteger(a_output, a_conversion, i64Number < 0 ? 0 - u64Number : u64Number, SignOf(a_conversion, i64Number < 0));
}

// 16 upper-case digits, whatever the flags say.
void PutPointer(Output& a_output, const Conversion& a_conversion, Values& a_values)
{
    Conversion conversion = a_conversion;
    conversion.chKind = 'X';
    conversion.blAlternate = false;
    conversion.sizetPrecision = 16;
    PutInteger(a_output, conversion, reinterpret_cast<uint64_t>(va_arg(a_values.valist, void*)), {});
}

// ------------------------------------------------------------------------------------------------ floating point

// No double has more decimals: what a precision asks for beyond them is zeros.
constexpr size_t FLOATDECIMALS = 1080;
constexpr size_t FLOATSIZE = 320 + FLOATDECIMALS;

// The text of a number that is finite and not negative.
class FloatText
{
public:
    FloatText(const Conversion& a_conversion, double a_dNumber) : m_conversion(a_conversion), m_dNumber(a_dNumber)
    {
        switch (a_conversion.chKind | 0x20)
        {
        case 'f':
            Convert(std::chars_format::fixed, Precision(6));
            break;
        case 'e':
            Convert(std::chars_format::scientific, Precision(6));
            break;
        case 'g':
            ConvertGeneral(std::max<size_t>(Precision(6), 1));
            break;
        default:
            Convert(std::chars_format::hex, a_conversion.sizetPrecision);
            break;
        }
    }

    // The pieces, which live as long as this object.
    NumberText Pieces()
    {
        const bool blHex = (m_conversion.chKind | 0x20) == 'a';
        size_t sizetExponent = std::string_view(m_ach, m_sizetText).find(blHex ? 'p' : 'e');
        sizetExponent = std::min(sizetExponent, m_sizetText);
        if (m_conversion.blAlternate && !std::memchr(m_ach, '.', m_sizetText))
        {
            std::memmove(m_ach + sizetExponent + 1, m_ach + sizetExponent, m_sizetText - sizetExponent);
            m_ach[sizetExponent++] = '.';
            ++m_sizetText;
        }
        if (m_conversion.chKind < 'a')
            std::transform(m_ach, m_ach + m_sizetText, m_ach, [](char a_ch) {
                return a_ch >= 'a' && a_ch <= 'z' ? static_cast<char>(a_ch - 0x20) : a_ch;
            });
        return {{}, {m_ach, sizetExponent}, m_sizetZeros, {m_ach + sizetExponent, m_sizetText - sizetExponent}};
    }

private:
    size_t Precision(size_t a_sizetDefault) const
    {
        return m_conversion.sizetPrecision == NOPRECISION ? a_sizetDefault : m_conversion.sizetPrecision;
    }

    void Convert(std::chars_format a_charsformat, size_t a_sizetPrecision)
    {
        char* const pchEnd = m_ach + FLOATSIZE;
        if (a_sizetPrecision == NOPRECISION)
        {
            m_sizetText = static_cast<size_t>(std::to_chars(m_ach, pchEnd, m_dNumber, a_charsformat).ptr - m_ach);
            return;
        }
        const size_t sizetPrecision = std::min(a_sizetPrecision, FLOATDECIMALS);
        m_sizetZeros = a_sizetPrecision - sizetPrecision;
        const std::to_chars_result result =
            std::to_chars(m_ach, pchEnd, m_dNumber, a_charsformat, static_cast<int>(sizetPrecision));
        m_sizetText = static_cast<size_t>(result.ptr - m_ach);
    }

    // The standard conversion drops trailing zeros; the alternate form keeps them, so it chooses for itself.
    void ConvertGeneral(size_t a_sizetPrecision)
    {
        if (!m_conversion.blAlternate)
        {
            Convert(std::chars_format::general, std::min(a_sizetPrecision, FLOATDECIMALS));
            return;
        }
        Convert(std::chars_format::scientific, a_sizetPrecision - 1);
        const std::string_view strview(m_ach, m_sizetText);
        const char* const pchSign = m_ach + strview.find('e') + 1;
        int64_t i64Exponent = 0;
        std::from_chars(pchSign + 1, m_ach + m_sizetText, i64Exponent);
        if (*pchSign == '-')
            i64Exponent = -i64Exponent;
        const int64_t i64Decimals = static_cast<int64_t>(a_sizetPrecision) - 1 - i64Exponent;
        if (i64Decimals >= 0 && i64Exponent >= -4)
            Convert(std::chars_format::fixed, static_cast<size_t>(i64Decimals));
    }

    const Conversion& m_conversion;
    double m_dNumber;
    char m_ach[FLOATSIZE + 1];
    size_t m_sizetText = 0;
    size_t m_sizetZeros = 0;
};

void PutFloat(Output& a_output, const Conversion& a_conversion, Values& a_values)
{
    // A long double is a double on the product's system, and is shown as one everywhere.
    const double dNumber = a_conversion.length == Length::LongDouble
                               ? static_cast<double>(va_arg(a_values.valist, long double))
                               : va_arg(a_values.valist, double);
    const bool blUpper = a_conversion.chKind < 'a';
    const std::string_view strviewSign = SignOf(a_conversion, std::signbit(dNumber));
    if (!std::isfinite(dNumber))
    {
        const bool blNan = std::isnan(dNumber);
        const char* const szText = blUpper ? (blNan ? "NAN" : "INF") : (blNan ? "nan" : "inf");
        PutNumber(a_output, a_conversion, {strviewSign, szText, 0, {}}, 0, false);
        return;
    }

    FloatText floattext(a_conversion, std::fabs(dNumber));
    NumberText numbertext = floattext.Pieces();
    char achPrefix[4];
    const bool blHex = (a_conversion.chKind | 0x20) == 'a';
    size_t sizetPrefix = strviewSign.copy(achPrefix, 1);
    if (blHex)
    {
        achPrefix[sizetPrefix++] = '0';
        achPrefix[sizetPrefix++] = blUpper ? 'X' : 'x';
    }
    numbertext.strviewPrefix = {achPrefix, sizetPrefix};
    PutNumber(a_output, a_conversion, numbertext, 0, true);
}

// ---------------------------------------------------------------------------------------------------------- text

void PutPadded(Output& a_output, const Conversion& a_conversion, const char* a_pch, size_t a_sizetBytes)
{
    const size_t sizetPad = a_conversion.sizetWidth > a_sizetBytes ? a_conversion.sizetWidth - a_sizetBytes : 0;
    if (!a_conversion.blLeft)
        a_output.Fill(' ', sizetPad);
    a_output.Put(a_pch, a_sizetBytes);
    if (a_conversion.blLeft)
        a_output.Fill(' ', sizetPad);
}

void PutText(Output& a_output, const Conversion& a_conversion, const char* a_szText)
{
    size_t sizetLength = 0;
    if (a_conversion.sizetPrecision == NOPRECISION)
    {
        sizetLength = std::strlen(a_szText);
    }
    else
    {
        const void* const pvEnd = std::memchr(a_szText, 0, a_conversion.sizetPrecision);
        sizetLength =
            pvEnd ? static_cast<size_t>(static_cast<const char*>(pvEnd) - a_szText) : a_conversion.sizetPrecision;
    }
    PutPadded(a_output, a_conversion, a_szText, sizetLength);
}

// Width and precision count 16-bit characters, but a pair is never cut. Half a pair becomes the replacement
// character: a line with a damaged name is better than no line.
void PutWide(Output& a_output, const Conversion& a_conversion, const char16_t* a_wszText)
{
    const char16_t* pwchEnd = a_wszText;
    while (static_cast<size_t>(pwchEnd - a_wszText) < a_conversion.sizetPrecision && *pwchEnd)
        ++pwchEnd;
    const bool blPairCut = pwchEnd != a_wszText && (pwchEnd[-1] & 0xFC00) == 0xD800;
    if (blPairCut && static_cast<size_t>(pwchEnd - a_wszText) == a_conversion.sizetPrecision)
        --pwchEnd;

    const auto sizetLength = static_cast<size_t>(pwchEnd - a_wszText);
    const size_t sizetPad = a_conversion.sizetWidth > sizetLength ? a_conversion.sizetWidth - sizetLength : 0;
    if (!a_conversion.blLeft)
        a_output.Fill(' ', sizetPad);
    while (a_wszText != pwchEnd)
    {
        const uint32_t u32Point = OsUtf16Take(a_wszText, pwchEnd);
        char achPoint[OS_UTF8_MAX];
        a_output.Put(achPoint, OsUtf8Put(achPoint, u32Point == OS_UTF_INVALID ? OS_UTF_REPLACEMENT : u32Point));
    }
    if (a_conversion.blLeft)
        a_output.Fill(' ', sizetPad);
}

// "%S" and "%C" are 16-bit, "%s" and "%c" 8-bit, unless a modifier says otherwise.
bool IsWide(const Conversion& a_conversion)
{
    switch (a_conversion.length)
    {
    case Length::Char:
    case Length::Short:
        return false;
    case Length::Long:
    case Length::LongLong:
    case Length::Wide:
        return true;
    default:
        return a_conversion.chKind == 'S' || a_conversion.chKind == 'C';
    }
}

void PutString(Output& a_output, const Conversion& a_conversion, Values& a_values)
{
    if (IsWide(a_conversion))
    {
        const char16_t* const wszText = va_arg(a_values.valist, const char16_t*);
        PutWide(a_output, a_conversion, wszText ? wszText : u"(null)");
        return;
    }
    const char* const szText = va_arg(a_values.valist, const char*);
    PutText(a_output, a_conversion, szText ? szText : "(null)");
}

void PutCharacter(Output& a_output, const Conversion& a_conversion, Values& a_values)
{
    const int iCharacter = va_arg(a_values.valist, int);
    char achPoint[OS_UTF8_MAX] = {static_cast<char>(iCharacter)};
    size_t sizetBytes = 1;
    if (IsWide(a_conversion))
    {
        const auto wch = static_cast<char16_t>(iCharacter);
        const bool blSurrogate = wch >= 0xD800 && wch <= 0xDFFF;
        sizetBytes = OsUtf8Put(achPoint, blSurrogate ? OS_UTF_REPLACEMENT : wch);
    }
    PutPadded(a_output, a_conversion, achPoint, sizetBytes);
}

// ------------------------------------------------------------------------------------------------------ together

// False for a conversion that is not known. "%n", which writes, is one of those.
bool PutConversion(Output& a_output, const Conversion& a_conversion, Values& a_values)
{
    switch (a_conversion.chKind)
    {
    case 'd':
    case 'i':
        PutSigned(a_output, a_conversion, a_values);
        return true;
    case 'u':
    case 'x':
    case 'X':
    case 'o':
        PutInteger(a_output, a_conversion, TakeUnsigned(a_conversion, a_values), {});
        return true;
    case 's':
    case 'S':
        PutString(a_output, a_conversion, a_values);
        return true;
    case 'c':
    case 'C':
        PutCharacter(a_output, a_conversion, a_values);
        return true;
    case 'p':
        PutPointer(a_output, a_conversion, a_values);
        return true;
    case 'f':
    case 'F':
    case 'e':
    case 'E':
    case 'g':
    case 'G':
    case 'a':
    case 'A':
        PutFloat(a_output, a_conversion, a_values);
        return true;
    case '%':
        a_output.Put("%", 1);
        return true;
    default:
        return false;
    }
}

bool PutAll(Output& a_output, const char* a_szFormat, Values& a_values)
{
    while (const char* const szPercent = std::strchr(a_szFormat, '%'))
    {
        a_output.Put(a_szFormat, static_cast<size_t>(szPercent - a_szFormat));
        a_szFormat = szPercent + 1;
        if (!PutConversion(a_output, TakeConversion(a_szFormat, a_values), a_values))
            return false;
    }
    a_output.Put(a_szFormat, std::strlen(a_szFormat));
    return true;
}

}   // namespace

int OsFormat(char* a_szDestination, size_t a_sizetDestination, const char* a_szFormat, va_list a_valist)
{
    Output output(a_szDestination, a_sizetDestination);
    Values values;
    va_copy(values.valist, a_valist);
    const bool blKnown = a_szFormat && PutAll(output, a_szFormat, values);
    va_end(values.valist);

    if (a_szDestination && a_sizetDestination)
        *output.Next() = 0;
    return blKnown && output.Length() <= INT_MAX ? static_cast<int>(output.Length()) : -1;
}
