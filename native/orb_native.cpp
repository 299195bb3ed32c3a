// SPDX-License-Identifier: Apache-2.0
#include "native/orb_native.h"

#include <algorithm>

#include "common/clock.h"
#include "kestrel/isoff.h"
#include "native/codec/amr_format.h"
#include "native/codec/payload_types.h"

// Setting up a packetiser, and the call of the chosen one.

using namespace kestrel;

namespace {

// What the init calls install for a codec. An accepted codec may have no packetiser.
struct CodecEntry {
    int32_t codec;
    uint32_t clock;  // Hz
    tel_packetiser* tel;
    orb_packetiser* orb;
};

constexpr CodecEntry kCodecs[] = {
    {ISO_CODEC_MP4V, kVideoClock, tel_video_packet, orb_video_packet},
    {ISO_CODEC_S263, kVideoClock, tel_video_packet, orb_video_packet},
    {ISO_CODEC_AVC1, kVideoClock, tel_rfc3984_packet, nullptr},
    {ISO_CODEC_MP4A, 0, nullptr, nullptr},
    {ISO_CODEC_SAMR, kNarrowBand.sampling_rate, tel_amr_packet, orb_amr_packet},
    {ISO_CODEC_SAWB, kWideBand.sampling_rate, tel_amr_packet, nullptr},
    {ISO_CODEC_SAWP, 0, nullptr, nullptr},
};

const CodecEntry* find_codec(int32_t codec) {
    for (const CodecEntry& entry : kCodecs) {
        if (entry.codec == codec) return &entry;
    }
    return nullptr;
}

template <typename Header>
void init_header(Header& hdr, int payload_type, int mode, int flags, uint32_t clock) {
    hdr = Header{};
    hdr.magic = native_magic;
    hdr.type = static_cast<uint32_t>(payload_type);
    hdr.mode = static_cast<uint32_t>(mode);
    hdr.flags = static_cast<uint32_t>(flags);
    hdr.clock = clock;
}

constexpr double kRfc2190Headers = 16;

double rounded(double value) {
    return std::floor(value + 0.5);
}

// An upper estimate of the packets of a video track. A `factor` of up to 100 is a number of packets
// per sample, a larger one the size of a packet.
double video_packets(double samples, double bytes, double factor) {
    constexpr double kLargestCountFactor = 100;
    constexpr double kFewestPacketsPerSample = 10;
    if (factor <= kLargestCountFactor) {
        return rounded(samples * std::max(factor, kFewestPacketsPerSample));
    }
    const double full = rounded(bytes / (factor - kRfc2190Headers));
    return std::max(samples, full) * kFewestPacketsPerSample;
}

}  // namespace

int tel_native_init(tel_native* state, int payload_type, int max_packet, int mode, iso_track* track,
                    int flags) {
    const CodecEntry* entry = find_codec(track->codec);
    if (entry == nullptr) return -1;
    *state = tel_native{};
    state->codec = static_cast<uint32_t>(track->codec);
    state->max_payload = kMaxPacketBytes;
    state->packetise = entry->tel;
    init_header(state->hdr, payload_type, mode, flags, entry->clock);
    if (track->codec == ISO_CODEC_AVC1) {
        state->max_payload = max_packet;
        state->nal_len_size = track->nal_length_size;
        state->dsi = track->param_sets;
        state->dsi_len = static_cast<int32_t>(track->param_sets_length);
    }
    return 0;
}

int tel_native_packet(void* out, int out_size, void* in, int in_len, double duration,
                      tel_native* state) {
    if (state->packetise == nullptr) return -1;
    return state->packetise(out, out_size, in, in_len, duration, state);
}

int orb_native_init(orb_native* state, int payload_type, int max_packet, int mode, iso_track* track,
                    int flags) {
    const CodecEntry* entry = find_codec(track->codec);
    if (entry == nullptr) return -1;
    *state = orb_native{};
    state->codec = static_cast<uint32_t>(track->codec);
    state->max_payload = max_packet - orb_header_size;
    state->packetise = entry->orb;
    init_header(state->hdr, payload_type, mode, flags, entry->clock);
    return 0;
}

int orb_native_packet(void* out, int out_size, void* in, int in_len, double duration,
                      orb_native* state) {
    if (state->packetise == nullptr) return -1;
    return state->packetise(out, out_size, in, in_len, duration, state);
}

int orb_buffer_estimate(iso_track* track, int mode, double factor) {
    constexpr double kSpeechFrameSeconds = 0.02;
    int samples = 0;
    int signed_bytes = 0;
    double duration = 0.0;
    if (isoFFtrackInfo(track, nullptr, &samples, &duration, &signed_bytes) != 0) return 0;
    const double bytes = static_cast<uint32_t>(signed_bytes);
    double estimate = 0.0;
    switch (track->codec) {
        case ISO_CODEC_MP4A:
        case ISO_CODEC_SAWP:
            estimate = bytes + samples * double{orb_header_size};
            break;
        case ISO_CODEC_SAMR:
        case ISO_CODEC_SAWB:
            estimate = bytes + rounded(duration / kSpeechFrameSeconds) * orb_header_size;
            break;
        case ISO_CODEC_S263: {
            const bool rfc2190 = mode == NATIVE_MODE_RFC2190;
            estimate = bytes + video_packets(samples, bytes, factor) *
                                   (rfc2190 ? kRfc2190Headers : orb_header_size);
            break;
        }
        case ISO_CODEC_MP4V:
        case ISO_CODEC_AVC1:
            estimate = bytes + video_packets(samples, bytes, factor) * orb_header_size;
            break;
        default:
            break;
    }
    return static_cast<int>(std::min<double>(estimate, INT32_MAX));
}
