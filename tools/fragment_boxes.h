// SPDX-License-Identifier: Apache-2.0
// The boxes of movie fragments (ISO/IEC 14496-12, 8.8), which the box object model does not have.
#ifndef KESTREL_TOOLS_FRAGMENT_BOXES_H
#define KESTREL_TOOLS_FRAGMENT_BOXES_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "kestrel/stream.h"

namespace tool {

struct FragmentBox {
    struct Field {
        const char* name;
        int64_t value;
    };

    std::string type;  // four bytes as they are in the file
    uint64_t offset = 0;
    uint32_t size = 0;
    std::vector<Field> fields;
    std::vector<FragmentBox> children;
};

// Whether read_fragment_boxes() reads boxes of the type: `moof` and `mvex`.
bool has_fragment_boxes(std::string_view type);

// Returns the whole boxes in the box of `size` bytes at `offset`.
std::vector<FragmentBox> read_fragment_boxes(KST_IOSTREAM_CALLBACK_INTERFACE* stream,
                                             uint64_t offset, uint64_t size);

}  // namespace tool

#endif
