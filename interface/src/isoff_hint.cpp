#include <algorithm>

#include "common/clock.h"
#include "common/simple_exception.h"
#include "interface/src/isoff.h"

// RTP packets from a hint track (ISO/IEC 14496-12, 9.1): the packets of each hint sample are
// rebuilt from their entries and constructors.

namespace kestrel {
namespace {

constexpr uint32_t kSampleHeader = 4;
constexpr uint32_t kPacketEntry = 12;
constexpr uint32_t kConstructor = 16;
constexpr uint32_t kRtpHeader = 12;
constexpr uint8_t kRtpVersion2 = 0x80;
constexpr uint8_t kPayloadType = 0x7F;
constexpr uint8_t kExtraInformation = 4;  // flag of a packet entry
constexpr uint8_t kLongestImmediate = 14;
constexpr uint8_t kOwnTrack = 255;  // track reference of a constructor
constexpr long kEndOfTrackLine = 358;

enum SeqRebase : uint32_t { kNoRebase = 0, kRebaseNext = 1, kRebased = 2 };

enum ConstructorType : uint8_t { kNoop = 0, kImmediate = 1, kSample = 2, kSampleDescription = 3 };

struct SampleHeader {
    uint16_t packets;
    double duration;  // seconds
};

struct PacketEntry {
    uint8_t header_bits;  // P and X of the RTP header
    uint8_t marker_and_type;
    uint16_t sequence;
    uint8_t flags;
    uint16_t constructors;
};

struct SampleConstructor {
    uint8_t track_reference;
    uint16_t length;
    uint32_t sample_number;  // from 1
    uint32_t offset;
};

PacketEntry parse_entry(const uint8_t (&raw)[kPacketEntry]) {
    ByteReader reader(raw);
    PacketEntry entry{};
    reader.be32();  // relative transmission time
    entry.header_bits = reader.u8();
    entry.marker_and_type = reader.u8();
    entry.sequence = reader.be16();
    reader.u8();  // reserved
    entry.flags = reader.u8();
    entry.constructors = reader.be16();
    return entry;
}

SampleConstructor parse_sample_constructor(const uint8_t (&raw)[kConstructor]) {
    ByteReader reader(raw);
    SampleConstructor constructor{};
    reader.u8();  // type
    constructor.track_reference = reader.u8();
    constructor.length = reader.be16();
    constructor.sample_number = reader.be32();
    constructor.offset = reader.be32();
    return constructor;
}

// Where a packet is built: the caller's buffer, and how much of it may be filled.
class PacketBuffer {
  public:
    PacketBuffer(void* bytes, uint32_t room) : bytes_(static_cast<uint8_t*>(bytes)), room_(room) {}

    uint32_t length() const { return length_; }

    // Room for `count` more bytes, or null.
    uint8_t* extend(uint32_t count) {
        if (count > room_ - length_) return nullptr;
        uint8_t* at = bytes_ + length_;
        length_ += count;
        return at;
    }

  private:
    uint8_t* bytes_;
    uint32_t room_;
    uint32_t length_ = 0;
};

// Builds the packets of one hint track. Its functions return 0, or the code that ends the call.
class PacketReader {
  public:
    explicit PacketReader(iso_track* track) : track_(track), hint_(*track->hint) {}

    void resynchronise();
    int open_sample();
    int read_packet(PacketBuffer& packet);
    bool at_end() const { return hint_.sample >= track_->sample_count; }

  private:
    int read_own(void* to, uint32_t count, double* duration = nullptr);
    int skip_extra_information();
    int write_header(PacketBuffer& packet, const PacketEntry& entry);
    int run_constructor(PacketBuffer& packet);
    int copy_immediate(PacketBuffer& packet, const uint8_t (&raw)[kConstructor]);
    int copy_sample(PacketBuffer& packet, const uint8_t (&raw)[kConstructor]);
    void begin_packets(const SampleHeader& header);
    void note_read_position();
    void next_sample();
    void stay_on_sample();
    int build_packet(PacketBuffer& packet);

    iso_track* track_;
    rtp_hint_state& hint_;
    const iso_track* copied_from_ = nullptr;  // track and offset of the last sample constructor
    uint32_t copied_offset_ = 0;
};

// A caller seeks by positioning the hint track; the cursor follows. At the end, where no sample is
// left to differ from, only a call of isoFFsetPosition counts.
void PacketReader::resynchronise() {
    const bool moved = at_end() ? track_->positioned != 0 : hint_.sample != track_->cur_sample;
    track_->positioned = 0;
    if (!moved) return;
    hint_.sample = track_->cur_sample;
    hint_.packets_left = 0;
    hint_.offset = 0;
}

int PacketReader::read_own(void* to, uint32_t count, double* duration) {
    if (hint_.offset > INT32_MAX) return -1;
    const int got = isoFFreadAt(track_, hint_.sample, static_cast<int>(hint_.offset), to, count,
                                duration, nullptr);
    if (got < 0) return got;
    if (static_cast<uint32_t>(got) < count) return -1;
    hint_.offset += count;
    return 0;
}

void PacketReader::begin_packets(const SampleHeader& header) {
    hint_.packets_left = header.packets;
    hint_.timestamp = clock_to_timestamp(hint_.rtp_time) + track_->rtp_ts_offset;
    hint_.rtp_time += track_->rtp_timescale * header.duration;
    // Reduced by 2^32 - 1, one short of the range, and only once.
    if (hint_.rtp_time > kClockWrapsAt) hint_.rtp_time -= kClockWrap;
}

// Opens hint samples until one has packets. A run of empty ones that is longer than any hinter
// writes is taken for damage, since a few bytes of tables can tell of billions.
int PacketReader::open_sample() {
    constexpr int kMostEmptySamples = 65536;
    for (int empty = 0; hint_.packets_left == 0 && !at_end(); ++empty) {
        if (empty > kMostEmptySamples) return -1;
        uint8_t raw[kSampleHeader];
        SampleHeader header{};
        hint_.offset = 0;
        const int result = read_own(raw, sizeof raw, &header.duration);
        if (result != 0) return result;
        header.packets = load_be16(raw);
        if (header.packets == 0) {
            next_sample();
        } else {
            begin_packets(header);
        }
    }
    return 0;
}

void PacketReader::next_sample() {
    hint_.offset = 0;
    hint_.sample++;
    stay_on_sample();
}

// Puts the hint track on the cursor's sample, or leaves it on the last at the end. Whatever moved
// it there must not be taken for a seek.
void PacketReader::stay_on_sample() {
    if (!at_end()) set_sample_pos(track_, hint_.sample);
}

int PacketReader::write_header(PacketBuffer& packet, const PacketEntry& entry) {
    uint8_t* header = packet.extend(kRtpHeader);
    if (header == nullptr) return -1;
    track_->last_payload_type = entry.marker_and_type & kPayloadType;
    if (track_->seq_rebase == kRebaseNext) {
        track_->rtp_seq_offset -= entry.sequence;
        track_->seq_rebase = kRebased;
    }
    track_->last_seq = (track_->rtp_seq_offset + entry.sequence) & 0xFFFF;
    track_->last_timestamp = hint_.timestamp;
    header[0] = entry.header_bits | kRtpVersion2;
    header[1] = entry.marker_and_type;
    store_be16(header + 2, static_cast<uint16_t>(track_->last_seq));
    store_be32(header + 4, hint_.timestamp);
    store_be32(header + 8, hint_.ssrc);
    return 0;
}

// The length counts its own four bytes.
int PacketReader::skip_extra_information() {
    const uint32_t start = hint_.offset;
    uint8_t raw[4];
    const int result = read_own(raw, sizeof raw);
    if (result != 0) return result;
    const uint32_t length = load_be32(raw);
    if (length > UINT32_MAX - start) return -1;
    hint_.offset = start + length;
    return 0;
}

int PacketReader::copy_immediate(PacketBuffer& packet, const uint8_t (&raw)[kConstructor]) {
    const uint8_t count = std::min(raw[1], kLongestImmediate);
    uint8_t* to = packet.extend(count);
    if (to == nullptr) return -1;
    std::memcpy(to, raw + 2, count);
    return 0;
}

int PacketReader::copy_sample(PacketBuffer& packet, const uint8_t (&raw)[kConstructor]) {
    const SampleConstructor from = parse_sample_constructor(raw);
    iso_track* source = from.track_reference == kOwnTrack ? track_ : hint_.media_track;
    uint8_t* to = packet.extend(from.length);
    if (to == nullptr || from.sample_number > INT32_MAX || from.offset > INT32_MAX) return -1;
    const int got = isoFFreadAt(source, static_cast<int>(from.sample_number) - 1,
                                static_cast<int>(from.offset), to, from.length, nullptr, nullptr);
    copied_from_ = source;
    copied_offset_ = from.offset;
    if (got < 0) return got;
    return got < from.length ? -1 : 0;
}

int PacketReader::run_constructor(PacketBuffer& packet) {
    uint8_t raw[kConstructor];
    const int result = read_own(raw, sizeof raw);
    if (result != 0) return result;
    switch (raw[0]) {
        case kImmediate:
            return copy_immediate(packet, raw);
        case kSample:
        case kSampleDescription:
            // A sample description constructor is served like a sample constructor: its bytes come
            // from the sample of that number, not from a sample description. Kept on purpose.
            return copy_sample(packet, raw);
        case kNoop:
        default:
            return 0;
    }
}

void PacketReader::note_read_position() {
    track_->last_read_pos = track_->cur_offset + hint_.offset;
    if (copied_from_ == nullptr) return;
    track_->last_read_pos =
        std::min(track_->last_read_pos, copied_from_->cur_offset + copied_offset_);
}

int PacketReader::build_packet(PacketBuffer& packet) {
    uint8_t raw[kPacketEntry];
    int result = read_own(raw, sizeof raw);
    if (result != 0) return result;
    const PacketEntry entry = parse_entry(raw);
    result = write_header(packet, entry);
    if (result == 0 && (entry.flags & kExtraInformation)) result = skip_extra_information();
    for (uint16_t i = 0; i < entry.constructors && result == 0; ++i)
        result = run_constructor(packet);
    return result;
}

int PacketReader::read_packet(PacketBuffer& packet) {
    const int result = build_packet(packet);
    if (result == 0) note_read_position();
    // A constructor that copied from another of the hint track's own samples moved its cursor;
    // were it left there, the next call would take that for a seek and could run in a circle.
    stay_on_sample();
    if (result != 0) return result;
    if (--hint_.packets_left == 0) next_sample();
    return 0;
}

bool is_hint_track_of(const iso_track* track, const iso_track* media, int max_packet) {
    const bool is_hint = track->codec == ISO_CODEC_RTP || track->codec == ISO_CODEC_SRTP;
    return is_hint && track->hint_track_ref == media->track_id &&
           int64_t{track->rtp_max_packet} <= max_packet;
}

iso_track* best_hint_track(const iso_track* media, int max_packet) {
    if (media == nullptr || media->file == nullptr) return nullptr;
    iso_track* best = nullptr;
    for (iso_track* track = media->file->first_track; track != nullptr; track = track->next) {
        if (!is_hint_track_of(track, media, max_packet)) continue;
        if (best == nullptr || track->rtp_max_packet > best->rtp_max_packet) best = track;
    }
    return best;
}

}  // namespace

iso_track* attached_hint_track(const iso_track* media, int max_packet) {
    iso_track* track = best_hint_track(media, max_packet);
    const bool usable = track != nullptr && track->hint != nullptr && track->sample_count > 0;
    return usable ? track : nullptr;
}

}  // namespace kestrel

using namespace kestrel;

iso_track* isoFFrtpHinter(iso_track* media, int max_packet) {
    iso_track* track = best_hint_track(media, max_packet);
    if (track == nullptr) return nullptr;
    if (track->hint == nullptr) track->hint = arena_array<rtp_hint_state>(track->file, 1);
    if (track->hint == nullptr) return nullptr;
    *track->hint = rtp_hint_state{};
    track->hint->media_track = media;
    return track;
}

iso_track* isoFFfindHintTrack(iso_track* media, int max_packet) {
    iso_track* track = best_hint_track(media, max_packet);
    if (track == nullptr) return nullptr;
    if (track->hint == nullptr) {
        auto* made = static_cast<rtp_hint_state*>(systemmalloc(sizeof(rtp_hint_state)));
        if (made == nullptr) return nullptr;
        *made = rtp_hint_state{};
        track->hint = made;
        track->hint_from_system = 1;
    }
    track->hint->media_track = media;
    track->hint->packets_left = 0;
    return track;
}

int isoFFrtpPacket(iso_track* hint, void* buffer) {
    if (hint == nullptr || hint->hint == nullptr || hint->hint->media_track == nullptr) return -1;
    PacketReader reader(hint);
    reader.resynchronise();
    int result = reader.open_sample();
    if (result != 0) return result;
    if (reader.at_end()) {
        log_line(kDebug, {kIsoffSource, kEndOfTrackLine},
                 "isoFFrtpPacket() EOF:  hint->sample=%04d > tp->sample_count=%04d",
                 hint->sample_count, hint->hint->sample);  // the two figures stand in this order
        return 0;
    }
    PacketBuffer packet(buffer, hint->rtp_max_packet);
    result = reader.read_packet(packet);
    return result != 0 ? result : static_cast<int>(packet.length());
}
