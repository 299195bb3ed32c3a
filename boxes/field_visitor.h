// SPDX-License-Identifier: Apache-2.0
// Listing named fields and children of boxes without knowing their classes.
#ifndef KESTREL_BOXES_FIELD_VISITOR_H
#define KESTREL_BOXES_FIELD_VISITOR_H

#include <cstdint>
#include <functional>
#include <span>
#include <string_view>

namespace Qvox3gp {

class Box;

// Receives one box's fields in file order. The elements of a list have an empty name; an element
// of more than one field comes as a record.
class FieldVisitor {
  public:
    FieldVisitor() = default;
    FieldVisitor(const FieldVisitor&) = delete;
    FieldVisitor& operator=(const FieldVisitor&) = delete;
    virtual ~FieldVisitor() = default;

    virtual void number(std::string_view name, int64_t value) = 0;
    // The four bytes of a code as in the file. They may be unprintable.
    virtual void code(std::string_view name, std::string_view four_bytes) = 0;
    virtual void bytes(std::string_view name, std::span<const uint8_t> data) = 0;
    virtual void begin_list(std::string_view name) = 0;
    virtual void end_list() = 0;
    virtual void begin_record() = 0;
    virtual void end_record() = 0;
};

// A child with its place in the file: the offset of its first byte and the size in its header. In a
// tree that was built and not yet written the offset is -1 and the size 0.
struct ChildPlace {
    const Box* box;
    int64_t offset;
    uint32_t size;
};

using ChildVisitor = std::function<void(const ChildPlace&)>;

// Visits the fields of a box; an UnknownBox and a pure container have none.
void visit_fields(const Box& box, FieldVisitor& visitor);

// Visits the children of a box in file order: those of containers, the entries of "stsd" and
// "dref", and the configuration boxes of sample entries. Not recursive.
void visit_children(const Box& box, const ChildVisitor& visitor);

}  // namespace Qvox3gp

#endif
