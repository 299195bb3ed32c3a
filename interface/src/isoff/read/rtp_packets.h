// SPDX-License-Identifier: Apache-2.0
// RTP packets from hint tracks.
#ifndef KESTREL_ISOFF_RTP_PACKETS_H
#define KESTREL_ISOFF_RTP_PACKETS_H

#include "interface/src/isoff/record/record.h"

namespace kestrel {

// Returns the hint track that isoFFrtpHinter last attached to `media`, without moving its cursor;
// null for none that has samples. The search is not repeated, because a file may have any number of
// tracks.
iso_track* attached_hint_track(const iso_track* media);

}  // namespace kestrel

#endif
