// The system-wide scan lock: keeps two users of the library (two processes, or two
// adapters in one process) from triggering scans over each other.
#pragma once

#include "spi/log.h"

#include <string>

namespace ZEL::SPI {

// An exclusive flock on a lock file. The file is opened when the lock is made and
// closed with it; acquiring never waits. flock locks belong to the open file, so
// two ScanLock objects on one path exclude each other even within a process.
// Not thread-safe: one adapter, one thread.
class ScanLock final {
  public:
    enum class Outcome { Acquired, AlreadyHeld, HeldElsewhere, Failed };

    ScanLock(std::string path, Logger& log);
    ~ScanLock();
    ScanLock(const ScanLock&) = delete;
    ScanLock& operator=(const ScanLock&) = delete;

    // The lock file every adapter uses by default.
    static std::string defaultPath();

    // Takes the lock without waiting. AlreadyHeld: this object holds it;
    // HeldElsewhere: another holder has it; Failed: no lock file or another error.
    Outcome tryAcquire();
    // Gives the lock back; harmless when not held.
    void release();
    bool acquired() const { return acquired_; }
    const std::string& path() const { return path_; }

  private:
    std::string path_;
    Logger& log_;
    int fd_ = -1;
    bool acquired_ = false;
};

}  // namespace ZEL::SPI
