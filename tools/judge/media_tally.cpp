// SPDX-License-Identifier: Apache-2.0
#include "tools/judge/media_tally.h"

namespace tool {

using kestrel::stream::Medium;

void MediaTally::take(std::span<const uint8_t> stream) {
    if (lost_) return;
    try {
        walk_.feed(stream);
    } catch (const kestrel::stream::Damage&) {
        lost_ = true;
        test_.fail();
    }
}

void MediaTally::header(const kestrel::stream::StreamHeader& header) {
    medium_ = header.medium;
    test_.set_header(header);
    if (is_speech(medium_)) return;
    kestrel::stream::MediaSink sink{[this](std::span<const uint8_t> bytes) { take_picture(bytes); },
                                    [this] { end_unit(); }};
    depacketiser_ = make_depacketiser(medium_, {}, std::move(sink));
}

void MediaTally::begin_frame() {
    test_.begin_frame();
    has_picture_ = is_malformed_ = false;
}

void MediaTally::video_packet(const kestrel::stream::VideoPacket& packet) {
    if (!depacketiser_->packet(packet.payload)) is_malformed_ = true;
}

void MediaTally::take_picture(std::span<const uint8_t> bytes) {
    counts_.bytes += bytes.size();
    has_picture_ = has_picture_ || !bytes.empty();
    test_.take(bytes);
}

// Of H.264: before each unit, and after the last.
void MediaTally::end_unit() {
    constexpr uint32_t kLengthField = 4;  // of a unit in a sample
    if (!test_.end_unit()) return;
    counts_.bytes += kLengthField;
    ++counts_.units;
}

void MediaTally::end_frame() {
    if (depacketiser_ != nullptr) depacketiser_->finish();
    if (medium_ == Medium::kH264) end_unit();
    counts_.pictures += has_picture_ && !is_malformed_ ? 1 : 0;
    counts_.malformed += has_picture_ && is_malformed_ ? 1 : 0;
    test_.end_frame();
}

void MediaTally::speech_frame(std::span<const uint8_t> frame) {
    counts_.bytes += frame.size();
    counts_.empty_frames += frame.size() == 1 ? 1 : 0;
    test_.take_speech(frame);
}

MediaCounts MediaTally::counts() const {
    MediaCounts all = counts_;
    all.frames = test_.frames();
    all.implausible = test_.implausible();
    all.first_implausible = test_.first_implausible();
    if (counts_.bytes > 0) all.configuration_fault = test_.configuration_fault();
    return all;
}

}  // namespace tool
