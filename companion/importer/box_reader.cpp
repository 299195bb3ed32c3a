// SPDX-License-Identifier: Apache-2.0
#include "companion/importer/box_reader.h"

namespace kestrel::importer {

std::string type_text(std::uint32_t type) {
    std::string text;
    for (const char character : code_text(type))
        text += character >= 0x20 && character < 0x7F ? character : '?';
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
    if (left() < kBoxHeader) {
        at_ = end_;
        return false;
    }
    box = Box{.offset = at_};
    const std::uint64_t available = left();
    std::uint64_t size = u32();
    box.type = u32();
    const bool to_end = size == kSizeToEnd;
    if (size == kSizeIs64Bits) size = available < kLargeBoxHeader ? 0 : u64();
    if (to_end) size = available;
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
    Bytes bytes(static_cast<std::size_t>(body + kBoxHeader));
    if (!source.copy(box.body, bytes.data() + kBoxHeader, body)) return {};
    store_box_header(bytes.data(), {static_cast<std::uint32_t>(bytes.size()), box.type});
    return bytes;
}

}  // namespace kestrel::importer
