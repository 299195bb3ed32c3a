// SPDX-License-Identifier: Apache-2.0
#include "interface/src/isoff/write/box_body.h"
#include "interface/src/isoff/write/copied_boxes.h"

// `stsd` and the sample entries (ISO/IEC 14496-12, 8.5.2 and 9.1.2; 3GPP TS 26.244, clause 6).

namespace kestrel {
namespace {

constexpr uint32_t kPlainText = 72;  // dots per inch

// --- decoder configuration (3GPP TS 26.244, clause 6; ISO/IEC 14496-14 and -15) ---

uint64_t write_damr(Pass pass, std::span<uint8_t> to, const iso_track* track) {
    BoxBody box(pass, to, "damr");
    ColumnWriter writer(box);
    damr_columns(writer, *track);
    return box.finish();
}

uint64_t write_dawp(Pass pass, std::span<uint8_t> to, const iso_track* track) {
    BoxBody box(pass, to, "dawp");
    ColumnWriter writer(box);
    vendor_columns(writer, *track);
    return box.finish();
}

uint64_t write_d263(Pass pass, std::span<uint8_t> to, const iso_track* track) {
    BoxBody box(pass, to, "d263");
    ColumnWriter writer(box);
    d263_columns(writer, *track);
    return box.finish();
}

uint64_t write_avcC(Pass pass, std::span<uint8_t> to, const iso_track* track) {
    BoxBody box(pass, to, "avcC");
    box.bytes(track->dsi, track->dsi_length);
    return box.finish();
}

uint64_t write_esds(Pass pass, std::span<uint8_t> to, const iso_track* track) {
    constexpr uint8_t kEs = 3, kDecoderConfig = 4, kSpecificInfo = 5, kSyncLayer = 6;
    constexpr uint8_t kForMp4 = 2;  // predefined sync layer configuration
    const uint32_t info = track->dsi_length == 0 ? 0 : kDescriptorHeader + track->dsi_length;
    const uint32_t config = 13 + info;
    const uint32_t sync = 1;
    BoxBody box(pass, to, "esds");
    box.version_and_flags(0, 0);
    put_descriptor(box, kEs, 3 + kDescriptorHeader + config + kDescriptorHeader + sync);
    box.u16(0);  // ES ID: that of the track stands for it
    box.u8(0);   // flags and priority
    put_descriptor(box, kDecoderConfig, config);
    box.u8(track->object_type);
    box.u8(static_cast<uint32_t>(track->stream_type) << 2 | 1);  // not upstream, reserved
    box.u24(track->buffer_size);
    box.u32(track->max_bitrate);
    box.u32(track->avg_bitrate);
    if (info != 0) {
        put_descriptor(box, kSpecificInfo, track->dsi_length);
        box.bytes(track->dsi, track->dsi_length);
    }
    put_descriptor(box, kSyncLayer, sync);
    box.u8(kForMp4);
    return box.finish();
}

// --- sample entries ---

// Puts what every entry begins with; and all of one that was read, in which case it is true.
bool begin_entry(BoxBody& box, const iso_track* track) {
    constexpr uint32_t kReserved = 6, kCommonPart = 8;
    box.zeros(kReserved);
    box.u16(1);  // data reference index
    if (track->own->entry == nullptr || track->own->entry_length < kCommonPart) return false;
    box.bytes(track->own->entry + kCommonPart, track->own->entry_length - kCommonPart);
    return true;
}

using ConfigWriter = uint64_t (*)(Pass, std::span<uint8_t>, const iso_track*);

uint64_t write_visual_entry(Pass pass, std::span<uint8_t> to, const iso_track* track,
                            const char* type, ConfigWriter config) {
    constexpr uint32_t kNoColourTable = 0xFFFF;
    constexpr uint32_t kColour = 24;
    constexpr size_t kCompressorName = 32;
    BoxBody box(pass, to, type);
    if (begin_entry(box, track)) return box.finish();
    box.zeros(16);  // pre-defined and reserved
    box.u16(track->width);
    box.u16(track->height);
    box.u32(track->horiz_resolution != 0 ? track->horiz_resolution : kPlainText << 16);
    box.u32(track->vert_resolution != 0 ? track->vert_resolution : kPlainText << 16);
    box.u32(0);
    box.u16(track->own->frame_count != 0 ? track->own->frame_count : 1);
    box.zeros(kCompressorName);
    box.u16(track->own->depth != 0 ? track->own->depth : kColour);
    box.u16(kNoColourTable);
    box.child(config, track);
    return box.finish();
}

uint64_t write_audio_entry(Pass pass, std::span<uint8_t> to, const iso_track* track,
                           const char* type, ConfigWriter config) {
    constexpr uint32_t kChannels = 2, kSampleBits = 16;  // whatever is coded (26.244, 6.5)
    BoxBody box(pass, to, type);
    if (begin_entry(box, track)) return box.finish();
    box.zeros(8);
    box.u16(track->channel_count != 0 ? track->channel_count : kChannels);
    box.u16(track->sample_bits != 0 ? track->sample_bits : kSampleBits);
    box.u32(0);
    box.u16(track->timescale <= UINT16_MAX ? track->timescale : 0);
    box.u16(0);
    box.child(config, track);
    return box.finish();
}

uint64_t write_tims(Pass pass, std::span<uint8_t> to, const iso_track* track) {
    BoxBody box(pass, to, "tims");
    ColumnWriter writer(box);
    tims_columns(writer, *track);
    return box.finish();
}

void put_value_box(BoxBody& box, const char* type, uint32_t value) {
    box.u32(kBoxHeader + 4);
    box.id(type);
    box.u32(value);
}

// ISO/IEC 14496-12, 9.1.2; the protected one is not given by its reader, nor here, what its
// `schm` and `schi` hold.
uint64_t write_hint_entry(Pass pass, std::span<uint8_t> to, const iso_track* track) {
    const bool is_srtp = track->codec == ISO_CODEC_SRTP;
    BoxBody box(pass, to, is_srtp ? "srtp" : "rtp ");
    if (begin_entry(box, track)) return box.finish();
    box.u16(track->rtp_hint_version != 0 ? track->rtp_hint_version : 1);
    box.u16(track->rtp_highest_compat != 0 ? track->rtp_highest_compat : 1);
    box.u32(track->rtp_max_packet);
    box.child(write_tims, track);
    if (track->has_ts_offset) put_value_box(box, "tsro", track->rtp_ts_offset);
    if (track->has_seq_offset) put_value_box(box, "snro", track->rtp_seq_offset);
    return box.finish();
}

uint64_t write_entry(Pass pass, std::span<uint8_t> to, const iso_track* track) {
    switch (track->codec) {
        case ISO_CODEC_MP4V:
            return write_visual_entry(pass, to, track, "mp4v", write_esds);
        case ISO_CODEC_MP4A:
            return write_audio_entry(pass, to, track, "mp4a", write_esds);
        case ISO_CODEC_S263:
            return write_visual_entry(pass, to, track, "s263", write_d263);
        case ISO_CODEC_SAMR:
            return write_audio_entry(pass, to, track, "samr", write_damr);
        case ISO_CODEC_AVC1:
            return write_visual_entry(pass, to, track, "avc1", write_avcC);
        case ISO_CODEC_SAWB:
            return write_audio_entry(pass, to, track, "sawb", write_damr);
        case ISO_CODEC_SAWP:
            return write_audio_entry(pass, to, track, "sawp", write_dawp);
        case ISO_CODEC_RTP:
        case ISO_CODEC_SRTP:
            return write_hint_entry(pass, to, track);
        default:
            return 0;
    }
}

uint64_t write_copied_entry(Pass pass, std::span<uint8_t> to,
                            const std::span<const uint8_t>* entry) {
    constexpr size_t kDataReference = 14;  // where its index is (8.5.2.2)
    constexpr uint16_t kThisFile = 1;
    const uint64_t size = write_copied(pass, to, entry);
    if (pass == kWritePass && size <= to.size() && size >= kDataReference + 2) {
        store_be16(to.data() + kDataReference, kThisFile);
    }
    return size;
}

uint64_t write_copied_stsd(Pass pass, std::span<uint8_t> to, const iso_track* track) {
    const auto& entries = track->own->copied->sample_entries;
    BoxBody box(pass, to, "stsd");
    box.version_and_flags(0, 0);
    box.u32(static_cast<uint32_t>(entries.size()));
    for (const std::span<const uint8_t>& entry : entries)
        box.child(write_copied_entry, &entry);
    return box.finish();
}

}  // namespace

uint64_t write_stsd(Pass pass, std::span<uint8_t> to, const iso_track* track) {
    const CopiedBoxes* copied = track->own->copied;
    if (copied != nullptr && !copied->sample_entries.empty()) {
        return write_copied_stsd(pass, to, track);
    }
    const bool has_entry = write_entry(kCountPass, {}, track) != 0;
    BoxBody box(pass, to, "stsd");
    box.version_and_flags(0, 0);
    box.u32(has_entry ? 1 : 0);
    box.child(write_entry, track);
    return box.finish();
}

}  // namespace kestrel
