// SPDX-License-Identifier: Apache-2.0
// Texts for fields of boxes: dates, pixels, languages, seconds.
#ifndef KESTREL_TOOLS_FIELD_READING_H
#define KESTREL_TOOLS_FIELD_READING_H

#include <cstdint>
#include <string>
#include <string_view>

namespace tool {

// "2026-11-22T01:02:03Z" of seconds since the beginning of 1904.
std::string date_text(uint64_t seconds);

// The value of a field alone, of one that the object model keeps with reserved bits.
int64_t without_reserved_bits(std::string_view box, std::string_view field, int64_t value);

// Reads the fields of a tree's boxes in order, because a field may define how to read another one.
class FieldReading {
  public:
    void begin_box(std::string_view type);

    // Returns an empty text for a plain number.
    std::string of(std::string_view field, int64_t value);

  private:
    std::string duration(uint32_t timescale, int64_t value) const;

    std::string box_;
    uint32_t timescale_ = 0;  // of the box
    uint32_t movie_timescale_ = 0;
};

}  // namespace tool

#endif
