#include "interface/src/isoff/isoff.h"

#include <cstdlib>
#include <ctime>

// File records: opening, closing, and finding tracks and brands.

using namespace kestrel;

namespace {

constexpr uint32_t kUnknownProfile = 255;
constexpr uint32_t kMovieTimescale = 600;
constexpr uint32_t kMovieHeaderEstimate = 194;  // bytes of `moov` without tracks
constexpr uint32_t kTrackHeaderEstimate = 325;  // bytes that each track adds
constexpr uint32_t kSecondsFrom1904 = 2082758400;
constexpr int32_t kWriterMinorVersion = 256;
constexpr uint32_t kWriterSizeLimit = 0x7FFFFFFF;
constexpr double kInterleaveLimit = 7158278.0;
constexpr double kInterleaveSpan = 1.0;
constexpr const char* kWriterMajorBrand = "3gp6";
constexpr const char* kWriterCompatibleBrands = "3gp5 3gp4";
constexpr uint16_t kUndetermined = 0x55C4;         // "und" as a language (ISO 639-2/T)
constexpr uint32_t kUnity = 0x00010000;            // 16.16
constexpr uint32_t kUnityProjection = 0x40000000;  // 2.30
constexpr uint32_t kEnabledInMovieAndPreview = 7;  // flags of `tkhd`

void tell(int* error, int code) {
    if (error != nullptr) *error = code;
}

iso_file* new_record(_TAG_KST_IOSTREAM_CALLBACK_INTERFACE* stream) {
    auto* file = static_cast<iso_file*>(std::calloc(1, sizeof(iso_file)));
    auto* own = static_cast<iso_file_private*>(std::calloc(1, sizeof(iso_file_private)));
    if (file == nullptr || own == nullptr) {
        std::free(file);
        std::free(own);
        return nullptr;
    }
    file->own = own;
    file->stream = stream;
    file->magic = iso_file_magic;
    file->od_id = 1;
    file->od_profile = file->scene_profile = file->visual_profile = kUnknownProfile;
    file->graphics_profile = file->audio_profile = kUnknownProfile;
    file->timescale = kMovieTimescale;
    file->next_track_id = 1;
    file->minor_version = -1;
    file->header_size = kMovieHeaderEstimate;
    file->size_limit = kWriterSizeLimit;
    file->interleave_limit = kInterleaveLimit;
    file->interleave_span = kInterleaveSpan;
    return file;
}

// False when there is no memory for the brand list.
bool begin_writing(iso_file* file) {
    file->write_mode = 1;
    file->minor_version = kWriterMinorVersion;
    file->creation_time = static_cast<uint32_t>(std::time(nullptr)) + kSecondsFrom1904;
    file->modification_time = file->creation_time;
    std::memcpy(file->major_brand, kWriterMajorBrand, sizeof file->major_brand);
    const size_t length = std::strlen(kWriterCompatibleBrands) + 1;
    file->compatible_brands = arena_array<char>(file, length);
    if (file->compatible_brands == nullptr) return false;
    std::memcpy(file->compatible_brands, kWriterCompatibleBrands, length);
    return true;
}

void release(iso_file* file) {
    for (iso_track* track = file->first_track; track != nullptr; track = track->next) {
        if (track->own->hint_from_system) systemfree(track->hint);
        if (track->own->spool != nullptr) std::fclose(track->own->spool);
    }
    systemfree(file->mdat_buffer);
    safefree(file->first_chunk);
    std::free(file->own);
    std::free(file);
}

void set_unity(uint32_t (&matrix)[9]) {
    matrix[0] = matrix[4] = kUnity;
    matrix[8] = kUnityProjection;
}

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

iso_file* isoFFopen(_TAG_KST_IOSTREAM_CALLBACK_INTERFACE*& stream, const char* mode, int* error) {
    const char first = mode == nullptr ? '\0' : mode[0];
    if (first != 'r' && first != 'w') {
        tell(error, -1);
        return nullptr;
    }
    iso_file* file = new_record(stream);
    if (file == nullptr) {
        tell(error, -2);
        return nullptr;
    }
    read_header(file);
    if (first == 'r') return file;
    // The walk has run over whatever the output holds; a file that is written starts afresh.
    release(file);
    file = new_record(stream);
    if (file == nullptr || !begin_writing(file)) {
        if (file != nullptr) release(file);
        tell(error, -2);
        return nullptr;
    }
    return file;
}

int isoFFclose(iso_file* file) {
    if (file == nullptr) return -1;
    const int result = file->write_mode ? finalise(file) : 0;
    release(file);
    return result;
}

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
        set_unity(track->matrix);
        track->own->header_flags = kEnabledInMovieAndPreview;
        track->own->language = kUndetermined;
        track->own->duration_limit = UINT32_MAX;
        file->header_size += kTrackHeaderEstimate;
    }
    return track;
}

iso_file_details* isoFFfileDetails(const iso_file* file) {
    return file == nullptr ? nullptr : file->own;
}

iso_track_details* isoFFtrackDetails(const iso_track* track) {
    return track == nullptr ? nullptr : track->own;
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
