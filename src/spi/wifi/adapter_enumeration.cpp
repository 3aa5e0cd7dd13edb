#include "spi/wifi_adapter.h"

namespace ZEL::SPI::Wifi {
namespace {

AdapterEnumerator& installedEnumerator() {
    static AdapterEnumerator enumerator;
    return enumerator;
}

}  // namespace

AdapterList enumerateAdapters() {
    const AdapterEnumerator& enumerator = installedEnumerator();
    return enumerator ? enumerator() : enumerateSystemAdapters();
}

AdapterEnumerator setAdapterEnumerator(AdapterEnumerator enumerator) {
    AdapterEnumerator previous = std::move(installedEnumerator());
    installedEnumerator() = std::move(enumerator);
    return previous;
}

}  // namespace ZEL::SPI::Wifi
