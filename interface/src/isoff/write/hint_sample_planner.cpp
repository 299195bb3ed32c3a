// SPDX-License-Identifier: Apache-2.0
#include "interface/src/isoff/write/hint_sample_planner.h"

#include <algorithm>
#include <array>

#include "common/bytes.h"
#include "native/codec/amr_format.h"
#include "native/codec/h264_units.h"
#include "native/codec/rtp_header.h"

namespace kestrel {

size_t HintPacket::size() const {
    size_t bytes = kRtpHeaderSize + own.size();
    for (const SampleRange& range : ranges)
        bytes += range.length;
    return bytes;
}

HintPacket HintPackets::operator[](size_t packet) const {
    const Record& record = packets_[packet];
    const bool is_last = packet + 1 == packets_.size();
    const size_t own_end = is_last ? own_.size() : packets_[packet + 1].first_own;
    const size_t ranges_end = is_last ? ranges_.size() : packets_[packet + 1].first_range;
    return {record.marker, record.time_offset,
            std::span(own_).subspan(record.first_own, own_end - record.first_own),
            std::span(ranges_).subspan(record.first_range, ranges_end - record.first_range)};
}

void HintPackets::clear() {
    packets_.clear();
    own_.clear();
    ranges_.clear();
}

void HintPackets::begin_packet(int32_t time_offset) {
    packets_.push_back({false, time_offset, own_.size(), ranges_.size()});
}

void HintPackets::add_own(std::span<const uint8_t> bytes) {
    own_.insert(own_.end(), bytes.begin(), bytes.end());
}

void HintPackets::add_range(size_t offset, size_t length, uint32_t sample) {
    if (length == 0) return;
    ranges_.push_back({static_cast<uint32_t>(offset), static_cast<uint32_t>(length), sample});
}

bool HintPackets::move_times(int64_t offset) {
    for (Record& packet : packets_) {
        const int64_t moved = packet.time_offset + offset;
        if (moved < INT32_MIN || moved > INT32_MAX) return false;
        packet.time_offset = static_cast<int32_t>(moved);
    }
    return true;
}

namespace {

// --- speech ---

struct SpeechFrame {
    size_t offset;  // of its header byte
    size_t speech;  // bytes after it
    uint8_t header;
};

// Returns the frames of a sample; false when they do not fill it exactly.
bool find_frames(std::span<const uint8_t> sample, bool wide_band,
                 std::vector<SpeechFrame>& frames) {
    for (size_t at = 0; at < sample.size();) {
        const int type = storage_frame_type(sample[at]);
        const auto size =
            static_cast<size_t>(storage_frame_size(wide_band ? kWideBandBits[type] : bits[type]));
        if (size > sample.size() - at) return false;
        if (frames.size() == kMaxHintPackets) return false;
        frames.push_back({at, size - 1, sample[at]});
        at += size;
    }
    return true;
}

// Adds one packet: codec mode request, table of contents, speech (RFC 4867, 4.4).
void add_speech_packet(std::span<const SpeechFrame> frames, int32_t time, HintPackets& packets) {
    packets.begin_packet(time);
    packets.add_own({&kNoModeRequest, 1});
    for (const SpeechFrame& frame : frames) {
        const bool more_follow = &frame != &frames.back();
        const auto contents = static_cast<uint8_t>((frame.header & kTypeAndQuality) |
                                                   (more_follow ? kMoreFollow : 0));
        packets.add_own({&contents, 1});
    }
    for (const SpeechFrame& frame : frames)
        packets.add_range(frame.offset + 1, frame.speech);
}

// Returns how many of the frames fit in a packet.
size_t frames_that_fit(std::span<const SpeechFrame> frames, size_t max_packet) {
    size_t size = kRtpHeaderSize + 1;
    size_t count = 0;
    for (; count < frames.size(); ++count) {
        size += 1 + frames[count].speech;
        if (size > max_packet) break;
    }
    return count;
}

// --- the hint sample ---

size_t constructors_of(const HintPacket& packet) {
    return packet.ranges.size() + (packet.own.size() + kMaxImmediate - 1) / kMaxImmediate;
}

uint8_t* add_constructor(std::vector<uint8_t>& out) {
    out.resize(out.size() + kConstructorSize);
    return &out[out.size() - kConstructorSize];
}

void put_immediate(std::vector<uint8_t>& out, std::span<const uint8_t> bytes) {
    while (!bytes.empty()) {
        const auto piece = bytes.first(std::min<size_t>(bytes.size(), kMaxImmediate));
        store_immediate_constructor(add_constructor(out), piece);
        bytes = bytes.subspan(piece.size());
    }
}

void put_range(std::vector<uint8_t>& out, const SampleRange& range, uint32_t media_sample) {
    store_sample_constructor(
        add_constructor(out),
        {kHintedTrack, static_cast<uint16_t>(range.length), media_sample, range.offset});
}

// Appends the extra information that offsets a packet's timestamp (9.1.3.1, "rtpo").
void put_time_offset(std::vector<uint8_t>& out, uint32_t offset) {
    constexpr uint32_t kBox = 12, kAll = 4 + kBox;
    append_be(out, kAll, 4);
    append_be(out, kBox, 4);
    append_be(out, fourcc("rtpo"), 4);
    append_be(out, offset, 4);
}

void put_packet(std::vector<uint8_t>& out, const HintPacket& packet, const HintSampleFacts& facts,
                uint16_t sequence) {
    append_be(out, 0, 4);  // relative time: sent at the time of the sample
    append_be(out, kRtpVersion2 >> 24, 1);
    append_be(out, (packet.marker ? kRtpMarker : 0U) | facts.payload_type, 1);
    append_be(out, sequence, 2);
    append_be(out, 0, 1);
    append_be(out, packet.time_offset != 0 ? kExtraInformation : 0, 1);
    append_be(out, constructors_of(packet), 2);
    if (packet.time_offset != 0) put_time_offset(out, static_cast<uint32_t>(packet.time_offset));
    put_immediate(out, packet.own);
    for (const SampleRange& range : packet.ranges)
        put_range(out, range, facts.media_sample + range.sample);
}

}  // namespace

bool packets_of_speech(std::span<const uint8_t> sample, bool wide_band, size_t max_packet,
                       uint32_t frame_time, HintPackets& packets) {
    std::vector<SpeechFrame> found;
    if (!find_frames(sample, wide_band, found)) return false;
    uint32_t time = 0;
    for (std::span<const SpeechFrame> frames(found); !frames.empty();) {
        const size_t count = frames_that_fit(frames, max_packet);
        if (count == 0) return false;
        add_speech_packet(frames.first(count), static_cast<int32_t>(time), packets);
        time += static_cast<uint32_t>(count) * frame_time;
        frames = frames.subspan(count);
    }
    return true;
}

bool packets_of_picture(std::span<const uint8_t> sample, VideoPayload kind, size_t max_packet,
                        uint32_t& source_format, HintPackets& packets) {
    if (sample.empty()) return true;  // a skipped picture has no header either
    VideoPackets plan(kind, sample, static_cast<int32_t>(max_packet - kRtpHeaderSize));
    if (!plan.begin(source_format)) return false;
    while (!plan.at_end()) {
        VideoPacket next;
        if (packets.size() == kMaxHintPackets || !plan.next(next)) return false;
        packets.begin_packet();
        if (next.fragment.is_last()) packets.set_marker();
        packets.add_own(std::span(next.header.bytes).first(next.header.size));
        packets.add_range(next.fragment.begin, next.fragment.length);
    }
    return true;
}

bool packets_of_units(std::span<const uint8_t> sample, int length_size, size_t max_packet,
                      HintPackets& packets) {
    const auto max_payload = static_cast<int>(max_packet - kRtpHeaderSize);
    const auto offset_of = [&](std::span<const uint8_t> part) {
        return static_cast<size_t>(part.data() - sample.data());
    };
    NalUnits units(sample, length_size);
    for (NalUnit unit; units.next(unit);) {
        if (packets.size() >= kMaxHintPackets) return false;
        if (unit.size() <= static_cast<size_t>(max_payload)) {
            packets.begin_packet();
            packets.add_range(offset_of(unit), unit.size());
            continue;
        }
        FuFragments fragments(unit, max_payload);
        if (!fragments.has_room()) return false;
        for (FuFragment fragment{}; fragments.next(fragment);) {
            if (packets.size() >= kMaxHintPackets) return false;
            packets.begin_packet();
            packets.add_own(fragment.headers);
            packets.add_range(offset_of(fragment.bytes), fragment.bytes.size());
        }
    }
    if (!packets.empty()) packets.set_marker();  // the end of the access unit
    return true;
}

bool make_hint_sample(const HintPackets& packets, const HintSampleFacts& facts,
                      std::vector<uint8_t>& sample) {
    sample.clear();
    if (packets.size() > kMaxHintPackets) return false;
    append_be(sample, packets.size(), 2);
    append_be(sample, 0, 2);
    uint16_t sequence = facts.sequence;
    for (size_t i = 0; i < packets.size(); ++i) {
        const HintPacket packet = packets[i];
        if (constructors_of(packet) > UINT16_MAX) return false;
        put_packet(sample, packet, facts, sequence++);
    }
    return true;
}

}  // namespace kestrel
