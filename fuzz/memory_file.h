// An in-memory file with a path, so that fuzz targets can hand bytes to code
// that opens files by name without touching the disk.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <string>

class MemoryFile {
  public:
    MemoryFile() : descriptor_(memfd_create("fuzz", 0)) {
        path_ = "/proc/self/fd/" + std::to_string(descriptor_);
    }
    ~MemoryFile() { close(descriptor_); }

    // Replaces the content; returns the path to open.
    const std::string& set(const uint8_t* data, size_t size) {
        if (ftruncate(descriptor_, 0) != 0 || pwrite(descriptor_, data, size, 0) != ssize_t(size)) {
            abort();
        }
        return path_;
    }

  private:
    int descriptor_;
    std::string path_;
};
