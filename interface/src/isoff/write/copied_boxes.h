// SPDX-License-Identifier: Apache-2.0
// Boxes and facts of a track that is copied from another file.
#ifndef KESTREL_ISOFF_COPIED_BOXES_H
#define KESTREL_ISOFF_COPIED_BOXES_H

#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

namespace kestrel {

// The tracks that a track refers to for one purpose (ISO/IEC 14496-12, 8.3.3).
struct CopiedReference {
    uint32_t type;  // a four-character code
    std::vector<uint32_t> track_ids;
};

// Replace what the fields of a track declare: the handler's name, and whole boxes. Boxes are
// written as they are; empty ones replace nothing.
struct CopiedBoxes {
    std::string_view name;
    std::vector<std::span<const uint8_t>> sample_entries;  // their data reference becomes the first
    std::span<const uint8_t> media_header;
    std::vector<std::span<const uint8_t>> groups;  // `sgpd` and `sbgp`
    std::vector<CopiedReference> references;
};

}  // namespace kestrel

#endif
