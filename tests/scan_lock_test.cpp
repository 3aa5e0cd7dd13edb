#include "spi/wifi/posix_scan_lock.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>

#include "spi/log.h"
#include "support/log_capture.h"

namespace ZEL::SPI {
namespace {

const char kCategory[] = "ZEL.SPI.WifiAdapter.Nl80211WifiAdapter";

class ScanLockTest : public ::testing::Test {
  protected:
    std::filesystem::path directory_ =
        std::filesystem::temp_directory_path() /
        ("zel-scan-lock-" + std::to_string(getpid()) + "-" +
         ::testing::UnitTest::GetInstance()->current_test_info()->name());
    std::string path_ = (directory_ / "lock").string();
    SPI::Logger& log_ = getLogger(kCategory);

    void SetUp() override { std::filesystem::create_directories(directory_); }
    void TearDown() override { std::filesystem::remove_all(directory_); }
};

TEST_F(ScanLockTest, TwoHoldersExcludeEachOtherUntilReleased) {
    Testing::LogCapture log(kCategory);
    ScanLock first(path_, log_);
    ScanLock second(path_, log_);
    EXPECT_EQ(first.tryAcquire(), ScanLock::Outcome::Acquired);
    EXPECT_EQ(second.tryAcquire(), ScanLock::Outcome::HeldElsewhere);
    EXPECT_EQ(first.tryAcquire(), ScanLock::Outcome::AlreadyHeld);
    EXPECT_EQ(log.count(SPI::LogPriority::kDebug, "mutex already acquired"), 1u);
    EXPECT_TRUE(log.contains("mutex " + path_ + " created"));

    first.release();
    EXPECT_FALSE(first.acquired());
    EXPECT_EQ(log.count(SPI::LogPriority::kDebug, "mutex released"), 1u);
    EXPECT_EQ(second.tryAcquire(), ScanLock::Outcome::Acquired);
    first.release();  // not held: nothing happens
    EXPECT_EQ(log.count(SPI::LogPriority::kDebug, "mutex released"), 1u);
}

TEST_F(ScanLockTest, ExcludesAnotherProcess) {
    ScanLock holder(path_, log_);
    ASSERT_EQ(holder.tryAcquire(), ScanLock::Outcome::Acquired);
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        // A fresh open in the child: the inherited descriptor would share our lock.
        ScanLock other(path_, log_);
        _exit(other.tryAcquire() == ScanLock::Outcome::HeldElsewhere ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

TEST_F(ScanLockTest, MissingDirectoryFailsWithoutThrowing) {
    Testing::LogCapture log(kCategory);
    std::string missing = (directory_ / "absent" / "lock").string();
    ScanLock lock(missing, log_);
    EXPECT_EQ(lock.tryAcquire(), ScanLock::Outcome::Failed);
    EXPECT_FALSE(lock.acquired());
    EXPECT_EQ(log.count(SPI::LogPriority::kError, "can't create mutex " + missing + ": 2"), 1u);
    EXPECT_EQ(log.count(SPI::LogPriority::kError, "can't acquire mutex"), 1u);
}

}  // namespace
}  // namespace ZEL::SPI
