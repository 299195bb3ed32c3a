// SPDX-License-Identifier: Apache-2.0
#include "tools/track_choice.h"

#include <algorithm>
#include <array>

#include "tools/judge/facts.h"

namespace tool {
namespace {

constexpr auto kPatience = std::chrono::seconds(10);
constexpr uint32_t kTypeAt = 4;  // in a box
constexpr std::array<uint8_t, 4> kFree = {'f', 'r', 'e', 'e'};

// Whether a track is of a medium. For a track that the reader does not have, the importer decides.
bool is_medium(const FileFacts& facts, uint32_t id, MediaKind kind) {
    for (const iso_track* track = facts.file->first_track; track != nullptr; track = track->next)
        if (facts.id_of(track) == id) return is_of(track, kind);
    return std::any_of(
        facts.imported.tracks.begin(), facts.imported.tracks.end(),
        [&](const ImportedTrack& track) { return track.id == id && track.is_of(kind); });
}

bool is_of_any(const iso_track* track) {
    return is_of(track, MediaKind::kAudio) || is_of(track, MediaKind::kVideo);
}

}  // namespace

TrackChoice::TrackChoice(const std::string& path, uint32_t track_id, MediaKind kind)
    : host_(open_host(path)) {
    find_others(path, track_id, kind);
    cover_table();
}

void TrackChoice::find_others(const std::string& path, uint32_t track_id, MediaKind kind) {
    const FileFacts facts = gather_facts(host_.get(), Clock::now() + kPatience);
    if (!facts.scan.is_3gp()) throw no_media_file(path, facts.scan.file_size);
    if (!is_medium(facts, track_id, kind)) {
        throw file_error(path, "has no " + std::string(word(kind)) + " track " +
                                   std::to_string(track_id) + "; 'kestrel info' lists the tracks");
    }
    for (const TrackBoxes& track : facts.scan.tracks) {
        const bool is_other =
            track.id != track_id && (is_medium(facts, track.id, MediaKind::kAudio) ||
                                     is_medium(facts, track.id, MediaKind::kVideo));
        if (is_other) hidden_.push_back(track.offset + kTypeAt);
    }
    // The scan of boxes stops early in a file of very many, where the reader would play another
    // track.
    size_t others = 0;
    for (const iso_track* track = facts.file->first_track; track != nullptr; track = track->next)
        others += is_of_any(track) && facts.id_of(track) != track_id ? 1 : 0;
    if (others > hidden_.size())
        throw file_error(path, "has too many tracks or boxes to play a track by its ID");
    std::sort(hidden_.begin(), hidden_.end());
    kst_host_rewind(host_.get());
}

void TrackChoice::cover_table() {
    KST_IOSTREAM_CALLBACK_INTERFACE& table = *kst_host_callbacks(host_.get());
    file_ = table;
    table.Context = this;
    table.GetOffset = [](void* context, uint32_t* offset) {
        return of(context).file_.GetOffset(of(context).file_.Context, offset);
    };
    table.Seek = [](void* context, uint32_t offset) {
        return of(context).file_.Seek(of(context).file_.Context, offset);
    };
    table.SeekNRead = seek_n_read;
    table.SeekNWrite = [](void* context, const void* data, uint32_t count, int32_t offset) {
        return of(context).file_.SeekNWrite(of(context).file_.Context, data, count, offset);
    };
    table.GetStreamSize = [](void* context, uint32_t* size) {
        return of(context).file_.GetStreamSize(of(context).file_.Context, size);
    };
    table.IsEOF = [](void* context) { return of(context).file_.IsEOF(of(context).file_.Context); };
    table.IndexRead = index_read;
    table.AdvanceRead = [](void* context, uint32_t offset) {
        return of(context).file_.AdvanceRead(of(context).file_.Context, offset);
    };
    table.CheckStatus = [](void* context, uint32_t* result, uint32_t status) {
        return of(context).file_.CheckStatus(of(context).file_.Context, result, status);
    };
}

void TrackChoice::hide_types(uint32_t from, std::span<uint8_t> bytes) const {
    const uint64_t end = uint64_t{from} + bytes.size();
    const uint64_t first = from - std::min<uint64_t>(from, kFree.size() - 1);
    for (auto type = std::lower_bound(hidden_.begin(), hidden_.end(), first);
         type != hidden_.end() && *type < end; ++type) {
        for (size_t i = 0; i < kFree.size(); ++i) {
            const uint64_t at = *type + i;
            if (at >= from && at < end) bytes[static_cast<size_t>(at - from)] = kFree[i];
        }
    }
}

uint32_t TrackChoice::seek_n_read(void* context, void* data, uint32_t* count, int32_t offset) {
    const TrackChoice& self = of(context);
    const auto& file = self.file_;
    const uint32_t status = file.SeekNRead(file.Context, data, count, offset);
    uint32_t end = 0;
    file.GetOffset(file.Context, &end);
    if (status == KST_HOST_OK) {
        self.hide_types(end - *count, std::span(static_cast<uint8_t*>(data), *count));
    }
    return status;
}

uint32_t TrackChoice::index_read(void* context, void* data, uint32_t offset, uint32_t count,
                                 uint32_t* got) {
    const TrackChoice& self = of(context);
    const uint32_t status = self.file_.IndexRead(self.file_.Context, data, offset, count, got);
    if (status == KST_HOST_OK) {
        self.hide_types(offset, std::span(static_cast<uint8_t*>(data), *got));
    }
    return status;
}

}  // namespace tool
