// SPDX-License-Identifier: Apache-2.0
// Output of media data.
#ifndef KESTREL_ISOFF_MEDIA_OUTPUT_H
#define KESTREL_ISOFF_MEDIA_OUTPUT_H

#include <span>
#include <vector>

#include "interface/src/isoff/record/record.h"

namespace kestrel {

// Collects small pieces and writes large ones to the stream.
class MediaOutput {
  public:
    explicit MediaOutput(iso_file* file) : file_(file) { waiting_.reserve(kPiece); }

    // Returns false when the stream failed or took fewer bytes.
    bool write(std::span<const uint8_t> bytes);
    // Writes the collected bytes.
    bool flush();

  private:
    static constexpr size_t kPiece = 64 << 10;

    iso_file* file_;
    std::vector<uint8_t> waiting_;
};

}  // namespace kestrel

#endif
