// SPDX-License-Identifier: Apache-2.0
// What the fuzz targets share: inputs that carry their own choices, and a host whose file arrives
// by a schedule.
#ifndef KESTREL_FUZZ_SUPPORT_SUPPORT_H
#define KESTREL_FUZZ_SUPPORT_SUPPORT_H

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "kestrel/stream.h"

// A target. Aborts where what is promised does not hold.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace fuzz {

using Bytes = std::vector<uint8_t>;
using View = std::span<const uint8_t>;

// The choices that follow the file in an input, so that the offsets in the file hold.
inline constexpr size_t kChoiceBytes = 16;

// Aborts when a promise is broken.
void check(bool holds);

// Reads choices byte by byte; zeros past the end.
class Choices {
  public:
    explicit Choices(View bytes) : bytes_(bytes) {}

    uint8_t u8();
    uint16_t u16();
    uint32_t u32();
    bool at_end() const { return at_ >= bytes_.size(); }
    // The bytes not read yet, at most `most` of them.
    View take(size_t most);

  private:
    View bytes_;
    size_t at_ = 0;
};

// A file without when it was made: the dates in the headers of the movie, the tracks and the media.
Bytes without_dates(Bytes file);

// A file and the choices after it.
struct Input {
    explicit Input(View bytes);

    View file;
    Choices choices;
};

// Repeatable numbers from a salt (xorshift).
class Numbers {
  public:
    explicit Numbers(uint32_t salt) : state_(salt | 1) {}

    uint32_t next();
    uint32_t below(uint32_t end) { return end == 0 ? 0 : next() % end; }

  private:
    uint32_t state_;
};

// Serves a file from memory, whole or as it arrives, and counts what it is asked.
class Host {
  public:
    explicit Host(View file);
    // Nothing is there at first; each wait() reveals some more, as the salt has it.
    Host(View file, uint32_t salt);
    Host(const Host&) = delete;
    Host& operator=(const Host&) = delete;

    KST_IOSTREAM_CALLBACK_INTERFACE* callbacks() { return &table_; }
    bool complete() const { return there_ == file_.size(); }
    void wait();
    void rewind() { position_ = 0; }
    // Aborts when the host was called more often since the last time than a step over the whole
    // file could need.
    void check_calls();

  private:
    struct Slots;
    uint32_t read_at(void* data, uint32_t offset, uint32_t count, uint32_t& got);

    View file_;
    size_t there_ = 0;
    uint32_t position_ = 0;
    Numbers schedule_{0};
    int waits_ = 0;
    uint64_t calls_ = 0;
    KST_IOSTREAM_CALLBACK_INTERFACE table_;
};

}  // namespace fuzz

#endif
