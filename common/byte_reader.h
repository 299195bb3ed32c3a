// SPDX-License-Identifier: Apache-2.0
// Bounded reading of big-endian numbers.
//
// Two readers do not derive from NumberReader, because their results are prescribed: the functions
// of the ISO reader (interface/src/isoff/read/byte_source.h), which print a line and have another
// value for what cannot be read, and those of the box model (boxes/stream_io.h), which throw the
// host's status.
#ifndef KESTREL_COMMON_BYTE_READER_H
#define KESTREL_COMMON_BYTE_READER_H

#include "common/bytes.h"

namespace kestrel {

// The numbers of a `Reader`, which derives from this. Its fetch(count) returns a pointer to the
// next `count` bytes, at most 8, and moves after them; it returns null when they cannot be read. A
// number that cannot be read is 0.
template <class Reader>
class NumberReader {
  public:
    uint8_t u8() {
        const uint8_t* raw = fetch(1);
        return raw == nullptr ? uint8_t{0} : *raw;
    }
    uint16_t u16() {
        const uint8_t* raw = fetch(2);
        return raw == nullptr ? uint16_t{0} : load_be16(raw);
    }
    uint32_t u24() {
        const uint8_t* raw = fetch(3);
        return raw == nullptr ? 0 : load_be24(raw);
    }
    uint32_t u32() {
        const uint8_t* raw = fetch(4);
        return raw == nullptr ? 0 : load_be32(raw);
    }
    uint64_t u64() {
        const uint8_t* raw = fetch(8);
        return raw == nullptr ? 0 : load_be64(raw);
    }
    int32_t i32() { return static_cast<int32_t>(u32()); }
    // 64 bits in version 1 of a box, 32 bits in version 0.
    uint64_t u32_or_64(bool version1) { return version1 ? u64() : u32(); }

  private:
    const uint8_t* fetch(size_t count) { return static_cast<Reader&>(*this).fetch(count); }
};

// A cursor in bytes in memory. A read that goes past the end returns zeros, moves the cursor to the
// end and makes ok() false for good: read a whole record, then test once.
class ByteReader : public NumberReader<ByteReader> {
  public:
    ByteReader() = default;
    explicit ByteReader(std::span<const uint8_t> bytes) : bytes_(bytes) {}

    bool ok() const { return ok_; }
    size_t position() const { return position_; }
    size_t remaining() const { return bytes_.size() - position_; }

    std::span<const uint8_t> take(size_t count) {
        const uint8_t* bytes = fetch(count);
        return bytes == nullptr ? std::span<const uint8_t>() : std::span(bytes, count);
    }
    void skip(size_t count) { fetch(count); }
    const uint8_t* fetch(size_t count) {
        if (count > remaining()) {
            ok_ = false;
            position_ = bytes_.size();
            return nullptr;
        }
        const uint8_t* bytes = bytes_.data() + position_;
        position_ += count;
        return bytes;
    }

  private:
    std::span<const uint8_t> bytes_;
    size_t position_ = 0;
    bool ok_ = true;
};

}  // namespace kestrel

#endif
