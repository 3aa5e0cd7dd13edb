#include "local/sim/csv_fields.h"

#include <charconv>
#include <cmath>

namespace ZEL::Sim {
namespace {

std::string trimmed(std::string_view text) {
    const auto first = text.find_first_not_of(" \t");
    if (first == std::string_view::npos) {
        return {};
    }
    const auto last = text.find_last_not_of(" \t");
    return std::string(text.substr(first, last - first + 1));
}

template <typename T>
bool parseInteger(const std::string& field, T& value) {
    if (field.empty() || field[0] == '-' || field[0] == '+') {
        return false;
    }
    const auto [end, error] = std::from_chars(field.data(), field.data() + field.size(), value);
    return error == std::errc() && end == field.data() + field.size();
}

}  // namespace

std::vector<std::string> splitCsvLine(std::string_view line) {
    if (!line.empty() && line.back() == '\r') {
        line.remove_suffix(1);
    }
    std::vector<std::string> fields;
    if (line.find_first_not_of(" \t") == std::string_view::npos) {
        return fields;
    }
    size_t start = 0;
    while (true) {
        const size_t comma = line.find(',', start);
        fields.push_back(trimmed(line.substr(start, comma - start)));
        if (comma == std::string_view::npos) {
            return fields;
        }
        start = comma + 1;
    }
}

bool parseDouble(const std::string& field, double low, double high, double& value) {
    double parsed = 0.0;
    if (field.empty()) {
        return false;
    }
    const auto [end, error] = std::from_chars(field.data(), field.data() + field.size(), parsed);
    if (error != std::errc() || end != field.data() + field.size() || !std::isfinite(parsed) ||
        parsed < low || parsed > high) {
        return false;
    }
    value = parsed;
    return true;
}

bool parseUnsigned(const std::string& field, uint32_t& value) {
    return parseInteger(field, value);
}

bool parseUnsigned64(const std::string& field, uint64_t& value) {
    return parseInteger(field, value);
}

}  // namespace ZEL::Sim
