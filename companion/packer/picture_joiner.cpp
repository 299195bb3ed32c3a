// SPDX-License-Identifier: Apache-2.0
#include "companion/packer/picture_joiner.h"

#include <algorithm>
#include <functional>

#include "common/bytes.h"
#include "common/frame_limit.h"
#include "kestrel/native_records.h"
#include "native/codec/avcc.h"
#include "native/codec/h264_units.h"
#include "native/codec/mpeg4_visual.h"

namespace kestrel::packer {
namespace {

constexpr size_t kLengthSize = 4;  // of the NAL units of a sample

bool begins_with(std::span<const uint8_t> bytes, std::span<const uint8_t> front) {
    return bytes.size() >= front.size() && std::equal(front.begin(), front.end(), bytes.begin());
}

bool is_parameter_set(NalUnit unit) {
    return nal_type(unit) == kSequenceSet || nal_type(unit) == kPictureSet;
}

// Converts start-coded NAL units to the form of a sample.
std::vector<uint8_t> with_lengths(std::span<const uint8_t> units) {
    std::vector<uint8_t> sample;
    while (begins_with(units, kStartCode)) {
        units = units.subspan(kStartCode.size());
        const auto end =
            std::search(units.begin(), units.end(), kStartCode.begin(), kStartCode.end());
        const auto size = static_cast<size_t>(end - units.begin());
        sample.resize(sample.size() + kLengthSize);
        store_be32(&sample[sample.size() - kLengthSize], static_cast<uint32_t>(size));
        sample.insert(sample.end(), units.begin(), end);
        units = units.subspan(size);
    }
    return sample;
}

// A slice of a picture (7.4.1, table 7-1).
bool is_slice(NalUnit unit) {
    return nal_type(unit) >= 1 && nal_type(unit) <= kIdrSlice;
}

size_t offset_of(NalUnit unit, std::span<const uint8_t> sample) {
    return static_cast<size_t>(unit.data() - sample.data());
}

// Returns the first run of parameter sets before the slices of a sample; nothing if it has more
// than a configuration can.
std::span<const uint8_t> first_sets(std::span<const uint8_t> sample) {
    size_t begin = 0;
    size_t end = 0;
    size_t sequence_sets = 0;
    size_t picture_sets = 0;
    NalUnits units(sample, kLengthSize);
    for (NalUnit unit; units.next(unit) && !is_slice(unit);) {
        if (!is_parameter_set(unit) && end != 0) break;
        if (!is_parameter_set(unit)) continue;
        if (end == 0) begin = offset_of(unit, sample) - kLengthSize;
        end = offset_of(unit, sample) + unit.size();
        ++(nal_type(unit) == kSequenceSet ? sequence_sets : picture_sets);
        if (std::max(sequence_sets, picture_sets) > kMaxAvccSets) return {};
    }
    return sample.subspan(begin, end - begin);
}

// Returns the configuration at the beginning of an MPEG-4 sample: from a visual object sequence to
// the first group of VOPs or VOP.
std::span<const uint8_t> leading_headers(std::span<const uint8_t> sample) {
    constexpr size_t kCode = 4;
    const auto code_at = [&](size_t at) {
        const bool is_code = sample[at] == 0 && sample[at + 1] == 0 && sample[at + 2] == 1;
        return is_code ? sample[at + 3] : uint8_t{0};
    };
    if (sample.size() < kCode || code_at(0) != kVisualObjectSequence) return {};
    for (size_t at = kCode; at + kCode <= sample.size(); ++at) {
        const uint8_t code = code_at(at);
        if (code == kGroupOfVop || code == kVop) return sample.first(at);
    }
    return {};
}

std::vector<uint8_t> copy_of(std::span<const uint8_t> bytes) {
    return {bytes.begin(), bytes.end()};
}

std::vector<uint8_t> with_start_codes(std::span<const uint8_t> sample) {
    std::vector<uint8_t> bytes;
    NalUnits units(sample, kLengthSize);
    for (NalUnit unit; units.next(unit);) {
        bytes.insert(bytes.end(), kStartCode.begin(), kStartCode.end());
        bytes.insert(bytes.end(), unit.begin(), unit.end());
    }
    return bytes;
}

}  // namespace

// --- the configuration ---

StreamConfig::StreamConfig(const stream::StreamHeader& header)
    : medium_(header.medium), is_declared_(!header.config.empty()) {
    // A configuration longer than the record is truncated there.
    if (header.config.size() >= kMaxConfigBytes) return;
    bytes_ = header.config;
    in_front_ = medium_ == stream::Medium::kH264 ? with_lengths(bytes_) : bytes_;
}

void StreamConfig::complete(std::span<const uint8_t> first_picture) {
    if (!bytes_.empty()) return;
    if (medium_ == stream::Medium::kMpeg4) in_front_ = copy_of(leading_headers(first_picture));
    if (medium_ == stream::Medium::kH264) in_front_ = copy_of(first_sets(first_picture));
    bytes_ = medium_ == stream::Medium::kH264 ? with_start_codes(in_front_) : in_front_;
}

std::span<const uint8_t> StreamConfig::copy_in(std::span<const uint8_t> picture) const {
    if (!is_declared_ || in_front_.empty()) return {};
    if (begins_with(picture, in_front_)) return picture.first(in_front_.size());
    if (medium_ != stream::Medium::kH264) return {};
    NalUnits units(picture, kLengthSize);
    for (NalUnit unit; units.next(unit) && !is_slice(unit);) {
        const auto rest = picture.subspan(offset_of(unit, picture) - kLengthSize);
        if (begins_with(rest, in_front_)) return rest.first(in_front_.size());
    }
    return {};
}

// --- joining ---

PictureJoiner::PictureJoiner(const stream::StreamHeader& header, SampleStore& store)
    : medium_(header.medium), store_(store), config_(header) {
    stream::MediaSink sink{[this](auto bytes) { take(bytes); }};
    if (medium_ == stream::Medium::kH264) sink.begin_unit = [this] { begin_unit(); };
    depacketiser_ = stream::make_depacketiser(medium_, {}, std::move(sink));
    reader_ = make_picture_reader(medium_);
}

void PictureJoiner::packet(const stream::VideoPacket& packet) {
    if (!has_begun_) {
        is_from_samples_ = packet.sequence == 0 && packet.time == 0;
        has_begun_ = true;
    }
    if (has_picture_ && packet.time != time_) end_picture();
    has_picture_ = true;
    time_ = packet.time;
    payload_ = packet.payload;
    keep_packet(packet);
    // A packet without payload is a picture without bytes.
    if (!depacketiser_->packet(payload_) && !payload_.empty()) ++packets_left_out_;
    payload_ = {};
    has_marker_ = packet.marker;
    if (picture_.size() > kMaxChunkBytes) end_picture();
}

// A picture whose last packet has no marker goes on in the next frame of the same time. Other
// packets may have one too: those that end a fragmented NAL unit of H.264 cut from samples.
void PictureJoiner::end_frame() {
    if (has_picture_ && has_marker_) end_picture();
}

// For the hint sample of the picture.
void PictureJoiner::keep_packet(const stream::VideoPacket& packet) {
    if (packets_.size() == kMaxHintPackets) {
        store_.leave_out_hints();
        packets_.clear();
    }
    if (store_.with_packets()) packets_.push_back({copy_of(packet.payload), packet.marker, {}, 0});
}

void PictureJoiner::finish(bool is_whole) {
    if (has_picture_ && is_whole) end_picture();
}

void PictureJoiner::begin_unit() {
    end_unit();
    const size_t begin = picture_.size();
    picture_.resize(begin + kLengthSize);
    unit_ = begin;
}

void PictureJoiner::end_unit() {
    if (!unit_) return;
    store_be32(&picture_[*unit_], static_cast<uint32_t>(picture_.size() - *unit_ - kLengthSize));
    unit_.reset();
}

void PictureJoiner::take(std::span<const uint8_t> bytes) {
    constexpr std::less_equal<const uint8_t*> is_before;
    const bool is_of_payload =
        !bytes.empty() && !payload_.empty() && is_before(payload_.data(), bytes.data()) &&
        is_before(bytes.data() + bytes.size(), payload_.data() + payload_.size());
    if (is_of_payload && !packets_.empty() && !packets_.back().media_begin) {
        packets_.back().media_begin = static_cast<size_t>(bytes.data() - payload_.data());
        packets_.back().picture_offset = picture_.size();
    }
    picture_.insert(picture_.end(), bytes.begin(), bytes.end());
}

void PictureJoiner::end_picture() {
    depacketiser_->finish();
    end_unit();
    const bool is_first = store_.count() == 0;
    if (is_first) config_.complete(picture_);
    const Picture about = reader_->look(picture_);
    const bool is_first_of_h264 = is_first && medium_ == stream::Medium::kH264;
    const bool may_be_copied = is_first_of_h264 || (is_from_samples_ && about.is_sync);
    Hole left_out;
    if (may_be_copied) {
        const auto copy = config_.copy_in(picture_);
        if (!copy.empty()) left_out = {offset_of(copy, picture_), copy.size()};
    }
    if (store_.with_packets()) record_packets(left_out);
    const auto from = picture_.begin() + static_cast<std::ptrdiff_t>(left_out.begin);
    picture_.erase(from, from + static_cast<std::ptrdiff_t>(left_out.length));
    store_.add(picture_, time_, about.is_sync, about.display_key);
    if (store_.with_packets()) store_.add_hint(recorded_, 1);
    picture_.clear();
    packets_.clear();
    has_picture_ = false;
}

// --- recording packets ---

void PictureJoiner::record_packets(const Hole& left_out) {
    recorded_.clear();
    for (const Packet& packet : packets_) {
        record_packet(packet, left_out, recorded_);
        if (medium_ == stream::Medium::kMpeg4)
            au_headers_.add(std::span(packet.payload).first(packet.media_begin.value_or(0)));
    }
    au_headers_.end_picture();
}

// Describes a packet by the bytes of the sample that it carries, if these are its last bytes.
void PictureJoiner::record_packet(const Packet& packet, const Hole& left_out,
                                  HintPackets& recorded) const {
    const std::span<const uint8_t> payload(packet.payload);
    size_t headers = packet.media_begin.value_or(payload.size());
    size_t begin = packet.picture_offset;
    // A packet of several units, or with a shared last byte, is no run of bytes.
    if (!begins_with(std::span(picture_).subspan(begin), payload.subspan(headers)))
        headers = payload.size();
    size_t length = payload.size() - headers;
    const bool is_left_out =
        length > 0 && begin >= left_out.begin && begin + length <= left_out.end();
    // Parameter sets that the library inserted are inserted again.
    if (is_left_out && medium_ == stream::Medium::kH264) return;
    size_t own = headers;
    if (begin >= left_out.end()) {
        begin -= left_out.length;
    } else if (begin + length > left_out.begin) {  // MPEG-4: both begin where the picture does
        const size_t overlap = std::min(length, left_out.end() - begin);
        own += overlap;
        length -= overlap;
        begin = left_out.begin;
    }
    recorded.begin_packet();
    const bool ends_picture = &packet == &packets_.back();
    if (packet.marker && (ends_picture || medium_ != stream::Medium::kH264)) recorded.set_marker();
    recorded.add_own(payload.first(own));
    recorded.add_range(begin, length);
}

}  // namespace kestrel::packer
