// SPDX-License-Identifier: Apache-2.0
// The walk over boxes, and the handlers that it calls.
#ifndef KESTREL_ISOFF_BOX_WALK_H
#define KESTREL_ISOFF_BOX_WALK_H

#include "interface/src/isoff/read/box_reader.h"

namespace kestrel {

struct isobox {
    const char* type;  // four characters; null ends a table
    // Reads the body. 0: go on; 1: end the walk successfully; any other value: end it with that
    // value. What it does not take is passed over.
    int (*handler)(BoxReader& box);
};

// Walks the boxes of `table` over `size` bytes; with a size of 0, to the end of the input.
int parse(iso_file* file, const isobox* table, uint32_t size);

// Walks what is left of a box inside `moov`.
int parse_rest(BoxReader& box, const isobox* table);

// A handler for a box whose body is of no interest.
int skip_body(BoxReader& box);

// Counts and reports a track of the file that no record is made of, or one without its media.
void lose_track(iso_file* file, const char* why);

// Walks the whole file; its result is of no account to isoFFopen.
int read_header(iso_file* file);

// Reads a whole sample entry, which must outlive the file, into a track that has none: its codec,
// where that is a known one, and decoder configuration. False when the entry is damaged.
bool read_sample_entry(iso_track* track, std::span<uint8_t> box);

// The handlers that other files call.

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
