// What the boxes and tables of a file say, read once for all that is judged and shown of it.
#ifndef KESTREL_TOOLS_JUDGE_FILE_FACTS_H
#define KESTREL_TOOLS_JUDGE_FILE_FACTS_H

#include <optional>
#include <string>
#include <vector>

#include "tools/judge/file_scan.h"
#include "tools/judge/media_tracks.h"
#include "tools/support.h"

namespace tool {

struct FileFacts {
    kst_host* host = nullptr;          // complete
    IsoFile file;                      // as the library's reader has it
    FileScan scan;                     // by the headers of boxes alone
    std::vector<std::string> remarks;  // lines that the reader wrote
};

// Reads them; the host must outlive the facts. What the library writes to standard error meanwhile
// is in the remarks.
FileFacts gather_facts(kst_host* host);

// Whether tracks may be missing: the movie box is cut, or has tracks that cannot be read.
bool may_lack_tracks(const FileFacts& facts);

// What of a medium's track should come out of an API that plays it.
struct Expected {
    uint64_t samples = 0;
    uint64_t pictures = 0;  // of them, those that are not empty
    uint64_t bytes = 0;     // of all samples
    uint32_t largest = 0;   // bytes of a sample
    // Samples of movie fragments that the tables of the movie box do not have.
    uint64_t in_fragments = 0;
};
Expected expected_of(const FileFacts& facts, const iso_track* track);

bool has_medium(const FileFacts& facts, MediaKind kind);

}  // namespace tool

#endif
