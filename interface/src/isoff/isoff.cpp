// SPDX-License-Identifier: Apache-2.0
#include <cstdlib>
#include <ctime>

#include "common/movie_defaults.h"
#include "interface/src/isoff/quiet.h"
#include "interface/src/isoff/read/box_walk.h"
#include "interface/src/isoff/write/writer.h"

// Opening and closing a file.

using namespace kestrel;

namespace {

constexpr uint32_t kUnknownProfile = 255;
constexpr uint32_t kMovieHeaderEstimate = 194;  // bytes of `moov` without tracks
// Added to a time since 1970 for a time since 1904. The value is prescribed. It is one day less
// than kSecondsFrom1904To1970, so the dates written are a day early.
constexpr uint32_t kSecondsFrom1904 = 2082758400;
constexpr int32_t kWriterMinorVersion = 256;
constexpr uint32_t kWriterSizeLimit = 0x7FFFFFFF;
constexpr double kInterleaveLimit = 7158278.0;
constexpr double kInterleaveSpan = 1.0;
constexpr const char* kWriterMajorBrand = "3gp6";
constexpr const char* kWriterCompatibleBrands = "3gp5 3gp4";

void report(int* error, int code) {
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

// Returns false without memory for the brand list.
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
    systemfree(file->own->large_sample.bytes);
    systemfree(file->own->large_staging.bytes);
    safefree(file->first_chunk);
    std::free(file->own);
    std::free(file);
}

}  // namespace

iso_file* kestrel::open_quietly(_TAG_KST_IOSTREAM_CALLBACK_INTERFACE*& stream) {
    iso_file* file = new_record(stream);
    if (file == nullptr) return nullptr;
    file->own->remarks = kMaxRemarks + 1;
    read_header(file);
    return file;
}

iso_file* isoFFopen(_TAG_KST_IOSTREAM_CALLBACK_INTERFACE*& stream, const char* mode, int* error) {
    const char first = mode == nullptr ? '\0' : mode[0];
    if (first != 'r' && first != 'w') {
        report(error, -1);
        return nullptr;
    }
    iso_file* file = new_record(stream);
    if (file == nullptr) {
        report(error, -2);
        return nullptr;
    }
    read_header(file);
    if (first == 'r') return file;
    // The walk read what the output held before; a new file starts with a new record.
    release(file);
    file = new_record(stream);
    if (file == nullptr || !begin_writing(file)) {
        if (file != nullptr) release(file);
        report(error, -2);
        return nullptr;
    }
    file->own->direct_write = mode[1] == 'd' ? 1 : 0;
    return file;
}

int isoFFclose(iso_file* file) {
    if (file == nullptr) return -1;
    const int result = file->write_mode ? finalise(file) : 0;
    release(file);
    return result;
}
