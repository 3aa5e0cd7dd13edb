#include "support/scripted_wifi_adapter.h"

#include <stdexcept>

namespace ZEL::Testing {
namespace {

bool nextFails(std::deque<bool>& script) {
    if (script.empty()) {
        return false;
    }
    bool fails = script.front();
    script.pop_front();
    return fails;
}

}  // namespace

int ScriptedWifiAdapter::open() {
    script_->calls.push_back("open");
    return nextFails(script_->failOpen) ? 5 : 0;
}

int ScriptedWifiAdapter::startScan() {
    script_->calls.push_back("start");
    return nextFails(script_->failStart) ? 21 : 0;
}

int ScriptedWifiAdapter::getScanResults(Core::ApList& list) {
    script_->calls.push_back("get");
    list.clear();
    if (nextFails(script_->failGet)) {
        return 31;
    }
    if (!script_->scans.empty()) {
        list = std::move(script_->scans.front());
        script_->scans.pop_front();
    }
    return 0;
}

SPI::AdapterEnumerator scriptedEnumerator(std::shared_ptr<AdapterScript> script) {
    return [script] {
        SPI::AdapterList adapters;
        adapters.push_back(std::make_unique<ScriptedWifiAdapter>(script));
        return adapters;
    };
}

Core::ScannedAP ap(const char* text, int16_t rss) {
    auto mac = Core::parseMacText(text);
    if (!mac) {
        throw std::invalid_argument(std::string("bad MAC in test: ") + text);
    }
    Core::ScannedAP record;
    record.mac = *mac;
    record.rss = rss;
    return record;
}

}  // namespace ZEL::Testing
