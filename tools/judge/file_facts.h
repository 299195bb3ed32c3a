// SPDX-License-Identifier: Apache-2.0
// What the boxes and tables of a file say, read once for all that is judged and shown of it.
#ifndef KESTREL_TOOLS_JUDGE_FILE_FACTS_H
#define KESTREL_TOOLS_JUDGE_FILE_FACTS_H

#include <string>
#include <vector>

#include "tools/judge/child_process.h"
#include "tools/judge/file_scan.h"
#include "tools/judge/media_tracks.h"
#include "tools/support.h"

namespace tool {

// A track with all samples that the file has for it, in whatever form. Plain numbers.
struct ImportedTrack {
    uint32_t id = 0;
    int32_t codec = ISO_CODEC_NONE;
    uint32_t entry = 0;  // type of its sample entry
    uint32_t kind = 0;   // a MediaKind, or kNoMedium
    uint64_t is_encrypted = 0;
    uint64_t samples = 0;
    uint64_t filled = 0;  // of them, those that are not empty
    uint64_t bytes = 0;   // of all samples
    uint64_t largest = 0;
    uint64_t in_fragments = 0;  // samples that are in movie fragments

    static constexpr uint32_t kNoMedium = ~0u;
    bool is_of(MediaKind wanted) const { return kind == static_cast<uint32_t>(wanted); }
};

struct FileFacts {
    kst_host* host = nullptr;          // complete
    IsoFile file;                      // as the library's reader has it
    FileScan scan;                     // by the headers of boxes alone
    std::vector<std::string> remarks;  // lines that the reader wrote
    // Of a file in a form that the reader does not have whole: movie fragments, large or open
    // boxes, other tables. Empty for any other file, and where they cannot be found.
    std::vector<ImportedTrack> imported;

    const ImportedTrack* imported_track(uint32_t id) const;
};

// Reads them until `deadline`; the host must outlive the facts. What the library writes to standard
// error meanwhile is in the remarks.
FileFacts gather_facts(kst_host* host, Clock::time_point deadline);

// The error for a file that is none of this kind.
Error no_media_file(const std::string& input);

// The memory that reading and playing may take: a handle holds a multiple of the boxes that it
// reads.
uint64_t memory_limit(const FileScan& scan);

// Whether tracks may be missing: the movie box is cut, or has tracks that cannot be read.
bool may_lack_tracks(const FileFacts& facts);

// What of a medium's track should come out of an API that plays it.
struct Expected {
    uint64_t samples = 0;
    uint64_t pictures = 0;  // of them, those that are not empty
    uint64_t bytes = 0;     // of all samples
    uint64_t largest = 0;   // bytes of a sample
    // Samples of movie fragments that the tables of the movie box do not have.
    uint64_t in_fragments = 0;
};
Expected expected_of(const iso_track* track, const ImportedTrack* imported);

bool has_medium(const FileFacts& facts, MediaKind kind);

}  // namespace tool

#endif
