// SPDX-License-Identifier: Apache-2.0
// A file as if it had one media track alone.
#ifndef KESTREL_TOOLS_TRACK_CHOICE_H
#define KESTREL_TOOLS_TRACK_CHOICE_H

#include <span>
#include <string>

#include "companion/probe/media_tracks.h"
#include "tools/support.h"

namespace tool {

// Maps a file into memory, where the boxes of its other media tracks get the type "free". The file
// itself stays as it is. Hint tracks remain.
class TrackChoice {
  public:
    // Throws an Error where the file has no media track with that ID, or where that is not one of
    // the medium.
    TrackChoice(const std::string& path, uint32_t track_id, MediaKind kind);
    TrackChoice(const TrackChoice&) = delete;
    TrackChoice& operator=(const TrackChoice&) = delete;
    ~TrackChoice();

    // Serves the file; complete.
    kst_host* host() { return host_.get(); }

  private:
    void map(const std::string& path);
    void hide_others(const std::string& path, uint32_t track_id, MediaKind kind);

    std::span<uint8_t> bytes_;
    Host host_;
};

}  // namespace tool

#endif
