// SPDX-License-Identifier: Apache-2.0
// The sample tables of a track.
#ifndef KESTREL_ISOFF_SAMPLE_TABLES_H
#define KESTREL_ISOFF_SAMPLE_TABLES_H

#include "interface/src/isoff/record/record.h"

namespace kestrel {

// Brings a track's tables into agreement when its `stbl` has been read: fills the chunk ends, sets
// the cursor to the first sample. 0, or -1 when the tables cannot be used.
int check_tables(iso_track* track);

}  // namespace kestrel

#endif
