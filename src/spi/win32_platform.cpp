// The system's platform on Windows: Win32 files and mappings, WinInet, MSXML, the
// NDISUIO and Native Wifi adapters and the Win32 clock.
#include "spi/http/wininet_xml_http_request.h"
#include "spi/io/win32_file.h"
#include "spi/platform.h"
#include "spi/time/win32_clock.h"
#include "spi/wifi/ndisuio_wifi_adapter.h"
#include "spi/wifi/wlan_wifi_adapter.h"
#include "spi/xml/msxml_parser.h"

#include <cstdlib>

namespace ZEL::SPI {
namespace {

class Win32Platform final : public Platform {
  public:
    std::unique_ptr<File> newFile() override { return newWin32File(); }
    std::unique_ptr<XmlHttpRequest> newHttpRequest() override { return newWinInetXmlHttpRequest(); }
    std::unique_ptr<XmlParser> newXmlParser() override { return newMsxmlParser(); }
    // The NDISUIO adapters, else (desktop Windows since Vista has no NDISUIO) the
    // Native Wifi ones. ZEL_NDISUIO_DEVICE names the access device when it is not
    // desktop Windows' \\.\NdisUio ("UIO1:" on the handheld system).
    AdapterList wifiAdapters() override {
        NdisuioOptions options;
        if (const wchar_t* path = _wgetenv(L"ZEL_NDISUIO_DEVICE"); path != nullptr && *path != 0) {
            options.devicePath = path;
        }
        AdapterList adapters = enumerateNdisuioAdapters(options);
        return adapters.empty() ? enumerateWlanAdapters() : std::move(adapters);
    }
    Clock& clock() override { return win32Clock(); }
};

}  // namespace

Platform& systemPlatform() {
    static Win32Platform instance;
    return instance;
}

}  // namespace ZEL::SPI
