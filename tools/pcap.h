// SPDX-License-Identifier: Apache-2.0
// A capture file of RTP packets, as a network analyser opens it.
#ifndef KESTREL_TOOLS_PCAP_H
#define KESTREL_TOOLS_PCAP_H

#include <span>
#include <string>

#include "tools/support.h"

namespace tool {

// Addresses in the capture (RFC 5737 reserves these for documentation).
inline constexpr const char* kCaptureAddress = "192.0.2.2";
inline constexpr uint16_t kFirstCapturePort = 5004;

// Writes RTP packets as UDP over IPv4 into a capture of link type raw IP.
class PcapWriter {
  public:
    explicit PcapWriter(Output& output);

    // Bytes that a packet takes in the capture.
    static size_t size_of(std::span<const uint8_t> rtp);

    // `seconds` is the time stamp of the packet.
    void packet(std::span<const uint8_t> rtp, uint16_t port, double seconds);

  private:
    Output& output_;
};

}  // namespace tool

#endif
