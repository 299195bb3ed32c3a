// SPDX-License-Identifier: Apache-2.0
// Finding a sample in few steps, and moving the cursor of a track. All readers of samples use this
// file. Functions that run for each packet are inline.
#ifndef KESTREL_INTERFACE_ISOFF_INDEX_H
#define KESTREL_INTERFACE_ISOFF_INDEX_H

#include <algorithm>

#include "interface/src/isoff/record/record.h"

namespace kestrel {

// One step of the cursor walk is a sample, or with a constant sample size the rest of a chunk. The
// index has a checkpoint every so many steps.
inline constexpr uint32_t kStepsPerCheckpoint = 32;

// The position of a sample in the walk.
struct Checkpoint {
    int32_t sample;
    int32_t chunk;
    uint32_t offset;
};

// Ticks of a clock of `rate` Hz in one hint sample of a time entry. Kept, because dividing takes
// much of the time of a short packet.
struct RtpStep {
    int32_t entry;
    uint32_t rate;  // 0: nothing is kept
    double units;
};

// Bytes of the file that were read ahead for one track, from `start` on. Reading ahead costs credit
// and using the bytes earns it, so that tables that make readers jump cannot cause many more bytes
// to be read than are used.
struct ReadWindow {
    static constexpr uint32_t kRoom = 4096;
    static constexpr uint64_t kFirstCredit = 2 * kRoom;
    static constexpr uint64_t kCreditPerByte = 2;
    // While a file is arriving, the bytes ahead are often missing. After a failure to read ahead,
    // the next attempt waits until plain reads have delivered these bytes, and until this many
    // plain reads have succeeded, which limits the calls that fail.
    static constexpr uint32_t kReadsAfterFailure = 10;

    uint8_t* bytes;  // null before the first read ahead
    uint32_t start;
    uint32_t length;
    uint64_t credit;  // bytes that may still be read ahead
    uint32_t wait;    // reads that must succeed before reading ahead is tried again
    uint32_t awaited_from, awaited_end;  // bytes that were missing; end 0: none

    void earn(uint32_t taken) { credit += kCreditPerByte * taken; }
    bool waits() const { return wait > 0 || awaited_end != 0; }

    void fail(uint32_t offset, uint32_t ahead) {
        wait = kReadsAfterFailure;
        awaited_from = offset;
        awaited_end = offset + ahead;
    }

    // A plain read has delivered these bytes.
    void arrive(uint32_t offset, uint32_t count) {
        if (wait > 0) --wait;
        const bool covers = uint64_t{offset} + count >= awaited_end;
        if (covers || offset < awaited_from) awaited_end = 0;
    }
};

}  // namespace kestrel

// The index of an iso_track, made by check_tables. Like the tables it is in the file's arena.
struct iso_index {
    kestrel::Checkpoint* checkpoints;  // at least one, the first at sample 0
    size_t checkpoint_count;
    // Number of samples before each entry of the table.
    uint32_t* stts_samples;
    uint32_t* ctts_samples;
    kestrel::ReadWindow window;
    kestrel::RtpStep rtp_step;
};

namespace kestrel {

// Makes the index of a track whose tables agree, and moves the cursor to the first sample. Returns
// false without memory.
bool make_index(iso_track* track);

// --- the cursor ---

// Moves the cursor past as many samples as one step can skip: at least one and at most `wanted`.
// The caller moves the times.
void advance_place(iso_track* track, uint32_t wanted);

// Moves the time cursors from sample `from` to the sample at the cursor.
void move_times(iso_track* track, int32_t from);

// Moves the cursor to the first sample.
void rewind_cursor(iso_track* track);

// File offsets have 32 bits.
inline uint32_t saturating_add(uint32_t offset, uint64_t bytes) {
    return static_cast<uint32_t>(std::min<uint64_t>(offset + bytes, UINT32_MAX));
}

inline uint32_t size_at_cursor(const iso_track* track) {
    return sample_size_of(track, track->cur_sample);
}

// Moves the cursor past `samples` samples of its chunk, which have `bytes` bytes in all.
inline void skip_in_chunk(iso_track* track, uint32_t samples, uint64_t bytes) {
    track->cur_sample += static_cast<int32_t>(samples);
    track->cur_offset = saturating_add(track->cur_offset, bytes);
    if (track->cur_chunk >= track->chunk_count ||
        track->cur_offset < track->chunks[track->cur_chunk].end) {
        return;
    }
    track->cur_chunk++;
    if (track->cur_chunk < track->chunk_count) {
        track->cur_offset = track->chunks[track->cur_chunk].start;
    }
}

// Moves the cursor to the next sample by the tables, and stores how many samples after it are
// alike.
void advance_by_tables(iso_track* track);

// Moves the cursor, which is not after the last sample, to the next sample.
inline void advance_cursor(iso_track* track) {
    if (track->own->next_alike == 0) [[unlikely]] {
        advance_by_tables(track);
        return;
    }
    track->own->next_alike--;
    track->stts_in_entry++;
    track->cur_offset += size_at_cursor(track);
    track->cur_sample++;
}

// Moves the cursor to any sample of the track.
void set_sample_pos(iso_track* track, int32_t target);

// Moves the cursor to a sample of the track; fast for the current sample and the next one.
inline void move_cursor(iso_track* track, int32_t target) {
    if (target == track->cur_sample) return;
    if (target == track->cur_sample + 1) {
        advance_cursor(track);
    } else {
        set_sample_pos(track, target);
    }
}

// Duration of the sample at the cursor, track units.
inline uint32_t duration_at_cursor(const iso_track* track) {
    return track->stts_index < track->stts_count ? track->stts[track->stts_index].delta : 0;
}

// --- the window ---

// Whether to read ahead for a piece of a sample: if the sample is small, so that others follow, or
// if the piece is as short as a descriptor in a hint sample. The bytes after any other piece are
// mostly long and come straight from the stream.
inline bool is_small_piece(uint32_t sample_size, uint32_t length) {
    constexpr uint32_t kSmallSample = 512;
    constexpr uint32_t kTinyPiece = 16;
    return sample_size < kSmallSample || length <= kTinyPiece;
}

// Reads ahead from `offset` up to the end of the chunk at the cursor at most, which the track needs
// next in any case. Returns null when the window does not hold `length` bytes there. A failure to
// read ahead is not reported, because the bytes that are needed may still be there.
const uint8_t* fill_window(iso_track* track, uint64_t offset, uint32_t length);

// Returns `length` bytes of the track's data at `offset` from the window, or null if they must be
// read from the stream. Valid until the next call for the track. The caller calls earn() for the
// bytes that it uses.
inline const uint8_t* from_window(iso_track* track, uint64_t offset, uint32_t length) {
    const ReadWindow& window = track->own->index->window;
    const uint64_t into = offset - window.start;  // large for an offset before the window
    if (into <= window.length && into + length <= window.length) [[likely]]
        return window.bytes + into;
    return fill_window(track, offset, length);
}

}  // namespace kestrel

#endif
