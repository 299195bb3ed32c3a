// SPDX-License-Identifier: Apache-2.0
#include "companion/packer/packed_samples.h"

#include <algorithm>

#include "interface/src/isoff/write/media_output.h"

namespace kestrel::packer {

SampleFigures PackedSamples::figures(uint32_t sample) const {
    const int32_t composition = timeline_.composition.empty() ? 0 : timeline_.composition[sample];
    return {store_.samples()[sample].size, timeline_.durations[sample], composition};
}

// Samples stand one after the other in the spool.
bool PackedSamples::write(uint32_t first, uint32_t count, MediaOutput& output) {
    constexpr uint64_t kPiece = 256 << 10;
    if (count == 0) return true;
    const std::vector<Sample>& samples = store_.samples();
    uint64_t at = samples[first].offset;
    const Sample& last = samples[first + count - 1];
    for (uint64_t left = last.offset + last.size - at; left > 0;) {
        const uint64_t piece = std::min(left, kPiece);
        scratch_.resize(static_cast<size_t>(piece));
        if (!store_.read(at, scratch_) || !output.write(scratch_)) return false;
        at += piece;
        left -= piece;
    }
    return true;
}

bool PackedHints::plan(iso_track* hint) {
    store_.packets().rewind();
    uint32_t sample = 0;
    for (const uint32_t samples : store_.hints()) {
        uint64_t duration = 0;
        for (uint32_t i = 0; i < samples; ++i)
            duration += media_.figures(sample + i).duration;
        if (duration > UINT32_MAX) return false;
        store_.packets().take(scratch_.packets);
        if (make_hint_of_packets(hint, media_.figures(sample).cts_offset, scratch_) != 0)
            return false;
        count_hint(hint, scratch_, static_cast<uint32_t>(duration), samples);
        sizes_.push_back(static_cast<uint32_t>(scratch_.bytes.size()));
        durations_.push_back(static_cast<uint32_t>(duration));
        packets_ += scratch_.packets.size();
        sample += samples;
    }
    store_.packets().rewind();
    next_.payload_type = static_cast<uint8_t>(hint->last_payload_type);
    return true;
}

bool PackedHints::write(uint32_t first, uint32_t count, MediaOutput& output) {
    for (uint32_t i = first; i < first + count; ++i) {
        store_.packets().take(scratch_.packets);
        // The RTP clock counts as the track does.
        const SampleFigures media = media_.figures(next_.media_sample - 1);
        if (media.cts_offset != 0) scratch_.packets.move_times(media.cts_offset);
        make_hint_sample(scratch_.packets, next_, scratch_.bytes);
        if (scratch_.bytes.size() != sizes_[i] || !output.write(scratch_.bytes)) return false;
        next_.sequence = static_cast<uint16_t>(next_.sequence + scratch_.packets.size());
        next_.media_sample += store_.hints()[i];
    }
    return true;
}

}  // namespace kestrel::packer
