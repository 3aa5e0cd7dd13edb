// Feeds arbitrary bytes to the three answer parsers, with street addresses asked
// for so that the address walk is reached too.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "remote/response_parser.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string_view text(reinterpret_cast<const char*>(data), size);
    using namespace ZEL;
    Core::LocationRecord location;
    Remote::parseLocationResponse(text, 2, location);
    Core::IpLocationRecord ipLocation;
    Remote::parseIPLocationResponse(text, 1, ipLocation);
    Remote::parseRegistrationResponse(text);
    return 0;
}
