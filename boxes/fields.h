// SPDX-License-Identifier: Apache-2.0
// The visitors of a box's list of fields: one reads, one writes, one computes the size, one lists
// the fields by name and one lists the children. Included only by the files that define boxes.
//
// A box names a field with f.u32("timescale", self.timescale_) and so on; each visitor defines the
// effect. FieldOps maps all these functions to the few that differ.
#ifndef KESTREL_BOXES_FIELDS_H
#define KESTREL_BOXES_FIELDS_H

#include <algorithm>
#include <array>
#include <limits>
#include <memory>
#include <span>
#include <string_view>
#include <type_traits>
#include <vector>

#include "boxes/box_base.h"
#include "common/bytes.h"

namespace Qvox3gp {

// Visits an entry of a table: a number as itself, a record through its own fields.
struct VisitEntry {
    template <class F, class T>
    void operator()(F& f, T& entry) const {
        if constexpr (std::is_integral_v<std::remove_const_t<T>>) {
            f.u32("", entry);
        } else {
            f.begin_record();
            T::fields(f, entry);
            f.end_record();
        }
    }
};

struct VisitCode {
    template <class F, class T>
    void operator()(F& f, T& entry) const {
        f.code("", entry);
    }
};

template <class Self>
class FieldOps {
  public:
    static constexpr bool kReads = false;
    static constexpr bool kLists = false;  // lists values, which requires that they are stored

    template <class T>
    void u8(std::string_view name, T& value) {
        self().integer(name, value, 1);
    }
    template <class T>
    void u16(std::string_view name, T& value) {
        self().integer(name, value, 2);
    }
    template <class T>
    void u24(std::string_view name, T& value) {
        self().integer(name, value, 3);
    }
    template <class T>
    void u32(std::string_view name, T& value) {
        self().integer(name, value, 4);
    }

    template <class Array>
    void u16s(std::string_view name, Array& values) {
        array(name, values, 2);
    }
    template <class Array>
    void u32s(std::string_view name, Array& values) {
        array(name, values, 4);
    }

    // A u32 count and that many entries.
    template <class Vector>
    void counted_table(std::string_view name, Vector& entries) {
        auto count = static_cast<uint32_t>(entries.size());
        self().count(count);
        self().table(name, entries, count, VisitEntry{});
    }

    // Entries whose number another field declares.
    template <class Vector, class Visit = VisitEntry>
    void table(std::string_view name, Vector& entries, uint32_t, Visit visit = {}) {
        self().begin_list(name);
        for (auto& entry : entries)
            visit(self(), entry);
        self().end_list();
    }

    // A u32 count and that many child boxes.
    template <class Container>
    void counted_children(Container& container) {
        auto count = static_cast<uint32_t>(container.children().size());
        self().count(count);
        self().children(container, count);
    }

    template <class Container>
    void children(Container& container, uint32_t = 0) {
        for (const auto* child : container.children())
            self().child_box(*child);
    }

    // A configuration box after the fields of a sample entry.
    template <class T>
    void child(std::unique_ptr<T>& box) {
        if (box != nullptr) self().child_box(*box);
    }
    template <class T>
    void child(const std::unique_ptr<T>& box) {
        if (box != nullptr) self().child_box(*box);
    }

    template <class Box>
    void optional_child(uint32_t, Box& box) {
        self().child(box);
    }

    // Only a reader uses these.
    void count(uint32_t& value) { self().integer("entry_count", value, 4); }
    uint32_t rest_of_box() const { return 0; }
    void skipped_body(const Box&, uint32_t) {}
    void begin_list(std::string_view) {}
    void end_list() {}
    void begin_record() {}
    void end_record() {}
    void prepare(uint64_t) {}

  private:
    Self& self() { return static_cast<Self&>(*this); }

    template <class Array>
    void array(std::string_view name, Array& values, unsigned width) {
        self().prepare(uint64_t{values.size()} * width);
        self().begin_list(name);
        for (auto& value : values)
            self().integer("", value, width);
        self().end_list();
    }
};

// Adds the bytes that a writer would write.
class FieldSizer : public FieldOps<FieldSizer> {
  public:
    explicit FieldSizer(uint64_t header_size) : size_(header_size) {}

    uint32_t size() const {
        return static_cast<uint32_t>(
            std::min<uint64_t>(size_, std::numeric_limits<uint32_t>::max()));
    }

    template <class T>
    void integer(std::string_view, const T&, unsigned width) {
        size_ += width;
    }
    void code(std::string_view, const uint32_t&) { size_ += 4; }
    void bytes(std::string_view, std::span<const uint8_t> data) { size_ += data.size(); }
    void blob(std::string_view, const std::vector<uint8_t>& data, uint32_t) {
        size_ += data.size();
    }
    template <class Vector, class Visit = VisitEntry>
    void table(std::string_view, const Vector& entries, uint32_t, Visit visit = {}) {
        const typename Vector::value_type one{};
        FieldSizer entry(0);
        visit(entry, one);
        size_ += uint64_t{entry.size_} * entries.size();
    }
    void descriptor_size(std::string_view, const uint32_t&, const uint8_t& width) {
        size_ += width;
    }
    void dropped_text() { size_ += 1; }
    void child_box(const Box& child) { size_ += child.GetSize(); }
    void skipped_body(const Box&, uint32_t body) { size_ += body; }

  private:
    uint64_t size_;
};

// Returns the bytes of a table entry.
template <class T, class Visit>
uint32_t entry_size(Visit visit) {
    const T one{};
    FieldSizer sizer(0);
    visit(sizer, one);
    return sizer.size();
}

// Reads fields from the stream at its current position, which the caller states. Fields after the
// end of the box are zero, and the bytes after the box are not read. Tables and other runs are read
// in pieces of bounded size, so memory grows only with the bytes received. A count that exceeds the
// box, and a run that the stream does not deliver, are thrown as an invalid size.
class FieldReader : public FieldOps<FieldReader> {
  public:
    static constexpr bool kReads = true;

    FieldReader(Stream& io, const BoxExtent& extent, uint64_t position)
        : io_(io), extent_(extent), position_(position) {}

    template <class T>
    void integer(std::string_view, T& value, unsigned width) {
        std::array<uint8_t, 4> raw{};
        take(std::span(raw).last(width));
        value = static_cast<T>(kestrel::load_be32(raw.data()));
    }
    void code(std::string_view, uint32_t& value) {
        std::array<uint8_t, 4> raw{};
        take(raw);
        value = std::bit_cast<uint32_t>(raw);
    }
    void bytes(std::string_view, std::span<uint8_t> data) { take(data); }

    // Reads `size` bytes, which must be inside the box.
    void blob(std::string_view, std::vector<uint8_t>& data, uint32_t size);

    template <class Vector, class Visit = VisitEntry>
    void table(std::string_view, Vector& entries, uint32_t count, Visit visit = {}) {
        using Entry = typename Vector::value_type;
        const uint32_t entry_bytes = entry_size<Entry>(visit);
        require(uint64_t{count} * entry_bytes);
        entries.clear();
        while (count > 0) {
            const uint32_t now = std::min(count, kPiece / entry_bytes);
            fetch(now * entry_bytes);
            for (uint32_t i = 0; i < now; ++i) {
                Entry entry{};
                visit(*this, entry);
                entries.push_back(entry);
            }
            count -= now;
        }
    }

    // Returns the bytes up to the end of the box.
    uint32_t rest_of_box() const {
        const uint64_t end = extent_.end();
        return position_ < end ? static_cast<uint32_t>(end - position_) : 0;
    }

    // The offset of the next byte in the stream.
    uint64_t position() const { return position_; }

    // Reads the length of an MPEG-4 descriptor and the number of bytes that it takes.
    void descriptor_size(std::string_view, uint32_t& value, uint8_t& width);

    // Skips a text up to the end of the box, and its terminator.
    void dropped_text();

    // A body that is not read.
    void skipped_body(Box& box, uint32_t) { box.Skip(io_); }

    template <class Container>
    void children(Container& container) {
        while (position_ < extent_.end() && read_child(container)) {
        }
    }
    template <class Container>
    void children(Container& container, uint32_t count) {
        require(uint64_t{count} * kBoxHeaderSize);
        for (; count > 0 && position_ < extent_.end(); --count) {
            if (!read_child(container)) return;
        }
    }

    template <class T>
    void child(std::unique_ptr<T>& box, const BoxHeader* header = nullptr) {
        box = std::make_unique<T>();
        if constexpr (requires { box->set_container_end(extent_.end()); }) {
            box->set_container_end(extent_.end());
        }
        if (header != nullptr) box->resume(*header);
        box->Read(io_, extent_.file_size);
        position_ = macro_Tell(io_);
    }
    // Reads a child that may be absent: only if the next box has its type.
    template <class T>
    void optional_child(uint32_t type, std::unique_ptr<T>& box) {
        const uint32_t position = macro_Tell(io_);
        const BoxHeader header = next_header(io_, position, extent_.file_size);
        if (header.type == type) return child(box, &header);
        if (!header.is_reset()) macro_Seek(io_, position);
    }

    // Reads the next child of a container. Returns false when the file ended instead.
    template <class Container>
    bool read_child(Container& container) {
        const BoxHeader header =
            next_header(io_, static_cast<uint32_t>(position_), extent_.file_size);
        Box& child = container.new_child(header.type);
        if (!header.is_reset()) child.resume(header);
        child.Read(io_, extent_.file_size);
        return finish_child(child);
    }

    // Throws an invalid size when `sound` is false, or when an earlier field was missing in the box
    // or in the stream.
    void require_sound(bool sound) const {
        if (!sound || !complete_) throw_invalid_size(extent_);
    }

    // Fetches a fixed run of fields at once.
    void prepare(uint64_t size) {
        piece_.assign(static_cast<size_t>(size), 0);
        take(piece_);
        unread_ = piece_;
    }

  private:
    static constexpr uint32_t kPiece = 1 << 16;

    void take(std::span<uint8_t> to);
    void fetch(uint32_t size);
    void fill(std::span<uint8_t> to);
    void require(uint64_t size) {
        if (size > rest_of_box()) throw_invalid_size(extent_);
    }

    // Moves after the rest of a child that was read. Returns false when the file ended instead of
    // the child. Throws an invalid size when the position does not move forward: the child is
    // smaller than its header, or the host's GetOffset stays or goes back, or its Seek moves
    // elsewhere.
    bool finish_child(const Box& child);

    Stream& io_;
    BoxExtent extent_;
    uint64_t position_;
    bool complete_ = true;             // no field was missing
    std::vector<uint8_t> piece_;       // fetched ahead of the fields
    std::span<const uint8_t> unread_;  // the part that no field has read
};

// Collects fields and writes them in one call. Children write themselves in between.
class FieldWriter : public FieldOps<FieldWriter> {
  public:
    explicit FieldWriter(Stream& io) : io_(io) {}

    void header(uint32_t size, uint32_t type) {
        integer("", size, 4);
        code("", type);
    }
    template <class T>
    void integer(std::string_view, const T& value, unsigned width) {
        kestrel::append_be(pending_, static_cast<uint32_t>(value), width);
    }
    void code(std::string_view, const uint32_t& value) {
        bytes("", std::bit_cast<std::array<uint8_t, 4>>(value));
    }
    void bytes(std::string_view, std::span<const uint8_t> data) { kestrel::append(pending_, data); }
    void blob(std::string_view name, const std::vector<uint8_t>& data, uint32_t) {
        bytes(name, data);
    }
    void descriptor_size(std::string_view, const uint32_t& value, const uint8_t& width);
    void dropped_text() { pending_.push_back(0); }
    void child_box(const Box& child) {
        flush();
        child.Dump(io_);
    }
    void flush();

    const std::vector<uint8_t>& pending() const { return pending_; }

  private:
    Stream& io_;
    std::vector<uint8_t> pending_;
};

// Passes named fields to a FieldVisitor.
class FieldLister : public FieldOps<FieldLister> {
  public:
    static constexpr bool kLists = true;

    explicit FieldLister(FieldVisitor& visitor) : visitor_(visitor) {}

    template <class T>
    void integer(std::string_view name, const T& value, unsigned) {
        visitor_.number(name, int64_t{value});
    }
    void code(std::string_view name, const uint32_t& value) {
        const auto raw = std::bit_cast<std::array<char, 4>>(value);
        visitor_.code(name, {raw.data(), raw.size()});
    }
    void bytes(std::string_view name, std::span<const uint8_t> data) { visitor_.bytes(name, data); }
    void blob(std::string_view name, const std::vector<uint8_t>& data, uint32_t) {
        visitor_.bytes(name, data);
    }
    void descriptor_size(std::string_view name, const uint32_t& value, const uint8_t&) {
        visitor_.number(name, value);
    }
    void dropped_text() {}
    void child_box(const Box&) {}
    void begin_list(std::string_view name) { visitor_.begin_list(name); }
    void end_list() { visitor_.end_list(); }
    void begin_record() { visitor_.begin_record(); }
    void end_record() { visitor_.end_record(); }

  private:
    FieldVisitor& visitor_;
};

// Passes the children to a ChildVisitor. Adds the sizes of the fields before them, for the one
// child that does not know its own offset.
class ChildLister : public FieldSizer {
  public:
    ChildLister(const ChildVisitor& visitor, int64_t start)
        : FieldSizer(kBoxHeaderSize), visitor_(visitor), start_(start) {}

    template <class Container>
    void children(const Container& container, uint32_t = 0) {
        for (const auto* child : container.children())
            child_box(*child);
    }
    template <class Container>
    void counted_children(const Container& container) {
        children(container);
    }
    template <class T>
    void child(const std::unique_ptr<T>& box) {
        if (box != nullptr) child_box(*box);
    }
    template <class T>
    void optional_child(uint32_t, const std::unique_ptr<T>& box) {
        child(box);
    }
    void child_box(const Box& child) {
        int64_t offset = static_cast<std::streamoff>(child.GetStart());
        if (offset < 0 && start_ >= 0) offset = start_ + size();
        visitor_({&child, offset, child.GetSizeWhole()});
        FieldSizer::child_box(child);
    }

  private:
    const ChildVisitor& visitor_;
    int64_t start_;
};

template <class Derived>
void ListedBy<Derived>::list_fields(FieldVisitor& visitor) const {
    FieldLister lister(visitor);
    Derived::fields(lister, static_cast<const Derived&>(*this));
}

template <class Derived>
void ListedBy<Derived>::list_children(const ChildVisitor& visitor) const {
    const auto& self = static_cast<const Derived&>(*this);
    ChildLister lister(visitor, static_cast<std::streamoff>(self.GetStart()));
    Derived::fields(lister, self);
}

template <class Derived, class Base, class... MixIns>
void Described<Derived, Base, MixIns...>::Dump(Stream& io) const {
    const auto& self = static_cast<const Derived&>(*this);
    this->set_start(macro_Tell(io));
    FieldWriter writer(io);
    writer.header(self.GetSize(), self.GetType());
    Derived::fields(writer, self);
    writer.flush();
}

template <class Derived, class Base, class... MixIns>
void Described<Derived, Base, MixIns...>::Read(Stream& io, unsigned int file_size) {
    auto& self = static_cast<Derived&>(*this);
    BoxExtent extent{};
    if (!self.read_header(io, file_size, extent)) return;
    FieldReader reader(io, extent, extent.body());
    Derived::fields(reader, self);
    self.after_read();
}

template <class Derived, class Base, class... MixIns>
unsigned int Described<Derived, Base, MixIns...>::GetSize() const {
    FieldSizer sizer(kBoxHeaderSize);
    Derived::fields(sizer, static_cast<const Derived&>(*this));
    return sizer.size();
}

// The children that a container models: a type, and how the child is made and stored.
template <class Container>
struct ChildKind {
    uint32_t type;
    Box& (*make)(Container&);
};

template <auto Setter>
struct StoreChild;

template <class Container, class Child, void (Container::*Setter)(Child*, bool)>
struct StoreChild<Setter> {
    static Box& make(Container& container) {
        auto child = std::make_unique<Child>();
        (container.*Setter)(child.get(), true);
        return *child.release();
    }
};

// Makes and stores the child for a type; an UnknownBox for a type that is not in the list.
template <class Container, size_t N>
Box& make_child(Container& container, const ChildKind<Container> (&kinds)[N], uint32_t type) {
    for (const auto& kind : kinds) {
        if (kind.type == type) return kind.make(container);
    }
    auto unknown = std::make_unique<UnknownBox>();
    container.AddOptionalBox(unknown.get(), true);
    return *unknown.release();
}

}  // namespace Qvox3gp

#endif
