#include "interface/src/isoff/write/hint_sample_planner.h"

#include <algorithm>
#include <array>

#include "common/bytes.h"
#include "native/codec/amr_format.h"
#include "native/codec/h264_units.h"

namespace kestrel {

void HintPacket::add_own(std::span<const uint8_t> bytes) {
    if (!bytes.empty()) parts.push_back({{bytes.begin(), bytes.end()}});
}

void HintPacket::add_range(size_t offset, size_t length) {
    if (length == 0) return;
    parts.push_back({{}, static_cast<uint32_t>(offset), static_cast<uint32_t>(length)});
}

size_t HintPacket::size() const {
    size_t bytes = kRtpHeaderSize;
    for (const PacketPart& part : parts)
        bytes += part.size();
    return bytes;
}

namespace {

// A hint sample counts its packets in 16 bits; a sample that makes more is not laid out to its end.
constexpr size_t kMostPackets = UINT16_MAX;

// --- speech ---

struct SpeechFrame {
    size_t offset;  // of its header byte
    size_t speech;  // bytes behind it
    uint8_t header;
};

// The frames of a sample; false when they do not fill it.
bool find_frames(std::span<const uint8_t> sample, bool wide_band,
                 std::vector<SpeechFrame>& frames) {
    for (size_t at = 0; at < sample.size();) {
        const int type = storage_frame_type(sample[at]);
        const auto size =
            static_cast<size_t>(storage_frame_size(wide_band ? kWideBandBits[type] : bits[type]));
        if (size > sample.size() - at) return false;
        if (frames.size() == kMostPackets) return false;
        frames.push_back({at, size - 1, sample[at]});
        at += size;
    }
    return true;
}

// One packet: mode request, table of contents, speech (RFC 4867, 4.4).
HintPacket speech_packet(std::span<const SpeechFrame> frames) {
    constexpr uint8_t kNoModeRequest = 0xF0;
    constexpr uint8_t kMoreFollow = 0x80, kTypeAndQuality = 0x7C;
    std::vector<uint8_t> contents = {kNoModeRequest};
    for (const SpeechFrame& frame : frames)
        contents.push_back(static_cast<uint8_t>((frame.header & kTypeAndQuality) | kMoreFollow));
    contents.back() &= static_cast<uint8_t>(~kMoreFollow);
    HintPacket packet;
    packet.add_own(contents);
    for (const SpeechFrame& frame : frames)
        packet.add_range(frame.offset + 1, frame.speech);
    return packet;
}

// How many of the frames a packet takes.
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

class ByteWriter {
  public:
    explicit ByteWriter(std::vector<uint8_t>& bytes) : bytes_(bytes) {}

    void u8(uint32_t value) { bytes_.push_back(static_cast<uint8_t>(value)); }
    void u16(uint32_t value) {
        u8(value >> 8);
        u8(value);
    }
    void u32(uint32_t value) {
        u16(value >> 16);
        u16(value);
    }
    void bytes(std::span<const uint8_t> more) {
        bytes_.insert(bytes_.end(), more.begin(), more.end());
    }
    void zeros(size_t count) { bytes_.resize(bytes_.size() + count); }

  private:
    std::vector<uint8_t>& bytes_;
};

constexpr size_t kMostImmediate = 14;  // bytes in an immediate constructor

size_t constructors_of(const HintPacket& packet) {
    size_t count = 0;
    for (const PacketPart& part : packet.parts) {
        count += part.length != 0 ? 1 : (part.own.size() + kMostImmediate - 1) / kMostImmediate;
    }
    return count;
}

void put_immediate(ByteWriter& out, std::span<const uint8_t> bytes) {
    constexpr uint8_t kImmediate = 1;
    while (!bytes.empty()) {
        const auto piece = bytes.first(std::min(bytes.size(), kMostImmediate));
        out.u8(kImmediate);
        out.u8(static_cast<uint32_t>(piece.size()));
        out.bytes(piece);
        out.zeros(kMostImmediate - piece.size());
        bytes = bytes.subspan(piece.size());
    }
}

void put_part(ByteWriter& out, const PacketPart& part, uint32_t media_sample) {
    constexpr uint8_t kFromSample = 2, kHintedTrack = 0;
    if (part.length == 0) {
        put_immediate(out, part.own);
        return;
    }
    out.u8(kFromSample);
    out.u8(kHintedTrack);
    out.u16(part.length);
    out.u32(media_sample);
    out.u32(part.offset);
    out.u16(1);  // bytes per block
    out.u16(1);  // samples per block
}

// The extra information that moves a packet's timestamp (9.1.3.1, "rtpo").
void put_time_offset(ByteWriter& out, uint32_t offset) {
    constexpr uint32_t kBox = 12, kAll = 4 + kBox;
    out.u32(kAll);
    out.u32(kBox);
    out.u32(fourcc("rtpo"));
    out.u32(offset);
}

void put_packet(ByteWriter& out, const HintPacket& packet, const HintSampleFacts& facts,
                uint16_t sequence) {
    constexpr uint8_t kVersion2 = 0x80, kMarker = 0x80, kExtraInformation = 4;
    const int64_t time_offset = int64_t{facts.time_offset} + packet.time_offset;
    out.u32(0);  // sent when the sample's time has come
    out.u8(kVersion2);
    out.u8((packet.marker ? kMarker : 0U) | facts.payload_type);
    out.u16(sequence);
    out.u8(0);
    out.u8(time_offset != 0 ? kExtraInformation : 0);
    out.u16(static_cast<uint32_t>(constructors_of(packet)));
    if (time_offset != 0) put_time_offset(out, static_cast<uint32_t>(time_offset));
    for (const PacketPart& part : packet.parts)
        put_part(out, part, facts.media_sample);
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
        packets.push_back(speech_packet(frames.first(count)));
        packets.back().time_offset = static_cast<int32_t>(time);
        time += static_cast<uint32_t>(count) * frame_time;
        frames = frames.subspan(count);
    }
    return true;
}

bool packets_of_picture(std::span<const uint8_t> sample, VideoPayload kind, size_t max_packet,
                        uint32_t& source_format, HintPackets& packets) {
    if (sample.empty()) return true;  // a picture that was left out has no header either
    VideoPackets plan(kind, sample, static_cast<int32_t>(max_packet - kRtpHeaderSize));
    if (!plan.begin(source_format)) return false;
    while (!plan.at_end()) {
        VideoPacket next;
        if (packets.size() == kMostPackets || !plan.next(next)) return false;
        HintPacket& packet = packets.emplace_back();
        packet.marker = next.fragment.is_last();
        packet.add_own(std::span(next.header.bytes).first(next.header.size));
        packet.add_range(next.fragment.begin, next.fragment.length);
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
        if (packets.size() >= kMostPackets) return false;
        if (unit.size() <= static_cast<size_t>(max_payload)) {
            packets.emplace_back().add_range(offset_of(unit), unit.size());
            continue;
        }
        FuFragments fragments(unit, max_payload);
        if (!fragments.has_room()) return false;
        for (FuFragment fragment{}; fragments.next(fragment);) {
            if (packets.size() >= kMostPackets) return false;
            HintPacket& packet = packets.emplace_back();
            packet.add_own(fragment.headers);
            packet.add_range(offset_of(fragment.bytes), fragment.bytes.size());
        }
    }
    if (!packets.empty()) packets.back().marker = true;  // the end of the access unit
    return true;
}

std::vector<uint8_t> make_hint_sample(const HintPackets& packets, const HintSampleFacts& facts) {
    std::vector<uint8_t> sample;
    if (packets.size() > kMostPackets) return sample;
    ByteWriter out(sample);
    out.u16(static_cast<uint32_t>(packets.size()));
    out.u16(0);
    uint16_t sequence = facts.sequence;
    for (const HintPacket& packet : packets) {
        if (constructors_of(packet) > UINT16_MAX) return {};
        put_packet(out, packet, facts, sequence++);
    }
    return sample;
}

}  // namespace kestrel
