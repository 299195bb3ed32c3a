// SPDX-License-Identifier: Apache-2.0
#include "tools/judge/facts.h"

#include <cstring>
#include <type_traits>

#include "tools/messages.h"

namespace tool {
namespace {

static_assert(std::has_unique_object_representations_v<ImportedTrack>);

// In a separate process, because the tables may need much time and memory.
std::vector<ImportedTrack> import_apart(KST_IOSTREAM_CALLBACK_INTERFACE& stream,
                                        const ChildLimits& limits) {
    const ChildResult result = run_apart(limits, [&] {
        const std::vector<ImportedTrack> tracks = import_tracks(stream);
        return std::string(reinterpret_cast<const char*>(tracks.data()),
                           tracks.size() * sizeof(ImportedTrack));
    });
    std::vector<ImportedTrack> tracks(result.report.size() / sizeof(ImportedTrack));
    if (!tracks.empty())
        std::memcpy(tracks.data(), result.report.data(), tracks.size() * sizeof(ImportedTrack));
    return tracks;
}

}  // namespace

Error no_media_file(const std::string& input) {
    return file_error(input, "not an ISO media file: it has neither a file type nor a movie box");
}

uint64_t memory_limit(const FileScan& scan) {
    constexpr uint64_t kLeast = 256 << 20;
    constexpr uint64_t kForEachByte = 64;  // of movie and fragment boxes
    return kLeast + kForEachByte * scan.movie_bytes;
}

FileFacts gather_facts(kst_host* host, Clock::time_point deadline) {
    KST_IOSTREAM_CALLBACK_INTERFACE* callbacks = nullptr;
    ErrorCapture capture;
    kst_host_rewind(host);
    IsoFile file = open_iso(host, callbacks);
    std::vector<std::string> remarks = capture.lines();
    FileFacts facts =
        gather_facts(callbacks, std::move(file), [&](auto& stream, const FileScan& scan) {
            return import_apart(stream, {deadline, memory_limit(scan)});
        });
    facts.host = host;
    facts.remarks = std::move(remarks);
    return facts;
}

}  // namespace tool
