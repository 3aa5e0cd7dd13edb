#include "api/scan_source_adapter.h"

#include <algorithm>
#include <array>
#include <cstring>

#include "spi/log.h"

namespace ZEL::API {
namespace {

class ScanSourceAdapter final : public SPI::Wifi::WifiAdapter {
  public:
    ScanSourceAdapter(ZEL_ScanSource source, void* argument)
        : log_(SPI::getCategory("ZEL.SPI.WifiAdapter.ScanSourceAdapter")),
          source_(source),
          argument_(argument) {}

    std::string name() const override { return "application scan source"; }
    int open() override { return 0; }
    void close() override {}
    int startScan() override { return 0; }

    int getScanResults(ApList& list) override {
        list.clear();
        unsigned int count = 0;
        int result = source_(argument_, buffer_.data(), kScanSourceCapacity, &count);
        if (result != 0) {
            ZEL_LOG_ERROR(log_, "scan source failed: %d", result);
            return result;
        }
        if (count > kScanSourceCapacity) {
            ZEL_LOG_ERROR(log_, "scan source reported %u APs for %u places; reading %u", count,
                          kScanSourceCapacity, kScanSourceCapacity);
            count = kScanSourceCapacity;
        }
        const SPI::TimeStamp now = SPI::currentTime();
        for (unsigned int i = 0; i < count; ++i) {
            ScannedAP ap;
            std::memcpy(ap.mac.data(), buffer_[i].mac, ap.mac.size());
            ap.rss = buffer_[i].rss;
            ap.time = now;
            list.push_back(ap);
        }
        ZEL_LOG_DEBUG(log_, "scanned %d APs", static_cast<int>(count));
        return 0;
    }

  private:
    log4cpp::Category& log_;
    ZEL_ScanSource source_;
    void* argument_;
    std::array<ZEL_APEntry, kScanSourceCapacity> buffer_{};
};

}  // namespace

std::unique_ptr<SPI::Wifi::WifiAdapter> makeScanSourceAdapter(ZEL_ScanSource source,
                                                              void* argument) {
    return std::make_unique<ScanSourceAdapter>(source, argument);
}

void installScanSource(ZEL_ScanSource source, void* argument) {
    if (source == nullptr) {
        SPI::Wifi::setAdapterEnumerator({});
        return;
    }
    SPI::Wifi::setAdapterEnumerator([source, argument] {
        SPI::Wifi::AdapterList adapters;
        adapters.push_back(makeScanSourceAdapter(source, argument));
        return adapters;
    });
}

}  // namespace ZEL::API
