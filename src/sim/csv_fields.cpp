#include "sim/csv_fields.h"

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

}  // namespace ZEL::Sim
