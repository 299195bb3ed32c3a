// SPDX-License-Identifier: Apache-2.0
#include "companion/hinter/time_factor.h"

#include <algorithm>
#include <cstdlib>
#include <limits>
#include <numeric>

namespace kestrel::hinter {
namespace {

// The largest number of units of which all times, and a second, are a multiple.
uint32_t common_unit(const importer::Track& track) {
    uint64_t unit = track.timescale;
    for (const importer::Sample& sample : track.samples) {
        unit = std::gcd(unit, uint64_t{sample.duration});
        unit = std::gcd(unit, static_cast<uint64_t>(std::abs(int64_t{sample.composition_offset})));
        if (unit == 1) return 1;
    }
    for (const importer::Edit& edit : track.edits) {
        if (edit.media_time > 0) unit = std::gcd(unit, static_cast<uint64_t>(edit.media_time));
    }
    return static_cast<uint32_t>(unit);
}

// The factor from `timescale` to the least multiple of 1,000 and of timescale / unit.
TimeFactor factor_to_milliseconds(uint32_t timescale, uint32_t unit) {
    constexpr uint32_t kMilliseconds = 1000;
    const uint32_t units = timescale / unit;
    const uint32_t up = kMilliseconds / std::gcd(units, kMilliseconds);
    const uint32_t common = std::gcd(up, unit);
    return {up / common, unit / common};
}

bool fits(const importer::Track& track, TimeFactor factor) {
    const auto is_within = [&](uint64_t time, uint64_t most) {
        return time <= std::numeric_limits<uint64_t>::max() / factor.up &&
               time * factor.up / factor.down <= most;
    };
    return is_within(track.timescale, UINT32_MAX) && is_within(track.duration, UINT32_MAX) &&
           std::all_of(track.samples.begin(), track.samples.end(),
                       [&](const importer::Sample& sample) {
                           const int64_t offset = sample.composition_offset;
                           return is_within(static_cast<uint64_t>(std::abs(offset)), INT32_MAX);
                       }) &&
           std::all_of(track.edits.begin(), track.edits.end(), [&](const importer::Edit& edit) {
               constexpr auto kMost = static_cast<uint64_t>(std::numeric_limits<int64_t>::max());
               return edit.media_time <= 0 ||
                      is_within(static_cast<uint64_t>(edit.media_time), kMost);
           });
}

}  // namespace

std::optional<TimeFactor> whole_milliseconds(const importer::Track& track) {
    const TimeFactor multiple = factor_to_milliseconds(track.timescale, 1);
    if (fits(track, multiple)) return multiple;
    const TimeFactor other = factor_to_milliseconds(track.timescale, common_unit(track));
    if (fits(track, other)) return other;
    return std::nullopt;
}

}  // namespace kestrel::hinter
