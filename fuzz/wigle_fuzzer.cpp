// Reads arbitrary text as a WiGLE export, then learns from it.
#include <cstdint>
#include <string_view>

#include "learn_fuzz_check.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > 65536) {
        return 0;
    }
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    checkReadAndLearn(ZEL::Learn::readWigle(text));
    return 0;
}
