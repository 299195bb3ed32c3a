// Small scanners over coded video: picture headers, start codes, NAL unit lengths. None keeps
// state, allocates or throws, and none reads outside the bytes that it is given.
#ifndef KESTREL_CODEC_H
#define KESTREL_CODEC_H

#include <cstdint>

#include "kestrel/api.h"

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
}

#endif
