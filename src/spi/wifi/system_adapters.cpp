#include "spi/wifi_adapter.h"

namespace ZEL::SPI::Wifi {

// The nl80211 adapter is not part of this build yet: the system offers no adapter,
// and the scan loop reports "couldn't find any Wi-Fi adapters" (code 2). An
// application can still feed scans through an installed enumerator.
AdapterList enumerateSystemAdapters() {
    return {};
}

}  // namespace ZEL::SPI::Wifi
