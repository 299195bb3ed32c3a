// SPDX-License-Identifier: Apache-2.0
// The samples of a native stream, collected as it is fed.
#ifndef KESTREL_COMPANION_PACKER_STREAM_MEDIA_H
#define KESTREL_COMPANION_PACKER_STREAM_MEDIA_H

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "companion/packer/picture_joiner.h"
#include "companion/packer/sample_store.h"
#include "native/stream/declared_extent.h"
#include "native/stream/native_walk.h"

namespace kestrel::packer {

// Reads one stream. feed() and finish() may throw std::bad_alloc.
class StreamMedia final : private stream::RecordSink {
  public:
    // `with_packets`: whether to record the packets too.
    explicit StreamMedia(bool with_packets) : store_(with_packets) {}

    // Has no effect once the stream is damaged or the spool failed.
    void feed(std::span<const uint8_t> bytes);
    // Ends the stream.
    void finish();

    // Empty until all header records were fed.
    const std::optional<stream::StreamHeader>& header() const { return header_; }
    const std::optional<stream::Damage>& damage() const { return damage_; }
    SampleStore& store() { return store_; }

    // MPEG-4: decoder-specific information. H.264: parameter sets, each after 00 00 00 01.
    std::span<const uint8_t> config() const;
    // MPEG-4 whose packets were recorded: what RFC 3640 has before the media.
    const AuHeaders* au_headers() const { return pictures_ ? &pictures_->au_headers() : nullptr; }
    // The least number of pictures that are decoded before the first one is displayed.
    uint32_t shown_after() const { return pictures_ ? pictures_->shown_after() : 0; }
    // Number of whole frames.
    uint32_t frames() const { return frames_; }
    // Packets that are malformed, or of a kind that is not joined.
    uint64_t packets_left_out() const { return pictures_ ? pictures_->packets_left_out() : 0; }

    // By their numbers; of speech frames, for the function API.
    uint64_t packets_missing() const { return extent_.missing(); }

    // AMR: a bit for each frame type that occurs.
    unsigned mode_set() const { return mode_set_; }

  private:
    void header(const stream::StreamHeader& header) override;
    void begin_frame() override;
    void end_frame() override;
    void video_packet(const stream::VideoPacket& packet) override;
    void speech_time(uint32_t time) override { speech_time_ = time; }
    void speech_payload(std::span<const uint8_t> front) override;
    void speech_frame(std::span<const uint8_t> frame) override;

    void run(const std::function<void()>& step);
    void record_speech_packet(std::span<const uint8_t> front);

    stream::DeclaredExtent extent_{*this};
    stream::NativeWalk walk_{extent_};
    std::optional<stream::StreamHeader> header_;
    std::optional<stream::Damage> damage_;
    bool in_frame_ = false;
    uint32_t frames_ = 0;
    SampleStore store_;
    std::optional<PictureJoiner> pictures_;  // video only

    // Speech only: the current frame, with its speech frames in order.
    uint32_t speech_time_ = 0;
    uint32_t speech_count_ = 0;
    std::vector<uint8_t> speech_;
    HintPackets recorded_;
    unsigned mode_set_ = 0;
};

}  // namespace kestrel::packer

#endif
