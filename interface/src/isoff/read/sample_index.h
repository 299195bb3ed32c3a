// SPDX-License-Identifier: Apache-2.0
// Finding a sample at once, and moving the cursor of a track: every reader of samples goes through
// here. What is done for each packet is defined inline.
#ifndef KESTREL_INTERFACE_ISOFF_INDEX_H
#define KESTREL_INTERFACE_ISOFF_INDEX_H

#include <algorithm>

#include "interface/src/isoff/record/record.h"

namespace kestrel {

// The cursor walk takes one step for a sample, or for all samples of a chunk that lie ahead where
// their size is constant. Every so many steps leave a checkpoint.
inline constexpr uint32_t kStepsPerCheckpoint = 32;

// Where the walk finds a sample.
struct Checkpoint {
    int32_t sample;
    int32_t chunk;
    uint32_t offset;
};

// What a hint sample of a time entry adds to a clock of `rate` Hz. Kept, since dividing takes as
// long as much else that a short packet needs.
struct RtpStep {
    int32_t entry;
    uint32_t rate;  // 0: nothing is kept, or nothing is to be added
    double units;
};

// What was read ahead of one track: bytes of the file from `start` on. Bytes that are read ahead
// cost credit, and bytes that are taken earn it, so that tables which make readers jump about
// cannot have much more read than is taken.
struct ReadWindow {
    static constexpr uint32_t kRoom = 4096;
    static constexpr uint64_t kFirstCredit = 2 * kRoom;
    static constexpr uint64_t kCreditPerByte = 2;
    // Of a file that arrives, what lies ahead is not there. After reading ahead failed, it is not
    // tried again before the bytes that it asked for have come in reads of exactly what is wanted,
    // nor before so many of these, which bounds the calls that fail.
    static constexpr uint32_t kReadsAfterFailure = 10;

    uint8_t* bytes;  // null until a read could use them
    uint32_t start;
    uint32_t length;
    uint64_t credit;  // bytes that may still be read ahead
    uint32_t wait;    // reads that must succeed before reading ahead is tried again
    uint32_t awaited_from, awaited_end;  // what reading ahead failed to get; end 0: nothing

    void earn(uint32_t taken) { credit += kCreditPerByte * taken; }
    bool waits() const { return wait > 0 || awaited_end != 0; }

    void fail(uint32_t offset, uint32_t ahead) {
        wait = kReadsAfterFailure;
        awaited_from = offset;
        awaited_end = offset + ahead;
    }

    // Exactly these bytes have come.
    void arrive(uint32_t offset, uint32_t count) {
        if (wait > 0) --wait;
        const bool covers = uint64_t{offset} + count >= awaited_end;
        if (covers || offset < awaited_from) awaited_end = 0;
    }
};

}  // namespace kestrel

// What an iso_track hangs its index from; made by check_tables. Like the tables it lives in the
// file's arena.
struct iso_index {
    kestrel::Checkpoint* checkpoints;  // at least one, the first at sample 0
    size_t checkpoint_count;
    // How many samples lie before each entry; as long as the tables.
    uint32_t* stts_samples;
    uint32_t* ctts_samples;
    kestrel::ReadWindow window;
    kestrel::RtpStep rtp_step;
};

namespace kestrel {

// Makes the index of a track whose tables agree, and puts the cursor on the first sample; false
// when there is no memory.
bool make_index(iso_track* track);

// --- the cursor ---

// Moves the cursor past as many samples as one step can skip: at least one and at most `wanted`.
// The caller moves the times.
void advance_place(iso_track* track, uint32_t wanted);

// Brings the times of the cursor, which were those of sample `from`, to where it stands.
void move_times(iso_track* track, int32_t from);

// Puts the cursor on the first sample.
void rewind_cursor(iso_track* track);

// Offsets in the file stop at 32 bits.
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

// Moves the cursor on to the next sample by the tables, and notes what lies ahead.
void advance_by_tables(iso_track* track);

// Moves the cursor, which is not past the last sample, to the next.
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

// Moves the cursor to a sample of the track; most often that is the one at hand or the next.
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

// Whether a piece of a sample, no longer than that, is worth reading ahead from: one of a small
// sample, which others follow, or a tiny one, as a descriptor in a hint sample is. What follows any
// other piece is mostly long, and comes straight from the stream.
inline bool is_small_piece(uint32_t sample_size, uint32_t length) {
    constexpr uint32_t kSmallSample = 512;
    constexpr uint32_t kTinyPiece = 16;
    return sample_size < kSmallSample || length <= kTinyPiece;
}

// Reads ahead from `offset`, to the end of the chunk at the cursor at most: what the track will be
// asked for next in any case. Returns null when the window cannot serve `length` bytes there; a
// failure of reading ahead is of no account, since what is asked for may be there all the same.
const uint8_t* fill_window(iso_track* track, uint64_t offset, uint32_t length);

// `length` bytes of the track's data at `offset`, read ahead; null when they have to be read from
// the stream. Valid until the next call for the track. The caller has the window earn what it
// takes.
inline const uint8_t* from_window(iso_track* track, uint64_t offset, uint32_t length) {
    const ReadWindow& window = track->own->index->window;
    const uint64_t into = offset - window.start;  // huge before the window
    if (into <= window.length && into + length <= window.length) [[likely]]
        return window.bytes + into;
    return fill_window(track, offset, length);
}

}  // namespace kestrel

#endif
