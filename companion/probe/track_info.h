// SPDX-License-Identifier: Apache-2.0
// The tracks of a file as kestrel/probe.h describes them.
#ifndef KESTREL_COMPANION_PROBE_TRACK_INFO_H
#define KESTREL_COMPANION_PROBE_TRACK_INFO_H

#include <string>
#include <vector>

#include "companion/probe/file_facts.h"
#include "kestrel/probe.h"

namespace kestrel::probe {

// A track of the reader.
kst_probe_track describe_track(const FileFacts& facts, const iso_track* track);

// Those of the reader, then those that only the importer finds.
std::vector<kst_probe_track> describe_tracks(const FileFacts& facts);

// "eng" of a packed ISO 639-2/T code; "und" for one that is none.
std::string language_text(uint32_t packed);

}  // namespace kestrel::probe

#endif
