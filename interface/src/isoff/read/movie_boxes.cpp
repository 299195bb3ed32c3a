// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <span>
#include <string_view>

#include "interface/src/isoff/read/box_walk.h"
#include "interface/src/isoff/read/sample_tables.h"

// The boxes of `moov` (ISO/IEC 14496-12, 8.2 to 8.10) except sample tables and sample entries.

namespace kestrel {
namespace {

// Headers of version 0 and version 1 differ only in the width of their times. Wide times are
// skipped.
constexpr uint32_t kWideMovieTimes = 28;
constexpr uint32_t kWideDates = 16;  // the first two of them
constexpr uint32_t kWideTrackTimes = 32;

// --- SDP texts ---

// Stores the rest of the box and a NUL in `text`. Refuses a second text.
int read_sdp_text(BoxReader& box, char*& text) {
    if (text != nullptr) {
        remark(box.file(), "extra sdp\n");
        return -1;
    }
    const uint32_t length = box.left();
    text = arena_array<char>(box.file(), size_t{length} + 1);
    if (text == nullptr) return -1;
    return box.bytes(text, length) ? 0 : -1;
}

int read_track_sdp(BoxReader& box) {
    if (box.track() == nullptr) return skip_body(box);
    return read_sdp_text(box, box.track()->sdp_text);
}

int read_movie_sdp(BoxReader& box) {
    box.u32();  // description format
    return read_sdp_text(box, box.file()->sdp_text);
}

// --- media, track and movie boxes ---

int read_mdhd(BoxReader& box) {
    iso_track* track = box.track();
    if (track == nullptr) return 0;
    const uint8_t version = box.u8();
    box.u24();  // flags
    if (version != 0) return box.skip(kWideMovieTimes) ? 0 : -1;
    ColumnReader reader(box);
    mdhd_columns(reader, *track);
    return 0;
}

int read_hdlr(BoxReader& box) {
    if (box.track() == nullptr) return 0;
    ColumnReader reader(box);
    reader.reserved(4);  // version and flags
    hdlr_columns(reader, *box.track());
    return reader.has_codes() ? 0 : -1;
}

int read_hint_reference(BoxReader& box) {
    // A hint track that holds all of its payload itself may refer to no track.
    const bool refers = box.left() >= sizeof(uint32_t);
    if (box.track() != nullptr && refers) box.track()->hint_track_ref = box.u32();
    return 0;
}

int read_tkhd(BoxReader& box) {
    constexpr uint32_t kBody = 84, kWideBody = 96;  // of version 0, and of the others
    const uint32_t needed = box.left() > 0 && *box.data() != 0 ? kWideBody : kBody;
    if (box.left() < needed) {
        remark_end_of_buffer(box.file(), "read_buf", needed);
        return 0;
    }
    const uint8_t version = box.u8();
    const uint32_t flags = box.u24();
    iso_track* track = isoFFtrack(box.file());
    if (track == nullptr) return -1;
    box.file()->current_track = track;
    track->own->header_flags = flags;
    ColumnReader reader(box);
    uint32_t duration = 0;  // not kept; the duration of the media header is
    if (version == 0) {
        tkhd_times(reader, *track, duration);
    } else {
        reader.reserved(kWideTrackTimes);
    }
    track->codec = ISO_CODEC_NONE;
    tkhd_rest(reader, *track, track->own->display_width, track->own->display_height);
    track->width = track->own->display_width >> 16;
    track->height = track->own->display_height >> 16;
    return 0;
}

// Initial object descriptor (ISO/IEC 14496-14, 5.1).
int read_iods(BoxReader& box) {
    iso_file* file = box.file();
    constexpr uint32_t kSmallestWithProfiles = 12;
    constexpr uint8_t kInitialObjectDescriptorTag = 0x10;
    constexpr uint32_t kLongestWithoutProfiles = 6;
    if (box.size() <= kSmallestWithProfiles) return 0;
    box.u32();  // version and flags
    if (box.u8() != kInitialObjectDescriptorTag) return 0;
    uint32_t length = 0;
    if (!box.descriptor_length(length) || length <= kLongestWithoutProfiles) return 0;
    file->od_id = box.u16() >> 6;
    file->od_profile = box.u8();
    file->scene_profile = box.u8();
    file->audio_profile = box.u8();
    file->visual_profile = box.u8();
    file->graphics_profile = box.u8();
    return 0;
}

int read_mvhd(BoxReader& box) {
    iso_file* file = box.file();
    const uint8_t version = box.u8();
    box.u24();  // flags
    ColumnReader reader(box);
    if (version == 0) {
        mvhd_times(reader, *file);
        file->own->edit_timescale = file->timescale;
    } else {
        reader.reserved(kWideDates);
        reader.u32(file->own->edit_timescale);
        reader.reserved(kWideMovieTimes - kWideDates - 4);
    }
    mvhd_rest(reader, *file);
    return 0;
}

// --- containers and the tables of what they hold ---

template <const isobox* kTable>
int read_container(BoxReader& box) {
    return parse_rest(box, kTable);
}

constexpr isobox stbl_box[] = {{"stsd", read_stsd}, {"stts", read_stts}, {"stsc", read_stsc},
                               {"stsz", read_stsz}, {"stco", read_stco}, {"ctts", read_ctts},
                               {"stss", read_stss}, {"sbgp", read_sbgp}, {"sgpd", read_sgpd},
                               {nullptr, nullptr}};

int read_stbl(BoxReader& box) {
    iso_track* track = box.track();
    if (track == nullptr) return 0;
    const int walked = parse_rest(box, stbl_box);
    // A further `stbl` without tables does not change the tables: a file may have many.
    const bool is_checked =
        track->own->index != nullptr && track->own->tables_checked == track->own->tables_seen;
    if (walked == 0 && (is_checked || check_tables(track) == 0)) {
        track->own->tables_checked = track->own->tables_seen;
        return 0;
    }
    // A track whose tables cannot be used has no samples.
    track->sample_count = 0;
    track->chunk_count = 0;
    return walked != 0 ? walked : -1;
}

constexpr isobox dinf_box[] = {{"dref", skip_body}, {nullptr, nullptr}};

constexpr isobox minf_box[] = {{"smhd", skip_body}, {"vmhd", skip_body},
                               {"hmhd", skip_body}, {"dinf", read_container<dinf_box>},
                               {"stbl", read_stbl}, {nullptr, nullptr}};

constexpr isobox mdia_box[] = {{"mdhd", read_mdhd},
                               {"hdlr", read_hdlr},
                               {"minf", read_container<minf_box>},
                               {nullptr, nullptr}};

int read_mdia(BoxReader& box) {
    if (box.track() == nullptr) box.file()->own->headless_media = 1;
    return parse_rest(box, mdia_box);
}

// Keeps the edits for programs that copy a file; reading samples does not use them. Ignores a list
// that exceeds its box.
int read_elst(BoxReader& box) {
    iso_track* track = box.track();
    if (track == nullptr || track->own->edits != nullptr || box.left() < 8) return 0;
    const bool wide = box.u8() != 0;
    box.u24();  // flags
    const uint32_t count = box.u32();
    if (count == 0 || count > box.left() / bytes_of<iso_elst_entry>(wide)) return 0;
    track->own->edits = arena_array<iso_elst_entry>(box.file(), count);
    if (track->own->edits == nullptr) return -1;
    track->own->edit_count = static_cast<int32_t>(count);
    ColumnReader reader(box);
    for (iso_elst_entry& edit : std::span(track->own->edits, count))
        columns(reader, edit, wide);
    return 0;
}

constexpr isobox edts_box[] = {{"elst", read_elst}, {nullptr, nullptr}};

constexpr isobox meta_box[] = {{"xml ", skip_body}, {nullptr, nullptr}};

int read_meta(BoxReader& box) {
    box.u32();  // version and flags
    return parse_rest(box, meta_box);
}

constexpr isobox tref_box[] = {{"hint", read_hint_reference}, {nullptr, nullptr}};

constexpr isobox hnti_box[] = {
    {"sdp ", read_track_sdp}, {"rtp ", read_movie_sdp}, {nullptr, nullptr}};

constexpr isobox udta_box[] = {
    {"hnti", read_container<hnti_box>}, {"tsel", skip_body}, {nullptr, nullptr}};

constexpr isobox trak_box[] = {{"tkhd", read_tkhd},
                               {"mdia", read_mdia},
                               {"edts", read_container<edts_box>},
                               {"meta", read_meta},
                               {"tref", read_container<tref_box>},
                               {"udta", read_container<udta_box>},
                               {nullptr, nullptr}};

// Whether `bytes` begin with a `trak`. The header of its first child is checked too, so that other
// bytes are not mistaken for a track.
bool is_track_header(std::span<const uint8_t> bytes) {
    if (bytes.size() < kBoxHeader) return false;
    const BoxHeader track = load_box_header(bytes.data());
    if (track.type != fourcc("trak")) return false;
    if (track.size >= kBoxHeader) bytes = bytes.first(std::min<size_t>(track.size, bytes.size()));
    if (bytes.size() < 2 * kBoxHeader) return false;
    const BoxHeader child = load_box_header(&bytes[kBoxHeader]);
    if (find_box(trak_box, child.type) != nullptr) return true;  // also with a damaged size
    const auto type = bytes.subspan(2 * kBoxHeader - sizeof child.type, sizeof child.type);
    return child.size >= kBoxHeader && child.size <= bytes.size() - kBoxHeader &&
           std::all_of(type.begin(), type.end(), [](uint8_t c) { return c >= ' ' && c <= '~'; });
}

// Boxes in a track before its header, or without a readable header, belong to no track.
int read_trak(BoxReader& box) {
    iso_file* file = box.file();
    if (is_track_header({box.data() - kBoxHeader, box.left() + kBoxHeader}))
        file->own->walked_tracks++;
    iso_track* const before = file->current_track;
    file->current_track = nullptr;
    file->own->headless_media = 0;
    const int result = parse_rest(box, trak_box);
    const bool has_header = file->current_track != nullptr;
    if (!has_header) file->current_track = before;
    if (!has_header) lose_track(file, "no whole tkhd");
    if (has_header && file->own->headless_media != 0) lose_track(file, "mdia before tkhd");
    return result;
}

constexpr isobox moov_box[] = {{"mvhd", read_mvhd},
                               {"trak", read_trak},
                               {"iods", read_iods},
                               {"udta", read_container<udta_box>},
                               {nullptr, nullptr}};

// --- tracks that damage hides ---

enum class Counted { kAll, kWhole };

// Returns the number of tracks that begin in `bytes`, or of those that end there too.
uint32_t count_tracks(std::span<const uint8_t> bytes, Counted counted) {
    constexpr size_t kToType = sizeof(BoxHeader::size);
    const std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    uint32_t count = 0;
    for (size_t at = kToType; (at = text.find("trak", at)) != text.npos; ++at) {
        const auto track = bytes.subspan(at - kToType);
        if (!is_track_header(track)) continue;
        const bool whole = load_box_header(track.data()).size <= track.size();
        count += whole || counted == Counted::kAll ? 1 : 0;
    }
    return count;
}

// Returns the number of tracks in the boxes that a walk with `table` skips: the remains of former
// tracks, which free space may hold. Returns 0 if a size seems damaged, because it may have put
// tracks into such a box: the boxes do not end with `bytes`, or an unknown one has no size or ends
// inside a track.
uint32_t count_remains(std::span<const uint8_t> bytes, const isobox* table) {
    uint32_t remains = 0;
    while (bytes.size() >= kBoxHeader) {
        const BoxHeader header = load_box_header(bytes.data());
        const isobox* box = find_box(table, header.type);
        const size_t size = header.size == 0 && box != nullptr ? bytes.size() : header.size;
        if (size < kBoxHeader || size > bytes.size()) return 0;
        const auto inside = bytes.subspan(kBoxHeader, size - kBoxHeader);
        if (box == nullptr && header.type != fourcc("trak")) {
            const uint32_t whole = count_tracks(inside, Counted::kWhole);
            if (whole < count_tracks(inside, Counted::kAll)) return 0;
            remains += whole;
        } else if (box != nullptr && box->handler == read_container<udta_box>) {
            remains += count_remains(inside, udta_box);
        }
        bytes = bytes.subspan(size);
    }
    return remains;
}

// Reports the tracks in `body` of `moov` that the walk did not reach: a box before them is too
// long, or damage ended the walk.
void report_hidden_tracks(iso_file* file, std::span<const uint8_t> body, uint32_t walked) {
    uint32_t seen = count_tracks(body, Counted::kAll);
    if (seen > walked) seen -= count_remains(body, moov_box);
    for (; seen > walked; --seen)
        lose_track(file, "hidden by damage");
}

}  // namespace

int read_movie(BoxReader& box) {
    iso_file* file = box.file();
    const std::span<const uint8_t> body(box.data(), box.left());
    file->own->walked_tracks = 0;
    const int result = parse_rest(box, moov_box);
    report_hidden_tracks(file, body, file->own->walked_tracks);
    return result;
}

}  // namespace kestrel
