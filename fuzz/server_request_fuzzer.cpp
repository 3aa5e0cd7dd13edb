// Feeds arbitrary bytes to what the location server reads from outside: the three
// request documents and the two CSV files. Also checks that escaped text of any
// bytes always makes a well-formed element.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <string>

#include "server/answer_writer.h"
#include "server/ip_ranges.h"
#include "server/request_reader.h"
#include "server/street_address_index.h"
#include "spi/platform.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace ZEL::Server;
    const std::string text(reinterpret_cast<const char*>(data), size);
    for (Question question : {Question::Location, Question::IpLocation, Question::Registration}) {
        readRequest(question, text, 100);
    }

    const std::string element = "<a b='" + escapeXml(text) + "'>" + escapeXml(text) + "</a>";
    if (!ZEL::SPI::systemPlatform().newXmlParser()->parse(element.data(), element.size())) {
        std::abort();  // escaping let something through that breaks the document
    }

    std::string error;
    std::istringstream ranges(text);
    if (auto table = IpRanges::read(ranges, "fuzz", error)) {
        table->find("10.0.0.1");
    }
    std::istringstream addresses(text);
    if (auto index = StreetAddressIndex::read(addresses, "fuzz", 150.0, error)) {
        index->nearest(47.0, 8.0);
    }
    return 0;
}
