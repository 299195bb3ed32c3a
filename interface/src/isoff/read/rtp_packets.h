// RTP packets from hint tracks.
#ifndef KESTREL_ISOFF_RTP_PACKETS_H
#define KESTREL_ISOFF_RTP_PACKETS_H

#include "interface/src/isoff/record/record.h"

namespace kestrel {

// The hint track of `media` that isoFFrtpHinter attached with this packet limit, its cursor left
// alone; null without one that has packets.
iso_track* attached_hint_track(const iso_track* media, int max_packet);

}  // namespace kestrel

#endif
