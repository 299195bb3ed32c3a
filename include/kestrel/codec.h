// SPDX-License-Identifier: Apache-2.0
// Small scanners over coded video: picture headers, start codes, NAL unit lengths. None keeps
// state, allocates or throws, and none reads outside the bytes that it is given. And tracks of a
// codec for the file writer of kestrel/isoff.h.
#ifndef KESTREL_CODEC_H
#define KESTREL_CODEC_H

#include <cstdint>

#include "kestrel/api.h"

struct iso_file;
struct iso_track;

// What an H.263 picture header tells (ITU-T H.263, 5.1), and what an H.263 track is made from.
struct H263VCFG {
    uint32_t unused[3];
    uint32_t height;              // pixels
    uint32_t width;               // pixels
    uint32_t timescale;           // of the track
    uint32_t temporal_reference;  // TR
    uint32_t profile;             // of the track
    uint32_t level;               // of the track
    uint32_t plusptype;           // 1 when the header has PLUSPTYPE
    uint32_t source_format;       // 1 sub-QCIF, 2 QCIF, 3 CIF; kept between calls, see below
    uint32_t coding_type;         // 0 intra, 1 inter
};

extern "C" {

// Finds the first picture header of a size up to CIF in `len` bytes and fills `cfg` from it.
// Returns the byte offset of its start code, 0xFFFFFFFF when there is none. A header whose
// PLUSPTYPE lacks the optional part leaves source_format as the caller has it and reports 176 x
// 144. Only the words from temporal_reference on that the header tells, and the size, are written.
KESTREL_API uint32_t h263_get_config(const unsigned char* buf, unsigned len, H263VCFG* cfg);

// 0 for an intra and 1 for an inter picture, -1 when no picture header is found.
KESTREL_API int h263_get_frame_type(const void* buf, int len);

// The big-endian value of the `n` bytes at `p`: 1, 2 or 3, and 4 for any other `n`.
KESTREL_API uint32_t h264_get_nal_size(const unsigned char* p, int n);

// 1 when an intra VOP header (ISO/IEC 14496-2, 6.2.5) is in `buf`, else 0.
KESTREL_API int CheckForIFrame(const unsigned char* buf, int len);

// Offset of the first start code 00 00 01 `code` that is followed by a byte below 64, or -1.
KESTREL_API int FindStartCode(const unsigned char* buf, int len, unsigned char code);

// Tracks for a file that is being written (kestrel/isoff.h). Each creates a track with its handler,
// sample entry and longest duration; samples are then written with isoFFwrite. Null for a file that
// is not being written, for a configuration that makes no sense, or without memory. The track
// belongs to the file.

// Those of pictures need a timescale above 0, and 1 to 65535 pixels each way.

// H.263: timescale, width, height, profile and level of `cfg`. Of the first three, 0 is to be
// filled in until isoFFclose, the size also in iso_track_details; without a timescale the track
// may run for any time.
KESTREL_API iso_track* h263_isoFFtrack(iso_file* file, H263VCFG* cfg);

// AMR in the storage format, narrow band (8000 units a second) or wide band (16000). `mode_set` has
// a bit for each frame type that may occur, `frames_per_sample` is 1 to 15.
KESTREL_API iso_track* amr_isoFFtrack(iso_file* file, int wide_band, unsigned mode_set,
                                      unsigned frames_per_sample);

// H.264, from the `avcC` record of `length` bytes.
KESTREL_API iso_track* h264_isoFFtrack(iso_file* file, const void* avcc, unsigned length,
                                       unsigned width, unsigned height, unsigned timescale);

// MPEG-4 Visual, from the configuration in front of the first picture (DecoderSpecificInfo).
KESTREL_API iso_track* mpeg4_isoFFtrack(iso_file* file, const void* config, unsigned length,
                                        unsigned width, unsigned height, unsigned timescale);
}

#endif
