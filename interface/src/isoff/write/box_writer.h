// SPDX-License-Identifier: Apache-2.0
// The destination of the box writers. The same code measures a box and writes it.
#ifndef KESTREL_ISOFF_BOX_WRITER_H
#define KESTREL_ISOFF_BOX_WRITER_H

#include "common/box_header.h"
#include "common/byte_writer.h"
#include "interface/src/isoff/record/box_columns.h"

namespace kestrel {

// The pass of the box writers: measure, then write.
enum Pass { kCountPass = 0, kWritePass = 1 };

// Puts boxes into memory, one inside the other. In the count pass it writes nothing.
class BoxWriter : public ByteWriter {
  public:
    BoxWriter() = default;  // the count pass
    explicit BoxWriter(std::span<uint8_t> to) : ByteWriter(to), pass_(kWritePass) {}

    Pass pass() const { return pass_; }

    // Puts a box whose body `body()` puts. Returns the size of the box.
    template <typename Body>
    uint64_t box(uint32_t type, Body body) {
        const uint64_t start = position();
        u32(0);  // the size, which is known at the end
        u32(type);
        body();
        const uint64_t size = position() - start;
        patch_u32(start, static_cast<uint32_t>(size));
        return size;
    }
    // The same with version and flags before the body.
    template <typename Body>
    uint64_t full_box(uint32_t type, uint32_t version, uint32_t flags, Body body) {
        return box(type, [&] {
            u32(version << 24 | flags);
            body();
        });
    }

    // Puts four characters. Zeros fill a shorter code, such as one of a new record.
    void id(const char* code) {
        const size_t length = strnlen(code, 4);
        bytes(code, length);
        zeros(4 - length);
    }
    void text(std::string_view characters) { bytes(characters.data(), characters.size()); }
    // Puts a box as it was read. Returns its size.
    uint64_t copied(std::span<const uint8_t> box) {
        bytes(box);
        return box.size();
    }
    // Tag and length of a descriptor (ISO/IEC 14496-1, 8.3.3); the length always takes four bytes.
    void descriptor(uint8_t tag, uint32_t length) {
        u8(tag);
        for (const unsigned shift : {21U, 14U, 7U})
            u8((length >> shift & 0x7F) | 0x80);
        u8(length & 0x7F);
    }
    static constexpr uint32_t kDescriptorHeader = 5;

    // What puts the columns of a box (record/box_columns.h).
    void u16(uint32_t value) { ByteWriter::u16(value); }
    void u16(int32_t value) { ByteWriter::u16(static_cast<uint32_t>(value)); }
    void u32(uint32_t value) { ByteWriter::u32(value); }
    void u32(int32_t value) { ByteWriter::u32(static_cast<uint32_t>(value)); }
    void time(uint64_t value, bool wide) { wide ? u64(value) : u32(static_cast<uint32_t>(value)); }
    void time(int64_t value, bool wide) { time(static_cast<uint64_t>(value), wide); }
    void reserved(uint32_t count) { zeros(count); }
    void constant16(uint32_t value) { u16(value); }
    void constant32(uint32_t value) { u32(value); }

  private:
    Pass pass_ = kCountPass;
};

// Puts an entry of a table.
template <typename Entry>
void put(BoxWriter& out, const Entry& entry) {
    columns(out, entry);
}

}  // namespace kestrel

#endif
