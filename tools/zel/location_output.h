// How `zel` shows positions: a few readable lines, or one JSON object per line.
#pragma once

#include <nlohmann/json.hpp>

#include <string>

#include "zelapi.h"

namespace ZEL::Cli {

nlohmann::json locationJson(int code, const ZEL_Location* location);
nlohmann::json ipLocationJson(int code, const ZEL_IPLocation* location);

// "geo:" URI a map application opens: latitude, longitude and the uncertainty in metres.
std::string geoUri(double latitude, double longitude, double hpe);

void printLocation(int code, const ZEL_Location* location, bool json);
// One line per location, for streams of fixes.
void printLocationLine(int code, const ZEL_Location* location, bool json);
void printIpLocation(int code, const ZEL_IPLocation* location, bool json);

// The result code in words, for messages.
const char* describeCode(int code);

}  // namespace ZEL::Cli
