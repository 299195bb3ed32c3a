// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <string_view>

#include "interface/src/isoff/write/box_body.h"
#include "interface/src/isoff/write/copied_boxes.h"
#include "interface/src/isoff/write/writer.h"

// The boxes of the file, of the movie, of a track and of its media (ISO/IEC 14496-12), but for
// those of `stbl`.

namespace kestrel {
namespace {

bool is_hint(const iso_track* track) {
    return track->codec == ISO_CODEC_RTP || track->codec == ISO_CODEC_SRTP;
}

// --- media ---

uint64_t write_dref(Pass pass, std::span<uint8_t> to, const iso_track*) {
    constexpr uint32_t kSameFile = 1;
    BoxBody box(pass, to, "dref");
    box.version_and_flags(0, 0);
    box.u32(1);
    box.u32(kBoxHeader + 4);
    box.id("url ");
    box.version_and_flags(0, kSameFile);
    return box.finish();
}

uint64_t write_dinf(Pass pass, std::span<uint8_t> to, const iso_track* track) {
    BoxBody box(pass, to, "dinf");
    box.child(write_dref, track);
    return box.finish();
}

uint64_t write_hmhd(Pass pass, std::span<uint8_t> to, const iso_track* track) {
    BoxBody box(pass, to, "hmhd");
    box.version_and_flags(0, 0);
    box.u16(std::min<uint32_t>(track->own->max_pdu, UINT16_MAX));
    box.u16(std::min<uint32_t>(track->own->avg_pdu, UINT16_MAX));
    box.u32(track->max_bitrate);
    box.u32(track->avg_bitrate);
    box.u32(0);
    return box.finish();
}

// The header that goes with the handler's first letter; none for other media.
uint64_t write_media_header(Pass pass, std::span<uint8_t> to, const iso_track* track) {
    const CopiedBoxes* copied = track->own->copied;
    if (copied != nullptr && !copied->media_header.empty()) {
        return write_copied(pass, to, &copied->media_header);
    }
    const char handler = track->handler[0];
    if (handler == 'h') return write_hmhd(pass, to, track);
    if (handler != 's' && handler != 't' && handler != 'v') return 0;
    BoxBody box(pass, to, handler == 's' ? "smhd" : handler == 't' ? "nmhd" : "vmhd");
    box.version_and_flags(0, handler == 'v' ? 1 : 0);
    if (handler == 's') box.u32(0);    // balance
    if (handler == 'v') box.zeros(8);  // graphics mode and colour
    return box.finish();
}

uint64_t write_minf(Pass pass, std::span<uint8_t> to, iso_track* track) {
    BoxBody box(pass, to, "minf");
    box.child(write_media_header, track);
    box.child(write_dinf, track);
    box.child(write_stbl, track);
    return box.finish();
}

uint64_t write_mdhd(Pass pass, std::span<uint8_t> to, const iso_track* track) {
    BoxBody box(pass, to, "mdhd");
    box.version_and_flags(0, 0);
    ColumnWriter writer(box);
    mdhd_columns(writer, *track);
    return box.finish();
}

uint64_t write_hdlr(Pass pass, std::span<uint8_t> to, const iso_track* track) {
    BoxBody box(pass, to, "hdlr");
    box.version_and_flags(0, 0);
    ColumnWriter writer(box);
    hdlr_columns(writer, *track);
    const CopiedBoxes* copied = track->own->copied;
    if (copied != nullptr) box.bytes(copied->name.data(), copied->name.size());
    box.u8(0);  // ends the name
    return box.finish();
}

uint64_t write_mdia(Pass pass, std::span<uint8_t> to, iso_track* track) {
    BoxBody box(pass, to, "mdia");
    box.child(write_mdhd, track);
    box.child(write_hdlr, track);
    box.child(write_minf, track);
    return box.finish();
}

// --- track ---

struct DisplaySize {
    uint32_t width, height;  // pixels, 16.16
};

// Pictures are displayed in their size, where nothing else is declared.
DisplaySize display_size(const iso_track* track) {
    const iso_track_private& own = *track->own;
    const bool declared = own.display_width != 0 || own.display_height != 0;
    if (declared || own.copied != nullptr) return {own.display_width, own.display_height};
    constexpr uint32_t kMaxPixels = 0xFFFF;
    return {std::min(track->width, kMaxPixels) << 16, std::min(track->height, kMaxPixels) << 16};
}

uint64_t write_tkhd(Pass pass, std::span<uint8_t> to, const iso_track* track) {
    BoxBody box(pass, to, "tkhd");
    box.version_and_flags(0, track->own->header_flags);
    const uint32_t duration = movie_duration(track);
    const DisplaySize display = display_size(track);
    ColumnWriter writer(box);
    tkhd_times(writer, *track, duration);
    tkhd_rest(writer, *track, display.width, display.height);
    return box.finish();
}

uint64_t write_reference(Pass pass, std::span<uint8_t> to, const CopiedReference* reference) {
    char type[4];
    store_be32(reinterpret_cast<uint8_t*>(type), reference->type);
    BoxBody box(pass, to, type);
    for (const uint32_t id : reference->track_ids)
        box.u32(id);
    return box.finish();
}

uint64_t write_tref(Pass pass, std::span<uint8_t> to, const iso_track* track) {
    const CopiedReference hint = {fourcc("hint"), {track->hint_track_ref}};
    BoxBody box(pass, to, "tref");
    if (is_hint(track)) box.child(write_reference, &hint);
    if (track->own->copied != nullptr) {
        for (const CopiedReference& reference : track->own->copied->references)
            box.child(write_reference, &reference);
    }
    return box.finish();
}

bool has_references(const iso_track* track) {
    const CopiedBoxes* copied = track->own->copied;
    return is_hint(track) || (copied != nullptr && !copied->references.empty());
}

uint64_t write_elst(Pass pass, std::span<uint8_t> to, const iso_track* track) {
    const std::span edits(track->own->edits, static_cast<size_t>(track->own->edit_count));
    const bool wide = std::any_of(edits.begin(), edits.end(), [](const iso_elst_entry& edit) {
        return edit.segment_duration > UINT32_MAX || edit.media_time > INT32_MAX ||
               edit.media_time < INT32_MIN;
    });
    BoxBody box(pass, to, "elst");
    box.version_and_flags(wide ? 1 : 0, 0);
    box.u32(static_cast<uint32_t>(edits.size()));
    ColumnWriter writer(box);
    for (const iso_elst_entry& edit : edits)
        columns(writer, edit, wide);
    return box.finish();
}

uint64_t write_edts(Pass pass, std::span<uint8_t> to, const iso_track* track) {
    BoxBody box(pass, to, "edts");
    box.child(write_elst, track);
    return box.finish();
}

uint64_t write_track_sdp(Pass pass, std::span<uint8_t> to, const iso_track* track) {
    BoxBody box(pass, to, "sdp ");
    box.bytes(track->sdp_text, std::strlen(track->sdp_text));
    return box.finish();
}

uint64_t write_movie_sdp(Pass pass, std::span<uint8_t> to, const iso_file* file) {
    BoxBody box(pass, to, "rtp ");
    box.id("sdp ");  // description format
    box.bytes(file->sdp_text, std::strlen(file->sdp_text));
    return box.finish();
}

uint64_t write_track_hnti(Pass pass, std::span<uint8_t> to, const iso_track* track) {
    BoxBody box(pass, to, "hnti");
    box.child(write_track_sdp, track);
    return box.finish();
}

uint64_t write_movie_hnti(Pass pass, std::span<uint8_t> to, const iso_file* file) {
    BoxBody box(pass, to, "hnti");
    box.child(write_movie_sdp, file);
    return box.finish();
}

uint64_t write_track_udta(Pass pass, std::span<uint8_t> to, const iso_track* track) {
    BoxBody box(pass, to, "udta");
    box.child(write_track_hnti, track);
    return box.finish();
}

uint64_t write_movie_udta(Pass pass, std::span<uint8_t> to, const iso_file* file) {
    BoxBody box(pass, to, "udta");
    box.child(write_movie_hnti, file);
    return box.finish();
}

// `meta` would stand before `udta`; the record has nothing for it.
uint64_t write_trak(Pass pass, std::span<uint8_t> to, iso_track* track) {
    BoxBody box(pass, to, "trak");
    box.child(write_tkhd, track);
    if (has_references(track)) box.child(write_tref, track);
    if (track->own->edit_count > 0) box.child(write_edts, track);
    box.child(write_mdia, track);
    if (track->sdp_text != nullptr) box.child(write_track_udta, track);
    return box.finish();
}

// --- movie ---

uint64_t write_mvhd(Pass pass, std::span<uint8_t> to, const iso_file* file) {
    BoxBody box(pass, to, "mvhd");
    box.version_and_flags(0, 0);
    ColumnWriter writer(box);
    mvhd_times(writer, *file);
    mvhd_rest(writer, *file);
    return box.finish();
}

// Initial object descriptor (ISO/IEC 14496-14, 5.1).
uint64_t write_iods(Pass pass, std::span<uint8_t> to, const iso_file* file) {
    constexpr uint8_t kInitialObjectDescriptor = 0x10;
    constexpr uint32_t kReservedBits = 0x0F;
    constexpr uint32_t kLength = 7;
    constexpr uint32_t kNoCapability = 0xFF, kNotTold = 0xFE;  // 14496-1, table 5
    const bool untold = file->own->has_visual && file->visual_profile == kNoCapability;
    BoxBody box(pass, to, "iods");
    box.version_and_flags(0, 0);
    put_descriptor(box, kInitialObjectDescriptor, kLength);
    box.u16(file->od_id << 6 | kReservedBits);
    box.u8(file->od_profile);
    box.u8(file->scene_profile);
    box.u8(file->audio_profile);
    box.u8(untold ? kNotTold : file->visual_profile);
    box.u8(file->graphics_profile);
    return box.finish();
}

}  // namespace

uint64_t write_ftyp(Pass pass, std::span<uint8_t> to, const iso_file* file) {
    constexpr size_t kCode = 4;
    BoxBody box(pass, to, "ftyp");
    box.id(file->major_brand);
    box.u32(static_cast<uint32_t>(file->minor_version));
    const std::string_view brands =
        file->compatible_brands == nullptr ? "" : file->compatible_brands;
    for (size_t at = 0; at + kCode <= brands.size(); at += kCode + 1)
        box.bytes(brands.data() + at, kCode);
    return box.finish();
}

uint64_t write_moov(Pass pass, std::span<uint8_t> to, iso_file* file) {
    BoxBody box(pass, to, "moov");
    box.child(write_mvhd, file);
    const std::span<const uint8_t> iods = file->own->copied_iods;
    iods.empty() ? box.child(write_iods, file) : box.child(write_copied, &iods);
    for (iso_track* track = file->first_track; track != nullptr; track = track->next)
        box.child(write_trak, track);
    if (file->sdp_text != nullptr) box.child(write_movie_udta, file);
    return box.finish();
}

uint32_t movie_duration(const iso_track* track) {
    uint64_t units = 0;
    if (track->own->edit_count > 0) {
        for (const iso_elst_entry& edit :
             std::span(track->own->edits, static_cast<size_t>(track->own->edit_count)))
            units += std::min<uint64_t>(edit.segment_duration, UINT32_MAX);
    } else if (track->timescale != 0) {
        const uint64_t scaled = uint64_t{track->duration} * track->file->timescale;
        units = (scaled + track->timescale / 2) / track->timescale;
    }
    return static_cast<uint32_t>(std::min<uint64_t>(units, UINT32_MAX));
}

}  // namespace kestrel
