// Numbers read from untrusted text files (CSV imports, simulator files, server
// tables): the number must fill the whole text, with nothing before or after it.
#pragma once

#include <charconv>
#include <cmath>
#include <optional>
#include <string_view>
#include <type_traits>

namespace ZEL::Core {

// A finite decimal number (no infinity, no NaN) filling all of `text`.
inline std::optional<double> parseFiniteDouble(std::string_view text) {
    double value = 0.0;
    const char* end = text.data() + text.size();
    auto [rest, error] = std::from_chars(text.data(), end, value);
    if (text.empty() || error != std::errc() || rest != end || !std::isfinite(value)) {
        return std::nullopt;
    }
    return value;
}

// The same, in [low, high]; `value` is left as it was on failure.
inline bool parseDoubleIn(std::string_view text, double low, double high, double& value) {
    std::optional<double> parsed = parseFiniteDouble(text);
    if (!parsed || *parsed < low || *parsed > high) {
        return false;
    }
    value = *parsed;
    return true;
}

// A decimal integer without sign filling all of `text` and fitting T; `value` is
// left as it was on failure.
template <typename T>
bool parseUnsigned(std::string_view text, T& value) {
    static_assert(std::is_unsigned_v<T>);
    T parsed = 0;
    const char* end = text.data() + text.size();
    auto [rest, error] = std::from_chars(text.data(), end, parsed);
    if (text.empty() || error != std::errc() || rest != end) {
        return false;
    }
    value = parsed;
    return true;
}

}  // namespace ZEL::Core
