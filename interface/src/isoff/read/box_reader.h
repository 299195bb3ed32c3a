// SPDX-License-Identifier: Apache-2.0
// The bytes of one box, as its handler reads them.
#ifndef KESTREL_ISOFF_BOX_READER_H
#define KESTREL_ISOFF_BOX_READER_H

#include <utility>

#include "interface/src/isoff/read/byte_source.h"
#include "interface/src/isoff/record/box_columns.h"

namespace kestrel {

// While it exists, the byte readers read from a copy of `moov` in memory.
class MovieMemory {
  public:
    MovieMemory(iso_file* file, std::span<uint8_t> body) : file_(file) {
        file->in_moov_buffer = 1;
        file->moov_buffer = body.data();
        file->moov_left = static_cast<uint32_t>(body.size());
    }
    MovieMemory(const MovieMemory&) = delete;
    MovieMemory& operator=(const MovieMemory&) = delete;
    ~MovieMemory() { file_->in_moov_buffer = 0; }

  private:
    iso_file* file_;
};

// Limits reading to the next `count` bytes of the in-memory `moov`. Its destructor moves the cursor
// after them.
class MovieLimit {
  public:
    MovieLimit(iso_file* file, uint32_t count)
        : file_(file), end_(file->moov_buffer + count), left_after_(file->moov_left - count) {
        file->moov_left = count;
    }
    MovieLimit(const MovieLimit&) = delete;
    MovieLimit& operator=(const MovieLimit&) = delete;
    ~MovieLimit() {
        file_->moov_buffer = end_;
        file_->moov_left = left_after_;
    }

  private:
    iso_file* file_;
    uint8_t* end_;
    uint32_t left_after_;
};

// Reads the fields of one box in order. Inside `moov` a MovieLimit limits it to the box. The values
// of fields that cannot be read are those of the byte readers (byte_source.h).
class BoxReader {
  public:
    BoxReader(iso_file* file, uint32_t size) : file_(file), size_(size) {}

    iso_file* file() const { return file_; }
    // The track of the box; null outside any track.
    iso_track* track() const { return file_->current_track; }

    // Bytes of the body as declared in the header; 0 for a box that runs to the end of its
    // container.
    uint32_t size() const { return size_; }

    // Inside `moov`: bytes of the body after the cursor, and the cursor.
    uint32_t left() const { return file_->moov_left; }
    uint8_t* data() const { return file_->moov_buffer; }

    uint8_t u8() { return getbyte(file_); }
    uint16_t u16() { return getint16(file_); }
    uint32_t u24() { return getint24(file_); }
    uint32_t u32() { return getint32(file_); }
    bool bytes(void* to, uint32_t count) { return getbytes(file_, to, count); }
    bool id(char (&code)[5]) { return getID(file_, code); }
    bool skip(uint32_t count) { return kestrel::skip(file_, count) == 1; }
    // Reads the length of a descriptor. Returns false when it cannot be read.
    bool descriptor_length(uint32_t& length) { return getxlen(file_, length) >= 0; }

  private:
    iso_file* file_;
    uint32_t size_;
};

// Stores the columns of a box (record/box_columns.h). Reserved bytes are skipped in one step before
// the next column.
class ColumnReader {
  public:
    explicit ColumnReader(BoxReader& box) : box_(box) {}

    void u8(uint8_t& value) { value = next().u8(); }
    void u16(uint16_t& value) { value = next().u16(); }
    void u16(int32_t& value) { value = next().u16(); }
    void u32(uint32_t& value) { value = next().u32(); }
    void u32(int32_t& value) { value = static_cast<int32_t>(next().u32()); }
    void time(uint64_t& value, bool wide) {
        const uint64_t high = wide ? next().u32() : 0;
        value = high << 32 | next().u32();
    }
    void time(int64_t& value, bool wide) {
        uint64_t bits = 0;
        time(bits, wide);
        value = wide ? static_cast<int64_t>(bits) : static_cast<int32_t>(bits);
    }
    void id(char (&code)[5]) { has_codes_ = next().id(code) && has_codes_; }
    void reserved(uint32_t count) { skipped_ += count; }
    void constant16(uint32_t) { skipped_ += 2; }
    void constant32(uint32_t) { skipped_ += 4; }

    // Whether all four-character codes could be read.
    bool has_codes() const { return has_codes_; }

  private:
    BoxReader& next() {
        if (skipped_ != 0) box_.skip(std::exchange(skipped_, 0));
        return box_;
    }

    BoxReader& box_;
    uint32_t skipped_ = 0;
    bool has_codes_ = true;
};

}  // namespace kestrel

#endif
