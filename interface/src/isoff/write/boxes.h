// SPDX-License-Identifier: Apache-2.0
// The box writers.
#ifndef KESTREL_ISOFF_WRITE_BOXES_H
#define KESTREL_ISOFF_WRITE_BOXES_H

#include <span>

#include "interface/src/isoff/record/record.h"

namespace kestrel {

// Takes the pass of a box writer: measure, then write.
enum Pass { kCountPass = 0, kWritePass = 1 };

// Box writers. Each puts the box that the record describes at the start of `to` (with kCountPass,
// nothing) and returns the bytes that the box occupies. Bytes that `to` has no room for are counted
// only.
uint64_t write_ftyp(Pass pass, std::span<uint8_t> to, const iso_file* file);
uint64_t write_moov(Pass pass, std::span<uint8_t> to, iso_file* file);
uint64_t write_stbl(Pass pass, std::span<uint8_t> to, iso_track* track);
uint64_t write_stsd(Pass pass, std::span<uint8_t> to, const iso_track* track);
uint64_t write_stts(Pass pass, std::span<uint8_t> to, iso_track* track);
uint64_t write_ctts(Pass pass, std::span<uint8_t> to, iso_track* track);
uint64_t write_stsz(Pass pass, std::span<uint8_t> to, iso_track* track);
uint64_t write_stss(Pass pass, std::span<uint8_t> to, iso_track* track);
uint64_t write_sbgp(Pass pass, std::span<uint8_t> to, iso_track* track);

}  // namespace kestrel

#endif
