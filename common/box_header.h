// SPDX-License-Identifier: Apache-2.0
// The header of a box (ISO/IEC 14496-12, 4.2). The ISO reader and the box model read sizes of 32
// bits only, as is prescribed for them.
#ifndef KESTREL_COMMON_BOX_HEADER_H
#define KESTREL_COMMON_BOX_HEADER_H

#include "common/bytes.h"

namespace kestrel {

inline constexpr uint32_t kBoxHeader = 8;        // bytes: size, type
inline constexpr uint32_t kLargeBoxHeader = 16;  // bytes: the same, and a size of 64 bits

// Values of the size field that are no sizes.
inline constexpr uint32_t kSizeToEnd = 0;     // the box ends with its container
inline constexpr uint32_t kSizeIs64Bits = 1;  // the size follows the type

struct BoxHeader {
    uint32_t size = 0;  // as the field has it
    uint32_t type = 0;
};

// From kBoxHeader bytes.
constexpr BoxHeader load_box_header(const uint8_t* raw) {
    return {load_be32(raw), load_be32(raw + 4)};
}

// Into kBoxHeader bytes.
inline void store_box_header(uint8_t* raw, const BoxHeader& header) {
    store_be32(raw, header.size);
    store_be32(raw + 4, header.type);
}

}  // namespace kestrel

#endif
