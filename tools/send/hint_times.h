// SPDX-License-Identifier: Apache-2.0
// The times of the packets of a hint track: of sending and of presentation.
#ifndef KESTREL_TOOLS_SEND_HINT_TIMES_H
#define KESTREL_TOOLS_SEND_HINT_TIMES_H

#include <cstdint>

#include "tools/support.h"

namespace tool {

// Walks the times of a track's samples, from 0.
class SampleTimes {
  public:
    explicit SampleTimes(const iso_track* track) : track_(track) {}

    // Moves forward to a sample (from 0).
    void advance_to(int32_t sample);
    // Moves to the sample of a time: the last that begins at or before it, and of several that
    // begin exactly then the first. Does not move for none.
    void advance_to_time(double seconds);

    int32_t sample() const { return sample_; }
    // Duration of the sample in units of the track.
    int64_t units() const { return units_; }
    double seconds() const { return static_cast<double>(units_) / scale(); }

  private:
    double scale() const { return track_->timescale == 0 ? 1.0 : track_->timescale; }
    bool skip_finished_entries();
    void step(int32_t samples);

    const iso_track* track_;
    int32_t sample_ = 0;
    int32_t entry_ = 0, in_entry_ = 0;  // of the time-to-sample table
    int64_t units_ = 0;
};

// Presentation time in seconds at which the track's sample times begin: after the empty edits
// before it, minus the start of its first edit.
double presentation_offset(const iso_track* track);

// Presentation time of the last sync sample of the track at or before a presentation time. Returns
// the time itself for a track without a table of sync samples.
double sync_time_before(const iso_track* track, double seconds);

// The times of one packet in a hint sample, in units of the RTP clock.
struct PacketTimes {
    int64_t sent = 0;   // from the time of the hint sample
    int64_t shown = 0;  // the same, of the timestamp
};

// Reads the packet entries of hint samples in order (ISO/IEC 14496-12, 9.1.3).
class PacketEntries {
  public:
    explicit PacketEntries(iso_track* hint) : hint_(hint) {}

    void begin_sample(int32_t sample);
    // Returns the next entry of the sample; all 0 when it cannot be read. Moves the track's cursor.
    PacketTimes next();

  private:
    bool read(void* to, uint32_t count);
    int32_t find_offset(int64_t end);

    iso_track* hint_;
    int32_t sample_ = 0;
    int64_t at_ = 0;  // in the sample
};

}  // namespace tool

#endif
