// SPDX-License-Identifier: Apache-2.0
// Work that needs all samples: checking that they are in the file, and the times and edits that
// depend on them.
#include <algorithm>
#include <set>
#include <string>

#include "companion/importer/parts.h"

namespace kestrel::importer {

namespace {

constexpr std::int64_t kNothing = -1;  // media time of an empty edit

bool is_whole(const Sample& sample, std::uint64_t file_size) {
    return sample.size == 0 ||
           (sample.offset <= file_size && sample.size <= file_size - sample.offset);
}

// Checks that all samples are in the file. With salvage truncates a track before the first missing
// one.
bool check_places(Import& import, Track& track) {
    const std::uint64_t size = import.source.size();
    const auto at = std::find_if(track.samples.begin(), track.samples.end(),
                                 [&](const Sample& sample) { return !is_whole(sample, size); });
    if (at == track.samples.end()) return true;
    const auto number = at - track.samples.begin() + 1;
    const bool kept = import.lacks("sample " + std::to_string(number) + " of track " +
                                   std::to_string(track.id) + ", " + std::to_string(at->size) +
                                   " bytes at offset " + std::to_string(at->offset) +
                                   ", lies outside the file of " + std::to_string(size) + " bytes");
    track.samples.erase(at, track.samples.end());
    track.samples_in_movie_box =
        std::min(track.samples_in_movie_box, static_cast<std::uint32_t>(track.samples.size()));
    return kept;
}

std::uint64_t media_duration(const Track& track) {
    std::uint64_t duration = 0;
    for (const Sample& sample : track.samples)
        duration += sample.duration;
    return duration;
}

std::uint64_t in_movie(const Movie& movie, const Track& track, std::uint64_t media) {
    return rescale(media, track.timescale, movie.timescale);
}

// Returns when the presentation of the media ends, which composition offsets move: not before its
// decoding ends.
std::uint64_t composition_end(const Track& track) {
    std::int64_t time = 0;
    std::int64_t end = static_cast<std::int64_t>(track.duration);
    for (const Sample& sample : track.samples) {
        time += sample.duration;
        end = std::max(end, time + sample.composition_offset);
    }
    return static_cast<std::uint64_t>(end);
}

// Returns how long a presentation that ends at the media time `end` lasts from another media time
// on, in the movie's timescale.
std::uint64_t rest(const Movie& movie, const Track& track, std::uint64_t end, std::int64_t from) {
    const auto begin = static_cast<std::uint64_t>(std::max<std::int64_t>(from, 0));
    return in_movie(movie, track, end - std::min(end, begin));
}

std::uint64_t presented(const Movie& movie, const Track& track) {
    if (track.edits.empty()) return in_movie(movie, track, track.duration);
    std::uint64_t duration = 0;
    for (const Edit& edit : track.edits)
        duration += std::min(edit.duration, UINT64_MAX - duration);
    return duration;
}

auto first_presented(std::vector<Edit>& edits) {
    return std::find_if(edits.begin(), edits.end(),
                        [](const Edit& edit) { return edit.media_time != kNothing; });
}

// Media times count from the first sample, which fragments may place later. Returns how long after
// its media time the track begins, in the movie's timescale.
std::uint64_t count_from_start(const Movie& movie, Track& track, std::uint64_t start) {
    const auto begin = static_cast<std::int64_t>(start);
    const auto first = first_presented(track.edits);
    const std::int64_t first_time = first == track.edits.end() ? 0 : first->media_time;
    // The difference of two signed numbers fits in 64 bits without a sign.
    const std::uint64_t gap =
        first_time >= begin
            ? 0
            : in_movie(movie, track, start - static_cast<std::uint64_t>(first_time));
    if (first != track.edits.end()) first->duration -= std::min(first->duration, gap);
    for (Edit& edit : track.edits) {
        if (edit.media_time != kNothing) {
            edit.media_time = edit.media_time > begin ? edit.media_time - begin : 0;
        }
    }
    return gap;
}

void delay(const Movie& movie, Track& track, std::uint64_t end, std::uint64_t time) {
    if (track.edits.empty()) track.edits.push_back({.duration = rest(movie, track, end, 0)});
    track.edits.insert(first_presented(track.edits), {.duration = time, .media_time = kNothing});
}

// The earliest track begins the movie; the others begin as much later as their fragments.
void align_starts(Import& import) {
    Movie& movie = import.movie;
    const auto starts_late = [](const TrackImport& state) { return state.start > 0; };
    if (std::none_of(import.tracks.begin(), import.tracks.end(), starts_late)) return;
    std::vector<std::uint64_t> gaps(movie.tracks.size());
    std::uint64_t common = UINT64_MAX;
    for (std::size_t i = 0; i < gaps.size(); ++i) {
        if (movie.tracks[i].samples.empty()) continue;
        gaps[i] = count_from_start(movie, movie.tracks[i], import.tracks[i].start);
        common = std::min(common, gaps[i]);
    }
    for (std::size_t i = 0; i < gaps.size(); ++i) {
        if (gaps[i] > common)
            delay(movie, movie.tracks[i], import.tracks[i].composition_end, gaps[i] - common);
    }
}

// An edit list may have been written when only the samples of the movie box were known: its last
// edit then has duration 0 or that of these samples. It gets the duration of the media.
void extend_last_edit(const Movie& movie, Track& track, std::uint64_t end) {
    if (track.edits.empty() || track.edits.back().media_time == kNothing) return;
    Edit& last = track.edits.back();
    std::uint64_t known = 0;
    std::uint32_t longest = 0;
    for (std::uint32_t i = 0; i < track.samples_in_movie_box; ++i) {
        known += track.samples[i].duration;
        longest = std::max(longest, track.samples[i].duration);
    }
    const std::uint64_t begin =
        static_cast<std::uint64_t>(std::max<std::int64_t>(last.media_time, 0));
    const std::uint64_t covered = in_movie(movie, track, known - std::min(known, begin));
    const std::uint64_t rounding = in_movie(movie, track, longest) + 1;
    if (last.duration == 0 || (known > 0 && last.duration + rounding >= covered)) {
        last.duration = std::max(last.duration, rest(movie, track, end, last.media_time));
    }
}

void cut_edits(const Movie& movie, Track& track, std::uint64_t end) {
    for (Edit& edit : track.edits) {
        if (edit.media_time == kNothing) continue;
        edit.duration = std::min(edit.duration, rest(movie, track, end, edit.media_time));
    }
}

// Remarks on a track whose samples take much less time than its header declares.
void check_times(Import& import, const Track& track, const TrackImport& state) {
    constexpr std::uint64_t kLeastPart = 2;
    const bool is_all = track.samples.size() == track.samples_in_movie_box &&
                        track.missing_samples == 0 && !import.movie.fragmented;
    const std::uint64_t declared = state.declared_duration;
    const bool lacks_much = is_all && declared - track.duration >= track.timescale &&
                            track.duration < declared / kLeastPart;
    if (track.samples.size() < 2 || track.duration >= declared) return;
    if (track.duration > 0 && !lacks_much) return;
    const std::string what =
        track.duration == 0
            ? "all samples have the same time (stts)"
            : "the samples take " + seconds_text(track.duration, track.timescale) + " (stts)";
    import.note("track " + std::to_string(track.id) + ": " + what + ", though mdhd declares " +
                seconds_text(declared, track.timescale));
}

// Remarks on hint tracks of tracks that are not there.
void check_references(Import& import) {
    std::set<std::uint32_t> ids;
    for (const Track& track : import.movie.tracks)
        ids.insert(track.id);
    for (const Track& track : import.movie.tracks) {
        for (const Reference& reference : track.references) {
            if (reference.type != fourcc("hint")) continue;
            for (const std::uint32_t id : reference.track_ids) {
                if (ids.contains(id)) continue;
                import.note("track " + std::to_string(track.id) + " has the hints of track " +
                            std::to_string(id) + ", which is not in the file");
            }
        }
    }
}

// Remarks on fragments that begin late: those before them were cut off, or the recording was joined
// while it went on.
void check_begin(Import& import) {
    constexpr std::uint32_t kMilliseconds = 1000;
    const std::uint32_t number = import.first_fragment_number.value_or(1);
    std::uint64_t begin = UINT64_MAX;  // milliseconds
    for (std::size_t i = 0; i < import.tracks.size(); ++i) {
        const Track& track = import.movie.tracks[i];
        if (track.samples_in_movie_box > 0) return;
        if (track.samples.empty()) continue;
        begin = std::min(begin, rescale(import.tracks[i].start, track.timescale, kMilliseconds));
    }
    if (begin == UINT64_MAX || (begin == 0 && number <= 1)) return;
    import.note("the file begins" +
                (number > 1 ? " with fragment " + std::to_string(number) : std::string()) +
                (begin > 0 ? (number > 1 ? ", at " : " at ") + seconds_text(begin, kMilliseconds)
                           : std::string()));
}

}  // namespace

bool finish_movie(Import& import) {
    Movie& movie = import.movie;
    for (Track& track : movie.tracks) {
        if (!check_places(import, track)) return false;
    }
    for (std::size_t i = 0; i < import.tracks.size(); ++i) {
        Track& track = movie.tracks[i];
        TrackImport& state = import.tracks[i];
        track.duration = media_duration(track);
        track.missing_samples =
            state.declared - std::min<std::uint64_t>(track.samples.size(), state.declared);
        state.composition_end = composition_end(track);
        check_times(import, track, state);
    }
    check_references(import);
    check_begin(import);
    align_starts(import);
    std::uint64_t duration = 0;
    for (std::size_t i = 0; i < import.tracks.size(); ++i) {
        Track& track = movie.tracks[i];
        const std::uint64_t end = import.tracks[i].composition_end;
        if (movie.fragmented) extend_last_edit(movie, track, end);
        if (!import.missing.empty()) cut_edits(movie, track, end);
        duration = std::max(duration, presented(movie, track));
    }
    if (movie.duration == 0 || movie.fragmented || !import.missing.empty()) {
        movie.duration = duration;
    }
    return true;
}

}  // namespace kestrel::importer
