// SPDX-License-Identifier: Apache-2.0
#include "companion/packer/packed_samples.h"

#include <algorithm>
#include <utility>

#include "interface/src/isoff/write/media_output.h"
#include "native/stream/depacketise.h"

namespace kestrel::packer {

namespace {

// Leaves the AU headers of all packets out.
void leave_out_headers_of(HintPackets& packets) {
    HintPackets media;
    for (size_t i = 0; i < packets.size(); ++i) {
        const HintPacket packet = packets[i];
        media.begin_packet(packet.time_offset);
        if (packet.marker) media.set_marker();
        media.add_own(stream::after_au_headers(packet.own));
        for (const SampleRange& range : packet.ranges)
            media.add_range(range.offset, range.length, range.sample);
    }
    packets = std::move(media);
}

}  // namespace

SampleFigures PackedSamples::figures(uint32_t sample) const {
    return {store_.size_of(sample), timeline_.duration_of(sample),
            timeline_.composition_of(sample)};
}

// Samples are adjacent in the spool, in the order of writing.
bool PackedSamples::write(uint32_t first, uint32_t count, MediaOutput& output) {
    constexpr uint64_t kPiece = 256 << 10;
    uint64_t left = 0;
    for (uint32_t i = 0; i < count; ++i)
        left += store_.size_of(first + i);
    for (uint64_t piece = 0; left > 0; left -= piece) {
        piece = std::min(left, kPiece);
        scratch_.resize(static_cast<size_t>(piece));
        if (!store_.read(written_, scratch_) || !output.write(scratch_)) return false;
        written_ += piece;
    }
    return true;
}

void PackedHints::take_packets() {
    store_.packets().take(scratch_.packets);
    if (!with_au_headers_) leave_out_headers_of(scratch_.packets);
    // As each hint sample has, also that of a picture whose packets were all left out.
    if (scratch_.packets.empty()) scratch_.packets.begin_packet();
}

bool PackedHints::plan(iso_track* hint) {
    if (!store_.may_be_hinted()) return false;
    store_.packets().rewind();
    uint32_t sample = 0;
    for (size_t i = 0; i < store_.hints().size(); ++i) {
        const auto samples = static_cast<uint32_t>(store_.hints()[i]);
        uint64_t duration = 0;
        for (uint32_t of_hint = 0; of_hint < samples; ++of_hint)
            duration += media_.figures(sample + of_hint).duration;
        if (duration > UINT32_MAX) return false;
        take_packets();
        if (make_hint_of_packets(hint, media_.figures(sample).cts_offset, scratch_) != 0)
            return false;
        count_hint(hint, scratch_, static_cast<uint32_t>(duration), samples);
        sizes_.push_back(scratch_.bytes.size());
        durations_.push_back(duration);
        packets_ += scratch_.packets.size();
        sample += samples;
    }
    store_.packets().rewind();
    next_.payload_type = static_cast<uint8_t>(hint->last_payload_type);
    return true;
}

bool PackedHints::write(uint32_t first, uint32_t count, MediaOutput& output) {
    for (uint32_t i = first; i < first + count; ++i) {
        take_packets();
        // The RTP clock counts as the track does.
        const SampleFigures media = media_.figures(next_.media_sample - 1);
        if (!scratch_.packets.move_times(media.cts_offset)) return false;
        make_hint_sample(scratch_.packets, next_, scratch_.bytes);
        if (scratch_.bytes.size() != sizes_[i] || !output.write(scratch_.bytes)) return false;
        next_.sequence = static_cast<uint16_t>(next_.sequence + scratch_.packets.size());
        next_.media_sample += static_cast<uint32_t>(store_.hints()[i]);
    }
    return true;
}

}  // namespace kestrel::packer
