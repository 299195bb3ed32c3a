// SPDX-License-Identifier: Apache-2.0
// The source of media samples for a frame writer.
#ifndef KESTREL_PROPFILE_MEDIA_SOURCE_H
#define KESTREL_PROPFILE_MEDIA_SOURCE_H

#include <cstdint>
#include <functional>

namespace kestrel {

// The result of fetching bytes.
enum class Fetched : unsigned char {
    kBytes,   // available
    kNotYet,  // not arrived; the driver's status reports it too
    kInvalid  // not in any file
};

// Stores a pointer to `length` bytes, from `offset` on, of media sample `sample` (from 1) in
// `bytes`, valid until the next call. With null `bytes` it checks the range only.
using MediaSource = std::function<Fetched(unsigned int sample, uint32_t offset, uint32_t length,
                                          const unsigned char** bytes)>;

}  // namespace kestrel

#endif
