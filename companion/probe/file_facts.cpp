// SPDX-License-Identifier: Apache-2.0
#include "companion/probe/file_facts.h"

#include <algorithm>
#include <map>
#include <utility>

#include "companion/importer/movie.h"
#include "interface/src/isoff/record/private.h"

namespace kestrel::probe {
namespace {

using kestrel::fourcc;

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
    const uint32_t used = track.samples.empty() ? 0 : track.samples.front().description;
    if (!track.descriptions.empty()) {
        const kestrel::importer::Description& entry = track.descriptions[used];
        out.entry = entry.type;
        out.width = entry.width;
        out.height = entry.height;
    }
    out.language = track.language;
    out.codec = codec_of(out.entry);
    out.kind = track.handler == fourcc("soun")   ? static_cast<uint32_t>(MediaKind::kAudio)
               : track.handler == fourcc("vide") ? static_cast<uint32_t>(MediaKind::kVideo)
                                                 : ImportedTrack::kNoMedium;
    out.is_encrypted = track.encrypted ? 1 : 0;
    out.samples = track.samples.size();
    out.duration = track.duration;
    out.timescale = track.timescale;
    out.in_fragments = out.samples - std::min<uint64_t>(track.samples_in_movie_box, out.samples);
    out.missing = track.missing_samples;
    for (const kestrel::importer::Sample& sample : track.samples) {
        out.filled += sample.size > 0 ? 1 : 0;
        out.bytes += sample.size;
        out.largest = std::max<uint64_t>(out.largest, sample.size);
        out.sync_samples += sample.is_sync;
    }
    if (out.sync_samples == out.samples) out.sync_samples = 0;
    return out;
}

bool has_odd_form(const FileScan& scan) {
    const auto is_odd = [](const TrackBoxes& track) {
        return track.has_table("stz2") || track.has_table("co64") || track.is_encrypted ||
               track.is_rewritten || track.has_second_table("sgpd") ||
               track.has_second_table("sbgp") || !track.version1.empty();
    };
    return scan.has_movie &&
           (scan.fragments > 0 || scan.announces_fragments || scan.has_large_sizes ||
            scan.has_open_sizes || std::any_of(scan.tracks.begin(), scan.tracks.end(), is_odd));
}

// Which of the imported tracks each track of the reader is. Both have them in the file's order;
// where one of them lacks some, tracks with the same ID are the same.
std::unordered_map<const iso_track*, size_t> number_tracks(
    const iso_file* file, const std::vector<ImportedTrack>& imported) {
    std::vector<const iso_track*> tracks;
    for (const iso_track* track = file->first_track; track != nullptr; track = track->next)
        tracks.push_back(track);
    std::unordered_map<const iso_track*, size_t> numbers;
    if (tracks.size() == imported.size()) {
        for (size_t i = 0; i < tracks.size(); ++i)
            numbers.emplace(tracks[i], i);
        return numbers;
    }
    std::map<uint32_t, size_t> by_id;  // no hash: a file chooses its IDs
    for (size_t i = 0; i < imported.size(); ++i)
        by_id.emplace(imported[i].id, i);
    for (const iso_track* track : tracks) {
        const auto same = by_id.find(track->track_id);
        if (same != by_id.end()) numbers.emplace(track, same->second);
    }
    return numbers;
}

}  // namespace

ImportedMovie import_tracks(KST_IOSTREAM_CALLBACK_INTERFACE& stream) {
    kestrel::importer::Movie movie;
    // Of a cut file, what there is.
    auto result = kestrel::importer::import_movie(stream, {.salvage = true}, movie);
    ImportedMovie out;
    if (!result.ok) {
        out.is_refused = result.cause == kestrel::importer::Cause::kFile;
        if (out.is_refused) out.remark = std::move(result.error);
        return out;
    }
    for (const kestrel::importer::Track& track : movie.tracks)
        out.tracks.push_back(summary(track));
    out.duration = movie.duration;
    out.timescale = movie.timescale;
    out.lacks_fragments = movie.lacks_fragments;
    out.missing = std::move(result.missing);
    out.remark = std::move(result.remark);
    return out;
}

const ImportedTrack* FileFacts::imported_track(const iso_track* track) const {
    const auto found = import_numbers.find(track);
    return found == import_numbers.end() ? nullptr : &imported.tracks[found->second];
}

uint32_t FileFacts::id_of(const iso_track* track) const {
    const ImportedTrack* same = imported_track(track);
    return same != nullptr ? same->id : track->track_id;
}

FileFacts gather_facts(KST_IOSTREAM_CALLBACK_INTERFACE* stream, IsoFile file,
                       const Importing& import) {
    FileFacts facts;
    facts.stream = stream;
    facts.file = std::move(file);
    facts.scan = scan_file(stream);
    if (!has_odd_form(facts.scan)) return facts;
    facts.imported = import(*stream, facts.scan);
    facts.import_numbers = number_tracks(facts.file.get(), facts.imported.tracks);
    return facts;
}

uint64_t lost_tracks(const FileFacts& facts) {
    uint64_t empty = 0;
    for (const iso_track* track = facts.file->first_track; track != nullptr; track = track->next)
        empty += track->handler[0] == '\0' && facts.imported_track(track) == nullptr ? 1 : 0;
    // The remains of a track that the reader counts may be among these.
    return std::max<uint64_t>(facts.file->own->lost_tracks, empty);
}

bool may_lack_tracks(const FileFacts& facts) {
    return facts.scan.movie_is_cut || lost_tracks(facts) > 0;
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
           std::any_of(facts.imported.tracks.begin(), facts.imported.tracks.end(),
                       [&](const ImportedTrack& track) { return track.is_of(kind); });
}

Duration duration_of(const FileFacts& facts) {
    if (facts.imported.timescale != 0) return {facts.imported.duration, facts.imported.timescale};
    return {facts.file->duration, facts.file->timescale};
}

Duration duration_of(const FileFacts& facts, const iso_track* track) {
    if (const ImportedTrack* imported = facts.imported_track(track); imported != nullptr)
        return {imported->duration, static_cast<uint32_t>(imported->timescale)};
    return {track->duration, track->timescale};
}

uint64_t samples_not_read(const FileFacts& facts, const iso_track* track) {
    const ImportedTrack* imported = facts.imported_track(track);
    const auto read = static_cast<uint64_t>(std::max(track->sample_count, 0));
    return imported != nullptr && imported->samples > read ? imported->samples - read : 0;
}

std::vector<const ImportedTrack*> unread_tracks(const FileFacts& facts) {
    std::vector<bool> is_read(facts.imported.tracks.size());
    for (const auto& [track, number] : facts.import_numbers)
        is_read[number] = true;
    std::vector<const ImportedTrack*> tracks;
    for (size_t i = 0; i < is_read.size(); ++i) {
        if (!is_read[i]) tracks.push_back(&facts.imported.tracks[i]);
    }
    return tracks;
}

}  // namespace kestrel::probe
