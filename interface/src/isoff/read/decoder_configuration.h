// SPDX-License-Identifier: Apache-2.0
// Decoder configuration of a track.
#ifndef KESTREL_ISOFF_DECODER_CONFIGURATION_H
#define KESTREL_ISOFF_DECODER_CONFIGURATION_H

#include <span>

#include "interface/src/isoff/record/record.h"

namespace kestrel {

// Copies decoder-specific information into the track. Returns false without memory.
bool keep_dsi(iso_track* track, std::span<const uint8_t> bytes);

}  // namespace kestrel

#endif
