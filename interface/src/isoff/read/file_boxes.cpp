// SPDX-License-Identifier: Apache-2.0
#include <algorithm>

#include "interface/src/isoff/read/box_walk.h"

// The boxes of the top level: `ftyp`, `moov` and `mdat`.

namespace kestrel {
namespace {

constexpr uint32_t kFirstPiece = 1 << 20;

// --- reading a whole body ---

// Reads `size` bytes of the stream into memory from systemmalloc. The memory grows with the bytes
// received, so a false size costs no more than the host delivers. Returns null when bytes are
// missing or without memory; sets `no_memory` for the latter.
uint8_t* read_growing(iso_file* file, uint32_t size, uint32_t& read, bool& no_memory) {
    uint8_t* bytes = nullptr;
    read = 0;
    no_memory = false;
    while (read < size || bytes == nullptr) {
        const uint64_t doubled = uint64_t{read} + std::max(kFirstPiece, read);
        const auto capacity = static_cast<uint32_t>(std::min<uint64_t>(size, doubled));
        auto* grown = static_cast<uint8_t*>(systemmalloc(capacity));
        no_memory = grown == nullptr;
        if (!no_memory && bytes != nullptr) std::memcpy(grown, bytes, read);
        systemfree(bytes);
        bytes = grown;
        if (no_memory) return nullptr;
        if (!read_stream(file, bytes + read, capacity - read)) {
            systemfree(bytes);
            return nullptr;
        }
        read = capacity;
    }
    return bytes;
}

// Reads `size` bytes into the arena; directly, if they fit in one arena block.
uint8_t* read_into_arena(iso_file* file, uint32_t size) {
    if (size <= kFirstPiece) {
        auto* bytes = static_cast<uint8_t*>(isoFFmalloc(file, size));
        return bytes != nullptr && read_stream(file, bytes, size) ? bytes : nullptr;
    }
    uint32_t read = 0;
    bool no_memory = false;
    uint8_t* grown = read_growing(file, size, read, no_memory);
    if (no_memory) file->own->lacked_memory = 1;
    if (grown == nullptr) return nullptr;
    auto* bytes = static_cast<uint8_t*>(isoFFmalloc(file, size));
    if (bytes != nullptr) std::memcpy(bytes, grown, size);
    systemfree(grown);
    return bytes;
}

// --- top level ---

int read_ftyp(BoxReader& box) {
    constexpr uint32_t kFixedPart = 8;
    constexpr uint32_t kCode = 4;
    iso_file* file = box.file();
    if (box.size() < kFixedPart || !box.id(file->major_brand)) return -1;
    file->minor_version = static_cast<int32_t>(box.u32());
    if (file->compatible_brands != nullptr) isoFFfree(file->compatible_brands);
    file->compatible_brands = nullptr;
    const uint32_t rest = box.size() - kFixedPart;
    const uint32_t count = rest / kCode;
    if (count == 0) return box.skip(rest) ? 0 : -1;
    const uint8_t* codes = read_into_arena(file, rest);
    auto* list = codes == nullptr ? nullptr : arena_array<char>(file, size_t{count} * (kCode + 1));
    if (list == nullptr) return -1;
    for (uint32_t i = 0; i < count; ++i) {
        std::memcpy(list + i * (kCode + 1), codes + i * kCode, kCode);
        list[i * (kCode + 1) + kCode] = i + 1 < count ? ' ' : '\0';
    }
    file->compatible_brands = list;
    return 0;
}

int read_moov(BoxReader& box) {
    uint8_t* body = read_into_arena(box.file(), box.size());
    if (body == nullptr) return -1;
    const MovieMemory memory(box.file(), {body, box.size()});
    return read_movie(box);
}

int read_mdat(BoxReader& box) {
    iso_file* file = box.file();
    file->mdat_start = file->file_pos;
    if (file->first_track != nullptr) return 1;  // samples are read from the stream later
    if (box.size() == 0 || file->mem_seek != nullptr) return skip_body(box);
    systemfree(file->mdat_buffer);  // only the last `mdat` before `moov` is kept
    file->mdat_buffer = nullptr;
    if (box.size() > iso_mdat_buffer_max) return skip_body(box);
    uint32_t read = 0;
    bool no_memory = false;
    file->mdat_buffer = read_growing(file, box.size(), read, no_memory);
    if (no_memory) return box.skip(box.size() - read) ? 0 : -1;
    if (file->mdat_buffer == nullptr) return -1;
    file->mdat_end = file->mdat_start + box.size();
    return 0;
}

constexpr isobox file_box[] = {
    {"ftyp", read_ftyp}, {"moov", read_moov}, {"mdat", read_mdat}, {nullptr, nullptr}};

}  // namespace

int read_header(iso_file* file) {
    const int result = parse(file, file_box, 0);
    if (file->mdat_buffer != nullptr) {
        file->mem_read = mread;
        file->mem_seek = mseek;
        file->mem_cookie = file;
    }
    return result;
}

}  // namespace kestrel
