// SPDX-License-Identifier: Apache-2.0
// The boxes of a file by their headers alone, and their faults: all that is known of a file that no
// reader accepts.
#ifndef KESTREL_COMPANION_PROBE_FILE_SCAN_H
#define KESTREL_COMPANION_PROBE_FILE_SCAN_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kestrel/stream.h"

namespace kestrel::probe {

struct TopBox {
    std::string type;  // with other bytes than ASCII as \xNN
    uint64_t offset = 0;
    uint64_t size = 0;    // as the header declares
    bool cut = false;     // ends after the end of the file
    bool broken = false;  // no header of a box: what is left of the file
};

// Boxes of a track that decide which reader accepts it.
struct TrackBoxes {
    uint32_t id = 0;
    uint64_t offset = 0;                // of the box `trak`
    std::vector<std::string> tables;    // children of `stbl`, as in TopBox
    std::vector<std::string> entries;   // sample entries, the first few
    std::vector<std::string> version1;  // of `tkhd` and `mdhd`, those with 64-bit times
    bool is_rewritten = false;          // an entry has a type that the importer replaces
    bool is_encrypted = false;          // an entry has a type of protected ones, or a `sinf`

    bool has_table(std::string_view type) const;
    bool has_second_table(std::string_view type) const;
    bool has_wide_times() const;  // `mdhd` of version 1
};

struct FileScan {
    uint32_t file_size = 0;
    std::vector<TopBox> boxes;        // of the top level, at most kMaxTopBoxes
    uint32_t more_boxes = 0;          // how many more there are
    std::optional<TopBox> cut_box;    // the one that the file ends in
    std::vector<std::string> damage;  // a sentence each, at most kMaxDamage
    uint32_t more_damage = 0;         // how many more there are
    std::vector<TrackBoxes> tracks;   // of movie boxes, in file order, at most kMaxScannedTracks
    uint64_t movie_bytes = 0;         // of movie and fragment boxes
    uint32_t fragments = 0;           // `moof` boxes
    bool has_file_type = false;
    bool announces_fragments = false;  // `mvex`, `sidx` or `mfra`
    bool has_movie = false;
    bool movie_is_cut = false;  // a movie box ends early, or a box in it declares more than is left
    bool has_large_sizes = false;  // a box declares its size with 64 bits
    bool has_open_sizes = false;   // a box of the top level runs to the end of the file

    bool is_3gp() const { return has_file_type || has_movie; }
    // A 3GP file, or the first bytes of one.
    bool may_be_3gp() const;
    const TrackBoxes* track(uint32_t id) const;
};

// Walks the box headers. The stream table must have all of the file. Costs a read for each box, and
// at most kMaxBoxes of them.
FileScan scan_file(KST_IOSTREAM_CALLBACK_INTERFACE* stream);

inline constexpr size_t kMaxDamage = 20;
inline constexpr uint32_t kMaxBoxes = 50000;
inline constexpr size_t kMaxTopBoxes = 200;
inline constexpr size_t kMaxScannedTracks = 64;

}  // namespace kestrel::probe

#endif
