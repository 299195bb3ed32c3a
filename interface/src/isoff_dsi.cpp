#include "interface/src/isoff.h"

// Decoder configuration of the sample entries.

namespace kestrel {
namespace {

// Vendor and decoder version begin every 3GPP configuration box (3GPP TS 26.244, clause 6).
iso_track* read_vendor(iso_file* file) {
    iso_track* track = file->current_track;
    if (track == nullptr) return nullptr;
    getID(file, track->vendor);
    track->decoder_version = getbyte(file);
    return track;
}

}  // namespace

int read_damr(iso_file* file, uint32_t) {
    iso_track* track = read_vendor(file);
    if (track == nullptr) return 0;
    track->mode_set = getint16(file);
    track->mode_change_period = getbyte(file);
    track->frames_per_sample = getbyte(file);
    return 0;
}

int read_dawp(iso_file* file, uint32_t) {
    read_vendor(file);
    return 0;
}

}  // namespace kestrel
