// SPDX-License-Identifier: Apache-2.0
// The session description (RFC 8866) of hint tracks.
#ifndef KESTREL_TOOLS_SESSION_DESCRIPTION_H
#define KESTREL_TOOLS_SESSION_DESCRIPTION_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "tools/hint_packets.h"

namespace tool {

// The addresses of a session. Each track has two ports, RTP on the first.
struct SessionAddress {
    std::string origin;      // "IN IP4 192.0.2.1", of the sender
    std::string connection;  // the same, of the receiver
    uint16_t first_port = 0;
    uint64_t id = 0;  // of the session
};

// Returns the description of a session in which the tracks are sent to the address.
std::string describe_session(const std::string& name, const SessionAddress& address,
                             const HintTracks& tracks);

// Whether the text of the hint track describes its payload so that a receiver can decode it.
bool is_described(const iso_track* hint);
// Whether the RTP timescale of the hint track is that of its text, if this has one.
bool has_described_clock(const iso_track* hint);
// Whether it says at least which encoding the packets have.
bool says_encoding(const iso_track* hint);

}  // namespace tool

#endif
