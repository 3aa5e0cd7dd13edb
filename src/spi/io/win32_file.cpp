// Win32File: the file interface over CreateFileW, ReadFile/WriteFile and a file
// mapping made on the first map() and kept until close(). Other processes may read
// the file while it is open, not write or delete it.
#include <windows.h>

#include <algorithm>
#include <new>

#include "spi/io/win32_file.h"
#include "spi/log.h"
#include "spi/text.h"

namespace ZEL::SPI {
namespace {

class Win32FileMapping final : public FileMapping {
  public:
    // `view` is what MapViewOfFile returned; `data` lies `skip` bytes into it since
    // views start at a multiple of the allocation granularity.
    Win32FileMapping(void* view, size_t skip, size_t length)
        : view_(view), skip_(skip), length_(length) {}
    ~Win32FileMapping() override { UnmapViewOfFile(view_); }
    Win32FileMapping(const Win32FileMapping&) = delete;
    Win32FileMapping& operator=(const Win32FileMapping&) = delete;

    const uint8_t* data() const override { return static_cast<const uint8_t*>(view_) + skip_; }
    size_t length() const override { return length_; }

  private:
    void* view_;
    size_t skip_;
    size_t length_;
};

DWORD creationOf(uint32_t mode) {
    if (mode & File::kCreate) {
        return CREATE_ALWAYS;
    }
    return (mode & File::kTruncate) ? TRUNCATE_EXISTING : OPEN_EXISTING;
}

// ReadFile and WriteFile move at most a DWORD's worth of bytes per call.
DWORD chunkOf(size_t count) {
    return static_cast<DWORD>(std::min<size_t>(count, MAXDWORD));
}

class Win32File final : public File {
  public:
    Win32File() : category_(getLogger("ZEL.SPI.IO.Win32File")) {}
    ~Win32File() override { close(); }
    Win32File(const Win32File&) = delete;
    Win32File& operator=(const Win32File&) = delete;

    int open(const std::string& path, uint32_t mode) override {
        close();
        std::wstring wide = toWide(path);
        DWORD access = ((mode & kRead) ? GENERIC_READ : 0) | ((mode & kWrite) ? GENERIC_WRITE : 0);
        // A handle without access would open but could neither read nor write.
        HANDLE handle =
            access == 0
                ? INVALID_HANDLE_VALUE
                : CreateFileW(wide.c_str(), access, FILE_SHARE_READ, nullptr, creationOf(mode),
                              FILE_ATTRIBUTE_NORMAL | FILE_FLAG_RANDOM_ACCESS, nullptr);
        if (handle == INVALID_HANDLE_VALUE) {
            DWORD error = access == 0 ? ERROR_INVALID_PARAMETER : GetLastError();
            ZEL_LOG_ERROR(category_, "%ls: CreateFileW/CreateFileForMappingW failed (%d)",
                          wide.c_str(), static_cast<int>(error));
            return -1;
        }
        if ((mode & kAppend) &&
            SetFilePointer(handle, 0, nullptr, FILE_END) == INVALID_SET_FILE_POINTER &&
            GetLastError() != NO_ERROR) {
            ZEL_LOG_ERROR(category_, "%ls: SetFilePointer failed (%d)", wide.c_str(),
                          static_cast<int>(GetLastError()));
            CloseHandle(handle);
            return -1;
        }
        handle_ = handle;
        path_ = path;
        return 0;
    }

    int close() override {
        if (mapping_ != nullptr) {
            CloseHandle(mapping_);  // views already handed out stay valid
            mapping_ = nullptr;
        }
        if (handle_ == INVALID_HANDLE_VALUE) {
            return 0;
        }
        BOOL closed = CloseHandle(handle_);
        handle_ = INVALID_HANDLE_VALUE;
        path_.clear();
        return closed ? 0 : -1;
    }

    uint64_t size() override {
        LARGE_INTEGER size{};
        if (!GetFileSizeEx(handle_, &size)) {
            logFailure("GetFileSize");
            return kSizeFailure;
        }
        return static_cast<uint64_t>(size.QuadPart);
    }

    size_t read(void* buffer, size_t count) override {
        DWORD done = 0;
        if (handle_ == INVALID_HANDLE_VALUE) {
            return 0;
        }
        if (!ReadFile(handle_, buffer, chunkOf(count), &done, nullptr)) {
            logFailure("ReadFile");
            return 0;
        }
        return done;
    }

    size_t write(const void* buffer, size_t count) override {
        DWORD done = 0;
        if (handle_ == INVALID_HANDLE_VALUE) {
            return 0;
        }
        if (!WriteFile(handle_, buffer, chunkOf(count), &done, nullptr)) {
            logFailure("WriteFile");
            return 0;
        }
        return done;
    }

    std::unique_ptr<FileMapping> map(uint64_t offset, size_t length) override {
        if (handle_ == INVALID_HANDLE_VALUE) {
            return nullptr;
        }
        if (mapping_ == nullptr) {
            mapping_ = CreateFileMappingW(handle_, nullptr, PAGE_READONLY, 0, 0, nullptr);
            if (mapping_ == nullptr) {
                logFailure("CreateFileMapping");
                return nullptr;
            }
        }
        // A length of 0 would map the whole file, and a range past its end only
        // fails on some systems: both are refused here.
        uint64_t fileSize = size();
        if (fileSize == kSizeFailure || length == 0 || offset > fileSize ||
            length > fileSize - offset) {
            SetLastError(ERROR_INVALID_PARAMETER);
            logFailure("MapViewOfFile");
            return nullptr;
        }
        SYSTEM_INFO system{};
        GetSystemInfo(&system);
        uint64_t aligned = offset - offset % system.dwAllocationGranularity;
        size_t skip = static_cast<size_t>(offset - aligned);
        void* view = MapViewOfFile(mapping_, FILE_MAP_READ, static_cast<DWORD>(aligned >> 32),
                                   static_cast<DWORD>(aligned), length + skip);
        if (view == nullptr) {
            logFailure("MapViewOfFile");
            return nullptr;
        }
        std::unique_ptr<FileMapping> mapping(new (std::nothrow)
                                                 Win32FileMapping(view, skip, length));
        if (!mapping) {
            UnmapViewOfFile(view);
        }
        return mapping;
    }

  private:
    // Logs "<path>: <call> failed (<last error>)".
    void logFailure(const char* call) {
        int error = static_cast<int>(GetLastError());
        ZEL_LOG_ERROR(category_, "%s: %s failed (%d)", path_.c_str(), call, error);
    }

    Logger& category_;
    std::string path_;
    HANDLE handle_ = INVALID_HANDLE_VALUE;
    HANDLE mapping_ = nullptr;
};

}  // namespace

std::unique_ptr<File> newWin32File() {
    return std::unique_ptr<File>(new (std::nothrow) Win32File());
}

}  // namespace ZEL::SPI
