#include "spi/wifi/nl80211_wifi_adapter.h"

#include "spi/time/posix_clock.h"

#include <linux/nl80211.h>
#include <net/if.h>
#include <netlink/attr.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>

#include "spi/clock.h"
#include "spi/log.h"
#include "spi/wifi/nl80211_scan_results.h"

namespace ZEL::SPI {
namespace {

const char kCategory[] = "ZEL.SPI.WifiAdapter.Nl80211WifiAdapter";

bool interfaceIsUp(const std::string& name) {
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return true;  // cannot tell: let the scan itself report the problem
    }
    ifreq request{};
    std::strncpy(request.ifr_name, name.c_str(), IFNAMSIZ - 1);
    bool up = ioctl(fd, SIOCGIFFLAGS, &request) != 0 || (request.ifr_flags & IFF_UP) != 0;
    ::close(fd);
    return up;
}

// CLOCK_BOOTTIME in ns, the clock of the kernel's last-seen stamps; 0 when unreadable.
uint64_t bootTimeNs() {
    timespec time{};
    if (clock_gettime(CLOCK_BOOTTIME, &time) != 0) {
        return 0;
    }
    return static_cast<uint64_t>(time.tv_sec) * 1'000'000'000u +
           static_cast<uint64_t>(time.tv_nsec);
}

}  // namespace

AdapterList enumerateNl80211Adapters(const Nl80211Options& options) {
    Logger& log = getLogger(kCategory);
    int error = 0;
    std::string reason;
    auto socket = Nl80211Socket::connect(error, reason);
    if (!socket) {
        ZEL_LOG_INFO(log, "no wireless interfaces: %s", reason.c_str());
        return {};
    }
    std::vector<InterfaceInfo> interfaces;
    error = socket->request(socket->newMessage(NL80211_CMD_GET_INTERFACE, NLM_F_DUMP),
                            [&](const nlmsghdr* reply) {
                                if (auto info = parseInterface(reply)) {
                                    interfaces.push_back(std::move(*info));
                                }
                            });
    if (error != 0) {
        ZEL_LOG_ERROR(log, "NL80211_CMD_GET_INTERFACE failed with error %d", error);
        return {};
    }
    AdapterList adapters;
    for (InterfaceInfo& interface : interfaces) {
        const char* name = interface.name.c_str();
        if (interface.type != NL80211_IFTYPE_STATION) {
            ZEL_LOG_DEBUG(log, "%s: interface type is not station (%u)", name, interface.type);
        } else if (!interfaceIsUp(interface.name)) {
            ZEL_LOG_DEBUG(log, "%s: interface is down", name);
        } else {
            ZEL_LOG_DEBUG(log, "%s: ifindex = %u", name, interface.index);
            adapters.push_back(std::make_unique<Nl80211WifiAdapter>(interface, options));
        }
    }
    return adapters;
}

Nl80211WifiAdapter::Nl80211WifiAdapter(InterfaceInfo interface, const Nl80211Options& options)
    : log_(getLogger(kCategory)),
      interface_(std::move(interface)),
      scanTimeoutMs_(options.scanTimeoutMs),
      clock_(options.clock != nullptr ? *options.clock : posixClock()),
      connect_(options.connect),
      lock_(options.lockPath, log_) {
    if (!connect_) {
        connect_ = [](int& error, std::string& reason) -> std::unique_ptr<Nl80211Channel> {
            return Nl80211Socket::connect(error, reason);
        };
    }
}

Nl80211WifiAdapter::~Nl80211WifiAdapter() {
    close();
}

std::unique_ptr<Nl80211Channel> Nl80211WifiAdapter::connectOrLog(int& error) {
    std::string reason;
    auto socket = connect_(error, reason);
    if (!socket) {
        ZEL_LOG_ERROR(log_, "%s: can't open nl80211: %s", name().c_str(), reason.c_str());
    }
    return socket;
}

int Nl80211WifiAdapter::open() {
    if (commands_) {
        return 0;
    }
    int error = 0;
    auto commands = connectOrLog(error);
    auto events = commands ? connectOrLog(error) : nullptr;
    if (!events) {
        return error;
    }
    // Subscribed for the adapter's whole life, so that no scan's end can slip by
    // between a trigger and the read that looks for it.
    if ((error = events->subscribe("scan")) != 0) {
        ZEL_LOG_ERROR(log_, "%s: can't join the nl80211 scan group: %d", name().c_str(), error);
        return error;
    }
    commands_ = std::move(commands);
    events_ = std::move(events);
    ZEL_LOG_INFO(log_, "%s opened", name().c_str());
    return 0;
}

void Nl80211WifiAdapter::endScan() {
    scanPending_ = false;
    if (lock_.acquired()) {
        lock_.release();
    }
}

void Nl80211WifiAdapter::close() {
    endScan();
    events_.reset();
    commands_.reset();
}

int Nl80211WifiAdapter::startScan() {
    if (!commands_) {
        ZEL_LOG_ERROR(log_, "%s: startScan on a closed adapter", name().c_str());
        return ENOTCONN;
    }
    if (scanPending_) {
        ZEL_LOG_DEBUG(log_, "%s: scan already in progress...", name().c_str());
        return 0;
    }
    if (lock_.tryAcquire() == ScanLock::Outcome::HeldElsewhere) {
        // Another user's scan is running: its results reach the kernel's list, read
        // like any other. (Failed: no lock file, so the scan goes unguarded.)
        ZEL_LOG_DEBUG(log_, "%s: another process is scanning", name().c_str());
        return 0;
    }
    // An end event queued before this trigger belongs to an earlier scan.
    events_->readQueuedEvents([](const nlmsghdr*) {});
    Message trigger = commands_->newMessage(NL80211_CMD_TRIGGER_SCAN);
    int error = ENOMEM;
    if (trigger && nla_put_u32(trigger.get(), NL80211_ATTR_IFINDEX, interface_.index) == 0) {
        // One SSID of length 0: the wildcard, so probe requests ask every network.
        nlattr* ssids = nla_nest_start(trigger.get(), NL80211_ATTR_SCAN_SSIDS);
        if (ssids && nla_put(trigger.get(), 1, 0, "") == 0) {
            nla_nest_end(trigger.get(), ssids);
            error = commands_->request(trigger);
        }
    }
    return finishTrigger(error);
}

int Nl80211WifiAdapter::finishTrigger(int error) {
    if (error == 0) {
        ZEL_LOG_DEBUG(log_, "%s: scanning started...", name().c_str());
        scanPending_ = true;
        triggeredTick_ = clock_.tickCount();
        return 0;
    }
    endScan();
    if (error == EBUSY) {
        // The supplicant (or another tool) is scanning: its results reach the
        // kernel's list, read like any other.
        ZEL_LOG_INFO(log_, "%s: busy, a scan is already under way", name().c_str());
        return 0;
    }
    if (error == EPERM) {
        if (!permissionLogged_) {
            ZEL_LOG_INFO(log_,
                         "%s: no permission to trigger a scan (EPERM), reading the kernel's "
                         "cached results",
                         name().c_str());
            permissionLogged_ = true;
        }
        return 0;
    }
    ZEL_LOG_ERROR(log_, "%s: NL80211_CMD_TRIGGER_SCAN failed with error %d", name().c_str(), error);
    return error;
}

void Nl80211WifiAdapter::checkScanEnd() {
    ScanEvent end = ScanEvent::None;
    events_->readQueuedEvents([&](const nlmsghdr* event) {
        ScanEvent seen = scanEventFor(event, interface_.index);
        if (seen == ScanEvent::Results || seen == ScanEvent::Aborted) {
            end = seen;
        }
    });
    if (end == ScanEvent::Results) {
        ZEL_LOG_DEBUG(log_, "%s: scan finished", name().c_str());
    } else if (end == ScanEvent::Aborted) {
        ZEL_LOG_INFO(log_, "%s: scan aborted", name().c_str());
    } else if (clock_.tickCount() - triggeredTick_ >= scanTimeoutMs_) {
        ZEL_LOG_ERROR(log_, "%s: no end of scan within %u ms", name().c_str(), scanTimeoutMs_);
    } else {
        return;  // still scanning
    }
    endScan();
}

int Nl80211WifiAdapter::dumpScan(std::vector<BssEntry>& entries) {
    Message dump = commands_->newMessage(NL80211_CMD_GET_SCAN, NLM_F_DUMP);
    if (!dump || nla_put_u32(dump.get(), NL80211_ATTR_IFINDEX, interface_.index) != 0) {
        return ENOMEM;
    }
    const DumpTime time{clock_.now(), bootTimeNs()};
    return commands_->request(dump, [&](const nlmsghdr* reply) {
        if (auto entry = parseBss(reply, time)) {
            entries.push_back(*entry);
        }
    });
}

int Nl80211WifiAdapter::getScanResults(Core::ApList& list) {
    if (!commands_) {
        ZEL_LOG_ERROR(log_, "%s: getScanResults on a closed adapter", name().c_str());
        return ENOTCONN;
    }
    if (scanPending_) {
        checkScanEnd();
    }
    std::vector<BssEntry> entries;
    int error = dumpScan(entries);
    if (error != 0) {
        ZEL_LOG_ERROR(log_, "%s: NL80211_CMD_GET_SCAN failed with error %d", name().c_str(), error);
        endScan();
        return error;
    }
    collectScanResults(entries, list, log_);
    return 0;
}

}  // namespace ZEL::SPI
