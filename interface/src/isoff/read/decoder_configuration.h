// SPDX-License-Identifier: Apache-2.0
// Decoder configuration of a track.
#ifndef KESTREL_ISOFF_DECODER_CONFIGURATION_H
#define KESTREL_ISOFF_DECODER_CONFIGURATION_H

#include <span>

#include "interface/src/isoff/record/record.h"

namespace kestrel {

// Keeps a copy of decoder-specific information in the track; false when there is no memory.
bool keep_dsi(iso_track* track, std::span<const uint8_t> bytes);

}  // namespace kestrel

#endif
