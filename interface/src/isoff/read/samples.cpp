// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <climits>

#include "interface/src/isoff/read/sample_index.h"
#include "interface/src/isoff/read/track_state.h"
#include "kestrel/kstutil.h"

// Reading samples, at the cursor and by number.

namespace kestrel {
namespace {

// A position in a time table: an entry, and the number of its samples before the position.
struct TimeCursor {
    int32_t& index;
    int32_t& in_entry;

    // Moves from sample `from` to sample `to`. `before` is the number of samples before each entry.
    template <typename Entry>
    void move(const Entry* entries, int32_t count, const uint32_t* before, int32_t from,
              int32_t to) const {
        if (count == 0) return;
        if (from <= to && index < count) {
            const auto passed = static_cast<uint32_t>(to - from);
            if (passed < entries[index].count - static_cast<uint32_t>(in_entry)) {
                in_entry += static_cast<int32_t>(passed);
                return;
            }
        }
        // The last entry that begins at or before the sample is not an empty one. After the last
        // sample it is the end of the table.
        const uint32_t* after =
            std::upper_bound(before + 1, before + count, static_cast<uint32_t>(to));
        index = static_cast<int32_t>(after - before) - 1;
        in_entry = to - static_cast<int32_t>(before[index]);
        if (static_cast<uint32_t>(in_entry) < entries[index].count) return;
        index = count;
        in_entry = 0;
    }
};

// Stores the times of the sample at the cursor, in seconds, in those that are not null.
void store_times(const iso_track* track, double* duration, double* cts_offset) {
    if (duration != nullptr) *duration = seconds(duration_at_cursor(track), track->timescale);
    if (cts_offset == nullptr) return;
    const bool has_entry = track->ctts_index < track->ctts_count;
    *cts_offset =
        has_entry ? seconds(track->ctts[track->ctts_index].offset, track->timescale) : 0.0;
}

// Reads at a file offset with the slots for a complete or an arriving file. Returns the number of
// bytes read, at most `length`; sets `failed` when the stream fails.
uint32_t read_at(iso_file* file, uint32_t offset, void* buffer, uint32_t length, bool& failed) {
    uint32_t got = 0;
    std::memset(buffer, 0, length);  // a host may report bytes that it did not write
    if (file->indexed_read) {
        failed = kstutil_indexread(file->stream, buffer, offset, length, &got) != 0;
    } else {
        got = length;
        failed = kstutil_seek(file->stream, static_cast<int32_t>(offset)) != 0 ||
                 kstutil_seeknread(file->stream, buffer, &got) != 0;
    }
    return failed ? 0 : std::min(got, length);
}

// Returns the bytes of the track's data from `offset` to the end of the chunk at the cursor.
uint32_t bytes_to_chunk_end(const iso_track* track, uint32_t offset) {
    if (track->cur_chunk >= track->chunk_count) return 0;
    const uint32_t end = track->chunks[track->cur_chunk].end;
    return offset < end ? end - offset : 0;
}

uint32_t read_sample_bytes(iso_track* track, uint32_t offset, void* buffer, uint32_t length,
                           bool& failed) {
    failed = false;
    ReadWindow& window = track->own->index->window;
    const uint8_t* ahead = is_small_piece(size_at_cursor(track), length)
                               ? from_window(track, offset, length)
                               : nullptr;
    if (ahead != nullptr) {
        window.earn(length);
        std::memcpy(buffer, ahead, length);
        return length;
    }
    const uint32_t got = read_at(track->file, offset, buffer, length, failed);
    window.earn(got);
    if (got == length) window.arrive(offset, length);
    track->file->own->missing = got < length ? uint64_t{offset} + length : 0;
    return got;
}

// Returns how many samples follow the current one in its chunk: at most `most`, and no more than
// kFarEnough.
uint32_t next_in_chunk(const iso_track* track, uint32_t most) {
    constexpr uint32_t kFarEnough = 64;
    if (track->cur_chunk >= track->chunk_count) return 0;
    const uint32_t end = track->chunks[track->cur_chunk].end;
    const auto left = static_cast<uint32_t>(track->sample_count - track->cur_sample) - 1;
    uint64_t offset = track->cur_offset;
    uint32_t next = 0;
    for (; next < std::min({left, most, kFarEnough}); ++next) {
        offset += sample_size_of(track, track->cur_sample + static_cast<int32_t>(next));
        if (offset >= end) break;
    }
    return next;
}

// A track that is being written has no tables yet.
bool is_readable(const iso_track* track) {
    return track != nullptr && !track->file->write_mode;
}

}  // namespace

void move_times(iso_track* track, int32_t from) {
    const iso_index& index = *track->own->index;
    const int32_t to = track->cur_sample;
    TimeCursor{track->stts_index, track->stts_in_entry}.move(track->stts, track->stts_count,
                                                             index.stts_samples, from, to);
    TimeCursor{track->ctts_index, track->ctts_in_entry}.move(track->ctts, track->ctts_count,
                                                             index.ctts_samples, from, to);
}

void advance_by_tables(iso_track* track) {
    const int32_t from = track->cur_sample;
    advance_place(track, 1);
    move_times(track, from);
    if (track->ctts_count > 0 || track->cur_sample >= track->sample_count) return;
    const uint32_t in_entry =
        track->stts[track->stts_index].count - static_cast<uint32_t>(track->stts_in_entry);
    if (in_entry > 1) track->own->next_alike = next_in_chunk(track, in_entry - 1);
}

const uint8_t* fill_window(iso_track* track, uint64_t wanted, uint32_t length) {
    if (wanted > UINT32_MAX) return nullptr;
    const auto offset = static_cast<uint32_t>(wanted);
    ReadWindow& window = track->own->index->window;
    const uint32_t ahead = std::min(bytes_to_chunk_end(track, offset), ReadWindow::kRoom);
    if (ahead <= length) return nullptr;
    // No reading ahead for a caller that jumps: a second piece must follow the first one or the
    // beginning of a chunk, except for bytes that a packet replaces by its own.
    constexpr uint32_t kGap = 64;
    const bool goes_on = offset - window.start <= window.length + kGap ||
                         offset - track->chunks[track->cur_chunk].start <= kGap;
    if (!goes_on || window.waits() || ahead > window.credit) {
        window.start = saturating_add(offset, length);
        window.length = 0;
        return nullptr;
    }
    if (window.bytes == nullptr) {
        window.bytes = arena_array<uint8_t>(track->file, ReadWindow::kRoom);
        if (window.bytes == nullptr) return nullptr;
    }
    bool failed = false;
    window.credit -= ahead;
    window.start = offset;
    window.length = read_at(track->file, offset, window.bytes, ahead, failed);
    if (length <= window.length) return window.bytes;
    window.fail(offset, ahead);
    return nullptr;
}

Missing look_for_missing(iso_file* file) {
    const uint64_t end = file->own->missing;
    if (end == 0) return Missing::kArrived;
    // A piece that crosses 4 GiB never arrives whole.
    const auto last = static_cast<uint32_t>(std::min(end - 1, uint64_t{UINT32_MAX}));
    uint8_t byte = 0;
    bool failed = false;
    if (read_at(file, last, &byte, 1, failed) == 1) return Missing::kArrived;
    return failed ? Missing::kWaits : Missing::kAfterEnd;
}

namespace {

// The last checkpoint that is not after `sample`.
const Checkpoint& checkpoint_before(const iso_track* track, int32_t sample) {
    const Checkpoint* first = track->own->index->checkpoints;
    const Checkpoint* after =
        std::upper_bound(first + 1, first + track->own->index->checkpoint_count, sample,
                         [](int32_t wanted, const Checkpoint& at) { return wanted < at.sample; });
    return *(after - 1);
}

void stand_at(iso_track* track, const Checkpoint& at) {
    track->cur_sample = at.sample;
    track->cur_chunk = at.chunk;
    track->cur_offset = at.offset;
}

}  // namespace

void set_sample_pos(iso_track* track, int32_t target) {
    const int32_t from = track->cur_sample;
    if (target == from) return;
    track->own->next_alike = 0;
    if (target < from || static_cast<uint32_t>(target - from) > kStepsPerCheckpoint) {
        const Checkpoint& nearest = checkpoint_before(track, target);
        if (target < from || nearest.sample > from) stand_at(track, nearest);
    }
    while (track->cur_sample < target)
        advance_place(track, static_cast<uint32_t>(target - track->cur_sample));
    move_times(track, from);
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
    const uint32_t got = read_sample_bytes(track, track->cur_offset, buffer, size, failed);
    if (failed || got < size) return -2;
    store_times(track, duration, cts_offset);
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
    const uint32_t got = read_sample_bytes(track, from, buffer, wanted, failed);
    // A failure of the positioned read is reported; a failure of a seek or plain read returns 0
    // bytes.
    if (failed && track->file->indexed_read) return -2;
    store_times(track, duration, cts_offset);
    return static_cast<int>(got);
}

int isoFFsetPosition(iso_track* track, int sample) {
    if (!is_readable(track) || sample < 0 || sample >= track->sample_count) return -1;
    set_sample_pos(track, sample);
    track->own->positioned = 1;
    return 0;
}

int isoFFframeInfo(iso_track* track, double* duration, int* size) {
    if (!is_readable(track) || track->cur_sample >= track->sample_count) return -1;
    store_times(track, duration, nullptr);
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

// The tracks with the lowest and second lowest file position; null for none. Of equals the earlier
// one in the list is first.
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

// How many samples with one duration that begin before `limit` one step may skip: at least one.
uint32_t samples_at_once_before(const iso_track* track, uint32_t limit) {
    if (track->sample_size == 0 || track->cur_offset >= limit) return 1;
    const uint32_t bytes = limit - track->cur_offset;
    const uint32_t samples = bytes / track->sample_size + (bytes % track->sample_size != 0 ? 1 : 0);
    const auto left = static_cast<uint32_t>(track->sample_count - track->cur_sample);
    const uint32_t same_duration =
        track->stts[track->stts_index].count - static_cast<uint32_t>(track->stts_in_entry);
    return std::min({samples, left, same_duration});
}

// Skips the samples of `track` before offset `limit`, at least one. Returns their duration.
double skip_samples_before(iso_track* track, uint32_t limit) {
    double units = 0.0;
    do {
        const int32_t from = track->cur_sample;
        const double duration = duration_at_cursor(track);
        advance_place(track, samples_at_once_before(track, limit));
        units += duration * (track->cur_sample - from);
        move_times(track, from);
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
    // The walk moves copies of the tracks, so that the cursors of the tracks stay. It clears
    // next_alike in the private records, which the copies share.
    auto* cursors =
        static_cast<iso_track*>(systemmalloc(static_cast<size_t>(tracks) * sizeof(iso_track)));
    if (cursors == nullptr) return -1.0;
    iso_track* cursor = cursors;
    for (const iso_track* track = file->first_track; track != nullptr; track = track->next) {
        *cursor = *track;
        rewind_cursor(cursor++);
    }
    // Tables with overlapping samples can cause any number of turns.
    constexpr int kMaxVisits = 1 << 22;
    double longest = 0.0;
    for (int turns = kMaxVisits / tracks; turns > 0; --turns) {
        LowestTwo lowest;
        for (int i = 0; i < tracks; ++i) {
            const bool done = cursors[i].cur_offset == kNoMoreSamples;
            if (cursors[i].sample_count > 0 && !done) lowest.consider(&cursors[i]);
        }
        if (lowest.second == nullptr) break;
        longest = std::max(longest, skip_samples_before(lowest.first, lowest.second->cur_offset));
    }
    systemfree(cursors);
    return longest;
}
