// SPDX-License-Identifier: Apache-2.0
#include <algorithm>

#include "common/bytes.h"
#include "common/clock.h"
#include "common/log_sources.h"
#include "common/simple_exception.h"
#include "interface/src/isoff/read/rtp_packets.h"
#include "interface/src/isoff/read/sample_index.h"
#include "native/codec/rtp_hint_sample.h"

// RTP packets from a hint track (ISO/IEC 14496-12, 9.1), rebuilt from the packet entries and
// constructors of each hint sample.

namespace kestrel {
namespace {

constexpr long kEndOfTrackLine = 358;

// The entry of a packet (PacketEntry of rtp_hint_sample.h) as two words, which is faster to take
// apart. The relative transmission time is not used.
struct EntryWords {
    uint32_t header;  // the first word of an RTP header, without the version
    uint32_t rest;    // flags in 16 bits, count of constructors in 16

    uint8_t payload_type() const { return header >> 16 & kRtpPayloadType; }
    uint16_t sequence() const { return header & 0xFFFF; }
    uint16_t constructors() const { return rest & 0xFFFF; }
    bool has_extra_information() const { return (rest >> 16 & kExtraInformation) != 0; }
};

EntryWords parse_entry(const uint8_t* raw) {
    return {load_be32(raw + 4), load_be32(raw + 8)};
}

// Copies few bytes, most often a speech frame, in blocks that overlap at the end.
inline void copy_small(uint8_t* to, const uint8_t* from, uint32_t count) {
    constexpr uint32_t kBlock = 16;
    if (count < kBlock) [[unlikely]] {
        for (uint32_t i = 0; i < count; ++i)
            to[i] = from[i];
        return;
    }
    std::memcpy(to, from, kBlock);
    if (count > 2 * kBlock) {
        for (uint32_t at = kBlock; at < count - kBlock; at += kBlock)
            std::memcpy(to + at, from + at, kBlock);
    }
    std::memcpy(to + (count - kBlock), from + (count - kBlock), kBlock);
}

// Returns the duration of the hint sample at the cursor in units of the RTP clock.
inline double rtp_units(iso_track* track) {
    RtpStep& step = track->own->index->rtp_step;
    if (step.entry != track->stts_index || step.rate != track->rtp_timescale) [[unlikely]] {
        const double duration = seconds(duration_at_cursor(track), track->timescale);
        step = {track->stts_index, track->rtp_timescale, track->rtp_timescale * duration};
    }
    return step.units;
}

// Reads `count` bytes of a hint sample that was not read ahead as a whole. Returns 0, or the code
// that ends the call.
int read_own(iso_track* track, int32_t sample, uint64_t offset, uint8_t* to, uint32_t count) {
    if (offset > INT32_MAX) return -1;
    const int got =
        isoFFreadAt(track, sample, static_cast<int>(offset), to, count, nullptr, nullptr);
    if (got < 0) return got;
    return static_cast<uint32_t>(got) < count ? -1 : 0;
}

// Builds the next packet of one hint track in the caller's buffer. Its functions return 0, or the
// code that ends the call. One object serves one call; its members are few and plain, so that they
// stay in registers.
class PacketReader {
  public:
    PacketReader(iso_track* track, void* buffer, uint8_t (&scratch)[kConstructorSize],
                 PacketPause* pause)
        : track_(track),
          hint_(*track->hint),
          offset_(hint_.offset),
          to_(static_cast<uint8_t*>(buffer)),
          space_(track->rtp_max_packet),
          scratch_(scratch),
          pause_(pause) {}

    static constexpr int kAtEnd = 1;  // result of open_sample after the last packet

    void resynchronise();
    int open_sample();
    int read_packet();
    uint32_t length() const { return track_->rtp_max_packet - space_; }

    // Ends the call. The position is kept, also after a failure.
    void leave() { hint_.offset = static_cast<uint32_t>(offset_); }

  private:
    iso_hint_work& work() const { return track_->own->hint_work; }
    bool is_overworked() const;
    void count_steps(uint32_t steps);
    bool at_end() const { return hint_.sample >= track_->sample_count; }
    bool extend(uint32_t count);
    void view_sample();
    int take_own(uint32_t count);
    int skip_extra_information();
    int write_header(const EntryWords& entry);
    int stop_before_packet(uint64_t offset, uint32_t empty, int code);
    int stop_before_constructor(uint64_t offset, uint32_t space, uint32_t left, int code);
    int begin_packet(uint32_t& constructors);
    uint32_t resume_packet();
    int run_constructor();
    int copy_immediate();
    int copy_sample();
    void begin_packets(uint32_t packets);
    void note_read_position();
    void next_sample();
    int build_packet();

    iso_track* track_;
    rtp_hint_state& hint_;
    uint64_t offset_;                 // hint_.offset during the call
    uint8_t* to_;                     // the next byte of the packet
    uint32_t space_;                  // bytes that may still be added
    const uint8_t* whole_ = nullptr;  // the hint sample, if it was read ahead
    uint32_t whole_size_ = 0;
    const uint8_t* own_ = nullptr;  // result of take_own, in whole_ or scratch_
    uint8_t* scratch_;
    const iso_track* copied_from_ = nullptr;  // track and offset of the last sample constructor
    uint32_t copied_offset_ = 0;
    PacketPause* pause_;     // null: a packet that failed is not continued
    bool is_begun_ = false;  // the sample was opened before
    bool strayed_ = false;   // the hint track's cursor is not on the sample of its packets
};

// Whether the packets have taken more steps than hint samples that do not overlap can have: each
// step takes at least four bytes of the file, or adds a byte to a packet. Tables that list few
// bytes repeatedly can declare billions.
inline bool PacketReader::is_overworked() const {
    constexpr int64_t kFreeSteps = 1 << 20;
    return work().unpaid > kFreeSteps + static_cast<int64_t>(work().read_end);
}

inline void PacketReader::count_steps(uint32_t steps) {
    track_->own->hint_steps += steps;
    work().unpaid += steps;
}

// Adds `count` bytes to the packet. Returns false when they do not fit.
inline bool PacketReader::extend(uint32_t count) {
    if (count > space_) [[unlikely]]
        return false;
    to_ += count;
    space_ -= count;
    return true;
}

// Follows a caller that moved the hint track's cursor. At the end no other sample shows the move,
// so only a call of isoFFsetPosition counts.
inline void PacketReader::resynchronise() {
    if (hint_.sample == track_->cur_sample && track_->own->positioned == 0) [[likely]]
        return;
    const bool moved = at_end() ? track_->own->positioned != 0 : hint_.sample != track_->cur_sample;
    track_->own->positioned = 0;
    if (!moved) return;
    work() = {};
    if (pause_ != nullptr) *pause_ = {};
    hint_.sample = track_->cur_sample;
    hint_.packets_left = 0;
    offset_ = 0;
}

// Points whole_ at the hint sample, if it is short enough to be read ahead and has arrived.
inline void PacketReader::view_sample() {
    const uint32_t size = size_at_cursor(track_);
    whole_ = from_window(track_, track_->cur_offset, size);
    whole_size_ = whole_ != nullptr ? size : 0;
}

// Points own_ at the next `count` bytes of the hint sample, at most those of a constructor.
inline int PacketReader::take_own(uint32_t count) {
    if (offset_ + count <= whole_size_) [[likely]] {
        own_ = whole_ + offset_;
    } else {
        whole_size_ = 0;  // reading may move the bytes that were read ahead
        const int result = read_own(track_, hint_.sample, offset_, scratch_, count);
        if (result != 0) return result;
        own_ = scratch_;
    }
    offset_ += count;
    return 0;
}

inline void PacketReader::begin_packets(uint32_t packets) {
    hint_.packets_left = static_cast<int32_t>(packets);
    if (is_begun_) [[unlikely]] {
        is_begun_ = false;  // its time and duration were counted before
        return;
    }
    hint_.timestamp = clock_to_timestamp(hint_.rtp_time) + track_->rtp_ts_offset;
    hint_.rtp_time += rtp_units(track_);
    // Reduced by 2^32 - 1, one less than the range, and once only.
    if (hint_.rtp_time > kClockWrapsAt) hint_.rtp_time -= kClockWrap;
}

// Opens hint samples until one has packets left, or none is left. A long run of empty samples is
// treated as damage, because a few bytes of tables can declare billions.
inline int PacketReader::open_sample() {
    constexpr uint32_t kMaxEmptySamples = 65536;
    if (at_end()) [[unlikely]]
        return kAtEnd;
    if (is_overworked()) [[unlikely]]
        return -1;
    if (hint_.packets_left != 0) return 0;
    // isoFFfindHintTrack restarts a sample that was begun.
    const uint64_t begun_at = offset_;
    is_begun_ = begun_at != 0;
    uint32_t empty = pause_ != nullptr ? pause_->empty : 0;
    do {
        offset_ = 0;
        view_sample();
        // Once for each sample, whose later packets use the same bytes.
        if (whole_size_ != 0) track_->own->index->window.earn(whole_size_);
        const int result = take_own(kHintHeaderSize);
        if (result != 0) {
            if (is_begun_) offset_ = begun_at;
            return stop_before_packet(offset_, empty, result);
        }
        const uint16_t packets = load_be16(own_);
        if (packets != 0) [[likely]] {
            begin_packets(packets);
            return 0;
        }
        is_begun_ = false;
        count_steps(1);
        if (++empty > kMaxEmptySamples) return stop_before_packet(0, empty, -1);
        next_sample();
    } while (!at_end());
    return kAtEnd;
}

inline void PacketReader::next_sample() {
    offset_ = 0;
    hint_.sample++;
    if (!at_end()) advance_cursor(track_);
}

inline int PacketReader::write_header(const EntryWords& entry) {
    uint8_t* header = to_;
    if (header == nullptr || !extend(kRtpHeaderSize)) return -1;
    track_->last_payload_type = entry.payload_type();
    if (track_->seq_rebase == kRebaseNext) [[unlikely]] {
        track_->rtp_seq_offset -= entry.sequence();
        track_->seq_rebase = kRebased;
    }
    const uint32_t sequence = (track_->rtp_seq_offset + entry.sequence()) & 0xFFFF;
    const uint32_t timestamp = hint_.timestamp;
    const uint32_t ssrc = hint_.ssrc;
    track_->last_seq = sequence;
    track_->last_timestamp = timestamp;
    store_be32(header, (entry.header & 0xFFFF0000) | kRtpVersion2 | sequence);
    store_be32(header + RtpLayout::kTime, timestamp);
    store_be32(header + RtpLayout::kSsrc, ssrc);
    return 0;
}

// The length counts its own four bytes.
inline int PacketReader::skip_extra_information() {
    const uint64_t start = offset_;
    const int result = take_own(kExtraLengthSize);
    if (result != 0) return result;
    const uint32_t length = load_be32(own_);
    if (start + length > UINT32_MAX) return -1;
    offset_ = start + length;
    return 0;
}

inline int PacketReader::copy_immediate() {
    const uint32_t count = std::min(own_[1], kMaxImmediate);
    const uint32_t space = space_;
    uint8_t* to = to_;
    if (!extend(count)) return -1;
    // Copies all bytes of the constructor where they fit; later bytes overwrite the surplus.
    if (space >= kMaxImmediate) [[likely]] {
        std::memcpy(to, own_ + 2, kMaxImmediate);
    } else {
        std::memcpy(to, own_ + 2, count);
    }
    return 0;
}

// Returns the bytes that a constructor names, if they were read ahead, and moves the cursor to
// their sample. Returns null if they must be read from the stream; also, without moving the cursor,
// for no bytes and for bytes outside the sample.
inline const uint8_t* bytes_ahead(iso_track* source, SampleConstructor from) {
    const uint32_t sample = from.sample_number - 1;
    if (sample >= static_cast<uint32_t>(source->sample_count)) return nullptr;
    if (source->own->index == nullptr || from.length == 0) return nullptr;
    const uint32_t size = sample_size_of(source, static_cast<int32_t>(sample));
    if (from.length > size || from.sample_offset > size - from.length) return nullptr;
    if (!is_small_piece(size, from.length)) [[unlikely]]
        return nullptr;
    move_cursor(source, static_cast<int32_t>(sample));
    const uint8_t* bytes =
        from_window(source, uint64_t{source->cur_offset} + from.sample_offset, from.length);
    if (bytes != nullptr) source->own->index->window.earn(from.length);
    return bytes;
}

// Copies bytes that were not read ahead. Returns 0, or the code that ends the call.
[[gnu::noinline]] int copy_from_stream(iso_track* source, const uint8_t* constructor, uint8_t* to) {
    const SampleConstructor from = load_sample_constructor(constructor);
    if (from.sample_number > INT32_MAX) return -1;
    const auto offset = static_cast<int>(std::min(from.sample_offset, uint32_t{INT32_MAX}));
    const int got = isoFFreadAt(source, static_cast<int>(from.sample_number) - 1, offset, to,
                                from.length, nullptr, nullptr);
    if (got < 0) return got;
    return got < from.length ? -1 : 0;
}

inline int PacketReader::copy_sample() {
    const SampleConstructor from = load_sample_constructor(own_);
    iso_track* source = from.track_reference == kHintTrackItself ? track_ : hint_.media_track;
    uint8_t* to = to_;
    if (!extend(from.length)) return -1;
    int result = 0;
    if (source == track_) [[unlikely]] {
        whole_size_ = 0;  // its cursor and the window will move
        strayed_ = true;
        result = copy_from_stream(source, own_, to);
    } else if (const uint8_t* bytes = bytes_ahead(source, from); bytes != nullptr) [[likely]] {
        copy_small(to, bytes, from.length);
    } else {
        result = copy_from_stream(source, own_, to);
    }
    copied_from_ = source;
    copied_offset_ = from.sample_offset;
    return result;
}

inline int PacketReader::run_constructor() {
    const int result = take_own(kConstructorSize);
    if (result != 0) return result;
    switch (own_[0]) {
        case kImmediateConstructor:
            return copy_immediate();
        case kSampleConstructor:
        case kDescriptionConstructor:
            // A sample description constructor is treated as a sample constructor: its bytes come
            // from the sample of that number, not from a sample description. Kept on purpose.
            return copy_sample();
        case kNoopConstructor:
        default:
            return 0;
    }
}

inline void PacketReader::note_read_position() {
    const uint32_t own = track_->cur_offset + static_cast<uint32_t>(offset_);
    track_->last_read_pos =
        copied_from_ == nullptr ? own : std::min(own, copied_from_->cur_offset + copied_offset_);
}

// The following store where to continue after a failure, and return its code.
int PacketReader::stop_before_packet(uint64_t offset, uint32_t empty, int code) {
    if (pause_ == nullptr) return code;
    offset_ = offset;
    *pause_ = {0, 0, empty, nullptr, 0};
    return code;
}

int PacketReader::stop_before_constructor(uint64_t offset, uint32_t space, uint32_t left,
                                          int code) {
    if (pause_ == nullptr) return code;
    offset_ = offset;
    space_ = space;
    *pause_ = {left, length(), 0, copied_from_, copied_offset_};
    return code;
}

// Writes the header of the packet and sets the number of its constructors.
inline int PacketReader::begin_packet(uint32_t& constructors) {
    const uint64_t begin = offset_;
    int result = take_own(kPacketEntrySize);
    if (result != 0) return result;
    const EntryWords entry = parse_entry(own_);
    work().read_end = std::max(work().read_end, track_->cur_offset + offset_);
    if (entry.has_extra_information()) [[unlikely]]
        result = skip_extra_information();
    constructors = entry.constructors();
    // A packet that is not continued sets the fields of its header before extra information that
    // cannot be read.
    if (result == 0 || pause_ == nullptr) {
        count_steps(1u + constructors);
        if (write_header(entry) != 0) result = -1;
    }
    return result == 0 ? 0 : stop_before_packet(begin, 0, result);
}

// Returns the number of constructors that are left of a packet that failed.
inline uint32_t PacketReader::resume_packet() {
    to_ += pause_->length;
    space_ -= pause_->length;
    copied_from_ = pause_->copied_from;
    copied_offset_ = pause_->copied_offset;
    return pause_->constructors;
}

inline int PacketReader::build_packet() {
    // The first packet of the sample was built by an earlier call, or its header was read
    // separately.
    if (whole_size_ == 0) [[unlikely]]
        view_sample();
    uint32_t left = 0;
    if (pause_ != nullptr && pause_->constructors > 0) [[unlikely]] {
        left = resume_packet();
    } else if (const int result = begin_packet(left); result != 0) {
        return result;
    }
    for (; left > 0; --left) {
        const uint64_t begin = offset_;
        const uint32_t space = space_;
        const int result = run_constructor();
        if (result != 0) [[unlikely]]
            return stop_before_constructor(begin, space, left, result);
    }
    return 0;
}

inline int PacketReader::read_packet() {
    const int result = build_packet();
    if (result == 0) {
        work().unpaid -= length();
        note_read_position();
    }
    // A constructor that copied from another sample of the hint track moved the track's cursor.
    // Move it back, or the next call takes this for a seek and can loop.
    if (strayed_) [[unlikely]]
        move_cursor(track_, hint_.sample);
    if (result != 0) return result;
    if (--hint_.packets_left == 0) next_sample();
    return 0;
}

iso_track* best_hint_track(const iso_track* media, int max_packet) {
    if (media == nullptr || media->file == nullptr) return nullptr;
    iso_track* best = nullptr;
    for (iso_track* track = media->file->first_track; track != nullptr; track = track->next) {
        const bool fits = is_hint(track) && track->hint_track_ref == media->track_id &&
                          int64_t{track->rtp_max_packet} <= max_packet;
        const bool is_longer = best == nullptr || track->rtp_max_packet > best->rtp_max_packet;
        if (fits && is_longer) best = track;
    }
    return best;
}

}  // namespace

iso_track* attached_hint_track(const iso_track* media) {
    iso_track* track = media->own->attached_hint;
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
    track->own->hint_work = {};
    track->hint->media_track = media;
    media->own->attached_hint = track;
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
        track->own->hint_from_system = 1;
    }
    track->hint->media_track = media;
    track->hint->packets_left = 0;  // its offset says whether a sample was begun
    return track;
}

namespace {

int build_rtp_packet(iso_track* hint, void* buffer, PacketPause* pause) {
    if (hint == nullptr || hint->hint == nullptr || hint->hint->media_track == nullptr) return -1;
    if (hint->own->index == nullptr && hint->file->write_mode) return -1;
    uint8_t scratch[kConstructorSize];
    PacketReader reader(hint, buffer, scratch, pause);
    reader.resynchronise();
    int result = reader.open_sample();
    if (result == PacketReader::kAtEnd) [[unlikely]] {
        reader.leave();
        log_line(kDebug, {kIsoffSource, kEndOfTrackLine},
                 "isoFFrtpPacket() EOF:  hint->sample=%04d > tp->sample_count=%04d",
                 hint->sample_count, hint->hint->sample);  // the two figures stand in this order
        return 0;
    }
    if (result == 0) result = reader.read_packet();
    reader.leave();
    return result != 0 ? result : static_cast<int>(reader.length());
}

}  // namespace

int isoFFrtpPacket(iso_track* hint, void* buffer) {
    return build_rtp_packet(hint, buffer, nullptr);
}

int kestrel::next_rtp_packet(iso_track* hint, void* buffer, PacketPause& pause) {
    const int result = build_rtp_packet(hint, buffer, &pause);
    if (result >= 0) pause = {};
    return result;
}
