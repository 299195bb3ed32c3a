// SPDX-License-Identifier: Apache-2.0
#include "native/stream/plausible.h"

#include <algorithm>
#include <cstddef>

#include "kestrel/isoff.h"
#include "native/codec/golomb_reader.h"
#include "native/codec/h264_units.h"

namespace kestrel::stream {
namespace {

// The least bytes of a picture that is not empty. Of H.263, the fields from PSC to PEI (ITU-T
// H.263, 5.1). Of MPEG-4 Visual, a VOP that is not coded (ISO/IEC 14496-2, 6.2.5).
constexpr size_t kLeastH263 = (22 + 8 + 13 + 5 + 2 + 7) / 8;
constexpr size_t kLeastMpeg4 = (32 + 2 + 1 + 1 + 1 + 1 + 1 + 7) / 8;

// Types of NAL units (ITU-T H.264, table 7-1).
enum UnitType : uint8_t {
    kSlice = 1,
    kIdrSlice = 5,
    kSei,
    kSps,
    kPps,
    kDelimiter,
    kEndOfSequence,
    kEndOfStream,
    kFiller,
    kLastKnown = 21
};

uint8_t type_of(std::span<const uint8_t> unit) {
    return unit[0] & 0x1F;
}

// Whether nal_ref_idc has a value that the type may have (7.4.1).
bool may_be_reference(uint8_t type, bool is_reference) {
    switch (type) {
        case kIdrSlice:
        case kSps:
        case kPps:
            return is_reference;
        case kSei:
        case kDelimiter:
        case kEndOfSequence:
        case kEndOfStream:
        case kFiller:
            return !is_reference;
        default:
            return true;
    }
}

}  // namespace

std::string empty_text(uint64_t empty, uint64_t all, const char* unit, bool is_speech) {
    if (empty == 0) return "";
    return std::to_string(empty) + " of " + std::to_string(all) + " " + unit +
           (all == 1 ? "" : "s") + (empty == 1 ? " is" : " are") + " empty: no " +
           (is_speech ? "speech" : "picture") + " is delivered for " + (empty == 1 ? "it" : "them");
}

bool is_h263_picture(std::span<const uint8_t> bytes) {
    if (bytes.empty()) return true;
    return bytes.size() >= kLeastH263 && bytes[0] == 0 && bytes[1] == 0 &&
           (bytes[2] & 0xFC) == 0x80;
}

bool is_mpeg4_picture(std::span<const uint8_t> bytes) {
    return is_h263_picture(bytes) ||
           (bytes.size() >= kLeastMpeg4 && bytes[0] == 0 && bytes[1] == 0 && bytes[2] == 1);
}

bool is_nal_unit(std::span<const uint8_t> unit) {
    constexpr uint32_t kMaxSliceType = 9, kMaxPps = 255;
    const uint8_t type = type_of(unit);
    if ((unit[0] & 0x80) != 0 || type == 0 || type > kLastKnown) return false;
    if (!may_be_reference(type, (unit[0] & 0x60) != 0)) return false;
    if (type == kEndOfSequence || type == kEndOfStream)  // have a header only
        return std::all_of(unit.begin() + 1, unit.end(), [](uint8_t byte) { return byte == 0; });
    if (type != kSlice && type != kIdrSlice) return true;
    GolombReader header(unit.subspan(1));
    header.ue();  // first_mb_in_slice
    // A field that goes on after the bytes at hand may be any.
    const uint32_t slice_type = header.ue();
    if (header.ok() && slice_type > kMaxSliceType) return false;
    const uint32_t pps = header.ue();
    return !header.ok() || pps <= kMaxPps;
}

bool is_picture_part(std::span<const uint8_t> unit) {
    const uint8_t type = type_of(unit);
    return (type >= kSlice && type <= kIdrSlice) || type == kSps || type == kPps;
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

bool is_uneven_speech(int32_t codec, std::span<const uint8_t> sample) {
    return is_speech(codec) && !ends_with_speech_frame(sample, amr_band(codec == ISO_CODEC_SAWB));
}

bool is_h264_sample(std::span<const uint8_t> sample, int length_size) {
    constexpr int kMostZeros = 32;  // bytes
    NalUnits units(sample, length_size, EmptyUnits::kTaken);
    bool has_part = sample.empty();
    int zeros = 0;
    for (NalUnit unit; units.next(unit);) {
        zeros = unit.empty() ? zeros + length_size : 0;
        if (zeros > kMostZeros || (!unit.empty() && !is_nal_unit(unit))) return false;
        has_part = has_part || (!unit.empty() && is_picture_part(unit));
    }
    const auto rest = units.rest();
    const bool is_padded =
        std::all_of(rest.begin(), rest.end(), [](uint8_t byte) { return byte == 0; });
    return has_part && is_padded && !units.is_cut();
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
               " is malformed: it does not end with a speech frame; " + kWrongBytesText +
               kGetAgainText;
    }
    if (count == 0) return std::string(text_of(configuration)) + kGetAgainText;
    return std::to_string(count) + " of " + std::to_string(all) +
           " samples cannot be of the codec '" + entry + "', the first is number " +
           std::to_string(first) + (are_refused() ? std::string(": ") + kWrongBytesText : "") +
           kGetAgainText;
}

}  // namespace kestrel::stream
