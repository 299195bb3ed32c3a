// SPDX-License-Identifier: Apache-2.0
// Reading bits, most significant first.
#ifndef KESTREL_COMMON_BIT_READER_H
#define KESTREL_COMMON_BIT_READER_H

#include <cstddef>
#include <cstdint>
#include <span>

namespace kestrel {

// A read-only run of bytes with a position in bits. Bits past the end read as zero and make ok()
// false for good; nothing outside the bytes is ever touched.
class BitReader {
  public:
    BitReader() = default;
    explicit BitReader(std::span<const uint8_t> bytes, size_t bit_position = 0)
        : bytes_(bytes), position_(bit_position) {}

    bool ok() const { return ok_; }
    size_t position() const { return position_; }
    size_t size_in_bits() const { return bytes_.size() * 8; }
    size_t remaining() const {
        return position_ < size_in_bits() ? size_in_bits() - position_ : size_t{0};
    }

    // The next `count` bits (at most 32) without moving; bits past the end are zero.
    uint32_t peek(unsigned count) const {
        uint64_t window = 0;
        const size_t first = position_ / 8;
        for (size_t i = 0; i < 5; ++i) {
            window = window << 8 | (first + i < bytes_.size() ? bytes_[first + i] : uint8_t{0});
        }
        const unsigned shift = 40 - static_cast<unsigned>(position_ % 8) - count;
        return static_cast<uint32_t>(window >> shift & ((uint64_t{1} << count) - 1));
    }

    uint32_t get(unsigned count) {
        const uint32_t value = peek(count);
        skip(count);
        return value;
    }

    bool flag() { return get(1) != 0; }

    void skip(size_t count) {
        if (count > remaining()) {
            ok_ = false;
            position_ = size_in_bits();
        } else {
            position_ += count;
        }
    }

  private:
    std::span<const uint8_t> bytes_;
    size_t position_ = 0;
    bool ok_ = true;
};

}  // namespace kestrel

#endif
