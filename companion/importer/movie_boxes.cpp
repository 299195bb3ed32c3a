// SPDX-License-Identifier: Apache-2.0
// ftyp and moov with its own boxes: mvhd, iods, mvex.
#include <algorithm>

#include "companion/importer/parts.h"

namespace kestrel::importer {

namespace {

constexpr std::uint32_t kQuickTimeBrand = fourcc("qt  ");

// Boxes of moov that are used after the tracks, whatever their order.
struct MovieBoxes {
    std::optional<Box> header;
    std::vector<Box> extensions;  // mvex
    bool compressed = false;
};

bool read_movie_header(Import& import, const Box& box) {
    BoxReader reader(import.source, box);
    const VersionAndFlags head(reader);
    const bool version1 = head.version == 1;
    Movie& movie = import.movie;
    movie.creation_time = reader.u32_or_64(version1);
    movie.modification_time = reader.u32_or_64(version1);
    movie.timescale = reader.u32();
    movie.duration = reader.u32_or_64(version1);
    if (!import.complete(reader, box)) return false;
    const std::uint64_t unknown = version1 ? UINT64_MAX : UINT32_MAX;
    if (movie.duration == unknown) movie.duration = 0;
    return movie.timescale != 0 || import.fail(box, "has a timescale of 0");
}

bool keep_header(Import& import, const Box& box, MovieBoxes& boxes) {
    if (boxes.header) return import.fail(box, "is the second in the movie box");
    boxes.header = box;
    return true;
}

bool keep_extension(Import&, const Box& box, MovieBoxes& boxes) {
    boxes.extensions.push_back(box);
    return true;
}

bool keep_object_descriptor(Import& import, const Box& box, MovieBoxes&) {
    import.movie.object_descriptor = whole_box(import.source, box);
    return import.source.error().empty() || import.fail({});
}

bool note_compressed(Import&, const Box&, MovieBoxes& boxes) {
    boxes.compressed = true;
    return true;
}

bool read_trak(Import& import, const Box& box, MovieBoxes&) {
    return read_track(import, box);
}

constexpr BoxHandler<MovieBoxes> kMovieBoxes[] = {
    {fourcc("mvhd"), keep_header},     {fourcc("iods"), keep_object_descriptor},
    {fourcc("trak"), read_trak},       {fourcc("mvex"), keep_extension},
    {fourcc("cmov"), note_compressed},
};

bool read_declared_duration(Import& import, const Box& box, Import&) {
    BoxReader reader(import.source, box);
    const VersionAndFlags head(reader);
    import.declared_duration = reader.u32_or_64(head.version == 1);
    import.declared_duration_box = box;
    return import.complete(reader, box);
}

bool read_track_defaults(Import& import, const Box& box, Import&) {
    BoxReader reader(import.source, box);
    const VersionAndFlags head(reader);
    const std::uint32_t id = reader.u32();
    RunDefaults defaults;
    defaults.description = std::max(reader.u32(), 1u);  // some writers have 0
    defaults.duration = reader.u32();
    defaults.size = reader.u32();
    defaults.flags = reader.u32();
    if (!import.complete(reader, box)) return false;
    // Defaults of a missing track are ignored.
    if (const auto track = import.find_track(id)) import.tracks[*track].defaults = defaults;
    return true;
}

constexpr BoxHandler<Import> kExtensionBoxes[] = {
    {fourcc("mehd"), read_declared_duration},
    {fourcc("trex"), read_track_defaults},
};

// The samples of a track are those of its table of sizes. It may have none if all its samples are
// in fragments: no other table then has entries.
bool has_all_sizes(Import& import) {
    const bool has_fragments = import.movie.fragmented || import.announces_fragments;
    for (std::size_t i = 0; i < import.tracks.size(); ++i) {
        const TrackImport& state = import.tracks[i];
        if (!state.lacks_sizes || (has_fragments && !state.has_entries)) continue;
        const std::string track = "track " + std::to_string(import.movie.tracks[i].id);
        if (!import.lacks(track + " has no table of sample sizes (stsz)")) return false;
    }
    return true;
}

}  // namespace

bool read_brands(Import& import, const Box& box) {
    BoxReader reader(import.source, box);
    Brands& brands = import.movie.brands;
    brands.major = reader.u32();
    brands.minor = reader.u32();
    while (reader.left() >= 4 && !reader.failed())
        brands.compatible.push_back(reader.u32());
    return import.whole(reader, box);
}

bool read_movie_box(Import& import, const Box& box) {
    Movie& movie = import.movie;
    movie.quicktime = movie.brands.major == 0 || movie.brands.major == kQuickTimeBrand;
    MovieBoxes boxes;
    if (!read_boxes<MovieBoxes>(import, box, BoxReader(import.source, box), kMovieBoxes, boxes)) {
        return false;
    }
    if (boxes.compressed) return import.fail(box, "is compressed (cmov)");
    if (!boxes.header) return import.fail(box, "has no mvhd");
    if (movie.tracks.empty()) return import.fail(box, "has no track");
    if (!read_movie_header(import, *boxes.header) || !import.index_tracks()) return false;
    import.announces_fragments = !boxes.extensions.empty();
    if (!has_all_sizes(import)) return false;
    for (const Box& extension : boxes.extensions) {
        const BoxReader reader(import.source, extension);
        if (!read_boxes<Import>(import, extension, reader, kExtensionBoxes, import)) return false;
    }
    return true;
}

}  // namespace kestrel::importer
