// SPDX-License-Identifier: Apache-2.0
#include "companion/importer/source.h"

#include <algorithm>

namespace kestrel::importer {

namespace {

// The host's table has 32-bit offsets.
constexpr std::uint64_t kOffsetsEnd = std::uint64_t{1} << 32;
constexpr std::uint32_t kLargestRead = 1 << 20;

}  // namespace

bool Source::succeeded(std::uint32_t status, const char* what) {
    std::uint32_t result = KST_IO_OK;
    host_.CheckStatus(host_.Context, &result, status);
    if (result == KST_IO_OK) return true;
    const bool not_yet = result == KST_IO_NOT_YET || result == KST_IO_NOT_YET_ALSO;
    error_ =
        not_yet ? "the file has not arrived completely" : std::string("the host failed to ") + what;
    return false;
}

bool Source::open() {
    if (host_.GetOffset == nullptr || host_.Seek == nullptr || host_.GetStreamSize == nullptr ||
        host_.IndexRead == nullptr || host_.CheckStatus == nullptr) {
        error_ = "the host's table lacks a function";
        return false;
    }
    std::uint32_t position = 0;
    std::uint32_t size = 0;
    const char* const what = "report the length of the file";
    if (!succeeded(host_.GetOffset(host_.Context, &position), what) ||
        !succeeded(host_.GetStreamSize(host_.Context, &size), what) ||
        !succeeded(host_.Seek(host_.Context, position), what)) {
        return false;
    }
    size_ = size;
    return true;
}

bool Source::fill(std::uint64_t offset, std::uint64_t limit) {
    window_begin_ = window_end_ = offset;
    const auto count = static_cast<std::uint32_t>(std::min<std::uint64_t>(kWindow, limit - offset));
    if (!read(offset, window_.data(), count)) return false;
    window_end_ = offset + count;
    return true;
}

bool Source::copy(std::uint64_t offset, std::uint8_t* to, std::uint64_t count) {
    while (count > 0) {
        const auto piece = static_cast<std::uint32_t>(std::min<std::uint64_t>(count, kLargestRead));
        if (!read(offset, to, piece)) return false;
        offset += piece;
        to += piece;
        count -= piece;
    }
    return true;
}

bool Source::read(std::uint64_t offset, std::uint8_t* to, std::uint32_t count) {
    if (offset >= kOffsetsEnd) {
        error_ = "offset " + std::to_string(offset) + " is beyond the 4 GiB - 1 of a host";
        return false;
    }
    std::uint32_t got = 0;
    const std::uint32_t status =
        host_.IndexRead(host_.Context, to, static_cast<std::uint32_t>(offset), count, &got);
    if (!succeeded(status, "read the file")) return false;
    if (got == count) return true;
    error_ = "the host read " + std::to_string(got) + " of " + std::to_string(count) +
             " bytes at offset " + std::to_string(offset);
    return false;
}

}  // namespace kestrel::importer
