// SPDX-License-Identifier: Apache-2.0
// What the coded pictures of a stream declare about themselves: which are sync samples, and in
// which order they are shown.
#ifndef KESTREL_COMPANION_PACKER_PICTURES_H
#define KESTREL_COMPANION_PACKER_PICTURES_H

#include <cstdint>
#include <memory>
#include <span>

#include "companion/stream/native_walk.h"

namespace kestrel::packer {

struct Picture {
    bool is_sync = false;
    // Pictures are shown in the order of their keys; of equal ones the first comes first.
    uint64_t display_key = 0;
};

// Looks at the samples of one stream, in decoding order.
class PictureReader {
  public:
    PictureReader() = default;
    PictureReader(const PictureReader&) = delete;
    PictureReader& operator=(const PictureReader&) = delete;
    virtual ~PictureReader() = default;

    // `sample` as a file has it: NAL units of H.264 follow lengths of four bytes.
    virtual Picture look(std::span<const uint8_t> sample) = 0;

    // How many pictures at least are decoded before the first one is shown, as far as the stream
    // declares it.
    virtual uint32_t shown_after() const { return 0; }
};

// For a video medium.
std::unique_ptr<PictureReader> make_picture_reader(stream::Medium medium);

}  // namespace kestrel::packer

#endif
