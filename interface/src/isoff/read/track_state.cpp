// SPDX-License-Identifier: Apache-2.0
#include "interface/src/isoff/read/track_state.h"

namespace kestrel {

TrackState::TrackState(iso_track* track)
    : track_(track),
      cur_sample_(track->cur_sample),
      cur_chunk_(track->cur_chunk),
      cur_offset_(track->cur_offset),
      stts_index_(track->stts_index),
      stts_in_entry_(track->stts_in_entry),
      ctts_index_(track->ctts_index),
      ctts_in_entry_(track->ctts_in_entry),
      positioned_(track->own->positioned),
      next_alike_(track->own->next_alike),
      rtp_seq_offset_(track->rtp_seq_offset),
      seq_rebase_(track->seq_rebase),
      last_seq_(track->last_seq),
      last_timestamp_(track->last_timestamp),
      last_read_pos_(track->last_read_pos),
      last_payload_type_(track->last_payload_type),
      hint_work_(track->own->hint_work) {
    if (track->hint != nullptr) hint_ = *track->hint;
}

void TrackState::restore() const {
    track_->cur_sample = cur_sample_;
    track_->cur_chunk = cur_chunk_;
    track_->cur_offset = cur_offset_;
    track_->stts_index = stts_index_;
    track_->stts_in_entry = stts_in_entry_;
    track_->ctts_index = ctts_index_;
    track_->ctts_in_entry = ctts_in_entry_;
    track_->own->positioned = positioned_;
    track_->own->next_alike = next_alike_;
    track_->rtp_seq_offset = rtp_seq_offset_;
    track_->seq_rebase = seq_rebase_;
    track_->last_seq = last_seq_;
    track_->last_timestamp = last_timestamp_;
    track_->last_read_pos = last_read_pos_;
    track_->last_payload_type = last_payload_type_;
    track_->own->hint_work = hint_work_;
    if (track_->hint != nullptr) *track_->hint = hint_;
}

}  // namespace kestrel
