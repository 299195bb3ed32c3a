// SPDX-License-Identifier: Apache-2.0
// Writing a file: its state, its tracks, its samples.
#ifndef KESTREL_ISOFF_WRITER_H
#define KESTREL_ISOFF_WRITER_H

#include <span>

#include "interface/src/isoff/record/record.h"

namespace kestrel {

// Writes what the file still lacks, once. 0, or a negative code of isoFFclose.
int finalise(iso_file* file);

// Writes at the stream's position; false when the stream failed or took fewer bytes.
bool write_stream(iso_file* file, const void* from, uint32_t count);

// 0, or the error of isoFFwrite for a file that is finished or a track that is closed.
int check_open(const iso_track* track);

// isoFFwrite of valid arguments, with the duration as it is. May throw std::bad_alloc.
int write_sample(iso_track* track, std::span<const uint8_t> sample, uint32_t duration,
                 int32_t cts_offset);

// Length of a track in movie units: that of its edits, or of its media without any.
uint32_t movie_duration(const iso_track* track);

// Making a track in several steps: what was added to the file since is taken back at the end of the
// scope, but for a track that is kept.
class TrackAttempt {
  public:
    explicit TrackAttempt(iso_file* file);
    TrackAttempt(const TrackAttempt&) = delete;
    TrackAttempt& operator=(const TrackAttempt&) = delete;
    ~TrackAttempt();

    iso_track* keep(iso_track* track);

  private:
    iso_file* file_;  // null when there is nothing to take back
    iso_track* last_track_ = nullptr;
    uint32_t next_track_id_ = 0, header_size_ = 0, has_visual_ = 0;
};

// A new track of a file that is being written, with what every codec's track needs: its codec, and
// from the timescale the longest that it may run. `entry_bytes` is what its sample entry and media
// header add to the header. Null without memory or for a file that is not being written.
iso_track* new_media_track(iso_file* file, int32_t codec, uint32_t timescale, uint32_t entry_bytes);

// The same for a picture of a size in pixels, at most 65535 each; null for a larger one.
iso_track* new_visual_track(iso_file* file, int32_t codec, uint32_t timescale, uint32_t width,
                            uint32_t height, uint32_t entry_bytes);

}  // namespace kestrel

#endif
