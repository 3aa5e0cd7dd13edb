// The Wi-Fi adapter behind an application-supplied scan source.
#pragma once

#include <functional>

#include "core/scanned_ap.h"

namespace ZEL::API {

// Replaces `aps` with one scan's access points (MAC and RSS; the adapter stamps the
// time). A non-zero return reports an adapter failure.
using ScanSource = std::function<int(Core::ApList& aps)>;

// Makes a platform whose only Wi-Fi adapter reads `source` (opening it and starting
// a scan always succeed) the one in force; an empty source restores the platform
// that was in force before. Call it under the API lock.
void installScanSource(ScanSource source);

}  // namespace ZEL::API
