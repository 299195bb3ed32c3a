// SPDX-License-Identifier: Apache-2.0
// The RTCP packets of a sender (RFC 3550, 6).
#ifndef KESTREL_TOOLS_SEND_RTCP_H
#define KESTREL_TOOLS_SEND_RTCP_H

#include <cstdint>
#include <string>
#include <vector>

namespace tool {

// The contents of a sender report.
struct SenderReport {
    uint32_t ssrc = 0;
    uint64_t ntp_time = 0;  // seconds since 1900, 32.32
    uint32_t rtp_time = 0;  // the same moment on the RTP clock
    uint32_t packets = 0;   // RTP packets sent so far
    uint32_t octets = 0;    // of their payloads
};

enum class Leaving { kNo, kYes };

// Makes a compound packet: the report, the canonical name and, for a sender that leaves, a BYE.
std::vector<uint8_t> make_rtcp(const SenderReport& report, const std::string& canonical_name,
                               Leaving leaving);

}  // namespace tool

#endif
