#include <algorithm>
#include <climits>

#include "interface/src/isoff.h"
#include "kestrel/kstutil.h"

// Reading samples: the cursor walk over the tables, and access by cursor and by number.

namespace kestrel {
namespace {

uint32_t saturating_add(uint32_t offset, uint64_t bytes) {
    return static_cast<uint32_t>(std::min<uint64_t>(offset + bytes, UINT32_MAX));
}

// `samples` on in a time table.
template <typename Entry>
void advance_time(const Entry* entries, int32_t count, int32_t& index, int32_t& in_entry,
                  uint32_t samples) {
    while (index < count) {
        const uint32_t left = entries[index].count - static_cast<uint32_t>(in_entry);
        if (samples < left) {
            in_entry += static_cast<int32_t>(samples);
            return;
        }
        samples -= left;
        in_entry = 0;
        ++index;
    }
}

// The entry in force at the cursor; entries that stand for no sample are not.
template <typename Entry>
const Entry* entry_at(const Entry* entries, int32_t count, int32_t& index) {
    while (index < count && entries[index].count == 0)
        ++index;
    return index < count ? &entries[index] : nullptr;
}

void advance_times(iso_track* track, uint32_t samples) {
    advance_time(track->stts, track->stts_count, track->stts_index, track->stts_in_entry, samples);
    advance_time(track->ctts, track->ctts_count, track->ctts_index, track->ctts_in_entry, samples);
}

// How many samples of constant size the cursor may pass at once, of `wanted`: to the end of the
// chunk at the most, and all of them behind the last one.
uint32_t samples_at_once(const iso_track* track, uint32_t wanted) {
    if (track->sample_size == 0) return 1;
    if (track->cur_chunk >= track->chunk_count) return wanted;
    const uint32_t end = track->chunks[track->cur_chunk].end;
    if (track->cur_offset >= end) return 1;
    const uint32_t bytes = end - track->cur_offset;
    const uint32_t left = bytes / track->sample_size + (bytes % track->sample_size != 0 ? 1 : 0);
    return std::min(wanted, left);
}

// Passes as many samples as can be passed in one step, at least one and at most `wanted`. The times
// are left to the caller.
void advance_place(iso_track* track, uint32_t wanted) {
    const uint32_t samples = samples_at_once(track, wanted);
    const uint64_t bytes = uint64_t{samples} * sample_size_of(track, track->cur_sample);
    track->cur_offset = saturating_add(track->cur_offset, bytes);
    if (track->cur_chunk < track->chunk_count &&
        track->cur_offset >= track->chunks[track->cur_chunk].end) {
        track->cur_chunk++;
        if (track->cur_chunk < track->chunk_count) {
            track->cur_offset = track->chunks[track->cur_chunk].start;
        }
    }
    track->cur_sample += static_cast<int32_t>(samples);
}

void advance_cursor(iso_track* track) {
    advance_place(track, 1);
    advance_times(track, 1);
}

void rewind_cursor(iso_track* track) {
    track->cur_sample = 0;
    track->cur_chunk = 0;
    track->cur_offset = track->chunk_count >= 1 ? track->chunks[0].start : 0;
    track->stts_index = track->stts_in_entry = 0;
    track->ctts_index = track->ctts_in_entry = 0;
}

uint32_t duration_at_cursor(iso_track* track) {
    const auto* entry = entry_at(track->stts, track->stts_count, track->stts_index);
    return entry == nullptr ? 0 : entry->delta;
}

// Stores the times of the sample at the cursor, in seconds, where they are wanted.
void tell_times(iso_track* track, double* duration, double* cts_offset) {
    if (duration != nullptr) *duration = seconds(duration_at_cursor(track), track->timescale);
    if (cts_offset == nullptr) return;
    const auto* entry = entry_at(track->ctts, track->ctts_count, track->ctts_index);
    *cts_offset = entry == nullptr ? 0.0 : seconds(entry->offset, track->timescale);
}

// Reads at a file offset in the way that the host asked for. `failed` tells a stream failure; the
// result is the number of bytes read, never more than were asked for.
uint32_t read_at(iso_file* file, uint32_t offset, void* buffer, uint32_t length, bool& failed) {
    uint32_t got = 0;
    if (file->indexed_read) {
        failed = kstutil_indexread(file->stream, buffer, offset, length, &got) != 0;
    } else {
        got = length;
        failed = kstutil_seek(file->stream, static_cast<int32_t>(offset)) != 0 ||
                 kstutil_seeknread(file->stream, buffer, &got) != 0;
    }
    return failed ? 0 : std::min(got, length);
}

// A track that is being written has no tables yet.
bool is_readable(const iso_track* track) {
    return track != nullptr && !track->file->write_mode;
}

}  // namespace

uint32_t sample_size_of(const iso_track* track, int32_t sample) {
    return track->sample_size != 0 ? track->sample_size : track->sample_sizes[sample];
}

double seconds(double units, uint32_t timescale) {
    return timescale == 0 ? 0.0 : units / timescale;
}

void set_sample_pos(iso_track* track, int32_t target) {
    if (track->cur_sample > target) rewind_cursor(track);
    const auto samples = static_cast<uint32_t>(target - track->cur_sample);
    while (track->cur_sample < target)
        advance_place(track, static_cast<uint32_t>(target - track->cur_sample));
    advance_times(track, samples);
}

}  // namespace kestrel

using namespace kestrel;

int isoFFread(iso_track* track, void* buffer, int buffer_size, double* duration,
              double* cts_offset) {
    if (!is_readable(track) || buffer_size < 0 || track->cur_sample >= track->sample_count)
        return -1;
    const uint32_t size = sample_size_of(track, track->cur_sample);
    if (size > static_cast<uint32_t>(buffer_size)) return -1;
    bool failed = false;
    const uint32_t got = read_at(track->file, track->cur_offset, buffer, size, failed);
    if (failed || got < size) return -2;
    tell_times(track, duration, cts_offset);
    advance_cursor(track);
    return static_cast<int>(size);
}

int isoFFreadAt(iso_track* track, int sample, int offset, void* buffer, unsigned length,
                double* duration, double* cts_offset) {
    if (!is_readable(track) || sample < 0 || sample >= track->sample_count) return -1;
    const uint32_t size = sample_size_of(track, sample);
    if (length == 0 || offset < 0 || static_cast<uint32_t>(offset) >= size) return 0;
    set_sample_pos(track, sample);
    const uint32_t wanted =
        std::min({length, size - static_cast<uint32_t>(offset), static_cast<uint32_t>(INT_MAX)});
    const uint32_t from = saturating_add(track->cur_offset, static_cast<uint32_t>(offset));
    bool failed = false;
    const uint32_t got = read_at(track->file, from, buffer, wanted, failed);
    // Only the positioned read's failure is told; that of a seek or a plain read shows as 0 bytes.
    if (failed && track->file->indexed_read) return -2;
    tell_times(track, duration, cts_offset);
    return static_cast<int>(got);
}

int isoFFsetPosition(iso_track* track, int sample) {
    if (!is_readable(track) || sample < 0 || sample >= track->sample_count) return -1;
    set_sample_pos(track, sample);
    track->positioned = 1;
    return 0;
}

int isoFFframeInfo(iso_track* track, double* duration, int* size) {
    if (!is_readable(track) || track->cur_sample >= track->sample_count) return -1;
    tell_times(track, duration, nullptr);
    if (size != nullptr) {
        const bool with_dsi = track->dsi_sent == 0 &&
                              (track->flags & iso_track_prepends_dsi) != 0 &&
                              track->dsi_length >= 1;
        const uint32_t bytes = sample_size_of(track, track->cur_sample);
        *size = static_cast<int>(bytes + (with_dsi ? track->dsi_length : 0));
    }
    return 0;
}

int isoFFtrackInfo(iso_track* track, int* codec, int* sample_count, double* duration, int* bytes) {
    if (track == nullptr) return -1;
    if (codec != nullptr) *codec = track->codec;
    if (sample_count != nullptr) *sample_count = track->sample_count;
    if (duration != nullptr) *duration = seconds(track->duration, track->timescale);
    if (bytes != nullptr) *bytes = static_cast<int>(track->total_bytes);
    return 0;
}

int isoFFfileInfo(iso_file* file, int* tracks, double* duration, int* bytes) {
    if (file == nullptr) return -1;
    int count = 0;
    uint32_t sum = 0;
    for (const iso_track* track = file->first_track; track != nullptr; track = track->next) {
        ++count;
        sum += track->total_bytes;
    }
    if (tracks != nullptr) *tracks = count;
    if (duration != nullptr) *duration = seconds(file->duration, file->timescale);
    if (bytes != nullptr) *bytes = static_cast<int>(sum);
    return 0;
}

namespace {

constexpr uint32_t kNoMoreSamples = 0xFFFFFFFF;

// The tracks with the lowest and the second lowest file position; null where there is none. Of
// equals, the earlier in the list comes first.
struct LowestTwo {
    iso_track* first = nullptr;
    iso_track* second = nullptr;

    void consider(iso_track* track) {
        if (first == nullptr || track->cur_offset < first->cur_offset) {
            second = first;
            first = track;
        } else if (second == nullptr || track->cur_offset < second->cur_offset) {
            second = track;
        }
    }
};

// How many samples from the cursor on lie in front of `limit` and have the duration of the first.
uint32_t samples_alike(iso_track* track, uint32_t limit) {
    if (track->sample_size == 0 || limit <= track->cur_offset) return 1;
    auto alike = static_cast<uint32_t>(track->sample_count - track->cur_sample);
    const auto* entry = entry_at(track->stts, track->stts_count, track->stts_index);
    if (entry != nullptr) {
        alike = std::min(alike, entry->count - static_cast<uint32_t>(track->stts_in_entry));
    }
    return std::min(alike, (limit - track->cur_offset - 1) / track->sample_size + 1);
}

// Passes the samples of `track` that lie in front of `limit`, at least one; returns their time.
double pass_samples(iso_track* track, uint32_t limit) {
    double units = 0.0;
    do {
        const double delta = duration_at_cursor(track);
        const int32_t before = track->cur_sample;
        advance_place(track, samples_alike(track, limit));
        const auto passed = static_cast<uint32_t>(track->cur_sample - before);
        advance_times(track, passed);
        units += delta * passed;
        if (track->cur_sample >= track->sample_count || track->cur_chunk >= track->chunk_count) {
            track->cur_offset = kNoMoreSamples;
        }
    } while (track->cur_offset < limit);
    return seconds(units, track->timescale);
}

}  // namespace

double isoFFgetInterleave(iso_file* file) {
    int tracks = 0;
    if (isoFFfileInfo(file, &tracks, nullptr, nullptr) != 0 || tracks == 0) return 0.0;
    if (file->write_mode) return 0.0;
    // The walk moves on copies of the tracks, so that the tracks' own cursors stay where they are.
    auto* cursors =
        static_cast<iso_track*>(systemmalloc(static_cast<size_t>(tracks) * sizeof(iso_track)));
    if (cursors == nullptr) return -1.0;
    iso_track* cursor = cursors;
    for (const iso_track* track = file->first_track; track != nullptr; track = track->next) {
        *cursor = *track;
        rewind_cursor(cursor++);
    }
    double longest = 0.0;
    // Tracks that lie on each other can take turns as often as their counts claim; no file that was
    // written in turns has so many.
    constexpr int kMostLooks = 1 << 22;
    for (int looks = 0; looks <= kMostLooks; looks += tracks) {
        LowestTwo lowest;
        for (int i = 0; i < tracks; ++i) {
            const bool done = cursors[i].cur_offset == kNoMoreSamples;
            if (cursors[i].sample_count > 0 && !done) lowest.consider(&cursors[i]);
        }
        if (lowest.second == nullptr) break;
        longest = std::max(longest, pass_samples(lowest.first, lowest.second->cur_offset));
    }
    systemfree(cursors);
    return longest;
}
