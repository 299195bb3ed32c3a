// SPDX-License-Identifier: Apache-2.0
// RTP packets from hint tracks.
#ifndef KESTREL_ISOFF_RTP_PACKETS_H
#define KESTREL_ISOFF_RTP_PACKETS_H

#include "interface/src/isoff/record/record.h"

namespace kestrel {

// iso_track::seq_rebase: whether the sequence numbers continue those of parameter sets.
enum SeqRebase : uint32_t { kNoRebase = 0, kRebaseNext = 1, kRebased = 2 };

// Returns the hint track that isoFFrtpHinter last attached to `media`, without moving its cursor;
// null for none that has samples. The search is not repeated, because a file may have any number of
// tracks.
iso_track* attached_hint_track(const iso_track* media);

// Where a packet stopped because it could not be read on. Zero: before a packet.
struct PacketPause {
    uint32_t constructors;         // that are still to run; 0: the packet was not begun
    uint32_t length;               // bytes of the packet that were built
    uint32_t empty;                // hint samples without packets that were skipped before it
    const iso_track* copied_from;  // of the last sample constructor
    uint32_t copied_offset;
};

// Builds the next packet as isoFFrtpPacket does. After a failure the next call continues where this
// one stopped: pass it the same `pause`, and in `buffer` the bytes that were built.
int next_rtp_packet(iso_track* hint, void* buffer, PacketPause& pause);

}  // namespace kestrel

#endif
