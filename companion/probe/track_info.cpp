// SPDX-License-Identifier: Apache-2.0
#include "companion/probe/track_info.h"

#include <set>

#include "interface/src/isoff/record/private.h"

namespace kestrel::probe {
namespace {

template <size_t kRoom>
void copy_text(char (&to)[kRoom], const std::string& text) {
    to[text.copy(to, kRoom - 1)] = '\0';
}

int32_t medium_of(const iso_track* track) {
    if (is_hint(track)) return KST_MEDIUM_HINT;
    if (is_of(track, MediaKind::kAudio)) return KST_MEDIUM_AUDIO;
    return is_of(track, MediaKind::kVideo) ? KST_MEDIUM_VIDEO : KST_MEDIUM_OTHER;
}

// What both kinds of track have.
kst_probe_track begin_track(const FileFacts& facts, uint32_t id, int32_t codec) {
    kst_probe_track out{};
    out.struct_size = sizeof out;
    out.track_id = id;
    out.codec_name = codec_name(codec);
    copy_text(out.language, "und");
    const TrackBoxes* boxes = facts.scan.track(id);
    if (boxes == nullptr) return out;
    if (!boxes->entries.empty()) copy_text(out.codec, boxes->entries.front());
    out.is_encrypted = boxes->is_encrypted ? 1 : 0;
    return out;
}

void add_samples(kst_probe_track& out, const Expected& expected) {
    out.samples = expected.samples;
    out.bytes = expected.bytes;
    out.fragmented = expected.in_fragments;
}

void set_times(kst_probe_track& out, const ImportedTrack& track) {
    out.timescale = static_cast<uint32_t>(track.timescale);
    out.duration = track.duration;
}

kst_probe_track describe(const FileFacts& facts, const ImportedTrack& track) {
    kst_probe_track out = begin_track(facts, track.id, track.codec);
    out.medium = track.is_of(MediaKind::kAudio)   ? KST_MEDIUM_AUDIO
                 : track.is_of(MediaKind::kVideo) ? KST_MEDIUM_VIDEO
                                                  : KST_MEDIUM_OTHER;
    set_times(out, track);
    add_samples(out, expected_of(nullptr, &track));
    return out;
}

}  // namespace

kst_probe_track describe_track(const FileFacts& facts, const iso_track* track) {
    const ImportedTrack* imported = facts.imported_track(track);
    kst_probe_track out = begin_track(facts, facts.id_of(track), track->codec);
    out.medium = medium_of(track);
    out.timescale = track->timescale;
    out.duration = track->duration;
    if (imported != nullptr) set_times(out, *imported);
    add_samples(out, expected_of(track, imported));
    out.sync_samples = track->sync_count;
    copy_text(out.language, language_text(track->own->language));
    if (out.medium == KST_MEDIUM_VIDEO) {
        out.width = track->width;
        out.height = track->height;
    } else if (out.medium == KST_MEDIUM_HINT) {
        out.hints_track = track->hint_track_ref;
        out.longest_packet = track->rtp_max_packet;
    }
    return out;
}

std::vector<kst_probe_track> describe_tracks(const FileFacts& facts) {
    std::vector<kst_probe_track> tracks;
    const iso_file* file = facts.file.get();
    for (const iso_track* track = file->first_track; track != nullptr; track = track->next)
        tracks.push_back(describe_track(facts, track));
    std::set<uint32_t> known;  // no hash: a file chooses its IDs
    for (const kst_probe_track& track : tracks)
        known.insert(track.track_id);
    for (const ImportedTrack& track : facts.imported.tracks) {
        if (known.insert(track.id).second) tracks.push_back(describe(facts, track));
    }
    return tracks;
}

std::string language_text(uint32_t packed) {
    constexpr uint32_t kLetters = 3, kBits = 5, kBeforeA = 0x60, kMask = 31;
    std::string out;
    for (uint32_t i = kLetters; i > 0; --i)
        out += static_cast<char>(kBeforeA + (packed >> (kBits * (i - 1)) & kMask));
    const bool is_code = out.find_first_not_of("abcdefghijklmnopqrstuvwxyz") == std::string::npos;
    return is_code ? out : "und";
}

}  // namespace kestrel::probe
