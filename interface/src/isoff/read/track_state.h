// SPDX-License-Identifier: Apache-2.0
// The reading position of a track, for reading again what could not be read whole.
#ifndef KESTREL_ISOFF_TRACK_STATE_H
#define KESTREL_ISOFF_TRACK_STATE_H

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

// The cursor of a track and, of a hint track, of its packets.
class TrackState {
  public:
    explicit TrackState(iso_track* track);
    void restore() const;

  private:
    iso_track* track_;
    int32_t cur_sample_, cur_chunk_;
    uint32_t cur_offset_;
    int32_t stts_index_, stts_in_entry_, ctts_index_, ctts_in_entry_;
    uint32_t positioned_, next_alike_;
    uint32_t rtp_seq_offset_, seq_rebase_, last_seq_, last_timestamp_, last_read_pos_;
    uint32_t last_payload_type_;
    iso_hint_work hint_work_;
    rtp_hint_state hint_{};
};

}  // namespace kestrel

#endif
