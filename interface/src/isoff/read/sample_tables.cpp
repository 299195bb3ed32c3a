// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <climits>

#include "interface/src/isoff/read/box_walk.h"
#include "interface/src/isoff/read/sample_index.h"
#include "interface/src/isoff/read/sample_tables.h"

// The sample table boxes (ISO/IEC 14496-12, 8.6 to 8.9), and the check of one against the other.

namespace kestrel {
namespace {

enum TableBit : uint32_t {
    kStts = 1,
    kCtts = 2,
    kStsz = 4,
    kStco = 8,
    kStss = 16,
    kSbgp = 32,
    kSgpd = 64,
};

// Skips version and flags, and reads a table with `read(track)`, which returns false for a
// malformed one. Refuses a second table of a kind in one track.
template <typename Read>
int read_table(BoxReader& box, TableBit bit, const char* refusal, Read read) {
    iso_track* track = box.track();
    if (track->own->tables_seen & bit) {
        remark(box.file(), "%s", refusal);
        return -1;
    }
    track->own->tables_seen |= bit;
    box.u32();  // version and flags
    return read(track) ? 0 : -1;
}

// Reads an entry count and allocates an array of so many entries. Returns null, without allocating,
// if the box does not hold them; `stored` is the size of one in the file.
template <typename Entry>
Entry* take_entries(BoxReader& box, uint32_t stored, int32_t& count) {
    count = 0;
    const uint32_t declared = box.u32();
    if (declared > INT_MAX || declared > box.left() / stored) return nullptr;
    auto* entries = arena_array<Entry>(box.file(), declared);
    if (entries != nullptr) count = static_cast<int32_t>(declared);
    return entries;
}

// Reads an entry count and the entries.
template <typename Entry>
Entry* read_entries(BoxReader& box, int32_t& count) {
    auto* entries = take_entries<Entry>(box, bytes_of<Entry>(), count);
    ColumnReader reader(box);
    for (Entry& entry : std::span(entries, static_cast<size_t>(count)))
        columns(reader, entry);
    return entries;
}

// Number of samples that a time table declares.
template <typename Entry>
uint64_t declared_samples(const Entry* entries, int32_t count) {
    uint64_t sum = 0;
    for (int32_t i = 0; i < count; ++i)
        sum += entries[i].count;
    return sum;
}

// The end of a chunk of `bytes` bytes. File offsets have 32 bits.
uint32_t chunk_end(uint32_t start, uint64_t bytes) {
    return static_cast<uint32_t>(std::min<uint64_t>(start + bytes, UINT32_MAX));
}

bool times_agree(const iso_track* track) {
    const auto samples = static_cast<uint64_t>(track->sample_count);
    if (declared_samples(track->stts, track->stts_count) < samples) {
        remark(track->file, "invalid stts\n");
        return false;
    }
    const uint64_t composed = declared_samples(track->ctts, track->ctts_count);
    if (composed >= 1 && composed < samples) {
        remark(track->file, "invalid ctts %d\n", static_cast<int>(composed));
        return false;
    }
    return true;
}

// The number of samples of each chunk, in order. Only differences of the first-chunk numbers are
// used.
class ChunkRuns {
  public:
    explicit ChunkRuns(const iso_track* track) : track_(track) {}

    // Moves to the next chunk. The last entry holds for all further chunks.
    void next_chunk() {
        if (--run_ >= 1) return;
        if (has_next()) ++entry_;
        run_ = has_next() ? int64_t{track_->stsc[entry_ + 1].first_chunk} -
                                int64_t{track_->stsc[entry_].first_chunk}
                          : 1;
    }

    uint32_t samples() const { return track_->stsc[entry_].samples_per_chunk; }

  private:
    bool has_next() const { return entry_ + 1 < track_->stsc_count; }

    const iso_track* track_;
    int32_t entry_ = -1;
    int64_t run_ = 0;
};

uint64_t bytes_of_samples(const iso_track* track, int32_t first, uint32_t count) {
    if (track->sample_size != 0) return uint64_t{count} * track->sample_size;
    uint64_t bytes = 0;
    for (uint32_t i = 0; i < count; ++i)
        bytes += track->sample_sizes[static_cast<uint32_t>(first) + i];
    return bytes;
}

void fill_single_sample_chunks(iso_track* track) {
    for (int32_t i = 0; i < track->chunk_count; ++i) {
        iso_chunk& chunk = track->chunks[i];
        chunk.end = chunk_end(chunk.start, sample_size_of(track, i));
    }
}

void fill_chunks_by_runs(iso_track* track) {
    int32_t covered = 0;
    int32_t chunk = 0;
    ChunkRuns runs(track);
    for (; track->stsc_count > 0 && chunk < track->chunk_count; ++chunk) {
        runs.next_chunk();
        const uint32_t count = runs.samples();
        if (count > static_cast<uint32_t>(track->sample_count - covered)) break;
        track->chunks[chunk].end =
            chunk_end(track->chunks[chunk].start, bytes_of_samples(track, covered, count));
        covered += static_cast<int32_t>(count);
    }
    if (covered == track->sample_count && chunk == track->chunk_count) return;
    remark(track->file,
           "Warning: inconsistent stsc/stco/stsz tables --- sample count %d/%d stco count %d/%d \n",
           track->sample_count, covered, track->chunk_count, chunk);
    track->sample_count = covered;
    track->chunk_count = chunk;
}

// Reads the groups of a known type.
bool read_groups(BoxReader& box, iso_track* track) {
    int32_t count = 0;
    auto* entries = take_entries<iso_sgpd_entry>(box, 2, count);
    if (entries == nullptr) return false;
    for (int32_t i = 0; i < count; ++i) {
        const uint16_t records = box.u16();
        if (records > box.left() / sizeof(iso_sgpd_record)) return false;
        entries[i].count = records;
        entries[i].records = arena_array<iso_sgpd_record>(box.file(), records);
        if (entries[i].records == nullptr) return false;
        for (uint16_t r = 0; r < records; ++r) {
            for (uint32_t& word : entries[i].records[r].words)
                word = box.u32();
        }
        entries[i].next = i + 1 < count ? &entries[i + 1] : nullptr;
    }
    track->sgpd_count = static_cast<uint32_t>(count);
    track->sgpd_list = count > 0 ? entries : nullptr;
    return true;
}

}  // namespace

int read_stts(BoxReader& box) {
    return read_table(box, kStts, "extra stts\n", [&](iso_track* track) {
        track->stts = read_entries<iso_stts_entry>(box, track->stts_count);
        return track->stts != nullptr;
    });
}

int read_ctts(BoxReader& box) {
    return read_table(box, kCtts, "extra ctts\n", [&](iso_track* track) {
        track->ctts = read_entries<iso_ctts_entry>(box, track->ctts_count);
        return track->ctts != nullptr;
    });
}

int read_stsc(BoxReader& box) {
    iso_track* track = box.track();
    box.u32();  // version and flags
    track->stsc = read_entries<iso_stsc_entry>(box, track->stsc_count);
    return track->stsc != nullptr ? 0 : -1;
}

int read_stsz(BoxReader& box) {
    return read_table(box, kStsz, "extra stsz\n", [&](iso_track* track) {
        track->sample_size = box.u32();
        if (track->sample_size != 0) {
            const uint32_t count = box.u32();
            if (count > INT_MAX) return false;
            track->sample_count = static_cast<int32_t>(count);
            track->own->declared_samples = count;
            track->total_bytes = count * track->sample_size;
            return true;
        }
        track->sample_sizes = read_entries<uint32_t>(box, track->sample_count);
        if (track->sample_sizes == nullptr) return false;
        const auto count = static_cast<uint32_t>(track->sample_count);
        track->own->declared_samples = count;
        for (const uint32_t size : std::span(track->sample_sizes, count)) {
            track->total_bytes += size;
            track->max_sample_size = std::max(track->max_sample_size, size);
        }
        return true;
    });
}

int read_stco(BoxReader& box) {
    return read_table(box, kStco, "extra stco\n", [&](iso_track* track) {
        track->chunks = read_entries<iso_chunk>(box, track->chunk_count);
        track->own->declared_chunks = static_cast<uint32_t>(track->chunk_count);
        return track->chunks != nullptr;
    });
}

int read_stss(BoxReader& box) {
    return read_table(box, kStss, "extra stss\n", [&](iso_track* track) {
        int32_t count = 0;
        track->sync_samples = read_entries<uint32_t>(box, count);
        track->sync_count = static_cast<uint32_t>(count);
        return track->sync_samples != nullptr;
    });
}

int read_sbgp(BoxReader& box) {
    return read_table(box, kSbgp, "extra sbgp\n", [&](iso_track* track) {
        box.u32();  // grouping type
        int32_t count = 0;
        auto* entries = read_entries<iso_sbgp_entry>(box, count);
        if (entries == nullptr) return false;
        track->sbgp_count = static_cast<uint32_t>(count);
        track->sbgp_list = count > 0 ? entries : nullptr;
        for (int32_t i = 0; i + 1 < count; ++i)
            entries[i].next = &entries[i + 1];
        return true;
    });
}

int read_sgpd(BoxReader& box) {
    return read_table(box, kSgpd, "extra sgpd\n", [&](iso_track* track) {
        box.id(track->sgpd_type);
        const uint32_t type = load_be32(reinterpret_cast<const uint8_t*>(track->sgpd_type));
        if (type == fourcc("3gag") || type == fourcc("avcb")) return read_groups(box, track);
        remark(track->file, "skipping unknown grouping type: %s\n", track->sgpd_type);
        return true;
    });
}

int check_tables(iso_track* track) {
    if (!times_agree(track)) return -1;
    if (track->sample_count == track->chunk_count) {
        fill_single_sample_chunks(track);
    } else {
        fill_chunks_by_runs(track);
    }
    return make_index(track) ? 0 : -1;
}

}  // namespace kestrel
