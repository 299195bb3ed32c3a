// SPDX-License-Identifier: Apache-2.0
// The walk over boxes, and the handlers that it calls.
#ifndef KESTREL_ISOFF_BOX_WALK_H
#define KESTREL_ISOFF_BOX_WALK_H

#include "interface/src/isoff/record/record.h"

namespace kestrel {

struct isobox {
    const char* type;  // four characters; null ends a table
    // Reads the body of `body` bytes. 0: go on; 1: end the walk successfully; any other value: end
    // it with that value.
    int (*handler)(iso_file* file, uint32_t body);
};

// Walks the boxes of `table` over `size` bytes. Inside `moov` a handler sees the bytes of its own
// box and no more, whatever the sizes in the file say.
int parse(iso_file* file, const isobox* table, int size);

// Walks what is left of the box at hand.
int parse_rest(iso_file* file, const isobox* table);

// Walks the whole file; its result is of no account to isoFFopen.
int read_header(iso_file* file);

// Reads a whole sample entry, which must outlive the file, into a track that has none: its codec,
// where that is a known one, and decoder configuration. False when the entry is damaged.
bool read_sample_entry(iso_track* track, std::span<uint8_t> box);

// Box handlers of other files.

int read_stts(iso_file* file, uint32_t body);
int read_ctts(iso_file* file, uint32_t body);
int read_stsc(iso_file* file, uint32_t body);
int read_stsz(iso_file* file, uint32_t body);
int read_stco(iso_file* file, uint32_t body);
int read_stss(iso_file* file, uint32_t body);
int read_sbgp(iso_file* file, uint32_t body);
int read_sgpd(iso_file* file, uint32_t body);

int read_damr(iso_file* file, uint32_t body);
int read_dawp(iso_file* file, uint32_t body);
int read_d263(iso_file* file, uint32_t body);
int read_esds(iso_file* file, uint32_t body);
int read_avcC(iso_file* file, uint32_t body);

}  // namespace kestrel

#endif
