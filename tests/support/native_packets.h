// SPDX-License-Identifier: Apache-2.0
// The packets that the native packetisers write, and what native streams carry.
#ifndef KESTREL_TESTS_NATIVE_PACKETS_H
#define KESTREL_TESTS_NATIVE_PACKETS_H

#include <cstring>
#include <memory>
#include <vector>

#include "kestrel/native_records.h"
#include "native/stream/depacketise.h"
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

// The payloads of a stream, and the media that they join to.
struct NativeContents final : kestrel::stream::RecordSink {
    explicit NativeContents(const Bytes& stream) { walk_native(stream, *this); }

    void header(const kestrel::stream::StreamHeader& header) override {
        joiner = kestrel::stream::make_depacketiser(
            header.medium, {},
            {[this](auto bytes) { media.insert(media.end(), bytes.begin(), bytes.end()); }});
    }
    void video_packet(const kestrel::stream::VideoPacket& packet) override {
        payloads.emplace_back(packet.payload.begin(), packet.payload.end());
        joiner->packet(packet.payload);
    }
    void speech_payload(std::span<const uint8_t> front) override {
        payloads.emplace_back(front.begin(), front.end());
    }
    void speech_frame(std::span<const uint8_t> frame) override {
        payloads.emplace_back(frame.begin(), frame.end());
    }

    std::vector<Bytes> payloads;
    Bytes media;
    std::unique_ptr<kestrel::stream::Depacketiser> joiner;
};

#endif
