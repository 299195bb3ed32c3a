// SPDX-License-Identifier: Apache-2.0
// A box as its handler sees it.
#ifndef KESTREL_ISOFF_BOX_READER_H
#define KESTREL_ISOFF_BOX_READER_H

#include <utility>

#include "interface/src/isoff/read/byte_source.h"
#include "interface/src/isoff/record/box_columns.h"

namespace kestrel {

// Has the byte readers take their bytes from a copy of `moov` in memory, as long as it lives.
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

// Limits reading to the next `count` bytes of the in-memory `moov`, and at the end of its life
// moves past them, whatever was taken.
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

// Takes the bytes of one box in turn. Inside `moov` it is limited to them by a MovieLimit. What
// cannot be read has the value that the byte readers give it (byte_source.h).
class BoxReader {
  public:
    BoxReader(iso_file* file, uint32_t size) : file_(file), size_(size) {}

    iso_file* file() const { return file_; }
    // The track that the box belongs to; null outside of any.
    iso_track* track() const { return file_->current_track; }

    // Bytes of the body as its header declares them; 0 where it runs to the end of its container.
    uint32_t size() const { return size_; }

    // Inside `moov`: bytes of the body that were not taken yet, and where they are.
    uint32_t left() const { return file_->moov_left; }
    uint8_t* data() const { return file_->moov_buffer; }

    uint8_t u8() { return getbyte(file_); }
    uint16_t u16() { return getint16(file_); }
    uint32_t u24() { return getint24(file_); }
    uint32_t u32() { return getint32(file_); }
    bool bytes(void* to, uint32_t count) { return getbytes(file_, to, count); }
    bool id(char (&code)[5]) { return getID(file_, code); }
    bool skip(uint32_t count) { return kestrel::skip(file_, count) == 1; }
    // The length of a descriptor; false when it cannot be read.
    bool descriptor_length(uint32_t& length) { return getxlen(file_, length) >= 0; }

  private:
    iso_file* file_;
    uint32_t size_;
};

// Stores the columns of a box (record/box_columns.h). What is passed over is passed over at once,
// before the next column that is stored.
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

    // Whether every four-character code could be read.
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
