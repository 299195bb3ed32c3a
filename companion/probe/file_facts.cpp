// SPDX-License-Identifier: Apache-2.0
#include "companion/probe/file_facts.h"

#include <algorithm>
#include <utility>

#include "companion/importer/movie.h"
#include "interface/src/isoff/record/private.h"

namespace kestrel::probe {
namespace {

using kestrel::importer::fourcc;

int32_t codec_of(uint32_t entry) {
    switch (entry) {
        case fourcc("samr"):
            return ISO_CODEC_SAMR;
        case fourcc("sawb"):
            return ISO_CODEC_SAWB;
        case fourcc("sawp"):
            return ISO_CODEC_SAWP;
        case fourcc("mp4a"):
            return ISO_CODEC_MP4A;
        case fourcc("s263"):
            return ISO_CODEC_S263;
        case fourcc("mp4v"):
            return ISO_CODEC_MP4V;
        case fourcc("avc1"):
            return ISO_CODEC_AVC1;
        default:
            return ISO_CODEC_NONE;
    }
}

ImportedTrack summary(const kestrel::importer::Track& track) {
    ImportedTrack out;
    out.id = track.id;
    out.entry = track.descriptions.empty() ? 0 : track.descriptions.front().type;
    out.codec = codec_of(out.entry);
    out.kind = track.handler == fourcc("soun")   ? static_cast<uint32_t>(MediaKind::kAudio)
               : track.handler == fourcc("vide") ? static_cast<uint32_t>(MediaKind::kVideo)
                                                 : ImportedTrack::kNoMedium;
    out.is_encrypted = track.encrypted ? 1 : 0;
    out.samples = track.samples.size();
    out.in_fragments = out.samples - std::min<uint64_t>(track.samples_in_movie_box, out.samples);
    for (const kestrel::importer::Sample& sample : track.samples) {
        out.filled += sample.size > 0 ? 1 : 0;
        out.bytes += sample.size;
        out.largest = std::max<uint64_t>(out.largest, sample.size);
    }
    return out;
}

bool has_odd_form(const FileScan& scan) {
    const auto is_odd = [](const TrackBoxes& track) {
        return track.has_table("stz2") || track.has_table("co64") || track.is_encrypted() ||
               !track.version1.empty();
    };
    return scan.has_movie && (scan.fragments > 0 || scan.has_large_sizes || scan.has_open_sizes ||
                              std::any_of(scan.tracks.begin(), scan.tracks.end(), is_odd));
}

}  // namespace

std::vector<ImportedTrack> import_tracks(KST_IOSTREAM_CALLBACK_INTERFACE& stream) {
    kestrel::importer::Movie movie;
    std::vector<ImportedTrack> tracks;
    // Of a cut file, what there is.
    if (!kestrel::importer::import_movie(stream, {.salvage = true}, movie).ok) return tracks;
    for (const kestrel::importer::Track& track : movie.tracks)
        tracks.push_back(summary(track));
    return tracks;
}

const ImportedTrack* FileFacts::imported_track(uint32_t id) const {
    const auto found = std::find_if(imported.begin(), imported.end(),
                                    [&](const ImportedTrack& track) { return track.id == id; });
    return found == imported.end() ? nullptr : &*found;
}

FileFacts gather_facts(KST_IOSTREAM_CALLBACK_INTERFACE* stream, IsoFile file,
                       const Importing& import) {
    FileFacts facts;
    facts.stream = stream;
    facts.file = std::move(file);
    facts.scan = scan_file(stream);
    if (has_odd_form(facts.scan)) facts.imported = import(*stream, facts.scan);
    return facts;
}

bool may_lack_tracks(const FileFacts& facts) {
    return facts.scan.movie_is_cut || facts.file->own->lost_tracks > 0;
}

Expected expected_of(const iso_track* track, const ImportedTrack* imported) {
    if (imported != nullptr) {
        return {imported->samples, imported->filled, imported->bytes, imported->largest,
                imported->in_fragments};
    }
    if (track == nullptr) return {};
    const Declared tables = declared(track);
    return {tables.samples, tables.filled, tables.bytes, tables.largest, 0};
}

bool has_medium(const FileFacts& facts, MediaKind kind) {
    return has_medium(facts.file.get(), kind) ||
           std::any_of(facts.imported.begin(), facts.imported.end(),
                       [&](const ImportedTrack& track) { return track.is_of(kind); });
}

}  // namespace kestrel::probe
