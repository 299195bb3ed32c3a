// SPDX-License-Identifier: Apache-2.0
// Where a frame writer gets media samples from.
#ifndef KESTREL_PROPFILE_MEDIA_SOURCE_H
#define KESTREL_PROPFILE_MEDIA_SOURCE_H

#include <cstdint>
#include <functional>

namespace kestrel {

// What became of bytes that were asked for.
enum class Fetched : unsigned char {
    kBytes,   // they are there
    kNotYet,  // they have not arrived; the driver's status says so too
    kInvalid  // they never will: no file has them
};

// Stores `length` bytes from `offset` on of media sample `sample` (from 1) through `bytes`, valid
// until the next call; with null `bytes` it checks the range only.
using MediaSource = std::function<Fetched(unsigned int sample, uint32_t offset, uint32_t length,
                                          const unsigned char** bytes)>;

}  // namespace kestrel

#endif
