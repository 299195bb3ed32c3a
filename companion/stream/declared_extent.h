// SPDX-License-Identifier: Apache-2.0
// Whether a native stream has the frames that its header records declare (docs/native-format.md, "A
// stream that was cut between frames").
#ifndef KESTREL_COMPANION_STREAM_DECLARED_EXTENT_H
#define KESTREL_COMPANION_STREAM_DECLARED_EXTENT_H

#include <cstdint>
#include <memory>

#include "companion/stream/depacketise.h"
#include "companion/stream/native_walk.h"
#include "companion/stream/sequence_gaps.h"

namespace kestrel::stream {

// Passes the records of a walk on to another sink, and counts what they hold.
class DeclaredExtent final : public RecordSink {
  public:
    // The sink must outlive this one.
    explicit DeclaredExtent(RecordSink& to) : to_(to) {}

    // After the walk: throws Damage at `end`, the length of the stream, if the stream ends before
    // the frames that it declares.
    void require_all(uint64_t end) const;

    // Packets that are missing by their sequence numbers, or speech frames of the function API.
    uint64_t missing() const { return gaps_.missing(); }

  private:
    bool wants_records() const override { return to_.wants_records(); }
    void record(const StreamRecord& record) override { to_.record(record); }
    void header(const StreamHeader& header) override;
    void begin_frame() override;
    void end_frame() override { to_.end_frame(); }
    void video_packet(const VideoPacket& packet) override;
    void speech_sequence(uint16_t sequence) override;
    void speech_time(uint32_t time) override;
    void speech_payload(std::span<const uint8_t> front) override { to_.speech_payload(front); }
    void speech_frame(std::span<const uint8_t> frame) override;

    void take_time(uint32_t time);
    bool ends_early() const;
    uint64_t least_pictures() const;
    uint64_t least_bytes() const;
    bool lacks_speech() const;
    bool lacks_video() const;

    RecordSink& to_;
    bool has_header_ = false;
    StreamHeader header_;                         // without the configuration
    std::unique_ptr<Depacketiser> depacketiser_;  // video only
    uint64_t frames_ = 0;
    uint64_t bytes_ = 0;          // of the media of a video
    uint32_t speech_frames_ = 0;  // of 20 ms each, in the last frame
    uint32_t first_time_ = 0, last_time_ = 0;
    bool has_time_ = false;
    SequenceGaps gaps_;
};

}  // namespace kestrel::stream

#endif
