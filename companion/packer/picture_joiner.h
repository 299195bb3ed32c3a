// SPDX-License-Identifier: Apache-2.0
// Coded pictures from the packets of a video stream.
#ifndef KESTREL_COMPANION_PACKER_PICTURE_JOINER_H
#define KESTREL_COMPANION_PACKER_PICTURE_JOINER_H

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <vector>

#include "companion/packer/au_headers.h"
#include "companion/packer/pictures.h"
#include "companion/packer/sample_store.h"
#include "native/stream/depacketise.h"

namespace kestrel::packer {

// The configuration of a stream, and its copies that the library puts before pictures.
class StreamConfig {
  public:
    explicit StreamConfig(const stream::StreamHeader& header);

    // Reads it from the first picture if the header records do not have all of it.
    void complete(std::span<const uint8_t> first_picture);

    // MPEG-4: decoder-specific information. H.264: parameter sets, each after 00 00 00 01.
    std::span<const uint8_t> bytes() const { return bytes_; }

    // The copy that a picture has before its first slice; empty for none. For MPEG-4 it is at the
    // beginning of the picture.
    std::span<const uint8_t> copy_in(std::span<const uint8_t> picture) const;

  private:
    stream::Medium medium_;
    bool is_declared_ = false;       // the header records have at least a part of it
    std::vector<uint8_t> bytes_;     // empty while it is not known as a whole
    std::vector<uint8_t> in_front_;  // in the form before a picture
};

class PictureJoiner {
  public:
    PictureJoiner(const stream::StreamHeader& header, SampleStore& store);

    void packet(const stream::VideoPacket& packet);
    void end_frame();
    // The stream ends here. `is_whole`: the last packet ended a frame.
    void finish(bool is_whole);

    const StreamConfig& config() const { return config_; }
    // Of the packets that were recorded.
    const AuHeaders& au_headers() const { return au_headers_; }
    uint32_t shown_after() const { return reader_->shown_after(); }
    uint64_t packets_left_out() const { return packets_left_out_; }

  private:
    // A packet of the current picture.
    struct Packet {
        std::vector<uint8_t> payload;
        bool marker = false;
        // The first bytes of the payload that are unchanged in the picture.
        std::optional<size_t> media_begin;
        size_t picture_offset = 0;
    };

    // Bytes of the picture that are not in the sample.
    struct Hole {
        size_t begin = 0;
        size_t length = 0;
        size_t end() const { return begin + length; }
    };

    void keep_packet(const stream::VideoPacket& packet);
    void begin_unit();
    void end_unit();
    void take(std::span<const uint8_t> bytes);
    void end_picture();
    void record_packets(const Hole& left_out);
    void record_packet(const Packet& packet, const Hole& left_out, HintPackets& recorded) const;

    stream::Medium medium_;
    SampleStore& store_;
    StreamConfig config_;
    std::unique_ptr<stream::Depacketiser> depacketiser_;
    std::unique_ptr<PictureReader> reader_;
    // Whether the library packetised samples: each sync sample then has the configuration.
    bool is_from_samples_ = false;
    bool has_begun_ = false;
    uint64_t packets_left_out_ = 0;

    bool has_picture_ = false;
    bool has_marker_ = false;  // the last packet
    uint32_t time_ = 0;
    std::vector<uint8_t> picture_;
    std::optional<size_t> unit_;  // H.264: where the last unit's length stands
    std::vector<Packet> packets_;
    std::span<const uint8_t> payload_;  // of the current packet
    HintPackets recorded_;
    AuHeaders au_headers_;
};

}  // namespace kestrel::packer

#endif
