// SPDX-License-Identifier: Apache-2.0
#include "companion/hinter/packet_plan.h"

namespace kestrel::hinter {
namespace {

// Maps signed numbers to unsigned ones so that small numbers stay small.
uint32_t without_sign(int32_t number) {
    const auto bits = static_cast<uint32_t>(number);
    return number < 0 ? ~(bits << 1) : bits << 1;
}

int32_t with_sign(uint32_t number) {
    return static_cast<int32_t>((number & 1) != 0 ? ~(number >> 1) : number >> 1);
}

}  // namespace

void PacketPlan::put(uint32_t number) {
    constexpr uint32_t kGroup = 0x7F;
    for (; number > kGroup; number >>= 7)
        blocks_.back().push_back(static_cast<uint8_t>(number | 0x80));
    blocks_.back().push_back(static_cast<uint8_t>(number));
}

uint32_t PacketPlan::get() {
    uint32_t number = 0;
    for (unsigned shift = 0;; shift += 7) {
        const uint8_t byte = blocks_[block_][at_++];
        number |= static_cast<uint32_t>(byte & 0x7F) << shift;
        if ((byte & 0x80) == 0) return number;
    }
}

std::span<const uint8_t> PacketPlan::get_bytes(size_t count) {
    at_ += count;
    return std::span(blocks_[block_]).subspan(at_ - count, count);
}

void PacketPlan::put_packet(const HintPacket& packet) {
    put(static_cast<uint32_t>(packet.own.size()) << 1 | (packet.marker ? 1 : 0));
    blocks_.back().insert(blocks_.back().end(), packet.own.begin(), packet.own.end());
    put(without_sign(packet.time_offset));
    put(static_cast<uint32_t>(packet.ranges.size()));
    for (const SampleRange& range : packet.ranges) {
        put(range.offset);
        put(range.length << 1 | (range.sample != 0 ? 1 : 0));
        if (range.sample != 0) put(range.sample);
    }
}

void PacketPlan::get_packet(HintPackets& packets) {
    const uint32_t own_and_marker = get();
    const std::span<const uint8_t> own = get_bytes(own_and_marker >> 1);
    packets.begin_packet(with_sign(get()));
    if ((own_and_marker & 1) != 0) packets.set_marker();
    packets.add_own(own);
    for (uint32_t left = get(); left > 0; --left) {
        const uint32_t offset = get();
        const uint32_t length_and_sample = get();
        const uint32_t sample = (length_and_sample & 1) != 0 ? get() : 0;
        packets.add_range(offset, length_and_sample >> 1, sample);
    }
}

void PacketPlan::add(const HintPackets& packets) {
    constexpr size_t kUsual = 1024;  // bytes that a sample's packets rarely exceed
    if (blocks_.empty() || blocks_.back().size() + kUsual > kBlock) {
        const bool is_first = blocks_.empty();  // of a short track it may be all
        blocks_.emplace_back().reserve(is_first ? 0 : kBlock);
    }
    put(static_cast<uint32_t>(packets.size()));
    for (size_t i = 0; i < packets.size(); ++i)
        put_packet(packets[i]);
}

void PacketPlan::take(HintPackets& packets) {
    packets.clear();
    if (at_ == blocks_[block_].size()) {
        ++block_;
        at_ = 0;
    }
    for (uint32_t left = get(); left > 0; --left)
        get_packet(packets);
}

}  // namespace kestrel::hinter
