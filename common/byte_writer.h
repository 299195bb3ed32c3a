// SPDX-License-Identifier: Apache-2.0
// Bounded writing of big-endian numbers into memory of a fixed size.
#ifndef KESTREL_COMMON_BYTE_WRITER_H
#define KESTREL_COMMON_BYTE_WRITER_H

#include "common/bytes.h"

namespace kestrel {

// A cursor in memory. What does not fit is counted and not written: a writer without memory
// measures what another one writes.
class ByteWriter {
  public:
    ByteWriter() = default;
    explicit ByteWriter(std::span<uint8_t> to) : to_(to) {}

    uint64_t position() const { return position_; }

    void u8(uint32_t value) {
        if (fits(1)) *here() = static_cast<uint8_t>(value);
        position_ += 1;
    }
    void u16(uint32_t value) {
        if (fits(2)) store_be16(here(), static_cast<uint16_t>(value));
        position_ += 2;
    }
    void u24(uint32_t value) {
        u8(value >> 16);
        u16(value);
    }
    void u32(uint32_t value) {
        if (fits(4)) store_be32(here(), value);
        position_ += 4;
    }
    void u64(uint64_t value) {
        u32(static_cast<uint32_t>(value >> 32));
        u32(static_cast<uint32_t>(value));
    }
    void bytes(const void* data, size_t count) {
        if (fits(count) && count != 0) std::memcpy(here(), data, count);
        position_ += count;
    }
    void bytes(std::span<const uint8_t> data) { bytes(data.data(), data.size()); }
    void zeros(size_t count) {
        for (size_t i = 0; i < count; ++i)
            u8(0);
    }
    // Writes over 32 bits that were written at `position`.
    void patch_u32(uint64_t position, uint32_t value) {
        ByteWriter at = *this;
        at.position_ = position;
        at.u32(value);
    }

  private:
    bool fits(size_t count) const {
        return position_ <= to_.size() && count <= to_.size() - static_cast<size_t>(position_);
    }
    uint8_t* here() const { return to_.data() + static_cast<size_t>(position_); }

    std::span<uint8_t> to_;
    uint64_t position_ = 0;
};

}  // namespace kestrel

#endif
