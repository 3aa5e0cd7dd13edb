#include "core/ap_list.h"

#include <algorithm>
#include <cstring>

namespace ZEL::Core {
namespace {

// Printed order: mac[5] is the first printed octet, so compare from byte 5 down.
bool macLess(const ScannedAP& a, const ScannedAP& b) {
    for (int i = 5; i >= 0; --i) {
        if (a.mac[i] != b.mac[i]) {
            return a.mac[i] < b.mac[i];
        }
    }
    return false;
}

bool timeLess(const TimeStamp& a, const TimeStamp& b) {
    return a.seconds != b.seconds ? a.seconds < b.seconds : a.milliseconds < b.milliseconds;
}

void appendText(std::string& text, const ScannedAP& ap) {
    if (!text.empty()) {
        text += "; ";
    }
    text += macText(ap.mac);
    text += ", ";
    text += std::to_string(ap.rss);
}

}  // namespace

void RecentApList::merge(const ApList& fresh, TimeStamp now) {
    for (const ScannedAP& ap : fresh) {
        auto at = std::lower_bound(
            entries_.begin(), entries_.end(), now,
            [](const Entry& e, const TimeStamp& t) { return timeLess(e.heard, t); });
        entries_.insert(at, Entry{ap, now});
    }
    // Oldest first: drop from the front while too old.
    while (!entries_.empty() &&
           ageMs(now, entries_.front().heard) > static_cast<int32_t>(maxAgeMs_)) {
        entries_.pop_front();
    }
}

ApList RecentApList::aps() const {
    ApList list;
    list.reserve(entries_.size());
    for (const Entry& entry : entries_) {
        list.push_back(entry.ap);
    }
    return list;
}

void unique(ApList& list) {
    std::sort(list.begin(), list.end(), macLess);
    auto last = std::unique(list.begin(), list.end(),
                            [](const ScannedAP& a, const ScannedAP& b) { return a.mac == b.mac; });
    list.erase(last, list.end());
}

void filter(const RecentApList& recent, TimeStamp now, ApList& fresh, ApList& cached) {
    const auto& entries = recent.entries();
    for (auto entry = entries.rbegin(); entry != entries.rend(); ++entry) {
        if (ageMs(now, entry->heard) > kRecentlyHeardMs) {
            break;
        }
        auto match = std::find_if(fresh.begin(), fresh.end(),
                                  [&](const ScannedAP& ap) { return ap.mac == entry->ap.mac; });
        if (match != fresh.end()) {
            cached.push_back(*match);
            fresh.erase(match);
        }
    }
}

std::string toText(const ApList& list) {
    std::string text;
    for (const ScannedAP& ap : list) {
        appendText(text, ap);
    }
    return text;
}

std::string toText(const RecentApList& list) {
    std::string text;
    for (const auto& entry : list.entries()) {
        appendText(text, entry.ap);
    }
    return text;
}

}  // namespace ZEL::Core
