// SPDX-License-Identifier: Apache-2.0
// Planning how the bytes of a media sample are put into RTP packets, and making the hint sample
// that describes the packets.
#ifndef KESTREL_INTERFACE_HINT_PACKETS_H
#define KESTREL_INTERFACE_HINT_PACKETS_H

#include <cstdint>
#include <span>
#include <vector>

#include "native/codec/rtp_hint_sample.h"
#include "native/codec/video_packets.h"

namespace kestrel {

// Bytes of a media sample.
struct SampleRange {
    uint32_t offset;
    uint32_t length;
    uint32_t sample = 0;  // counted from the first one of the hint sample
};

// A packet: bytes of its own, which the hint sample holds, then ranges of the media sample.
struct HintPacket {
    bool marker = false;
    int32_t time_offset = 0;  // of its timestamp from that of the hint sample, RTP units
    std::span<const uint8_t> own;
    std::span<const SampleRange> ranges;

    size_t size() const;  // RTP header included
};

// A hint sample counts its packets in 16 bits. Planning stops after more.
inline constexpr size_t kMaxHintPackets = UINT16_MAX;

// The packets of a media sample, in order. clear() keeps the memory.
class HintPackets {
  public:
    size_t size() const { return packets_.size(); }
    bool empty() const { return packets_.empty(); }
    HintPacket operator[](size_t packet) const;

    void clear();
    void begin_packet(int32_t time_offset = 0);
    // Add to the last packet: its own bytes first, then its ranges.
    void add_own(std::span<const uint8_t> bytes);
    void add_range(size_t offset, size_t length, uint32_t sample = 0);
    void set_marker() { packets_.back().marker = true; }
    // Moves the timestamps of all packets. Returns false when one does not fit in 32 bits.
    bool move_times(int64_t offset);

  private:
    struct Record {
        bool marker;
        int32_t time_offset;
        size_t first_own, first_range;  // where those of the packet begin
    };
    std::vector<Record> packets_;
    std::vector<uint8_t> own_;
    std::vector<SampleRange> ranges_;
};

// Each splits a sample into packets of at most `max_packet` bytes and adds them to `packets`.
// Returns false when the sample cannot be split.

// RFC 4867, octet-aligned: the frames of the storage format, `frame_time` RTP units each.
bool packets_of_speech(std::span<const uint8_t> sample, bool wide_band, size_t max_packet,
                       uint32_t frame_time, HintPackets& packets);

// RFC 2190 and RFC 4629, and RFC 6416 (plain). `source_format` is kept between H.263 pictures.
bool packets_of_picture(std::span<const uint8_t> sample, VideoPayload kind, size_t max_packet,
                        uint32_t& source_format, HintPackets& packets);

// RFC 6184: single NAL units, and FU-A for those that are longer than a packet.
bool packets_of_units(std::span<const uint8_t> sample, int length_size, size_t max_packet,
                      HintPackets& packets);

// Facts that all packets of a hint sample share.
struct HintSampleFacts {
    uint8_t payload_type;
    uint16_t sequence;      // of the first packet
    uint32_t media_sample;  // the first one; counts from 1
};

// Makes the hint sample (ISO/IEC 14496-12, 9.1.3) of the packets in `sample`. Returns false when it
// cannot hold them.
bool make_hint_sample(const HintPackets& packets, const HintSampleFacts& facts,
                      std::vector<uint8_t>& sample);

}  // namespace kestrel

#endif
