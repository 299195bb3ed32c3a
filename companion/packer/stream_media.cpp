// SPDX-License-Identifier: Apache-2.0
#include "companion/packer/stream_media.h"

#include "native/codec/amr_format.h"

namespace kestrel::packer {
namespace {

constexpr uint8_t kNoModeRequest = 0xF0;   // RFC 4867, 4.3.1
constexpr uint8_t kTypeAndQuality = 0x7C;  // of a frame's header, which its entry repeats

}  // namespace

void StreamMedia::run(const std::function<void()>& step) {
    if (damage_ || store_.failed()) return;
    try {
        step();
    } catch (const stream::Damage& damage) {
        damage_ = damage;
        // What belongs to a frame that is not whole is left out.
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
    speech_packets_.clear();
    speech_.clear();
}

void StreamMedia::video_packet(const stream::VideoPacket& packet) {
    pictures_->packet(packet);
}

// --- speech ---

void StreamMedia::speech_payload(std::span<const uint8_t> front) {
    speech_packets_.push_back({{front.begin(), front.end()}, 0});
}

void StreamMedia::speech_frame(std::span<const uint8_t> frame) {
    if (header_->api == stream::Api::kFunction)
        speech_packets_.push_back(
            {{kNoModeRequest, static_cast<uint8_t>(frame[0] & kTypeAndQuality)}, 0});
    speech_packets_.back().frames++;
    speech_.emplace_back(frame.begin(), frame.end());
}

void StreamMedia::end_frame() {
    in_frame_ = false;
    ++frames_;
    if (speech_.empty()) return;
    const uint32_t step = band_of(header_->medium).samples_per_frame;
    uint32_t time = speech_time_;
    for (const std::vector<uint8_t>& frame : speech_) {
        const int type = storage_frame_type(frame[0]);
        mode_set_ |= 1U << type;
        store_.add(frame, time, true, store_.samples().size());
        time += step;
    }
    if (store_.with_packets()) record_speech_packets(step);
}

void StreamMedia::record_speech_packets(uint32_t frame_time) {
    recorded_.clear();
    uint32_t sample = 0;
    for (const SpeechPacket& packet : speech_packets_) {
        recorded_.begin_packet(static_cast<int32_t>(sample * frame_time));
        recorded_.add_own(packet.front);
        for (uint32_t left = packet.frames; left > 0; --left, ++sample)
            recorded_.add_range(1, speech_[sample].size() - 1, sample);
    }
    store_.add_hint(recorded_, sample);
}

}  // namespace kestrel::packer
