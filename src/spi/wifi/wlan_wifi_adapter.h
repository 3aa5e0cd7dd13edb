// The Windows Wi-Fi adapter over Native Wifi ("wlanapi.dll", loaded at run time),
// for desktop Windows without the NDISUIO access device.
#pragma once

#include "spi/clock.h"
#include "spi/wifi_adapter.h"

namespace ZEL::SPI {

// The wireless interfaces the WLAN service knows, in its order. Empty, with an error
// line, when the library or the service is missing. `clock` stamps the results; the
// system clock when null.
AdapterList enumerateWlanAdapters(Clock* clock = nullptr);

}  // namespace ZEL::SPI
