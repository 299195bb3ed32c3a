// SPDX-License-Identifier: Apache-2.0
// An RTP hint sample to be written (ISO/IEC 14496-12, 9.1.3).
#ifndef KESTREL_BOXES_HINT_SAMPLE_H
#define KESTREL_BOXES_HINT_SAMPLE_H

#include <array>
#include <cstdint>
#include <span>
#include <vector>

namespace Qvox3gp {

// A constructor of a packet: 16 bytes. The first byte is the kind.
struct HintConstructor {
    std::array<uint8_t, 16> raw{};

    // Puts `data`, at most 14 bytes, into the packet.
    static HintConstructor immediate(std::span<const uint8_t> data);
    // Puts `length` bytes from `offset` in sample `number` (from 1) of the track that the hint
    // track refers to (0), or of the hint track itself (-1).
    static HintConstructor sample(int8_t track, uint16_t length, uint32_t number, uint32_t offset);

    static void fields(auto& f, auto& self);
};

struct HintPacket {
    uint32_t relative_time = 0;  // media ticks
    uint16_t rtp_header = 0;     // P 0x2000, X 0x1000, M 0x0080, payload type 0x007F
    uint16_t sequence_seed = 0;
    uint16_t flags = 0;
    std::vector<HintConstructor> constructors;

    static void fields(auto& f, auto& self);
};

class CHintSample {
  public:
    std::vector<HintPacket> packets;

    std::vector<uint8_t> bytes() const;

    static void fields(auto& f, auto& self);
};

}  // namespace Qvox3gp

#endif
