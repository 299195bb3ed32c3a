// SPDX-License-Identifier: Apache-2.0
// The sample table container and its tables.
#ifndef KESTREL_BOXES_SAMPLE_TABLES_H
#define KESTREL_BOXES_SAMPLE_TABLES_H

#include <cstdint>
#include <utility>
#include <vector>

#include "boxes/box_base.h"
#include "boxes/mdat_box.h"
#include "common/movie_defaults.h"

namespace Qvox3gp {

class StsdBox;

struct TimeToSampleEntry {
    uint32_t sample_count = 0;
    uint32_t sample_delta = 0;  // media ticks

    static void fields(auto& f, auto& self);
};

// "stts"
class SttsBox : public Described<SttsBox, FullBox, FixupableTime> {
  public:
    SttsBox();
    ~SttsBox() override;

    void GoToStart(Stream& io) override { seek_to_start(io); }
    // Deltas are in media ticks; the timescale itself is not in the box.
    void SetTimescale(unsigned int, unsigned int media) override { timescale_ = media; }
    // Sets the duration of the table to `duration` media ticks, rounded down: the part that the
    // entries before the last one do not cover is spread evenly over the samples of the last one.
    void SetDuration(unsigned int duration) override;
    unsigned int GetTimescale() const override { return timescale_; }
    // The sum of all samples, at most 2^32 - 1.
    unsigned int GetDuration() const override;

    const std::vector<TimeToSampleEntry>& GetSampleEntries() const { return entries_; }
    void AddSampleEntry(const TimeToSampleEntry& entry) { entries_.push_back(entry); }

    static void fields(auto& f, auto& self);

  private:
    uint32_t timescale_ = kestrel::kMovieTimescale;
    std::vector<TimeToSampleEntry> entries_;
};

struct SampleToChunkEntry {
    uint32_t first_chunk = 0;  // from 1
    uint32_t samples_per_chunk = 0;
    uint32_t sample_description_index = 0;  // from 1

    static void fields(auto& f, auto& self);
};

// "stsc"
class StscBox : public Described<StscBox, FullBox> {
  public:
    StscBox();
    ~StscBox() override;

    const std::vector<SampleToChunkEntry>& GetSampleEntries() const { return entries_; }
    void AddSampleEntry(const SampleToChunkEntry& entry) { entries_.push_back(entry); }

    static void fields(auto& f, auto& self);

  private:
    std::vector<SampleToChunkEntry> entries_;
};

// "stsz". The media data box has one sample per chunk, so a fix-up takes the chunk sizes.
class StszBox : public Described<StszBox, FullBox, Fixupable> {
  public:
    StszBox();
    ~StszBox() override;

    void GoToStart(Stream& io) override { seek_to_start(io); }
    void FixupVideo(MdatBox* mdat) override { fix(mdat->VideoChunks()); }
    void FixupVideoHint(MdatBox* mdat) override { fix(mdat->VideoHintChunks()); }
    void FixupAudio(MdatBox* mdat) override { fix(mdat->AudioChunks()); }
    void FixupAudioHint(MdatBox* mdat) override { fix(mdat->AudioHintChunks()); }

    // The size of every sample in bytes; 0 for individual sizes.
    uint32_t GetSampleSize() const { return sample_size_; }
    uint32_t GetSampleCount() const { return sample_count_; }
    // The size of each sample; empty when all are equal.
    const std::vector<uint32_t>& GetChunkSizes() const { return sizes_; }
    void SetSampleSizes(std::vector<uint32_t> sizes);
    void SetUniformSize(uint32_t size, uint32_t count);

    static void fields(auto& f, auto& self);

  private:
    void fix(const std::vector<ChunkDef>& chunks);

    uint32_t sample_size_ = 0;
    uint32_t sample_count_ = 0;
    std::vector<uint32_t> sizes_;
};

// "stco"
class StcoBox : public Described<StcoBox, FullBox, Fixupable> {
  public:
    StcoBox();
    ~StcoBox() override;

    void GoToStart(Stream& io) override { seek_to_start(io); }
    void FixupVideo(MdatBox* mdat) override { fix(mdat->VideoChunks()); }
    void FixupVideoHint(MdatBox* mdat) override { fix(mdat->VideoHintChunks()); }
    void FixupAudio(MdatBox* mdat) override { fix(mdat->AudioChunks()); }
    void FixupAudioHint(MdatBox* mdat) override { fix(mdat->AudioHintChunks()); }

    const std::vector<uint32_t>& GetChunkOffsets() const { return offsets_; }
    void SetChunkOffsets(std::vector<uint32_t> offsets) { offsets_ = std::move(offsets); }

    static void fields(auto& f, auto& self);

  private:
    void fix(const std::vector<ChunkDef>& chunks);

    std::vector<uint32_t> offsets_;
};

// "stss"
class StssBox : public Described<StssBox, FullBox, Rewindable> {
  public:
    StssBox();
    ~StssBox() override;

    void GoToStart(Stream& io) override { seek_to_start(io); }

    // Sample numbers from 1.
    const std::vector<uint32_t>& GetSyncSampleEntries() const { return samples_; }
    void AddSyncSampleEntry(uint32_t sample) { samples_.push_back(sample); }

    static void fields(auto& f, auto& self);

  private:
    std::vector<uint32_t> samples_;
};

// "stbl". Its Read can end the process (see ESDBox).
class StblBox : public Described<StblBox, ContainerBox> {
  public:
    StblBox();
    ~StblBox() override;

    void SetStts(SttsBox* stts, bool owned) { stts_ = adopt(stts, owned); }
    void SetStsd(StsdBox* stsd, bool owned);
    void SetStsz(StszBox* stsz, bool owned) { stsz_ = adopt(stsz, owned); }
    void SetStsc(StscBox* stsc, bool owned) { stsc_ = adopt(stsc, owned); }
    void SetStco(StcoBox* stco, bool owned) { stco_ = adopt(stco, owned); }
    void SetStss(StssBox* stss, bool owned) { stss_ = adopt(stss, owned); }
    SttsBox* GetStts() const { return stts_; }
    StsdBox* GetStsd() const { return stsd_; }
    StszBox* GetStsz() const { return stsz_; }
    StscBox* GetStsc() const { return stsc_; }
    StcoBox* GetStco() const { return stco_; }
    StssBox* GetStss() const { return stss_; }

    Box& new_child(uint32_t type);

  private:
    SttsBox* stts_ = nullptr;
    StsdBox* stsd_ = nullptr;
    StszBox* stsz_ = nullptr;
    StscBox* stsc_ = nullptr;
    StcoBox* stco_ = nullptr;
    StssBox* stss_ = nullptr;
};

}  // namespace Qvox3gp

#endif
