// How the bytes of a media sample are laid out over RTP packets, and the hint sample that tells it.
#ifndef KESTREL_INTERFACE_HINT_PACKETS_H
#define KESTREL_INTERFACE_HINT_PACKETS_H

#include <cstdint>
#include <span>
#include <vector>

#include "native/codec/video_packets.h"

namespace kestrel {

inline constexpr size_t kRtpHeaderSize = 12;  // RFC 3550, 5.1

// A piece of a packet: bytes that the hint sample holds itself, or a range of the media sample.
struct PacketPart {
    std::vector<uint8_t> own;
    uint32_t offset = 0;
    uint32_t length = 0;  // 0 for own bytes

    size_t size() const { return own.size() + length; }
};

struct HintPacket {
    bool marker = false;
    int32_t time_offset = 0;  // of its timestamp from that of the hint sample, RTP units
    std::vector<PacketPart> parts;

    void add_own(std::span<const uint8_t> bytes);
    void add_range(size_t offset, size_t length);
    size_t size() const;  // RTP header included
};

using HintPackets = std::vector<HintPacket>;

// Each lays a sample out over packets of at most `max_packet` bytes; false when that cannot be.

// RFC 4867, octet-aligned: the frames of the storage format, `frame_time` RTP units each.
bool packets_of_speech(std::span<const uint8_t> sample, bool wide_band, size_t max_packet,
                       uint32_t frame_time, HintPackets& packets);

// RFC 2190 and RFC 4629, and RFC 6416 (plain). `source_format` is kept between H.263 pictures.
bool packets_of_picture(std::span<const uint8_t> sample, VideoPayload kind, size_t max_packet,
                        uint32_t& source_format, HintPackets& packets);

// RFC 6184: single NAL units, and FU-A for those that are longer than a packet.
bool packets_of_units(std::span<const uint8_t> sample, int length_size, size_t max_packet,
                      HintPackets& packets);

// What is the same for the packets of a hint sample.
struct HintSampleFacts {
    uint8_t payload_type;
    uint16_t sequence;      // of the first packet
    uint32_t media_sample;  // counts from 1
    int32_t time_offset;    // of the timestamps, RTP units
};

// The hint sample (ISO/IEC 14496-12, 9.1.3) of the packets; empty when it cannot hold them.
std::vector<uint8_t> make_hint_sample(const HintPackets& packets, const HintSampleFacts& facts);

}  // namespace kestrel

#endif
