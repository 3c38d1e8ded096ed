// lcctl_text.cpp: durations and sizes: parsing and formatting.
#include "lcctl_text.h"

#include <fmt/format.h>

#include <charconv>
#include <limits>
#include <string_view>
#include <utility>

static constexpr std::pair<std::string_view, int64_t> g_apairUnit[] = {
    {"s", 1},           {"m", 60},       {"min", 60}, {"h", 3600},     {"d", 86400},    {"w", 604800},
    {"month", 2629800}, {"y", 31557600}, {"sec", 1},  {"hours", 3600}, {"days", 86400}, {"weeks", 604800},
};

// Parses and removes a number from the front of the text.
static std::optional<uint64_t> TakeNumber(std::string_view& a_sv)
{
    uint64_t u64Number = 0;
    const auto [pch, errc] = std::from_chars(a_sv.data(), a_sv.data() + a_sv.size(), u64Number);
    if (errc != std::errc() || pch == a_sv.data())
        return std::nullopt;
    a_sv.remove_prefix(static_cast<size_t>(pch - a_sv.data()));
    return u64Number;
}

static std::optional<int64_t> TakeUnit(std::string_view& a_sv)
{
    const std::string_view svUnit = a_sv.substr(0, std::min(a_sv.find_first_of("0123456789"), a_sv.size()));
    for (const auto& [svName, i64Seconds] : g_apairUnit)
    {
        if (svUnit == svName)
        {
            a_sv.remove_prefix(svUnit.size());
            return i64Seconds;
        }
    }
    return std::nullopt;
}

std::optional<int64_t> LcctlParseDuration(const std::string& a_strText)
{
    constexpr int64_t i64Most = std::numeric_limits<int32_t>::max() * int64_t{1000};   // some 68,000 years
    int64_t i64Sum = 0;
    for (std::string_view sv = a_strText; !sv.empty();)
    {
        const std::optional<uint64_t> number = TakeNumber(sv);
        const std::optional<int64_t> unit = number ? TakeUnit(sv) : std::nullopt;
        if (!unit || *number > static_cast<uint64_t>((i64Most - i64Sum) / *unit))
            return std::nullopt;
        i64Sum += static_cast<int64_t>(*number) * *unit;
    }
    return i64Sum > 0 ? std::optional<int64_t>(i64Sum) : std::nullopt;
}

std::optional<uint64_t> LcctlParseSize(const std::string& a_strText)
{
    std::string_view sv = a_strText;
    const std::optional<uint64_t> number = TakeNumber(sv);
    if (!number || sv.size() > 1)
        return std::nullopt;
    constexpr std::string_view svUnits = "KMGT";
    const size_t sizetUnit = sv.empty() ? 0 : svUnits.find(sv[0]) + 1;   // 0: no unit, also for an unknown one
    if (!sv.empty() && sizetUnit == 0)
        return std::nullopt;
    const uint64_t u64Factor = uint64_t{1} << (10 * sizetUnit);
    if (*number > std::numeric_limits<uint64_t>::max() / u64Factor)
        return std::nullopt;
    return *number * u64Factor;
}

std::string LcctlDurationText(int64_t a_i64Seconds)
{
    if (a_i64Seconds >= 2 * 86400)
        return fmt::format("{} d", a_i64Seconds / 86400);
    if (a_i64Seconds >= 2 * 3600)
        return fmt::format("{} h", a_i64Seconds / 3600);
    if (a_i64Seconds >= 2 * 60)
        return fmt::format("{} min", a_i64Seconds / 60);
    return fmt::format("{} s", a_i64Seconds);
}

std::string LcctlSizeText(uint64_t a_u64Bytes)
{
    if (a_u64Bytes < 1024)
        return std::to_string(a_u64Bytes);
    double dAmount = static_cast<double>(a_u64Bytes);
    size_t sizetUnit = 0;
    constexpr std::string_view svUnits = "BKMGTPE";
    while (dAmount >= 1023.95 && sizetUnit + 1 < svUnits.size())
    {
        dAmount /= 1024;
        ++sizetUnit;
    }
    return fmt::format("{:.1f}{}", dAmount, svUnits[sizetUnit]);
}
