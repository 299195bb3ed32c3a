// SPDX-License-Identifier: Apache-2.0
#include "tools/pcap.h"

#include <array>
#include <cmath>
#include <cstring>

#include "common/bytes.h"
#include "common/clock.h"

namespace tool {
namespace {

using kestrel::store_be16;
using kestrel::store_be32;

constexpr uint32_t kMagic = 0xA1B2C3D4;
constexpr uint32_t kLongest = 65535;
constexpr uint32_t kRawIp = 101;
constexpr uint32_t kFromAddress = 0xC0000201;  // 192.0.2.1
constexpr uint32_t kToAddress = 0xC0000202;    // 192.0.2.2
constexpr size_t kIpHeader = 20;
constexpr size_t kUdpHeader = 8;
constexpr uint8_t kVersionAndLength = 0x45;  // IPv4, five words
constexpr uint8_t kTimeToLive = 64;
constexpr uint8_t kUdp = 17;

// The file and packet headers are in the byte order of the writing machine.
template <typename Record>
std::span<const uint8_t> raw(const Record& record) {
    return {reinterpret_cast<const uint8_t*>(&record), sizeof record};
}

struct FileHeader {
    uint32_t magic = kMagic;
    uint16_t major = 2, minor = 4;
    uint32_t zone = 0, accuracy = 0;
    uint32_t longest = kLongest;
    uint32_t link = kRawIp;
};

struct PacketHeader {
    uint32_t seconds, microseconds;
    uint32_t captured, length;
};

// RFC 1071, over an even number of bytes.
uint16_t checksum(std::span<const uint8_t> header) {
    uint32_t sum = 0;
    for (size_t i = 0; i < header.size(); i += 2)
        sum += kestrel::load_be16(&header[i]);
    while (sum > 0xFFFF)
        sum = (sum & 0xFFFF) + (sum >> 16);
    return static_cast<uint16_t>(~sum);
}

std::array<uint8_t, kIpHeader + kUdpHeader> headers(size_t rtp, uint16_t port) {
    std::array<uint8_t, kIpHeader + kUdpHeader> out{};
    out[0] = kVersionAndLength;
    store_be16(&out[2], static_cast<uint16_t>(out.size() + rtp));
    out[8] = kTimeToLive;
    out[9] = kUdp;
    store_be32(&out[12], kFromAddress);
    store_be32(&out[16], kToAddress);
    store_be16(&out[10], checksum(std::span(out).first(kIpHeader)));
    store_be16(&out[20], port);
    store_be16(&out[22], port);
    store_be16(&out[24], static_cast<uint16_t>(kUdpHeader + rtp));  // checksum 0: none
    return out;
}

}  // namespace

PcapWriter::PcapWriter(Output& output) : output_(output) {
    output_.write(raw(FileHeader{}));
}

size_t PcapWriter::size_of(std::span<const uint8_t> rtp) {
    return sizeof(PacketHeader) + kIpHeader + kUdpHeader + rtp.size();
}

void PcapWriter::packet(std::span<const uint8_t> rtp, uint16_t port, double seconds) {
    const auto udp = headers(rtp.size(), port);
    const double microseconds = std::floor(seconds * 1e6 + 0.5);
    const double whole = std::floor(microseconds / 1e6);
    const auto length = static_cast<uint32_t>(udp.size() + rtp.size());
    output_.write(
        raw(PacketHeader{kestrel::truncate_to_u32(whole),
                         static_cast<uint32_t>(microseconds - whole * 1e6), length, length}));
    output_.write(udp);
    output_.write(rtp);
}

}  // namespace tool
