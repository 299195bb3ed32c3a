// SPDX-License-Identifier: Apache-2.0
// A file that seems to have one media track only.
#ifndef KESTREL_TOOLS_TRACK_CHOICE_H
#define KESTREL_TOOLS_TRACK_CHOICE_H

#include <span>
#include <string>
#include <vector>

#include "companion/probe/media_tracks.h"
#include "tools/support.h"

namespace tool {

// Makes a host of a file in which the boxes of all other media tracks have the type "free". Hint
// tracks remain.
class TrackChoice {
  public:
    // Throws an Error if the file has no media track with that ID, or the track is not of the
    // medium.
    TrackChoice(const std::string& path, uint32_t track_id, MediaKind kind);
    TrackChoice(const TrackChoice&) = delete;
    TrackChoice& operator=(const TrackChoice&) = delete;

    // Returns the host; complete.
    kst_host* host() { return host_.get(); }

  private:
    static TrackChoice& of(void* context) { return *static_cast<TrackChoice*>(context); }

    void find_others(const std::string& path, uint32_t track_id, MediaKind kind);
    // Makes the host use the functions below.
    void cover_table();
    // Writes the type "free" over hidden types in the bytes read. `from` is their file offset.
    void hide_types(uint32_t from, std::span<uint8_t> bytes) const;

    static uint32_t seek_n_read(void* context, void* data, uint32_t* count, int32_t offset);
    static uint32_t index_read(void* context, void* data, uint32_t offset, uint32_t count,
                               uint32_t* got);

    Host host_;
    KST_IOSTREAM_CALLBACK_INTERFACE file_{};  // the host's own table
    std::vector<uint64_t> hidden_;            // offsets of box types, in file order
};

}  // namespace tool

#endif
