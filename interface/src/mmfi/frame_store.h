// SPDX-License-Identifier: Apache-2.0
// Memory for one frame: the two buffers of the handle, and larger ones, which the file record owns,
// for a frame that does not fit.
#ifndef KESTREL_MMFI_FRAME_STORE_H
#define KESTREL_MMFI_FRAME_STORE_H

#include "common/frame_limit.h"
#include "interface/src/mmfi/mm_interface.h"

namespace kestrel {

// Whether to allocate memory for the sample at the cursor, which has `size` bytes. The last byte of
// a large sample must have arrived.
bool may_allocate(iso_track* track, uint32_t size);

// Returns memory for a sample of `size` bytes; null without memory and for more than
// kMaxFrameBytes.
uint8_t* sample_room(mm_Interface* record, uint32_t size);

// The native packets of a frame, which the next call delivers.
class Staging {
  public:
    explicit Staging(mm_Interface* record) : record_(record) {}

    const uint8_t* bytes() const;
    uint32_t count() const;

    void clear();

    // Drops the first `count` staged bytes.
    void consume(uint32_t count);

    // Appends bytes; false without memory or when the frame would exceed kMaxFrameBytes.
    bool append(const void* bytes, uint32_t count);

    // Returns memory for `capacity` bytes that replace the staged ones; null as above. After
    // writing there, replace() stages the first `count` of them.
    uint8_t* room(uint32_t capacity);
    void replace(const uint8_t* room, uint32_t count);

  private:
    mm_Interface* record_;
};

}  // namespace kestrel

#endif
