// SPDX-License-Identifier: Apache-2.0
// What one kst_ReadChunk delivers: the bytes in the host's buffer and their number in `*size`.
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

    // Each of the following ends the call: it stores a byte count through `*size` and returns the
    // status.

    // Delivers `count` bytes of the buffer.
    int32_t deliver(uint32_t count, int32_t status = KST_SUCCESS) const {
        *size_ = count;
        return status;
    }
    // Reports that the delivery needs `count` bytes, more than the buffer has. Nothing was
    // consumed.
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
