// SPDX-License-Identifier: Apache-2.0
// The packets of all samples of a track, in a few bytes each, so that no sample is packetised
// twice.
#ifndef KESTREL_COMPANION_HINTER_PACKET_PLAN_H
#define KESTREL_COMPANION_HINTER_PACKET_PLAN_H

#include <cstdint>
#include <span>
#include <vector>

#include "interface/src/isoff/write/hint_sample_planner.h"

namespace kestrel::hinter {

// Stores the packets of samples in order, and returns them in the same order.
class PacketPlan {
  public:
    void add(const HintPackets& packets);
    // Returns the packets of the next sample. Call it once for each sample.
    void take(HintPackets& packets);
    // Begins again with the first sample.
    void rewind() { block_ = at_ = 0; }

  private:
    // Appends a number in groups of seven bits, the lowest first; the high bit of a byte is set
    // when more follow.
    void put(uint32_t number);
    uint32_t get();
    std::span<const uint8_t> get_bytes(size_t count);

    void put_packet(const HintPacket& packet);
    void get_packet(HintPackets& packets);

    static constexpr size_t kBlock = 64 << 10;

    std::vector<std::vector<uint8_t>> blocks_;  // a sample's packets are in one
    size_t block_ = 0, at_ = 0;                 // of the next sample
};

}  // namespace kestrel::hinter

#endif
