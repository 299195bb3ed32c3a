// SPDX-License-Identifier: Apache-2.0
// The ISO base media file reader and writer (ISO/IEC 14496-12 with the 3GPP sample entries). Usable
// from C++17.
//
// isoFFopen walks a file's boxes through the host's stream table into one iso_file with a list of
// iso_track records. Samples and RTP packets are read from a track. A program may read the fields
// of the records; only the functions below change them.
//
// The functions return a count, 0, or a negative code. They never throw. The reader also prints
// remarks on standard error, at most 100 about one file.
//
// Threads: use a file record and its tracks from one thread at a time. Different files are
// independent.
//
// Times are seconds in double precision: a value in track units divided by the track's timescale,
// or 0.0 where that timescale is 0. All file offsets and sizes are in bytes.
//
// To write a file:
//   1. isoFFopen(stream, "w", ...) over an empty stream, or with "wd" to write directly
//   2. isoFFtrack, or one of the *_isoFFtrack functions, for each track
//   3. isoFFwrite for each sample, in decoding order
//   4. isoFFclose
// Samples are kept in memory, and isoFFclose writes the file, `moov` first. Written directly, each
// sample is written at once, and `moov` is at the end. A file that could not be finished has no
// `moov`. Exception: on a stream that cannot seek back it may have one, with media missing after
// it. Until isoFFclose a program may set the fields that describe a track (handler, codec,
// timescale, width, height, configuration, sync_samples, sbgp_list, sdp_text ...), with memory from
// isoFFmalloc. Functions that read samples return -1 for a track that is being written.
#ifndef KESTREL_ISOFF_H
#define KESTREL_ISOFF_H

#include <cstddef>
#include <cstdint>

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
    iso_file_private* own;    // the library's
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

// Position of the RTP packet reader in a hint track. isoFFrtpHinter makes one. To read the packets
// of another hint track, set its iso_track::hint to a zeroed record with media_track set, and reset
// it to null before the file is closed.
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
    char vendor[5];              // of `damr`, `dawp` or `d263`
    uint8_t decoder_version;     // of the same
    uint8_t level;               // H.263 or AVC level, or MPEG-4 Visual profile and level
    uint8_t profile;             // H.263 or AVC profile
    uint16_t mode_set;           // AMR, from `damr`; 0 without that box
    uint8_t mode_change_period;  // the same
    uint8_t frames_per_sample;   // the same; amr_isoFFtrack refuses 0
    uint8_t object_type;         // MPEG-4 object type indication
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
    uint8_t* param_sets;  // sps_block, then pps_block; each set after its length
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

    iso_track_private* own;  // the library's
};

// Bit of iso_track::flags: the decoder configuration counts into the next sample's size.
inline constexpr uint32_t iso_track_prepends_dsi = 2;

extern "C" {

// Opens a file and reads its header.
//   stream  the host's table; the stream is at offset 0. The table must outlive the record
//   mode    begins with 'r' (read), 'w' (write) or "wd" (write directly)
//   error   may be null; receives -1 (bad mode) or -2 (no memory) when null is returned
// Returns the record, or null. Release it with isoFFclose.
// A malformed or truncated file yields a record with the tracks found before that place. A null or
// incomplete table yields one without tracks. A track that cannot be read is skipped, with a
// line on standard error. The stream is left where the walk stopped.
KESTREL_API iso_file* isoFFopen(_TAG_KST_IOSTREAM_CALLBACK_INTERFACE*& stream, const char* mode,
                                int* error);

// Finishes a file that is being written, then releases the record, its tracks, its memory and its
// temporary files, also after a failure. Does not close the stream. Returns
//    0  done
//   -1  null record
//   -2  no memory
//   -5  the stream or a temporary file failed or took too few bytes, or the header has another size
//       than was measured
//   -6  the file would be larger than 32-bit offsets allow
// After -2, -5 and -6 the stream does not hold a complete file.
KESTREL_API int isoFFclose(iso_file* file);

// Creates a track at the end of the list. In write mode it gets the next track ID, the times of the
// file and the unity matrix, and is enabled; the caller sets handler, codec, timescale, and volume
// and size if not 0. Pictures are displayed at their size. Returns the track, owned by the file, or
// null without memory.
KESTREL_API iso_track* isoFFtrack(iso_file* file);

// Appends a sample to a track that is being written.
//   data, size  the sample, which is copied, and its bytes
//   duration    in track units; 0 repeats the last one
//   cts_offset  composition offset, in track units
// Returns `size`, or
//   -1  null track, negative size or duration, no data, or the file is not being written
//   -2  no memory
//   -5  the file is finished already, or the stream took too few bytes
//   -6  the track would exceed iso_file::size_limit, or all tracks 32-bit offsets; the track is
//       closed
//   -7  the track would exceed its duration limit: iso_file::interleave_limit for those of
//       kestrel/codec.h, and 2^32 - 1 units; the track is closed
//   -8  the track was closed by an earlier -6 or -7
//   -9  written directly: the track was made after the first sample of the file was written
KESTREL_API int isoFFwrite(iso_track* track, void* data, int size, int duration, int cts_offset);

// Sets the brands of a file that is being written. `brands` is a list of four-character codes
// separated by one blank: the first is the major brand, all are compatible brands. Returns 0, or -1
//   - for a null argument or a list of another form,
//   - for a file that is being read, or after samples were written directly,
//   - without memory.
KESTREL_API int isoFFsetBrand(iso_file* file, const char* brands, int minor_version);

// Copies `length` bytes of decoder configuration for the writer: an `avcC` record for codec
// ISO_CODEC_AVC1, else the DecoderSpecificInfo of `esds`. Returns 0, or -1 for a null argument, a
// length below 1, a malformed `avcC`, or no memory. After -1 the track is unchanged.
KESTREL_API int isoFFsetDecoderSpecificInfo(iso_track* track, const void* dsi, int length);

// How rtp_isoFFtrack packs H.263.
enum iso_h263_payload : int32_t { ISO_H263_RFC4629 = 0, ISO_H263_RFC2190 = 1 };

// Creates the RTP hint track of a media track.
//   file, media  a file that is being written, and an AMR, H.263, MPEG-4 or H.264 track of it
//   max_packet   longest packet in bytes, RTP header of 12 bytes included; 64 to 65535
// The hint track gets the timescale and the current edits of `media`, an RTP clock of 90000 Hz for
// video or of the sampling rate for speech, and an SDP in `sdp_text`.
// Returns the track, owned by the file. Returns null for any other track, for a timescale of 0 of
// `media`, for an H.264 or MPEG-4 track without decoder configuration, and without memory.
KESTREL_API iso_track* rtp_isoFFtrack(iso_file* file, iso_track* media, int max_packet,
                                      int payload_type, iso_h263_payload h263_payload);

// Writes the hint sample for the next sample of the media track.
//   sample, size          the media sample
//   duration, cts_offset  those of the media sample, in units of the media track
// Returns the size of the hint sample, an error of isoFFwrite, or
//   -3  the sample cannot be cut into packets by the rules of its payload format
//   -7  also: the composition offset exceeds 32 bits in units of the RTP clock
KESTREL_API int isoFFwriteHint(iso_track* hint, const void* sample, int size, int duration,
                               int cts_offset);

// Returns the n-th track (from 1) of the handler type, or of any type if `handler` is null. Returns
// null if there is none, for a null file, and in write mode. The track is owned by the file.
KESTREL_API iso_track* isoFFselect(iso_file* file, const char* handler, int n);

// Looks for brands. `brands` is a list of four-character codes, each optionally followed by one
// blank. Returns 0 if one of them is the major brand or a compatible brand; -1 if none is, or if an
// argument is null.
KESTREL_API int isoFFcompatible(iso_file* file, const char* brands);

// Reports the number of tracks, the duration of the movie in seconds, and the bytes of all samples.
// Outputs may be null. Returns 0, or -1 for a null file.
KESTREL_API int isoFFfileInfo(iso_file* file, int* tracks, double* duration, int* bytes);

// Reports the sample entry kind (an iso_codec), the number of samples, the duration in seconds, and
// the bytes of all samples. Outputs may be null. Returns 0, or -1 for a null track.
KESTREL_API int isoFFtrackInfo(iso_track* track, int* codec, int* sample_count, double* duration,
                               int* bytes);

// Reports the duration, in seconds, and the size, in bytes, of the sample at the cursor, without
// reading it. The size includes the decoder configuration until that was delivered, if
// isoFFgetDecoderSpecificInfo asked for it. Returns 0, or -1 for a null track and at the end.
KESTREL_API int isoFFframeInfo(iso_track* track, double* duration, int* size);

// Reads the sample at the cursor and moves the cursor to the next sample.
//   buffer, buffer_size   receives the sample, and its capacity in bytes
//   duration, cts_offset  in seconds; may be null
// Returns the size of the sample, or
//   -1  null track, negative size, end of the track, or the sample does not fit
//   -2  the stream fails or ends inside the sample
// After a failure the cursor is unchanged.
KESTREL_API int isoFFread(iso_track* track, void* buffer, int buffer_size, double* duration,
                          double* cts_offset);

// Reads up to `length` bytes at byte `offset` of `sample` (from 0), and moves the cursor to that
// sample. `duration` and `cts_offset` (seconds) may be null. Returns the bytes read, or
//    0  `length` is 0, or `offset` is not inside the sample
//   -1  null track, or sample out of range
//   -2  a positioned read fails
KESTREL_API int isoFFreadAt(iso_track* track, int sample, int offset, void* buffer, unsigned length,
                            double* duration, double* cts_offset);

// Moves the cursor to `sample` (from 0). Returns 0, or -1 for a null track or a sample out of
// range.
KESTREL_API int isoFFsetPosition(iso_track* track, int sample);

// Returns the longest time, in seconds, of consecutive samples of one track in the file before data
// of another track; 0.0 if fewer than two tracks have samples; -1.0 without memory. The search is
// bounded: it stops early on tables that place millions of samples on top of each other.
KESTREL_API double isoFFgetInterleave(iso_file* file);

// Finds the hint track of `media` and creates or resets its packet cursor. Of the hint tracks that
// refer to `media` and declare packets of at most `max_packet` bytes, it takes the one with the
// longest packets, the first of equals. The next packet is the first of the hint sample at the hint
// track's cursor: after opening the first one; isoFFsetPosition moves it. Building packets moves
// the cursor of `media` too: read samples of it with isoFFreadAt, or set its position again.
// Returns the track, owned by the file, or null if there is none.
KESTREL_API iso_track* isoFFrtpHinter(iso_track* media, int max_packet);

// Finds the same track, and keeps its packet cursor. A hint sample that was read in part begins
// again, at its own time.
KESTREL_API iso_track* isoFFfindHintTrack(iso_track* media, int max_packet);

// Writes the next RTP packet into `buffer`: an RFC 3550 header of 12 bytes, then the payload.
// `buffer` must hold iso_track::rtp_max_packet bytes. Returns the length of the packet, or
//    0  end of the hint track
//   -1  no cursor, a short read, or a packet longer than rtp_max_packet; also once the hint samples
//       since the last seek have far more packets and constructors than bytes (SECURITY.md)
//   -2  the stream fails
// To seek, move the hint track with isoFFsetPosition. The next packet is the first of that hint
// sample, or if that is the current hint sample, its next packet. Timestamps continue.
KESTREL_API int isoFFrtpPacket(iso_track* hint, void* buffer);

// Returns the decoder-specific information as stored (the payload of `esds`, or the whole `avcC`),
// owned by the file, and its length in bytes; null if there is none. If `prepend` is not 0,
// isoFFframeInfo adds it to the size of the next sample.
KESTREL_API uint8_t* isoFFgetDecoderSpecificInfo(iso_track* track, int* length, int prepend);

// Stores the parameter sets of an `avcC`, each after a start code 00 00 00 01, sequence sets first,
// in a new buffer. Release it with systemfree. Returns its length in bytes; -1 without
// decoder-specific information or memory. `prepend` is ignored.
KESTREL_API int isoFFGetDSIin3GPP(iso_track* track, int prepend, unsigned char** out);

// Writes the parameter sets of `media` as `tel` packets, and stores their total length. `buffer`
// must hold param_sets_length bytes and 20 for each set. Before the first packet of `hint` they
// take its next sequence numbers, and its packets follow without a gap. Later they begin with the
// sequence number and time of its last packet. The payload type is 103; `payload_type` is ignored.
KESTREL_API void isoFFgetAvccDsi(iso_track* hint, iso_track* media, int payload_type,
                                 unsigned char* buffer, int* length);

// Converts parameter sets separated by start codes 00 00 00 01 to an `avcC` record with 2-byte NAL
// unit lengths. Other NAL units are left out. Returns
//   1  and stores a new buffer of 256 bytes and the length of the record in it; release the buffer
//      with systemfree
//   0  without memory, without a sequence parameter set, or if the record exceeds 256 bytes
KESTREL_API int convertDCI_3gpp_to_ISO(const unsigned char* in, unsigned length,
                                       unsigned char** out, int* out_length);

// Allocates from the arena of the file, which isoFFclose releases as a whole; null without memory.
// isoFFfree only counts.
KESTREL_API void* isoFFmalloc(iso_file* file, size_t size);
KESTREL_API void isoFFfree(void* memory);

// Allocates and releases memory of the process, and counts it.
KESTREL_API void* systemmalloc(size_t size);
KESTREL_API void systemfree(void* memory);

// Numbers of allocations and releases of the reader in this process. Not synchronised: for
// diagnostics only.
KESTREL_API extern int32_t malloccount;
KESTREL_API extern int32_t freecount;
}

#endif
