// SPDX-License-Identifier: Apache-2.0
// The ISO base media file reader and writer (ISO/IEC 14496-12 with the 3GPP sample entries).
//
// isoFFopen walks a file's boxes through the host's stream table into one iso_file with a list of
// iso_track records; samples and RTP packets are then read from a track. The records are plain and
// may be looked at; only the functions below change them. Functions of this header return counts,
// 0, or a negative code, and never throw. What cannot be said in a code goes to standard error as
// short lines, at most 100 about one file. A file record and its tracks belong to one caller at a
// time.
//
// Times are seconds in double precision: a value in track units divided by the track's timescale,
// or 0.0 where that timescale is 0. All file offsets and sizes are in bytes.
//
// Writing: isoFFopen(stream, "w", ...) over an empty stream, isoFFtrack or one of the *_isoFFtrack
// functions for each track, isoFFwrite for each sample in decoding order, isoFFclose. The samples
// wait in memory and the file is written as a whole at close, `moov` first; with
// iso_file_details::direct_write, which is looked at when the first sample comes, they go to the
// stream as they come, and `moov` stands at the end. A file that could not be finished has no
// `moov`, unless its stream cannot seek back: then it may have one, with media missing after it.
// The fields of a track and of its details that describe it (handler, codec, timescale,
// configuration, sync_samples, sbgp_list, edits, sdp_text ...) may be filled in until isoFFclose,
// with memory from isoFFmalloc.
// Functions that read samples answer -1 for a track that is being written.
#ifndef KESTREL_ISOFF_H
#define KESTREL_ISOFF_H

#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "kestrel/api.h"
#include "kestrel/stream.h"

// Kind of a track's sample entry, as iso_track::codec holds it.
enum iso_codec : int32_t {
    ISO_CODEC_NONE = -1,  // no sample entry seen
    ISO_CODEC_MP4V = 0,   // MPEG-4 Visual
    ISO_CODEC_MP4A = 1,   // AAC
    ISO_CODEC_S263 = 2,   // H.263
    ISO_CODEC_SAMR = 3,   // AMR narrow band
    ISO_CODEC_AVC1 = 4,   // H.264
    ISO_CODEC_SAWB = 5,   // AMR wide band
    ISO_CODEC_SAWP = 7,   // extended AMR wide band
    ISO_CODEC_RTP = 8,    // RTP hint track
    ISO_CODEC_SRTP = 9    // SRTP hint track
};

struct iso_track;
struct iso_file_private;
struct iso_track_private;

struct iso_file {
    _TAG_KST_IOSTREAM_CALLBACK_INTERFACE* stream;  // the host's table
    uint8_t indexed_read;  // 1: sample reads use IndexRead; 0: Seek, then SeekNRead
    uint32_t magic;        // iso_file_magic in a valid record
    uint32_t od_id;        // object descriptor ID of `iods`
    uint32_t od_profile, scene_profile, visual_profile, graphics_profile, audio_profile;
    uint32_t creation_time, modification_time;  // seconds since 1904-01-01
    uint32_t timescale;                         // movie units per second
    uint32_t duration;                          // in movie units
    uint32_t next_track_id;
    iso_track* first_track;    // list in file order
    iso_track* current_track;  // the track being filled: that of the last `tkhd`
    char major_brand[5];
    int32_t minor_version;
    char* compatible_brands;        // four-character codes separated by blanks; null for none
    uint32_t file_pos;              // position of the top-level walk
    uint32_t mdat_start, mdat_end;  // file range of a media data body that was loaded
    uint8_t* mdat_buffer;           // that body, when it stood before `moov` and was not too long
    uint32_t write_mode;            // 1 when opened with "w"
    // In-memory access to mdat_buffer with the file record as cookie; null without a buffer.
    size_t (*mem_read)(void* destination, size_t size, size_t count, iso_file* cookie);
    int (*mem_seek)(iso_file* cookie, long offset, int whence);
    iso_file* mem_cookie;
    uint32_t depth;        // nesting of the running box walk
    uint32_t header_size;  // writer: running estimate of the size of `moov`
    // Writer: file size limit in bytes; the longest that a track may run and the longest that one
    // track's samples run on before another's, both in seconds.
    uint32_t size_limit;
    double interleave_limit, interleave_span;
    // Allocation arena: number of blocks, first and newest one, what is free in the newest, and
    // where its free part begins.
    uint32_t chunk_count;
    void* first_chunk;
    void* last_chunk;
    size_t chunk_free;
    uint8_t* chunk_next;
    uint32_t in_moov_buffer;  // 1 while byte readers take their bytes from moov_buffer
    uint8_t* moov_buffer;     // next byte of the in-memory `moov`
    uint32_t moov_left;       // its bytes not yet consumed, of the box at hand
    char* sdp_text;           // movie-level SDP
    iso_file_private* own;    // the library's; see isoFFfileDetails
};

inline constexpr uint32_t iso_file_magic = 0x0C0DE100;
inline constexpr uint32_t iso_track_magic = 0x0C0DE200;

// The longest `mdat` body that is loaded into iso_file::mdat_buffer, in bytes. A longer one is
// skipped by a seek, as one is for which there is no memory.
inline constexpr uint32_t iso_mdat_buffer_max = 4 << 20;

struct iso_chunk {
    uint32_t start;  // file offset of the chunk
    uint32_t end;    // file offset just past its last sample
};

struct iso_stsc_entry {
    uint32_t first_chunk;  // counts from 1
    uint32_t samples_per_chunk;
    uint32_t description_index;
};

struct iso_stts_entry {
    uint32_t count;
    uint32_t delta;  // track units
};

struct iso_ctts_entry {
    uint32_t count;
    int32_t offset;  // track units
};

struct iso_sbgp_entry {
    uint32_t sample_count;
    uint32_t group_description_index;
    iso_sbgp_entry* next;
};

struct iso_sgpd_record {
    uint32_t words[5];
};

struct iso_sgpd_entry {
    uint16_t count;
    iso_sgpd_record* records;
    iso_sgpd_entry* next;
};

struct iso_elst_entry {
    uint64_t segment_duration;  // movie units
    int64_t media_time;         // track units; -1 for an empty edit
    uint32_t media_rate;        // 16.16
};

// Position of the RTP packet reader in a hint track. isoFFrtpHinter makes one; a caller that wants
// the packets of a certain hint track may hang a zeroed one of its own, with media_track filled, on
// iso_track::hint, and take it away before the file is closed.
struct rtp_hint_state {
    iso_track* media_track;  // the hinted track
    int32_t packets_left;    // packets of the current hint sample not yet produced
    int32_t sample;          // current hint sample, from 0
    uint32_t offset;         // of the next packet entry inside it
    double rtp_time;         // running time, in RTP timescale units
    uint32_t timestamp;      // of the packets of the current hint sample
    uint32_t ssrc;           // written into every header
};

struct iso_track {
    uint32_t magic;   // iso_track_magic
    char handler[5];  // "vide", "soun", "hint" ...
    uint32_t track_id;
    uint32_t creation_time, modification_time;  // seconds since 1904-01-01
    uint32_t timescale;                         // media units per second
    uint32_t duration;                          // in media units
    int32_t codec;                              // an iso_codec

    // Decoder configuration.
    char vendor[5];           // of `damr`, `dawp` or `d263`
    uint8_t decoder_version;  // of the same
    uint8_t level;            // H.263 or AVC level, or MPEG-4 Visual profile and level
    uint8_t profile;          // H.263 or AVC profile
    uint16_t mode_set;        // AMR
    uint8_t mode_change_period;
    uint8_t frames_per_sample;
    uint8_t object_type;  // MPEG-4 object type indication
    uint8_t stream_type;
    int32_t layer, alternate_group, volume;  // volume: 8.8
    uint8_t* dsi;  // decoder-specific information: payload of `esds`, or the whole `avcC`
    uint32_t dsi_length;
    uint32_t buffer_size, max_bitrate, avg_bitrate;  // bytes, bits per second
    uint32_t profile_compat;                         // `avcC` byte 2
    int32_t nal_length_size;                         // bytes of a NAL unit's length field
    uint32_t sps_count;
    uint8_t* sps_block;
    uint32_t pps_count;
    uint8_t* pps_block;
    uint8_t* param_sets;  // sps_block, then pps_block; each set behind its length
    uint32_t param_sets_length;

    uint32_t channel_count, sample_bits;         // of `samr`
    uint32_t width, height;                      // pixels
    uint32_t horiz_resolution, vert_resolution;  // dots per inch, 16.16
    iso_file* file;
    iso_track* next;
    uint32_t flags;  // iso_track_prepends_dsi
    uint32_t matrix[9];
    uint32_t hint_track_ref;  // first track ID of `tref/hint`
    char* sdp_text;           // track-level SDP

    // Sample tables, held whole.
    int32_t stts_count, ctts_count;
    int32_t sample_count;
    uint32_t sample_size;  // constant size, 0 when sizes vary
    uint32_t max_sample_size;
    uint32_t total_bytes;
    uint32_t* sample_sizes;  // null when sample_size is not 0
    iso_chunk* chunks;
    int32_t chunk_count;
    iso_stsc_entry* stsc;
    int32_t stsc_count;
    iso_stts_entry* stts;
    iso_ctts_entry* ctts;

    // Read cursor.
    int32_t cur_sample;   // next sample to read, from 0
    uint32_t dsi_sent;    // non-zero once the decoder configuration was delivered
    uint32_t cur_offset;  // file offset of cur_sample
    int32_t cur_chunk;
    int32_t stts_index, stts_in_entry;  // time-to-sample entry of cur_sample, samples before it
    int32_t ctts_index, ctts_in_entry;

    uint32_t sync_count;
    uint32_t* sync_samples;  // as stored: counting from 1
    uint32_t sbgp_count;
    iso_sbgp_entry* sbgp_list;
    char sgpd_type[5];
    uint32_t sgpd_count;
    iso_sgpd_entry* sgpd_list;

    // Hint track.
    rtp_hint_state* hint;
    uint16_t rtp_hint_version, rtp_highest_compat;
    uint32_t rtp_max_packet;  // bytes, RTP header included
    uint32_t rtp_timescale;
    uint32_t rtp_ts_offset;
    uint32_t rtp_seq_offset;
    uint32_t seq_rebase;  // 1: the first packet takes rtp_seq_offset; 2: it has
    uint32_t last_seq, last_timestamp;
    uint32_t has_ts_offset, has_seq_offset;
    uint32_t last_read_pos;      // lowest file position touched by the last packet
    uint32_t last_payload_type;  // of the last packet
    char srpp_schemes[4][5];

    iso_track_private* own;  // the library's; see isoFFtrackDetails
};

// What a file's record has besides the fields above: isoFFfileDetails.
struct iso_file_details {
    // Movie units per second as `mvhd` has them, also in version 1, whose times are not read into
    // timescale and duration. Edit lists count in these.
    uint32_t edit_timescale;
    // Number of `trak` boxes that were skipped: inside another one, after one with damage that ends
    // the reading, without a whole `tkhd`, or with their `mdia` before it.
    uint32_t lost_tracks;
    uint32_t direct_write;  // writer, 1: samples go to the stream as they come
};

// What a track's record has besides the fields above: isoFFtrackDetails.
struct iso_track_details {
    // Track header, media header, edit list, visual sample entry.
    uint32_t header_flags;                   // of `tkhd`
    uint32_t display_width, display_height;  // pixels, 16.16; of `tkhd`
    uint16_t language;                       // three letters of five bits each (ISO 639-2/T)
    int32_t edit_count;
    iso_elst_entry* edits;
    // Body of the sample entry as read, the last of `entry_count` that were. A track that is
    // written with one has what follows the data reference index in it, else what the fields
    // declare.
    const uint8_t* entry;
    uint32_t entry_length, entry_count;
    uint32_t frame_count;  // of a visual sample entry: frames in a sample
    uint32_t depth;        // of the same: bits of a pixel
    // Number of samples that `stsz` declares. sample_count is less where the tables do not agree.
    uint32_t declared_samples;

    // Writer.
    uint32_t frame_default;     // duration that a sample with a duration of 0 gets
    uint32_t duration_limit;    // longest media duration, track units
    uint32_t max_pdu, avg_pdu;  // hint track: bytes of a packet's payload and header
    // A temporary file in which the samples wait instead of in memory. The caller hangs one opened
    // for update here before the first sample; isoFFclose closes it.
    std::FILE* spool;
};

// Bit of iso_track::flags: the decoder configuration counts into the next sample's size.
inline constexpr uint32_t iso_track_prepends_dsi = 2;

extern "C" {

// Opens the file behind `stream`, which must stand at offset 0. `mode` begins with 'r' (read) or
// 'w' (write). Returns the record, to be given back with isoFFclose; or null, with -1 (bad mode) or
// -2 (no memory) stored through `error`, which may be null. The header is read at once. A file
// whose boxes end early or are damaged still yields a record, with the tracks found until there; so
// does a null or incomplete stream table, with none. A track that cannot be read is skipped, and
// counted in iso_file_details::lost_tracks. The stream is left where the walk stopped.
KESTREL_API iso_file* isoFFopen(_TAG_KST_IOSTREAM_CALLBACK_INTERFACE*& stream, const char* mode,
                                int* error);

// Ends the record and frees everything that hangs from it, temporary files included. A file that is
// being written is finished first. 0; -1 for null; and when the file could not be finished, in
// which case what the stream holds is not a whole file: -2 no memory, -5 the stream or a temporary
// file failed or took too few bytes, or the header came out other than it was measured, -6 the file
// would be larger than 32 bits can tell.
KESTREL_API int isoFFclose(iso_file* file);

// Returns what the file's record has besides its fields; null for null. It belongs to the record.
KESTREL_API iso_file_details* isoFFfileDetails(const iso_file* file);

// Returns what the track's record has besides its fields; null for null. It belongs to the record.
KESTREL_API iso_track_details* isoFFtrackDetails(const iso_track* track);

// Creates a track at the end of the list; null when there is no memory. In write mode it has the
// next track ID, the file's times and the unity matrix, and is enabled; handler, codec, timescale,
// and what is not 0 of volume and display size are the caller's to fill in.
KESTREL_API iso_track* isoFFtrack(iso_file* file);

// Takes the next sample of a track that is being written: `size` bytes at `data`, `duration` and
// composition offset in track units. A duration of 0 repeats iso_track_details::frame_default, and
// any other becomes it. The bytes are copied. Returns `size`, or
//   -1  null track, negative size or duration, no data, or the file is not being written
//   -2  no memory
//   -5  the file has been finished already, or the stream or the track's temporary file fell short
//   -6  with it, what the track takes would be more than iso_file::size_limit, or what all tracks
//       take more than 32 bits can tell; the track is closed
//   -7  the track would run longer than iso_track_details::duration_limit; the track is closed
//   -8  the track was closed by an earlier -6 or -7
//   -9  direct_write: the track was made after the first sample of the file was written
KESTREL_API int isoFFwrite(iso_track* track, void* data, int size, int duration, int cts_offset);

// Sets the brands of a file that is being written: four-character codes separated by one blank, the
// first of which becomes the major brand; all of them are the compatible brands. 0, or -1 for a
// null argument, a list of another shape, no memory, a file that is being read, or once samples
// were written directly.
KESTREL_API int isoFFsetBrand(iso_file* file, const char* brands, int minor_version);

// Keeps a copy of `length` bytes of decoder configuration for the writer: an `avcC` record for
// codec ISO_CODEC_AVC1, else the DecoderSpecificInfo of `esds`. 0, or -1 for a null argument, a
// length below 1, an `avcC` that makes no sense, or no memory; the track is then as it was.
KESTREL_API int isoFFsetDecoderSpecificInfo(iso_track* track, const void* dsi, int length);

// How rtp_isoFFtrack packs H.263.
enum iso_h263_payload : int32_t { ISO_H263_RFC4629 = 0, ISO_H263_RFC2190 = 1 };

// Creates the RTP hint track of `media`, an AMR, H.263, MPEG-4 or H.264 track of the same file that
// is being written, with `payload_type` and packets of at most `max_packet` bytes (RTP header of 12
// bytes included, 64 to 65535). Its timescale is that of `media`; its RTP clock is 90000 Hz for
// video and the sampling rate for speech. Its SDP is in `sdp_text`, its edits are those of `media`
// at the time. Null for any other track, for an H.264 or MPEG-4 one without decoder configuration,
// or without memory.
KESTREL_API iso_track* rtp_isoFFtrack(iso_file* file, iso_track* media, int max_packet,
                                      int payload_type, iso_h263_payload h263_payload);

// Writes the hint sample of the next sample of the media track: its bytes, and its duration and
// composition offset in units of the media track. Returns the size of the hint sample, an error
// of isoFFwrite, or -3 when the sample cannot be cut into packets by the rules of its payload
// format. Also -7 for a composition offset of more than 32 bits at the RTP clock.
KESTREL_API int isoFFwriteHint(iso_track* hint, const void* sample, int size, int duration,
                               int cts_offset);

// The n-th track (from 1) of the given handler type, or of any when `handler` is null. Null when
// there is none, for a null file and in write mode.
KESTREL_API iso_track* isoFFselect(iso_file* file, const char* handler, int n);

// 0 when one of `brands` (four-character codes, each optionally followed by one blank) is the major
// brand or a compatible one; -1 when none is, or an argument is null.
KESTREL_API int isoFFcompatible(iso_file* file, const char* brands);

// Number of tracks, duration of the movie in seconds, bytes of all samples. Outputs may be null.
// 0, or -1 for a null file.
KESTREL_API int isoFFfileInfo(iso_file* file, int* tracks, double* duration, int* bytes);

// Sample entry kind, number of samples, duration in seconds, bytes of all samples. Outputs may be
// null. 0, or -1 for a null track.
KESTREL_API int isoFFtrackInfo(iso_track* track, int* codec, int* sample_count, double* duration,
                               int* bytes);

// Duration and size of the sample at the cursor, without reading it. The decoder configuration
// counts into the size until it was delivered. -1 for a null track and at the end, else 0.
KESTREL_API int isoFFframeInfo(iso_track* track, double* duration, int* size);

// Reads the sample at the cursor and moves on to the next. Returns its size; -1 for a null track, a
// negative size, at the end, or when the sample does not fit; -2 when the stream fails or ends
// inside the sample. After a failure the cursor stands where it was. `duration` and `cts_offset`
// (seconds) may be null.
KESTREL_API int isoFFread(iso_track* track, void* buffer, int buffer_size, double* duration,
                          double* cts_offset);

// Reads up to `length` bytes from byte `offset` of `sample` (from 0), and leaves the cursor on that
// sample. Returns the bytes read; 0 when `length` is 0 or `offset` is not inside the sample; -1 for
// a null track or a sample out of range; -2 when a positioned read fails.
KESTREL_API int isoFFreadAt(iso_track* track, int sample, int offset, void* buffer, unsigned length,
                            double* duration, double* cts_offset);

// Moves the cursor to `sample` (from 0). 0, or -1 for a null track or a sample out of range.
KESTREL_API int isoFFsetPosition(iso_track* track, int sample);

// The largest time, in seconds, that one track runs on in the file before another's data begins;
// 0.0 with fewer than two tracks that have samples, -1.0 without memory. Tables that lay millions
// of samples on top of each other are not looked through to their end.
KESTREL_API double isoFFgetInterleave(iso_file* file);

// Of the hint tracks that refer to `media` and whose packets are at most `max_packet` bytes long,
// the one with the longest packets (the first of equals), with its packet cursor made or reset. The
// next packet is the first of the hint sample that the hint track stands on, which after opening is
// the first; isoFFsetPosition moves it. Null when there is none.
KESTREL_API iso_track* isoFFrtpHinter(iso_track* media, int max_packet);

// The same track, with its packet cursor left where it is; a hint sample that was not finished is
// begun again, at its own time.
KESTREL_API iso_track* isoFFfindHintTrack(iso_track* media, int max_packet);

// Writes the next RTP packet (RFC 3550 header of 12 bytes, then the payload) into `buffer`, which
// must hold iso_track::rtp_max_packet bytes. Returns its length; 0 at the end of the hint track; -1
// without a cursor, for a read that comes up short, or for a packet longer than rtp_max_packet; -2
// when the stream fails.
// To seek, move the hint track with isoFFsetPosition: the next packet is the first of the hint
// sample there (but where that is the hint sample at hand, its packets go on). Timestamps run on.
KESTREL_API int isoFFrtpPacket(iso_track* hint, void* buffer);

// The decoder-specific information as stored (payload of `esds`, or the whole `avcC`), null without
// one; it stays the file's. `prepend` non-zero makes isoFFframeInfo count it into the next sample.
KESTREL_API uint8_t* isoFFgetDecoderSpecificInfo(iso_track* track, int* length, int prepend);

// The parameter sets of an `avcC`, each behind a start code 00 00 00 01, sequence sets first.
// Stores a new buffer through `out`, to be released with systemfree, and returns its length; -1
// without decoder-specific information or memory. `prepend` is not looked at.
KESTREL_API int isoFFGetDSIin3GPP(iso_track* track, int prepend, unsigned char** out);

// Writes the parameter sets of `media` as `tel` packets into `buffer`, which must hold
// param_sets_length bytes and 20 for each set, and stores their total length. Before the first
// packet of `hint` they take its next sequence numbers, and its packets follow without a gap; later
// they begin with the number and time of its last packet. Their payload type is 103 whatever is
// given.
KESTREL_API void isoFFgetAvccDsi(iso_track* hint, iso_track* media, int payload_type,
                                 unsigned char* buffer, int* length);

// From parameter sets separated by start codes 00 00 00 01 to an `avcC` record of at most 256 bytes
// with 2-byte NAL unit lengths; other NAL units are left out. 1 with a new buffer of 256 bytes, to
// be released with systemfree, and the length of the record in it; 0 without memory, without a
// sequence parameter set, or when 256 bytes are too few.
KESTREL_API int convertDCI_3gpp_to_ISO(const unsigned char* in, unsigned length,
                                       unsigned char** out, int* out_length);

// Memory from the file's arena, which goes as a whole when the file is closed; isoFFfree only
// counts. Null when there is none.
KESTREL_API void* isoFFmalloc(iso_file* file, size_t size);
KESTREL_API void isoFFfree(void* memory);

// Plain allocation and release that keep the counters.
KESTREL_API void* systemmalloc(size_t size);
KESTREL_API void systemfree(void* memory);

// How many allocations and releases the reader has made in this process. Not synchronised:
// diagnostics only.
KESTREL_API extern int32_t malloccount;
KESTREL_API extern int32_t freecount;
}

#endif
