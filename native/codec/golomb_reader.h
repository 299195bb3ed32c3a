// SPDX-License-Identifier: Apache-2.0
// Numbers of H.264 units (ITU-T H.264).
#ifndef KESTREL_CODEC_GOLOMB_READER_H
#define KESTREL_CODEC_GOLOMB_READER_H

#include <algorithm>

#include "common/bit_reader.h"

namespace kestrel {

// Exp-Golomb codes (9.1). A code longer than 32 bits makes ok() false.
class GolombReader : public BitReader {
  public:
    using BitReader::BitReader;

    uint32_t ue() {
        constexpr unsigned kMaxZeros = 31;
        unsigned zeros = 0;
        while (ok() && !flag())
            ++zeros;
        if (zeros > kMaxZeros) {
            spoil();
            return 0;
        }
        return (uint32_t{1} << zeros) - 1 + (zeros == 0 ? 0 : bits(zeros));
    }
    int32_t se() {
        const uint32_t code = ue();
        const auto half = static_cast<int32_t>(code / 2);
        return (code & 1) != 0 ? half + 1 : -half;
    }
    // Up to 32 bits.
    uint32_t bits(unsigned count) {
        const uint32_t high = count > kMaxBits ? get(count - kMaxBits) << kMaxBits : 0;
        return high | get(std::min(count, kMaxBits));
    }

    // Skips any number of bits.
    void skip_any(unsigned count) {
        for (; count > kMaxBits; count -= kMaxBits)
            skip(kMaxBits);
        skip(count);
    }

  private:
    void spoil() {
        while (ok())
            skip(kMaxBits);
    }
};

}  // namespace kestrel

#endif
