// SPDX-License-Identifier: Apache-2.0
#include "companion/hinter/samples.h"

#include <algorithm>

#include "interface/src/isoff/write/media_output.h"

namespace kestrel::hinter {
namespace {

bool follows(const importer::Sample& sample, uint64_t end) {
    return sample.size == 0 || sample.offset == end;
}

// Counts the samples from the first on that follow each other without a gap in at most `most`
// bytes; the first may be longer. Returns their number and bytes.
size_t row_of(std::span<const importer::Sample> samples, uint64_t most, uint64_t& bytes) {
    const uint64_t begin = samples[0].offset;
    size_t count = 1;
    bytes = samples[0].size;
    for (; count < samples.size() && follows(samples[count], begin + bytes) &&
           bytes + samples[count].size <= most;
         ++count) {
        bytes += samples[count].size;
    }
    return count;
}

}  // namespace

bool SampleReader::fill(uint64_t offset, uint64_t count) {
    if (window_.size() < count) window_.resize(static_cast<size_t>(count));
    window_begin_ = offset;
    window_bytes_ = 0;
    if (!source_.copy(offset, window_.data(), count)) {
        return outcome_.fail(KST_HINT_SOURCE_FAILED, source_.error());
    }
    window_bytes_ = count;
    return true;
}

std::optional<std::span<const uint8_t>> SampleReader::sample(
    std::span<const importer::Sample> track, size_t number) {
    const importer::Sample& wanted = track[number];
    if (wanted.size == 0) return std::span<const uint8_t>();
    const bool is_there = wanted.offset >= window_begin_ &&
                          wanted.offset + wanted.size <= window_begin_ + window_bytes_;
    if (!is_there) {
        uint64_t bytes = 0;
        row_of(track.subspan(number), kWindow, bytes);
        if (!fill(wanted.offset, bytes)) return {};
    }
    return std::span(window_).subspan(static_cast<size_t>(wanted.offset - window_begin_),
                                      wanted.size);
}

bool SampleReader::copy_bytes(uint64_t offset, uint64_t count, MediaOutput& output) {
    while (count > 0) {
        const uint64_t piece = std::min(count, kWindow);
        if (!fill(offset, piece)) return false;
        if (!output.write(std::span(window_).first(static_cast<size_t>(piece)))) return false;
        if (!outcome_.advance(piece)) return false;
        offset += piece;
        count -= piece;
    }
    return true;
}

bool SampleReader::copy(std::span<const importer::Sample> samples, MediaOutput& output) {
    while (!samples.empty()) {
        uint64_t bytes = 0;
        const size_t count = row_of(samples, kWindow, bytes);
        if (!copy_bytes(samples[0].offset, bytes, output)) return false;
        samples = samples.subspan(count);
    }
    return true;
}

SampleFigures MediaSamples::figures(uint32_t sample) const {
    const importer::Sample& from = samples_[sample];
    return {from.size, factor_.of(from.duration), factor_.of(from.composition_offset),
            from.description - first_description_ + 1};
}

HintSamples::HintSamples(const MediaSamples& media, uint8_t payload_type)
    : media_(media), next_{payload_type, 0, 1} {
    sizes_.reserve(media.count());
}

void HintSamples::add(const HintSample& sample) {
    sizes_.push_back(static_cast<uint32_t>(sample.bytes.size()));
    plan_.add(sample.packets);
}

SampleFigures HintSamples::figures(uint32_t sample) const {
    return {sizes_[sample], media_.figures(sample).duration};
}

bool HintSamples::write(uint32_t first, uint32_t count, MediaOutput& output) {
    for (uint32_t i = 0; i < count; ++i) {
        plan_.take(scratch_.packets);
        make_hint_sample(scratch_.packets, next_, scratch_.bytes);
        if (scratch_.bytes.size() != sizes_[first + i]) return false;
        next_.sequence = static_cast<uint16_t>(next_.sequence + scratch_.packets.size());
        next_.media_sample++;
        if (!output.write(scratch_.bytes)) return false;
    }
    return true;
}

}  // namespace kestrel::hinter
