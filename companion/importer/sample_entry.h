// SPDX-License-Identifier: Apache-2.0
// A sample entry (ISO/IEC 14496-12, 8.5.2 and 12; QuickTime).
#ifndef KESTREL_COMPANION_IMPORTER_SAMPLE_ENTRY_H
#define KESTREL_COMPANION_IMPORTER_SAMPLE_ENTRY_H

#include <algorithm>
#include <cstdint>
#include <iterator>

#include "companion/importer/import.h"

namespace kestrel::importer {

struct SampleEntry {
    Box box;
    std::uint16_t data_reference = 0;
    std::uint64_t children = 0;  // their offset; the end of the entry when unknown
    std::uint16_t width = 0, height = 0;
    bool is_visual = false;
    bool quicktime_sound = false;  // of version 1 or 2, or with a `wave`
    std::uint32_t channels = 0, sample_bits = 0, sample_rate = 0;  // of sound; the rate is 16.16
    SoundPacking packing;
};

// sample_entry.cpp: reads the entry in `box`. `quicktime_versions` means that the version of a
// sound entry is a QuickTime version.
bool read_entry(Import& import, const Box& box, std::uint32_t handler, bool quicktime_versions,
                SampleEntry& entry);
bool is_encrypted(Source& source, const SampleEntry& entry);
// Whether the type of an entry says that it is encrypted: `encv`, `drms` and so on.
bool is_protected_type(std::uint32_t type);

// The handler of tracks with an entry of the type. `declared` is that of the file, which only some
// types contradict.
std::uint32_t handler_of(std::uint32_t entry, std::uint32_t declared);

// iso_entry.cpp: whether an entry of the type may get that of another: `h263`, `avc3`.
bool is_rewritten_type(std::uint32_t type);
// The entry in its ISO form if it has one.
Description iso_description(const Import& import, const SampleEntry& entry);

// entry_configuration.cpp: a key that is equal for two entries whose samples are decoded and shown
// in the same way.
Bytes configuration(Source& source, const SampleEntry& entry);

template <std::size_t kCount>
bool contains(const std::uint32_t (&types)[kCount], std::uint32_t type) {
    return std::find(std::begin(types), std::end(types), type) != std::end(types);
}

// Calls visit(child) for the boxes from `begin` to `end`. Returns false when other bytes end them,
// as in some entries.
template <typename Visit>
bool each_child(Source& source, std::uint64_t begin, std::uint64_t end, Visit visit) {
    BoxReader reader(source, begin, end);
    for (Box child; reader.next(child);)
        visit(child);
    return !reader.failed();
}

}  // namespace kestrel::importer

#endif
