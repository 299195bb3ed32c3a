// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <climits>

#include "interface/src/isoff/read/box_walk.h"
#include "interface/src/isoff/read/byte_source.h"
#include "interface/src/isoff/read/sample_tables.h"

// The box walk, and the handlers of all boxes but the sample tables and the decoder configuration.

namespace kestrel {
namespace {

constexpr uint32_t kBoxHeader = 8;
// What a walk of a whole file may cover: as much as offsets reach.
constexpr int64_t kOpenEnded = UINT32_MAX;
constexpr uint32_t kFirstPiece = 1 << 20;

// The first letters of a version-0 and a version-1 header differ in nothing but the width of their
// times; the wide ones are passed over, not read.
constexpr uint32_t kWideMovieTimes = 28;
constexpr uint32_t kWideDates = 16;  // the first two of them
constexpr uint32_t kWideTrackTimes = 32;

iso_track* current(iso_file* file) {
    return file->current_track;
}

// A box whose body is of no interest. Inside `moov` the walk itself moves past it.
int pass_over(iso_file* file, uint32_t body) {
    return file->in_moov_buffer || skip(file, body) == 1 ? 0 : -1;
}

// A track of the file that no record is made of, or one without its media.
void lose_track(iso_file* file, const char* why) {
    file->own->lost_tracks++;
    remark(file, "skipping track: %s\n", why);
}

// --- reading a whole body ---

// Reads `size` bytes of the stream into memory from systemmalloc that grows with the bytes that
// really come, so that a size that lies costs no more than the host delivers. Null when the bytes
// do not come or there is no memory; `no_memory` is set for the latter.
uint8_t* read_growing(iso_file* file, uint32_t size, uint32_t& read, bool& no_memory) {
    uint8_t* bytes = nullptr;
    read = 0;
    no_memory = false;
    while (read < size || bytes == nullptr) {
        const uint64_t doubled = uint64_t{read} + std::max(kFirstPiece, read);
        const auto capacity = static_cast<uint32_t>(std::min<uint64_t>(size, doubled));
        auto* grown = static_cast<uint8_t*>(systemmalloc(capacity));
        no_memory = grown == nullptr;
        if (!no_memory && bytes != nullptr) std::memcpy(grown, bytes, read);
        systemfree(bytes);
        bytes = grown;
        if (no_memory) return nullptr;
        if (!read_stream(file, bytes + read, capacity - read)) {
            systemfree(bytes);
            return nullptr;
        }
        read = capacity;
    }
    return bytes;
}

// The same into the arena; a body that one arena block holds goes there directly.
uint8_t* read_into_arena(iso_file* file, uint32_t size) {
    if (size <= kFirstPiece) {
        auto* bytes = static_cast<uint8_t*>(isoFFmalloc(file, size));
        return bytes != nullptr && read_stream(file, bytes, size) ? bytes : nullptr;
    }
    uint32_t read = 0;
    bool no_memory = false;
    uint8_t* grown = read_growing(file, size, read, no_memory);
    if (no_memory) file->own->lacked_memory = 1;
    if (grown == nullptr) return nullptr;
    auto* bytes = static_cast<uint8_t*>(isoFFmalloc(file, size));
    if (bytes != nullptr) std::memcpy(bytes, grown, size);
    systemfree(grown);
    return bytes;
}

// --- SDP texts ---

// What is left of the box at hand, and a NUL, into `text`; a second one is refused.
int read_sdp_text(iso_file* file, char*& text) {
    if (text != nullptr) {
        remark(file, "extra sdp\n");
        return -1;
    }
    const uint32_t length = file->moov_left;
    text = arena_array<char>(file, size_t{length} + 1);
    if (text == nullptr) return -1;
    return getbytes(file, text, length) ? 0 : -1;
}

int read_track_sdp(iso_file* file, uint32_t body) {
    if (current(file) == nullptr) return pass_over(file, body);
    return read_sdp_text(file, current(file)->sdp_text);
}

int read_movie_sdp(iso_file* file, uint32_t) {
    getint32(file);  // description format
    return read_sdp_text(file, file->sdp_text);
}

// --- sample entries ---

int read_visual_entry(iso_file* file, int32_t codec);
int read_audio_entry(iso_file* file, int32_t codec);

int read_mp4v(iso_file* file, uint32_t) {
    return read_visual_entry(file, ISO_CODEC_MP4V);
}
int read_s263(iso_file* file, uint32_t) {
    return read_visual_entry(file, ISO_CODEC_S263);
}
int read_avc1(iso_file* file, uint32_t) {
    return read_visual_entry(file, ISO_CODEC_AVC1);
}
int read_sawb(iso_file* file, uint32_t) {
    return read_audio_entry(file, ISO_CODEC_SAWB);
}
int read_sawp(iso_file* file, uint32_t) {
    return read_audio_entry(file, ISO_CODEC_SAWP);
}
int read_samr(iso_file* file, uint32_t) {
    return read_audio_entry(file, ISO_CODEC_SAMR);
}

int read_mp4a(iso_file* file, uint32_t) {
    if (current(file) != nullptr) current(file)->flags &= ~iso_track_prepends_dsi;
    return read_audio_entry(file, ISO_CODEC_MP4A);
}

// Hint sample entries (ISO/IEC 14496-12, 9.1.2).
int read_hint_entry(iso_file* file, int32_t codec);
int read_rtp(iso_file* file, uint32_t) {
    return read_hint_entry(file, ISO_CODEC_RTP);
}
int read_srtp(iso_file* file, uint32_t) {
    return read_hint_entry(file, ISO_CODEC_SRTP);
}

int read_tims(iso_file* file, uint32_t) {
    if (current(file) != nullptr) current(file)->rtp_timescale = getint32(file);
    return 0;
}

int read_tsro(iso_file* file, uint32_t) {
    if (current(file) == nullptr) return 0;
    current(file)->rtp_ts_offset = getint32(file);
    current(file)->has_ts_offset = 1;
    return 0;
}

int read_snro(iso_file* file, uint32_t) {
    if (current(file) == nullptr) return 0;
    current(file)->rtp_seq_offset = getint32(file);
    current(file)->has_seq_offset = 1;
    return 0;
}

int read_srpp(iso_file* file, uint32_t);

// --- media, track and movie boxes ---

int read_stsd(iso_file* file, uint32_t);
int read_stbl(iso_file* file, uint32_t);

int read_mdhd(iso_file* file, uint32_t) {
    iso_track* track = current(file);
    if (track == nullptr) return 0;
    const uint8_t version = getbyte(file);
    getint24(file);  // flags
    if (version != 0) return skip(file, kWideMovieTimes) == 1 ? 0 : -1;
    track->creation_time = getint32(file);
    track->modification_time = getint32(file);
    track->timescale = getint32(file);
    track->duration = getint32(file);
    track->own->language = getint16(file);
    return 0;
}

int read_hdlr(iso_file* file, uint32_t) {
    if (current(file) == nullptr) return 0;
    skip(file, 8);  // version, flags, pre-defined
    return getID(file, current(file)->handler) ? 0 : -1;
}

int read_hint_reference(iso_file* file, uint32_t) {
    // A hint track that holds all its payload itself may refer to no track.
    const bool refers = file->moov_left >= sizeof(uint32_t);
    if (current(file) != nullptr && refers) current(file)->hint_track_ref = getint32(file);
    return 0;
}

void read_matrix(iso_file* file, iso_track* track) {
    for (uint32_t& element : track->matrix)
        element = getint32(file);
}

int read_tkhd(iso_file* file, uint32_t) {
    constexpr uint32_t kBody = 84, kWideBody = 96;  // of version 0, and of the others
    const uint32_t needed = file->moov_left > 0 && *file->moov_buffer != 0 ? kWideBody : kBody;
    if (file->moov_left < needed) {
        remark_end_of_buffer(file, "read_buf", needed);
        return 0;
    }
    const uint8_t version = getbyte(file);
    const uint32_t flags = getint24(file);
    iso_track* track = isoFFtrack(file);
    if (track == nullptr) return -1;
    file->current_track = track;
    track->own->header_flags = flags;
    if (version == 0) {
        track->creation_time = getint32(file);
        track->modification_time = getint32(file);
        track->track_id = getint32(file);
        getint32(file);  // reserved
        getint32(file);  // duration, in movie units: that of the media header is kept
    } else {
        skip(file, kWideTrackTimes);
    }
    track->codec = ISO_CODEC_NONE;
    skip(file, 8);  // reserved
    track->layer = getint16(file);
    track->alternate_group = getint16(file);
    track->volume = getint16(file);
    getint16(file);  // reserved
    read_matrix(file, track);
    track->own->display_width = getint32(file);
    track->own->display_height = getint32(file);
    track->width = track->own->display_width >> 16;
    track->height = track->own->display_height >> 16;
    return 0;
}

// Initial object descriptor (ISO/IEC 14496-14, 5.1).
int read_iods(iso_file* file, uint32_t body) {
    constexpr uint32_t kSmallestWithProfiles = 12;
    constexpr uint8_t kInitialObjectDescriptorTag = 0x10;
    constexpr uint32_t kLongestWithoutProfiles = 6;
    if (body <= kSmallestWithProfiles) return 0;
    getint32(file);  // version and flags
    if (getbyte(file) != kInitialObjectDescriptorTag) return 0;
    uint32_t length = 0;
    if (getxlen(file, length) < 0 || length <= kLongestWithoutProfiles) return 0;
    file->od_id = getint16(file) >> 6;
    file->od_profile = getbyte(file);
    file->scene_profile = getbyte(file);
    file->audio_profile = getbyte(file);
    file->visual_profile = getbyte(file);
    file->graphics_profile = getbyte(file);
    return 0;
}

int read_mvhd(iso_file* file, uint32_t) {
    const uint8_t version = getbyte(file);
    getint24(file);  // flags
    if (version == 0) {
        file->creation_time = getint32(file);
        file->modification_time = getint32(file);
        file->timescale = file->own->edit_timescale = getint32(file);
        file->duration = getint32(file);
    } else {
        skip(file, kWideDates);
        file->own->edit_timescale = getint32(file);
        skip(file, kWideMovieTimes - kWideDates - 4);
    }
    skip(file, 4 + 2 + 70);  // rate, volume; reserved, matrix and pre-defined
    file->next_track_id = getint32(file);
    return 0;
}

// --- containers and the tables of what they hold ---

constexpr isobox sinf_box[] = {{"schm", pass_over}, {"schi", pass_over}, {nullptr, nullptr}};

constexpr isobox rtp_box[] = {{"tims", read_tims},
                              {"tsro", read_tsro},
                              {"snro", read_snro},
                              {"srpp", read_srpp},
                              {nullptr, nullptr}};

constexpr isobox dec_spec_box[] = {{"damr", read_damr}, {"dawp", read_dawp}, {"d263", read_d263},
                                   {"avcC", read_avcC}, {"esds", read_esds}, {nullptr, nullptr}};

constexpr isobox stsd_box[] = {{"mp4a", read_mp4a}, {"mp4v", read_mp4v}, {"samr", read_samr},
                               {"sawb", read_sawb}, {"sawp", read_sawp}, {"s263", read_s263},
                               {"avc1", read_avc1}, {"rtp ", read_rtp},  {"srtp", read_srtp},
                               {nullptr, nullptr}};

constexpr isobox stbl_box[] = {{"stsd", read_stsd}, {"stts", read_stts}, {"stsc", read_stsc},
                               {"stsz", read_stsz}, {"stco", read_stco}, {"ctts", read_ctts},
                               {"stss", read_stss}, {"sbgp", read_sbgp}, {"sgpd", read_sgpd},
                               {nullptr, nullptr}};

constexpr isobox dinf_box[] = {{"dref", pass_over}, {nullptr, nullptr}};

int read_dinf(iso_file* file, uint32_t) {
    return parse_rest(file, dinf_box);
}

constexpr isobox minf_box[] = {{"smhd", pass_over}, {"vmhd", pass_over}, {"hmhd", pass_over},
                               {"dinf", read_dinf}, {"stbl", read_stbl}, {nullptr, nullptr}};

int read_minf(iso_file* file, uint32_t) {
    return parse_rest(file, minf_box);
}

constexpr isobox mdia_box[] = {
    {"mdhd", read_mdhd}, {"hdlr", read_hdlr}, {"minf", read_minf}, {nullptr, nullptr}};

int read_mdia(iso_file* file, uint32_t) {
    if (current(file) == nullptr) file->own->headless_media = 1;
    return parse_rest(file, mdia_box);
}

// Edits are kept for whoever copies a file; reading samples does not look at them. A list that its
// box does not hold is none.
int read_elst(iso_file* file, uint32_t) {
    constexpr uint32_t kEntry = 12, kWideEntry = 20;
    iso_track* track = current(file);
    if (track == nullptr || track->own->edits != nullptr || file->moov_left < 8) return 0;
    const bool wide = getbyte(file) != 0;
    getint24(file);  // flags
    const uint32_t count = getint32(file);
    if (count == 0 || count > file->moov_left / (wide ? kWideEntry : kEntry)) return 0;
    track->own->edits = arena_array<iso_elst_entry>(file, count);
    if (track->own->edits == nullptr) return -1;
    track->own->edit_count = static_cast<int32_t>(count);
    for (iso_elst_entry& edit : std::span(track->own->edits, count)) {
        const uint64_t duration_high = wide ? getint32(file) : 0;
        edit.segment_duration = duration_high << 32 | getint32(file);
        const uint64_t time_high = wide ? getint32(file) : 0;
        const uint32_t time_low = getint32(file);
        edit.media_time = wide ? static_cast<int64_t>(time_high << 32 | time_low)
                               : static_cast<int32_t>(time_low);
        edit.media_rate = getint32(file);
    }
    return 0;
}

constexpr isobox edts_box[] = {{"elst", read_elst}, {nullptr, nullptr}};

int read_edts(iso_file* file, uint32_t) {
    return parse_rest(file, edts_box);
}

constexpr isobox meta_box[] = {{"xml ", pass_over}, {nullptr, nullptr}};

int read_meta(iso_file* file, uint32_t) {
    getint32(file);  // version and flags
    return parse_rest(file, meta_box);
}

constexpr isobox tref_box[] = {{"hint", read_hint_reference}, {nullptr, nullptr}};

int read_tref(iso_file* file, uint32_t) {
    return parse_rest(file, tref_box);
}

constexpr isobox hnti_box[] = {
    {"sdp ", read_track_sdp}, {"rtp ", read_movie_sdp}, {nullptr, nullptr}};

int read_hnti(iso_file* file, uint32_t) {
    return parse_rest(file, hnti_box);
}

constexpr isobox udta_box[] = {{"hnti", read_hnti}, {"tsel", pass_over}, {nullptr, nullptr}};

int read_udta(iso_file* file, uint32_t) {
    return parse_rest(file, udta_box);
}

constexpr isobox trak_box[] = {{"tkhd", read_tkhd}, {"mdia", read_mdia}, {"edts", read_edts},
                               {"meta", read_meta}, {"tref", read_tref}, {"udta", read_udta},
                               {nullptr, nullptr}};

// What stands in a track without a header that can be read, or before it, belongs to no track.
int read_trak(iso_file* file, uint32_t) {
    iso_track* const before = file->current_track;
    file->current_track = nullptr;
    file->own->headless_media = 0;
    const int result = parse_rest(file, trak_box);
    const bool has_header = file->current_track != nullptr;
    if (!has_header) file->current_track = before;
    if (!has_header) lose_track(file, "no whole tkhd");
    if (has_header && file->own->headless_media != 0) lose_track(file, "mdia before tkhd");
    return result;
}

constexpr isobox moov_box[] = {{"mvhd", read_mvhd},
                               {"trak", read_trak},
                               {"iods", read_iods},
                               {"udta", read_udta},
                               {nullptr, nullptr}};

int read_srpp(iso_file* file, uint32_t) {
    if (current(file) == nullptr) return 0;
    getint32(file);  // version and flags
    for (auto& scheme : current(file)->srpp_schemes)
        getID(file, scheme);
    return parse_rest(file, sinf_box);
}

// Begins a sample entry of a medium; the track that it describes, or null.
iso_track* begin_entry(iso_file* file, int32_t codec) {
    iso_track* track = current(file);
    if (track == nullptr) return nullptr;
    track->codec = codec;
    track->own->entry = file->moov_buffer;
    track->own->entry_length = file->moov_left;
    track->own->entry_count++;
    return track;
}

int read_visual_entry(iso_file* file, int32_t codec) {
    iso_track* track = begin_entry(file, codec);
    if (track == nullptr) return 0;
    skip(file, 24);  // reserved, data reference index, pre-defined
    const uint16_t width = getint16(file);
    const uint16_t height = getint16(file);
    if (width != 0) track->width = width;
    if (height != 0) track->height = height;
    track->horiz_resolution = getint32(file);
    track->vert_resolution = getint32(file);
    skip(file, 42);  // reserved, frame count, compressor name, depth, pre-defined
    return parse_rest(file, dec_spec_box);
}

int read_audio_entry(iso_file* file, int32_t codec) {
    iso_track* track = begin_entry(file, codec);
    if (track == nullptr) return 0;
    skip(file, 16);  // reserved, data reference index
    const uint16_t channel_count = getint16(file);
    const uint16_t sample_bits = getint16(file);
    if (codec == ISO_CODEC_SAMR) {
        track->channel_count = channel_count;
        track->sample_bits = sample_bits;
    }
    skip(file, 8);  // pre-defined, reserved, sample rate
    return parse_rest(file, dec_spec_box);
}

int read_hint_entry(iso_file* file, int32_t codec) {
    iso_track* track = current(file);
    if (track == nullptr) return 0;
    track->codec = codec;
    skip(file, 8);  // reserved, data reference index
    const uint16_t version = getint16(file);
    const uint16_t highest_compatible = getint16(file);
    if (codec == ISO_CODEC_RTP) {
        track->rtp_hint_version = version;
        track->rtp_highest_compat = highest_compatible;
    }
    track->rtp_max_packet = getint32(file);
    return parse_rest(file, rtp_box);
}

int read_stsd(iso_file* file, uint32_t) {
    skip(file, 8);  // version, flags, entry count
    return parse_rest(file, stsd_box);
}

int read_stbl(iso_file* file, uint32_t) {
    iso_track* track = current(file);
    if (track == nullptr) return 0;
    const int walked = parse_rest(file, stbl_box);
    // A further `stbl` without tables of its own leaves nothing to check: a file may have many.
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

// --- top level ---

int read_ftyp(iso_file* file, uint32_t body) {
    constexpr uint32_t kFixedPart = 8;
    constexpr uint32_t kCode = 4;
    if (body < kFixedPart || !getID(file, file->major_brand)) return -1;
    file->minor_version = static_cast<int32_t>(getint32(file));
    if (file->compatible_brands != nullptr) isoFFfree(file->compatible_brands);
    file->compatible_brands = nullptr;
    const uint32_t count = (body - kFixedPart) / kCode;
    if (count == 0) return pass_over(file, body - kFixedPart);
    const uint8_t* codes = read_into_arena(file, body - kFixedPart);
    auto* list = codes == nullptr ? nullptr : arena_array<char>(file, size_t{count} * (kCode + 1));
    if (list == nullptr) return -1;
    for (uint32_t i = 0; i < count; ++i) {
        std::memcpy(list + i * (kCode + 1), codes + i * kCode, kCode);
        list[i * (kCode + 1) + kCode] = i + 1 < count ? ' ' : '\0';
    }
    file->compatible_brands = list;
    return 0;
}

// Where the walk ended early, the tracks that follow are not read.
int read_trak_after_damage(iso_file* file, uint32_t) {
    lose_track(file, "after a damaged one");
    return 0;
}

constexpr isobox rest_of_moov_box[] = {{"trak", read_trak_after_damage}, {nullptr, nullptr}};

int read_moov(iso_file* file, uint32_t body) {
    file->moov_buffer = read_into_arena(file, body);
    if (file->moov_buffer == nullptr) return -1;
    file->moov_left = body;
    file->own->movie_end = file->moov_buffer + body;
    file->in_moov_buffer = 1;
    const int result = parse_rest(file, moov_box);
    if (result != 0) parse_rest(file, rest_of_moov_box);
    file->in_moov_buffer = 0;
    return result;
}

int read_mdat(iso_file* file, uint32_t body) {
    file->mdat_start = file->file_pos;
    if (file->first_track != nullptr) return 1;  // samples are read from the stream when asked for
    if (body == 0 || file->mem_seek != nullptr) return pass_over(file, body);
    systemfree(file->mdat_buffer);  // of an earlier one: the last before `moov` is kept
    file->mdat_buffer = nullptr;
    if (body > iso_mdat_buffer_max) return pass_over(file, body);
    uint32_t read = 0;
    bool no_memory = false;
    file->mdat_buffer = read_growing(file, body, read, no_memory);
    if (no_memory) return pass_over(file, body - read);
    if (file->mdat_buffer == nullptr) return -1;
    file->mdat_end = file->mdat_start + body;
    return 0;
}

constexpr isobox file_box[] = {
    {"ftyp", read_ftyp}, {"moov", read_moov}, {"mdat", read_mdat}, {nullptr, nullptr}};

// --- the walk ---

struct BoxHeader {
    uint32_t size;
    uint32_t type;
};

bool read_box_header(iso_file* file, BoxHeader& header) {
    if (file->in_moov_buffer && file->moov_left == 0) return false;
    uint8_t raw[kBoxHeader];
    if (!getbytes(file, raw, sizeof raw)) return false;
    header = {load_be32(raw), load_be32(raw + 4)};
    return true;
}

const isobox* find(const isobox* table, uint32_t type) {
    for (; table->type != nullptr; ++table) {
        if (fourcc(table->type) == type) return table;
    }
    return nullptr;
}

// Whether the next track begins with the bytes that a box has left: a size that is too long has cut
// into it. The box may end inside that track's header.
bool cuts_into_track(const iso_file* file) {
    const auto in_movie = static_cast<size_t>(file->own->movie_end - file->moov_buffer);
    return file->moov_left > 0 && in_movie >= kBoxHeader &&
           load_be32(file->moov_buffer + 4) == fourcc("trak");
}

// Runs a handler on a box inside `moov`: it sees the box's own bytes only, and whatever it left of
// them is passed over.
int run_bounded(iso_file* file, const isobox* box, uint32_t body, bool to_end) {
    const uint32_t left = file->moov_left;
    const bool is_skipped = box == nullptr || box->handler == pass_over;
    if (!to_end && body > left) {
        remark_end_of_buffer(file, is_skipped ? "seek_buf" : "read_buf", body);
    }
    const uint32_t own = to_end ? left : std::min(body, left);
    uint8_t* const behind = file->moov_buffer + own;
    file->moov_left = own;
    const int result = box == nullptr ? 0 : box->handler(file, body);
    if (result == 0 && box != nullptr && cuts_into_track(file))
        lose_track(file, "begins inside another track");
    file->moov_buffer = behind;
    file->moov_left = left - own;
    return result;
}

int run_box(iso_file* file, const isobox* table, const BoxHeader& header) {
    const isobox* box = find(table, header.type);
    const bool to_end = header.size == 0;
    const uint32_t body = to_end ? 0 : header.size - kBoxHeader;
    if (box == nullptr && file->in_moov_buffer && header.type == fourcc("trak"))
        lose_track(file, "inside another track");
    if (file->in_moov_buffer) return run_bounded(file, box, body, to_end);
    return box == nullptr ? pass_over(file, body) : box->handler(file, body);
}

int walk(iso_file* file, const isobox* table, int size) {
    const bool open_ended = size == 0 && table != hnti_box;
    const int at_end_of_input = open_ended ? 0 : -1;
    int64_t left = open_ended ? kOpenEnded : size;
    while (left >= 1) {
        // Bytes that cannot hold a box header are padding; some writers close `udta` with a zero
        // word.
        if (file->in_moov_buffer && left < kBoxHeader) return 0;
        BoxHeader header{};
        if (!read_box_header(file, header)) return at_end_of_input;
        if (header.size != 0 && header.size < kBoxHeader) {
            if (file->in_moov_buffer) remark(file, "skipping the rest: box size %u\n", header.size);
            file->moov_left = 0;
            return -1;
        }
        left = header.size == 0 ? 0 : left - header.size;
        const bool top = file->depth == 1;
        if (top) file->file_pos += kBoxHeader;
        const int result = run_box(file, table, header);
        if (result != 0) return result == 1 ? 0 : result;
        if (top && header.size != 0) file->file_pos += header.size - kBoxHeader;
    }
    return 0;
}

}  // namespace

int parse(iso_file* file, const isobox* table, int size) {
    file->depth++;
    const int result = walk(file, table, size);
    file->depth--;
    return result;
}

int parse_rest(iso_file* file, const isobox* table) {
    return parse(file, table, static_cast<int>(std::min<uint32_t>(file->moov_left, INT_MAX)));
}

bool read_sample_entry(iso_track* track, std::span<uint8_t> box) {
    iso_file* file = track->file;
    file->current_track = track;
    file->in_moov_buffer = 1;
    file->moov_buffer = box.data();
    file->moov_left = static_cast<uint32_t>(box.size());
    file->own->movie_end = box.data() + box.size();
    const int result = parse_rest(file, stsd_box);
    file->in_moov_buffer = 0;
    file->moov_buffer = nullptr;
    file->moov_left = 0;
    return result == 0;
}

int read_header(iso_file* file) {
    const int result = parse(file, file_box, 0);
    if (file->mdat_buffer != nullptr) {
        file->mem_read = mread;
        file->mem_seek = mseek;
        file->mem_cookie = file;
    }
    return result;
}

}  // namespace kestrel
