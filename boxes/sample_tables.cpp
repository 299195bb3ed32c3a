// SPDX-License-Identifier: Apache-2.0
#include "boxes/sample_tables.h"

#include <limits>
#include <utility>

#include "boxes/fields.h"
#include "boxes/mdat_box.h"
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

template <class F, class Self>
void TimeToSampleEntry::fields(F& f, Self& self) {
    f.u32("sample_count", self.sample_count);
    f.u32("sample_delta", self.sample_delta);
}

SttsBox::SttsBox() : Described(code("stts")) {}
SttsBox::~SttsBox() = default;

template <class F, class Self>
void SttsBox::fields(F& f, Self& self) {
    FullBox::fields(f, self);
    f.counted_table("entries", self.entries_);
}

void SttsBox::GoToStart(Stream& io) {
    seek_to_start(io);
}

void SttsBox::SetTimescale(unsigned int, unsigned int media) {
    timescale_ = media;
}

void SttsBox::SetDuration(unsigned int duration) {
    if (entries_.empty()) return;
    TimeToSampleEntry& last = entries_.back();
    if (last.sample_count == 0) return;
    const uint32_t before = total_ticks(entries_, entries_.size() - 1);
    last.sample_delta = (duration - std::min(before, duration)) / last.sample_count;
}

unsigned int SttsBox::GetTimescale() const {
    return timescale_;
}

unsigned int SttsBox::GetDuration() const {
    return total_ticks(entries_, entries_.size());
}

template <class F, class Self>
void SampleToChunkEntry::fields(F& f, Self& self) {
    f.u32("first_chunk", self.first_chunk);
    f.u32("samples_per_chunk", self.samples_per_chunk);
    f.u32("sample_description_index", self.sample_description_index);
}

StscBox::StscBox() : Described(code("stsc")) {}
StscBox::~StscBox() = default;

template <class F, class Self>
void StscBox::fields(F& f, Self& self) {
    FullBox::fields(f, self);
    f.counted_table("entries", self.entries_);
}

StszBox::StszBox() : Described(code("stsz")) {}
StszBox::~StszBox() = default;

template <class F, class Self>
void StszBox::fields(F& f, Self& self) {
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

void StszBox::GoToStart(Stream& io) {
    seek_to_start(io);
}

void StszBox::FixupVideo(MdatBox* mdat) {
    SetSampleSizes(gather(mdat->VideoChunks(), &ChunkDef::size));
}

void StszBox::FixupVideoHint(MdatBox* mdat) {
    SetSampleSizes(gather(mdat->VideoHintChunks(), &ChunkDef::size));
}

void StszBox::FixupAudio(MdatBox* mdat) {
    SetSampleSizes(gather(mdat->AudioChunks(), &ChunkDef::size));
}

void StszBox::FixupAudioHint(MdatBox* mdat) {
    SetSampleSizes(gather(mdat->AudioHintChunks(), &ChunkDef::size));
}

StcoBox::StcoBox() : Described(code("stco")) {}
StcoBox::~StcoBox() = default;

template <class F, class Self>
void StcoBox::fields(F& f, Self& self) {
    FullBox::fields(f, self);
    f.counted_table("chunk_offsets", self.offsets_);
}

void StcoBox::SetChunkOffsets(std::vector<uint32_t> offsets) {
    offsets_ = std::move(offsets);
}

void StcoBox::GoToStart(Stream& io) {
    seek_to_start(io);
}

void StcoBox::FixupVideo(MdatBox* mdat) {
    SetChunkOffsets(gather(mdat->VideoChunks(), &ChunkDef::offset));
}

void StcoBox::FixupVideoHint(MdatBox* mdat) {
    SetChunkOffsets(gather(mdat->VideoHintChunks(), &ChunkDef::offset));
}

void StcoBox::FixupAudio(MdatBox* mdat) {
    SetChunkOffsets(gather(mdat->AudioChunks(), &ChunkDef::offset));
}

void StcoBox::FixupAudioHint(MdatBox* mdat) {
    SetChunkOffsets(gather(mdat->AudioHintChunks(), &ChunkDef::offset));
}

StssBox::StssBox() : Described(code("stss")) {}
StssBox::~StssBox() = default;

template <class F, class Self>
void StssBox::fields(F& f, Self& self) {
    FullBox::fields(f, self);
    f.counted_table("sync_samples", self.samples_);
}

void StssBox::GoToStart(Stream& io) {
    seek_to_start(io);
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

template <class F, class Self>
void StblBox::fields(F& f, Self& self) {
    f.children(self);
}

}  // namespace Qvox3gp
