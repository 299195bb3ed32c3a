// SPDX-License-Identifier: Apache-2.0
// A box as the writer puts it together. Each is described once: the same lines count its bytes and
// write them.
#ifndef KESTREL_ISOFF_BOX_BODY_H
#define KESTREL_ISOFF_BOX_BODY_H

#include <algorithm>

#include "common/bytes.h"
#include "interface/src/isoff/record/box_columns.h"
#include "interface/src/isoff/write/boxes.h"

namespace kestrel {

inline constexpr uint32_t kBoxHeader = 8;

// Bytes that do not fit are counted only.
class BoxBody {
  public:
    BoxBody(Pass pass, std::span<uint8_t> to, const char* type) : pass_(pass), to_(to) {
        u32(0);  // the size, known at the end
        id(type);
    }

    void u8(uint32_t value) {
        if (fits(1)) *here() = static_cast<uint8_t>(value);
        position_ += 1;
    }
    void u16(uint32_t value) {
        u8(value >> 8);
        u8(value);
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
    // Four characters; a shorter code, as of a record that was never filled, ends in zeros.
    void id(const char* code) {
        const size_t length = strnlen(code, 4);
        for (size_t i = 0; i < 4; ++i)
            u8(i < length ? static_cast<uint8_t>(code[i]) : 0);
    }
    void bytes(const void* data, size_t count) {
        if (fits(count) && count != 0) std::memcpy(here(), data, count);
        position_ += count;
    }
    void zeros(size_t count) {
        for (size_t i = 0; i < count; ++i)
            u8(0);
    }
    void version_and_flags(uint32_t version, uint32_t flags) { u32(version << 24 | flags); }

    // A box inside this one.
    template <typename Writer, typename Record>
    void child(Writer writer, Record* record) {
        position_ += writer(pass_, rest(), record);
    }

    uint64_t finish() {
        if (pass_ == kWritePass && to_.size() >= kBoxHeader) {
            store_be32(to_.data(), static_cast<uint32_t>(position_));
        }
        return position_;
    }

  private:
    bool fits(size_t count) const {
        return pass_ == kWritePass && position_ <= to_.size() && count <= to_.size() - position_;
    }
    uint8_t* here() const { return to_.data() + static_cast<size_t>(position_); }
    std::span<uint8_t> rest() const {
        return position_ <= to_.size() ? to_.subspan(static_cast<size_t>(position_))
                                       : std::span<uint8_t>();
    }

    Pass pass_;
    std::span<uint8_t> to_;
    uint64_t position_ = 0;
};

// Puts the columns of a box (record/box_columns.h).
class ColumnWriter {
  public:
    explicit ColumnWriter(BoxBody& box) : box_(box) {}

    void u8(uint32_t value) { box_.u8(value); }
    void u16(uint32_t value) { box_.u16(value); }
    void u16(int32_t value) { box_.u16(static_cast<uint32_t>(value)); }
    void u32(uint32_t value) { box_.u32(value); }
    void u32(int32_t value) { box_.u32(static_cast<uint32_t>(value)); }
    void time(uint64_t value, bool wide) {
        wide ? box_.u64(value) : box_.u32(static_cast<uint32_t>(value));
    }
    void time(int64_t value, bool wide) { time(static_cast<uint64_t>(value), wide); }
    void id(const char* code) { box_.id(code); }
    void reserved(uint32_t count) { box_.zeros(count); }
    void constant16(uint32_t value) { box_.u16(value); }
    void constant32(uint32_t value) { box_.u32(value); }

  private:
    BoxBody& box_;
};

// Puts an entry of a table.
template <typename Entry>
void put(BoxBody& box, const Entry& entry) {
    ColumnWriter writer(box);
    columns(writer, entry);
}

// Tag and length of a descriptor (ISO/IEC 14496-1, 8.3.3); the length takes four bytes always.
inline constexpr uint32_t kDescriptorHeader = 5;

inline void put_descriptor(BoxBody& box, uint8_t tag, uint32_t length) {
    box.u8(tag);
    for (const unsigned shift : {21U, 14U, 7U})
        box.u8((length >> shift & 0x7F) | 0x80);
    box.u8(length & 0x7F);
}

// A box that is written as it was read.
inline uint64_t write_copied(Pass pass, std::span<uint8_t> to,
                             const std::span<const uint8_t>* box) {
    if (pass == kWritePass && box->size() <= to.size()) {
        std::copy(box->begin(), box->end(), to.begin());
    }
    return box->size();
}

}  // namespace kestrel

#endif
