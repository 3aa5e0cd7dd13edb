#include "spi/wifi/posix_scan_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>

#include "spi/log.h"

namespace ZEL::SPI {

std::string ScanLock::defaultPath() {
    static const char kName[] = "ZEL.SPI.WifiAdapter.NDISWifiAdapter.GlobalMutex";
    // /run/lock is the world-writable (sticky) lock directory every user can create
    // in; systems without it still have /tmp, which every user shares too.
    const char* directory = access("/run/lock", W_OK | X_OK) == 0 ? "/run/lock" : "/tmp";
    return std::string(directory) + "/" + kName;
}

ScanLock::ScanLock(std::string path, Logger& log) : path_(std::move(path)), log_(log) {
    // Read-only is enough for flock, and lets every user open a file another
    // user created with a 0644 umask.
    fd_ = open(path_.c_str(), O_RDONLY | O_CREAT | O_CLOEXEC, 0666);
    if (fd_ < 0) {
        ZEL_LOG_ERROR(log_, "can't create mutex %s: %d", path_.c_str(), errno);
        return;
    }
    ZEL_LOG_DEBUG(log_, "mutex %s created", path_.c_str());
}

ScanLock::~ScanLock() {
    if (acquired_) {
        release();
    }
    if (fd_ >= 0) {
        ::close(fd_);
    }
}

ScanLock::Outcome ScanLock::tryAcquire() {
    if (fd_ < 0) {
        ZEL_LOG_ERROR(log_, "can't acquire mutex");
        return Outcome::Failed;
    }
    if (acquired_) {
        ZEL_LOG_DEBUG(log_, "mutex already acquired");
        return Outcome::AlreadyHeld;
    }
    if (flock(fd_, LOCK_EX | LOCK_NB) != 0) {
        int error = errno;
        if (error == EWOULDBLOCK) {
            ZEL_LOG_DEBUG(log_, "couldn't acquire mutex: %d", error);
            return Outcome::HeldElsewhere;
        }
        ZEL_LOG_ERROR(log_, "couldn't acquire mutex: %d", error);
        return Outcome::Failed;
    }
    acquired_ = true;
    ZEL_LOG_DEBUG(log_, "mutex acquired");
    return Outcome::Acquired;
}

void ScanLock::release() {
    if (fd_ < 0) {
        ZEL_LOG_ERROR(log_, "can't release mutex");
        return;
    }
    if (!acquired_) {
        return;
    }
    acquired_ = false;
    if (flock(fd_, LOCK_UN) != 0) {
        ZEL_LOG_ERROR(log_, "couldn't release lock: %d", errno);
        return;
    }
    ZEL_LOG_DEBUG(log_, "mutex released");
}

}  // namespace ZEL::SPI
