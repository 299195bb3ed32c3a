// SPDX-License-Identifier: Apache-2.0
// The facts of the boxes and tables of a file, read once for all that is judged and printed.
#ifndef KESTREL_COMPANION_PROBE_FILE_FACTS_H
#define KESTREL_COMPANION_PROBE_FILE_FACTS_H

#include <functional>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "companion/probe/file_scan.h"
#include "companion/probe/media_tracks.h"
#include "kestrel/hosts.h"
#include "kestrel/isoff.h"

namespace kestrel::probe {

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
    uint64_t missing = 0;       // more samples that the file declares and does not have
    uint64_t duration = 0;      // of `timescale` units a second
    uint64_t timescale = 0;
    uint64_t width = 0, height = 0;  // pixels of video
    uint64_t sync_samples = 0;       // 0 if all are
    uint64_t language = 0;           // packed

    static constexpr uint32_t kNoMedium = ~0u;
    bool is_of(MediaKind wanted) const { return kind == static_cast<uint32_t>(wanted); }
};

// What the importer finds in a file. Empty where it cannot be found.
struct ImportedMovie {
    std::vector<ImportedTrack> tracks;
    uint64_t duration = 0;  // of `timescale` units a second
    uint32_t timescale = 0;
    bool lacks_fragments = false;  // any track may lack samples
    std::string missing;      // what the file lacks, one sentence without a full stop, or empty
    std::string remark;       // what may show a loss, but need not, or empty
    bool is_refused = false;  // the file is damaged: `remark` has the place, and nothing is known
};

struct FileCloser {
    void operator()(iso_file* file) const { isoFFclose(file); }
};
using IsoFile = std::unique_ptr<iso_file, FileCloser>;

struct FileFacts {
    kst_host* host = nullptr;                           // complete; null where it is not known
    KST_IOSTREAM_CALLBACK_INTERFACE* stream = nullptr;  // complete
    IsoFile file;                                       // as the library's reader has it
    FileScan scan;                                      // by the headers of boxes alone
    std::vector<std::string> remarks;                   // lines that the reader wrote
    // Of a file in a form that the reader does not have whole: movie fragments or what announces
    // them, large or open boxes, other tables. Empty for any other file.
    ImportedMovie imported;
    // The place in imported.tracks of each track of `file` that was imported.
    std::unordered_map<const iso_track*, size_t> import_numbers;

    // The same track; null where it was not imported. The reader may have another ID for it.
    const ImportedTrack* imported_track(const iso_track* track) const;
    // The ID in the track's header.
    uint32_t id_of(const iso_track* track) const;
};

// All tracks with all their samples, in whatever form; as far as they can be found. Takes time and
// memory in proportion to the samples.
ImportedMovie import_tracks(KST_IOSTREAM_CALLBACK_INTERFACE& stream);

// The facts of a file that the reader has opened. `import` is import_tracks(), or calls it; it is
// called for a file in an odd form only. The stream must outlive the facts.
using Importing = std::function<ImportedMovie(KST_IOSTREAM_CALLBACK_INTERFACE&, const FileScan&)>;
FileFacts gather_facts(KST_IOSTREAM_CALLBACK_INTERFACE* stream, IsoFile file,
                       const Importing& import);

// At least how many tracks cannot be read, or have no handler left.
uint64_t lost_tracks(const FileFacts& facts);

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

// A duration of `units`, `timescale` of them a second.
struct Duration {
    uint64_t units = 0;
    uint32_t timescale = 0;

    double seconds() const { return timescale == 0 ? 0.0 : static_cast<double>(units) / timescale; }
};

// Those that the movie and a track have in all, samples of movie fragments included.
Duration duration_of(const FileFacts& facts);
Duration duration_of(const FileFacts& facts, const iso_track* track);

// Samples of the file that the library's reader does not have.
uint64_t samples_not_read(const FileFacts& facts, const iso_track* track);
// The tracks that it does not have.
std::vector<const ImportedTrack*> unread_tracks(const FileFacts& facts);

}  // namespace kestrel::probe

#endif
