// SPDX-License-Identifier: Apache-2.0
#include "boxes/sample_tables.h"

#include <limits>
#include <utility>

#include "boxes/fields.h"
#include "boxes/sample_entries.h"

namespace Qvox3gp {
namespace {

constexpr uint64_t kMaxTicks = std::numeric_limits<uint32_t>::max();

std::vector<uint32_t> gather(const std::vector<ChunkDef>& chunks, uint32_t ChunkDef::*member) {
    std::vector<uint32_t> values;
    values.reserve(chunks.size());
    for (const ChunkDef& chunk : chunks)
        values.push_back(chunk.*member);
    return values;
}

// Returns the sum of the first `count` entries. Each product fits in 64 bits; the sum is limited to
// 2^32 - 1.
uint32_t total_ticks(const std::vector<TimeToSampleEntry>& entries, size_t count) {
    uint64_t ticks = 0;
    for (size_t i = 0; i < count; ++i) {
        ticks += uint64_t{entries[i].sample_count} * entries[i].sample_delta;
        if (ticks > kMaxTicks) return static_cast<uint32_t>(kMaxTicks);
    }
    return static_cast<uint32_t>(ticks);
}

}  // namespace

void TimeToSampleEntry::fields(auto& f, auto& self) {
    f.u32("sample_count", self.sample_count);
    f.u32("sample_delta", self.sample_delta);
}

SttsBox::SttsBox() : Described(code("stts")) {}
SttsBox::~SttsBox() = default;

void SttsBox::fields(auto& f, auto& self) {
    FullBox::fields(f, self);
    f.counted_table("entries", self.entries_);
}

void SttsBox::SetDuration(unsigned int duration) {
    if (entries_.empty()) return;
    TimeToSampleEntry& last = entries_.back();
    if (last.sample_count == 0) return;
    const uint32_t before = total_ticks(entries_, entries_.size() - 1);
    last.sample_delta = (duration - std::min(before, duration)) / last.sample_count;
}

unsigned int SttsBox::GetDuration() const {
    return total_ticks(entries_, entries_.size());
}

void SampleToChunkEntry::fields(auto& f, auto& self) {
    f.u32("first_chunk", self.first_chunk);
    f.u32("samples_per_chunk", self.samples_per_chunk);
    f.u32("sample_description_index", self.sample_description_index);
}

StscBox::StscBox() : Described(code("stsc")) {}
StscBox::~StscBox() = default;

void StscBox::fields(auto& f, auto& self) {
    FullBox::fields(f, self);
    f.counted_table("entries", self.entries_);
}

StszBox::StszBox() : Described(code("stsz")) {}
StszBox::~StszBox() = default;

void StszBox::fields(auto& f, auto& self) {
    FullBox::fields(f, self);
    f.u32("sample_size", self.sample_size_);
    f.u32("sample_count", self.sample_count_);
    if (self.sample_size_ == 0) f.table("sizes", self.sizes_, self.sample_count_);
}

void StszBox::SetSampleSizes(std::vector<uint32_t> sizes) {
    sample_size_ = 0;
    sample_count_ = static_cast<uint32_t>(sizes.size());
    sizes_ = std::move(sizes);
}

void StszBox::SetUniformSize(uint32_t size, uint32_t count) {
    sample_size_ = size;
    sample_count_ = count;
    sizes_.clear();
}

void StszBox::fix(const std::vector<ChunkDef>& chunks) {
    SetSampleSizes(gather(chunks, &ChunkDef::size));
}

StcoBox::StcoBox() : Described(code("stco")) {}
StcoBox::~StcoBox() = default;

void StcoBox::fields(auto& f, auto& self) {
    FullBox::fields(f, self);
    f.counted_table("chunk_offsets", self.offsets_);
}

void StcoBox::fix(const std::vector<ChunkDef>& chunks) {
    SetChunkOffsets(gather(chunks, &ChunkDef::offset));
}

StssBox::StssBox() : Described(code("stss")) {}
StssBox::~StssBox() = default;

void StssBox::fields(auto& f, auto& self) {
    FullBox::fields(f, self);
    f.counted_table("sync_samples", self.samples_);
}

StblBox::StblBox() : Described(code("stbl")) {}
StblBox::~StblBox() = default;

void StblBox::SetStsd(StsdBox* stsd, bool owned) {
    stsd_ = adopt(stsd, owned);
}

Box& StblBox::new_child(uint32_t type) {
    static constexpr ChildKind<StblBox> kKinds[] = {
        {code("stts"), StoreChild<&StblBox::SetStts>::make},
        {code("stsd"), StoreChild<&StblBox::SetStsd>::make},
        {code("stsz"), StoreChild<&StblBox::SetStsz>::make},
        {code("stsc"), StoreChild<&StblBox::SetStsc>::make},
        {code("stco"), StoreChild<&StblBox::SetStco>::make},
        {code("stss"), StoreChild<&StblBox::SetStss>::make}};
    return make_child(*this, kKinds, type);
}

}  // namespace Qvox3gp
