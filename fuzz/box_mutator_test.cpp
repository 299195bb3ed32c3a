// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "common/bytes.h"
#include "fuzz/support/support.h"
#include "tests/support/files.h"

extern "C" size_t LLVMFuzzerCustomMutator(uint8_t* data, size_t size, size_t max_size,
                                          unsigned salt);

// libFuzzer's own mutation, which knows nothing of boxes: its inputs are known by their size.
extern "C" size_t LLVMFuzzerMutate(uint8_t*, size_t, size_t) {
    return 0;
}

namespace {

constexpr size_t kRoom = 30000;

Bytes input() {
    Bytes bytes = read_sample("amrnb_hinted.3gp");
    bytes.resize(bytes.size() + fuzz::kChoiceBytes);
    return bytes;
}

// Empty where the bytes were left to libFuzzer.
Bytes mutated(const Bytes& from, unsigned salt) {
    Bytes bytes = from;
    bytes.resize(kRoom);
    bytes.resize(LLVMFuzzerCustomMutator(bytes.data(), from.size(), kRoom, salt));
    return bytes;
}

// Whether the boxes from `at` to `end` fill it, and so inside the movie and its tracks.
bool sizes_are_right(const Bytes& bytes, size_t at, size_t end) {
    while (end - at >= 8) {
        const size_t size = kestrel::load_be32(&bytes[at]);
        if (size < 8 || size > end - at) return false;
        bool is_container = false;
        for (const char* type : {"moov", "trak", "mdia", "minf", "stbl"})
            is_container = is_container || std::memcmp(&bytes[at + 4], type, 4) == 0;
        if (is_container && !sizes_are_right(bytes, at + 8, at + size)) return false;
        at += size;
    }
    return at == end;
}

// The bytes where the first chunk offset of the file leads.
Bytes first_chunk(const Bytes& bytes) {
    const Bytes name = text("stco");
    const auto stco = std::search(bytes.begin(), bytes.end(), name.begin(), name.end());
    if (bytes.end() - stco < 16) return {};
    const size_t at = kestrel::load_be32(&*stco + 12);
    if (at + 32 > bytes.size()) return {};
    const auto chunk = bytes.begin() + static_cast<std::ptrdiff_t>(at);
    return Bytes(chunk, chunk + 32);
}

TEST(BoxMutator, KeepsSizesAndMostlyChunkOffsetsRight) {
    const Bytes from = input();
    const Bytes chunk = first_chunk(from);
    int made = 0, changed = 0, right = 0, resized = 0, resized_right = 0, kept_chunk = 0;
    for (unsigned salt = 1; salt <= 2000; ++salt) {
        const Bytes bytes = mutated(from, salt);
        ASSERT_LE(bytes.size(), kRoom);
        ASSERT_EQ(bytes, mutated(from, salt));
        if (bytes.empty()) continue;
        ++made;
        changed += bytes != from;
        const bool is_right = sizes_are_right(bytes, 0, bytes.size() - fuzz::kChoiceBytes);
        right += is_right;
        if (bytes.size() == from.size()) continue;
        ++resized;
        resized_right += is_right;
        kept_chunk += first_chunk(bytes) == chunk;
    }
    EXPECT_GT(made, 1500);
    EXPECT_GT(changed, made * 3 / 4);
    EXPECT_GT(right, made * 3 / 4);
    EXPECT_GT(resized, made / 5);
    EXPECT_GT(resized_right, resized * 3 / 4);
    EXPECT_GT(kept_chunk, resized / 3);
}

// Bytes without boxes, and inputs that are no more than choices, are left to libFuzzer.
TEST(BoxMutator, LeavesOtherBytesAlone) {
    for (const size_t size : {size_t{0}, size_t{1}, size_t{16}, size_t{17}, size_t{100}}) {
        for (unsigned salt = 1; salt <= 50; ++salt) {
            const Bytes bytes = mutated(Bytes(size, 0xFF), salt);
            EXPECT_TRUE(bytes.empty() || (size > 16 && bytes.size() == size));
        }
    }
}

}  // namespace
