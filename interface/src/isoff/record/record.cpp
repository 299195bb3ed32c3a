// SPDX-License-Identifier: Apache-2.0
#include <algorithm>

#include "common/movie_defaults.h"
#include "interface/src/isoff/record/record.h"

// Making tracks, and finding tracks and brands.

using namespace kestrel;

namespace {

constexpr uint32_t kTrackHeaderEstimate = 325;     // bytes that each track adds
constexpr uint32_t kEnabledInMovieAndPreview = 7;  // flags of `tkhd`

bool has_brand(const iso_file* file, const char* code) {
    if (std::strncmp(file->major_brand, code, 4) == 0) return true;
    const char* list = file->compatible_brands;
    while (list != nullptr && strnlen(list, 4) == 4) {
        if (std::strncmp(list, code, 4) == 0) return true;
        list += list[4] == '\0' ? 4 : 5;
    }
    return false;
}

}  // namespace

iso_track* isoFFtrack(iso_file* file) {
    if (file == nullptr) return nullptr;
    auto* track = arena_array<iso_track>(file, 1);
    auto* own = arena_array<iso_track_private>(file, 1);
    if (track == nullptr || own == nullptr) return nullptr;
    track->own = own;
    track->magic = iso_track_magic;
    track->file = file;
    track->flags = iso_track_prepends_dsi;
    (file->own->last_track == nullptr ? file->first_track : file->own->last_track->next) = track;
    file->own->last_track = track;
    if (file->write_mode) {
        track->track_id = file->next_track_id++;
        track->creation_time = file->creation_time;
        track->modification_time = file->modification_time;
        std::copy(kUnityMatrix.begin(), kUnityMatrix.end(), track->matrix);
        track->own->header_flags = kEnabledInMovieAndPreview;
        track->own->language = kUndeterminedLanguage;
        track->own->duration_limit = UINT32_MAX;
        file->header_size += kTrackHeaderEstimate;
    }
    return track;
}

iso_track* isoFFselect(iso_file* file, const char* handler, int n) {
    if (file == nullptr || file->write_mode || n < 1) return nullptr;
    for (iso_track* track = file->first_track; track != nullptr; track = track->next) {
        const bool wanted = handler == nullptr || std::strcmp(track->handler, handler) == 0;
        if (wanted && --n == 0) return track;
    }
    return nullptr;
}

int isoFFcompatible(iso_file* file, const char* brands) {
    if (file == nullptr || brands == nullptr) return -1;
    while (strnlen(brands, 4) == 4) {
        if (has_brand(file, brands)) return 0;
        brands += brands[4] == ' ' ? 5 : 4;
    }
    return -1;
}
