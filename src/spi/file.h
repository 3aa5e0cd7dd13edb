// File access and read-only memory mapping, behind one small interface so that
// the tile reader never touches the platform directly.
//
// Contract shared by every implementation:
// - Objects come from the platform (Platform::newFile), null only when none can be made.
// - Nothing throws; every failure is logged on the implementation's category with
//   the path and the platform's error number, and reported by the return value.
// - One object is used by one thread at a time.
// - A FileMapping stays valid after close() and after the File is destroyed; it is
//   owned by the caller and unmapped by its destructor.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace ZEL::SPI {

// A read-only view of part of a file.
class FileMapping {
  public:
    virtual ~FileMapping() = default;
    // The first byte of the mapped range; valid while this object lives.
    virtual const uint8_t* data() const = 0;
    // The number of mapped bytes.
    virtual size_t length() const = 0;
};

class File {
  public:
    // Mode bits of open(); combine the access bits with at most one way of opening.
    static constexpr uint32_t kWrite = 0x1;
    static constexpr uint32_t kRead = 0x2;
    static constexpr uint32_t kCreate = 0x100;     // create, or overwrite an existing file
    static constexpr uint32_t kTruncate = 0x1000;  // empty an existing file (which must exist)
    static constexpr uint32_t kAppend = 0x2000;    // writes go to the end
    // Neither kCreate nor kTruncate: the file must exist and keeps its content.

    // What size() returns on failure.
    static constexpr uint64_t kSizeFailure = UINT64_MAX;

    virtual ~File() = default;

    // Closes whatever is open, then opens `path` with `mode`. Returns 0 or -1.
    virtual int open(const std::string& path, uint32_t mode) = 0;
    // Returns 0, or -1 when the platform's close fails; 0 when nothing is open.
    virtual int close() = 0;
    // The size in bytes, or kSizeFailure (also when not open).
    virtual uint64_t size() = 0;
    // Transfer up to `count` bytes at the current position; return the bytes
    // transferred, 0 on failure, at the end of the file or when not open.
    virtual size_t read(void* buffer, size_t count) = 0;
    virtual size_t write(const void* buffer, size_t count) = 0;
    // Maps `length` bytes from `offset` read-only. Null when not open (silently),
    // when the range is empty or lies beyond the end of the file, or when the
    // platform refuses (logged).
    virtual std::unique_ptr<FileMapping> map(uint64_t offset, size_t length) = 0;
};

}  // namespace ZEL::SPI
