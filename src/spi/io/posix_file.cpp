// PosixFile: the file interface over POSIX descriptors and mmap.
//
// The open file descriptor plays the part of a platform file-mapping handle: it is
// made once by open() and every map() call views the file through it, so mapping
// twice needs nothing new. POSIX has no sharing modes; other processes may open
// the file as they like.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <new>

#include "spi/io/posix_file.h"
#include "spi/log.h"

namespace ZEL::SPI {
namespace {

class PosixFileMapping final : public FileMapping {
  public:
    // `view` and `viewLength` are what mmap returned; `data` lies `skip` bytes into
    // the view because mmap offsets must be page-aligned.
    PosixFileMapping(void* view, size_t viewLength, size_t skip, size_t length)
        : view_(view), viewLength_(viewLength), skip_(skip), length_(length) {}
    ~PosixFileMapping() override { munmap(view_, viewLength_); }
    PosixFileMapping(const PosixFileMapping&) = delete;
    PosixFileMapping& operator=(const PosixFileMapping&) = delete;

    const uint8_t* data() const override { return static_cast<const uint8_t*>(view_) + skip_; }
    size_t length() const override { return length_; }

  private:
    void* view_;
    size_t viewLength_;
    size_t skip_;
    size_t length_;
};

int openFlags(uint32_t mode) {
    int flags = O_CLOEXEC;
    bool read = (mode & File::kRead) != 0;
    bool write = (mode & File::kWrite) != 0;
    flags |= read && write ? O_RDWR : write ? O_WRONLY : O_RDONLY;
    if (mode & File::kCreate) {
        flags |= O_CREAT | O_TRUNC;
    } else if (mode & File::kTruncate) {
        flags |= O_TRUNC;
    }
    return flags;
}

class PosixFile final : public File {
  public:
    PosixFile() : category_(getLogger("ZEL.SPI.IO.PosixFile")) {}
    ~PosixFile() override { close(); }
    PosixFile(const PosixFile&) = delete;
    PosixFile& operator=(const PosixFile&) = delete;

    int open(const std::string& path, uint32_t mode) override {
        close();
        if ((mode & (kRead | kWrite)) == 0) {
            ZEL_LOG_ERROR(category_, "%s: open failed (%d)", path.c_str(), EINVAL);
            return -1;
        }
        int descriptor = ::open(path.c_str(), openFlags(mode), 0644);
        if (descriptor < 0) {
            ZEL_LOG_ERROR(category_, "%s: open failed (%d)", path.c_str(), errno);
            return -1;
        }
        if ((mode & kAppend) && lseek(descriptor, 0, SEEK_END) < 0) {
            ZEL_LOG_ERROR(category_, "%s: lseek failed (%d)", path.c_str(), errno);
            ::close(descriptor);
            return -1;
        }
        descriptor_ = descriptor;
        path_ = path;
        return 0;
    }

    int close() override {
        if (descriptor_ < 0) {
            return 0;
        }
        int result = ::close(descriptor_);
        if (result != 0) {
            ZEL_LOG_ERROR(category_, "%s: close failed (%d)", path_.c_str(), errno);
        }
        descriptor_ = -1;
        path_.clear();
        return result == 0 ? 0 : -1;
    }

    uint64_t size() override {
        struct stat status {};
        if (descriptor_ < 0 || fstat(descriptor_, &status) != 0) {
            ZEL_LOG_ERROR(category_, "%s: fstat failed (%d)", path_.c_str(),
                          descriptor_ < 0 ? EBADF : errno);
            return kSizeFailure;
        }
        return static_cast<uint64_t>(status.st_size);
    }

    size_t read(void* buffer, size_t count) override {
        if (descriptor_ < 0) {
            return 0;
        }
        ssize_t done = ::read(descriptor_, buffer, count);
        if (done < 0) {
            ZEL_LOG_ERROR(category_, "%s: read failed (%d)", path_.c_str(), errno);
            return 0;
        }
        return static_cast<size_t>(done);
    }

    size_t write(const void* buffer, size_t count) override {
        if (descriptor_ < 0) {
            return 0;
        }
        size_t total = 0;
        while (total < count) {  // a short write is not a failure; go on
            ssize_t done =
                ::write(descriptor_, static_cast<const uint8_t*>(buffer) + total, count - total);
            if (done < 0 && errno == EINTR) {
                continue;
            }
            if (done <= 0) {
                ZEL_LOG_ERROR(category_, "%s: write failed (%d)", path_.c_str(), errno);
                break;
            }
            total += static_cast<size_t>(done);
        }
        return total;
    }

    std::unique_ptr<FileMapping> map(uint64_t offset, size_t length) override {
        if (descriptor_ < 0) {
            return nullptr;
        }
        // Touching a page beyond the end of a file raises SIGBUS, so a range the
        // file doesn't hold is refused here.
        uint64_t fileSize = size();
        if (fileSize == kSizeFailure) {
            return nullptr;
        }
        if (length == 0 || offset > fileSize || length > fileSize - offset) {
            ZEL_LOG_ERROR(category_, "%s: mmap failed (%d)", path_.c_str(), EINVAL);
            return nullptr;
        }
        uint64_t page = static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
        uint64_t alignedOffset = offset - offset % page;
        size_t skip = static_cast<size_t>(offset - alignedOffset);
        void* view = mmap(nullptr, length + skip, PROT_READ, MAP_SHARED, descriptor_,
                          static_cast<off_t>(alignedOffset));
        if (view == MAP_FAILED) {
            ZEL_LOG_ERROR(category_, "%s: mmap failed (%d)", path_.c_str(), errno);
            return nullptr;
        }
        std::unique_ptr<FileMapping> mapping(
            new (std::nothrow) PosixFileMapping(view, length + skip, skip, length));
        if (!mapping) {
            munmap(view, length + skip);
        }
        return mapping;
    }

  private:
    Logger& category_;
    std::string path_;
    int descriptor_ = -1;
};

}  // namespace

std::unique_ptr<File> newPosixFile() {
    return std::unique_ptr<File>(new (std::nothrow) PosixFile());
}

}  // namespace ZEL::SPI
