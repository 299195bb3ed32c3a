// SPDX-License-Identifier: Apache-2.0
// Running RTP timestamps: a double accumulator in clock units, rounded to 32 bits.
#ifndef KESTREL_COMMON_CLOCK_H
#define KESTREL_COMMON_CLOCK_H

#include <cmath>
#include <cstdint>

namespace kestrel {

// An accumulator wraps at 2^32 - 0.5 by 2^32 - 1, one less than 2^32, as receivers expect.
inline constexpr double kClockWrapsAt = 4294967295.5;
inline constexpr double kClockWrap = 4294967295.0;

// Truncates to 32 bits, modulo 2^32; negative values and NaN become 0.
inline uint32_t truncate_to_u32(double value) {
    constexpr double kRange = 4294967296.0;
    if (value >= 0.0 && value < kRange) [[likely]]
        return static_cast<uint32_t>(value);
    if (!(value >= 0.0) || std::isinf(value)) return 0;
    return static_cast<uint32_t>(std::fmod(value, kRange));
}

// The timestamp of an accumulator: rounded to the nearest count.
inline uint32_t clock_to_timestamp(double clock) {
    return truncate_to_u32(clock + 0.5);
}

// The accumulator after `units` more.
inline double clock_after(double clock, double units) {
    clock += units;
    return clock >= kClockWrapsAt ? clock - kClockWrap : clock;
}

}  // namespace kestrel

#endif
