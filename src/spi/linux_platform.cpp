// The system's platform on Linux: POSIX files and mappings, libcurl, libxml2,
// nl80211 adapters and the POSIX clock.
#include "spi/http/curl_xml_http_request.h"
#include "spi/io/posix_file.h"
#include "spi/platform.h"
#include "spi/time/posix_clock.h"
#include "spi/wifi/nl80211_wifi_adapter.h"
#include "spi/xml/libxml2_parser.h"

namespace ZEL::SPI {
namespace {

class LinuxPlatform final : public Platform {
  public:
    std::unique_ptr<File> newFile() override { return newPosixFile(); }
    std::unique_ptr<XmlHttpRequest> newHttpRequest() override { return newCurlXmlHttpRequest(); }
    std::unique_ptr<XmlParser> newXmlParser() override { return newLibXml2Parser(); }
    AdapterList wifiAdapters() override { return enumerateNl80211Adapters(); }
    Clock& clock() override { return posixClock(); }
};

}  // namespace

Platform& systemPlatform() {
    static LinuxPlatform instance;
    return instance;
}

}  // namespace ZEL::SPI
