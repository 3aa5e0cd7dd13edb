#include "spi/wifi/nl80211_wifi_adapter.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <ctime>

#include "spi/manual_clock.h"
#include "support/hand_built_tile.h"
#include "support/nl80211_message_builder.h"

namespace ZEL::SPI {
namespace {

using Testing::MessageBuilder;
constexpr uint32_t kIfindex = 3;

// The kernel behind both of the adapter's sockets: the trigger's answer, the scan
// list a dump returns and the events queued on the "scan" group.
struct ScriptedKernel {
    int triggerError = 0, dumpError = 0, triggers = 0;
    std::vector<MessageBuilder> scanList, events;
};

class ScriptedSocket final : public Nl80211Channel {
  public:
    explicit ScriptedSocket(ScriptedKernel& kernel) : kernel_(kernel) {}
    Message newMessage(uint8_t command, int flags) const override {
        Message message(nlmsg_alloc());
        genlmsg_put(message.get(), 0, 0, 0x1c, 0, flags, command, 0);
        return message;
    }
    int request(const Message& message, const ReplyHandler& onReply) override {
        if (genlmsg_hdr(nlmsg_hdr(message.get()))->cmd == NL80211_CMD_TRIGGER_SCAN) {
            ++kernel_.triggers;
            return kernel_.triggerError;
        }
        deliver(kernel_.scanList, onReply);  // the dump
        return kernel_.dumpError;
    }
    int subscribe(const char*) override { return 0; }
    void readQueuedEvents(const ReplyHandler& onEvent) override {
        deliver(kernel_.events, onEvent);
        kernel_.events.clear();
    }

  private:
    static void deliver(const std::vector<MessageBuilder>& messages, const ReplyHandler& to) {
        for (const MessageBuilder& message : messages) {
            to(message.header());
        }
    }
    ScriptedKernel& kernel_;
};

class Nl80211AdapterTest : public ::testing::Test {
  protected:
    Nl80211AdapterTest() {
        options_.lockPath = directory_.path() + "/lock";
        options_.clock = &clock_;
        options_.connect = [this](int&, std::string&) {
            return std::make_unique<ScriptedSocket>(kernel_);
        };
        adapter_ = std::make_unique<Nl80211WifiAdapter>(
            InterfaceInfo{"wlan0", kIfindex, NL80211_IFTYPE_STATION}, options_);
        EXPECT_EQ(adapter_->open(), 0);
    }

    // Access point `last` (its BSSID's last byte) in the kernel's list, heard `ageMs`
    // ago, and at `seenBootNs` by the boot clock where that is not 0.
    void heard(uint8_t last, uint32_t ageMs, uint64_t seenBootNs = 0) {
        MessageBuilder& entry = kernel_.scanList.emplace_back(NL80211_CMD_NEW_SCAN_RESULTS);
        entry.bss("ap", 1, {2, 0, 0, 0, 0, last}).u32(NL80211_BSS_SEEN_MS_AGO, ageMs);
        (seenBootNs ? entry.u64(NL80211_BSS_LAST_SEEN_BOOTTIME, seenBootNs) : entry).endBss();
    }
    void event(uint8_t command, uint32_t ifindex = kIfindex) {
        kernel_.events.emplace_back(command).u32(NL80211_ATTR_IFINDEX, ifindex);
    }
    // Whether another user (a second lock on the file) could take the scan lock now.
    bool lockFree() {
        ScanLock other(options_.lockPath, getLogger("test"));
        return other.tryAcquire() == ScanLock::Outcome::Acquired;
    }
    size_t read() {
        Core::ApList list;
        EXPECT_EQ(adapter_->getScanResults(list), 0);
        return list.size();
    }

    Testing::TempDir directory_;
    ManualClock clock_;
    ScriptedKernel kernel_;
    Nl80211Options options_;
    std::unique_ptr<Nl80211WifiAdapter> adapter_;
};

TEST_F(Nl80211AdapterTest, ReadsAtOnceWhatWasHeardWithinTheRecentAgeDuringItsScan) {
    for (auto [last, ageMs] : {std::pair<uint8_t, uint32_t>{1, 0}, {2, 30000}, {3, 30001}}) {
        heard(last, ageMs);
    }
    timespec boot{};  // and one heard 40 s ago by the boot clock, whatever its other age
    clock_gettime(CLOCK_BOOTTIME, &boot);
    heard(4, 0, (boot.tv_sec - 40) * 1'000'000'000ull);
    ASSERT_EQ(adapter_->startScan(), 0);
    Core::ApList list;
    ASSERT_EQ(adapter_->getScanResults(list), 0);  // the scan is under way: no end event yet
    ASSERT_EQ(list.size(), 2u);
    EXPECT_EQ(Core::macText(list[1].mac), "020000000002");
    EXPECT_EQ(list[1].time.totalMilliseconds(), clock_.nowMs() - 30000);
}

TEST_F(Nl80211AdapterTest, LockHeldFromTriggerToTheReadAfterItsScanEnds) {
    heard(1, 0);
    event(NL80211_CMD_NEW_SCAN_RESULTS);  // an earlier scan's end: not this one's
    ASSERT_EQ(adapter_->startScan(), 0);
    EXPECT_EQ(read(), 1u);
    ASSERT_EQ(adapter_->startScan(), 0);  // ours still runs: no second trigger
    event(NL80211_CMD_NEW_SCAN_RESULTS, kIfindex + 1);
    event(NL80211_CMD_TRIGGER_SCAN);
    read();
    EXPECT_EQ(kernel_.triggers, 1);
    EXPECT_FALSE(lockFree());

    // Each end gives the lock back at the next read; the next trigger goes out.
    for (uint8_t end : {NL80211_CMD_NEW_SCAN_RESULTS, NL80211_CMD_SCAN_ABORTED}) {
        event(end);
        read();
        EXPECT_TRUE(lockFree()) << int{end};
        ASSERT_EQ(adapter_->startScan(), 0);
    }
    EXPECT_EQ(kernel_.triggers, 3);
    // An end event lost: given up after the time-out, not before.
    clock_.advance(options_.scanTimeoutMs - 1);
    read();
    EXPECT_FALSE(lockFree());
    clock_.advance(1);
    read();
    EXPECT_TRUE(lockFree());

    ASSERT_EQ(adapter_->startScan(), 0);
    adapter_->close();
    EXPECT_TRUE(lockFree());
    Core::ApList list;
    EXPECT_EQ(adapter_->startScan(), ENOTCONN);
    EXPECT_EQ(adapter_->getScanResults(list), ENOTCONN);
}

TEST_F(Nl80211AdapterTest, RefusalsAndFailuresGiveTheLockBack) {
    heard(1, 0);
    for (auto [error, result] : {std::pair{EBUSY, 0}, {EPERM, 0}, {ENODEV, ENODEV}}) {
        kernel_.triggerError = error;
        EXPECT_EQ(adapter_->startScan(), result) << error;
        EXPECT_TRUE(lockFree()) << error;
        EXPECT_EQ(read(), 1u);  // the kernel's list all the same
    }
    EXPECT_EQ(kernel_.triggers, 3);  // none of them left a scan pending
    kernel_.triggerError = 0;
    ASSERT_EQ(adapter_->startScan(), 0);
    kernel_.dumpError = ENODEV;  // the interface went away
    Core::ApList list;
    EXPECT_EQ(adapter_->getScanResults(list), ENODEV);
    EXPECT_TRUE(lockFree());

    // Another user holding the lock scans for us: no trigger of our own.
    ScanLock other(options_.lockPath, getLogger("test"));
    ASSERT_EQ(other.tryAcquire(), ScanLock::Outcome::Acquired);
    EXPECT_EQ(adapter_->startScan(), 0);
    EXPECT_EQ(kernel_.triggers, 4);
    options_.lockPath = directory_.path() + "/absent/lock";  // no lock file: scans unguarded
    Nl80211WifiAdapter unguarded({"wlan0", kIfindex, NL80211_IFTYPE_STATION}, options_);
    ASSERT_EQ(unguarded.open(), 0);
    EXPECT_EQ(unguarded.startScan(), 0);
    EXPECT_EQ(kernel_.triggers, 5);
}

}  // namespace
}  // namespace ZEL::SPI
