// SPDX-License-Identifier: Apache-2.0
// What the box object model does not have: the boxes of movie fragments (ISO/IEC 14496-12, 8.8) and
// of user data (8.10), composition offsets, and texts.
#ifndef KESTREL_TOOLS_FRAGMENT_BOXES_H
#define KESTREL_TOOLS_FRAGMENT_BOXES_H

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "boxes/field_visitor.h"
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

    // Whether its contents are such boxes as well.
    bool is_container() const { return type == "traf" || type == "hnti"; }
};

// Whether boxes of the type contain such boxes: `moof`, `mvex` and `udta`.
bool has_fragment_boxes(std::string_view type);

// Calls `visit` with each whole box in the box of `size` bytes at `offset`. Holds one at a time.
void visit_fragment_boxes(KST_IOSTREAM_CALLBACK_INTERFACE* stream, uint64_t offset, uint64_t size,
                          const std::function<void(const FragmentBox&)>& visit);

// Visits the entries of a `ctts` or `trun` of `size` bytes at `offset`, the name of a `hdlr` and
// the text of a `sdp `; nothing of other types.
void visit_entries(KST_IOSTREAM_CALLBACK_INTERFACE* stream, std::string_view type, uint64_t offset,
                   uint32_t size, Qvox3gp::FieldVisitor& visitor);

}  // namespace tool

#endif
