// SPDX-License-Identifier: Apache-2.0
#include "companion/stream/plausible.h"

#include <cstddef>

#include "kestrel/isoff.h"
#include "native/codec/golomb_reader.h"
#include "native/codec/h264_units.h"

namespace kestrel::stream {
namespace {

constexpr size_t kCodeBytes = 3;  // that a picture begins with

}  // namespace

bool is_h263_picture(std::span<const uint8_t> bytes) {
    return bytes.size() < kCodeBytes ||
           (bytes[0] == 0 && bytes[1] == 0 && (bytes[2] & 0xFC) == 0x80);
}

bool is_mpeg4_picture(std::span<const uint8_t> bytes) {
    return is_h263_picture(bytes) || (bytes[0] == 0 && bytes[1] == 0 && bytes[2] == 1);
}

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
    GolombReader header(unit.subspan(1));
    header.ue();  // first_mb_in_slice
    // A field that goes on after the bytes at hand may be any.
    const uint32_t slice_type = header.ue();
    if (header.ok() && slice_type > kMaxSliceType) return false;
    const uint32_t pps = header.ue();
    return !header.ok() || pps <= kMaxPps;
}

bool is_speech_frame(uint8_t header, const AmrBand& band) {
    const int type = storage_frame_type(header);
    // Frame types without a meaning: 12 to 14 (3GPP TS 26.101), 10 to 13 (TS 26.201).
    const bool exists = &band == &kWideBand ? type < 10 || type > 13 : type < 12 || type == 15;
    return exists && (header & kMoreFollow) == 0;  // clear in storage format
}

bool is_speech_sample(std::span<const uint8_t> sample, const AmrBand& band) {
    while (!sample.empty()) {
        if (!is_speech_frame(sample[0], band)) return false;
        const int type = storage_frame_type(sample[0]);
        const auto size = static_cast<size_t>(storage_frame_size(band.frame_bits[type]));
        if (size > sample.size()) return false;
        sample = sample.subspan(size);
    }
    return true;
}

bool ends_with_speech_frame(std::span<const uint8_t> sample, const AmrBand& band) {
    size_t at = 0;
    while (at < sample.size()) {
        const int type = storage_frame_type(sample[at]);
        at += static_cast<size_t>(storage_frame_size(band.frame_bits[type]));
    }
    return at == sample.size();
}

bool is_h264_sample(std::span<const uint8_t> sample, int length_size) {
    NalUnits units(sample, length_size);
    bool has_unit = sample.empty();
    for (NalUnit unit; units.next(unit); has_unit = true) {
        if (!is_nal_unit(unit)) return false;
    }
    return has_unit && !units.is_cut();
}

bool is_plausible_sample(int32_t codec, int length_size, std::span<const uint8_t> sample) {
    switch (codec) {
        case ISO_CODEC_S263:
            return is_h263_picture(sample);
        case ISO_CODEC_MP4V:
            return is_mpeg4_picture(sample);
        case ISO_CODEC_AVC1:
            return is_h264_sample(sample, length_size);
        case ISO_CODEC_SAMR:
            return is_speech_sample(sample, kNarrowBand);
        case ISO_CODEC_SAWB:
            return is_speech_sample(sample, kWideBand);
        default:
            return true;
    }
}

std::string ImplausibleSamples::text(const std::string& entry) const {
    if (uneven > 0) {
        return "sample " + std::to_string(uneven) +
               " is malformed: it does not end with a speech frame; " + kWrongBytesText;
    }
    return std::to_string(count) + " of " + std::to_string(all) +
           " samples cannot be of the codec '" + entry + "', the first is number " +
           std::to_string(first) + (are_refused() ? std::string(": ") + kWrongBytesText : "");
}

}  // namespace kestrel::stream
