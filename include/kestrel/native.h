// SPDX-License-Identifier: Apache-2.0
// The platform's two native formats: the current one, `tel`, and the older one, `orb`. Header
// records, packet headers, the packetisers that cut samples into packets, and the AMR frame format
// conversions. Usable from C11 and C++17.
//
// The records and packets are described in kestrel/native_records.h and docs/native-format.md.
// `tel` fields are in host byte order (little-endian on x86), `orb` headers are big-endian. None of
// these functions throws.
#ifndef KESTREL_NATIVE_H
#define KESTREL_NATIVE_H

#include <stddef.h>
#include <stdint.h>

#include "kestrel/api.h"

// A track of the ISO reader (kestrel/isoff.h).
typedef struct iso_track iso_track;

// Running packet-header state of one `tel` stream.
typedef struct TEL_RTP {
    uint32_t reserved;
    uint32_t size;    // payload bytes of the packet at hand, payload header included
    uint32_t magic;   // 13
    uint32_t marker;  // 0 or 1
    uint32_t type;    // payload type given at init
    uint32_t seq;     // next sequence number, 0 to 65535
    uint32_t time;    // timestamp of the packet at hand, in clock units
    uint32_t mode;    // packetisation mode
    uint32_t flags;   // a set of native_flags
    uint32_t clock;   // Hz
} TEL_RTP;

// The same ten fields for an `orb` stream.
typedef struct ORB_RTP {
    uint32_t reserved, size, magic, marker, type, seq, time, mode, flags, clock;
} ORB_RTP;

// Packetisation modes of H.263.
enum native_mode {
    NATIVE_MODE_PLAIN = 0,
    NATIVE_MODE_RFC2190 = 2190,
    NATIVE_MODE_RFC2190_MB = 2190 + 0x80000,  // cut at macroblock boundaries, mode B
    NATIVE_MODE_RFC2429 = 2429
};

// Bits of TEL_RTP::flags and ORB_RTP::flags.
static const uint32_t native_drop_no_data = 1;         // drop AMR NO_DATA frames
static const uint32_t native_amr_format_1 = 2;         // AMR-NB input is in format 1, not 2
static const uint32_t orb_header_printed = 1u << 16;   // the header was printed already
static const uint32_t orb_check_quietly = 1u << 29;    // check headers that are read
static const uint32_t orb_check_and_print = 1u << 30;  // and print what is wrong with them
static const uint32_t native_verbose = 1u << 31;       // report fragments and dropped frames

static const uint32_t native_magic = 13;
static const int tel_header_size = 20;
static const int orb_header_size = 12;

typedef struct tel_native tel_native;
typedef struct orb_native orb_native;

// Packetises one sample; see tel_native_packet.
typedef int tel_packetiser(void* out, int out_size, void* in, int in_len, double duration,
                           tel_native* state);
typedef int orb_packetiser(void* out, int out_size, void* in, int in_len, double duration,
                           orb_native* state);

// Packetiser state of one `tel` stream.
typedef struct tel_native {
    uint32_t codec;  // an iso_codec
    uint32_t count;  // packets written
    TEL_RTP hdr;
    const uint8_t* dsi;  // H.264 parameter sets, each after its length
    int32_t dsi_len;
    double time_acc;       // exact running timestamp, in clock units
    int32_t max_payload;   // bytes per packet
    uint32_t h263_src;     // H.263 source format carried from picture to picture
    int32_t nal_len_size;  // bytes of a NAL unit's length field
    uint32_t spare;
    tel_packetiser* packetise;  // null when the codec has none
} tel_native;

// Packetiser state of one `orb` stream.
typedef struct orb_native {
    uint32_t codec;
    ORB_RTP hdr;
    uint32_t zero[2];
    double time_acc;
    int32_t max_payload;
    uint32_t spare;
    orb_packetiser* packetise;
} orb_native;

// A stream that orb_get_header reads from.
typedef struct mfileio {
    // Reads up to `count` elements of `size` bytes; returns the elements read.
    size_t (*read)(void* buffer, size_t size, size_t count, void* handle);
    void* handle;
} mfileio;

#ifdef __cplusplus
extern "C" {
#endif

// --- packet headers ---

// Writes a 20-byte `tel` header for a payload of hdr->size bytes, with hdr's time, marker (0 or 1)
// and sequence number and the given payload type (below 128), and steps the sequence number.
// Returns 20.
KESTREL_API int tel_put_header(void* out, TEL_RTP* hdr, int payload_type);

// Writes a 12-byte `orb` header from `hdr` and steps the sequence number. Returns 12.
KESTREL_API int orb_put_header(void* out, ORB_RTP* hdr);

// Reads a 12-byte `orb` header into `hdr`; hdr->seq must hold the previous packet's number, or
// 0xFFFFFFFE before the first. 1 when a header was read, 0 when the stream ended. With check flags
// set, a wrong magic number or sequence is reported on standard error; the header is returned
// either way.
KESTREL_API int orb_get_header(mfileio* f, ORB_RTP* hdr);

// Prints the header on standard error, unless it was printed already.
KESTREL_API void print_orb_header(ORB_RTP* hdr);

// Rewrites the 12-byte RTP header at `pkt` into an `orb` header in place. `len` is the length of
// the whole RTP packet. Marker, sequence number and timestamp are kept.
KESTREL_API void rtp2orb(unsigned char* pkt, unsigned len, int payload_type, int ignored);

// Writes the 20-byte `tel` header for the packet whose `orb` header is at `orb_hdr`.
KESTREL_API void tel_put_header_orb2tel(const unsigned char* orb_hdr, void* out, int payload_type);

// --- stream header records; each fills the record at `out` and returns its size in bytes, or -1
// when `out` is null ---

// PROP_Header_Info of an audio stream, with the number of frames.
KESTREL_API int tel_put_hdr_aud_prop(void* out, uint32_t frame_count);
// AUD_Codec_Header for AMR narrow and wide band.
KESTREL_API int tel_put_hdr_aud_codec(void* out);
KESTREL_API int tel_put_hdr_aud_codec_wb(void* out);
// AUD_Header_IndxInfo; the record has no place for the number of frames.
KESTREL_API int tel_put_hdr_aud_index(void* out, uint32_t frame_count);
// VID_FileInfo of an audio or a video stream, with the track's duration in seconds.
KESTREL_API int tel_put_hdr_fileInfo(void* out, double duration);
KESTREL_API int tel_put_hdr_vid_fileInfo(void* out, double duration);
// AUD_AudFrame_Native for AMR narrow and wide band: a frame of `length` bytes in all at the state's
// time and sequence number, which are stepped by one frame.
KESTREL_API int tel_put_hdr_aud_frame(void* out, tel_native* state, uint32_t length);
KESTREL_API int tel_put_hdr_aud_frame_wb(void* out, tel_native* state, uint32_t length);

// PROP_Header_Info of a video stream (MPEG-4, H.263, H.264), with the frame rate.
KESTREL_API int tel_put_hdr_vid_prop(void* out, uint32_t value);
KESTREL_API int tel_put_hdr_vid_prop263(void* out, uint32_t value);
KESTREL_API int tel_put_hdr_vid_prop264(void* out, uint32_t value);
// VID_Header_NTSInfo and VID_Header_IndxInfo, all zero.
KESTREL_API int tel_put_hdr_vid_nts(void* out);
KESTREL_API int tel_put_hdr_vid_index(void* out);
// VID_Header_CodecInfo with the track's picture size and the bit rate in bits per second. H.263 is
// named "s263" when iso_track::last_payload_type is 34, else "s263+".
KESTREL_API int tel_put_hdr_vid_codec(void* out, const iso_track* track, uint32_t value);
KESTREL_API int tel_put_hdr_vid_codec263(void* out, const iso_track* track, uint32_t value);
KESTREL_API int tel_put_hdr_vid_codec264(void* out, const iso_track* track, uint32_t value);
// Codec configuration, from the track's decoder configuration; at most 350 bytes of it. The H.264
// record leaves its last three bytes as they were, and the constraint word when the parameter sets
// are 8 bytes or shorter.
KESTREL_API int tel_put_hdr_vid_codecCfg(void* out, const iso_track* track);
KESTREL_API int tel_put_hdr_vid_codecCfg263(void* out, const iso_track* track);
KESTREL_API int tel_put_hdr_vid_codecCfg264(void* out, iso_track* track);

// --- packetisers ---

// Prepares `state` for the samples of `track`: a packet of at most `max_packet` bytes (H.264 and
// `orb`; the other `tel` packets carry up to 1400), mode and flags as above. 0, or -1 for a codec
// that is rejected.
KESTREL_API int tel_native_init(tel_native* state, int payload_type, int max_packet, int mode,
                                iso_track* track, int flags);
KESTREL_API int orb_native_init(orb_native* state, int payload_type, int max_packet, int mode,
                                iso_track* track, int flags);

// Cuts one sample of `in_len` bytes and `duration` seconds into packets, written back to back into
// `out`. Returns the bytes written; -1 when `out_size` is too small or the codec has no packetiser;
// -2 when an H.263 picture header cannot be parsed. After -1 the packets written so far stand.
//
// Each packet is a header of `tel_header_size` or `orb_header_size` bytes and a payload. `tel` has
// these payload types, whatever was given at init, and payloads:
//
// - H.263, 34: of RFC 4629 with NATIVE_MODE_RFC2429, of RFC 2190 with the modes of that name, else
//   a part of the sample.
// - MPEG-4, 102: a part of the sample (RFC 6416). The decoder configuration is not inserted;
//   kst_ReadChunk inserts it before it cuts.
// - H.264, 103: of RFC 6184, single NAL units and FU-A. The parameter sets of the track are
//   inserted before the first IDR slice of a sample that has none before it.
// - AMR, 101: one speech frame of the sample as it is, without the header of an RTP payload and
//   without the record and mode byte that kst_ReadChunk delivers. `duration` is ignored. Samples of
//   a file are in format 1: narrow band needs native_amr_format_1 at init. Without it the sample
//   is cut at wrong places, and the result does not show that.
//
// Payloads of `orb` are parts of the sample, or speech frames. The payload type is that of init.
//
// For H.264 `out` must have room for 4 * (out_size / (max_packet + 16) + 1) bytes beyond
// `out_size`: the two header bytes of each FU-A packet are credited to the room instead of charged.
KESTREL_API int tel_native_packet(void* out, int out_size, void* in, int in_len, double duration,
                                  tel_native* state);
KESTREL_API int orb_native_packet(void* out, int out_size, void* in, int in_len, double duration,
                                  orb_native* state);

// An upper estimate, in bytes, of the `orb` output of a whole track. `factor` up to 100 is packets
// per sample (at least 10 are taken), above it the packet size.
KESTREL_API int orb_buffer_estimate(iso_track* track, int mode, double factor);

// --- AMR frames: format 1 is the storage format (RFC 4867, 5.3), format 2 the interface format
// with the type in the low bits and each nibble reversed, format 3 wide-band storage ---

// Length in bytes of the frame that begins at `frame`, from its first byte alone; -1 for another
// format number.
KESTREL_API int amr_get_size(const void* frame, int format);
// Which format, 1 or 2, a narrow-band frame of `len` bytes is in, and its frame type through `ft`
// (may be null); -1 when neither.
KESTREL_API int amr_get_format(const void* frame, int len, int* ft);
// One frame from format 1 to 2 and back: bytes written, 0 for a type that has no frame. `in` holds
// a whole frame; a frame in format 1 is at most one byte longer than in format 2.
KESTREL_API int amr2cod(const void* in, void* out);
KESTREL_API int cod2amr(const void* in, void* out);
// A run of whole frames: bytes written. Stops at the first that cannot be converted or is cut.
KESTREL_API int amr1_to_amr2(const void* in, void* out, int len);
KESTREL_API int amr2_to_amr1(const void* in, void* out, int len);
// Does nothing; kept as an entry point.
KESTREL_API void orb_remove_amr_dtx(void* buf, int len, int flags);
#ifdef __cplusplus
}
#endif

#endif
