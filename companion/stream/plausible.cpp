// SPDX-License-Identifier: Apache-2.0
#include "companion/stream/plausible.h"

#include <cstddef>
#include <optional>

namespace kestrel::stream {
namespace {

constexpr size_t kCodeBytes = 3;  // that a picture begins with

// An unsigned Exp-Golomb code of `bytes` from bit `at` on, which moves past it. None when it does
// not end in them.
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
    size_t at = 8;
    const auto first_macroblock = exp_golomb(unit, at);
    const auto slice_type = exp_golomb(unit, at);
    const auto pps = exp_golomb(unit, at);
    // A field that goes on after the bytes at hand may be any.
    return (!first_macroblock || !slice_type || *slice_type <= kMaxSliceType) &&
           (!pps || *pps <= kMaxPps);
}

}  // namespace kestrel::stream
