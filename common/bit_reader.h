// SPDX-License-Identifier: Apache-2.0
// Reading bits, most significant first.
#ifndef KESTREL_COMMON_BIT_READER_H
#define KESTREL_COMMON_BIT_READER_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>

#include "common/bytes.h"

namespace kestrel {

// A cursor in a read-only run of bytes. Bits after the end are zero and make ok() false for good.
class BitReader {
  public:
    // The largest `count`.
    static constexpr unsigned kMaxBits = 24;

    BitReader() = default;
    explicit BitReader(std::span<const uint8_t> bytes, size_t bit_position = 0)
        : begin_(bytes.data()),
          next_(begin_ + std::min(bit_position / 8, bytes.size())),
          end_(begin_ + bytes.size()) {
        skip(static_cast<unsigned>(bit_position % 8));
    }

    // Copy for a hot loop, and copy back. Compilers keep a copy that is made field by field in
    // registers, and one that is made as a whole in memory.
    BitReader fork() const {
        BitReader copy;
        copy.begin_ = begin_;
        copy.end_ = end_;
        copy.join(*this);
        return copy;
    }
    void join(const BitReader& fork) {
        next_ = fork.next_;
        window_ = fork.window_;
        bits_ = fork.bits_;
    }

    bool ok() const { return bits_ >= 0; }

    // In bits, from the first byte. Undefined when ok() is false.
    size_t position() const {
        return static_cast<size_t>(next_ - begin_) * 8 - static_cast<size_t>(bits_);
    }

    // Returns the next `count` bits, at least 1, without moving.
    uint32_t peek(unsigned count) {
        fill(count);
        return front(count);
    }

    uint32_t get(unsigned count) {
        const uint32_t value = peek(count);
        drop(count);
        return value;
    }

    bool flag() { return get(1) != 0; }

    void skip(unsigned count) {
        fill(count);
        drop(count);
    }

    // The steps of peek and skip, for one fill before several of them: front and drop use at most
    // the bits that were filled.
    void fill(unsigned count) {
        if (bits_ < static_cast<int>(count)) refill();
    }
    uint32_t front(unsigned count) const {
        return static_cast<uint32_t>(window_ >> (kWindowBits - count));
    }
    void drop(unsigned count) {
        window_ <<= count;
        bits_ -= static_cast<int>(count);
    }

    // Fills at least kFilled bits. For hot loops in which the branch of fill is unpredictable.
    static constexpr unsigned kFilled = sizeof(size_t) * 8 - 8;
    void top_up() { refill(); }

  private:
    static constexpr int kWindowBits = sizeof(size_t) * 8;

    // Makes bits_ at least kFilled, or the number of bits left.
    void refill() {
        if (static_cast<size_t>(end_ - next_) < sizeof window_) return refill_at_end();
        // The bits after the last whole byte are kept too: the next refill sets them again.
        window_ |= load_be_word(next_) >> bits_;
        const unsigned bytes = static_cast<unsigned>(kWindowBits - 1 - bits_) / 8;
        next_ += bytes;
        bits_ += static_cast<int>(bytes * 8);
    }

    void refill_at_end() {
        for (; next_ != end_ && bits_ <= kWindowBits - 8; bits_ += 8)
            window_ |= size_t{*next_++} << (kWindowBits - 8 - bits_);
        bits_ = std::max(bits_, -1);
    }

    const uint8_t* begin_ = nullptr;
    const uint8_t* next_ = nullptr;  // the first byte that is not whole in the window
    const uint8_t* end_ = nullptr;
    size_t window_ = 0;  // the next bits, the first one on top; zeros after the end
    int bits_ = 0;       // number of valid bits; negative: the cursor is after the end
};

}  // namespace kestrel

#endif
