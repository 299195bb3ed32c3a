// SPDX-License-Identifier: Apache-2.0
// What a track that is copied from another file brings along.
#ifndef KESTREL_ISOFF_COPIED_BOXES_H
#define KESTREL_ISOFF_COPIED_BOXES_H

#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

namespace kestrel {

// Tracks that a track refers to, for one purpose (ISO/IEC 14496-12, 8.3.3).
struct CopiedReference {
    uint32_t type;  // a four-character code
    std::vector<uint32_t> track_ids;
};

// A name of the handler, and whole boxes, each written as it is where it is not empty, in place of
// what the track's fields declare.
struct CopiedBoxes {
    std::string_view name;
    std::vector<std::span<const uint8_t>> sample_entries;  // their data reference becomes the first
    std::span<const uint8_t> media_header;
    std::vector<std::span<const uint8_t>> groups;  // `sgpd` and `sbgp`
    std::vector<CopiedReference> references;
};

}  // namespace kestrel

#endif
