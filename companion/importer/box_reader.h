// SPDX-License-Identifier: Apache-2.0
// Boxes (ISO/IEC 14496-12, 4.2) and a reader that cannot leave the one that it was made for.
#ifndef KESTREL_COMPANION_IMPORTER_BOX_READER_H
#define KESTREL_COMPANION_IMPORTER_BOX_READER_H

#include <algorithm>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "common/bytes.h"
#include "companion/importer/movie.h"
#include "companion/importer/source.h"

namespace kestrel::importer {

using Bytes = std::vector<std::uint8_t>;

// Where a box lies in the file.
struct Box {
    std::uint32_t type = 0;
    std::uint64_t offset = 0;  // of its header
    std::uint64_t body = 0;    // offset of its body
    std::uint64_t end = 0;     // offset after it
    bool large = false;        // 64-bit size
    bool to_end = false;       // size 0

    std::uint64_t size() const { return end - offset; }
};

// The four characters; those that cannot be printed as '?'.
std::string type_text(std::uint32_t type);

// "stsz at offset 1234"
std::string place_text(const Box& box);

// Reads a stretch of the file, big-endian, from its begin to its end. A read that goes past the
// end, and one that the host fails, return zeros and set failed() for good.
class BoxReader {
  public:
    // Whether a read may ask the host for what follows, up to the end, or for a header at most.
    enum class ReadAhead { kYes, kNo };

    // Requires begin <= end <= source.size().
    BoxReader(Source& source, std::uint64_t begin, std::uint64_t end,
              ReadAhead read_ahead = ReadAhead::kYes)
        : source_(&source), at_(begin), end_(end), read_ahead_(read_ahead == ReadAhead::kYes) {}
    // The body of a box that lies whole in the file.
    BoxReader(Source& source, const Box& box) : BoxReader(source, box.body, box.end) {}

    std::uint8_t u8() { return static_cast<std::uint8_t>(number<1>()); }
    std::uint16_t u16() { return static_cast<std::uint16_t>(number<2>()); }
    std::uint32_t u24() { return static_cast<std::uint32_t>(number<3>()); }
    std::uint32_t u32() { return static_cast<std::uint32_t>(number<4>()); }
    std::uint64_t u64() { return number<8>(); }
    std::int32_t i32() { return static_cast<std::int32_t>(u32()); }
    // 64 bits in version 1 of a box, 32 bits in version 0.
    std::uint64_t u32_or_64(bool version1) { return version1 ? u64() : u32(); }
    void skip(std::uint64_t count);
    // Exactly `count` bytes, or none.
    Bytes bytes(std::uint64_t count);

    // Reads the header of the box at the cursor, and moves to its body. The box may end after this
    // stretch. Returns false at the end (fewer than 8 bytes are left, which are skipped) and for a
    // size that is smaller than the header, which sets failed().
    bool header(Box& box);
    // Reads the header of a child and moves after that child. One that does not fit into this
    // stretch sets failed().
    bool next(Box& box);

    std::uint64_t at() const { return at_; }
    std::uint64_t left() const { return end_ - at_; }
    bool failed() const { return failed_; }
    // The offset of the child whose size was wrong.
    const std::optional<std::uint64_t>& bad_child() const { return bad_child_; }

    static constexpr std::uint32_t kHeader = 8;  // bytes of a header with a 32-bit size

  private:
    template <unsigned kCount>
    std::uint64_t number();
    bool fail_child(std::uint64_t offset);

    Source* source_;
    std::uint64_t at_;
    std::uint64_t end_;
    bool read_ahead_;
    bool failed_ = false;
    std::optional<std::uint64_t> bad_child_;
};

// A whole box with a header of 8 bytes, whatever it has in the file; empty when the host fails.
Bytes whole_box(Source& source, const Box& box);

// Writes 32 bits, big-endian, over those at an offset.
void put(Bytes& bytes, std::size_t at, std::uint32_t value);

template <unsigned kCount>
std::uint64_t BoxReader::number() {
    static_assert(kCount <= Source::kMaxTaken);
    if (failed_ || left() < kCount) {
        failed_ = true;
        return 0;
    }
    const std::uint64_t ahead = read_ahead_ ? left() : std::min<std::uint64_t>(left(), kHeader);
    const std::uint8_t* bytes = source_->take(at_, kCount, at_ + ahead);
    if (bytes == nullptr) {
        failed_ = true;
        return 0;
    }
    at_ += kCount;
    std::uint64_t value = 0;
    for (unsigned i = 0; i < kCount; ++i)
        value = value << 8 | bytes[i];
    return value;
}

}  // namespace kestrel::importer

#endif
