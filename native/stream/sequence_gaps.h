// SPDX-License-Identifier: Apache-2.0
// Counts missing packets of a stream by their sequence numbers.
#ifndef KESTREL_NATIVE_STREAM_SEQUENCE_GAPS_H
#define KESTREL_NATIVE_STREAM_SEQUENCE_GAPS_H

#include <cstdint>
#include <optional>

namespace kestrel::stream {

class SequenceGaps {
  public:
    // Numbers that go back, or ahead by half the range, are ignored.
    void add(uint16_t sequence) {
        constexpr uint16_t kHalf = 0x8000;
        if (!last_) first_ = sequence;
        const auto ahead = static_cast<uint16_t>(sequence - last_.value_or(sequence - 1));
        if (ahead > 1 && ahead < kHalf) missing_ += ahead - 1u;
        last_ = sequence;
    }

    uint64_t missing() const { return missing_; }
    // The first number, 0 before it came.
    uint16_t first() const { return first_; }

  private:
    std::optional<uint16_t> last_;
    uint16_t first_ = 0;
    uint64_t missing_ = 0;
};

}  // namespace kestrel::stream

#endif
