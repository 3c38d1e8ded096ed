// os_cosstring_float.cpp: floating-point conversion for the formatter, without locale and allocation.
#include "os_cosstring_impl.h"

#include <charconv>
#include <cmath>

using namespace osformat;

namespace
{

// No double has more decimals: beyond them a precision only adds zeros.
constexpr size_t OS_FLOATDECIMALS = 1080;
constexpr size_t OS_FLOATSIZE = 320 + OS_FLOATDECIMALS;

char Upper(char a_ch)
{
    return a_ch >= 'a' && a_ch <= 'z' ? static_cast<char>(a_ch - ('a' - 'A')) : a_ch;
}

// The text of a finite, non-negative number.
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

    // The pieces are valid as long as this object.
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
        {
            for (size_t sizet = 0; sizet < m_sizetText; ++sizet)
                m_ach[sizet] = Upper(m_ach[sizet]);
        }
        return {{}, {m_ach, sizetExponent}, m_sizetZeros, {m_ach + sizetExponent, m_sizetText - sizetExponent}};
    }

private:
    size_t Precision(size_t a_sizetDefault) const
    {
        return m_conversion.sizetPrecision == OS_NOPRECISION ? a_sizetDefault : m_conversion.sizetPrecision;
    }

    void Convert(std::chars_format a_charsformat, size_t a_sizetPrecision)
    {
        char* const pchEnd = m_ach + OS_FLOATSIZE;
        if (a_sizetPrecision == OS_NOPRECISION)
        {
            m_sizetText = static_cast<size_t>(std::to_chars(m_ach, pchEnd, m_dNumber, a_charsformat).ptr - m_ach);
            return;
        }
        const size_t sizetPrecision = std::min(a_sizetPrecision, OS_FLOATDECIMALS);
        m_sizetZeros = a_sizetPrecision - sizetPrecision;
        const std::to_chars_result result =
            std::to_chars(m_ach, pchEnd, m_dNumber, a_charsformat, static_cast<int>(sizetPrecision));
        m_sizetText = static_cast<size_t>(result.ptr - m_ach);
    }

    // to_chars drops trailing zeros, but the alternate form keeps them and must choose the notation itself.
    void ConvertGeneral(size_t a_sizetPrecision)
    {
        if (!m_conversion.blAlternate)
        {
            Convert(std::chars_format::general, std::min(a_sizetPrecision, OS_FLOATDECIMALS));
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
    char m_ach[OS_FLOATSIZE + 1];
    size_t m_sizetText = 0;
    size_t m_sizetZeros = 0;
};

}   // namespace

void osformat::PutFloat(Output& a_output, const Conversion& a_conversion, double a_dNumber)
{
    const bool blUpper = a_conversion.chKind < 'a';
    const std::string_view strviewSign = SignOf(a_conversion, std::signbit(a_dNumber));
    if (!std::isfinite(a_dNumber))
    {
        const bool blNan = std::isnan(a_dNumber);
        const char* const szText = blUpper ? (blNan ? "NAN" : "INF") : (blNan ? "nan" : "inf");
        PutNumber(a_output, a_conversion, {strviewSign, szText, 0, {}}, 0, false);
        return;
    }

    FloatText floattext(a_conversion, std::fabs(a_dNumber));
    NumberText numbertext = floattext.Pieces();
    char achPrefix[4];
    size_t sizetPrefix = strviewSign.copy(achPrefix, 1);
    if ((a_conversion.chKind | 0x20) == 'a')
    {
        achPrefix[sizetPrefix++] = '0';
        achPrefix[sizetPrefix++] = blUpper ? 'X' : 'x';
    }
    numbertext.strviewPrefix = {achPrefix, sizetPrefix};
    PutNumber(a_output, a_conversion, numbertext, 0, true);
}
