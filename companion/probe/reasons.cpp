// SPDX-License-Identifier: Apache-2.0
#include "companion/probe/reasons.h"

#include <algorithm>
#include <iterator>

#include "common/frame_limit.h"
#include "kestrel/probe.h"
#include "kestrel/status.h"
#include "native/codec/rtp_header.h"

namespace kestrel::probe {
namespace {

// Of the tracks that the reader did not find, the last.
const ImportedTrack* unread_track(const FileFacts& facts, MediaKind kind) {
    const std::vector<ImportedTrack>& tracks = facts.imported.tracks;
    const auto found = std::find_if(tracks.rbegin(), tracks.rend(),
                                    [&](const ImportedTrack& track) { return track.is_of(kind); });
    return found == tracks.rend() ? nullptr : &*found;
}

const TrackBoxes* boxes_of(const Subject& subject) {
    return subject.has_track() ? subject.facts.scan.track(subject.track_id()) : nullptr;
}

// Whether the API plays the codec, but not in the form of the track's sample entry.
bool is_unread_form(const Subject& subject) {
    return subject.imported != nullptr && !plays_codec(subject.api, subject.codec()) &&
           plays_codec(subject.api, subject.imported->codec);
}

// The hint track that the API reads; null for none.
const iso_track* hints_for(const Subject& subject) {
    const iso_file* file = subject.facts.file.get();
    if (subject.api == Api::kClass) return hint_track_of(file, subject.track);
    return subject.kind == MediaKind::kVideo ? packets_of(file, subject.track) : nullptr;
}

// The reason that the class API has before it looks at tables; `status` is that of opening.
Reason reason_by_hints(const Subject& subject, int32_t status) {
    const iso_file* file = subject.facts.file.get();
    if (status == KST_TOO_MANY_TRACKS) return Reason::kSeveralTracks;
    if (subject.api == Api::kClass && subject.track != nullptr && has_hints(file) &&
        is_self_hinted(file, subject.track)) {
        return Reason::kSelfHinted;
    }
    return status == KST_NO_HINT_TRACK ? Reason::kNoHintTrack : Reason::kNotPlayed;
}

// Whether the tables of a medium agree, and those of its hint track, which has no samples where the
// API reads none. The class API takes the times from the hint track.
bool do_agree(const Subject& subject, const SamplePlaces& media, const SamplePlaces& hint) {
    if (subject.api == Api::kClass) return media.are_placed() && hint.agree();
    const iso_track* packets = hints_for(subject);
    const bool is_usable = packets == nullptr || packets->rtp_max_packet > kRtpHeaderSize;
    return media.agree() && is_usable && (packets == nullptr || hint.agree());
}

// The reason that the places of samples show.
Reason reason_of_places(const Subject& subject, const SamplePlaces& media,
                        const SamplePlaces& hint) {
    const FileScan& scan = subject.facts.scan;
    if (media.largest > kMaxFrameBytes) return Reason::kLargeFrame;
    if (are_cut(media, scan) || are_cut(hint, scan)) return Reason::kIncomplete;
    if (!do_agree(subject, media, hint) || are_misplaced(media, scan) || are_misplaced(hint, scan))
        return Reason::kDamaged;
    const uint32_t highest = highest_media_sample(*subject.facts.stream, hint.last);
    if (highest > media.last_filled) return Reason::kDamaged;
    return 0 < highest && highest < media.last_media ? Reason::kIncomplete : Reason::kNotPlayed;
}

std::string why_lost(const Subject& subject, uint64_t lost) {
    return show_count(lost) + " of " + show_count(lost + subject.expected.samples) +
           (lost == 1 ? " samples has" : " samples have") +
           " no size in the size table (stsz): get the file again.";
}

// Of a file that is complete: the sentence for samples that are not there.
std::string why_incomplete(const Subject& subject) {
    const std::string missing = missing_bytes(subject.facts.scan);
    if (!missing.empty()) return "The file is cut: " + missing + ".";
    if (const uint64_t lost = lost_sizes(subject.facts, subject.track); lost > 0)
        return why_lost(subject, lost);
    if (lacks_samples(subject))
        return "The file is incomplete: " + subject.facts.imported.missing + ".";
    return lacks_media(subject)
               ? "The file ends before its " + std::string(word(subject.kind)) +
                     " does: get the whole file."
               : "The " + std::string(word(subject.kind)) + " is whole, but its RTP hints are not.";
}

std::string why_codec(const Subject& subject) {
    if (is_unread_form(subject))
        return std::string("This API does not read ") + codec_name(subject.imported->codec) +
               " with such a sample entry.";
    return "This API does not play " + name_of_codec(subject) +
           (plays_codec(Api::kFunction, subject.codec()) ? "; the function API does."
                                                         : "; convert it with another tool first.");
}

}  // namespace

const ReasonName& name_of(Reason reason) {
    // In the order of the reasons.
    static constexpr ReasonName kNames[] = {
        {"plays", KST_PROBE_NO_REASON},
        {"no-track", KST_PROBE_NO_TRACK},
        {"no-hint-track", KST_PROBE_NO_HINT_TRACK},
        {"self-hinted", KST_PROBE_SELF_HINTED},
        {"codec", KST_PROBE_CODEC},
        {"encrypted", KST_PROBE_ENCRYPTED},
        {"several-tracks", KST_PROBE_SEVERAL_TRACKS},
        {"fragmented", KST_PROBE_FRAGMENTED},
        {"large-box", KST_PROBE_LARGE_BOX},
        {"unknown-table", KST_PROBE_UNKNOWN_TABLE},
        {"large-frame", KST_PROBE_LARGE_FRAME},
        {"incomplete", KST_PROBE_INCOMPLETE},
        {"implausible", KST_PROBE_DAMAGED},
        {"damaged", KST_PROBE_DAMAGED},
        {"ends-process", KST_PROBE_ENDS_PROCESS},
        {"memory", KST_PROBE_DAMAGED},
        {"timeout", KST_PROBE_DAMAGED},
        {"not-played", KST_PROBE_NO_REASON},
    };
    static_assert(std::size(kNames) == static_cast<size_t>(Reason::kNotPlayed) + 1);
    return kNames[static_cast<size_t>(reason)];
}

const char* word(Reason reason) {
    return name_of(reason).word;
}

Subject subject_of(const FileFacts& facts, Api api, MediaKind kind) {
    const iso_track* track = track_for(facts.file.get(), api, kind);
    const ImportedTrack* imported =
        track != nullptr ? facts.imported_track(track) : unread_track(facts, kind);
    return {facts, api, kind, track, imported, expected_of(track, imported)};
}

bool is_encrypted(const Subject& subject) {
    const TrackBoxes* boxes = boxes_of(subject);
    return (boxes != nullptr && boxes->is_encrypted) ||
           (subject.imported != nullptr && subject.imported->is_encrypted != 0);
}

bool is_of_other_codec(const Subject& subject) {
    const TrackBoxes* boxes = boxes_of(subject);
    const bool lacks_entry = boxes != nullptr && boxes->entries.empty();
    return !lacks_entry && !plays_codec(subject.api, subject.codec());
}

std::string unread_table(const Subject& subject) {
    const TrackBoxes* boxes = boxes_of(subject);
    if (boxes == nullptr) return "";
    for (const char* type : {"stz2", "co64"}) {
        if (boxes->has_table(type)) return type;
    }
    return boxes->has_wide_times() ? "version 1 of mdhd" : "";
}

std::string unknown_table(const Subject& subject) {
    const TrackBoxes* boxes = boxes_of(subject);
    if (boxes == nullptr || !unread_table(subject).empty()) return unread_table(subject);
    for (const char* type : {"sgpd", "sbgp"}) {
        if (boxes->has_second_table(type)) return std::string("a second ") + type;
    }
    return boxes->version1.empty() ? "" : "version 1 of " + boxes->version1.front();
}

bool has_odd_sizes(const FileFacts& facts) {
    return facts.scan.has_large_sizes || facts.scan.has_open_sizes;
}

bool is_whole(const iso_track* track, uint32_t size) {
    return outside_file(track, size).chunks == 0;
}

bool lacks_samples(const Subject& subject) {
    return subject.facts.imported.lacks_fragments ||
           (subject.imported != nullptr && subject.imported->missing > 0);
}

uint64_t lost_sizes(const FileFacts& facts, const iso_track* track) {
    // Tables that can be imported agree.
    const bool may_disagree = track != nullptr && facts.imported_track(track) == nullptr;
    return may_disagree ? samples_without_size(track) : 0;
}

bool lacks_media(const Subject& subject) {
    return !missing_bytes(subject.facts.scan).empty() || lacks_samples(subject) ||
           subject.track == nullptr || !is_whole(subject.track, subject.facts.scan.file_size);
}

bool lacks_data(const Subject& subject, int64_t status) {
    if (status == KST_NOT_YET) return true;
    if (subject.track == nullptr) return false;
    const uint32_t size = subject.facts.scan.file_size;
    const iso_track* hint = hints_for(subject);
    return !is_whole(subject.track, size) || (hint != nullptr && !is_whole(hint, size));
}

Reason reason_by_tables(const Subject& subject, const ClassFile& opened) {
    const bool is_class = subject.api == Api::kClass;
    if (is_class && opened.ends_process()) return Reason::kEndsProcess;
    if (!subject.has_track()) return Reason::kNoTrack;
    if (is_encrypted(subject)) return Reason::kEncrypted;
    if (!plays_codec(subject.api, subject.codec()))
        return is_of_other_codec(subject) ? Reason::kCodec : Reason::kDamaged;
    const int32_t status = is_class ? opened.open(subject.kind) : int32_t{KST_SUCCESS};
    if (const Reason reason = reason_by_hints(subject, status); reason != Reason::kNotPlayed)
        return reason;
    if (subject.expected.in_fragments > 0) return Reason::kFragmented;
    if (!unread_table(subject).empty()) return Reason::kUnknownTable;
    if (lacks_samples(subject) || lost_sizes(subject.facts, subject.track) > 0)
        return Reason::kIncomplete;
    if (status != KST_SUCCESS || (!is_class && subject.track == nullptr))
        return has_odd_sizes(subject.facts) ? Reason::kLargeBox : Reason::kDamaged;
    if (!is_class) {
        if (!has_configuration(subject.track)) return Reason::kDamaged;
        const iso_track* hint = hints_for(subject);
        return reason_of_places(subject, places_of(subject.track),
                                hint != nullptr ? places_of(hint) : SamplePlaces{});
    }
    const auto track = opened.track(subject.kind);
    return track ? reason_of_places(subject, track->media, track->hint) : Reason::kNotPlayed;
}

bool seeks_elsewhere(const ClassFile& opened, MediaKind kind) {
    const auto track = opened.track(kind);
    return track && track->hint_timescale != track->media_timescale;
}

Reason reason_for_no_media(const FileFacts& facts) {
    if (may_lack_tracks(facts)) return Reason::kDamaged;
    if (facts.scan.has_movie && has_odd_sizes(facts)) return Reason::kLargeBox;
    // Of a file that is cut after its movie box all tracks are known.
    return facts.scan.damage.empty() || facts.scan.cut_box ? Reason::kNoTrack : Reason::kDamaged;
}

std::string name_of_codec(const Subject& subject) {
    const iso_track* track = subject.track;
    std::string codec = track != nullptr ? codec_name(track) : codec_name(subject.codec());
    if (codec != "unknown") return codec;
    const TrackBoxes* boxes = boxes_of(subject);
    if (boxes == nullptr || boxes->entries.empty())
        return "this " + std::string(word(subject.kind)) + " codec";
    return "the codec '" + boxes->entries.front() + "'";
}

std::string missing_bytes(const FileScan& scan) {
    if (!scan.cut_box) return "";
    const TopBox& box = *scan.cut_box;
    const uint64_t missing = box.offset + box.size - scan.file_size;
    return show_count(missing) + (missing == 1 ? " byte of '" : " bytes of '") + box.type +
           (missing == 1 ? "' is missing" : "' are missing");
}

std::string show_count(uint64_t count) {
    const std::string digits = std::to_string(count);
    std::string out;
    for (size_t i = 0; i < digits.size(); ++i) {
        if (i > 0 && (digits.size() - i) % 3 == 0) out += ',';
        out += digits[i];
    }
    return out;
}

// What is wrong with the last box of the file.
static std::string why_ends_badly(const FileScan& scan) {
    if (scan.cut_box) return "The file is cut: " + missing_bytes(scan);
    if (scan.boxes.empty() || !scan.boxes.back().broken) return "";
    return "The last " + show_count(scan.boxes.back().size) + " bytes of the file are no box";
}

std::string why_not_opened(const Subject& subject) {
    const std::string end = why_ends_badly(subject.facts.scan);
    return subject.api == Api::kClass && !end.empty()
               ? end + ", and this API opens no such file."
               : "A box or table that playing needs is missing or damaged.";
}

std::string why_no_tracks(const FileFacts& facts) {
    if (!facts.scan.may_be_3gp())
        return "This is no 3GP file: it has neither a file type nor a movie box.";
    if (!facts.scan.has_movie) {
        const std::string missing = missing_bytes(facts.scan);
        return (missing.empty() ? "The file has no movie box, which lists the tracks"
                                : "The file is cut: " + missing +
                                      ", and so is the movie box, which lists the tracks") +
               std::string(": get the whole file.");
    }
    return facts.scan.movie_is_cut && facts.file->first_track == nullptr
               ? "The movie box, which lists the tracks, is cut or damaged: get the whole file."
               : "";
}

std::string why_by_tables(const Subject& subject, Reason reason) {
    const std::string medium = word(subject.kind);
    const std::string& missing = subject.facts.imported.missing;
    switch (reason) {
        case Reason::kNoTrack:
            return why_no_tracks(subject.facts).empty() ? "The file has no " + medium + " track."
                                                        : why_no_tracks(subject.facts);
        case Reason::kNoHintTrack:
            return (has_hints(subject.facts.file.get())
                        ? "No RTP hint track refers to the " + medium
                        : "The " + medium + " has no RTP hint track") +
                   ", and this API plays nothing else.";
        case Reason::kSelfHinted:
            return "The packets of the " + medium +
                   " are in the hint track itself, where this API does not look for them.";
        case Reason::kCodec:
            return why_codec(subject);
        case Reason::kEncrypted:
            return "The " + medium + " is encrypted.";
        case Reason::kSeveralTracks:
            return "The file has several " + medium +
                   " tracks, and this API plays a file with one.";
        case Reason::kFragmented:
            return show_count(subject.expected.in_fragments) +
                   (subject.expected.in_fragments == 1 ? " sample of the " : " samples of the ") +
                   medium + (subject.expected.in_fragments == 1 ? " is" : " are") +
                   " in movie fragments, which this API does not read" +
                   (missing.empty() ? "" : "; and " + missing) + ".";
        case Reason::kLargeBox:
            return "A box declares its size in a form that this API does not read: " +
                   std::string(!subject.facts.scan.has_open_sizes ? "with 64 bits."
                               : !subject.facts.scan.has_large_sizes
                                   ? "to the end of the file."
                                   : "with 64 bits, or to the end of the file.");
        case Reason::kUnknownTable:
            return "The " + medium +
                   " has a table that this API does not read: " + unknown_table(subject) + ".";
        case Reason::kLargeFrame:
            return "A sample of " + show_count(subject.expected.largest) +
                   " bytes is larger than this API can hold.";
        case Reason::kEndsProcess:
            return "Opening ends the whole process: there is an MPEG-4 sample entry of another "
                   "codec.";
        case Reason::kMemory:
            return "Playing it takes more memory than its tables account for.";
        case Reason::kIncomplete:
            return why_incomplete(subject);
        case Reason::kDamaged:
            if (!why_no_tracks(subject.facts).empty()) return why_no_tracks(subject.facts);
            return subject.has_track() && subject.expected.pictures == 0
                       ? "The " + medium + " track has no samples."
                       : why_not_opened(subject);
        default:
            break;
    }
    return "";
}

bool may_have_fix(const Subject& subject, Reason reason) {
    if (lost_sizes(subject.facts, subject.track) > 0) return false;
    switch (reason) {
        case Reason::kCodec:
            return is_unread_form(subject);
        case Reason::kNoHintTrack:
        case Reason::kSelfHinted:
        case Reason::kFragmented:
        case Reason::kLargeBox:
        case Reason::kUnknownTable:
        case Reason::kLargeFrame:
        case Reason::kIncomplete:
        case Reason::kImplausible:
        case Reason::kDamaged:
            return true;
        default:
            return false;
    }
}

}  // namespace kestrel::probe
