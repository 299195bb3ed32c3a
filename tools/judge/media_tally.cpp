// SPDX-License-Identifier: Apache-2.0
#include "tools/judge/media_tally.h"

#include <algorithm>

#include "companion/stream/plausible.h"
#include "native/codec/amr_format.h"

namespace tool {

using kestrel::stream::Medium;

void MediaTally::take(std::span<const uint8_t> stream) {
    if (lost_) return;
    try {
        walk_.feed(stream);
    } catch (const kestrel::stream::Damage&) {
        lost_ = true;
        count_implausible();
    }
}

void MediaTally::header(const kestrel::stream::StreamHeader& header) {
    medium_ = header.medium;
    if (is_speech(medium_)) return;
    kestrel::stream::MediaSink sink{[this](std::span<const uint8_t> bytes) { take_picture(bytes); },
                                    [this] { end_unit(); }};
    depacketiser_ = make_depacketiser(medium_, {}, std::move(sink));
}

void MediaTally::begin_frame() {
    ++counts_.frames;
    plausible_ = true;
    got_ = 0;
}

void MediaTally::video_packet(const kestrel::stream::VideoPacket& packet) {
    depacketiser_->packet(packet.payload);
}

void MediaTally::take_picture(std::span<const uint8_t> bytes) {
    counts_.bytes += bytes.size();
    const size_t count = std::min(bytes.size(), first_.size() - got_);
    std::copy_n(bytes.begin(), count, first_.begin() + static_cast<ptrdiff_t>(got_));
    got_ += count;
}

// Of H.264: before each unit, and after the last.
void MediaTally::end_unit() {
    constexpr uint32_t kLengthField = 4;  // of a unit in a sample
    if (got_ == 0) return;
    plausible_ = plausible_ && kestrel::stream::is_nal_unit(std::span(first_).first(got_));
    counts_.bytes += kLengthField;
    ++counts_.units;
    got_ = 0;
}

void MediaTally::end_frame() {
    if (depacketiser_ != nullptr) depacketiser_->finish();
    if (medium_ == Medium::kH264) {
        end_unit();
    } else if (!is_speech(medium_)) {
        const auto first = std::span(first_).first(got_);
        plausible_ = medium_ == Medium::kMpeg4 ? kestrel::stream::is_mpeg4_picture(first)
                                               : kestrel::stream::is_h263_picture(first);
    }
    if (!plausible_) count_implausible();
}

void MediaTally::count_implausible() {
    if (counts_.implausible++ == 0)
        counts_.first_implausible = std::max<uint64_t>(counts_.frames, 1);
}

void MediaTally::speech_frame(std::span<const uint8_t> frame) {
    constexpr uint8_t kMore = 0x80;  // not in storage format
    const int type = kestrel::storage_frame_type(frame[0]);
    // Frame types without a meaning: 12 to 14 (3GPP TS 26.101), 10 to 13 (TS 26.201).
    const bool exists =
        medium_ == Medium::kWideBandSpeech ? type < 10 || type > 13 : type < 12 || type == 15;
    counts_.bytes += frame.size();
    counts_.empty_frames += frame.size() == 1 ? 1 : 0;
    plausible_ = plausible_ && exists && (frame[0] & kMore) == 0;
}

}  // namespace tool
