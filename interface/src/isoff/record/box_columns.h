// SPDX-License-Identifier: Apache-2.0
// The columns of the boxes that are both read and written, in file order (ISO/IEC 14496-12; 3GPP TS
// 26.244, clause 6, for `damr` and `d263`).
//
// `f` is a reader, which stores each column, or a writer, which puts it. A writer puts constant and
// reserved columns; a reader skips them. Version and flags, and the entry count of a table, come
// before the columns.
#ifndef KESTREL_ISOFF_BOX_COLUMNS_H
#define KESTREL_ISOFF_BOX_COLUMNS_H

#include <concepts>
#include <type_traits>

#include "common/movie_defaults.h"
#include "interface/src/isoff/record/record.h"

namespace kestrel {

template <class T, class Record>
concept OneOf = std::same_as<std::remove_const_t<T>, Record>;

// --- entries of tables ---

// Of `stss`, and of the sizes in `stsz`.
void columns(auto& f, OneOf<uint32_t> auto& value) {
    f.u32(value);
}

void columns(auto& f, OneOf<iso_stts_entry> auto& entry) {
    f.u32(entry.count);
    f.u32(entry.delta);
}

void columns(auto& f, OneOf<iso_ctts_entry> auto& entry) {
    f.u32(entry.count);
    f.u32(entry.offset);
}

void columns(auto& f, OneOf<iso_stsc_entry> auto& entry) {
    f.u32(entry.first_chunk);
    f.u32(entry.samples_per_chunk);
    f.u32(entry.description_index);
}

// Of `stco`.
void columns(auto& f, OneOf<iso_chunk> auto& chunk) {
    f.u32(chunk.start);
}

void columns(auto& f, OneOf<iso_sbgp_entry> auto& entry) {
    f.u32(entry.sample_count);
    f.u32(entry.group_description_index);
}

// Times have 32 bits in version 0 of `elst`; they are `wide` in version 1.
void columns(auto& f, OneOf<iso_elst_entry> auto& edit, bool wide) {
    f.time(edit.segment_duration, wide);
    f.time(edit.media_time, wide);
    f.u32(edit.media_rate);
}

// Counts the bytes of columns.
class ColumnCounter {
  public:
    uint32_t bytes = 0;
    void u32(uint32_t) { bytes += 4; }
    void u32(int32_t) { bytes += 4; }
    void time(uint64_t, bool wide) { bytes += wide ? 8 : 4; }
    void time(int64_t, bool wide) { bytes += wide ? 8 : 4; }
};

// Bytes of an entry in the file.
template <class Entry, class... Form>
uint32_t bytes_of(Form... form) {
    ColumnCounter counter;
    const Entry entry{};
    columns(counter, entry, form...);
    return counter.bytes;
}

// --- headers, in version 0 ---

void mvhd_times(auto& f, OneOf<iso_file> auto& file) {
    f.u32(file.creation_time);
    f.u32(file.modification_time);
    f.u32(file.timescale);
    f.u32(file.duration);
}

// The fields after the times, in all versions.
void mvhd_rest(auto& f, OneOf<iso_file> auto& file) {
    f.constant32(kUnity);  // rate
    f.constant16(kFullVolume);
    f.reserved(10);
    for (const uint32_t element : kUnityMatrix)
        f.constant32(element);
    f.reserved(24);
    f.u32(file.next_track_id);
}

// The duration is in movie units.
void tkhd_times(auto& f, OneOf<iso_track> auto& track, OneOf<uint32_t> auto& duration) {
    f.u32(track.creation_time);
    f.u32(track.modification_time);
    f.u32(track.track_id);
    f.reserved(4);
    f.u32(duration);
}

// What follows the times, in every version. The size is in pixels, 16.16.
void tkhd_rest(auto& f, OneOf<iso_track> auto& track, OneOf<uint32_t> auto& width,
               OneOf<uint32_t> auto& height) {
    f.reserved(8);
    f.u16(track.layer);
    f.u16(track.alternate_group);
    f.u16(track.volume);
    f.reserved(2);
    for (auto& element : track.matrix)
        f.u32(element);
    f.u32(width);
    f.u32(height);
}

void mdhd_columns(auto& f, OneOf<iso_track> auto& track) {
    f.u32(track.creation_time);
    f.u32(track.modification_time);
    f.u32(track.timescale);
    f.u32(track.duration);
    f.u16(track.own->language);
    f.reserved(2);
}

// Up to the name.
void hdlr_columns(auto& f, OneOf<iso_track> auto& track) {
    f.reserved(4);
    f.id(track.handler);
    f.reserved(12);
}

// --- boxes without version and flags ---

// The first fields of `damr`, `dawp` and `d263`.
void vendor_columns(auto& f, OneOf<iso_track> auto& track) {
    f.id(track.vendor);
    f.u8(track.decoder_version);
}

void damr_columns(auto& f, OneOf<iso_track> auto& track) {
    vendor_columns(f, track);
    f.u16(track.mode_set);
    f.u8(track.mode_change_period);
    f.u8(track.frames_per_sample);
}

void d263_columns(auto& f, OneOf<iso_track> auto& track) {
    vendor_columns(f, track);
    f.u8(track.level);
    f.u8(track.profile);
}

void tims_columns(auto& f, OneOf<iso_track> auto& track) {
    f.u32(track.rtp_timescale);
}

}  // namespace kestrel

#endif
