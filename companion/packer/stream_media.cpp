// SPDX-License-Identifier: Apache-2.0
#include "companion/packer/stream_media.h"

#include "native/codec/amr_format.h"

namespace kestrel::packer {

void StreamMedia::run(const std::function<void()>& step) {
    if (damage_ || store_.failed()) return;
    try {
        step();
    } catch (const stream::Damage& damage) {
        damage_ = damage;
        // Samples of a frame that is not whole are dropped.
        if (pictures_) pictures_->finish(!in_frame_);
    }
}

void StreamMedia::feed(std::span<const uint8_t> bytes) {
    run([&] { walk_.feed(bytes); });
}

void StreamMedia::finish() {
    run([&] {
        walk_.finish();
        if (pictures_) pictures_->finish(true);
        if (const std::string fault = extent_.fault(); !fault.empty())
            damage_ = {walk_.bytes(), fault};
    });
}

std::span<const uint8_t> StreamMedia::config() const {
    return pictures_ ? pictures_->config().bytes() : std::span<const uint8_t>();
}

void StreamMedia::header(const stream::StreamHeader& header) {
    header_ = header;
    if (!is_speech(header.medium)) pictures_.emplace(header, store_);
}

void StreamMedia::begin_frame() {
    in_frame_ = true;
    recorded_.clear();
    speech_.clear();
    speech_count_ = 0;
}

void StreamMedia::video_packet(const stream::VideoPacket& packet) {
    pictures_->packet(packet);
}

// --- speech ---

// The packet of the speech frames that follow begins: mode request and table of contents.
void StreamMedia::record_speech_packet(std::span<const uint8_t> front) {
    if (!store_.with_packets()) return;
    if (recorded_.size() == kMaxHintPackets) return store_.leave_out_hints();
    const uint32_t step = band_of(header_->medium).samples_per_frame;
    recorded_.begin_packet(static_cast<int32_t>(speech_count_ * step));
    recorded_.add_own(front);
}

void StreamMedia::speech_payload(std::span<const uint8_t> front) {
    record_speech_packet(front);
}

void StreamMedia::speech_frame(std::span<const uint8_t> frame) {
    if (header_->api == stream::Api::kFunction) {
        const uint8_t front[] = {kNoModeRequest, static_cast<uint8_t>(frame[0] & kTypeAndQuality)};
        record_speech_packet(front);
    }
    if (!recorded_.empty()) recorded_.add_range(1, frame.size() - 1, speech_count_);
    speech_.insert(speech_.end(), frame.begin(), frame.end());
    ++speech_count_;
}

void StreamMedia::end_frame() {
    in_frame_ = false;
    ++frames_;
    if (pictures_) pictures_->end_frame();
    if (speech_count_ == 0) return;
    const AmrBand& band = band_of(header_->medium);
    uint32_t time = speech_time_;
    for (std::span<const uint8_t> rest(speech_); !rest.empty();) {
        const int type = storage_frame_type(rest[0]);
        const auto size = static_cast<size_t>(storage_frame_size(band.frame_bits[type]));
        mode_set_ |= 1U << type;
        store_.add(rest.first(size), time, true, store_.count());
        time += band.samples_per_frame;
        rest = rest.subspan(size);
    }
    if (store_.with_packets()) store_.add_hint(recorded_, speech_count_);
}

}  // namespace kestrel::packer
