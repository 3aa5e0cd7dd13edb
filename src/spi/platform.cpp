#include "spi/platform.h"

#include <atomic>

namespace ZEL::SPI {
namespace {

std::atomic<Platform*> installed{nullptr};

}  // namespace

Platform& platform() {
    Platform* current = installed.load(std::memory_order_acquire);
    return current != nullptr ? *current : systemPlatform();
}

Platform* setPlatform(Platform* replacement) {
    return installed.exchange(replacement, std::memory_order_acq_rel);
}

}  // namespace ZEL::SPI
