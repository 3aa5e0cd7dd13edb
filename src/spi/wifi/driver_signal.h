// A wireless driver's signal value as dBm, shared by the Linux and Windows adapters
// (both receive the same kinds of value from drivers).
#pragma once

#include <algorithm>
#include <cstdint>

namespace ZEL::SPI {

// Values below -100000 are scaled by 1/100000 (truncating toward zero); then
// negative values are dBm as they stand, 1..99 is a percentage mapped onto
// -95..-10 dBm as (value - 10) * 85 / 90 - 95, and 0 or 100 and above mean
// "unknown": -255.
inline int16_t rssToDbm(int32_t driverValue) {
    int32_t value = driverValue < -100000 ? driverValue / 100000 : driverValue;
    if (value < 0) {
        // Kept as it stands, but never wrapped into a positive 16-bit value.
        return static_cast<int16_t>(std::max<int32_t>(value, INT16_MIN));
    }
    if (value >= 1 && value <= 99) {
        return static_cast<int16_t>((value - 10) * 85 / 90 - 95);
    }
    return -255;
}

}  // namespace ZEL::SPI
