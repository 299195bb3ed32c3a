// SPDX-License-Identifier: Apache-2.0
#include "interface/src/isoff/read/sample_index.h"

#include <algorithm>

// The index of a track. It is made by the same walk as reading, so a checkpoint is the position
// that a walk from the first sample finds, whatever the tables say.

namespace kestrel {
namespace {

// How many samples of constant size one step may skip, of `wanted`: those up to the end of the
// chunk; after the last chunk, all of them.
uint32_t samples_at_once(const iso_track* track, uint32_t wanted) {
    if (track->sample_size == 0) return 1;
    if (track->cur_chunk >= track->chunk_count) return wanted;
    const uint32_t end = track->chunks[track->cur_chunk].end;
    if (track->cur_offset >= end) return 1;
    const uint32_t bytes = end - track->cur_offset;
    const uint32_t left = bytes / track->sample_size + (bytes % track->sample_size != 0 ? 1 : 0);
    return std::min(wanted, left);
}

// Limit of the steps of a walk over the whole track. With a constant size each step but the last
// enters another chunk.
size_t most_steps(const iso_track* track) {
    const auto samples = static_cast<size_t>(track->sample_count);
    if (track->sample_size == 0) return samples;
    return std::min(samples, static_cast<size_t>(track->chunk_count) + 1);
}

bool make_checkpoints(iso_track* track, iso_index* index) {
    const size_t most = most_steps(track) / kStepsPerCheckpoint + 1;
    index->checkpoints = arena_array<Checkpoint>(track->file, most);
    if (index->checkpoints == nullptr) return false;
    rewind_cursor(track);
    uint32_t step = 0;
    do {
        if (step++ % kStepsPerCheckpoint == 0 && index->checkpoint_count < most) {
            index->checkpoints[index->checkpoint_count++] = {track->cur_sample, track->cur_chunk,
                                                             track->cur_offset};
        }
        if (track->cur_sample < track->sample_count) {
            advance_place(track, static_cast<uint32_t>(track->sample_count - track->cur_sample));
        }
    } while (track->cur_sample < track->sample_count);
    rewind_cursor(track);
    return true;
}

// Returns the first entry of a time table that stands for a sample; the end of the table for none.
template <typename Entry>
int32_t first_in_force(const Entry* entries, int32_t count) {
    int32_t index = 0;
    while (index < count && entries[index].count == 0)
        ++index;
    return index;
}

// Counts the samples before each entry of a time table.
template <typename Entry>
bool count_samples(iso_track* track, const Entry* entries, int32_t count, uint32_t*& before) {
    before = arena_array<uint32_t>(track->file, static_cast<size_t>(count));
    if (before == nullptr) return false;
    uint32_t samples = 0;
    for (int32_t i = 0; i < count; ++i) {
        before[i] = samples;
        samples = saturating_add(samples, entries[i].count);
    }
    return true;
}

}  // namespace

void rewind_cursor(iso_track* track) {
    track->cur_sample = 0;
    track->cur_chunk = 0;
    track->cur_offset = track->chunk_count >= 1 ? track->chunks[0].start : 0;
    track->stts_index = first_in_force(track->stts, track->stts_count);
    track->ctts_index = first_in_force(track->ctts, track->ctts_count);
    track->stts_in_entry = track->ctts_in_entry = 0;
    track->own->next_alike = 0;
}

void advance_place(iso_track* track, uint32_t wanted) {
    const uint32_t samples = samples_at_once(track, wanted);
    skip_in_chunk(track, samples, uint64_t{samples} * size_at_cursor(track));
}

bool make_index(iso_track* track) {
    track->own->index = arena_array<iso_index>(track->file, 1);
    if (track->own->index == nullptr) return false;
    track->own->index->window.credit = ReadWindow::kFirstCredit;
    return make_checkpoints(track, track->own->index) &&
           count_samples(track, track->stts, track->stts_count, track->own->index->stts_samples) &&
           count_samples(track, track->ctts, track->ctts_count, track->own->index->ctts_samples);
}

}  // namespace kestrel
