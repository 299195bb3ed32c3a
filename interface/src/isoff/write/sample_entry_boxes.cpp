// SPDX-License-Identifier: Apache-2.0
#include "common/movie_defaults.h"
#include "interface/src/isoff/write/boxes.h"
#include "interface/src/isoff/write/copied_boxes.h"

// `stsd` and the sample entries (ISO/IEC 14496-12, 8.5.2 and 9.1.2; 3GPP TS 26.244, clause 6).

namespace kestrel {
namespace {

// --- decoder configuration (3GPP TS 26.244, clause 6; ISO/IEC 14496-14 and -15) ---

uint64_t write_damr(BoxWriter& out, const iso_track* track) {
    return out.box(fourcc("damr"), [&] { damr_columns(out, *track); });
}

uint64_t write_dawp(BoxWriter& out, const iso_track* track) {
    return out.box(fourcc("dawp"), [&] { vendor_columns(out, *track); });
}

uint64_t write_d263(BoxWriter& out, const iso_track* track) {
    return out.box(fourcc("d263"), [&] { d263_columns(out, *track); });
}

uint64_t write_avcC(BoxWriter& out, const iso_track* track) {
    return out.box(fourcc("avcC"), [&] { out.bytes(track->dsi, track->dsi_length); });
}

uint64_t write_esds(BoxWriter& out, const iso_track* track) {
    constexpr uint8_t kEs = 3, kDecoderConfig = 4, kSpecificInfo = 5, kSyncLayer = 6;
    constexpr uint8_t kForMp4 = 2;  // predefined sync layer configuration
    constexpr uint32_t kDescriptor = BoxWriter::kDescriptorHeader;
    const uint32_t info = track->dsi_length == 0 ? 0 : kDescriptor + track->dsi_length;
    const uint32_t config = 13 + info;
    const uint32_t sync = 1;
    return out.full_box(fourcc("esds"), 0, 0, [&] {
        out.descriptor(kEs, 3 + kDescriptor + config + kDescriptor + sync);
        out.u16(0);  // ES ID: the track ID stands for it
        out.u8(0);   // flags and priority
        out.descriptor(kDecoderConfig, config);
        out.u8(track->object_type);
        out.u8(static_cast<uint32_t>(track->stream_type) << 2 | 1);  // not upstream, reserved
        out.u24(track->buffer_size);
        out.u32(track->max_bitrate);
        out.u32(track->avg_bitrate);
        if (info != 0) {
            out.descriptor(kSpecificInfo, track->dsi_length);
            out.bytes(track->dsi, track->dsi_length);
        }
        out.descriptor(kSyncLayer, sync);
        out.u8(kForMp4);
    });
}

// --- sample entries ---

// Puts a sample entry: the fields that all entries begin with, then the rest of the entry that was
// read. Without one, `body()` puts the rest from the fields of the track.
template <typename Body>
uint64_t put_entry(BoxWriter& out, uint32_t type, const iso_track* track, Body body) {
    constexpr uint32_t kReserved = 6, kCommonPart = 8;
    const iso_track_details& own = *track->own;
    return out.box(type, [&] {
        out.zeros(kReserved);
        out.u16(1);  // data reference index
        if (own.entry == nullptr || own.entry_length < kCommonPart) return body();
        out.bytes(own.entry + kCommonPart, own.entry_length - kCommonPart);
    });
}

using ConfigWriter = uint64_t (*)(BoxWriter&, const iso_track*);

uint64_t write_visual_entry(BoxWriter& out, uint32_t type, const iso_track* track,
                            ConfigWriter config) {
    constexpr uint32_t kNoColourTable = 0xFFFF;
    constexpr size_t kCompressorName = 32;
    return put_entry(out, type, track, [&] {
        out.zeros(16);  // pre-defined and reserved
        out.u16(track->width);
        out.u16(track->height);
        out.u32(track->horiz_resolution != 0 ? track->horiz_resolution : kScreenResolution);
        out.u32(track->vert_resolution != 0 ? track->vert_resolution : kScreenResolution);
        out.u32(0);
        out.u16(track->own->frame_count != 0 ? track->own->frame_count : 1);
        out.zeros(kCompressorName);
        out.u16(track->own->depth != 0 ? track->own->depth : kColourDepth);
        out.u16(kNoColourTable);
        config(out, track);
    });
}

uint64_t write_audio_entry(BoxWriter& out, uint32_t type, const iso_track* track,
                           ConfigWriter config) {
    constexpr uint32_t kChannels = 2, kSampleBits = 16;  // whatever is coded (26.244, 6.5)
    return put_entry(out, type, track, [&] {
        out.zeros(8);
        out.u16(track->channel_count != 0 ? track->channel_count : kChannels);
        out.u16(track->sample_bits != 0 ? track->sample_bits : kSampleBits);
        out.u32(0);
        out.u16(track->timescale <= UINT16_MAX ? track->timescale : 0);
        out.u16(0);
        config(out, track);
    });
}

// ISO/IEC 14496-12, 9.1.2. The reader does not keep the `schm` and `schi` of a protected hint
// track, so they are not written.
uint64_t write_hint_entry(BoxWriter& out, uint32_t type, const iso_track* track) {
    return put_entry(out, type, track, [&] {
        out.u16(track->rtp_hint_version != 0 ? track->rtp_hint_version : 1);
        out.u16(track->rtp_highest_compat != 0 ? track->rtp_highest_compat : 1);
        out.u32(track->rtp_max_packet);
        out.box(fourcc("tims"), [&] { tims_columns(out, *track); });
        if (track->has_ts_offset) out.box(fourcc("tsro"), [&] { out.u32(track->rtp_ts_offset); });
        if (track->has_seq_offset) out.box(fourcc("snro"), [&] { out.u32(track->rtp_seq_offset); });
    });
}

uint64_t write_entry(BoxWriter& out, const iso_track* track) {
    switch (track->codec) {
        case ISO_CODEC_MP4V:
            return write_visual_entry(out, fourcc("mp4v"), track, write_esds);
        case ISO_CODEC_MP4A:
            return write_audio_entry(out, fourcc("mp4a"), track, write_esds);
        case ISO_CODEC_S263:
            return write_visual_entry(out, fourcc("s263"), track, write_d263);
        case ISO_CODEC_SAMR:
            return write_audio_entry(out, fourcc("samr"), track, write_damr);
        case ISO_CODEC_AVC1:
            return write_visual_entry(out, fourcc("avc1"), track, write_avcC);
        case ISO_CODEC_SAWB:
            return write_audio_entry(out, fourcc("sawb"), track, write_damr);
        case ISO_CODEC_SAWP:
            return write_audio_entry(out, fourcc("sawp"), track, write_dawp);
        case ISO_CODEC_RTP:
            return write_hint_entry(out, fourcc("rtp "), track);
        case ISO_CODEC_SRTP:
            return write_hint_entry(out, fourcc("srtp"), track);
        default:
            return 0;
    }
}

// Puts a whole entry of another file, with its data reference changed to this file.
void put_copied_entry(BoxWriter& out, std::span<const uint8_t> entry) {
    constexpr size_t kDataReference = 14;  // offset of the index (8.5.2.2)
    constexpr uint16_t kThisFile = 1;
    if (entry.size() < kDataReference + 2) return out.bytes(entry);
    out.bytes(entry.first(kDataReference));
    out.u16(kThisFile);
    out.bytes(entry.subspan(kDataReference + 2));
}

uint64_t write_copied_stsd(BoxWriter& out, const std::vector<std::span<const uint8_t>>& entries) {
    return out.full_box(fourcc("stsd"), 0, 0, [&] {
        out.u32(static_cast<uint32_t>(entries.size()));
        for (const std::span<const uint8_t>& entry : entries)
            put_copied_entry(out, entry);
    });
}

}  // namespace

uint64_t write_stsd(BoxWriter& out, const iso_track* track) {
    const CopiedBoxes* copied = track->own->copied;
    if (copied != nullptr && !copied->sample_entries.empty()) {
        return write_copied_stsd(out, copied->sample_entries);
    }
    return out.full_box(fourcc("stsd"), 0, 0, [&] {
        out.u32(measure(write_entry, track) != 0 ? 1 : 0);
        write_entry(out, track);
    });
}

}  // namespace kestrel
