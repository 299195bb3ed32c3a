// SPDX-License-Identifier: Apache-2.0
#include "interface/src/isoff/write/boxes.h"

#include <algorithm>
#include <string_view>

#include "interface/src/isoff/write/copied_boxes.h"
#include "interface/src/isoff/write/writer.h"

// The boxes of the file, of the movie, of a track and of its media (ISO/IEC 14496-12), except those
// of `stbl`.

namespace kestrel {
namespace {

// --- media ---

uint64_t write_dinf(BoxWriter& out) {
    constexpr uint32_t kSameFile = 1;
    return out.box(fourcc("dinf"), [&] {
        out.full_box(fourcc("dref"), 0, 0, [&] {
            out.u32(1);  // entry count
            out.full_box(fourcc("url "), 0, kSameFile, [] {});
        });
    });
}

uint64_t write_hmhd(BoxWriter& out, const iso_track* track) {
    return out.full_box(fourcc("hmhd"), 0, 0, [&] {
        out.u16(std::min<uint32_t>(track->own->max_pdu, UINT16_MAX));
        out.u16(std::min<uint32_t>(track->own->avg_pdu, UINT16_MAX));
        out.u32(track->max_bitrate);
        out.u32(track->avg_bitrate);
        out.u32(0);
    });
}

// Puts the header that the handler's first letter calls for; none for other media.
uint64_t write_media_header(BoxWriter& out, const iso_track* track) {
    const CopiedBoxes* copied = track->own->copied;
    if (copied != nullptr && !copied->media_header.empty()) {
        return out.copied(copied->media_header);
    }
    switch (track->handler[0]) {
        case 'h':
            return write_hmhd(out, track);
        case 's':
            return out.full_box(fourcc("smhd"), 0, 0, [&] { out.u32(0); });  // balance
        case 't':
            return out.full_box(fourcc("nmhd"), 0, 0, [] {});
        case 'v':  // graphics mode and colour
            return out.full_box(fourcc("vmhd"), 0, 1, [&] { out.zeros(8); });
        default:
            return 0;
    }
}

uint64_t write_minf(BoxWriter& out, iso_track* track) {
    return out.box(fourcc("minf"), [&] {
        write_media_header(out, track);
        write_dinf(out);
        write_stbl(out, track);
    });
}

uint64_t write_hdlr(BoxWriter& out, const iso_track* track) {
    return out.full_box(fourcc("hdlr"), 0, 0, [&] {
        hdlr_columns(out, *track);
        if (track->own->copied != nullptr) out.text(track->own->copied->name);
        out.u8(0);  // ends the name
    });
}

uint64_t write_mdia(BoxWriter& out, iso_track* track) {
    return out.box(fourcc("mdia"), [&] {
        out.full_box(fourcc("mdhd"), 0, 0, [&] { mdhd_columns(out, *track); });
        write_hdlr(out, track);
        write_minf(out, track);
    });
}

// --- track ---

struct DisplaySize {
    uint32_t width, height;  // pixels, 16.16
};

// The display size is that of the pictures, unless another one is declared.
DisplaySize display_size(const iso_track* track) {
    const iso_track_private& own = *track->own;
    const bool declared = own.display_width != 0 || own.display_height != 0;
    if (declared || own.copied != nullptr) return {own.display_width, own.display_height};
    constexpr uint32_t kMaxPixels = 0xFFFF;
    return {std::min(track->width, kMaxPixels) << 16, std::min(track->height, kMaxPixels) << 16};
}

uint64_t write_tkhd(BoxWriter& out, const iso_track* track) {
    const uint32_t duration = movie_duration(track);
    const DisplaySize display = display_size(track);
    return out.full_box(fourcc("tkhd"), 0, track->own->header_flags, [&] {
        tkhd_times(out, *track, duration);
        tkhd_rest(out, *track, display.width, display.height);
    });
}

uint64_t write_tref(BoxWriter& out, const iso_track* track) {
    const auto put = [&](const CopiedReference& reference) {
        out.box(reference.type, [&] {
            for (const uint32_t id : reference.track_ids)
                out.u32(id);
        });
    };
    const CopiedBoxes* copied = track->own->copied;
    if (!is_hint(track) && (copied == nullptr || copied->references.empty())) return 0;
    return out.box(fourcc("tref"), [&] {
        if (is_hint(track)) put({fourcc("hint"), {track->hint_track_ref}});
        if (copied != nullptr)
            std::for_each(copied->references.begin(), copied->references.end(), put);
    });
}

uint64_t write_edts(BoxWriter& out, const iso_track* track) {
    if (track->own->edit_count <= 0) return 0;
    const std::span edits(track->own->edits, static_cast<size_t>(track->own->edit_count));
    const bool wide = std::any_of(edits.begin(), edits.end(), [](const iso_elst_entry& edit) {
        return edit.segment_duration > UINT32_MAX || edit.media_time > INT32_MAX ||
               edit.media_time < INT32_MIN;
    });
    return out.box(fourcc("edts"), [&] {
        out.full_box(fourcc("elst"), wide ? 1 : 0, 0, [&] {
            out.u32(static_cast<uint32_t>(edits.size()));
            for (const iso_elst_entry& edit : edits)
                columns(out, edit, wide);
        });
    });
}

uint64_t write_track_udta(BoxWriter& out, const char* sdp) {
    if (sdp == nullptr) return 0;
    return out.box(fourcc("udta"), [&] {
        out.box(fourcc("hnti"), [&] { out.box(fourcc("sdp "), [&] { out.text(sdp); }); });
    });
}

uint64_t write_movie_udta(BoxWriter& out, const char* sdp) {
    if (sdp == nullptr) return 0;
    return out.box(fourcc("udta"), [&] {
        out.box(fourcc("hnti"), [&] {
            out.box(fourcc("rtp "), [&] {
                out.id("sdp ");  // description format
                out.text(sdp);
            });
        });
    });
}

// `meta` would stand before `udta`; the record has nothing for it.
uint64_t write_trak(BoxWriter& out, iso_track* track) {
    return out.box(fourcc("trak"), [&] {
        write_tkhd(out, track);
        write_tref(out, track);
        write_edts(out, track);
        write_mdia(out, track);
        write_track_udta(out, track->sdp_text);
    });
}

// --- movie ---

uint64_t write_mvhd(BoxWriter& out, const iso_file* file) {
    return out.full_box(fourcc("mvhd"), 0, 0, [&] {
        mvhd_times(out, *file);
        mvhd_rest(out, *file);
    });
}

// Puts the initial object descriptor (ISO/IEC 14496-14, 5.1).
uint64_t write_iods(BoxWriter& out, const iso_file* file) {
    if (!file->own->copied_iods.empty()) return out.copied(file->own->copied_iods);
    constexpr uint8_t kInitialObjectDescriptor = 0x10;
    constexpr uint32_t kReservedBits = 0x0F;
    constexpr uint32_t kLength = 7;
    constexpr uint32_t kNotRequired = 0xFF, kNotSpecified = 0xFE;  // 14496-1, table 5
    const bool is_undeclared = file->own->has_visual && file->visual_profile == kNotRequired;
    return out.full_box(fourcc("iods"), 0, 0, [&] {
        out.descriptor(kInitialObjectDescriptor, kLength);
        out.u16(file->od_id << 6 | kReservedBits);
        out.u8(file->od_profile);
        out.u8(file->scene_profile);
        out.u8(file->audio_profile);
        out.u8(is_undeclared ? kNotSpecified : file->visual_profile);
        out.u8(file->graphics_profile);
    });
}

}  // namespace

uint64_t write_ftyp(BoxWriter& out, const iso_file* file) {
    constexpr size_t kCode = 4;
    const std::string_view brands =
        file->compatible_brands == nullptr ? "" : file->compatible_brands;
    return out.box(fourcc("ftyp"), [&] {
        out.id(file->major_brand);
        out.u32(file->minor_version);
        for (size_t at = 0; at + kCode <= brands.size(); at += kCode + 1)
            out.text(brands.substr(at, kCode));
    });
}

uint64_t write_moov(BoxWriter& out, iso_file* file) {
    return out.box(fourcc("moov"), [&] {
        write_mvhd(out, file);
        write_iods(out, file);
        for (iso_track* track = file->first_track; track != nullptr; track = track->next)
            write_trak(out, track);
        write_movie_udta(out, file->sdp_text);
    });
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
