// SPDX-License-Identifier: Apache-2.0
// Byte order and bounded reading. Everything in a 3GP file and in an RTP header is big-endian.
#ifndef KESTREL_COMMON_BYTES_H
#define KESTREL_COMMON_BYTES_H

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <string_view>
#include <vector>

namespace kestrel {

constexpr uint16_t load_be16(const uint8_t* p) {
    return static_cast<uint16_t>(p[0] << 8 | p[1]);
}

constexpr uint32_t load_be24(const uint8_t* p) {
    return static_cast<uint32_t>(p[0]) << 16 | static_cast<uint32_t>(p[1]) << 8 | p[2];
}

constexpr uint32_t load_be32(const uint8_t* p) {
    return static_cast<uint32_t>(p[0]) << 24 | load_be24(p + 1);
}

// As many bytes as a register holds, in one load.
inline size_t load_be_word(const uint8_t* p) {
    size_t word = 0;
    std::memcpy(&word, p, sizeof word);
    if constexpr (std::endian::native != std::endian::little) return word;
    if constexpr (sizeof word == sizeof(uint32_t)) {
        return __builtin_bswap32(static_cast<uint32_t>(word));
    } else {
        return __builtin_bswap64(word);
    }
}

inline void store_be16(uint8_t* p, uint16_t value) {
    p[0] = static_cast<uint8_t>(value >> 8);
    p[1] = static_cast<uint8_t>(value);
}

// One store: compilers make less of four that stand next to others.
inline void store_be32(uint8_t* p, uint32_t value) {
    if constexpr (std::endian::native == std::endian::little) value = __builtin_bswap32(value);
    std::memcpy(p, &value, sizeof value);
}

// Appends the low `width` bytes of a value, at most 8. Not inlined: g++ 12 warns falsely of vectors
// that it knows to be empty.
[[gnu::noinline]] inline void append_be(std::vector<uint8_t>& to, uint64_t value, unsigned width) {
    std::array<uint8_t, 8> raw;
    store_be32(raw.data(), static_cast<uint32_t>(value >> 32));
    store_be32(raw.data() + 4, static_cast<uint32_t>(value));
    to.insert(to.end(), raw.end() - width, raw.end());
}

inline void append(std::vector<uint8_t>& to, std::span<const uint8_t> bytes) {
    to.insert(to.end(), bytes.begin(), bytes.end());
}

// The big-endian value of a four-character code, for comparing types.
constexpr uint32_t fourcc(std::string_view code) {
    return static_cast<uint32_t>(static_cast<uint8_t>(code[0])) << 24 |
           static_cast<uint32_t>(static_cast<uint8_t>(code[1])) << 16 |
           static_cast<uint32_t>(static_cast<uint8_t>(code[2])) << 8 |
           static_cast<uint32_t>(static_cast<uint8_t>(code[3]));
}

// A four-character code as a NUL-terminated text, the way the records keep it.
inline void store_code(char (&out)[5], uint32_t code) {
    uint8_t raw[4];
    store_be32(raw, code);
    std::memcpy(out, raw, 4);
    out[4] = '\0';
}

// A read-only run of bytes with a position. A read that the bytes do not cover yields zeros,
// leaves the position at the end and makes ok() false for good, so a parse is a straight column
// of reads with one test after it.
class ByteReader {
  public:
    ByteReader() = default;
    explicit ByteReader(std::span<const uint8_t> bytes) : bytes_(bytes) {}

    bool ok() const { return ok_; }
    size_t position() const { return position_; }
    size_t remaining() const { return bytes_.size() - position_; }

    std::span<const uint8_t> take(size_t count) {
        if (count > remaining()) {
            ok_ = false;
            position_ = bytes_.size();
            return {};
        }
        auto taken = bytes_.subspan(position_, count);
        position_ += count;
        return taken;
    }

    void skip(size_t count) { take(count); }

    uint8_t u8() {
        auto raw = take(1);
        return raw.empty() ? uint8_t{0} : raw[0];
    }
    uint16_t be16() {
        auto raw = take(2);
        return raw.empty() ? uint16_t{0} : load_be16(raw.data());
    }
    uint32_t be24() {
        auto raw = take(3);
        return raw.empty() ? 0 : load_be24(raw.data());
    }
    uint32_t be32() {
        auto raw = take(4);
        return raw.empty() ? 0 : load_be32(raw.data());
    }

  private:
    std::span<const uint8_t> bytes_;
    size_t position_ = 0;
    bool ok_ = true;
};

}  // namespace kestrel

#endif
