// SPDX-License-Identifier: Apache-2.0
// The sample tables of a track.
#ifndef KESTREL_ISOFF_SAMPLE_TABLES_H
#define KESTREL_ISOFF_SAMPLE_TABLES_H

#include "interface/src/isoff/record/record.h"

namespace kestrel {

// Checks a track's tables against each other when its `stbl` has been read: fills the chunk ends
// and moves the cursor to the first sample. Returns 0, or -1 when the tables cannot be used.
int check_tables(iso_track* track);

}  // namespace kestrel

#endif
