// SPDX-License-Identifier: Apache-2.0
// Where to cut a coded picture into packets. The packetisers write the headers and copy the bytes.
#ifndef KESTREL_NATIVE_VIDEO_FRAGMENT_H
#define KESTREL_NATIVE_VIDEO_FRAGMENT_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "native/codec/h263_parse.h"

namespace kestrel {

enum class CutAt { kEndOfSample, kMacroblock, kStartCode, kAnywhere };

// A fragment of a sample. A boundary inside a byte puts the byte into both fragments.
struct VideoFragment {
    size_t begin = 0;        // first byte
    size_t length = 0;       // bytes
    unsigned start_bit = 0;  // of the first byte, where the fragment begins
    unsigned end_bit = 0;    // of the last byte, where it ends; 0: after the last byte
    CutAt cut = CutAt::kEndOfSample;
    nch_macroblock macroblock;  // the first one, when cut between macroblocks

    bool is_last() const { return cut == CutAt::kEndOfSample; }
    size_t next() const { return begin + length - (end_bit != 0 ? 1 : 0); }
};

// Cuts a sample before start codes, or anywhere if it has none.
VideoFragment cut_at_start_code(std::span<const uint8_t> sample, size_t begin, size_t budget);

// Cuts an H.263 picture between macroblocks, as long as the walker can parse them. Each picture is
// walked on its own, so a picture that takes its format and modes from the previous one cannot be
// walked.
class MacroblockCutter {
  public:
    explicit MacroblockCutter(std::span<const uint8_t> picture)
        : picture_(picture), reader_(picture) {}

    // Returns the next fragment, of at most `budget` bytes. When the macroblocks can no longer be
    // parsed, this and all later ones end at the budget.
    VideoFragment cut(size_t begin, size_t budget);

    const nch_state& state() const { return state_; }

  private:
    // Walks until the macroblock at candidate_ is the last one that begins before `limit` and ends
    // at or after it. Returns false when the walker fails or no such macroblock begins a later
    // fragment.
    bool find_boundary(size_t limit);

    std::span<const uint8_t> picture_;
    nch_state state_;
    BitReader reader_;  // at the end of the last macroblock walked
    bool walking_ = true;
    bool started_ = false;
    // In bits from the start of the picture.
    size_t fragment_start_ = 0;
    size_t candidate_ = 0;  // start of the last macroblock walked
    nch_macroblock fragment_macroblock_;
};

}  // namespace kestrel

#endif
