// SPDX-License-Identifier: Apache-2.0
#include "interface/src/mmfi/frame_store.h"

#include <algorithm>
#include <cstring>

#include "interface/src/isoff/record/private.h"
#include "kestrel/kestrel.h"

namespace kestrel {
namespace {

static_assert(KST_MAX_CHUNK == kMaxChunkBytes);

// Makes the buffer at least `capacity` bytes long. Keeps its first `kept` bytes.
bool reserve(iso_frame_buffer& buffer, uint32_t capacity, uint32_t kept) {
    if (capacity <= buffer.capacity) return true;
    if (capacity > kMaxFrameBytes) return false;
    const uint32_t grown =
        std::min(std::max(capacity, buffer.capacity + buffer.capacity / 2), kMaxFrameBytes);
    auto* bytes = static_cast<uint8_t*>(systemmalloc(grown));
    if (bytes == nullptr) return false;
    if (kept > 0) std::memcpy(bytes, buffer.bytes, kept);
    systemfree(buffer.bytes);
    buffer.bytes = bytes;
    buffer.capacity = grown;
    return true;
}

iso_frame_buffer& large_sample(const mm_Interface* record) {
    return record->file->own->large_sample;
}

// The buffer for the staged bytes of a large frame. It is in use while `used` is not 0.
iso_frame_buffer& large_staging(const mm_Interface* record) {
    return record->file->own->large_staging;
}

}  // namespace

bool may_allocate(iso_track* track, uint32_t size) {
    if (size <= kBufferSize) return true;
    uint8_t last = 0;
    return isoFFreadAt(track, track->cur_sample, static_cast<int>(size - 1), &last, 1, nullptr,
                       nullptr) == 1;
}

uint8_t* sample_room(mm_Interface* record, uint32_t size) {
    if (size <= kBufferSize) return record->sample_buffer();
    return reserve(large_sample(record), size, 0) ? large_sample(record).bytes : nullptr;
}

const uint8_t* Staging::bytes() const {
    const uint8_t* first =
        large_staging(record_).used != 0 ? large_staging(record_).bytes : record_->staging;
    return first + record_->staged_from;
}

uint32_t Staging::count() const {
    const uint32_t large = large_staging(record_).used;
    return large != 0 ? large : record_->staged_count;
}

void Staging::clear() {
    large_staging(record_).used = 0;
    record_->staged_count = 0;
    record_->staged_from = 0;
}

void Staging::consume(uint32_t count) {
    record_->staged_from += count;
    if (large_staging(record_).used != 0) {
        large_staging(record_).used -= count;
    } else {
        record_->staged_count = static_cast<uint16_t>(record_->staged_count - count);
    }
}

bool Staging::append(const void* bytes, uint32_t count) {
    const uint32_t staged = this->count();
    if (count > kMaxFrameBytes - staged) return false;
    const uint32_t total = staged + count;
    iso_frame_buffer& large = large_staging(record_);
    if (large.used == 0 && total <= kBufferSize) {
        std::memcpy(record_->staging + staged, bytes, count);
        record_->staged_count = static_cast<uint16_t>(total);
        return true;
    }
    if (!reserve(large, total, large.used)) return false;
    if (large.used == 0) std::memcpy(large.bytes, record_->staging, staged);
    std::memcpy(large.bytes + staged, bytes, count);
    large.used = total;
    record_->staged_count = 0;
    return true;
}

uint8_t* Staging::room(uint32_t capacity) {
    clear();
    if (capacity <= kBufferSize) return record_->staging;
    return reserve(large_staging(record_), capacity, 0) ? large_staging(record_).bytes : nullptr;
}

void Staging::replace(const uint8_t* room, uint32_t count) {
    if (room == record_->staging) {
        record_->staged_count = static_cast<uint16_t>(count);
    } else {
        large_staging(record_).used = count;
    }
}

}  // namespace kestrel
