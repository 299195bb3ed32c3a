// SPDX-License-Identifier: Apache-2.0
// RTP packets from hint tracks.
#ifndef KESTREL_ISOFF_RTP_PACKETS_H
#define KESTREL_ISOFF_RTP_PACKETS_H

#include "interface/src/isoff/record/record.h"

namespace kestrel {

// The hint track that isoFFrtpHinter last attached to `media`, its cursor left alone; null without
// one that has samples. It is looked up once: a file may have any number of tracks.
iso_track* attached_hint_track(const iso_track* media);

}  // namespace kestrel

#endif
