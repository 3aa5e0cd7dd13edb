// The platform seam: one object that hands out every platform service the library
// uses (files with their mappings, HTTP exchanges, XML parsers, Wi-Fi adapters and
// the clock). The location logic reaches the platform only through platform().
//
// Ownership: every object handed out belongs to the caller; the clock belongs to
// the platform. Failure: a factory returns null when it cannot make its object.
// Threading: the engine calls the platform under the API lock; a platform used
// from several threads at once (the server) must allow that.
#pragma once

#include <memory>

#include "spi/clock.h"
#include "spi/file.h"
#include "spi/http_request.h"
#include "spi/wifi_adapter.h"
#include "spi/xml_parser.h"

namespace ZEL::SPI {

class Platform {
  public:
    virtual ~Platform() = default;
    // A new, closed file object.
    virtual std::unique_ptr<File> newFile() = 0;
    // A new HTTP(S) exchange.
    virtual std::unique_ptr<XmlHttpRequest> newHttpRequest() = 0;
    virtual std::unique_ptr<XmlParser> newXmlParser() = 0;
    // The usable Wi-Fi adapters, the preferred one first; empty when there is none.
    virtual AdapterList wifiAdapters() = 0;
    virtual Clock& clock() = 0;
};

// Forwards every service to another platform; derive from it to replace a few.
class PlatformWrapper : public Platform {
  public:
    explicit PlatformWrapper(Platform& target) : target_(target) {}
    std::unique_ptr<File> newFile() override { return target_.newFile(); }
    std::unique_ptr<XmlHttpRequest> newHttpRequest() override { return target_.newHttpRequest(); }
    std::unique_ptr<XmlParser> newXmlParser() override { return target_.newXmlParser(); }
    AdapterList wifiAdapters() override { return target_.wifiAdapters(); }
    Clock& clock() override { return target_.clock(); }
    Platform& target() const { return target_; }

  private:
    Platform& target_;
};

// The platform in force: the system's unless a test, a tool or an extension
// installed another.
Platform& platform();

// The system's platform (Linux: POSIX files, libcurl, libxml2, nl80211).
Platform& systemPlatform();

// Installs `replacement` (not owned; it must outlive its use) and returns the
// previous one; null restores the system's. Call it under the API lock.
Platform* setPlatform(Platform* replacement);

// Installs a platform for the lifetime of this object, then restores the previous one.
class ScopedPlatform {
  public:
    explicit ScopedPlatform(Platform& replacement) : previous_(setPlatform(&replacement)) {}
    ~ScopedPlatform() { setPlatform(previous_); }
    ScopedPlatform(const ScopedPlatform&) = delete;
    ScopedPlatform& operator=(const ScopedPlatform&) = delete;

  private:
    Platform* previous_;
};

// Shorthands for the clock of the platform in force.
inline Core::TimeStamp currentTime() {
    return platform().clock().now();
}
inline uint32_t tickCount() {
    return platform().clock().tickCount();
}

}  // namespace ZEL::SPI
