// Reads arbitrary text as a CSV through --columns (the first line is the mapping), then learns from
// it.
#include <cstdint>
#include <string_view>

#include "learn_fuzz_check.h"

namespace {

ZEL::Learn::ReadResult mapped(std::string_view text) {
    const size_t end = text.find('\n');
    std::string error;
    auto columns = ZEL::Learn::parseColumnMapping(text.substr(0, end), error);
    if (!columns || end == std::string_view::npos) {
        return {};
    }
    return ZEL::Learn::readMappedCsv(text.substr(end + 1), *columns);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > 65536) {
        return 0;
    }
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    checkReadAndLearn(mapped(text));
    return 0;
}
