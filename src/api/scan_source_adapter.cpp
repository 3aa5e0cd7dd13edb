#include "api/scan_source_adapter.h"

#include <memory>

#include "spi/log.h"
#include "spi/platform.h"

namespace ZEL::API {
namespace {

class ScanSourceAdapter final : public SPI::WifiAdapter {
  public:
    explicit ScanSourceAdapter(ScanSource source)
        : log_(SPI::getLogger("ZEL.SPI.WifiAdapter.ScanSourceAdapter")),
          source_(std::move(source)) {}

    std::string name() const override { return "application scan source"; }
    int open() override { return 0; }
    void close() override {}
    int startScan() override { return 0; }

    int getScanResults(Core::ApList& list) override {
        list.clear();
        if (int result = source_(list); result != 0) {
            ZEL_LOG_ERROR(log_, "scan source failed: %d", result);
            list.clear();
            return result;
        }
        const Core::TimeStamp now = SPI::currentTime();
        for (Core::ScannedAP& ap : list) {
            ap.time = now;
        }
        ZEL_LOG_DEBUG(log_, "scanned %d APs", static_cast<int>(list.size()));
        return 0;
    }

  private:
    SPI::Logger& log_;
    ScanSource source_;
};

// The platform in force while a scan source is set: its target's, but for Wi-Fi.
class ScanSourcePlatform final : public SPI::PlatformWrapper {
  public:
    ScanSourcePlatform(SPI::Platform& target, ScanSource source)
        : PlatformWrapper(target), source_(std::move(source)) {}
    SPI::AdapterList wifiAdapters() override {
        SPI::AdapterList adapters;
        adapters.push_back(std::make_unique<ScanSourceAdapter>(source_));
        return adapters;
    }

  private:
    ScanSource source_;
};

std::unique_ptr<ScanSourcePlatform>& installed() {
    static auto* platform = new std::unique_ptr<ScanSourcePlatform>();
    return *platform;
}

}  // namespace

void installScanSource(ScanSource source) {
    std::unique_ptr<ScanSourcePlatform>& current = installed();
    if (current) {
        SPI::setPlatform(&current->target());
        current.reset();
    }
    if (source) {
        current = std::make_unique<ScanSourcePlatform>(SPI::platform(), std::move(source));
        SPI::setPlatform(current.get());
    }
}

}  // namespace ZEL::API
