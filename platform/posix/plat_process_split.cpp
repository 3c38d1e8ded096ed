// plat_process_split.cpp: a command line in one text becomes the arguments that this system hands over, by the rules
// of the product's system.
#include "plat_posix.h"

#include <string_view>

static bool IsBlank(char16_t a_ch)
{
    return a_ch == u' ' || a_ch == u'\t';
}

// The program is everything up to a blank, or between quotation marks; a backslash is a backslash.
static std::u16string TakeProgram(std::u16string_view& a_wstrview)
{
    const bool blQuoted = a_wstrview.starts_with(u'"');
    if (blQuoted)
        a_wstrview.remove_prefix(1);
    size_t sizetEnd = 0;
    while (sizetEnd < a_wstrview.size() && (blQuoted ? a_wstrview[sizetEnd] != u'"' : !IsBlank(a_wstrview[sizetEnd])))
        ++sizetEnd;
    std::u16string wstrProgram(a_wstrview.substr(0, sizetEnd));
    a_wstrview.remove_prefix(blQuoted && sizetEnd < a_wstrview.size() ? sizetEnd + 1 : sizetEnd);
    return wstrProgram;
}

// One argument. Backslashes count by pairs when a quotation mark follows, the odd one makes the mark a plain
// character; two marks within quotation marks are a plain one.
static std::u16string TakeArgument(std::u16string_view& a_wstrview)
{
    std::u16string wstrArgument;
    bool blQuoted = false;
    while (!a_wstrview.empty() && (blQuoted || !IsBlank(a_wstrview[0])))
    {
        size_t sizetSlashes = 0;
        while (sizetSlashes < a_wstrview.size() && a_wstrview[sizetSlashes] == u'\\')
            ++sizetSlashes;
        const bool blMark = sizetSlashes < a_wstrview.size() && a_wstrview[sizetSlashes] == u'"';
        wstrArgument.append(blMark ? sizetSlashes / 2 : sizetSlashes, u'\\');
        a_wstrview.remove_prefix(sizetSlashes);
        if (!blMark && sizetSlashes > 0)
            continue;

        const bool blDoubled = blMark && blQuoted && a_wstrview.starts_with(u"\"\"");
        if (blMark && sizetSlashes % 2 == 0 && !blDoubled)
        {
            blQuoted = !blQuoted;
        }
        else
        {
            wstrArgument += a_wstrview[0];
            if (blDoubled && sizetSlashes % 2 == 0)
                a_wstrview.remove_prefix(1);
        }
        a_wstrview.remove_prefix(1);
    }
    return wstrArgument;
}

bool PosixSplitCommandLine(const char16_t* a_wszCommandLine, std::vector<std::string>& a_vecstrArguments)
{
    std::u16string_view wstrview(a_wszCommandLine);
    if (!PosixToUtf8(TakeProgram(wstrview).c_str(), a_vecstrArguments.emplace_back()))
        return false;
    for (;;)
    {
        while (!wstrview.empty() && IsBlank(wstrview[0]))
            wstrview.remove_prefix(1);
        if (wstrview.empty())
            return true;
        if (!PosixToUtf8(TakeArgument(wstrview).c_str(), a_vecstrArguments.emplace_back()))
            return false;
    }
}
