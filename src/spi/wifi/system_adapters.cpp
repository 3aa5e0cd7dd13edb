#include "spi/wifi/nl80211_wifi_adapter.h"
#include "spi/wifi_adapter.h"

namespace ZEL::SPI::Wifi {

AdapterList enumerateSystemAdapters() {
    return enumerateNl80211Adapters();
}

}  // namespace ZEL::SPI::Wifi
