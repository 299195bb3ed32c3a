// SPDX-License-Identifier: Apache-2.0
// Boxes, and a reader that is limited to one of them.
#ifndef KESTREL_COMPANION_IMPORTER_BOX_READER_H
#define KESTREL_COMPANION_IMPORTER_BOX_READER_H

#include <algorithm>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "common/box_header.h"
#include "common/byte_reader.h"
#include "companion/importer/movie.h"
#include "companion/importer/source.h"

namespace kestrel::importer {

using Bytes = std::vector<std::uint8_t>;

// The place of a box in the file.
struct Box {
    std::uint32_t type = 0;
    std::uint64_t offset = 0;  // of its header
    std::uint64_t body = 0;    // offset of its body
    std::uint64_t end = 0;     // offset after it

    std::uint64_t size() const { return end - offset; }
};

// Returns the four characters, unprintable ones as '?'.
std::string type_text(std::uint32_t type);

// "stsz at offset 1234"
std::string place_text(const Box& box);

// Reads the bytes of the file from `begin` to `end`. A read that goes past the end, and one that
// the host fails, return zeros and set failed() for good.
class BoxReader : public NumberReader<BoxReader> {
  public:
    // Whether a read may read ahead up to the end, or by a box header at most.
    enum class ReadAhead { kYes, kNo };

    // Requires begin <= end <= source.size().
    BoxReader(Source& source, std::uint64_t begin, std::uint64_t end,
              ReadAhead read_ahead = ReadAhead::kYes)
        : source_(&source), at_(begin), end_(end), read_ahead_(read_ahead == ReadAhead::kYes) {}
    // Reads the body of a box that is whole in the file.
    BoxReader(Source& source, const Box& box) : BoxReader(source, box.body, box.end) {}

    // Returns the next `count` bytes, at most Source::kMaxTaken, or null.
    const std::uint8_t* fetch(std::size_t count) {
        if (failed_ || left() < count) {
            failed_ = true;
            return nullptr;
        }
        const std::uint64_t ahead =
            read_ahead_ ? left() : std::min<std::uint64_t>(left(), kBoxHeader);
        const std::uint8_t* bytes =
            source_->take(at_, static_cast<std::uint32_t>(count), at_ + ahead);
        if (bytes == nullptr) {
            failed_ = true;
        } else {
            at_ += count;
        }
        return bytes;
    }
    void skip(std::uint64_t count);
    // Returns exactly `count` bytes, or none.
    Bytes bytes(std::uint64_t count);

    // Reads the header of the box at the cursor, and moves to its body. The box may end after
    // `end`. Returns false at the end (fewer than 8 bytes are left, which are skipped) and for a
    // size smaller than the header, which sets failed().
    bool header(Box& box);
    // Reads the header of a child and moves after the child. A child that ends after `end` sets
    // failed().
    bool next(Box& box);

    std::uint64_t at() const { return at_; }
    std::uint64_t left() const { return end_ - at_; }
    bool failed() const { return failed_; }
    // The offset of the child with an invalid size.
    const std::optional<std::uint64_t>& bad_child() const { return bad_child_; }

  private:
    bool fail_child(std::uint64_t offset);

    Source* source_;
    std::uint64_t at_;
    std::uint64_t end_;
    bool read_ahead_;
    bool failed_ = false;
    std::optional<std::uint64_t> bad_child_;
};

// Returns a whole box with a header of 8 bytes, whatever its form in the file; nothing when the
// host fails.
Bytes whole_box(Source& source, const Box& box);

}  // namespace kestrel::importer

#endif
