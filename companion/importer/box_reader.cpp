// SPDX-License-Identifier: Apache-2.0
#include "companion/importer/box_reader.h"

namespace kestrel::importer {

namespace {

constexpr std::uint64_t kLargeHeader = 16;
// Values of the size field that are no sizes.
constexpr std::uint32_t kSizeToEnd = 0;
constexpr std::uint32_t kSizeIs64Bits = 1;

}  // namespace

std::string type_text(std::uint32_t type) {
    std::string text;
    for (int shift = 24; shift >= 0; shift -= 8) {
        const auto byte = static_cast<unsigned char>(type >> shift);
        text += byte >= 0x20 && byte < 0x7F ? static_cast<char>(byte) : '?';
    }
    return text;
}

std::string place_text(const Box& box) {
    return type_text(box.type) + " at offset " + std::to_string(box.offset);
}

void BoxReader::skip(std::uint64_t count) {
    if (failed_ || left() < count) {
        failed_ = true;
    } else {
        at_ += count;
    }
}

Bytes BoxReader::bytes(std::uint64_t count) {
    Bytes bytes;
    if (failed_ || left() < count) {
        failed_ = true;
        return bytes;
    }
    bytes.resize(static_cast<std::size_t>(count));
    if (!source_->copy(at_, bytes.data(), count)) {
        failed_ = true;
        bytes.clear();
    } else {
        at_ += count;
    }
    return bytes;
}

bool BoxReader::fail_child(std::uint64_t offset) {
    failed_ = true;
    bad_child_ = offset;
    return false;
}

bool BoxReader::header(Box& box) {
    if (failed_) return false;
    if (left() < kHeader) {
        at_ = end_;
        return false;
    }
    box = Box{.offset = at_};
    const std::uint64_t available = left();
    std::uint64_t size = u32();
    box.type = u32();
    box.large = size == kSizeIs64Bits;
    box.to_end = size == kSizeToEnd;
    if (box.large) size = available < kLargeHeader ? 0 : u64();
    if (box.to_end) size = available;
    if (failed_) return false;
    if (size < at_ - box.offset || size > UINT64_MAX - box.offset) return fail_child(box.offset);
    box.body = at_;
    box.end = box.offset + size;
    return true;
}

bool BoxReader::next(Box& box) {
    if (!header(box)) return false;
    if (box.end > end_) return fail_child(box.offset);
    at_ = box.end;
    return true;
}

Bytes whole_box(Source& source, const Box& box) {
    const std::uint64_t body = box.end - box.body;
    Bytes bytes(static_cast<std::size_t>(body + BoxReader::kHeader));
    if (!source.copy(box.body, bytes.data() + BoxReader::kHeader, body)) return {};
    put(bytes, 0, static_cast<std::uint32_t>(bytes.size()));
    put(bytes, 4, box.type);
    return bytes;
}

void put(Bytes& bytes, std::size_t at, std::uint32_t value) {
    store_be32(&bytes[at], value);
}

}  // namespace kestrel::importer
