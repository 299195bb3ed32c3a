// SPDX-License-Identifier: Apache-2.0
#include "companion/packer/timeline.h"

#include <algorithm>
#include <cmath>
#include <numeric>

#include "native/codec/payload_types.h"

namespace kestrel::packer {
namespace {

uint32_t timescale_of(const stream::StreamHeader& header) {
    return is_speech(header.medium) ? band_of(header.medium).sampling_rate : kVideoClock;
}

// The duration that the header records declare, in units of the stream.
double declared_duration(const stream::StreamHeader& header) {
    return header.duration_ms / 1000.0 * timescale_of(header);
}

// The duration of the last sample if it is like the previous one.
uint64_t usual_duration(const stream::StreamHeader& header, const Times& times) {
    if (is_speech(header.medium)) return band_of(header.medium).samples_per_frame;
    if (times.size() > 1) return times.back() - times[times.size() - 2];
    return static_cast<uint64_t>(declared_duration(header));
}

// --- the clock of the class API ---

// A stretch of time as the header records declare it, in units of the stream, and by how much the
// packets may measure another before it counts as theirs.
struct Declared {
    double units = 0.0;
    double tolerance = 0.0;
};

// The duration that the header records declare for what was fed; 0 units where they do not.
Declared declared_for(const stream::StreamHeader& header, double samples, uint32_t frames) {
    constexpr double kWhole = 0.02;
    constexpr double kPart =
        0.4;  // of which the frame rate may differ, or the hint track end early
    constexpr double kHundredths = 100.0;
    const double all = declared_duration(header);
    if (is_speech(header.medium)) return {frames == header.frames ? all : 0.0, kPart};
    const double rate = header.frame_rate / kHundredths;
    const double missing = rate * header.duration_ms / 1000.0 - samples;
    if (std::abs(missing) <= 1.0 + samples / 1000.0) return {all, kWhole};
    return {samples / rate * kVideoClock, kPart};
}

// The class API counts the ticks of the hint track as units of the media track. Returns by which
// factor its times are too long for that.
double clock_factor(const stream::StreamHeader& header, const Times& times, uint32_t frames) {
    constexpr double kMax = 1000.0;  // more than any two timescales differ by
    const Declared declared = declared_for(header, static_cast<double>(times.size()), frames);
    const auto measured =
        static_cast<double>(times.back() - times.front() + usual_duration(header, times));
    if (declared.units <= 0.0 || measured <= 0.0) return 1.0;
    const double factor = measured / declared.units;
    if (factor > kMax || factor < 1.0 / kMax) return 1.0;
    const double limit = 1.0 + declared.tolerance;
    return factor > limit || factor < 1.0 / limit ? factor : 1.0;
}

// --- durations ---

// The last sample lasts to the declared end, unless that is so far that samples are missing.
uint64_t last_duration(const stream::StreamHeader& header, const Times& times) {
    const uint64_t usual = usual_duration(header, times);
    if (is_speech(header.medium)) return usual;
    const double millisecond = timescale_of(header) / 1000.0;
    const double left =
        declared_duration(header) - static_cast<double>(times.back() - times.front());
    uint64_t longest = usual;
    for (size_t i = 1; i < times.size(); ++i)
        longest = std::max(longest, times[i] - times[i - 1]);
    // The declared duration is cut to milliseconds.
    if (std::abs(left - static_cast<double>(usual)) <= 1.5 * millisecond) return usual;
    if (left <= 0.0 || left > 2.0 * static_cast<double>(longest)) return usual;
    return static_cast<uint64_t>(left);
}

// --- composition ---

bool are_shown_in_order(const NumberRuns& keys) {
    for (size_t i = 1; i < keys.size(); ++i) {
        if (keys[i] < keys[i - 1]) return false;
    }
    return true;
}

// Returns the samples in display order.
std::vector<uint32_t> display_order(const NumberRuns& keys) {
    std::vector<uint64_t> key_of(keys.size());
    for (size_t i = 0; i < keys.size(); ++i)
        key_of[i] = keys[i];
    std::vector<uint32_t> shown(keys.size());
    std::iota(shown.begin(), shown.end(), 0);
    std::stable_sort(shown.begin(), shown.end(),
                     [&](uint32_t a, uint32_t b) { return key_of[a] < key_of[b]; });
    return shown;
}

// Samples are shown in the order of their keys, at the times at which they are decoded, all later
// by as much as it takes for none to be shown before it was decoded.
void compose(const NumberRuns& keys, uint32_t shown_after, Timeline& timeline) {
    const Times& times = timeline.times;
    if (shown_after == 0 && are_shown_in_order(keys)) return;
    const std::vector<uint32_t> shown = display_order(keys);
    std::vector<int64_t> offsets(shown.size());
    auto delay =
        static_cast<int64_t>(times[std::min<size_t>(shown_after, times.size() - 1)] - times[0]);
    for (size_t rank = 0; rank < shown.size(); ++rank) {
        const uint32_t sample = shown[rank];
        offsets[sample] = static_cast<int64_t>(times[rank]) - static_cast<int64_t>(times[sample]);
        delay = std::max(delay, -offsets[sample]);
    }
    const auto range = std::minmax_element(offsets.begin(), offsets.end());
    if (*range.second + delay > INT32_MAX) return;  // no stream that can be played
    timeline.delay = static_cast<uint32_t>(delay);
    timeline.composition.resize(offsets.size());
    std::transform(offsets.begin(), offsets.end(), timeline.composition.begin(),
                   [&](int64_t offset) { return static_cast<int32_t>(offset + delay); });
}

uint32_t limited(uint64_t duration) {
    return static_cast<uint32_t>(std::min<uint64_t>(duration, UINT32_MAX));
}

}  // namespace

uint64_t Times::scaled(uint64_t time) const {
    return factor_ == 1.0
               ? time
               : static_cast<uint64_t>(std::llround(static_cast<double>(time) / factor_));
}

uint32_t Timeline::duration_of(size_t sample) const {
    if (sample + 1 == times.size()) return last_duration;
    return limited(times[sample + 1] - times[sample]);
}

Timeline make_timeline(const stream::StreamHeader& header, const SampleStore& samples,
                       uint32_t frames, uint32_t shown_after) {
    Timeline timeline;
    timeline.timescale = timescale_of(header);
    timeline.times = Times(samples.times());
    if (header.api == stream::Api::kClass) {
        timeline.times.divide_by(clock_factor(header, timeline.times, frames));
        timeline.start = timeline.times.front();
    }
    timeline.last_duration = limited(last_duration(header, timeline.times));
    compose(samples.display_keys(), shown_after, timeline);
    return timeline;
}

}  // namespace kestrel::packer
