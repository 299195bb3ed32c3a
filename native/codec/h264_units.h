// SPDX-License-Identifier: Apache-2.0
// The NAL units of an H.264 sample, and the fragments of one that is longer than a packet.
#ifndef KESTREL_NATIVE_H264_UNITS_H
#define KESTREL_NATIVE_H264_UNITS_H

#include <algorithm>
#include <array>
#include <cstdint>
#include <span>

#include "kestrel/codec.h"
#include "native/codec/nal_unit.h"

namespace kestrel {

enum class EmptyUnits { kSkipped, kTaken };

// The length-prefixed NAL units of a run of bytes. A unit that declares more bytes than are left
// ends with the bytes.
class NalUnits {
  public:
    NalUnits(std::span<const uint8_t> bytes, int length_size,
             EmptyUnits empty = EmptyUnits::kSkipped)
        : bytes_(bytes),
          length_size_(static_cast<size_t>(std::clamp(length_size, 1, 4))),
          takes_empty_(empty == EmptyUnits::kTaken) {}

    bool next(NalUnit& unit) {
        while (bytes_.size() >= length_size_) {
            const size_t declared =
                h264_get_nal_size(bytes_.data(), static_cast<int>(length_size_));
            bytes_ = bytes_.subspan(length_size_);
            is_cut_ |= declared > bytes_.size();
            unit = bytes_.first(std::min(declared, bytes_.size()));
            bytes_ = bytes_.subspan(unit.size());
            if (takes_empty_ || !unit.empty()) return true;
        }
        unit = {};
        return false;
    }

    // Whether another unit follows that is not empty.
    bool has_more() const {
        NalUnits rest = *this;
        NalUnit unit;
        return rest.next(unit);
    }

    // After the last unit: the bytes that are too few for a length.
    std::span<const uint8_t> rest() const { return bytes_; }

    // Whether one so far claimed more than there is.
    bool is_cut() const { return is_cut_; }

  private:
    std::span<const uint8_t> bytes_;
    size_t length_size_;
    bool is_cut_ = false;
    bool takes_empty_;
};

// A fragment with the FU indicator and FU header before it (RFC 6184, 5.8).
struct FuFragment {
    std::array<uint8_t, 2> headers;
    std::span<const uint8_t> bytes;
    bool is_last;
};

inline constexpr int kFuHeaders = 2;

// FU-A: the unit after its first byte, which the headers replace, in packets of `max_payload`.
class FuFragments {
  public:
    FuFragments(NalUnit unit, int max_payload)
        : unit_header_(unit[0]),
          rest_(unit.subspan(1)),
          most_(static_cast<size_t>(std::max(max_payload - kFuHeaders, 0))) {}

    // Returns false at the end, and when packets are too short.
    bool next(FuFragment& fragment) {
        constexpr uint8_t kStart = 0x80, kEnd = 0x40, kNalReferenceIdc = 0x60;
        if (rest_.empty() || most_ == 0) return false;
        fragment.is_last = rest_.size() <= most_;
        fragment.bytes = rest_.first(std::min(rest_.size(), most_));
        const int ends = (is_first_ ? kStart : 0) | (fragment.is_last ? kEnd : 0);
        fragment.headers = {static_cast<uint8_t>((unit_header_ & kNalReferenceIdc) | kFuA),
                            static_cast<uint8_t>(ends | (unit_header_ & kNalTypeBits))};
        rest_ = rest_.subspan(fragment.bytes.size());
        is_first_ = false;
        return true;
    }

    bool has_room() const { return most_ != 0; }

  private:
    uint8_t unit_header_;
    std::span<const uint8_t> rest_;
    size_t most_;
    bool is_first_ = true;
};

}  // namespace kestrel

#endif
