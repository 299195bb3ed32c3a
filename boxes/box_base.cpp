// SPDX-License-Identifier: Apache-2.0
#include "boxes/box_base.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <utility>

#include "boxes/fields.h"
#include "common/log_sources.h"
#include "common/movie_time.h"
#include "common/simple_exception.h"

namespace Qvox3gp {
namespace {

void debug(const char* text, const kestrel::LogSite& site) {
    kestrel::log_line(kestrel::kDebug, site, "%s", text);
}

// Moves to the end of a box. Throws an invalid size when the host's Seek moves elsewhere.
void move_to_end(Stream& io, const BoxExtent& extent) {
    macro_Seek(io, static_cast<uint32_t>(extent.end()));
    if (macro_Tell(io) != extent.end()) throw_invalid_size(extent);
}

// Reads the header at the current position, which is `start`.
BoxHeader read_header_at(Stream& io, uint32_t start, uint32_t file_size) {
    if (start >= file_size) {
        debug("Box::Read() resetting box...", kestrel::at(kestrel::kBoxSource));
        return {start};
    }
    std::array<uint8_t, kBoxHeaderSize> raw{};
    read_all(io, raw);
    BoxHeader header{start, kestrel::load_be32(raw.data())};
    std::memcpy(&header.type, &raw[sizeof header.size], sizeof header.type);
    const BoxExtent extent{start, header.size, file_size};
    if (extent.end() > file_size) throw_invalid_size(extent);
    if (!macro_IsEOF(io)) return header;
    debug("Box::Read() resetting box due to EOF", kestrel::at(kestrel::kBoxSource));
    return {start};
}

}  // namespace

void throw_invalid_size(const BoxExtent& extent) {
    const kestrel::LogSite site = kestrel::at(kestrel::kBoxSource);
    throw SimpleException(site.file, site.line,
                          "Invalid size found in box.  Current file position is %u, box size is "
                          "%u, total offset is %u.  File size is %u.",
                          extent.start, extent.size, extent.start + extent.size, extent.file_size);
}

void Box::Dump(Stream& io) const {
    set_start(macro_Tell(io));
    var32_write(io, GetSize());
    var32_write_noswap(io, type_);
}

void Box::Read(Stream& io, unsigned int file_size) {
    if (!std::exchange(header_is_read_, false)) {
        const BoxHeader header = read_header_at(io, macro_Tell(io), file_size);
        set_start(header.start);
        set_header(header.size, header.type);
    }
}

void Box::resume(const BoxHeader& header) {
    set_start(header.start);
    set_header(header.size, header.type);
    header_is_read_ = true;
}

void Box::Peek(Stream& io, unsigned int file_size) {
    Read(io, file_size);
    seek_to_start(io);
}

void Box::Skip(Stream& io) {
    const uint64_t end = uint64_t{start_offset()} + size_;
    macro_Seek(io, static_cast<uint32_t>(end));
    if (macro_Tell(io) != end) throw_invalid_size({start_offset(), size_, GetFileSize(io)});
}

bool Box::read_header(Stream& io, unsigned int file_size, BoxExtent& extent) {
    Box::Read(io, file_size);
    extent = {start_offset(), size_, file_size};
    return !is_reset();
}

void Box::seek_to_start(Stream& io) const {
    if (start_ == std::streampos(-1)) {
        const kestrel::LogSite site = kestrel::at(kestrel::kBoxSource);
        throw SimpleException(site.file, site.line, "Box has no place in the stream yet");
    }
    macro_Seek(io, start_offset());
}

Stream& operator<<(Stream& io, const Box& box) {
    box.Dump(io);
    return io;
}

BoxHeader next_header(Stream& io, uint32_t position, uint32_t file_size) {
    if (position >= file_size) {
        debug("peek_box() returning unknown box due to EOF or stream position past file size",
              kestrel::at(kestrel::kBoxSource));
        return {position};
    }
    const BoxHeader header = read_header_at(io, position, file_size);
    if (header.is_reset()) macro_Seek(io, position);
    return header;
}

uint32_t peek_box(Stream& io, uint32_t file_size) {
    const uint32_t position = macro_Tell(io);
    const BoxHeader header = next_header(io, position, file_size);
    if (!header.is_reset()) macro_Seek(io, position);
    return header.type;
}

void FullBox::Dump(Stream& io) const {
    set_start(macro_Tell(io));
    FieldWriter writer(io);
    writer.header(GetSize(), GetType());
    fields(writer, *this);
    writer.flush();
}

void FullBox::Read(Stream& io, unsigned int file_size) {
    BoxExtent extent{};
    if (!read_header(io, file_size, extent)) return;
    FieldReader reader(io, extent, extent.body());
    fields(reader, *this);
}

uint32_t GetCurrentTimestamp() {
    return kestrel::movie_time_now();
}

Timed::Timed() : creation_time_(GetCurrentTimestamp()), modification_time_(creation_time_) {}

void Timed::Dump(Stream& io) const {
    position_ = static_cast<std::streamoff>(macro_Tell(io));
    FieldWriter writer(io);
    fields(writer, *this);
    writer.flush();
}

void Timed::Read(Stream& io, unsigned int file_size) {
    const uint32_t position = macro_Tell(io);
    position_ = static_cast<std::streamoff>(position);
    FieldReader reader(io, rest_of_file(position, file_size), position);
    fields(reader, *this);
}

unsigned int Timed::GetSize() const {
    FieldSizer sizer(0);
    fields(sizer, *this);
    return sizer.size();
}

UnknownBox::UnknownBox() = default;
UnknownBox::~UnknownBox() = default;

void UnknownBox::fields(auto& f, auto& self) {
    f.skipped_body(self, 0);
}

void visit_fields(const Box& box, FieldVisitor& visitor) {
    if (const auto* listed = dynamic_cast<const Listed*>(&box)) listed->list_fields(visitor);
}

void visit_children(const Box& box, const ChildVisitor& visitor) {
    if (const auto* listed = dynamic_cast<const Listed*>(&box)) listed->list_children(visitor);
}

void FieldReader::take(std::span<uint8_t> to) {
    if (!unread_.empty()) {
        std::copy_n(unread_.begin(), to.size(), to.begin());
        unread_ = unread_.subspan(to.size());
        return;
    }
    std::fill(to.begin(), to.end(), uint8_t{0});  // a host may succeed without writing them
    if (to.size() > rest_of_box()) {
        // Fields after the end of the box are zero.
        position_ = std::max(position_, extent_.end());
        complete_ = false;
        return;
    }
    position_ += to.size();
    if (!read_all(io_, to)) complete_ = false;  // the stream ends; the rest stays zero
}

void FieldReader::fetch(uint32_t size) {
    piece_.assign(size, 0);
    fill(piece_);
    unread_ = piece_;
}

// Fills all of `to`. Fewer bytes mean that the box declares more than the stream has.
void FieldReader::fill(std::span<uint8_t> to) {
    if (!read_all(io_, to)) throw_invalid_size(extent_);
    position_ += to.size();
}

void FieldReader::blob(std::string_view, std::vector<uint8_t>& data, uint32_t size) {
    require(size);
    data.clear();
    while (size > 0) {
        const uint32_t now = std::min(size, kPiece);
        const size_t had = data.size();
        data.resize(had + now);
        fill(std::span(data).subspan(had));
        size -= now;
    }
}

void FieldReader::dropped_text() {
    constexpr uint32_t kTerminator = 1;
    uint32_t rest = rest_of_box();
    rest -= std::min(rest, kTerminator);
    while (rest > 0) {
        const uint32_t now = std::min(rest, kPiece);
        piece_.assign(now, 0);
        fill(piece_);
        rest -= now;
    }
    std::array<uint8_t, kTerminator> terminator{};
    take(terminator);
}

void FieldReader::descriptor_size(std::string_view, uint32_t& value, uint8_t& width) {
    value = 0;
    if (rest_of_box() == 0) {
        complete_ = false;
        return;
    }
    width = static_cast<uint8_t>(ReadDescriptorSize(io_, value, rest_of_box()));
    position_ += width;
    if (macro_Tell(io_) != position_) complete_ = false;
}

bool FieldReader::finish_child(const Box& child) {
    const uint32_t position = macro_Tell(io_);
    if (child.is_reset() && (position >= extent_.file_size || macro_IsEOF(io_))) return false;
    const auto start = static_cast<uint32_t>(static_cast<std::streamoff>(child.GetStart()));
    const BoxExtent extent{start, child.GetSizeWhole(), extent_.file_size};
    if (extent.size < kBoxHeaderSize || start < position_) throw_invalid_size(extent);
    if (position < extent.end()) move_to_end(io_, extent);
    position_ = std::max<uint64_t>(position, extent.end());
    return true;
}

void FieldWriter::descriptor_size(std::string_view, const uint32_t& value, const uint8_t& width) {
    for (unsigned left = width; left-- > 0;) {
        const uint32_t more = left > 0 ? 0x80 : 0;
        pending_.push_back(static_cast<uint8_t>(more | (value >> (7 * left) & 0x7F)));
    }
}

void FieldWriter::flush() {
    if (pending_.empty()) return;
    macro_Write(io_, pending_.data(), static_cast<uint32_t>(pending_.size()));
    pending_.clear();
}

}  // namespace Qvox3gp
