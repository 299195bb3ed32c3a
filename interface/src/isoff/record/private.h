// SPDX-License-Identifier: Apache-2.0
// What the library keeps for a file and for a track besides their public records. The companion
// library and the tool, which have the same version, use it too.
#ifndef KESTREL_ISOFF_PRIVATE_H
#define KESTREL_ISOFF_PRIVATE_H

#include <cstdio>
#include <span>

#include "kestrel/isoff.h"

struct iso_hinter;
struct iso_index;
namespace kestrel {
class SampleProvider;
struct CopiedBoxes;
struct HintedFrame;
}  // namespace kestrel

struct iso_elst_entry {
    uint64_t segment_duration;  // movie units
    int64_t media_time;         // track units; -1 for an empty edit
    uint32_t media_rate;        // 16.16
};

// Facts about a file that its public record does not have.
struct iso_file_details {
    // Movie units per second as declared in `mvhd`, also in version 1, whose times are not read
    // into timescale and duration. Edit lists count in these units.
    uint32_t edit_timescale;
    // Number of `trak` boxes that were skipped: inside another box, after damage that ends the
    // reading, without a whole `tkhd`, or with their `mdia` before it.
    uint32_t lost_tracks;
    uint32_t direct_write;  // writer, 1: samples are written to the stream at once
};

// Facts about a track that its public record does not have, for copying and reporting it.
struct iso_track_details {
    // Track header, media header, edit list, visual sample entry.
    uint32_t header_flags;                   // of `tkhd`
    uint32_t display_width, display_height;  // pixels, 16.16; of `tkhd`
    uint16_t language;                       // three letters of five bits each (ISO 639-2/T)
    int32_t edit_count;
    iso_elst_entry* edits;
    // Body of the sample entry as read, the last one of `entry_count`. When the track is written,
    // the bytes after the data reference index are copied; without an entry they are made from the
    // fields.
    const uint8_t* entry;
    uint32_t entry_length, entry_count;
    uint32_t frame_count;  // of a visual sample entry: frames in a sample
    uint32_t depth;        // of the same: bits of a pixel
    // Number of samples that `stsz` declares. sample_count is less when the tables do not agree.
    uint32_t declared_samples;
    uint32_t declared_chunks;  // the same of `stco` and chunk_count

    // Writer.
    uint32_t frame_default;     // duration that a sample with a duration of 0 gets
    uint32_t duration_limit;    // longest media duration, track units
    uint32_t max_pdu, avg_pdu;  // hint track: bytes of a packet's payload and header
    // A temporary file, opened for update, that holds the samples instead of memory. Set it before
    // the first sample. isoFFclose closes it.
    std::FILE* spool;
};

// Writer: a sample. `data` is null when its bytes are in the spool or in the stream.
struct iso_frame {
    uint32_t duration;   // track units
    int32_t cts_offset;  // track units
    uint32_t size;       // bytes
    const uint8_t* data;
    void* reserved;
    iso_frame* next;  // in decoding order
};

// Writer: a chunk.
struct iso_run {
    uint32_t start;  // from iso_file_private::media_base
    uint32_t samples;
    uint32_t description;  // sample entry, from 1
    iso_run* next;
};

// Memory from systemmalloc for a frame that exceeds the buffers of a handle.
struct iso_frame_buffer {
    uint8_t* bytes;
    uint32_t capacity, used;
};

struct iso_file_private : iso_file_details {
    iso_track* last_track;
    uint32_t remarks;         // lines about the file that were printed
    uint32_t skip_target;     // stream offset after the box that was skipped last
    uint32_t walked_tracks;   // `trak` boxes of the movie box that the walk reached
    uint32_t headless_media;  // 1: the current track has an `mdia` before its `tkhd`
    uint64_t missing;         // end of the piece of a sample that could not be read; 0: none
    // 1: an allocation for the file failed, so that a part of it may be missing.
    uint32_t lacked_memory;

    // Conversion layer.
    iso_frame_buffer large_sample, large_staging;
    kestrel::HintedFrame* hinted_frame;  // null before the first

    // Writer.
    uint32_t has_visual;          // 1: `iods` declares visual media (14496-1, table 5)
    uint32_t finalised;           // 1: the file was written, or cannot be written any more
    uint32_t write_pos;           // bytes written to the stream
    uint32_t media_base;          // file offset to which iso_run::start is relative
    uint32_t direct_track_limit;  // direct_write: highest track ID that takes samples
    iso_track* direct_track;      // direct_write: the track of the last sample
    uint32_t write_way;           // set by the first sample: 0 none yet, 1 queued, 2 direct
    uint64_t track_cost;          // sum of iso_track_private::header_cost
    // The `iods` of the file that this one is copied from; empty to make it from the fields.
    std::span<const uint8_t> copied_iods;
};

// What interpreting a hint track has cost since its last seek, and what for: a step is a packet, a
// constructor or an empty hint sample.
struct iso_hint_work {
    int64_t unpaid;     // steps, less one for each byte of the packets
    uint64_t read_end;  // how far into the file hint samples were read
};

struct iso_track_private : iso_track_details {
    iso_track* attached_hint;   // the last result of isoFFrtpHinter for this track
    uint32_t dsi_capacity;      // bytes allocated for `dsi`
    uint32_t tables_seen;       // tables that were read; a second one is refused
    uint32_t tables_checked;    // tables_seen at the last check
    uint32_t hint_from_system;  // 1 when `hint` came from the system allocator, not the arena
    uint32_t has_bad_config;    // 1: the decoder configuration could not be read
    // Packets, constructors and empty hint samples of this hint track that were interpreted.
    uint64_t hint_steps;
    iso_hint_work hint_work;
    iso_index* index;  // null while the file is being written

    // Read cursor.
    uint32_t positioned;  // 1 after a call of isoFFsetPosition
    // Number of samples after the current one that are in the same chunk and have the same
    // duration. The cursor moves to them without the tables.
    uint32_t next_alike;

    // Writer. Fields of the reader (sample_count, sample_size while it is constant, duration,
    // stts_count and others) are updated with each sample.
    iso_frame* first_frame;
    iso_frame* last_frame;
    uint64_t header_cost;  // bytes that the samples add to the file
    uint32_t closed;       // 1: a limit was exceeded; no more samples are accepted
    iso_run* first_run;
    iso_run* last_run;
    uint32_t run_count;
    uint32_t run_units;                  // direct_write: duration of the newest run, track units
    uint64_t counted_sizes[5];           // of the sample tables in the count pass
    iso_hinter* hinter;                  // hint track: makes its samples
    kestrel::SampleProvider* provider;   // null when samples are queued
    const kestrel::CopiedBoxes* copied;  // null when the fields declare all
};

namespace kestrel {

inline bool is_hint(const iso_track* track) {
    return track->codec == ISO_CODEC_RTP || track->codec == ISO_CODEC_SRTP;
}

}  // namespace kestrel

#endif
