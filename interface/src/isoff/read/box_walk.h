// SPDX-License-Identifier: Apache-2.0
// The walk over boxes, and the handlers of the boxes.
#ifndef KESTREL_ISOFF_BOX_WALK_H
#define KESTREL_ISOFF_BOX_WALK_H

#include "interface/src/isoff/read/box_reader.h"

namespace kestrel {

struct isobox {
    const char* type;  // four characters; null ends a table
    // Reads the body; the walk skips the rest of it. Returns 0 to continue, 1 to end the walk with
    // success; any other value ends the walk with that value.
    int (*handler)(BoxReader& box);
};

// Returns the entry of a type; null for none.
const isobox* find_box(const isobox* table, uint32_t type);

// Walks `size` bytes and calls the handlers of `table`. A size of 0 is all of the input.
int parse(iso_file* file, const isobox* table, uint32_t size);

// Walks the rest of a box inside `moov`.
int parse_rest(BoxReader& box, const isobox* table);

// The handler of a box that is not read.
int skip_body(BoxReader& box);

// Counts and reports a track that got no record, or whose media was not read.
void lose_track(iso_file* file, const char* why);

// Walks the whole file. isoFFopen ignores the result.
int read_header(iso_file* file);

// Reads a sample entry into a track that has none: its codec, if known, and decoder configuration.
// The entry must outlive the file. Returns false for a malformed entry.
bool read_sample_entry(iso_track* track, std::span<uint8_t> box);

// Handlers that other files use.

int read_movie(BoxReader& box);  // the body of `moov`, in memory
int read_stsd(BoxReader& box);

int read_stts(BoxReader& box);
int read_ctts(BoxReader& box);
int read_stsc(BoxReader& box);
int read_stsz(BoxReader& box);
int read_stco(BoxReader& box);
int read_stss(BoxReader& box);
int read_sbgp(BoxReader& box);
int read_sgpd(BoxReader& box);

int read_damr(BoxReader& box);
int read_dawp(BoxReader& box);
int read_d263(BoxReader& box);
int read_esds(BoxReader& box);
int read_avcC(BoxReader& box);

}  // namespace kestrel

#endif
