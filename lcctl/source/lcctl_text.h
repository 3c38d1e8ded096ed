// lcctl_text.h: durations and sizes: parsing and formatting.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

// Parses "36h", "14d", "2w", "1d12h" to seconds: s, min (or m), h, d, w, month, y; none for anything else, including 0
// and "".
std::optional<int64_t> LcctlParseDuration(const std::string& a_strText);

// Parses "500M", "5G", "1024" to bytes: K, M, G, T, each 1,024 times the one before; none for anything else.
std::optional<uint64_t> LcctlParseSize(const std::string& a_strText);

// "3 d", "5 h", "12 s".
std::string LcctlDurationText(int64_t a_i64Seconds);

// "0", "999", "1.2K", "5.0G".
std::string LcctlSizeText(uint64_t a_u64Bytes);

// Validates an option's value with one of the parsers above; the error is "VALUE TEXT".
template <typename Parser>
std::function<std::string(const std::string&)> LcctlCheck(Parser a_parser, const std::string& a_strText)
{
    return [a_parser, a_strText](const std::string& a_str) {
        return a_parser(a_str) ? std::string() : "\"" + a_str + "\" " + a_strText;
    };
}
