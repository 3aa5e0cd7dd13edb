// The Wi-Fi adapter behind an application-supplied scan source (zelapi_ext.h).
#pragma once

#include <memory>

#include "spi/wifi_adapter.h"
#include "zelapi_ext.h"

namespace ZEL::API {

// Entries a source may write per scan.
inline constexpr unsigned int kScanSourceCapacity = 256;

// One adapter that reads its scans from `source`; open and startScan always succeed.
std::unique_ptr<SPI::Wifi::WifiAdapter> makeScanSourceAdapter(ZEL_ScanSource source,
                                                              void* argument);

// Makes `source` the only adapter the engine enumerates; null restores the system's.
void installScanSource(ZEL_ScanSource source, void* argument);

}  // namespace ZEL::API
