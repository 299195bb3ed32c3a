// SPDX-License-Identifier: Apache-2.0
// The root classes of the box object model: one class per ISO base media box (ISO/IEC 14496-12)
// that reads itself from the host's stream, writes itself back and reports its size.
//
// A concrete box names its fields once, in file order, in a static member template
// `fields(f, self)`; Described turns that one list into Read, Dump and GetSize and into the field
// and child listings of boxes/field_visitor.h (see docs/box-model.md).
//
// Every stream failure and every size or count that the file cannot hold is thrown as
// SimpleException. Reading an "esds" of a codec that is not MPEG-4 Visual calls
// meet_foreign_codec (boxes/foreign_codec_hook.h): the library's ends the process, the tool's
// returns. Every Read that can reach a sample description can come to that.
#ifndef KESTREL_BOXES_BOX_BASE_H
#define KESTREL_BOXES_BOX_BASE_H

#include <bit>
#include <cstddef>
#include <cstdint>
#include <ios>
#include <string_view>
#include <type_traits>
#include <vector>

#include "boxes/field_visitor.h"
#include "boxes/stream_io.h"

namespace Qvox3gp {

class MdatBox;

// The part of a box that its base reads and writes; const like the box. A subclass may have members
// with the same names.
template <class Base, class Self>
auto& part(Self& self) {
    return static_cast<std::conditional_t<std::is_const_v<Self>, const Base, Base>&>(self);
}

// A four-character code as stored by the model: in file byte order, so that its bytes in memory are
// the characters on any machine.
constexpr uint32_t code(std::string_view text) {
    struct Raw {
        char bytes[4];
    };
    return std::bit_cast<uint32_t>(Raw{{text[0], text[1], text[2], text[3]}});
}

inline constexpr uint32_t kUnknownType = code("????");
inline constexpr uint32_t kBoxHeaderSize = 8;
inline constexpr uint32_t kFullBoxHeaderSize = 12;

class Archivable {
  public:
    virtual void Dump(Stream& io) const = 0;
    virtual void Read(Stream& io, unsigned int file_size) = 0;
    virtual ~Archivable() = default;

  protected:
    Archivable() = default;
    Archivable(const Archivable&) = default;
    Archivable& operator=(const Archivable&) = default;
};

// The header of a box as read. A reset header has size 0 and type "????": the file ended.
struct BoxHeader {
    uint32_t start;
    uint32_t size = 0;
    uint32_t type = kUnknownType;

    bool is_reset() const { return size == 0 && type == kUnknownType; }
};

// The place of the box that is being read.
struct BoxExtent {
    uint32_t start;
    uint32_t size;
    uint32_t file_size;

    uint64_t body() const { return uint64_t{start} + kBoxHeaderSize; }
    uint64_t end() const { return uint64_t{start} + size; }
};

// The extent of fields and boxes that are not inside a box: the rest of the file.
constexpr BoxExtent rest_of_file(uint32_t position, uint32_t file_size) {
    return {position, position < file_size ? file_size - position : 0, file_size};
}

// Throws "Invalid size found in box." with the numbers of the extent.
[[noreturn]] void throw_invalid_size(const BoxExtent& extent);

// The box header: 32-bit size and type. Sizes of 64 bits and "up to the end of the file" do not
// exist here: the sizes 0 and 1 are taken literally.
class Box : public Archivable {
  public:
    Box() : Box(kUnknownType) {}
    explicit Box(unsigned int type) : type_(type) {}
    Box(const Box&) = delete;
    Box& operator=(const Box&) = delete;

    // Writes the box at the current position, which becomes its start.
    void Dump(Stream& io) const override;

    // Reads the header at the current position. At the end of the file, and for a header that the
    // file ends with, resets the box instead. Throws for a box that exceeds the file.
    void Read(Stream& io, unsigned int file_size) override;

    ~Box() override = default;

    // Resets the header: size 0, type "????".
    virtual void Reset() { set_header(0, kUnknownType); }

    // The size that Dump writes.
    virtual unsigned int GetSize() const { return kBoxHeaderSize; }

    // The size field as read.
    virtual unsigned int GetSizeWhole() const { return size_; }

    // Reads the box and moves back to its start.
    virtual void Peek(Stream& io, unsigned int file_size);

    // Moves past the box as read.
    void Skip(Stream& io);

    // Sets the header, which a container has read. The next Read continues after it.
    void resume(const BoxHeader& header);

    unsigned int GetType() const { return type_; }

    // Offset where the box was read or dumped; -1 before that.
    std::streampos GetStart() const { return start_; }

    // True after Reset: the file ended before the box.
    bool is_reset() const { return BoxHeader{0, size_, type_}.is_reset(); }

  protected:
    // Reads what comes before the fields: the header, and the extent of the fields. Returns false
    // when the box was reset and has no fields.
    bool read_header(Stream& io, unsigned int file_size, BoxExtent& extent);

    // Moves to the start; throws for a box that was neither read nor dumped.
    void seek_to_start(Stream& io) const;

    void set_start(uint32_t offset) const { start_ = static_cast<std::streamoff>(offset); }
    void set_header(uint32_t size, uint32_t type) {
        size_ = size;
        type_ = type;
    }
    uint32_t start_offset() const {
        return static_cast<uint32_t>(static_cast<std::streamoff>(start_));
    }

  private:
    mutable std::streampos start_{-1};  // set by Dump, which is const
    uint32_t size_ = 0;
    uint32_t type_;
    bool header_is_read_ = false;  // set by resume(), cleared by Read
};

Stream& operator<<(Stream& io, const Box& box);

// Reads the header of the next box, which begins at `position`, and leaves the stream after it. If
// the file ends there, or with that header, the result is reset and the stream does not move.
BoxHeader next_header(Stream& io, uint32_t position, uint32_t file_size);

// Returns the type of the next box, without moving; "????" at the end of the file.
uint32_t peek_box(Stream& io, uint32_t file_size);

// A box with version and flags. The version is ignored: every layout is that of version 0.
class FullBox : public Box {
  public:
    explicit FullBox(unsigned int type = kUnknownType, uint32_t flags = 0)
        : Box(type), flags_(flags) {}

    void Dump(Stream& io) const override;
    void Read(Stream& io, unsigned int file_size) override;
    ~FullBox() override = default;
    unsigned int GetSize() const override { return kFullBoxHeaderSize; }

    static void fields(auto& f, auto& self) {
        f.u8("version", part<FullBox>(self).version_);
        f.u24("flags", part<FullBox>(self).flags_);
    }

  private:
    uint8_t version_ = 0;
    uint32_t flags_ = 0;  // 24 bits
};

// Pointers to boxes, each with a flag that is set if the list owns the box.
template <class T>
class BoxList {
  public:
    BoxList() = default;
    BoxList(const BoxList&) = delete;
    BoxList& operator=(const BoxList&) = delete;
    ~BoxList() {
        for (size_t i = 0; i < boxes_.size(); ++i) {
            if (owned_[i]) delete boxes_[i];
        }
    }

    // Owns the box only after it has returned.
    void add(T* box, bool owned) {
        owned_.resize(boxes_.size());  // after an addition that failed without memory
        owned_.push_back(owned);
        boxes_.push_back(box);
    }

    const std::vector<T*>& boxes() const { return boxes_; }

  private:
    std::vector<T*> boxes_;
    std::vector<bool> owned_;
};

// A box with an ordered list of children. The list has all children, modelled or not, in the order
// in which they were read or added, which is also the order of Dump. The setters of subclasses add
// to it and store the child; a later child of the same type replaces the earlier one for the
// getter. Both exist as long as the container.
class ContainerBox : public Box {
  public:
    explicit ContainerBox(unsigned int type = kUnknownType) : Box(type) {}
    ~ContainerBox() override = default;

    void AddOptionalBox(Box* box, bool owned) { children_.add(box, owned); }
    const std::vector<Box*>& children() const { return children_.boxes(); }

    static void fields(auto& f, auto& self) { f.children(self); }

  protected:
    // Adds a child (null adds nothing) and returns it.
    template <class T>
    T* adopt(T* child, bool owned) {
        if (child != nullptr) children_.add(child, owned);
        return child;
    }

  private:
    BoxList<Box> children_;
};

// Creation and modification time, seconds since 1904-01-01 00:00 UTC. A new one has the time now.
class Timed : public Archivable {
  public:
    Timed();

    void Dump(Stream& io) const override;
    void Read(Stream& io, unsigned int file_size) override;
    ~Timed() override = default;
    virtual unsigned int GetSize() const;
    // Offset where the times were read or dumped on their own; -1 before that.
    virtual std::streampos GetPosition() const { return position_; }

    uint32_t GetCreationTime() const { return creation_time_; }

    static void fields(auto& f, auto& self) {
        f.u32("creation_time", part<Timed>(self).creation_time_);
        f.u32("modification_time", part<Timed>(self).modification_time_);
    }

  private:
    uint32_t creation_time_;
    uint32_t modification_time_;
    mutable std::streampos position_{-1};
};

// The wall clock in seconds since 1904-01-01 00:00 UTC.
uint32_t GetCurrentTimestamp();

// Boxes that are patched after the media was written: set the values, GoToStart, Dump again. This
// does not change a box's size once its table has all entries.
class Rewindable {
  public:
    Rewindable() = default;
    Rewindable(const Rewindable&) = delete;
    Rewindable& operator=(const Rewindable&) = delete;

    // Moves the stream to the box's start. Throws for a box that was neither read nor dumped.
    virtual void GoToStart(Stream& io) = 0;
    virtual ~Rewindable() = default;
};

// A table with an entry per chunk, filled from the chunk lists of the media data box.
class Fixupable : public Rewindable {
  public:
    virtual void FixupVideo(MdatBox* mdat) = 0;
    virtual void FixupVideoHint(MdatBox* mdat) = 0;
    virtual void FixupAudio(MdatBox* mdat) = 0;
    virtual void FixupAudioHint(MdatBox* mdat) = 0;
};

class FixupableTime : public Rewindable {
  public:
    // Ticks per second of the movie and of the track's media. Each box uses one of them.
    virtual void SetTimescale(unsigned int movie, unsigned int media) = 0;
    // In ticks of the box's own timescale.
    virtual void SetDuration(unsigned int duration) = 0;
    virtual unsigned int GetTimescale() const = 0;
    virtual unsigned int GetDuration() const = 0;
};

class FixupableDims : public Rewindable {
  public:
    // In pixels.
    virtual void SetDimensions(unsigned int width, unsigned int height) = 0;
};

// Called by visit_fields and visit_children for a box.
class Listed {
  public:
    Listed() = default;
    Listed(const Listed&) = delete;
    Listed& operator=(const Listed&) = delete;
    virtual ~Listed() = default;

    virtual void list_fields(FieldVisitor& visitor) const = 0;
    virtual void list_children(const ChildVisitor& visitor) const = 0;
};

// A separate base, so that the listings use no slot of the box's own virtual functions.
template <class Derived>
class ListedBy : public Listed {
  public:
    void list_fields(FieldVisitor& visitor) const override;
    void list_children(const ChildVisitor& visitor) const override;
};

// Makes Read, Dump, GetSize and the listings of the class Derived from its `fields`. The bodies are
// in boxes/fields.h, which only the files that define boxes include.
template <class Derived, class Base, class... MixIns>
class Described : public Base, public MixIns..., public ListedBy<Derived> {
  public:
    using Base::Base;

    void Dump(Stream& io) const override;
    void Read(Stream& io, unsigned int file_size) override;
    unsigned int GetSize() const override;

  protected:
    // Called after the fields were read. A box that checks or gathers something hides it.
    void after_read() {}
};

// A box of a type that is not modelled. Its body is not read, and Dump writes its header only.
class UnknownBox : public Described<UnknownBox, Box> {
  public:
    UnknownBox();
    ~UnknownBox() override;

    static void fields(auto& f, auto& self);
};

}  // namespace Qvox3gp

#endif
