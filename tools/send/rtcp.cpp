// SPDX-License-Identifier: Apache-2.0
#include "tools/send/rtcp.h"

#include <algorithm>
#include <span>

#include "common/bytes.h"
#include "native/codec/rtp_header.h"

namespace tool {
namespace {

enum PacketType : uint8_t { kSenderReport = 200, kDescription = 202, kBye = 203 };

constexpr size_t kWord = 4;  // bytes; lengths are in words

using Bytes = std::vector<uint8_t>;

void put32(Bytes& to, uint32_t number) {
    kestrel::append_be(to, number, kWord);
}

// Appends a packet that has `count` sources or reports.
void add_packet(Bytes& to, PacketType type, uint8_t count, std::span<const uint8_t> body) {
    const auto words = static_cast<uint32_t>(body.size() / kWord);
    put32(to, kestrel::kRtpVersion2 | uint32_t{count} << 24 | uint32_t{type} << 16 | words);
    kestrel::append(to, body);
}

Bytes report_body(const SenderReport& report) {
    Bytes body;
    put32(body, report.ssrc);
    kestrel::append_be(body, report.ntp_time, 2 * kWord);
    put32(body, report.rtp_time);
    put32(body, report.packets);
    put32(body, report.octets);
    return body;
}

// One source with one item. Zeros end the items and fill the last word.
Bytes description_body(uint32_t ssrc, const std::string& canonical_name) {
    constexpr uint8_t kCanonicalName = 1;
    constexpr size_t kLongest = 255;
    const size_t length = std::min(canonical_name.size(), kLongest);
    Bytes body;
    put32(body, ssrc);
    body.push_back(kCanonicalName);
    body.push_back(static_cast<uint8_t>(length));
    body.insert(body.end(), canonical_name.begin(),
                canonical_name.begin() + static_cast<std::ptrdiff_t>(length));
    body.resize(body.size() / kWord * kWord + kWord);
    return body;
}

}  // namespace

Bytes make_rtcp(const SenderReport& report, const std::string& canonical_name, Leaving leaving) {
    Bytes packet;
    add_packet(packet, kSenderReport, 0, report_body(report));
    add_packet(packet, kDescription, 1, description_body(report.ssrc, canonical_name));
    if (leaving == Leaving::kYes) {
        Bytes body;
        put32(body, report.ssrc);
        add_packet(packet, kBye, 1, body);
    }
    return packet;
}

}  // namespace tool
