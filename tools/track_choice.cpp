// SPDX-License-Identifier: Apache-2.0
#include "tools/track_choice.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>

#include "tools/descriptor.h"
#include "tools/judge/facts.h"

namespace tool {
namespace {

constexpr auto kPatience = std::chrono::seconds(10);

// Whether a track is one of a medium; a track that the reader does not have is one by what the
// importer says.
bool is_medium(const FileFacts& facts, uint32_t id, MediaKind kind) {
    for (const iso_track* track = facts.file->first_track; track != nullptr; track = track->next)
        if (track->track_id == id) return is_of(track, kind);
    const ImportedTrack* imported = facts.imported_track(id);
    return imported != nullptr && imported->is_of(kind);
}

}  // namespace

TrackChoice::TrackChoice(const std::string& path, uint32_t track_id, MediaKind kind) {
    map(path);
    hide_others(path, track_id, kind);
}

TrackChoice::~TrackChoice() {
    host_.reset();
    if (!bytes_.empty()) munmap(bytes_.data(), bytes_.size());
}

void TrackChoice::map(const std::string& path) {
    const Host whole = open_host(path);  // refuses what cannot be served
    const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat about {};
    if (!file || fstat(file.get(), &about) != 0) throw system_error(path);
    const auto size = static_cast<size_t>(about.st_size);
    if (size == 0) throw no_media_file(path);
    void* start = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE, file.get(), 0);
    if (start == MAP_FAILED) throw system_error(path);
    bytes_ = {static_cast<uint8_t*>(start), size};
    host_.reset(kst_host_from_memory(start, size));
    if (host_ == nullptr) throw system_error(path);
}

void TrackChoice::hide_others(const std::string& path, uint32_t track_id, MediaKind kind) {
    constexpr size_t kTypeAt = 4;
    constexpr std::array<uint8_t, 4> kFree = {'f', 'r', 'e', 'e'};
    const FileFacts facts = gather_facts(host_.get(), Clock::now() + kPatience);
    if (!facts.scan.is_3gp()) throw no_media_file(path);
    if (!is_medium(facts, track_id, kind)) {
        throw file_error(path, "has no " + std::string(word(kind)) + " track " +
                                   std::to_string(track_id) + "; 'kestrel info' lists the tracks");
    }
    for (const TrackBoxes& track : facts.scan.tracks) {
        const bool is_other =
            track.id != track_id && (is_medium(facts, track.id, MediaKind::kAudio) ||
                                     is_medium(facts, track.id, MediaKind::kVideo));
        const auto type_at = static_cast<size_t>(track.offset) + kTypeAt;
        if (is_other) std::copy(kFree.begin(), kFree.end(), &bytes_[type_at]);
    }
    kst_host_rewind(host_.get());
}

}  // namespace tool
