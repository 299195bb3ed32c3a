// SPDX-License-Identifier: Apache-2.0
// Where one frame lies on its way to the host: the handle's two buffers, and for a frame that
// outgrows them buffers of its own, which the file record keeps.
#ifndef KESTREL_MMFI_FRAME_STORE_H
#define KESTREL_MMFI_FRAME_STORE_H

#include "interface/src/mmfi/mm_interface.h"

namespace kestrel {

// The longest frame, bytes: of its sample, and of its packets with their headers.
inline constexpr uint32_t kMaxFrameBytes = 16 << 20;

// Whether memory may be taken for the sample at the cursor, of `size` bytes: a large one must have
// arrived up to its last byte.
bool may_allocate(iso_track* track, uint32_t size);

// Memory for a sample of `size` bytes; null without memory or for more than kMaxFrameBytes.
uint8_t* sample_room(mm_Interface* record, uint32_t size);

// The packets that wait for the host.
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

    // Memory for `capacity` bytes that replace what is staged, null as above; after writing there,
    // replace() stages the first `count` of them.
    uint8_t* room(uint32_t capacity);
    void replace(const uint8_t* room, uint32_t count);

  private:
    mm_Interface* record_;
};

}  // namespace kestrel

#endif
