// os_cosstring_format.cpp: the formatter of the product's printf dialect.
//
// From top to bottom: parsing a conversion, numbers, text, the formatter. Floating point is in a source of its own.
// Nothing here allocates, locks, logs or uses the locale, so that the logger can call it anywhere.
#include "os_cosstring.h"
#include "os_cosstring_impl.h"

#include "plat_utf.h"

#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string_view>

using namespace osformat;

namespace
{

// Wraps the va_list: as a structure member it can be passed by reference on every platform.
struct Values
{
    va_list valist;
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

// Parses a number, or takes the next value for "*". A number beyond an int becomes INT_MAX, so that formatting fails as
// too long.
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

// Parses what follows the "%".
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

}   // namespace

// ------------------------------------------------------------------------------------------------------- numbers

void osformat::PutNumber(Output& a_output, const Conversion& a_conversion, const NumberText& a_numbertext,
                         size_t a_sizetLeading, bool a_blZeroPad)
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

namespace
{

constexpr size_t OS_DIGITSIZE = 24;   // enough for 64 bits in octal

// Writes the digits so that they end at a_pchEnd; none for 0.
template <unsigned Base>
std::string_view Digits(uint64_t a_u64Number, const char* a_szDigits, char* a_pchEnd)
{
    char* pch = a_pchEnd;
    for (; a_u64Number; a_u64Number /= Base)
        *--pch = a_szDigits[a_u64Number % Base];
    return {pch, static_cast<size_t>(a_pchEnd - pch)};
}

constexpr char g_szLowerDigits[] = "0123456789abcdef";
constexpr char g_szUpperDigits[] = "0123456789ABCDEF";

void PutInteger(Output& a_output, const Conversion& a_conversion, uint64_t a_u64Number, std::string_view a_strviewSign)
{
    char achDigits[OS_DIGITSIZE];
    char* const pchEnd = achDigits + OS_DIGITSIZE;
    NumberText numbertext{a_strviewSign, {}, 0, {}};
    size_t sizetLeast = a_conversion.sizetPrecision == OS_NOPRECISION ? 1 : a_conversion.sizetPrecision;

    switch (a_conversion.chKind)
    {
    case 'x':
    case 'X': {
        const bool blUpper = a_conversion.chKind == 'X';
        numbertext.strviewDigits = Digits<16>(a_u64Number, blUpper ? g_szUpperDigits : g_szLowerDigits, pchEnd);
        if (a_conversion.blAlternate && a_u64Number)
            numbertext.strviewPrefix = blUpper ? "0X" : "0x";
        break;
    }
    case 'o':
        numbertext.strviewDigits = Digits<8>(a_u64Number, g_szLowerDigits, pchEnd);
        if (a_conversion.blAlternate)
            sizetLeast = std::max(sizetLeast, numbertext.strviewDigits.size() + 1);
        break;
    default:
        numbertext.strviewDigits = Digits<10>(a_u64Number, g_szLowerDigits, pchEnd);
        break;
    }
    const size_t sizetDigits = numbertext.strviewDigits.size();
    PutNumber(a_output, a_conversion, numbertext, sizetLeast > sizetDigits ? sizetLeast - sizetDigits : 0,
              a_conversion.sizetPrecision == OS_NOPRECISION);
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

void PutSigned(Output& a_output, const Conversion& a_conversion, Values& a_values)
{
    const int64_t i64Number = TakeSigned(a_conversion, a_values);
    const uint64_t u64Number = static_cast<uint64_t>(i64Number);
    PutInteger(a_output, a_conversion, i64Number < 0 ? 0 - u64Number : u64Number, SignOf(a_conversion, i64Number < 0));
}

// On the product's system a long double is a double; it is printed as one on all systems.
double TakeDouble(const Conversion& a_conversion, Values& a_values)
{
    if (a_conversion.length == Length::LongDouble)
        return static_cast<double>(va_arg(a_values.valist, long double));
    return va_arg(a_values.valist, double);
}

// Always 16 upper-case digits; flags are ignored.
void PutPointer(Output& a_output, const Conversion& a_conversion, Values& a_values)
{
    Conversion conversion = a_conversion;
    conversion.chKind = 'X';
    conversion.blAlternate = false;
    conversion.sizetPrecision = 16;
    PutInteger(a_output, conversion, reinterpret_cast<uint64_t>(va_arg(a_values.valist, void*)), {});
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
    if (a_conversion.sizetPrecision == OS_NOPRECISION)
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

// Width and precision count 16-bit characters, but a surrogate pair is never split. An unpaired surrogate is printed as
// the replacement character, so that the line is not lost.
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
        const uint32_t u32Point = PlatUtf16Take(a_wszText, pwchEnd);
        char achPoint[PLAT_UTF8_MAX];
        a_output.Put(achPoint, PlatUtf8Put(achPoint, u32Point == PLAT_UTF_INVALID ? PLAT_UTF_REPLACEMENT : u32Point));
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
    char achPoint[PLAT_UTF8_MAX] = {static_cast<char>(iCharacter)};
    size_t sizetBytes = 1;
    if (IsWide(a_conversion))
    {
        const auto wch = static_cast<char16_t>(iCharacter);
        const bool blSurrogate = wch >= 0xD800 && wch <= 0xDFFF;
        sizetBytes = PlatUtf8Put(achPoint, blSurrogate ? PLAT_UTF_REPLACEMENT : wch);
    }
    PutPadded(a_output, a_conversion, achPoint, sizetBytes);
}

// ------------------------------------------------------------------------------------------------------ together

// False for an unknown conversion, including "%n", which would write to memory.
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
        PutFloat(a_output, a_conversion, TakeDouble(a_conversion, a_values));
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
