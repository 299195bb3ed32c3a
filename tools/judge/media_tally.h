// SPDX-License-Identifier: Apache-2.0
// Counts and checks the contents of a native stream of any length.
#ifndef KESTREL_TOOLS_JUDGE_MEDIA_TALLY_H
#define KESTREL_TOOLS_JUDGE_MEDIA_TALLY_H

#include <cstdint>
#include <memory>
#include <span>

#include "native/stream/depacketise.h"
#include "native/stream/frame_test.h"
#include "native/stream/native_walk.h"

namespace tool {

// Plain numbers, so that a process can pass them on as bytes.
struct MediaCounts {
    uint64_t frames = 0;  // of the native stream: pictures, or speech of one frame or sample
    // Of video, of the frames with bytes of a picture: those without and with a malformed packet.
    uint64_t pictures = 0;
    uint64_t malformed = 0;
    uint64_t bytes = 0;  // of media: pictures without packet headers, speech frames as stored
    uint64_t units = 0;  // of H.264; each counts 4 bytes more in `bytes`, as its length takes
    uint64_t empty_frames = 0;  // of speech: without speech or comfort noise, a byte each
    // What only the samples show. Of H.264: bytes that are not in packets: lengths of empty units,
    // and what is after the last one.
    uint64_t unpacked_bytes = 0;
    // Of speech: bytes without those of empty frames, which a hint track may leave out, and samples
    // that do not end with their last frame.
    uint64_t filled_bytes = 0;
    uint64_t uneven_samples = 0;
    // Of MPEG-4 Visual: the first hint sample that is damaged, from 1; 0 for none.
    uint64_t damaged_hint = 0;
    // What only the hint samples show: see HintUse.
    uint64_t misled = 0;
    uint64_t first_misled = 0;
    uint64_t unused = 0;
    // Frames whose bytes their codec cannot write, and the number of the first one, from 1.
    uint64_t implausible = 0;
    uint64_t first_implausible = 0;
    uint64_t judged_samples = 0;  // where these are samples: their number in the track
    // What a decoder needs first, and neither the header records nor the frames have.
    kestrel::stream::ConfigurationFault configuration_fault{};
};

// Takes a native stream in pieces. Holds one frame. A stream that is malformed has an implausible
// frame there.
class MediaTally final : private kestrel::stream::RecordSink {
  public:
    MediaTally() : walk_(*this) {}

    void take(std::span<const uint8_t> stream);
    MediaCounts counts() const;

  private:
    bool wants_records() const override { return false; }
    void header(const kestrel::stream::StreamHeader& header) override;
    void begin_frame() override;
    void end_frame() override;
    void video_packet(const kestrel::stream::VideoPacket& packet) override;
    void speech_frame(std::span<const uint8_t> frame) override;

    void take_picture(std::span<const uint8_t> bytes);
    void end_unit();

    kestrel::stream::NativeWalk walk_;
    bool lost_ = false;                                // the rest is no native stream
    bool has_picture_ = false, is_malformed_ = false;  // the current frame
    kestrel::stream::Medium medium_ = kestrel::stream::Medium::kNarrowBandSpeech;
    std::unique_ptr<kestrel::stream::Depacketiser> depacketiser_;
    kestrel::stream::FrameTest test_;
    MediaCounts counts_;  // without what the test counts
};

}  // namespace tool

#endif
