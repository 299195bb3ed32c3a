// SPDX-License-Identifier: Apache-2.0
#include "interface/src/isoff/read/box_walk.h"

// The sample entries of `stsd` (ISO/IEC 14496-12, 8.5.2; 3GPP TS 26.244, clause 6). They always
// have a track: `stbl` outside any track is not read.

namespace kestrel {
namespace {

// --- what an RTP hint sample entry holds (ISO/IEC 14496-12, 9.1.2) ---

int read_tims(BoxReader& box) {
    ColumnReader reader(box);
    tims_columns(reader, *box.track());
    return 0;
}

int read_tsro(BoxReader& box) {
    box.track()->rtp_ts_offset = box.u32();
    box.track()->has_ts_offset = 1;
    return 0;
}

int read_snro(BoxReader& box) {
    box.track()->rtp_seq_offset = box.u32();
    box.track()->has_seq_offset = 1;
    return 0;
}

constexpr isobox sinf_box[] = {{"schm", skip_body}, {"schi", skip_body}, {nullptr, nullptr}};

int read_srpp(BoxReader& box) {
    box.u32();  // version and flags
    for (auto& scheme : box.track()->srpp_schemes)
        box.id(scheme);
    return parse_rest(box, sinf_box);
}

constexpr isobox rtp_box[] = {{"tims", read_tims},
                              {"tsro", read_tsro},
                              {"snro", read_snro},
                              {"srpp", read_srpp},
                              {nullptr, nullptr}};

// --- entries ---

constexpr isobox dec_spec_box[] = {{"damr", read_damr}, {"dawp", read_dawp}, {"d263", read_d263},
                                   {"avcC", read_avcC}, {"esds", read_esds}, {nullptr, nullptr}};

// Begins a sample entry of a medium. Returns the track that it describes.
iso_track* begin_entry(BoxReader& box, int32_t codec) {
    iso_track* track = box.track();
    track->codec = codec;
    track->own->entry = box.data();
    track->own->entry_length = box.left();
    track->own->entry_count++;
    return track;
}

template <iso_codec kCodec>
int read_visual_entry(BoxReader& box) {
    iso_track* track = begin_entry(box, kCodec);
    box.skip(24);  // reserved, data reference index, pre-defined
    const uint16_t width = box.u16();
    const uint16_t height = box.u16();
    if (width != 0) track->width = width;
    if (height != 0) track->height = height;
    track->horiz_resolution = box.u32();
    track->vert_resolution = box.u32();
    box.skip(42);  // reserved, frame count, compressor name, depth, pre-defined
    return parse_rest(box, dec_spec_box);
}

template <iso_codec kCodec>
int read_audio_entry(BoxReader& box) {
    iso_track* track = begin_entry(box, kCodec);
    box.skip(16);  // reserved, data reference index
    const uint16_t channel_count = box.u16();
    const uint16_t sample_bits = box.u16();
    if (kCodec == ISO_CODEC_SAMR) {
        track->channel_count = channel_count;
        track->sample_bits = sample_bits;
    }
    box.skip(8);  // pre-defined, reserved, sample rate
    return parse_rest(box, dec_spec_box);
}

template <iso_codec kCodec>
int read_hint_entry(BoxReader& box) {
    iso_track* track = box.track();
    track->codec = kCodec;
    box.skip(8);  // reserved, data reference index
    const uint16_t version = box.u16();
    const uint16_t highest_compatible = box.u16();
    if (kCodec == ISO_CODEC_RTP) {
        track->rtp_hint_version = version;
        track->rtp_highest_compat = highest_compatible;
    }
    track->rtp_max_packet = box.u32();
    return parse_rest(box, rtp_box);
}

int read_mp4a(BoxReader& box) {
    box.track()->flags &= ~iso_track_prepends_dsi;
    return read_audio_entry<ISO_CODEC_MP4A>(box);
}

constexpr isobox stsd_box[] = {{"mp4a", read_mp4a},
                               {"mp4v", read_visual_entry<ISO_CODEC_MP4V>},
                               {"samr", read_audio_entry<ISO_CODEC_SAMR>},
                               {"sawb", read_audio_entry<ISO_CODEC_SAWB>},
                               {"sawp", read_audio_entry<ISO_CODEC_SAWP>},
                               {"s263", read_visual_entry<ISO_CODEC_S263>},
                               {"avc1", read_visual_entry<ISO_CODEC_AVC1>},
                               {"rtp ", read_hint_entry<ISO_CODEC_RTP>},
                               {"srtp", read_hint_entry<ISO_CODEC_SRTP>},
                               {nullptr, nullptr}};

}  // namespace

int read_stsd(BoxReader& box) {
    box.skip(8);  // version, flags, entry count
    return parse_rest(box, stsd_box);
}

bool read_sample_entry(iso_track* track, std::span<uint8_t> entry) {
    iso_file* file = track->file;
    file->current_track = track;
    const MovieMemory memory(file, entry);
    return parse(file, stsd_box, file->moov_left) == 0;
}

}  // namespace kestrel
