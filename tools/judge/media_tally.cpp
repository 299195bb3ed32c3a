// SPDX-License-Identifier: Apache-2.0
#include "tools/judge/media_tally.h"

#include <algorithm>
#include <optional>

#include "native/codec/amr_format.h"
#include "native/codec/nal_unit.h"

namespace tool {

using kestrel::stream::Medium;

namespace {

// The first bytes of a picture.
constexpr size_t kCodeBytes = 3;

bool is_picture_start(std::span<const uint8_t> bytes) {
    return bytes[0] == 0 && bytes[1] == 0 && (bytes[2] & 0xFC) == 0x80;
}

bool is_start_code(std::span<const uint8_t> bytes) {
    return bytes[0] == 0 && bytes[1] == 0 && bytes[2] == 1;
}

// Reads an unsigned Exp-Golomb code of `bytes` at bit `at`, and moves after it. Returns nothing
// when it does not end there.
std::optional<uint32_t> exp_golomb(std::span<const uint8_t> bytes, size_t& at) {
    const auto bit = [&](size_t i) { return bytes[i / 8] >> (7 - i % 8) & 1u; };
    const size_t end = bytes.size() * 8;
    size_t zeros = 0;
    while (at + zeros < end && bit(at + zeros) == 0)
        ++zeros;
    if (zeros > 31 || at + 2 * zeros + 1 > end) return std::nullopt;
    uint32_t value = 0;
    for (size_t i = 0; i <= zeros; ++i)
        value = value << 1 | bit(at + zeros + i);
    at += 2 * zeros + 1;
    return value - 1;
}

// The first bytes of a NAL unit, its header included.
bool is_nal_unit(std::span<const uint8_t> unit) {
    enum Type : uint8_t {
        kSlice = 1,
        kIdrSlice = 5,
        kSei,
        kSps,
        kPps,
        kDelimiter,
        kLastKnown = 21
    };
    constexpr uint32_t kMaxSliceType = 9, kMaxPps = 255;
    const uint8_t type = unit[0] & 0x1F;
    const bool is_reference = (unit[0] & 0x60) != 0;
    if ((unit[0] & 0x80) != 0 || type == 0 || type > kLastKnown) return false;
    if ((type == kIdrSlice || type == kSps || type == kPps) && !is_reference) return false;
    if ((type == kSei || type == kDelimiter) && is_reference) return false;
    if (type != kSlice && type != kIdrSlice) return true;
    size_t at = 8;
    const auto first_macroblock = exp_golomb(unit, at);
    const auto slice_type = exp_golomb(unit, at);
    const auto pps = exp_golomb(unit, at);
    // A field that exceeds the available bytes may have any value.
    return (!first_macroblock || !slice_type || *slice_type <= kMaxSliceType) &&
           (!pps || *pps <= kMaxPps);
}

}  // namespace

void MediaTally::take(std::span<const uint8_t> stream) {
    if (lost_) return;
    try {
        walk_.feed(stream);
    } catch (const kestrel::stream::Damage&) {
        lost_ = true;
        count_implausible();
    }
}

void MediaTally::header(const kestrel::stream::StreamHeader& header) {
    medium_ = header.medium;
    if (is_speech(medium_)) return;
    kestrel::stream::MediaSink sink{[this](std::span<const uint8_t> bytes) { take_picture(bytes); },
                                    [this] { end_unit(); }};
    depacketiser_ = make_depacketiser(medium_, {}, std::move(sink));
}

void MediaTally::begin_frame() {
    ++counts_.frames;
    plausible_ = true;
    got_ = 0;
}

void MediaTally::video_packet(const kestrel::stream::VideoPacket& packet) {
    depacketiser_->packet(packet.payload);
}

void MediaTally::take_picture(std::span<const uint8_t> bytes) {
    counts_.bytes += bytes.size();
    const size_t count = std::min(bytes.size(), first_.size() - got_);
    std::copy_n(bytes.begin(), count, first_.begin() + static_cast<ptrdiff_t>(got_));
    got_ += count;
}

// Of H.264: before each unit, and after the last.
void MediaTally::end_unit() {
    constexpr uint32_t kLengthField = 4;  // of a unit in a sample
    if (got_ == 0) return;
    plausible_ = plausible_ && is_nal_unit(std::span(first_).first(got_));
    counts_.bytes += kLengthField;
    got_ = 0;
}

void MediaTally::end_frame() {
    if (depacketiser_ != nullptr) depacketiser_->finish();
    if (medium_ == Medium::kH264) {
        end_unit();
    } else if (!is_speech(medium_) && got_ >= kCodeBytes) {
        plausible_ = medium_ == Medium::kMpeg4 ? is_start_code(first_) : is_picture_start(first_);
    }
    if (!plausible_) count_implausible();
}

void MediaTally::count_implausible() {
    if (counts_.implausible++ == 0)
        counts_.first_implausible = std::max<uint64_t>(counts_.frames, 1);
}

void MediaTally::speech_frame(std::span<const uint8_t> frame) {
    constexpr uint8_t kMore = 0x80;  // not in storage format
    const int type = kestrel::storage_frame_type(frame[0]);
    // Frame types without a meaning: 12 to 14 (3GPP TS 26.101), 10 to 13 (TS 26.201).
    const bool exists =
        medium_ == Medium::kWideBandSpeech ? type < 10 || type > 13 : type < 12 || type == 15;
    counts_.bytes += frame.size();
    counts_.empty_frames += frame.size() == 1 ? 1 : 0;
    plausible_ = plausible_ && exists && (frame[0] & kMore) == 0;
}

}  // namespace tool
