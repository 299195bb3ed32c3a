// stbl: the sample tables (ISO/IEC 14496-12, 8.6 to 8.9), one after the other into the samples of
// the track.
#include <algorithm>
#include <map>

#include "companion/importer/parts.h"

namespace kestrel::importer {

namespace {

// What each table is read into.
struct Target {
    Track& track;
    TrackImport& state;
    // Units of sound that the tables count where packets of them are the samples, else 0.
    std::uint32_t sound_units = 0;
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

bool is_packed(const Import& import, const SoundPacking& packing, std::uint32_t size) {
    return import.movie.forms.quicktime && size == 1 && packing.bytes > 0 &&
           (packing.bytes > 1 || packing.units > 1);
}

bool read_plain_sizes(Import& import, const Box& box, Target& to) {
    constexpr std::uint32_t kBytes = 4;
    BoxReader reader(import.source, box);
    const VersionAndFlags head(reader);
    const std::uint32_t size = reader.u32();
    const std::uint32_t count = reader.u32();
    if (size == 0 && reader.left() / kBytes < count) reader.skip(UINT64_MAX);
    if (!import.whole(reader, box)) return false;
    if (is_packed(import, to.state.packing, size)) {
        to.sound_units = count;
        return true;
    }
    if (!make_samples(import, box, count, size, to)) return false;
    if (size == 0) {
        for (Sample& sample : to.track.samples)
            sample.size = reader.u32();
    }
    return import.whole(reader, box);
}

bool read_compact_sizes(Import& import, const Box& box, Target& to) {
    to.track.forms.compact_sizes = true;
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
    return import.whole(reader, box);
}

bool read_sizes(Import& import, const Box& box, Target& to) {
    return box.type == fourcc("stz2") ? read_compact_sizes(import, box, to)
                                      : read_plain_sizes(import, box, to);
}

// Reads a table of runs: a number of samples and the value of each of them. The runs must cover the
// samples that are declared, no more and no less.
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
    if (!import.whole(reader, box)) return false;
    if (covered == to.state.declared) return true;
    return import.fail(box, "covers " + std::to_string(covered) + " samples of " +
                                std::to_string(to.state.declared));
}

bool read_times(Import& import, const Box& box, Target& to) {
    BoxReader reader(import.source, box);
    const VersionAndFlags head(reader);
    return read_runs(import, box, reader, to,
                     [](Sample& sample, std::uint32_t value) { sample.duration = value; });
}

// Offsets below zero are those of version 1; many files have them in version 0.
bool read_composition_offsets(Import& import, const Box& box, Target& to) {
    BoxReader reader(import.source, box);
    const VersionAndFlags head(reader);
    Forms& forms = to.track.forms;
    forms.negative_offsets |= head.version == 1;
    return read_runs(import, box, reader, to, [&](Sample& sample, std::uint32_t value) {
        sample.composition_offset = static_cast<std::int32_t>(value);
        forms.negative_offsets |= sample.composition_offset < 0;
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
    return import.whole(reader, box);
}

// Chunks of as many samples each, from one on.
struct ChunkRun {
    std::uint32_t first_chunk = 0;  // from 1
    std::uint32_t samples = 0;
    std::uint32_t description = 0;  // index into Track::descriptions
};

bool read_chunk_runs(Import& import, const Box& box, Target& to, std::vector<ChunkRun>& runs) {
    BoxReader reader(import.source, box);
    const VersionAndFlags head(reader);
    for (std::uint32_t left = reader.u32(); left > 0 && !reader.failed(); --left) {
        ChunkRun run;
        run.first_chunk = reader.u32();
        run.samples = reader.u32();
        const std::uint32_t description = reader.u32();
        if (reader.failed()) break;
        const std::uint32_t after = runs.empty() ? 0 : runs.back().first_chunk;
        if (run.first_chunk <= after || (runs.empty() && run.first_chunk != 1)) {
            return import.fail(box, "has its chunks out of order");
        }
        if (!find_description(import, box, description, to.track, to.state, run.description)) {
            return false;
        }
        runs.push_back(run);
    }
    return import.whole(reader, box);
}

struct Chunk {
    std::uint64_t offset = 0;
    std::uint32_t samples = 0;
    std::uint32_t description = 0;
};

// Walks the chunks of a track.
class ChunkWalk {
  public:
    ChunkWalk(Import& import, const Box& box, const std::vector<ChunkRun>& runs)
        : import_(import),
          box_(box),
          reader_(import.source, box),
          runs_(runs),
          large_(box.type == fourcc("co64")) {
        const VersionAndFlags head(reader_);
        count_ = reader_.u32();
    }

    // Returns false after the last chunk, and when the table ends early, which fails.
    bool next(Chunk& chunk) {
        if (number_ == count_ || reader_.failed() || runs_.empty()) return fail_if_short();
        ++number_;
        while (run_ + 1 < runs_.size() && runs_[run_ + 1].first_chunk <= number_)
            ++run_;
        chunk = {reader_.u32_or_64(large_), runs_[run_].samples, runs_[run_].description};
        return reader_.failed() ? fail_if_short() : true;
    }

  private:
    bool fail_if_short() {
        import_.whole(reader_, box_);
        return false;
    }

    Import& import_;
    const Box& box_;
    BoxReader reader_;
    const std::vector<ChunkRun>& runs_;
    bool large_;
    std::uint32_t count_ = 0;
    std::uint32_t number_ = 0;  // of the chunk, from 1
    std::size_t run_ = 0;
};

bool place_samples(Import& import, const Box& box, const std::vector<ChunkRun>& runs, Target& to) {
    std::vector<Sample>& samples = to.track.samples;
    std::size_t placed = 0;
    ChunkWalk walk(import, box, runs);
    for (Chunk chunk; placed < samples.size() && walk.next(chunk);) {
        const std::size_t end =
            placed + std::min<std::size_t>(chunk.samples, samples.size() - placed);
        for (; placed < end; ++placed) {
            samples[placed].offset = chunk.offset;
            samples[placed].description = chunk.description & kDescriptionBits;
            chunk.offset += samples[placed].size;
        }
    }
    return placed == samples.size() || import.fail(box, "has no place for all samples");
}

// Calls visit(chunk, units) for the chunks of sound whose tables count units.
template <typename Visit>
bool each_sound_chunk(Import& import, const Box& box, const std::vector<ChunkRun>& runs,
                      std::uint32_t units, Visit visit) {
    ChunkWalk walk(import, box, runs);
    for (Chunk chunk; units > 0 && walk.next(chunk);) {
        chunk.samples = std::min(chunk.samples, units);
        units -= chunk.samples;
        visit(chunk);
    }
    return units == 0 || import.fail(box, "has no place for all samples");
}

// The duration that all units of sound have.
bool read_unit_duration(Import& import, const Box& box, std::uint32_t units, std::uint32_t& delta) {
    BoxReader reader(import.source, box);
    const VersionAndFlags head(reader);
    const std::uint32_t runs = reader.u32();
    std::uint64_t covered = 0;
    bool same = true;
    for (std::uint32_t i = 0; i < runs && !reader.failed(); ++i) {
        covered += reader.u32();
        const std::uint32_t value = reader.u32();
        same &= i == 0 || value == delta;
        delta = value;
    }
    if (!import.whole(reader, box)) return false;
    return (same && covered == units) || import.fail(box, "has no one time for the units of sound");
}

// Makes a sample of each packet of sound.
bool make_packets(Import& import, const Box& box, const std::vector<ChunkRun>& runs,
                  std::uint32_t delta, Target& to) {
    const SoundPacking packing = to.state.packing;
    std::uint64_t packets = 0;
    const auto count = [&](const Chunk& chunk) {
        packets += (std::uint64_t{chunk.samples} + packing.units - 1) / packing.units;
    };
    if (!each_sound_chunk(import, box, runs, to.sound_units, count) ||
        !make_samples(import, box, packets, packing.bytes, to)) {
        return false;
    }
    std::size_t made = 0;
    const auto place = [&](Chunk chunk) {
        while (chunk.samples > 0 && made < to.track.samples.size()) {
            const std::uint32_t units = std::min(chunk.samples, packing.units);
            Sample& sample = to.track.samples[made++];
            sample.offset = chunk.offset;
            sample.description = chunk.description & kDescriptionBits;
            sample.duration = static_cast<std::uint32_t>(
                std::min<std::uint64_t>(std::uint64_t{units} * delta, UINT32_MAX));
            chunk.samples -= units;
            chunk.offset += packing.bytes;
        }
    };
    return each_sound_chunk(import, box, runs, to.sound_units, place);
}

bool read_chunks(Import& import, const SampleTables& tables, Target& to) {
    if (to.track.samples.empty() && to.sound_units == 0) return true;
    if (!tables.runs || !tables.chunks) {
        return import.fail(*tables.sizes, "has samples for which there are no chunks");
    }
    to.track.forms.large_offsets |= tables.chunks->type == fourcc("co64");
    std::vector<ChunkRun> runs;
    if (!read_chunk_runs(import, *tables.runs, to, runs)) return false;
    if (to.sound_units == 0) return place_samples(import, *tables.chunks, runs, to);
    std::uint32_t delta = 0;
    return read_unit_duration(import, *tables.times, to.sound_units, delta) &&
           make_packets(import, *tables.chunks, runs, delta, to);
}

// Of sgpd and sbgp (8.9): the box and what it groups by.
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
    BoxReader all(import.source, box.offset, box.end);
    Group& group = track.groups[at->second];
    (assigns ? group.samples : group.descriptions) = all.bytes(box.size());
    return import.whole(all, box);
}

bool keep_groups(Import& import, const std::vector<Box>& boxes, Track& track) {
    std::map<std::pair<std::uint32_t, std::uint32_t>, std::size_t> known;
    for (const Box& box : boxes) {
        if (!keep_group(import, box, track, known)) return false;
    }
    return true;
}

// Reads a table that a track may lack.
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
    Target to{track, state};
    if (!read_table(import, tables.sizes, to, read_sizes)) return false;
    if ((state.declared > 0 || to.sound_units > 0) && !tables.times) {
        return import.fail(*tables.sizes, "has samples for which there are no times (stts)");
    }
    // The tables of units of sound give a duration only.
    const bool plain = to.sound_units == 0;
    if ((plain && (!read_table(import, tables.times, to, read_times) ||
                   !read_table(import, tables.offsets, to, read_composition_offsets) ||
                   !read_table(import, tables.sync, to, read_sync_samples))) ||
        !read_chunks(import, tables, to) || !keep_groups(import, tables.groups, track)) {
        return false;
    }
    track.samples_in_movie_box = static_cast<std::uint32_t>(track.samples.size());
    for (const Sample& sample : track.samples)
        state.end += sample.duration;
    state.next = state.end;
    return true;
}

}  // namespace kestrel::importer
