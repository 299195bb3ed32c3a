// SPDX-License-Identifier: Apache-2.0
// A capture of the packets of hint tracks.
#ifndef KESTREL_TOOLS_CAPTURE_H
#define KESTREL_TOOLS_CAPTURE_H

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tools/hint_packets.h"
#include "tools/pcap.h"
#include "tools/session_description.h"

namespace tool {

// Limit of the hint tracks in a capture: each has a packet in memory and a port.
inline constexpr size_t kMaxCapturedTracks = 64;

// Writes the packets of all tracks in the order of their times, and returns their number. The
// packets of a track keep their order, and no time is less than the one before. Returns nothing if
// the output would exceed `limit` bytes.
std::optional<uint64_t> write_capture(HintTracks& tracks, uint64_t limit, Output& output);

// Returns the destination of its packets.
SessionAddress capture_address();

}  // namespace tool

#endif
