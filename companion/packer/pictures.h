// SPDX-License-Identifier: Apache-2.0
// Facts of the coded pictures of a stream: sync samples and display order.
#ifndef KESTREL_COMPANION_PACKER_PICTURES_H
#define KESTREL_COMPANION_PACKER_PICTURES_H

#include <cstdint>
#include <memory>
#include <span>

#include "native/stream/native_walk.h"

namespace kestrel::packer {

struct Picture {
    bool is_sync = false;
    // Pictures are displayed in the order of their keys, equal ones in decoding order.
    uint64_t display_key = 0;
};

// Reads the samples of one stream, in decoding order.
class PictureReader {
  public:
    PictureReader() = default;
    PictureReader(const PictureReader&) = delete;
    PictureReader& operator=(const PictureReader&) = delete;
    virtual ~PictureReader() = default;

    // `sample` as a file has it: NAL units of H.264 follow lengths of four bytes.
    virtual Picture look(std::span<const uint8_t> sample) = 0;

    // The least number of pictures that are decoded before the first one is displayed, if the
    // stream declares it.
    virtual uint32_t shown_after() const { return 0; }
};

// For a video medium.
std::unique_ptr<PictureReader> make_picture_reader(stream::Medium medium);

}  // namespace kestrel::packer

#endif
