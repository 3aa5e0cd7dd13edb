// Reads arbitrary text as geosubmit reports, then learns from it; also as one body
// POSTed to the server's /v2/geosubmit, whose intake must keep only fresh items.
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "learn_fuzz_check.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > 65536) {
        return 0;
    }
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    checkReadAndLearn(ZEL::Learn::readGeosubmit(text));
    const ZEL::Learn::Intake intake{1'800'000'000'000, 86'400'000};
    const ZEL::Learn::ReadResult body = ZEL::Learn::readGeosubmit(text, &intake);
    for (const ZEL::Learn::Observation& observation : body.observations) {
        if (observation.timeMs > intake.nowMs + ZEL::Learn::kMaxFutureMs) {
            abort();  // an item from the future passed (older ones may carry old ages)
        }
    }
    checkReadAndLearn(body);
    return 0;
}
