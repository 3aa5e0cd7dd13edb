// The system's platform on Windows: Win32 files and mappings, WinInet, MSXML, the
// NDISUIO and Native Wifi adapters and the Win32 clock.
#include "spi/http/wininet_xml_http_request.h"
#include "spi/io/win32_file.h"
#include "spi/platform.h"
#include "spi/time/win32_clock.h"
#include "spi/xml/msxml_parser.h"

namespace ZEL::SPI {
namespace {

class Win32Platform final : public Platform {
  public:
    std::unique_ptr<File> newFile() override { return newWin32File(); }
    std::unique_ptr<XmlHttpRequest> newHttpRequest() override { return newWinInetXmlHttpRequest(); }
    std::unique_ptr<XmlParser> newXmlParser() override { return newMsxmlParser(); }
    AdapterList wifiAdapters() override { return {}; }
    Clock& clock() override { return win32Clock(); }
};

}  // namespace

Platform& systemPlatform() {
    static Win32Platform instance;
    return instance;
}

}  // namespace ZEL::SPI
