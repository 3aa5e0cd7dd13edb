// The Windows Wi-Fi adapter over the NDIS user-mode I/O access device (NDISUIO),
// with the wireless configuration service's busy check when that service is there.
#pragma once

#include <windows.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "spi/clock.h"
#include "spi/log.h"
#include "spi/wifi_adapter.h"

namespace ZEL::SPI {

// One open handle on the access device: DeviceIoControl and nothing more, so that
// tests can stand in for the driver.
class NdisuioChannel {
  public:
    virtual ~NdisuioChannel() = default;
    // 0 or the call's last error; `returned` is the byte count written to `out`.
    virtual DWORD control(DWORD code, const void* in, DWORD inSize, void* out, DWORD outSize,
                          DWORD& returned) = 0;
};

struct NdisuioOptions {
    // The access device: "UIO1:" on the handheld system, \\.\NdisUio on desktop
    // Windows; the request layout follows (see ndisuio.h).
    std::wstring devicePath = L"\\\\.\\NdisUio";
    // Opens the device, or returns null with the last error; CreateFileW when empty.
    std::function<std::unique_ptr<NdisuioChannel>(const std::wstring& path, DWORD& error)> open;
    // Stamps the results; the system clock when null.
    Clock* clock = nullptr;
};

// The wireless adapters bound to the access device, in binding order; bindings whose
// medium is not 802.3 over wireless LAN are skipped with a debug line. Empty when
// the device cannot be opened.
AdapterList enumerateNdisuioAdapters(const NdisuioOptions& options = {});

// The name of the system-wide scan mutex.
extern const wchar_t kNdisScanMutexName[];

}  // namespace ZEL::SPI
