#include "replay_source.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>

#include "local/scan_recording.h"
#include "spi/platform.h"

namespace ZEL::Cli {

bool ReplaySource::load(const std::string& path) {
    std::ifstream file(path);
    if (!file) {
        std::fprintf(stderr, "zel: can't read the recording %s\n", path.c_str());
        return false;
    }
    Local::ScanRecordingReader reader(file);
    while (auto item = reader.next()) {
        if (item->scan) {
            scans_.push_back(std::move(item->scan->aps));
        } else {
            std::fprintf(stderr, "zel: %s:%zu: skipped: %s\n", path.c_str(), item->line,
                         item->error.c_str());
        }
    }
    if (scans_.empty()) {
        std::fprintf(stderr, "zel: %s holds no scan\n", path.c_str());
        return false;
    }
    return true;
}

void ReplaySource::install() {
    ZEL_set_scan_source(&ReplaySource::nextScan, this);
    installed_ = true;
}

void ReplaySource::uninstall() {
    if (installed_) {
        ZEL_set_scan_source(nullptr, nullptr);
        installed_ = false;
    }
}

int ReplaySource::nextScan(void* self, ZEL_APEntry* aps, unsigned int capacity,
                           unsigned int* count) {
    auto* source = static_cast<ReplaySource*>(self);
    *count = 0;
    if (source->exhausted()) {
        ++source->next_;
        return 0;  // past the end of the recording nothing more is heard
    }
    const ZEL::Core::ApList& scan = source->scans_[source->next_++];
    for (const ZEL::Core::ScannedAP& ap : scan) {
        if (*count == capacity) {
            break;
        }
        std::memcpy(aps[*count].mac, ap.mac.data(), 6);
        aps[*count].rss = ap.rss;
        ++*count;
    }
    return 0;
}

int chooseScanSource(const std::string& replayPath, ReplaySource& replay) {
    if (!replayPath.empty()) {
        if (!replay.load(replayPath)) {
            return 1;
        }
        replay.install();
        return 0;
    }
    if (ZEL::SPI::systemPlatform().wifiAdapters().empty()) {
        std::fprintf(
            stderr,
            "zel: this machine has no Wi-Fi adapter to scan with; to use the bundled sample "
            "city instead, run: zel locate --db examples/sample-city.zel --replay "
            "examples/sample-walk.jsonl\n");
        return ZEL_ERROR_WIFI;
    }
    return 0;
}

}  // namespace ZEL::Cli
