// SPDX-License-Identifier: Apache-2.0
#include <climits>

#include "interface/src/isoff/write/writer.h"
#include "kestrel/codec.h"
#include "native/codec/mpeg4_visual.h"

// Tracks for the writer whose sample entries hold a configuration record: H.264 (ISO/IEC 14496-15)
// and MPEG-4 Visual (ISO/IEC 14496-14).

using namespace kestrel;

namespace {

struct PictureFormat {
    uint32_t width, height;  // pixels
    uint32_t timescale;
};

// Adds a track with a configuration; null on failure. `entry_bytes` is the size of the sample entry
// without the configuration.
iso_track* configured_track(iso_file* file, int32_t codec, const void* config, unsigned length,
                            const PictureFormat& picture, uint32_t entry_bytes) {
    if (config == nullptr || length < 1 || length > INT_MAX) return nullptr;
    if (picture.timescale == 0 || picture.width == 0 || picture.height == 0) return nullptr;
    TrackAttempt attempt(file);
    iso_track* track = new_visual_track(file, codec, picture.timescale, picture.width,
                                        picture.height, entry_bytes + length);
    if (track == nullptr) return nullptr;
    const int kept = isoFFsetDecoderSpecificInfo(track, config, static_cast<int>(length));
    return kept == 0 ? attempt.keep(track) : nullptr;
}

}  // namespace

iso_track* h264_isoFFtrack(iso_file* file, const void* avcc, unsigned length, unsigned width,
                           unsigned height, unsigned timescale) {
    constexpr uint32_t kEntryBytes = 114;  // avc1 (86), header of avcC (8), vmhd (20)
    return configured_track(file, ISO_CODEC_AVC1, avcc, length, {width, height, timescale},
                            kEntryBytes);
}

iso_track* mpeg4_isoFFtrack(iso_file* file, const void* config, unsigned length, unsigned width,
                            unsigned height, unsigned timescale) {
    constexpr uint32_t kEntryBytes = 155;  // mp4v (86), esds (49), vmhd (20)
    constexpr uint8_t kVisualStream = 4;   // stream type (14496-1, table 9)
    iso_track* track = configured_track(file, ISO_CODEC_MP4V, config, length,
                                        {width, height, timescale}, kEntryBytes);
    if (track == nullptr) return nullptr;
    track->object_type = kMpeg4Visual;
    track->stream_type = kVisualStream;
    return track;
}
