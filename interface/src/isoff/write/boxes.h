// SPDX-License-Identifier: Apache-2.0
// The box writers. Each puts the box of a record and returns its size, 0 for none. `out` carries
// the pass and the destination.
#ifndef KESTREL_ISOFF_WRITE_BOXES_H
#define KESTREL_ISOFF_WRITE_BOXES_H

#include "interface/src/isoff/write/box_writer.h"

namespace kestrel {

uint64_t write_ftyp(BoxWriter& out, const iso_file* file);
uint64_t write_moov(BoxWriter& out, iso_file* file);
uint64_t write_stbl(BoxWriter& out, iso_track* track);
uint64_t write_stsd(BoxWriter& out, const iso_track* track);
uint64_t write_stts(BoxWriter& out, iso_track* track);
uint64_t write_ctts(BoxWriter& out, iso_track* track);
uint64_t write_stsz(BoxWriter& out, iso_track* track);
uint64_t write_stss(BoxWriter& out, iso_track* track);
uint64_t write_sbgp(BoxWriter& out, iso_track* track);

// The bytes of a box, measured in the count pass.
template <typename Writer, typename Record>
uint64_t measure(Writer write, Record* record) {
    BoxWriter out;
    return write(out, record);
}

}  // namespace kestrel

#endif
