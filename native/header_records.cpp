// SPDX-License-Identifier: Apache-2.0
#include "native/header_records.h"

#include <algorithm>
#include <cmath>

#include "common/clock.h"
#include "kestrel/isoff.h"
#include "kestrel/native.h"
#include "native/codec/amr_format.h"
#include "native/codec/avcc.h"
#include "native/codec/payload_types.h"

// The stream header records and the audio frame header of the `tel` format.

using namespace kestrel;

namespace {

constexpr uint32_t kAudioHeaderLength = sizeof(PROP_Header_Info) + sizeof(AUD_Codec_Header) +
                                        sizeof(AUD_Header_IndxInfo) + sizeof(VID_FileInfo);
static_assert(kAudioHeaderLength == 68);

constexpr uint8_t kFiller = 0xCC;

PROP_Header_Info prop(const char* medium, uint32_t header_length, uint32_t value) {
    PROP_Header_Info record{{}, header_length, kPropConstant, 0, value};
    std::memcpy(record.medium, medium, sizeof record.medium);
    return record;
}

// Copies as much configuration as fits in the field. Returns its length.
uint16_t copy_config(uint8_t (&field)[kMaxConfigBytes], std::span<const uint8_t> config) {
    const size_t length = std::min(config.size(), sizeof field);
    std::fill(std::copy_n(config.begin(), length, field), std::end(field), uint8_t{0});
    return static_cast<uint16_t>(length);
}

int put_audio_frame(void* out, tel_native* state, uint32_t length, const AmrBand& band) {
    TEL_RTP& hdr = state->hdr;
    const int written =
        put_record(out, AUD_AudFrame_Native{length, band.native_coder, hdr.time, hdr.time,
                                            static_cast<uint16_t>(hdr.seq), 0});
    hdr.time += band.samples_per_frame;
    hdr.seq++;
    return written;
}

// The product may be rounded to just below a whole number of milliseconds; seconds nearest to a
// whole number count as that number.
uint32_t truncated_to_ms(double seconds) {
    constexpr double kMsPerSecond = 1000;
    const double ms = std::floor(seconds * kMsPerSecond);
    return truncate_to_u32((ms + 1) / kMsPerSecond == seconds ? ms + 1 : ms);
}

}  // namespace

namespace kestrel {

PROP_Header_Info video_prop(const VideoFormat& format, uint32_t frame_rate) {
    return prop(kVideoMedium, video_header_length(format), frame_rate);
}

VID_Header_CodecInfo video_codec(const VideoFormat& format, uint32_t bit_rate, uint32_t width,
                                 uint32_t height) {
    VID_Header_CodecInfo record{{}, 0, bit_rate, width, height, format.config_length};
    std::memcpy(record.codec, format.name, std::strlen(format.name));
    return record;
}

VID_Header_MPEG4CodecConfig mpeg4_config(std::span<const uint8_t> config) {
    // The profile-and-level byte follows the start code of the visual object sequence.
    constexpr size_t kProfileAndLevel = 4;
    VID_Header_MPEG4CodecConfig record{};
    record.length = copy_config(record.config, config);
    record.profile_level = record.config[kProfileAndLevel];
    return record;
}

VID_FileInfo file_info(double duration_seconds) {
    VID_FileInfo record{truncated_to_ms(duration_seconds), {}};
    std::memset(record.filler, kFiller, sizeof record.filler);
    return record;
}

}  // namespace kestrel

int tel_put_hdr_aud_prop(void* out, uint32_t frame_count) {
    return put_record(out, prop(kAudioMedium, kAudioHeaderLength, frame_count));
}

int tel_put_hdr_aud_codec(void* out) {
    return put_record(out, AUD_Codec_Header{sizeof(AUD_Codec_Header), 33, 64, 8});
}

int tel_put_hdr_aud_codec_wb(void* out) {
    return put_record(out, AUD_Codec_Header{sizeof(AUD_Codec_Header), kWideBandCoding, 128, 16});
}

int tel_put_hdr_aud_index(void* out, uint32_t) {
    return put_record(out, AUD_Header_IndxInfo{});
}

int tel_put_hdr_fileInfo(void* out, double duration) {
    return put_record(out, file_info(duration));
}

int tel_put_hdr_vid_fileInfo(void* out, double duration) {
    return put_record(out, file_info(duration));
}

int tel_put_hdr_aud_frame(void* out, tel_native* state, uint32_t length) {
    return put_audio_frame(out, state, length, kNarrowBand);
}

int tel_put_hdr_aud_frame_wb(void* out, tel_native* state, uint32_t length) {
    return put_audio_frame(out, state, length, kWideBand);
}

int tel_put_hdr_vid_prop(void* out, uint32_t value) {
    return put_record(out, video_prop(kMpeg4Format, value));
}

int tel_put_hdr_vid_prop263(void* out, uint32_t value) {
    return put_record(out, video_prop(kH263Format, value));
}

int tel_put_hdr_vid_prop264(void* out, uint32_t value) {
    return put_record(out, video_prop(kH264Format, value));
}

int tel_put_hdr_vid_nts(void* out) {
    return put_record(out, VID_Header_NTSInfo{});
}

int tel_put_hdr_vid_index(void* out) {
    return put_record(out, VID_Header_IndxInfo{});
}

int tel_put_hdr_vid_codec(void* out, const iso_track* track, uint32_t value) {
    return put_record(out, video_codec(kMpeg4Format, value, track->width, track->height));
}

int tel_put_hdr_vid_codec263(void* out, const iso_track* track, uint32_t value) {
    const VideoFormat& format =
        track->last_payload_type == kRfc2190PayloadType ? kH263Format : kH263PlusFormat;
    return put_record(out, video_codec(format, value, track->width, track->height));
}

int tel_put_hdr_vid_codec264(void* out, const iso_track* track, uint32_t value) {
    return put_record(out, video_codec(kH264Format, value, track->width, track->height));
}

int tel_put_hdr_vid_codecCfg(void* out, const iso_track* track) {
    const std::span<const uint8_t> config(track->dsi, track->dsi ? track->dsi_length : 0);
    return put_record(out, mpeg4_config(config));
}

int tel_put_hdr_vid_codecCfg263(void* out, const iso_track* track) {
    return put_record(out, VID_Header_H263CodecConfig{track->profile, track->level});
}

int tel_put_hdr_vid_codecCfg264(void* out, iso_track* track) {
    // After the first start code and the NAL unit's header byte.
    constexpr size_t kProfile = 5, kConstraints = 6, kLevel = 7;
    if (out == nullptr) return -1;
    VID_Header_H264CodecConfig record;
    std::memcpy(&record, out, sizeof record);  // some of its bytes are not set
    std::fill(std::begin(record.config), std::end(record.config), uint8_t{0});
    const bool has_sets = track != nullptr && track->dsi != nullptr;
    const size_t length =
        has_sets ? put_start_coded_sets({track->dsi, track->dsi_length}, record.config) : 0;
    record.length = static_cast<uint16_t>(std::min(length, sizeof record.config));
    record.two = 2;
    record.profile = record.level = 0;
    if (record.length > kLevel + 1) {
        record.profile = record.config[kProfile];
        record.constraints = record.config[kConstraints];
        record.level = record.config[kLevel];
    }
    return put_record(out, record);
}
