// SPDX-License-Identifier: Apache-2.0
// The tracks of a file by medium and codec, and which of them an API plays.
#ifndef KESTREL_COMPANION_PROBE_MEDIA_TRACKS_H
#define KESTREL_COMPANION_PROBE_MEDIA_TRACKS_H

#include <array>
#include <cstdint>

#include "interface/src/isoff/record/private.h"

namespace kestrel::probe {

// The two APIs of the library.
enum class Api { kFunction, kClass };

enum class MediaKind { kAudio, kVideo };

inline constexpr std::array kApis = {Api::kFunction, Api::kClass};
inline constexpr std::array kMedia = {MediaKind::kAudio, MediaKind::kVideo};

using kestrel::is_hint;

// "function", "class"; "audio", "video".
const char* word(Api api);
const char* word(MediaKind kind);

// Sets the medium of a track that is no hint track, by its codec, else by its handler. Returns
// false for any other track.
bool is_of(const iso_track* track, MediaKind kind);
bool has_medium(const iso_file* file, MediaKind kind);

bool plays_codec(Api api, int32_t codec);

// Of a sample entry: "AMR-NB" for ISO_CODEC_SAMR and so on; "unknown".
const char* codec_name(int32_t codec);
// Of a track: that of the object type of a sample entry `mp4a`, where it is not AAC.
const char* codec_name(const iso_track* track);

// Whether the reader could read the decoder configuration, without which the function API takes no
// H.264 track.
bool has_configuration(const iso_track* track);

// Returns the track that the API plays, else the first one of the medium; null for none.
const iso_track* track_for(const iso_file* file, Api api, MediaKind kind);

const iso_track* hint_track_of(const iso_file* file, const iso_track* media);
// The hint track that the function API takes the packets of a video from; null when it cuts the
// samples itself.
const iso_track* packets_of(const iso_file* file, const iso_track* video);
bool has_hints(const iso_file* file);

// Whether the hint track of `media`, or one that refers to no other track, has packets with bytes
// of its own samples. Reads its first samples.
bool is_self_hinted(const iso_file* file, const iso_track* media);

uint32_t sample_size_of(const iso_track* track, uint32_t sample);

// The samples that a track's tables declare, also those that the reader could not place.
struct Declared {
    uint64_t samples = 0;
    uint64_t filled = 0;  // of them, those that are not empty
    uint64_t bytes = 0;
    uint32_t largest = 0;  // bytes
};
Declared declared(const iso_track* track);

// The samples that a track's chunks hold besides those that have a size; 0 for a track that has no
// sizes. Those of the last chunk count where the times (stts) have them too: many files declare it
// too long.
uint64_t samples_without_size(const iso_track* track);

// The samples that a track's tables place after the end of a file of `size` bytes.
struct Outside {
    uint32_t chunks = 0;
    uint64_t bytes = 0;
};
Outside outside_file(const iso_track* track, uint32_t size);

}  // namespace kestrel::probe

#endif
