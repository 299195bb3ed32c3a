// SPDX-License-Identifier: Apache-2.0
// Rebuilding the media file of a native stream.
#ifndef KESTREL_TOOLS_MEDIA_WRITER_H
#define KESTREL_TOOLS_MEDIA_WRITER_H

#include <memory>
#include <string>

#include "native/stream/depacketise.h"
#include "native/stream/sequence_gaps.h"
#include "tools/support.h"

namespace tool {

// Writes a .amr, .h263, .m4v or .h264 file from the records of a stream.
class MediaWriter final : public kestrel::stream::RecordSink {
  public:
    explicit MediaWriter(Output& output) : output_(output) {}

    bool wants_records() const override { return false; }
    void header(const kestrel::stream::StreamHeader& header) override;
    void speech_sequence(uint16_t sequence) override { gaps_.add(sequence); }
    void speech_frame(std::span<const uint8_t> frame) override;
    void video_packet(const kestrel::stream::VideoPacket& packet) override;
    // Writes the bytes that were kept.
    void finish();

    bool made_any() const { return made_any_; }
    // Returns what the medium lacks: "2 packets are missing"; empty for nothing.
    std::string lacks() const;

  private:
    void write_text(const char* text);

    Output& output_;
    std::unique_ptr<kestrel::stream::Depacketiser> depacketiser_;
    const char* unit_ = "packet";
    bool made_any_ = false;
    kestrel::stream::SequenceGaps gaps_;
    uint64_t malformed_ = 0;
};

}  // namespace tool

#endif
