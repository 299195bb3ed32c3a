// SPDX-License-Identifier: Apache-2.0
#include "interface/src/isoff/read/track_state.h"

namespace kestrel {

TrackState::TrackState(iso_track* track) : track_(track), position_(position_of(track)) {
    if (track->hint != nullptr) hint_ = *track->hint;
}

void TrackState::restore() const {
    position_of(track_) = position_;
    if (track_->hint != nullptr) *track_->hint = hint_;
}

}  // namespace kestrel
