// SPDX-License-Identifier: Apache-2.0
// The boxes of movie fragments (ISO/IEC 14496-12, 8.8), which the box object model does not have.
#ifndef KESTREL_TOOLS_FRAGMENT_BOXES_H
#define KESTREL_TOOLS_FRAGMENT_BOXES_H

#include <cstdint>
#include <functional>
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

    bool is_track_fragment() const { return type == "traf"; }
};

// Whether boxes of the type contain fragment boxes: `moof` and `mvex`.
bool has_fragment_boxes(std::string_view type);

// Calls `visit` with each whole box in the box of `size` bytes at `offset`. Holds one at a time.
void visit_fragment_boxes(KST_IOSTREAM_CALLBACK_INTERFACE* stream, uint64_t offset, uint64_t size,
                          const std::function<void(const FragmentBox&)>& visit);

}  // namespace tool

#endif
