// SPDX-License-Identifier: Apache-2.0
#include "boxes/mdat_box.h"

#include <limits>

#include "boxes/fields.h"
#include "boxes/hint_sample.h"

namespace Qvox3gp {

MdatBox::MdatBox() : Described(code("mdat")) {}
MdatBox::~MdatBox() = default;

void MdatBox::fields(auto& f, auto& self) {
    f.skipped_body(self, self.written_);
}

void MdatBox::Close(Stream& io) {
    seek_to_start(io);
    var32_write(io, GetSize());
    macro_Seek(io, start_offset() + GetSize());
}

void MdatBox::AddChunk(Stream& io, std::vector<ChunkDef>& chunks, const void* data,
                       unsigned int size) {
    constexpr uint64_t kMaxBytes = std::numeric_limits<uint32_t>::max();
    seek_to_start(io);
    const uint64_t offset = uint64_t{start_offset()} + GetSize();
    if (offset + size > kMaxBytes) {
        throw_invalid_size({start_offset(), GetSize(), static_cast<uint32_t>(offset)});
    }
    macro_Seek(io, static_cast<uint32_t>(offset));
    if (size > 0) macro_Write(io, data, size);
    chunks.emplace_back(static_cast<uint32_t>(offset), size);
    written_ += size;
}

void MdatBox::AddHintChunk(Stream& io, std::vector<ChunkDef>& chunks, const CHintSample* sample) {
    const std::vector<uint8_t> bytes = sample->bytes();
    AddChunk(io, chunks, bytes.data(), static_cast<unsigned int>(bytes.size()));
}

}  // namespace Qvox3gp
