// SPDX-License-Identifier: Apache-2.0
#include "companion/probe/sample_places.h"

#include <algorithm>
#include <span>

#include "boxes/sample_tables.h"
#include "companion/probe/hint_constructors.h"
#include "companion/probe/media_tracks.h"
#include "interface/src/isoff/record/private.h"

namespace kestrel::probe {
namespace {

// Sizes of samples, by number from 0: of all, or of each.
struct SampleSizes {
    uint32_t of_all = 0;
    const uint32_t* of_each = nullptr;

    uint32_t at(uint64_t sample) const { return of_each == nullptr ? of_all : of_each[sample]; }
};

void set_largest(SamplePlaces& places, const SampleSizes& sizes) {
    places.largest = sizes.of_all;
    if (sizes.of_each != nullptr && places.samples > 0)
        places.largest = *std::max_element(sizes.of_each, sizes.of_each + places.samples);
}

// Returns the number of the last placed sample of at least `least` bytes, from 1; 0 for none.
uint64_t last_of(const SamplePlaces& places, const SampleSizes& sizes, uint32_t least) {
    uint64_t sample = places.placed;
    if (sizes.of_each == nullptr) return sizes.of_all < least ? 0 : sample;
    while (sample > 0 && sizes.at(sample - 1) < least)
        --sample;
    return sample;
}

// Sets what is known of the last samples. The last one that is not empty ends with the last chunk.
void set_last(SamplePlaces& places, const SampleSizes& sizes) {
    places.last_media = last_of(places, sizes, 2);
    places.last_filled = last_of(places, sizes, 1);
    const uint64_t sample = places.last_filled;
    if (sample == 0 || places.chunks.empty()) return;
    const uint64_t end = places.chunks.back().end;
    places.last = {end - std::min<uint64_t>(end, sizes.at(sample - 1)), end};
}

void add_chunk(SamplePlaces& places, const ByteRange& chunk) {
    if (!chunk.is_empty()) places.chunks.push_back(chunk);
}

// Adds a chunk of samples that follow those placed before.
void place_chunk(SamplePlaces& places, const SampleSizes& sizes, uint32_t begin, uint64_t count) {
    ByteRange chunk{begin, begin};
    if (sizes.of_each == nullptr) {
        chunk.end += count * sizes.of_all;
    } else {
        for (uint64_t i = 0; i < count; ++i)
            chunk.end += sizes.of_each[places.placed + i];
    }
    places.placed += count;
    add_chunk(places, chunk);
}

}  // namespace

SamplePlaces places_of(const iso_track* track) {
    SamplePlaces places;
    const SampleSizes sizes{track->sample_size, track->sample_sizes};
    places.samples = track->own->declared_samples;
    set_largest(places, sizes);
    if (track->own->index == nullptr) return places;  // a table is missing, or they disagree
    places.placed = static_cast<uint64_t>(std::max(track->sample_count, 0));
    places.timed = places.placed;  // or there would be no index
    // The reader lets a chunk end with the last offset at the latest.
    for (const iso_chunk& chunk : std::span(track->chunks, static_cast<size_t>(track->chunk_count)))
        add_chunk(places, {chunk.start, uint64_t{chunk.end} + (chunk.end == UINT32_MAX ? 1 : 0)});
    set_last(places, sizes);
    return places;
}

SamplePlaces places_of(const Qvox3gp::StblBox& tables) {
    SamplePlaces places;
    const auto& each = tables.GetStsz()->GetChunkSizes();
    const SampleSizes sizes{tables.GetStsz()->GetSampleSize(),
                            tables.GetStsz()->GetSampleSize() == 0 ? each.data() : nullptr};
    places.samples = sizes.of_each == nullptr ? tables.GetStsz()->GetSampleCount() : each.size();
    set_largest(places, sizes);
    for (const auto& entry : tables.GetStts()->GetSampleEntries())
        places.timed += entry.sample_count;
    const auto& runs = tables.GetStsc()->GetSampleEntries();
    auto run = runs.begin();
    uint32_t chunk = 1, samples_per_chunk = 1;
    for (const uint32_t begin : tables.GetStco()->GetChunkOffsets()) {
        if (run != runs.end() && run->first_chunk == chunk++)
            samples_per_chunk = (run++)->samples_per_chunk;
        place_chunk(places, sizes, begin,
                    std::min<uint64_t>(samples_per_chunk, places.samples - places.placed));
    }
    set_last(places, sizes);
    return places;
}

bool are_misplaced(const SamplePlaces& places, const FileScan& scan) {
    constexpr uint64_t kFirstHeader = 8;
    std::vector<ByteRange> taken{{0, kFirstHeader}};
    for (const TopBox& box : scan.boxes) {
        if (box.type == "ftyp" || box.type == "moov")
            taken.push_back({box.offset, box.offset + box.size});
    }
    return std::any_of(places.chunks.begin(), places.chunks.end(), [&](const ByteRange& chunk) {
        return std::any_of(taken.begin(), taken.end(),
                           [&](const ByteRange& box) { return chunk.meets(box); });
    });
}

bool are_cut(const SamplePlaces& places, const FileScan& scan) {
    return std::any_of(places.chunks.begin(), places.chunks.end(),
                       [&](const ByteRange& chunk) { return chunk.end > scan.file_size; });
}

uint32_t highest_media_sample(KST_IOSTREAM_CALLBACK_INTERFACE& stream, const ByteRange& hint) {
    constexpr uint64_t kMaxBytes = 1 << 16;  // of one hint sample
    std::vector<uint8_t> bytes(static_cast<size_t>(std::min(hint.end - hint.begin, kMaxBytes)));
    uint32_t got = 0;
    const uint32_t status =
        stream.IndexRead(stream.Context, bytes.data(), static_cast<uint32_t>(hint.begin),
                         static_cast<uint32_t>(bytes.size()), &got);
    bytes.resize(status == 0 ? std::min<size_t>(got, bytes.size()) : 0);
    uint32_t highest = 0;
    for_each_sample_constructor(bytes, [&](const SampleConstructor& constructor) {
        if (constructor.track_reference != kHintTrackItself)
            highest = std::max(highest, constructor.sample_number);
    });
    return highest;
}

}  // namespace kestrel::probe
