// SPDX-License-Identifier: Apache-2.0
#include "interface/src/isoff/write/chunk_layout.h"

#include <algorithm>

namespace kestrel {
namespace {

// The samples of a track that are not in a chunk yet.
struct Queue {
    iso_track* track;
    SampleWalk next;
    uint64_t time;  // of `next`, track units
    size_t number;  // of the track in the list

    uint64_t timescale() const { return std::max<uint32_t>(track->timescale, 1); }

    // Whether the samples of `other` come first: those with the lower time, or with the same time
    // and the earlier track. Computed in whole numbers, so that files are equal on all machines;
    // times and timescales have 32 bits each.
    bool operator<(const Queue& other) const {
        const uint64_t own = time * other.timescale();
        const uint64_t others = other.time * timescale();
        return own != others ? own > others : number > other.number;
    }
};

// Adds samples to the last chunk while its span allows, at least one. Returns their bytes.
uint64_t fill_run(Queue& queue) {
    uint64_t bytes = 0;
    uint64_t units = 0;
    iso_run* run = queue.track->own->last_run;
    SampleFigures sample = queue.next.figures();
    do {
        bytes += sample.size;
        units += sample.duration;
        run->samples++;
        queue.next.next();
        if (queue.next.at_end()) break;
        sample = queue.next.figures();
    } while (sample.description == run->description &&
             span_allows(queue.track, units, sample.duration));
    queue.time += units;
    return bytes;
}

}  // namespace

bool begin_run(iso_track* track, uint32_t start, uint32_t description) {
    auto* run = arena_array<iso_run>(track->file, 1);
    if (run == nullptr) return false;
    run->start = start;
    run->description = description;
    (track->own->last_run == nullptr ? track->own->first_run : track->own->last_run->next) = run;
    track->own->last_run = run;
    track->own->run_count++;
    track->own->run_units = 0;
    return true;
}

bool span_allows(const iso_track* track, uint64_t units, uint64_t more) {
    return static_cast<double>(units + more) <= track->file->interleave_span * track->timescale;
}

std::optional<uint64_t> lay_out_chunks(iso_file* file) {
    std::priority_queue<Queue> queues;  // its top has the next samples
    size_t number = 0;
    for (iso_track* track = file->first_track; track != nullptr; track = track->next) {
        const SampleWalk first(track);
        if (!first.at_end()) queues.push({track, first, 0, number++});
    }
    uint64_t media = 0;
    while (!queues.empty() && media <= UINT32_MAX) {
        Queue queue = queues.top();
        queues.pop();
        const uint32_t description = queue.next.figures().description;
        if (!begin_run(queue.track, static_cast<uint32_t>(media), description)) return {};
        media += fill_run(queue);
        if (!queue.next.at_end()) queues.push(queue);
    }
    return media;
}

ChunkOrder::ChunkOrder(const iso_file* file) {
    size_t number = 0;
    for (iso_track* track = file->first_track; track != nullptr; track = track->next) {
        const iso_run* run = track->own->first_run;
        if (run != nullptr) tracks_.push({track, run, SampleWalk(track), number++});
    }
}

ChunkOrder::Chunk ChunkOrder::next() {
    Position position = tracks_.top();
    tracks_.pop();
    const Chunk chunk = {position.track, position.sample, position.run->samples};
    position.sample.skip(position.run->samples);
    position.run = position.run->next;
    if (position.run != nullptr) tracks_.push(position);
    return chunk;
}

}  // namespace kestrel
