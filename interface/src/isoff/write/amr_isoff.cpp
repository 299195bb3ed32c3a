// SPDX-License-Identifier: Apache-2.0
#include "common/movie_defaults.h"
#include "interface/src/isoff/write/writer.h"
#include "kestrel/codec.h"
#include "native/codec/amr_format.h"

// AMR tracks for the writer (3GPP TS 26.244, 6.5).

using namespace kestrel;

iso_track* amr_isoFFtrack(iso_file* file, int wide_band, unsigned mode_set,
                          unsigned frames_per_sample) {
    constexpr uint32_t kEntryBytes = 69;  // sample entry (36), damr (17), smhd (16)
    constexpr unsigned kMaxFrames = 15;
    if (mode_set > UINT16_MAX || frames_per_sample < 1 || frames_per_sample > kMaxFrames) {
        return nullptr;
    }
    iso_track* track =
        wide_band ? new_media_track(file, ISO_CODEC_SAWB, kWideBand.sampling_rate, kEntryBytes)
                  : new_media_track(file, ISO_CODEC_SAMR, kNarrowBand.sampling_rate, kEntryBytes);
    if (track == nullptr) return nullptr;
    std::memcpy(track->handler, "soun", sizeof track->handler);
    std::memcpy(track->vendor, "VXYZ", sizeof track->vendor);
    track->volume = kFullVolume;
    track->mode_set = static_cast<uint16_t>(mode_set);
    track->frames_per_sample = static_cast<uint8_t>(frames_per_sample);
    return track;
}
