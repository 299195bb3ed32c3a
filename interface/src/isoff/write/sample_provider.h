// SPDX-License-Identifier: Apache-2.0
// Samples of a track that is being written, queued or provided by the caller.
#ifndef KESTREL_ISOFF_SAMPLE_PROVIDER_H
#define KESTREL_ISOFF_SAMPLE_PROVIDER_H

#include <cstdint>

#include "interface/src/isoff/record/record.h"

namespace kestrel {

class MediaOutput;

// Results of the writer's functions besides 0.
enum WriteError {
    kBadArgument = -1,
    kNoMemory = -2,
    kCannotBeCut = -3,  // a sample into packets
    kFellShort = -5,    // finalised already, or not all could be written
    kTooLarge = -6,
    kTooLong = -7,
    kTrackClosed = -8,
    kTrackTooLate = -9,
};

// The facts of a sample that the tables declare.
struct SampleFigures {
    uint32_t size = 0;         // bytes
    uint32_t duration = 0;     // track units
    int32_t cts_offset = 0;    // track units
    uint32_t description = 1;  // sample entry, from 1
};

// Provides the samples of a track in place of a queue. figures() may be called at any time, write()
// once for each sample, in order, when the file is written. Sample numbers count from 0.
class SampleProvider {
  public:
    virtual ~SampleProvider() = default;
    virtual uint32_t count() const = 0;
    virtual SampleFigures figures(uint32_t sample) const = 0;
    // Writes the bytes of `count` samples from `first` on. Returns false to end the writing of the
    // file.
    virtual bool write(uint32_t first, uint32_t count, MediaOutput& output) = 0;
};

// Sets the provider of a track without samples. `provider` must outlive the file. Returns 0,
// kTooLarge or kTooLong.
int provide_samples(iso_track* track, SampleProvider& provider);

// Makes isoFFclose release the file without writing it.
void abandon(iso_file* file);

// Releases a file that was not finished.
struct AbandonFile {
    void operator()(iso_file* file) const {
        abandon(file);
        isoFFclose(file);
    }
};

// A cursor over the queued or provided samples of a track.
class SampleWalk {
  public:
    explicit SampleWalk(const iso_track* track)
        : provider_(track->own->provider), frame_(track->own->first_frame) {}

    bool at_end() const {
        return provider_ == nullptr ? frame_ == nullptr : number_ >= provider_->count();
    }
    SampleFigures figures() const {
        if (provider_ != nullptr) return provider_->figures(number_);
        return {frame_->size, frame_->duration, frame_->cts_offset};
    }
    void next() {
        if (provider_ == nullptr) frame_ = frame_->next;
        ++number_;
    }
    void skip(uint32_t samples) {
        for (uint32_t i = 0; i < samples && provider_ == nullptr; ++i)
            frame_ = frame_->next;
        number_ += samples;
    }

    uint32_t number() const { return number_; }             // of the sample, from 0
    const iso_frame* frame() const { return frame_; }       // null for a provided sample
    SampleProvider* provider() const { return provider_; }  // null for a queued sample

  private:
    SampleProvider* provider_;
    const iso_frame* frame_;
    uint32_t number_ = 0;
};

}  // namespace kestrel

#endif
