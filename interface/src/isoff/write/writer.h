// SPDX-License-Identifier: Apache-2.0
// Writing a file: state, tracks and samples.
#ifndef KESTREL_ISOFF_WRITER_H
#define KESTREL_ISOFF_WRITER_H

#include <span>

#include "interface/src/isoff/record/record.h"

namespace kestrel {

// Writes the rest of the file, once. Returns 0, or a negative code of isoFFclose.
int finalise(iso_file* file);

// Writes at the position of the stream. Returns false when the stream failed or took fewer bytes.
bool write_stream(iso_file* file, const void* from, uint32_t count);

// Returns 0, or the error of isoFFwrite for a file that is finished or a track that is closed.
int check_open(const iso_track* track);

// Does the work of isoFFwrite, with valid arguments and the duration as it is. May throw
// std::bad_alloc.
int write_sample(iso_track* track, std::span<const uint8_t> sample, uint32_t duration,
                 int32_t cts_offset);

// Returns the duration of a track in movie units: of its edits, or without any of its media.
uint32_t movie_duration(const iso_track* track);

// Making a track in several steps. Its destructor removes what was added to the file since, unless
// keep() was called.
class TrackAttempt {
  public:
    explicit TrackAttempt(iso_file* file);
    TrackAttempt(const TrackAttempt&) = delete;
    TrackAttempt& operator=(const TrackAttempt&) = delete;
    ~TrackAttempt();

    iso_track* keep(iso_track* track);

  private:
    iso_file* file_;  // null after keep()
    iso_track* last_track_ = nullptr;
    uint32_t next_track_id_ = 0, header_size_ = 0, has_visual_ = 0;
};

// Adds a track to a file that is being written, with what all codecs need: its codec, and its
// duration limit from the timescale. `entry_bytes` is the size of its sample entry and media
// header. Returns null without memory and for a file that is read.
iso_track* new_media_track(iso_file* file, int32_t codec, uint32_t timescale, uint32_t entry_bytes);

// The same for pictures of a size in pixels. Returns null for more than 65535 in either direction.
iso_track* new_visual_track(iso_file* file, int32_t codec, uint32_t timescale, uint32_t width,
                            uint32_t height, uint32_t entry_bytes);

}  // namespace kestrel

#endif
