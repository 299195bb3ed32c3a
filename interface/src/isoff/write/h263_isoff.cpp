// SPDX-License-Identifier: Apache-2.0
#include "interface/src/isoff/write/writer.h"
#include "kestrel/codec.h"

// H.263 tracks for the writer (3GPP TS 26.244, 6.6).

using namespace kestrel;

iso_track* h263_isoFFtrack(iso_file* file, H263VCFG* cfg) {
    constexpr uint32_t kEntryBytes = 121;  // s263 (86), d263 (15), vmhd (20)
    if (cfg == nullptr) return nullptr;
    iso_track* track = new_visual_track(file, ISO_CODEC_S263, cfg->timescale, cfg->width,
                                        cfg->height, kEntryBytes);
    if (track == nullptr) return nullptr;
    std::memcpy(track->vendor, "VXYZ", sizeof track->vendor);
    track->level = static_cast<uint8_t>(cfg->level);
    track->profile = static_cast<uint8_t>(cfg->profile);
    return track;
}
