// SPDX-License-Identifier: Apache-2.0
// Whether a native stream has the frames that its header records declare (docs/native-format.md, "A
// stream that was cut between frames"), each once, and whether they are of its codec.
#ifndef KESTREL_NATIVE_STREAM_DECLARED_EXTENT_H
#define KESTREL_NATIVE_STREAM_DECLARED_EXTENT_H

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "native/stream/depacketise.h"
#include "native/stream/frame_test.h"
#include "native/stream/native_walk.h"
#include "native/stream/sequence_gaps.h"

namespace kestrel::stream {

// The fault of a picture size that no file can declare; empty for none.
std::string picture_size_fault(const StreamHeader& header);

// Passes the records of a walk on to another sink, and counts what they hold.
class DeclaredExtent final : public RecordSink {
  public:
    // The sink must outlive this one.
    explicit DeclaredExtent(RecordSink& to) : to_(to) {}

    // After a walk without damage: what is wrong with the stream as a whole: it has fewer or more
    // frames than it declares, repeats some, or has some that cannot be of its codec. Empty for
    // nothing.
    std::string fault() const;
    // After a walk without damage or fault: what the stream may lack; empty for nothing.
    std::string doubt() const;
    // Packets that are missing by their sequence numbers, or speech frames of the function API.
    uint64_t missing() const { return gaps_.missing(); }
    // Number of packets that are malformed, or of an unsupported kind.
    uint64_t malformed() const { return malformed_; }
    // Whether the sequence numbers are those of speech frames: of speech of the function API.
    bool numbers_frames() const { return is_speech() && header_.api == Api::kFunction; }

  private:
    bool is_speech() const { return has_header_ && stream::is_speech(header_.medium); }
    bool wants_records() const override { return to_.wants_records(); }
    void record(const StreamRecord& record) override { to_.record(record); }
    void header(const StreamHeader& header) override;
    void begin_frame() override;
    void end_frame() override;
    void video_packet(const VideoPacket& packet) override;
    void speech_sequence(uint16_t sequence) override;
    void speech_time(uint32_t time) override;
    void speech_payload(std::span<const uint8_t> front) override { to_.speech_payload(front); }
    void speech_frame(std::span<const uint8_t> frame) override;

    uint64_t missing_first() const;
    void take_time(uint32_t time);
    void take_sequence(uint16_t sequence);
    bool lacks_speech() const;
    bool has_too_much_speech() const;
    bool lacks_video() const;
    std::string extent_fault() const;
    std::string config_fault() const;
    bool ends_early() const;
    uint64_t least_pictures() const;
    uint64_t least_bytes() const;

    RecordSink& to_;
    bool has_header_ = false;
    StreamHeader header_;                         // without the configuration
    std::unique_ptr<Depacketiser> depacketiser_;  // video only
    FrameTest test_;
    uint64_t bytes_ = 0;          // of the media of a video
    uint32_t speech_frames_ = 0;  // of 20 ms each, in the last frame
    uint32_t first_time_ = 0, last_time_ = 0;
    bool has_time_ = false;
    bool have_one_time_ = true;                            // all packets, or all speech
    bool has_markers_ = false, ends_with_marker_ = false;  // packets of a video
    SequenceGaps gaps_;
    // Time and sequence number that the frame begins with, and those of the frame before.
    using Beginning = std::optional<std::pair<uint32_t, uint16_t>>;
    Beginning beginning_, beginning_before_;
    bool has_packets_ = false;  // the current frame, or speech
    uint64_t empty_ = 0;        // frames without
    uint64_t repeated_ = 0;     // frames
    uint64_t malformed_ = 0;    // packets
};

}  // namespace kestrel::stream

#endif
