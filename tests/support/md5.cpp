// SPDX-License-Identifier: Apache-2.0
#include "tests/support/md5.h"

#include <array>
#include <bit>
#include <cmath>
#include <vector>

namespace {

using State = std::array<uint32_t, 4>;
constexpr size_t kBlock = 64;

uint32_t little_endian(const uint8_t* bytes) {
    return uint32_t{bytes[0]} | uint32_t{bytes[1]} << 8 | uint32_t{bytes[2]} << 16 |
           uint32_t{bytes[3]} << 24;
}

void add_block(State& state, const uint8_t* block) {
    constexpr int kShifts[4][4] = {
        {7, 12, 17, 22}, {5, 9, 14, 20}, {4, 11, 16, 23}, {6, 10, 15, 21}};
    auto [a, b, c, d] = state;
    for (uint32_t i = 0; i < 64; ++i) {
        const uint32_t round = i / 16;
        const uint32_t mix = round == 0   ? (b & c) | (~b & d)
                             : round == 1 ? (d & b) | (~d & c)
                             : round == 2 ? b ^ c ^ d
                                          : c ^ (b | ~d);
        constexpr uint32_t kSteps[4][2] = {{1, 0}, {5, 1}, {3, 5}, {7, 0}};
        const uint32_t word = (kSteps[round][0] * i + kSteps[round][1]) % 16;
        const auto sine =
            static_cast<uint32_t>(std::floor(std::ldexp(std::fabs(std::sin(i + 1.0)), 32)));
        const uint32_t sum = a + mix + sine + little_endian(block + 4 * word);
        a = d;
        d = c;
        c = b;
        b += std::rotl(sum, kShifts[round][i % 4]);
    }
    state = {state[0] + a, state[1] + b, state[2] + c, state[3] + d};
}

}  // namespace

std::string md5(std::span<const uint8_t> bytes) {
    State state = {0x67452301, 0xEFCDAB89, 0x98BADCFE, 0x10325476};
    const size_t whole = bytes.size() / kBlock * kBlock;
    for (size_t at = 0; at < whole; at += kBlock)
        add_block(state, bytes.data() + at);
    std::vector<uint8_t> tail(bytes.begin() + static_cast<std::ptrdiff_t>(whole), bytes.end());
    tail.push_back(0x80);
    while (tail.size() % kBlock != kBlock - 8)
        tail.push_back(0);
    for (int i = 0; i < 8; ++i)
        tail.push_back(static_cast<uint8_t>(uint64_t{bytes.size()} * 8 >> 8 * i));
    for (size_t at = 0; at < tail.size(); at += kBlock)
        add_block(state, tail.data() + at);
    std::string text;
    for (const uint32_t word : state) {
        for (int i = 0; i < 4; ++i) {
            constexpr char kDigits[] = "0123456789abcdef";
            const uint32_t byte = word >> 8 * i & 0xFF;
            text += {kDigits[byte >> 4], kDigits[byte & 15]};
        }
    }
    return text;
}
