// SPDX-License-Identifier: Apache-2.0
// Sound whose tables count units smaller than a sample: the numbers of PCM, and in QuickTime the
// uncompressed numbers of a codec with packets of one size.
#include <algorithm>

#include "companion/importer/chunks.h"
#include "companion/importer/parts.h"

namespace kestrel::importer {

namespace {

// What the tables declare about all units.
struct UnitTables {
    std::uint32_t size = 0;  // 0 where they differ
    std::uint32_t count = 0;
    std::uint32_t duration = 0;
    bool same_duration = false;
};

bool read_unit_sizes(Import& import, const Box& box, UnitTables& units) {
    BoxReader reader(import.source, box);
    const VersionAndFlags head(reader);
    units.size = reader.u32();
    units.count = reader.u32();
    return import.whole(reader, box);
}

bool read_unit_times(Import& import, const Box& box, UnitTables& units) {
    BoxReader reader(import.source, box);
    const VersionAndFlags head(reader);
    const std::uint32_t runs = reader.u32();
    std::uint64_t covered = 0;
    bool same = true;
    for (std::uint32_t i = 0; i < runs && !reader.failed(); ++i) {
        covered += reader.u32();
        const std::uint32_t duration = reader.u32();
        same &= i == 0 || duration == units.duration;
        units.duration = duration;
    }
    units.same_duration = same && covered == units.count;
    return import.whole(reader, box);
}

// Calls visit(chunk) for the chunks of all units, until it returns false.
template <typename Visit>
bool each_chunk(Import& import, const SampleTables& tables, ChunkWalk& walk, std::uint32_t units,
                Visit visit) {
    walk.rewind();
    for (Chunk chunk; units > 0 && walk.next(chunk);) {
        chunk.samples = std::min(chunk.samples, units);
        units -= chunk.samples;
        if (!visit(chunk)) return true;
    }
    return units == 0 || import.fail(*tables.chunks, "has no place for all samples");
}

}  // namespace

bool find_sound_units(Import& import, const SampleTables& tables, const Track& track,
                      const TrackImport& state, SoundUnits& units) {
    const SoundPacking& packing = state.packing;
    if (packing.units <= 1 || !tables.sizes || !tables.times ||
        tables.sizes->type != fourcc("stsz") || track.descriptions.size() != 1) {
        return true;
    }
    UnitTables found;
    if (!read_unit_sizes(import, *tables.sizes, found) ||
        !read_unit_times(import, *tables.times, found)) {
        return false;
    }
    // QuickTime declares 1 for the size of a unit, whatever it is.
    const bool of_one = import.movie.quicktime && found.size == 1;
    const bool plain = packing.unit_bytes > 0 && packing.unit_bytes == found.size;
    if (!of_one && !plain) return true;
    if (found.same_duration) {
        units = {found.count, found.duration};
        return true;
    }
    return plain || import.fail(*tables.times, "has no one duration for the units of sound");
}

bool read_sound_units(Import& import, const SampleTables& tables, const SoundUnits& units,
                      Track& track, TrackImport& state) {
    const SoundPacking packing = state.packing;
    ChunkWalk walk(import, tables);
    if (!walk.open(track, state)) return false;
    std::uint64_t packets = 0;
    const auto count = [&](const Chunk& chunk) {
        packets += (std::uint64_t{chunk.samples} + packing.units - 1) / packing.units;
        return true;
    };
    if (!each_chunk(import, tables, walk, units.count, count)) return false;
    const std::uint32_t least = packing.unit_bytes > 0 ? packing.unit_bytes : packing.bytes;
    const auto claimed = import.claim_samples(*tables.sizes, packets, least);
    if (!claimed) return false;
    state.declared = packets;
    track.samples.reserve(*claimed);
    return each_chunk(import, tables, walk, units.count, [&](Chunk chunk) {
        while (chunk.samples > 0 && track.samples.size() < *claimed) {
            const std::uint32_t in_packet = std::min(chunk.samples, packing.units);
            Sample sample;
            sample.offset = chunk.offset;
            sample.size = packing.unit_bytes > 0 ? in_packet * packing.unit_bytes : packing.bytes;
            const std::uint64_t duration = std::uint64_t{in_packet} * units.duration;
            sample.duration =
                static_cast<std::uint32_t>(std::min<std::uint64_t>(duration, UINT32_MAX));
            sample.description = chunk.description & kDescriptionBits;
            chunk.samples -= in_packet;
            chunk.offset += sample.size;
            track.samples.push_back(sample);
        }
        return track.samples.size() < *claimed;
    });
}

}  // namespace kestrel::importer
