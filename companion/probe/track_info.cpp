// SPDX-License-Identifier: Apache-2.0
#include "companion/probe/track_info.h"

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
kst_probe_track begin_track(const FileFacts& facts, uint32_t id, const char* codec_name) {
    kst_probe_track out{};
    out.struct_size = sizeof out;
    out.track_id = id;
    out.codec_name = codec_name;
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

void set_times(kst_probe_track& out, const Duration& duration) {
    out.timescale = duration.timescale;
    out.duration = duration.units;
}

kst_probe_track describe(const FileFacts& facts, const ImportedTrack& track) {
    kst_probe_track out = begin_track(facts, track.id, codec_name(track.codec));
    out.medium = track.is_of(MediaKind::kAudio)   ? KST_MEDIUM_AUDIO
                 : track.is_of(MediaKind::kVideo) ? KST_MEDIUM_VIDEO
                                                  : KST_MEDIUM_OTHER;
    set_times(out, {track.duration, static_cast<uint32_t>(track.timescale)});
    add_samples(out, expected_of(nullptr, &track));
    out.sync_samples = static_cast<uint32_t>(track.sync_samples);
    out.width = static_cast<uint32_t>(track.width);
    out.height = static_cast<uint32_t>(track.height);
    copy_text(out.language, language_text(static_cast<uint32_t>(track.language)));
    return out;
}

}  // namespace

kst_probe_track describe_track(const FileFacts& facts, const iso_track* track) {
    const ImportedTrack* imported = facts.imported_track(track);
    kst_probe_track out = begin_track(facts, facts.id_of(track), codec_name(track));
    out.medium = medium_of(track);
    set_times(out, duration_of(facts, track));
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
    for (const ImportedTrack* track : unread_tracks(facts))
        tracks.push_back(describe(facts, *track));
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
