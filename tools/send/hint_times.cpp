// SPDX-License-Identifier: Apache-2.0
#include "tools/send/hint_times.h"

#include <algorithm>
#include <array>
#include <span>

#include "common/box_header.h"
#include "interface/src/isoff/record/private.h"
#include "native/codec/rtp_hint_sample.h"

namespace tool {

// --- samples ---

// Moves to the entry of the sample. Returns false after the last one.
bool SampleTimes::skip_finished_entries() {
    while (entry_ < track_->stts_count &&
           static_cast<uint32_t>(in_entry_) >= track_->stts[entry_].count) {
        ++entry_;
        in_entry_ = 0;
    }
    return entry_ < track_->stts_count;
}

void SampleTimes::step(int32_t samples) {
    units_ += int64_t{track_->stts[entry_].delta} * samples;
    in_entry_ += samples;
    sample_ += samples;
}

void SampleTimes::advance_to(int32_t sample) {
    while (sample_ < sample && skip_finished_entries()) {
        const auto left = track_->stts[entry_].count - static_cast<uint32_t>(in_entry_);
        step(static_cast<int32_t>(std::min<int64_t>(left, int64_t{sample} - sample_)));
    }
    sample_ = std::max(sample_, sample);
}

void SampleTimes::advance_to_time(double seconds) {
    constexpr double kLast = 9e18;  // units; a track has fewer
    const auto wanted = static_cast<int64_t>(std::clamp(seconds * scale() + 1e-6, -kLast, kLast));
    while (units_ < wanted && sample_ + 1 < track_->sample_count && skip_finished_entries()) {
        const iso_stts_entry& entry = track_->stts[entry_];
        const int64_t most = std::min<int64_t>(entry.count - static_cast<uint32_t>(in_entry_),
                                               track_->sample_count - 1 - sample_);
        const int64_t fit = entry.delta == 0 ? most : (wanted - units_) / entry.delta;
        step(static_cast<int32_t>(std::min(fit, most)));
        if (fit < most) return;
    }
}

double presentation_offset(const iso_track* track) {
    const iso_track_private* details = track->own;
    const iso_file_private* movie = track->file->own;
    double offset = 0;
    for (int32_t i = 0; i < details->edit_count; ++i) {
        const iso_elst_entry& edit = details->edits[i];
        if (edit.media_time < 0) {
            offset +=
                static_cast<double>(edit.segment_duration) / std::max(movie->edit_timescale, 1U);
            continue;
        }
        return offset - static_cast<double>(edit.media_time) / std::max(track->timescale, 1U);
    }
    return offset;
}

double sync_time_before(const iso_track* track, double seconds) {
    if (track->sync_count == 0) return seconds;
    const double offset = presentation_offset(track);
    SampleTimes at(track);
    at.advance_to_time(seconds - offset);
    const std::span<const uint32_t> syncs(track->sync_samples, track->sync_count);
    const auto next =
        std::upper_bound(syncs.begin(), syncs.end(), static_cast<uint32_t>(at.sample()) + 1);
    const uint32_t sync = next == syncs.begin() ? *next : *std::prev(next);
    SampleTimes found(track);
    found.advance_to(static_cast<int32_t>(std::min<uint32_t>(sync, INT32_MAX)) - 1);
    return found.seconds() + offset;
}

// --- packet entries ---

void PacketEntries::begin_sample(int32_t sample) {
    sample_ = sample;
    at_ = kestrel::kHintHeaderSize;
}

bool PacketEntries::read(void* to, uint32_t count) {
    if (at_ > INT32_MAX) return false;
    const int got = isoFFreadAt(hint_, sample_, static_cast<int>(at_), to, count, nullptr, nullptr);
    at_ += count;
    return got == static_cast<int>(count);
}

// Returns the offset of the timestamp in the extra information that ends at `end`.
int32_t PacketEntries::find_offset(int64_t end) {
    constexpr uint32_t kOffsetType = kestrel::fourcc("rtpo");
    constexpr int64_t kHeader = kestrel::kBoxHeader, kShortest = kHeader + 4;
    constexpr int kMaxEntries = 64;
    for (int i = 0; i < kMaxEntries && end - at_ >= kShortest; ++i) {
        const int64_t begin = at_;
        std::array<uint8_t, kShortest> entry{};
        if (!read(entry.data(), entry.size())) return 0;
        const kestrel::BoxHeader header = kestrel::load_box_header(entry.data());
        if (header.type == kOffsetType)
            return static_cast<int32_t>(kestrel::load_be32(&entry[kHeader]));
        constexpr int64_t kAligned = 4;
        const int64_t size = std::max<int64_t>(header.size, kHeader);
        at_ = begin + (size + kAligned - 1) / kAligned * kAligned;
    }
    return 0;
}

PacketTimes PacketEntries::next() {
    std::array<uint8_t, kestrel::kPacketEntrySize> raw{};
    if (!read(raw.data(), raw.size())) return {};
    const kestrel::PacketEntry entry = kestrel::load_packet_entry(raw.data());
    PacketTimes times;
    times.sent = entry.relative_time;
    if (entry.has_extra_information()) {
        const int64_t begin = at_;
        std::array<uint8_t, kestrel::kExtraLengthSize> length{};
        if (!read(length.data(), length.size())) return {};
        const int64_t end = begin + kestrel::load_be32(length.data());
        times.shown = find_offset(end);
        at_ = end;
    }
    at_ += int64_t{kestrel::kConstructorSize} * entry.constructors;
    return times;
}

}  // namespace tool
