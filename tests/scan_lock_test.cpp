#include "spi/wifi/posix_scan_lock.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include "spi/log.h"
#include "support/hand_built_tile.h"

namespace ZEL::SPI {
namespace {

class ScanLockTest : public ::testing::Test {
  protected:
    Testing::TempDir directory_;
    std::string path_ = directory_.path() + "/lock";
    SPI::Logger& log_ = getLogger("ZEL.SPI.WifiAdapter.Nl80211WifiAdapter");
};

TEST_F(ScanLockTest, TakenOnceAndExcludesAnotherProcess) {
    ScanLock holder(path_, log_);
    ASSERT_EQ(holder.tryAcquire(), ScanLock::Outcome::Acquired);
    EXPECT_EQ(holder.tryAcquire(), ScanLock::Outcome::AlreadyHeld);
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
    ScanLock lock(directory_.path() + "/absent/lock", log_);
    EXPECT_EQ(lock.tryAcquire(), ScanLock::Outcome::Failed);
    EXPECT_FALSE(lock.acquired());
}

}  // namespace
}  // namespace ZEL::SPI
