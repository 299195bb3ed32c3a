// SPDX-License-Identifier: Apache-2.0
// Small scanners over coded video: picture headers, start codes, NAL unit lengths. They keep no
// state, allocate nothing, throw nothing, read only the bytes that they are given, and may be
// called from any thread. And functions that create tracks of a codec for the file writer of
// kestrel/isoff.h. Usable from C++11.
#ifndef KESTREL_CODEC_H
#define KESTREL_CODEC_H

#include <cstdint>

#include "kestrel/api.h"

struct iso_file;
struct iso_track;

// Fields of an H.263 picture header (ITU-T H.263, 5.1), and parameters of an H.263 track.
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

// Finds the first picture header, of a picture size up to CIF, in `len` bytes and fills `cfg` from
// it. Returns the byte offset of its start code, or 0xFFFFFFFF if there is none. Writes the size,
// and those words from temporal_reference on that the header has. A header whose PLUSPTYPE lacks
// the optional part leaves source_format unchanged and reports 176 x 144.
KESTREL_API uint32_t h263_get_config(const unsigned char* buf, unsigned len, H263VCFG* cfg);

// Returns 0 for an intra picture, 1 for an inter picture, -1 if `len` bytes have no picture header.
KESTREL_API int h263_get_frame_type(const void* buf, int len);

// Returns the big-endian number of `n` bytes (1, 2 or 3; 4 for any other `n`) at `p`.
KESTREL_API uint32_t h264_get_nal_size(const unsigned char* p, int n);

// Returns 1 if `len` bytes have an intra VOP header (ISO/IEC 14496-2, 6.2.5), else 0.
KESTREL_API int CheckForIFrame(const unsigned char* buf, int len);

// Returns the offset of the first start code 00 00 01 `code` that a byte below 64 follows, or -1.
KESTREL_API int FindStartCode(const unsigned char* buf, int len, unsigned char code);

// The following functions create a track of a file that is being written (kestrel/isoff.h), with
// its handler, sample entry and longest duration. Write samples with isoFFwrite. They return the
// track, owned by the file, or null for a file that is not being written, for an invalid
// configuration, or without memory. For video the timescale is above 0, width and height are 1 to
// 65535 pixels.

// Creates an H.263 track from timescale, width, height, profile and level of `cfg`. The first three
// may be 0 here; set them before isoFFclose. Without a timescale the duration is not limited.
KESTREL_API iso_track* h263_isoFFtrack(iso_file* file, H263VCFG* cfg);

// Creates an AMR track whose samples are in storage format: narrow band with timescale 8000, or
// wide band with 16000. `mode_set` has a bit for each frame type that may occur, up to 0xFFFF;
// `frames_per_sample` is 1 to 15. Other values are invalid: iso_track::frames_per_sample of a file
// without `damr` is 0, for which 1 is usual.
KESTREL_API iso_track* amr_isoFFtrack(iso_file* file, int wide_band, unsigned mode_set,
                                      unsigned frames_per_sample);

// Creates an H.264 track from an `avcC` record of `length` bytes.
KESTREL_API iso_track* h264_isoFFtrack(iso_file* file, const void* avcc, unsigned length,
                                       unsigned width, unsigned height, unsigned timescale);

// Creates an MPEG-4 Visual track from the configuration before the first picture
// (DecoderSpecificInfo), `length` bytes.
KESTREL_API iso_track* mpeg4_isoFFtrack(iso_file* file, const void* config, unsigned length,
                                        unsigned width, unsigned height, unsigned timescale);
}

#endif
