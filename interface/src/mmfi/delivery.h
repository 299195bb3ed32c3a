// SPDX-License-Identifier: Apache-2.0
// The chunk that one kst_ReadChunk delivers: the host's buffer, its room, and what becomes of
// `*size`.
#ifndef KESTREL_MMFI_DELIVERY_H
#define KESTREL_MMFI_DELIVERY_H

#include <cstdint>

#include "kestrel/status.h"

namespace kestrel {

class Delivery {
  public:
    Delivery(unsigned char* buffer, uint32_t* size) : buffer_(buffer), size_(size) {}

    unsigned char* bytes() const { return buffer_; }
    bool holds(uint32_t count) const { return count <= *size_; }

    // The two exits. Each stores a byte count through `*size` and returns the status of the call.

    // Ends the call with `count` bytes in the buffer.
    int32_t deliver(uint32_t count, int32_t status = KST_SUCCESS) const {
        *size_ = count;
        return status;
    }
    // Ends the call for a chunk that needs more room than the host has; nothing was consumed.
    int32_t ask_for(uint32_t count) const {
        *size_ = count;
        return KST_BAD_ARGUMENT;
    }

  private:
    unsigned char* buffer_;
    uint32_t* size_;
};

}  // namespace kestrel

#endif
