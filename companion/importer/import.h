// SPDX-License-Identifier: Apache-2.0
// Shared by the parts of the importer while a file is read.
#ifndef KESTREL_COMPANION_IMPORTER_IMPORT_H
#define KESTREL_COMPANION_IMPORTER_IMPORT_H

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "companion/importer/box_reader.h"
#include "companion/importer/movie.h"
#include "companion/importer/source.h"

namespace kestrel::importer {

// Defaults for the fragments of a track (`trex`) or for one fragment (`tfhd`).
struct RunDefaults {
    std::uint32_t description = 1;  // from 1
    std::optional<std::uint32_t> duration;
    std::optional<std::uint32_t> size;
    std::uint32_t flags = 0;
};

// Sound whose tables may count units, several of which make a sample. A unit is one number of each
// channel. A packet of a codec has `bytes`; of PCM, `units` are joined, and the rest at the end of
// a chunk makes a shorter sample.
struct SoundPacking {
    std::uint32_t units = 1;       // in a sample; 1: the tables count samples
    std::uint32_t bytes = 0;       // of a packet, or 0 for PCM
    std::uint32_t unit_bytes = 0;  // of PCM
};

// A track while it is read; the track itself is the one of the same number in Movie::tracks.
struct TrackImport {
    // For each sample entry in the file's order.
    struct Entry {
        std::uint32_t description = 0;  // index into Track::descriptions
        std::uint16_t data_reference = 1;
    };
    std::vector<Entry> entries;
    std::vector<bool> media_is_here;  // for each data reference; empty where none is declared
    SoundPacking packing;

    // Samples that the file declares; with salvage there may be fewer in Track::samples.
    std::uint64_t declared = 0;

    // Movie fragments. Times are decoding times in the media timescale.
    RunDefaults defaults;
    std::uint64_t fragment_samples = 0;   // declared in all fragments
    std::uint64_t start = 0;              // of the first sample
    std::uint64_t end = 0;                // of the last sample
    std::uint64_t next = 0;               // where the next run begins without a tfdt
    std::uint64_t declared_duration = 0;  // of mdhd, media timescale; 0 where it is not known
    bool lacks_sizes = false;             // there is no stsz or stz2 for its samples
    bool has_entries = false;             // in the tables of times, runs or chunks
    std::uint32_t fragments = 0;          // with samples of the track
    std::uint64_t fragments_begin = 0;    // time of the first of them
    std::uint32_t gaps_seen = 0;          // of Import::sequence_gaps

    // Media time of the end of the presentation, from the first sample on.
    std::uint64_t composition_end = 0;
};

// The media of a moof.
struct FragmentMedia {
    std::uint64_t end = 0;      // of its last sample in the file
    std::uint64_t bytes = 0;    // of all samples
    bool has_bare_run = false;  // a run without records of its samples
};

// The media of a run with samples that are not empty.
struct RunPlace {
    std::uint64_t moof = 0;  // its offset
    std::uint64_t begin = 0, end = 0;
};

class Import {
  public:
    Import(Source& file, const Options& how, Movie& into)
        : source(file), options(how), movie(into) {}
    Import(const Import&) = delete;
    Import& operator=(const Import&) = delete;

    // Store the first error, and return false.
    bool fail(const std::string& what);
    bool fail(const Box& box, const std::string& what);
    // Returns whether all that was read of the box was in it; fails with the reason otherwise.
    bool whole(const BoxReader& reader, const Box& box);
    // The same for a box of which all fields were read: another box that begins there is lacking.
    bool complete(BoxReader reader, const Box& box);
    // The same for a table: remarks on other bytes than zeros, which are entries that its count
    // leaves out.
    bool complete_table(BoxReader reader, const Box& box);
    // Fails because data is missing. With salvage stores the reason and returns true.
    bool lacks(const std::string& what);
    // The same, because fragments are missing.
    bool lacks_fragments(const std::string& what);
    // The same, because a box of the type is hidden.
    bool lacks_box(std::uint32_t type, const std::string& what);
    // The same, because the bytes of `box` cover another one.
    bool covers(const Box& box, const Box& covered);

    // Remarks on what may show a loss, but need not.
    void note(const std::string& what);

    // Counts samples that a box declares against the limits of a file; `size` is the size of each,
    // or 0 when sizes differ. Returns how many can be whole: all, or with salvage as many as the
    // file has bytes for. Returns nothing for a count above the limits.
    std::optional<std::uint32_t> claim_samples(const Box& box, std::uint64_t count,
                                               std::uint32_t size);

    // Returns the index in Movie::tracks of the track with the ID.
    std::optional<std::size_t> find_track(std::uint32_t id) const;
    // Sorts the IDs for find_track(). Returns false when two tracks have the same ID.
    bool index_tracks();

    Source& source;
    const Options& options;
    Movie& movie;
    std::vector<TrackImport> tracks;
    bool announces_fragments = false;          // mvex
    std::optional<Box> declared_duration_box;  // mehd
    std::uint64_t declared_duration = 0;       // of mehd, movie timescale
    std::uint32_t sequence_gaps = 0;           // in the numbers of the fragments
    std::optional<std::uint32_t> first_fragment_number;
    std::vector<FragmentMedia> fragment_media;  // of each moof
    std::string error;
    std::string missing;  // the first thing that the file lacks, where that is salvaged
    std::string remark;   // all that was noted, or the first of many
    std::vector<RunPlace> run_places;  // of all fragments

  private:
    std::uint64_t claimed_ = 0;
    std::size_t note_count_ = 0;
    std::vector<std::pair<std::uint32_t, std::size_t>> track_ids_;
};

// Reads one kind of box into a record.
template <typename Into>
struct BoxHandler {
    std::uint32_t type;
    bool (*read)(Import&, const Box&, Into&);
};

// hidden_boxes.cpp: whether a child of the container type may be there, and hides no track or part
// of a fragment.
bool check_child(Import& import, std::uint32_t container, const Box& box);

// Reads the boxes from the cursor of `children` to its end with the handlers of their types; skips
// the others. `container` is their parent, for the error.
template <typename Into>
bool read_boxes(Import& import, const Box& container, BoxReader children,
                std::span<const BoxHandler<Into>> handlers, Into& into) {
    for (Box box; children.next(box);) {
        if (!check_child(import, container.type, box)) return false;
        for (const BoxHandler<Into>& handler : handlers) {
            if (handler.type == box.type && !handler.read(import, box, into)) return false;
        }
    }
    return import.whole(children, container);
}

// The version and the flags at the start of a full box (4.2).
struct VersionAndFlags {
    explicit VersionAndFlags(BoxReader& reader) : version(reader.u8()), flags(reader.u24()) {}

    std::uint8_t version;
    std::uint32_t flags;
};

// Converts `value` from one timescale to another, rounded down; returns the largest value on
// overflow.
std::uint64_t rescale(std::uint64_t value, std::uint32_t from, std::uint32_t to);

// "0.667 s"
std::string seconds_text(std::uint64_t units, std::uint32_t timescale);

}  // namespace kestrel::importer

#endif
