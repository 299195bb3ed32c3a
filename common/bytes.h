// SPDX-License-Identifier: Apache-2.0
// Big-endian numbers in memory: all of a 3GP file and of an RTP header is big-endian.
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

constexpr uint64_t load_be64(const uint8_t* p) {
    return static_cast<uint64_t>(load_be32(p)) << 32 | load_be32(p + 4);
}

// Loads as many bytes as a register holds.
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

// Stores four bytes at once, which compilers do not make of four single stores.
inline void store_be32(uint8_t* p, uint32_t value) {
    if constexpr (std::endian::native == std::endian::little) value = __builtin_bswap32(value);
    std::memcpy(p, &value, sizeof value);
}

// Appends the low `width` bytes of a value, at most 8, to a vector that grows. ByteWriter
// (byte_writer.h) writes into memory of a fixed size. Not inlined, because g++ 12 warns falsely for
// vectors that it knows to be empty.
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
    uint32_t value = 0;
    for (const char character : code.substr(0, 4))
        value = value << 8 | static_cast<uint8_t>(character);
    return value;
}

// The four characters of a code.
inline std::array<char, 4> code_text(uint32_t code) {
    std::array<uint8_t, 4> raw;
    store_be32(raw.data(), code);
    return std::bit_cast<std::array<char, 4>>(raw);
}

}  // namespace kestrel

#endif
