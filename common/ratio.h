// SPDX-License-Identifier: Apache-2.0
// Ratios of whole numbers, truncated once: a whole result is exact on all machines.
#ifndef KESTREL_COMMON_RATIO_H
#define KESTREL_COMMON_RATIO_H

#include <cstdint>

namespace kestrel {

// Returns value * numerator / denominator, truncated; the largest value on overflow, 0 for a
// denominator of 0.
inline uint32_t scaled(uint64_t value, uint32_t numerator, uint32_t denominator) {
    if (numerator == 0 || denominator == 0) return 0;
    const uint64_t whole = value / denominator;
    const uint64_t rest = value % denominator * numerator / denominator;
    if (whole > UINT32_MAX / numerator) return UINT32_MAX;
    const uint64_t result = whole * numerator + rest;
    return result > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(result);
}

}  // namespace kestrel

#endif
