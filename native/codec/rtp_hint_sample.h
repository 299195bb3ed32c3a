// SPDX-License-Identifier: Apache-2.0
// The layout of an RTP hint sample (ISO/IEC 14496-12, 9.1.3): a header, then packet entries, each
// followed by its constructors. All values are big-endian.
//
// The readers of hint samples have different rules for a constructor that names bytes outside its
// sample and for a sample description constructor. Each keeps its own rules.
#ifndef KESTREL_CODEC_RTP_HINT_SAMPLE_H
#define KESTREL_CODEC_RTP_HINT_SAMPLE_H

#include <algorithm>
#include <cstdint>
#include <span>

#include "native/codec/rtp_header.h"

namespace kestrel {

inline constexpr uint32_t kHintHeaderSize = 4;  // packet count, reserved
inline constexpr uint32_t kPacketEntrySize = 12;
inline constexpr uint32_t kConstructorSize = 16;

// Flags of a packet entry: it repeats an earlier packet; a length, which counts its own 4 bytes,
// and extra information follow.
inline constexpr uint32_t kRepeatedPacket = 1;
inline constexpr uint32_t kExtraInformation = 4;
inline constexpr uint32_t kExtraLengthSize = 4;

enum ConstructorType : uint8_t {
    kNoopConstructor = 0,
    kImmediateConstructor = 1,
    kSampleConstructor = 2,
    kDescriptionConstructor = 3
};

inline constexpr uint8_t kMaxImmediate = 14;  // bytes in an immediate constructor

// Track references of a constructor. Any other value is read as the hinted track.
inline constexpr uint8_t kHintTrackItself = 255;
inline constexpr uint8_t kHintedTrack = 0;

struct PacketEntry {
    int32_t relative_time;
    uint16_t rtp_header;  // the first half word of an RTP header, without the version
    uint16_t sequence;
    uint16_t flags;
    uint16_t constructors;

    bool has_extra_information() const { return (flags & kExtraInformation) != 0; }
    bool is_repeated() const { return (flags & kRepeatedPacket) != 0; }
};

// From kPacketEntrySize bytes.
constexpr PacketEntry load_packet_entry(const uint8_t* raw) {
    return {static_cast<int32_t>(load_be32(raw)), load_be16(raw + 4), load_be16(raw + 6),
            load_be16(raw + 8), load_be16(raw + 10)};
}

struct SampleConstructor {
    uint8_t track_reference;
    uint16_t length;
    uint32_t sample_number;  // from 1
    uint32_t sample_offset;
    uint16_t bytes_per_block = 1;
    uint16_t samples_per_block = 1;
};

// From the kConstructorSize bytes of a sample constructor or sample description constructor.
constexpr SampleConstructor load_sample_constructor(const uint8_t* raw) {
    return {raw[1],
            load_be16(raw + 2),
            load_be32(raw + 4),
            load_be32(raw + 8),
            load_be16(raw + 12),
            load_be16(raw + 14)};
}

// Into kConstructorSize bytes, with zeros after `data`, which has at most kMaxImmediate bytes.
inline void store_immediate_constructor(uint8_t* raw, std::span<const uint8_t> data) {
    raw[0] = kImmediateConstructor;
    raw[1] = static_cast<uint8_t>(data.size());
    const auto end = std::copy(data.begin(), data.end(), raw + 2);
    std::fill(end, raw + kConstructorSize, uint8_t{0});
}

// Into kConstructorSize bytes.
inline void store_sample_constructor(uint8_t* raw, const SampleConstructor& from) {
    raw[0] = kSampleConstructor;
    raw[1] = from.track_reference;
    store_be16(raw + 2, from.length);
    store_be32(raw + 4, from.sample_number);
    store_be32(raw + 8, from.sample_offset);
    store_be16(raw + 12, from.bytes_per_block);
    store_be16(raw + 14, from.samples_per_block);
}

}  // namespace kestrel

#endif
