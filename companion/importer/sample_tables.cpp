// SPDX-License-Identifier: Apache-2.0
// stbl: reads the sample tables (ISO/IEC 14496-12, 8.6 to 8.9) in turn into the samples of the
// track.
#include <algorithm>
#include <map>

#include "companion/importer/chunks.h"
#include "companion/importer/parts.h"

namespace kestrel::importer {

namespace {

// Destination of the tables.
struct Target {
    Track& track;
    TrackImport& state;
};

bool make_samples(Import& import, const Box& box, std::uint64_t count, std::uint32_t size,
                  Target& to) {
    const auto claimed = import.claim_samples(box, count, size);
    if (!claimed) return false;
    to.state.declared = count;
    Sample sample;
    sample.size = size;
    to.track.samples.assign(*claimed, sample);
    return true;
}

bool read_plain_sizes(Import& import, const Box& box, Target& to) {
    constexpr std::uint32_t kBytes = 4;
    BoxReader reader(import.source, box);
    const VersionAndFlags head(reader);
    const std::uint32_t size = reader.u32();
    const std::uint32_t count = reader.u32();
    if (size == 0 && reader.left() / kBytes < count) reader.skip(UINT64_MAX);
    if (!import.whole(reader, box)) return false;
    if (!make_samples(import, box, count, size, to)) return false;
    if (size == 0) {
        for (Sample& sample : to.track.samples)
            sample.size = reader.u32();
    }
    return import.complete_table(reader, box);
}

bool read_compact_sizes(Import& import, const Box& box, Target& to) {
    BoxReader reader(import.source, box);
    const VersionAndFlags head(reader);
    reader.skip(3);  // reserved
    const std::uint32_t bits = reader.u8();
    const std::uint64_t count = reader.u32();
    if (!import.whole(reader, box)) return false;
    if (bits != 4 && bits != 8 && bits != 16) {
        return import.fail(box, "has sizes of " + std::to_string(bits) + " bits");
    }
    if ((count * bits + 7) / 8 > reader.left()) reader.skip(UINT64_MAX);
    if (!import.whole(reader, box) || !make_samples(import, box, count, 0, to)) return false;
    std::uint32_t pair = 0;
    bool second = false;
    for (Sample& sample : to.track.samples) {
        if (bits == 4) {
            if (!second) pair = reader.u8();
            sample.size = second ? pair & 0xF : pair >> 4;
            second = !second;
        } else {
            sample.size = bits == 8 ? reader.u8() : reader.u16();
        }
    }
    return import.complete(reader, box);
}

bool read_sizes(Import& import, const Box& box, Target& to) {
    return box.type == fourcc("stz2") ? read_compact_sizes(import, box, to)
                                      : read_plain_sizes(import, box, to);
}

// Reads a table of runs: a number of samples and their value. The runs must cover exactly the
// declared samples.
template <typename Apply>
bool read_runs(Import& import, const Box& box, BoxReader& reader, Target& to, Apply apply) {
    std::vector<Sample>& samples = to.track.samples;
    std::uint64_t covered = 0;
    for (std::uint32_t left = reader.u32(); left > 0 && !reader.failed(); --left) {
        const std::uint32_t count = reader.u32();
        const std::uint32_t value = reader.u32();
        const std::uint64_t end = std::min<std::uint64_t>(covered + count, samples.size());
        for (std::uint64_t i = covered; i < end; ++i)
            apply(samples[static_cast<std::size_t>(i)], value);
        covered += count;
    }
    if (!import.complete_table(reader, box)) return false;
    if (covered == to.state.declared) return true;
    return import.fail(box, "has entries for " + std::to_string(covered) +
                                (covered == 1 ? " sample" : " samples") +
                                ", but the table of sample sizes declares " +
                                std::to_string(to.state.declared));
}

bool read_times(Import& import, const Box& box, Target& to) {
    BoxReader reader(import.source, box);
    const VersionAndFlags head(reader);
    return read_runs(import, box, reader, to,
                     [](Sample& sample, std::uint32_t value) { sample.duration = value; });
}

// Negative offsets belong to version 1, but many files have them in version 0.
bool read_composition_offsets(Import& import, const Box& box, Target& to) {
    BoxReader reader(import.source, box);
    const VersionAndFlags head(reader);
    return read_runs(import, box, reader, to, [](Sample& sample, std::uint32_t value) {
        sample.composition_offset = static_cast<std::int32_t>(value);
    });
}

bool read_sync_samples(Import& import, const Box& box, Target& to) {
    BoxReader reader(import.source, box);
    const VersionAndFlags head(reader);
    std::vector<Sample>& samples = to.track.samples;
    for (Sample& sample : samples)
        sample.is_sync = 0;
    for (std::uint32_t left = reader.u32(); left > 0 && !reader.failed(); --left) {
        const std::uint32_t number = reader.u32();  // from 1
        if (reader.failed()) break;
        if (number == 0 || number > to.state.declared) {
            return import.fail(box, "names sample " + std::to_string(number) + " of " +
                                        std::to_string(to.state.declared));
        }
        if (number <= samples.size()) samples[number - 1].is_sync = 1;
    }
    return import.complete_table(reader, box);
}

// Places the samples in their chunks.
bool place_samples(Import& import, const SampleTables& tables, Target& to) {
    std::vector<Sample>& samples = to.track.samples;
    if (samples.empty()) return true;
    ChunkWalk walk(import, tables);
    if (!walk.open(to.track, to.state)) return false;
    std::size_t placed = 0, surplus = 0;
    for (Chunk chunk; placed < samples.size() && walk.next(chunk);) {
        const std::size_t left = samples.size() - placed;
        const std::size_t end = placed + std::min<std::size_t>(chunk.samples, left);
        surplus = placed + chunk.samples - end;
        for (; placed < end; ++placed) {
            samples[placed].offset = chunk.offset;
            samples[placed].description = chunk.description & kDescriptionBits;
            chunk.offset += samples[placed].size;
        }
    }
    if (placed < samples.size()) {
        return import.fail(*tables.chunks, "has no place for all samples");
    }
    // A further chunk means that samples were assigned to wrong chunks.
    Chunk further;
    const bool has_all = placed == to.state.declared;
    if (has_all && surplus > 0) {
        import.note("the last chunk of track " + std::to_string(to.track.id) + " has " +
                    std::to_string(surplus) + (surplus == 1 ? " sample" : " samples") +
                    " more (stsc) than have a size");
    }
    const bool has_further = has_all && walk.next(further) && further.samples > 0;
    return !has_further || import.fail(*tables.chunks, "has chunks that are left without samples");
}

// The boxes sgpd and sbgp (8.9), with their grouping type.
bool keep_group(Import& import, const Box& box, Track& track,
                std::map<std::pair<std::uint32_t, std::uint32_t>, std::size_t>& known) {
    BoxReader reader(import.source, box);
    const VersionAndFlags head(reader);
    const bool assigns = box.type == fourcc("sbgp");
    const std::uint32_t type = reader.u32();
    const std::uint32_t parameter = assigns && head.version == 1 ? reader.u32() : 0;
    if (!import.whole(reader, box)) return false;
    const auto [at, is_new] = known.try_emplace({type, parameter}, track.groups.size());
    if (is_new) track.groups.push_back({type, parameter, {}, {}});
    Group& group = track.groups[at->second];
    (assigns ? group.samples : group.descriptions) = whole_box(import.source, box);
    return import.source.error().empty() || import.fail({});
}

bool keep_groups(Import& import, const std::vector<Box>& boxes, Track& track) {
    std::map<std::pair<std::uint32_t, std::uint32_t>, std::size_t> known;
    for (const Box& box : boxes) {
        if (!keep_group(import, box, track, known)) return false;
    }
    return true;
}

bool has_entries(Import& import, const std::optional<Box>& table) {
    if (!table) return false;
    BoxReader reader(import.source, *table);
    const VersionAndFlags head(reader);
    return reader.u32() > 0;
}

// Reads an optional table.
bool read_table(Import& import, const std::optional<Box>& box, Target& to,
                bool (*read)(Import&, const Box&, Target&)) {
    return !box || read(import, *box, to);
}

}  // namespace

bool find_description(Import& import, const Box& box, std::uint32_t number, const Track& track,
                      const TrackImport& state, std::uint32_t& index) {
    if (number == 0 || number > state.entries.size()) {
        return import.fail(box, "names sample entry " + std::to_string(number) + " of " +
                                    std::to_string(state.entries.size()));
    }
    const TrackImport::Entry& entry = state.entries[number - 1];
    index = entry.description;
    const std::size_t reference = entry.data_reference;  // from 1
    if (reference == 0 || reference > state.media_is_here.size() ||
        state.media_is_here[reference - 1]) {
        return true;
    }
    return import.fail("track " + std::to_string(track.id) + " keeps its media in another file");
}

bool read_samples(Import& import, const SampleTables& tables, Track& track, TrackImport& state) {
    state.lacks_sizes = !tables.sizes;
    state.has_entries = has_entries(import, tables.times) || has_entries(import, tables.runs) ||
                        has_entries(import, tables.chunks);
    SoundUnits units;
    if (!find_sound_units(import, tables, track, state, units)) return false;
    Target to{track, state};
    const bool good = units.count > 0
                          ? read_sound_units(import, tables, units, track, state)
                          : read_table(import, tables.sizes, to, read_sizes) &&
                                read_table(import, tables.times, to, read_times) &&
                                read_table(import, tables.offsets, to, read_composition_offsets) &&
                                read_table(import, tables.sync, to, read_sync_samples) &&
                                place_samples(import, tables, to);
    if (!good || !keep_groups(import, tables.groups, track)) return false;
    if (state.declared > 0 && !tables.times) {
        return import.fail(*tables.sizes, "has samples for which there are no times (stts)");
    }
    track.samples_in_movie_box = static_cast<std::uint32_t>(track.samples.size());
    for (const Sample& sample : track.samples)
        state.end += sample.duration;
    state.next = state.end;
    return true;
}

}  // namespace kestrel::importer
