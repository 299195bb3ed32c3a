// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <cstddef>

#include "kestrel/isoff.h"

// The offsets of the first fields of the public records are fixed on the 32-bit target, because
// hosts rely on them. The library's own fields come after these.

namespace kestrel {
namespace {

struct Place {
    size_t is, should_be;  // bytes from the start of the record
};

template <size_t Count>
constexpr bool are_in_place(const Place (&fields)[Count]) {
    constexpr bool is_target = sizeof(void*) == 4;
    return !is_target || std::all_of(fields, fields + Count, [](const Place& field) {
        return field.is == field.should_be;
    });
}

constexpr Place kFileFields[] = {
    {offsetof(iso_file, stream), 0},
    {offsetof(iso_file, indexed_read), 4},
    {offsetof(iso_file, magic), 8},
    {offsetof(iso_file, od_id), 12},
    {offsetof(iso_file, od_profile), 16},
    {offsetof(iso_file, scene_profile), 20},
    {offsetof(iso_file, visual_profile), 24},
    {offsetof(iso_file, graphics_profile), 28},
    {offsetof(iso_file, audio_profile), 32},
    {offsetof(iso_file, creation_time), 36},
    {offsetof(iso_file, modification_time), 40},
    {offsetof(iso_file, timescale), 44},
    {offsetof(iso_file, duration), 48},
    {offsetof(iso_file, next_track_id), 52},
    {offsetof(iso_file, first_track), 56},
    {offsetof(iso_file, current_track), 60},
    {offsetof(iso_file, major_brand), 64},
    {offsetof(iso_file, minor_version), 72},
    {offsetof(iso_file, compatible_brands), 76},
    {offsetof(iso_file, file_pos), 80},
    {offsetof(iso_file, mdat_start), 84},
    {offsetof(iso_file, mdat_end), 88},
    {offsetof(iso_file, mdat_buffer), 92},
    {offsetof(iso_file, write_mode), 96},
    {offsetof(iso_file, mem_read), 100},
    {offsetof(iso_file, mem_seek), 104},
    {offsetof(iso_file, mem_cookie), 108},
    {offsetof(iso_file, depth), 112},
    {offsetof(iso_file, header_size), 116},
    {offsetof(iso_file, size_limit), 120},
    {offsetof(iso_file, interleave_limit), 124},
    {offsetof(iso_file, interleave_span), 132},
    {offsetof(iso_file, chunk_count), 140},
    {offsetof(iso_file, first_chunk), 144},
    {offsetof(iso_file, last_chunk), 148},
    {offsetof(iso_file, chunk_free), 152},
    {offsetof(iso_file, chunk_next), 156},
    {offsetof(iso_file, in_moov_buffer), 160},
    {offsetof(iso_file, moov_buffer), 164},
    {offsetof(iso_file, moov_left), 168},
    {offsetof(iso_file, sdp_text), 172},
    {offsetof(iso_file, own), 176},
};

constexpr Place kTrackFields[] = {
    {offsetof(iso_track, magic), 0},
    {offsetof(iso_track, handler), 4},
    {offsetof(iso_track, track_id), 12},
    {offsetof(iso_track, creation_time), 16},
    {offsetof(iso_track, modification_time), 20},
    {offsetof(iso_track, timescale), 24},
    {offsetof(iso_track, duration), 28},
    {offsetof(iso_track, codec), 32},
    {offsetof(iso_track, vendor), 36},
    {offsetof(iso_track, decoder_version), 41},
    {offsetof(iso_track, level), 42},
    {offsetof(iso_track, profile), 43},
    {offsetof(iso_track, mode_set), 44},
    {offsetof(iso_track, mode_change_period), 46},
    {offsetof(iso_track, frames_per_sample), 47},
    {offsetof(iso_track, object_type), 48},
    {offsetof(iso_track, stream_type), 49},
    {offsetof(iso_track, layer), 52},
    {offsetof(iso_track, alternate_group), 56},
    {offsetof(iso_track, volume), 60},
    {offsetof(iso_track, dsi), 64},
    {offsetof(iso_track, dsi_length), 68},
    {offsetof(iso_track, buffer_size), 72},
    {offsetof(iso_track, max_bitrate), 76},
    {offsetof(iso_track, avg_bitrate), 80},
    {offsetof(iso_track, profile_compat), 84},
    {offsetof(iso_track, nal_length_size), 88},
    {offsetof(iso_track, sps_count), 92},
    {offsetof(iso_track, sps_block), 96},
    {offsetof(iso_track, pps_count), 100},
    {offsetof(iso_track, pps_block), 104},
    {offsetof(iso_track, param_sets), 108},
    {offsetof(iso_track, param_sets_length), 112},
    {offsetof(iso_track, channel_count), 116},
    {offsetof(iso_track, sample_bits), 120},
    {offsetof(iso_track, width), 124},
    {offsetof(iso_track, height), 128},
    {offsetof(iso_track, horiz_resolution), 132},
    {offsetof(iso_track, vert_resolution), 136},
    {offsetof(iso_track, file), 140},
    {offsetof(iso_track, next), 144},
    {offsetof(iso_track, flags), 148},
    {offsetof(iso_track, matrix), 152},
    {offsetof(iso_track, hint_track_ref), 188},
    {offsetof(iso_track, sdp_text), 192},
    {offsetof(iso_track, stts_count), 196},
    {offsetof(iso_track, ctts_count), 200},
    {offsetof(iso_track, sample_count), 204},
    {offsetof(iso_track, sample_size), 208},
    {offsetof(iso_track, max_sample_size), 212},
    {offsetof(iso_track, total_bytes), 216},
    {offsetof(iso_track, sample_sizes), 220},
    {offsetof(iso_track, chunks), 224},
    {offsetof(iso_track, chunk_count), 228},
    {offsetof(iso_track, stsc), 232},
    {offsetof(iso_track, stsc_count), 236},
    {offsetof(iso_track, stts), 240},
    {offsetof(iso_track, ctts), 244},
    {offsetof(iso_track, cur_sample), 248},
    {offsetof(iso_track, dsi_sent), 252},
    {offsetof(iso_track, cur_offset), 256},
    {offsetof(iso_track, cur_chunk), 260},
    {offsetof(iso_track, stts_index), 264},
    {offsetof(iso_track, stts_in_entry), 268},
    {offsetof(iso_track, ctts_index), 272},
    {offsetof(iso_track, ctts_in_entry), 276},
    {offsetof(iso_track, sync_count), 280},
    {offsetof(iso_track, sync_samples), 284},
    {offsetof(iso_track, sbgp_count), 288},
    {offsetof(iso_track, sbgp_list), 292},
    {offsetof(iso_track, sgpd_type), 296},
    {offsetof(iso_track, sgpd_count), 304},
    {offsetof(iso_track, sgpd_list), 308},
    {offsetof(iso_track, hint), 312},
    {offsetof(iso_track, rtp_hint_version), 316},
    {offsetof(iso_track, rtp_highest_compat), 318},
    {offsetof(iso_track, rtp_max_packet), 320},
    {offsetof(iso_track, rtp_timescale), 324},
    {offsetof(iso_track, rtp_ts_offset), 328},
    {offsetof(iso_track, rtp_seq_offset), 332},
    {offsetof(iso_track, seq_rebase), 336},
    {offsetof(iso_track, last_seq), 340},
    {offsetof(iso_track, last_timestamp), 344},
    {offsetof(iso_track, has_ts_offset), 348},
    {offsetof(iso_track, has_seq_offset), 352},
    {offsetof(iso_track, last_read_pos), 356},
    {offsetof(iso_track, last_payload_type), 360},
    {offsetof(iso_track, srpp_schemes), 364},
    {offsetof(iso_track, own), 384},
};

constexpr Place kHintFields[] = {
    {offsetof(rtp_hint_state, media_track), 0}, {offsetof(rtp_hint_state, packets_left), 4},
    {offsetof(rtp_hint_state, sample), 8},      {offsetof(rtp_hint_state, offset), 12},
    {offsetof(rtp_hint_state, rtp_time), 16},   {offsetof(rtp_hint_state, timestamp), 24},
    {offsetof(rtp_hint_state, ssrc), 28},
};

static_assert(are_in_place(kFileFields));
static_assert(are_in_place(kTrackFields));
static_assert(are_in_place(kHintFields));
// The pointer to the private record is last.
static_assert(sizeof(iso_file) == offsetof(iso_file, own) + sizeof(void*));
static_assert(sizeof(void*) != 4 || sizeof(iso_track) == offsetof(iso_track, own) + sizeof(void*));

}  // namespace
}  // namespace kestrel
