// SPDX-License-Identifier: Apache-2.0
// The packets that the native packetisers write.
#ifndef KESTREL_TESTS_NATIVE_PACKETS_H
#define KESTREL_TESTS_NATIVE_PACKETS_H

#include <cstring>
#include <vector>

#include "kestrel/native_records.h"
#include "tests/support/files.h"

struct Packet {
    uint32_t time;
    uint32_t marker, type, seq;
    Bytes payload;
};

// Those after each other in the first `length` bytes.
inline std::vector<Packet> packets_of(const Bytes& out, int length) {
    std::vector<Packet> packets;
    for (size_t at = 0; at < static_cast<size_t>(length);) {
        kestrel::TEL_Packet_Header header;
        std::memcpy(&header, &out[at], sizeof header);
        const auto begin = out.begin() + static_cast<long>(at);
        packets.push_back({header.time, header.rtp_word >> 23 & 1, header.rtp_word >> 16 & 0x7F,
                           header.rtp_word & 0xFFFF,
                           Bytes(begin + 20, begin + header.packet_length)});
        at += header.packet_length;
    }
    return packets;
}

#endif
