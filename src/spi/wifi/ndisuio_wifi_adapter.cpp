#include "spi/wifi/ndisuio_wifi_adapter.h"

#include <algorithm>
#include <cstring>

#include "spi/text.h"
#include "spi/time/win32_clock.h"
#include "spi/wifi/ndis_bss_list.h"
#include "spi/wifi/ndisuio.h"
#include "spi/wifi/wzc_wrapper.h"

namespace ZEL::SPI {

const wchar_t kNdisScanMutexName[] = L"ZEL.SPI.WifiAdapter.NDISWifiAdapter.GlobalMutex";

namespace {

const char kAdapterCategory[] = "ZEL.SPI.WifiAdapter.NDISWifiAdapter.NDISWifiAdapter";
const char kDeviceCategory[] = "ZEL.SPI.WifiAdapter.NDISWifiAdapter.Ndisuio";
// A query starts with this buffer and doubles it while the driver asks for more, up
// to 64 KiB: a BSSID list of a few hundred access points.
constexpr size_t kFirstQuerySize = 0x1000;
constexpr size_t kMaxQuerySize = 0x10000;
// A driver that never reports the end of its bindings must not loop us forever.
constexpr ULONG kMaxBindings = 64;
constexpr ULONG kMedium802_3 = 0;  // NdisMedium802_3: how wireless adapters present
constexpr ULONG kPhysicalMediumWirelessLan = 1;

class Win32Channel final : public NdisuioChannel {
  public:
    explicit Win32Channel(HANDLE handle) : handle_(handle) {}
    ~Win32Channel() override { CloseHandle(handle_); }
    DWORD control(DWORD code, const void* in, DWORD inSize, void* out, DWORD outSize,
                  DWORD& returned) override {
        returned = 0;
        return DeviceIoControl(handle_, code, const_cast<void*>(in), inSize, out, outSize,
                               &returned, nullptr)
                   ? 0
                   : GetLastError();
    }

  private:
    HANDLE handle_;
};

std::unique_ptr<NdisuioChannel> openWin32Channel(const std::wstring& path, DWORD& error) {
    HANDLE handle = CreateFileW(path.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr,
                                OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (handle == INVALID_HANDLE_VALUE) {
        error = GetLastError();
        return nullptr;
    }
    return std::make_unique<Win32Channel>(handle);
}

// One handle on the access device, for one adapter.
class NdisuioDevice {
  public:
    // Opens the device and finds binding `index`; null at the end of the bindings
    // or on a failure (logged).
    static std::unique_ptr<NdisuioDevice> open(const NdisuioOptions& options, ULONG index,
                                               Logger& log);

    // The data part of the driver's answer, valid until the next query.
    DWORD query(NDIS_OID oid, const uint8_t*& data, size_t& size);
    DWORD queryUlong(NDIS_OID oid, ULONG& value);
    DWORD set(NDIS_OID oid, ULONG value);
    void close() { channel_.reset(); }
    bool isOpen() const { return channel_ != nullptr; }
    const std::wstring& deviceName() const { return deviceName_; }
    const std::string& name() const { return name_; }

  private:
    NdisuioDevice(std::unique_ptr<NdisuioChannel> channel, Ndisuio::Variant variant, Logger& log)
        : channel_(std::move(channel)),
          variant_(variant),
          codes_(Ndisuio::controlCodes(variant)),
          log_(log) {}
    DWORD bind(ULONG index, const std::string& path);
    size_t headerSize() const;
    // Writes the request's header (OID, and on the handheld the device name) into
    // `buffer`, which holds at least headerSize() bytes.
    void putHeader(NDIS_OID oid, uint8_t* buffer) const;

    std::unique_ptr<NdisuioChannel> channel_;
    Ndisuio::Variant variant_;
    Ndisuio::ControlCodes codes_;
    Logger& log_;
    std::wstring deviceName_;
    std::string name_;
    std::vector<uint8_t> buffer_;
};

std::unique_ptr<NdisuioDevice> NdisuioDevice::open(const NdisuioOptions& options, ULONG index,
                                                   Logger& log) {
    const std::string path = toNarrow(options.devicePath);
    DWORD error = 0;
    auto channel = options.open ? options.open(options.devicePath, error)
                                : openWin32Channel(options.devicePath, error);
    if (!channel) {
        ZEL_LOG_ERROR(log, "CreateFile(%s) failed: %d", path.c_str(), static_cast<int>(error));
        return nullptr;
    }
    if (index == 0) {
        ZEL_LOG_INFO(log, "%s opened", path.c_str());
    }
    std::unique_ptr<NdisuioDevice> device(
        new NdisuioDevice(std::move(channel), Ndisuio::variantFor(options.devicePath), log));
    return device->bind(index, path) == 0 ? std::move(device) : nullptr;
}

DWORD NdisuioDevice::bind(ULONG index, const std::string& path) {
    DWORD returned = 0;
    DWORD error = channel_->control(codes_.bindWait, nullptr, 0, nullptr, 0, returned);
    if (error == ERROR_NOT_SUPPORTED) {
        ZEL_LOG_DEBUG(log_, "%s: IOCTL_NDISUIO_BIND_WAIT is not supported", path.c_str());
    } else if (error != 0) {
        ZEL_LOG_ERROR(log_, "%s: IOCTL_NDISUIO_BIND_WAIT failed with error %d", path.c_str(),
                      static_cast<int>(error));
        return error;
    } else if (index == 0) {
        ZEL_LOG_DEBUG(log_, "%s bound", path.c_str());
    }
    Ndisuio::QueryBinding request{};
    request.bindingIndex = index;
    std::vector<uint8_t> reply(1024);
    error = channel_->control(codes_.queryBinding, &request, sizeof request, reply.data(),
                              static_cast<DWORD>(reply.size()), returned);
    if (error == ERROR_NO_MORE_ITEMS) {
        return error;
    }
    if (error != 0) {
        // "%ul" prints the index followed by an "l": the message as operators know it.
        ZEL_LOG_ERROR(log_, "%s: IOCTL_NDISUIO_QUERY_BINDING(%ul) failed: %d", path.c_str(),
                      static_cast<unsigned>(index), static_cast<int>(error));
        return error;
    }
    Ndisuio::QueryBinding binding{};
    std::memcpy(&binding, reply.data(), sizeof binding);
    const size_t end = std::min<size_t>(returned, reply.size());
    if (returned < sizeof binding || binding.deviceNameOffset > end ||
        binding.deviceNameLength > end - binding.deviceNameOffset ||
        binding.deviceNameLength % sizeof(wchar_t) != 0 || binding.deviceNameLength == 0) {
        ZEL_LOG_ERROR(log_, "%s: binding %u: the device name lies outside the %u bytes returned",
                      path.c_str(), static_cast<unsigned>(index), static_cast<unsigned>(returned));
        return ERROR_INVALID_DATA;
    }
    deviceName_.resize(binding.deviceNameLength / sizeof(wchar_t));
    std::memcpy(deviceName_.data(), reply.data() + binding.deviceNameOffset,
                binding.deviceNameLength);
    // Names may come with their terminator.
    deviceName_.erase(std::find(deviceName_.begin(), deviceName_.end(), L'\0'), deviceName_.end());
    name_ = toNarrow(deviceName_);
    if (variant_ == Ndisuio::Variant::Desktop) {
        error = channel_->control(codes_.openDevice, deviceName_.data(),
                                  static_cast<DWORD>(deviceName_.size() * sizeof(wchar_t)), nullptr,
                                  0, returned);
        if (error != 0) {
            ZEL_LOG_ERROR(log_, "%s: IOCTL_NDISUIO_OPEN_DEVICE(%s) failed: %d", path.c_str(),
                          name_.c_str(), static_cast<int>(error));
            return error;
        }
    }
    return 0;
}

size_t NdisuioDevice::headerSize() const {
    return variant_ == Ndisuio::Variant::Handheld ? offsetof(Ndisuio::HandheldOidRequest, data)
                                                  : offsetof(Ndisuio::DesktopOidRequest, data);
}

void NdisuioDevice::putHeader(NDIS_OID oid, uint8_t* buffer) const {
    if (variant_ == Ndisuio::Variant::Handheld) {
        Ndisuio::HandheldOidRequest header{oid, deviceName_.c_str(), {}};
        std::memcpy(buffer, &header, headerSize());
    } else {
        std::memcpy(buffer, &oid, sizeof oid);
    }
}

DWORD NdisuioDevice::query(NDIS_OID oid, const uint8_t*& data, size_t& size) {
    if (buffer_.empty()) {
        buffer_.resize(kFirstQuerySize);
    }
    for (;;) {
        std::fill(buffer_.begin(), buffer_.end(), 0);
        putHeader(oid, buffer_.data());
        DWORD returned = 0;
        const auto bufferSize = static_cast<DWORD>(buffer_.size());
        DWORD error = channel_->control(codes_.queryOid, buffer_.data(), bufferSize, buffer_.data(),
                                        bufferSize, returned);
        if (error == 0) {
            const size_t end = std::min<size_t>(returned, buffer_.size());
            data = buffer_.data() + headerSize();
            size = end > headerSize() ? end - headerSize() : 0;
            return 0;
        }
        if ((error != ERROR_INSUFFICIENT_BUFFER && error != ERROR_MORE_DATA &&
             error != ERROR_INVALID_USER_BUFFER) ||
            buffer_.size() >= kMaxQuerySize) {
            return error;
        }
        buffer_.resize(buffer_.size() * 2);
        const int grown = static_cast<int>(buffer_.size());
        if (error == ERROR_INSUFFICIENT_BUFFER) {
            ZEL_LOG_DEBUG(
                log_, "ERROR_INSUFFICIENT_BUFFER for IOCTL_NDISUIO_QUERY_OID_VALUE: _bufsize = %d",
                grown);
        } else if (error == ERROR_MORE_DATA) {
            ZEL_LOG_DEBUG(log_,
                          "ERROR_MORE_DATA for IOCTL_NDISUIO_QUERY_OID_VALUE: _busize = %d vs %d",
                          grown, static_cast<int>(returned));
        } else {
            ZEL_LOG_DEBUG(
                log_, "ERROR_INVALID_USER_BUFFER for IOCTL_NDISUIO_QUERY_OID_VALUE: _bufsize = %d",
                grown);
        }
    }
}

DWORD NdisuioDevice::queryUlong(NDIS_OID oid, ULONG& value) {
    const uint8_t* data = nullptr;
    size_t size = 0;
    DWORD error = query(oid, data, size);
    if (error == 0 && size < sizeof value) {
        return ERROR_INVALID_DATA;
    }
    if (error == 0) {
        std::memcpy(&value, data, sizeof value);
    }
    return error;
}

DWORD NdisuioDevice::set(NDIS_OID oid, ULONG value) {
    std::vector<uint8_t> request(headerSize() + sizeof value);
    putHeader(oid, request.data());
    std::memcpy(request.data() + headerSize(), &value, sizeof value);
    DWORD returned = 0;
    return channel_->control(codes_.setOid, request.data(), static_cast<DWORD>(request.size()),
                             nullptr, 0, returned);
}

// Whether the device's adapter is wireless: 802.3 on a wireless LAN.
bool isWireless(NdisuioDevice& device, Logger& log) {
    const char* name = device.name().c_str();
    ULONG medium = 0;
    if (DWORD error = device.queryUlong(OID_GEN_MEDIA_IN_USE, medium); error != 0) {
        ZEL_LOG_ERROR(
            log, "%s: IOCTL_NDISUIO_QUERY_OID_VALUE(OID_GEN_MEDIA_IN_USE) failed with error %d",
            name, static_cast<int>(error));
        return false;
    }
    if (medium != kMedium802_3) {
        ZEL_LOG_DEBUG(log, "%s: medium in use is not 802.3 (%d)", name, static_cast<int>(medium));
        return false;
    }
    if (DWORD error = device.queryUlong(OID_GEN_PHYSICAL_MEDIUM, medium); error != 0) {
        ZEL_LOG_ERROR(
            log, "%s: IOCTL_NDISUIO_QUERY_OID_VALUE(OID_GEN_PHYSICAL_MEDIUM) failed with error %d",
            name, static_cast<int>(error));
        return false;
    }
    if (medium != kPhysicalMediumWirelessLan) {
        ZEL_LOG_DEBUG(log, "%s: medium is not WiFi (%d)", name, static_cast<int>(medium));
        return false;
    }
    return true;
}

// The system-wide scan mutex. A Win32 mutex is re-entrant for its owning thread, so
// within one thread it is this object's flag that refuses a second acquisition.
class ScanMutex {
  public:
    enum class Outcome { Acquired, AlreadyHeld, HeldElsewhere, Failed };

    explicit ScanMutex(Logger& log) : log_(log) {
        handle_ = CreateMutexW(nullptr, FALSE, kNdisScanMutexName);
        const std::string name = toNarrow(kNdisScanMutexName);
        if (handle_ == nullptr) {
            ZEL_LOG_ERROR(log_, "can't create mutex %s: %d", name.c_str(),
                          static_cast<int>(GetLastError()));
        } else {
            ZEL_LOG_DEBUG(log_, "mutex %s created", name.c_str());
        }
    }
    ~ScanMutex() {
        release();
        if (handle_ != nullptr) {
            CloseHandle(handle_);
        }
    }
    ScanMutex(const ScanMutex&) = delete;
    ScanMutex& operator=(const ScanMutex&) = delete;

    Outcome tryAcquire() {
        if (handle_ == nullptr) {
            ZEL_LOG_ERROR(log_, "can't acquire mutex");
            return Outcome::Failed;
        }
        if (acquired_) {
            ZEL_LOG_DEBUG(log_, "mutex already acquired");
            return Outcome::AlreadyHeld;
        }
        // An abandoned mutex (its holder died) is ours all the same.
        DWORD wait = WaitForSingleObject(handle_, 0);
        if (wait == WAIT_OBJECT_0 || wait == WAIT_ABANDONED) {
            acquired_ = true;
            ZEL_LOG_DEBUG(log_, "mutex acquired");
            return Outcome::Acquired;
        }
        DWORD error = wait == WAIT_TIMEOUT ? wait : GetLastError();
        ZEL_LOG_DEBUG(log_, "couldn't acquire mutex: %d", static_cast<int>(error));
        return wait == WAIT_TIMEOUT ? Outcome::HeldElsewhere : Outcome::Failed;
    }

    // Harmless when not held.
    void release() {
        if (handle_ == nullptr) {
            ZEL_LOG_ERROR(log_, "can't release mutex");
            return;
        }
        if (!acquired_) {
            return;
        }
        acquired_ = false;
        if (!ReleaseMutex(handle_)) {
            ZEL_LOG_ERROR(log_, "couldn't release lock: %d", static_cast<int>(GetLastError()));
            return;
        }
        ZEL_LOG_DEBUG(log_, "mutex released");
    }

  private:
    Logger& log_;
    HANDLE handle_ = nullptr;
    bool acquired_ = false;
};

class NdisWifiAdapter final : public WifiAdapter {
  public:
    NdisWifiAdapter(std::unique_ptr<NdisuioDevice> device, Clock& clock)
        : log_(getLogger(kAdapterCategory)),
          device_(std::move(device)),
          wzc_(WzcWrapper::instance()),
          mutex_(log_),
          clock_(clock) {}
    ~NdisWifiAdapter() override { close(); }

    std::string name() const override { return device_->name(); }
    // The enumeration opened the device already.
    int open() override { return 0; }
    void close() override {
        mutex_.release();
        device_->close();
    }
    int startScan() override;
    int getScanResults(Core::ApList& list) override;

  private:
    bool closed() {
        if (!device_->isOpen()) {
            ZEL_LOG_ERROR(log_, "%s: the device is closed", name().c_str());
        }
        return !device_->isOpen();
    }

    Logger& log_;
    std::unique_ptr<NdisuioDevice> device_;
    WzcWrapper* wzc_;
    ScanMutex mutex_;
    Clock& clock_;
};

int NdisWifiAdapter::startScan() {
    if (closed()) {
        return ERROR_INVALID_HANDLE;
    }
    if (wzc_ != nullptr && wzc_->isBusy(device_->deviceName())) {
        ZEL_LOG_INFO(log_, "%s: WZC busy", name().c_str());
        return 0;
    }
    switch (mutex_.tryAcquire()) {
        case ScanMutex::Outcome::AlreadyHeld:
            ZEL_LOG_DEBUG(log_, "%s: scan already in progress...", name().c_str());
            return 0;
        case ScanMutex::Outcome::HeldElsewhere:
            // Another process's scan fills the driver's list, read like any other.
            ZEL_LOG_DEBUG(log_, "%s: another process is scanning", name().c_str());
            return 0;
        case ScanMutex::Outcome::Acquired:
        case ScanMutex::Outcome::Failed:  // no mutex: the scan goes unguarded
            break;
    }
    if (DWORD error = device_->set(OID_802_11_BSSID_LIST_SCAN, 0); error != 0) {
        ZEL_LOG_ERROR(log_, "%s: setting oid failed with error %d", name().c_str(),
                      static_cast<int>(error));
        mutex_.release();
        return static_cast<int>(error);
    }
    ZEL_LOG_DEBUG(log_, "%s: scanning started...", name().c_str());
    return 0;
}

int NdisWifiAdapter::getScanResults(Core::ApList& list) {
    if (closed()) {
        return ERROR_INVALID_HANDLE;
    }
    const uint8_t* data = nullptr;
    size_t size = 0;
    if (DWORD error = device_->query(OID_802_11_BSSID_LIST, data, size); error != 0) {
        ZEL_LOG_ERROR(log_, "%s: querying oid failed with error %d", name().c_str(),
                      static_cast<int>(error));
        mutex_.release();
        return static_cast<int>(error);
    }
    // A malformed list is logged and its good items kept: a driver's fault should not
    // send the scan loop into recovery at every scan.
    NdisBss::readBssidList(data, size, clock_.now(), list, log_);
    mutex_.release();
    return 0;
}

}  // namespace

AdapterList enumerateNdisuioAdapters(const NdisuioOptions& options) {
    Logger& log = getLogger(kDeviceCategory);
    Clock& clock = options.clock != nullptr ? *options.clock : win32Clock();
    AdapterList adapters;
    for (ULONG index = 0; index < kMaxBindings; ++index) {
        auto device = NdisuioDevice::open(options, index, log);
        if (!device) {
            break;
        }
        if (isWireless(*device, log)) {
            ZEL_LOG_INFO(log, "%s: guid = %s", toNarrow(options.devicePath).c_str(),
                         device->name().c_str());
            adapters.push_back(std::make_unique<NdisWifiAdapter>(std::move(device), clock));
        }
    }
    return adapters;
}

}  // namespace ZEL::SPI
