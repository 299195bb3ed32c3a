// SPDX-License-Identifier: Apache-2.0
#include "tools/judge/facts.h"

#include <array>
#include <cstring>
#include <fstream>
#include <type_traits>

#include "kestrel/native_records.h"
#include "native/stream/native_walk.h"
#include "native/stream/plausible.h"
#include "tools/messages.h"

namespace tool {
namespace {

static_assert(std::has_unique_object_representations_v<ImportedTrack>);

// What a process passes on ahead of the tracks and the texts.
struct ImportedHead {
    uint64_t tracks, duration, timescale, lacks_fragments, missing, is_refused;
};

std::string bytes_of(const ImportedMovie& movie) {
    const ImportedHead head{movie.tracks.size(),  movie.duration,
                            movie.timescale,      movie.lacks_fragments ? 1u : 0u,
                            movie.missing.size(), movie.is_refused ? 1u : 0u};
    std::string bytes(reinterpret_cast<const char*>(&head), sizeof head);
    bytes.append(reinterpret_cast<const char*>(movie.tracks.data()),
                 movie.tracks.size() * sizeof(ImportedTrack));
    return bytes + movie.missing + movie.remark;
}

ImportedMovie movie_of(const std::string& bytes) {
    ImportedMovie movie;
    ImportedHead head{};
    if (bytes.size() < sizeof head) return movie;
    std::memcpy(&head, bytes.data(), sizeof head);
    const size_t size = static_cast<size_t>(head.tracks) * sizeof(ImportedTrack);
    if (bytes.size() - sizeof head < size) return movie;
    movie.tracks.resize(static_cast<size_t>(head.tracks));
    if (size > 0) std::memcpy(movie.tracks.data(), bytes.data() + sizeof head, size);
    movie.duration = head.duration;
    movie.timescale = static_cast<uint32_t>(head.timescale);
    movie.lacks_fragments = head.lacks_fragments != 0;
    movie.is_refused = head.is_refused != 0;
    const std::string texts = bytes.substr(sizeof head + size);
    movie.missing = texts.substr(0, static_cast<size_t>(head.missing));
    movie.remark = texts.substr(movie.missing.size());
    return movie;
}

// In a process of its own, as the tables may take time and memory.
ImportedMovie import_apart(KST_IOSTREAM_CALLBACK_INTERFACE& stream, const ChildLimits& limits) {
    return movie_of(run_apart(limits, [&] { return bytes_of(import_tracks(stream)); }).report);
}

// Whether a file begins with the first record of a native stream.
bool is_native_stream(const std::string& path) {
    std::array<uint8_t, sizeof(kestrel::PROP_Header_Info)> begin{};
    std::ifstream file(path, std::ios::binary);
    if (path == "-" || !file.read(reinterpret_cast<char*>(begin.data()), begin.size()))
        return false;
    kestrel::stream::RecordSink ignore;
    kestrel::stream::NativeWalk walk(ignore);
    try {
        walk.feed(begin);
        return true;
    } catch (const kestrel::stream::Damage&) {
        return false;
    }
}

}  // namespace

Error no_media_file(const std::string& input, uint64_t size) {
    if (size == 0) return file_error(input, "not an ISO media file: it is empty");
    return file_error(
        input, std::string("not an ISO media file: it has neither a file type nor a movie "
                           "box") +
                   (is_native_stream(input) ? "; 'kestrel inspect' shows native streams" : ""));
}

uint64_t empty_samples(const FileFacts& facts, const iso_track* track) {
    if (!is_of(track, MediaKind::kVideo) && !kestrel::stream::is_speech(track->codec)) return 0;
    const Expected expected = expected_of(track, facts.imported_track(track));
    return expected.samples - expected.pictures;
}

std::string empty_samples_text(const FileFacts& facts, const iso_track* track) {
    const uint64_t all = expected_of(track, facts.imported_track(track)).samples;
    return kestrel::stream::empty_text(empty_samples(facts, track), all, "sample",
                                       kestrel::stream::is_speech(track->codec));
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
    refuse_failed(host);
    facts.host = host;
    facts.remarks = std::move(remarks);
    return facts;
}

static ImportedMovie imported(const FileFacts& facts, Clock::time_point deadline) {
    if (!facts.imported.tracks.empty() || facts.imported.is_refused) return facts.imported;
    return import_apart(*facts.stream, {deadline, memory_limit(facts.scan)});
}

std::string import_remark(const FileFacts& facts, Clock::time_point deadline) {
    return imported(facts, deadline).remark;
}

std::string import_refusal(const FileFacts& facts, Clock::time_point deadline) {
    ImportedMovie movie = imported(facts, deadline);
    return movie.is_refused ? std::move(movie.remark) : "";
}

}  // namespace tool
