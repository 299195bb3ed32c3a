// SPDX-License-Identifier: Apache-2.0
// The reading position of a track, for reading again what could not be read whole.
#ifndef KESTREL_ISOFF_TRACK_STATE_H
#define KESTREL_ISOFF_TRACK_STATE_H

#include <tuple>

#include "interface/src/isoff/record/record.h"

namespace kestrel {

// Of the piece of a sample that could not be read.
enum class Missing {
    kArrived,  // or nothing was missing
    kWaits,
    kAfterEnd,  // the file ends before it
};

// Judges by the last byte of the piece.
Missing look_for_missing(iso_file* file);

// The fields that reading changes: the cursor of a track and, of a hint track, of its packets.
inline auto position_of(iso_track* track) {
    return std::tie(track->cur_sample, track->cur_chunk, track->cur_offset, track->stts_index,
                    track->stts_in_entry, track->ctts_index, track->ctts_in_entry,
                    track->own->positioned, track->own->next_alike, track->rtp_seq_offset,
                    track->seq_rebase, track->last_seq, track->last_timestamp, track->last_read_pos,
                    track->last_payload_type, track->own->hint_work);
}

template <typename... Fields>
std::tuple<Fields...> values_of(std::tuple<Fields&...> fields);

class TrackState {
  public:
    explicit TrackState(iso_track* track);
    void restore() const;

  private:
    iso_track* track_;
    decltype(values_of(position_of(nullptr))) position_;
    rtp_hint_state hint_{};
};

}  // namespace kestrel

#endif
