/* SPDX-License-Identifier: Apache-2.0 */
/* Writing a 3GP file from native streams, as kst_ReadChunk, C3gpInterface::ReadChunk or a platform
 * that records deliver them (docs/native-format.md). Part of the companion library kestrel_hosts.
 * Usable from C11 and C++11.
 *
 * Each stream becomes a track: AMR narrow or wide band, H.263 from RFC 2190 or RFC 4629 payloads,
 * MPEG-4 Visual or H.264. Times come from the packets, sync samples and the order of display from
 * the pictures, the decoder configuration from the header records or the first picture.
 *
 *     kst_packer* packer = kst_packer_open(NULL);
 *     for (;;) {
 *         uint32_t size = sizeof buffer;
 *         status = kst_ReadChunk(handle, buffer, &size, false);
 *         if (status != KST_SUCCESS) break;
 *         if (kst_packer_feed(packer, 0, buffer, size) > KST_PACK_CUT) break;  // write reports why
 *     }
 *     result = kst_packer_write(packer, kst_host_callbacks(file), NULL);
 *     if (result == KST_PACK_CUT) kst_packer_describe(packer, 0, &about);  // see `about`
 *     if (result == KST_PACK_DONE && status != KST_END_OF_FILE) result = KST_PACK_CUT;
 *     kst_packer_close(packer);
 *
 * where about.struct_size is sizeof about, and damage, packets_missing and packets_left_out are why
 * something is not packed. KST_PACK_DONE alone does not show that the source was read to its end.
 * `buffer` has KST_LARGEST_CHUNK bytes; kst_ReadChunk returns KST_BAD_ARGUMENT for a frame that
 * needs more (kestrel/kestrel.h).
 */
#ifndef KESTREL_PACKER_H
#define KESTREL_PACKER_H

#include <stddef.h>
#include <stdint.h>

#include "kestrel/api.h"
#include "kestrel/stream.h"

#ifdef __cplusplus
extern "C" {
#endif

/* One file that is being made. A packer is not safe to use from two threads at once. */
typedef struct kst_packer kst_packer;

/* What the functions return. */
enum {
    KST_PACK_DONE = 0,
    /* The file lacks something of a stream, or the stream has a fault:
     *
     * - it is damaged or ends inside a frame; what is whole before that place is in the file
     * - it lacks its first frames, or ends before the last frame that its header records declare
     * - packets or speech frames are missing, or packets could not be joined
     * - it has frames that cannot be of its codec, a frame twice, or more speech than declared
     * - its header records have values that no track has
     *
     * kst_packer_describe, after kst_packer_write, has the reason for each stream. A stream may
     * lack frames that its records cannot show (docs/native-format.md), and is then KST_PACK_DONE:
     * speech a few of the last ones, and those at the end without packets in the hint track that
     * it was played from; a video whose records declare no duration, or a stream made after a seek,
     * any number of the last ones. The packets of a video without duration may all have the time 0,
     * and its pictures then have it in the file. */
    KST_PACK_CUT = 1,
    KST_PACK_BAD_ARGUMENT = 2,
    KST_PACK_NO_MEMORY = 3,
    KST_PACK_REFUSED = 4,      /* a stream has nothing that can be packed; no file was written */
    KST_PACK_SPOOL_FAILED = 5, /* a temporary file could not be made or written */
    KST_PACK_DESTINATION_FAILED = 6, /* the destination took fewer bytes than it was given */
    KST_PACK_TOO_LARGE = 7           /* what is to be written has 4 GiB or more, or runs too long */
};

/* Flags of kst_pack_options. */
enum {
    /* Add an RTP hint track for each stream, which describes the packets that the stream has. Their
     * payloads are kept, but for AU header sections (RFC 3640) whose fields the stream does not
     * show; sequence numbers begin at 0. The speech frames of the function API get a packet each.
     */
    KST_PACK_HINT = 1
};

/* What kst_pack_stream::medium is, as the letters of a mode string select it. */
enum { KST_PACK_UNKNOWN = 0, KST_PACK_AUDIO = 'a', KST_PACK_VIDEO = 'v' };

/* Streams are numbered from 0. */
enum { KST_PACK_MOST_STREAMS = 16 };

typedef struct kst_pack_options {
    uint32_t struct_size; /* sizeof(kst_pack_options) */
    uint32_t flags;       /* KST_PACK_HINT */
} kst_pack_options;

/* What is known of a stream. Texts are UTF-8 without a full stop; empty when there is nothing to
 * say. */
typedef struct kst_pack_stream {
    uint32_t struct_size;      /* in: sizeof(kst_pack_stream) */
    int32_t medium;            /* KST_PACK_UNKNOWN until the header records were fed */
    uint64_t samples;          /* gathered so far */
    uint64_t packets_left_out; /* that are malformed, or of a kind that is not joined */
    uint64_t packets_missing;  /* as the sequence numbers show; of speech of the function API,
                                * frames */
    uint64_t damage_offset;    /* from the start of the stream, where `damage` is not empty; its
                                * end for a fault of the stream as a whole */
    char damage[192];          /* what is wrong there */
} kst_pack_stream;

/* What was written. */
typedef struct kst_pack_report {
    uint32_t struct_size; /* in: sizeof(kst_pack_report) */
    uint32_t tracks;      /* hint tracks not counted */
    uint32_t hint_tracks;
    uint64_t samples; /* hint samples not counted */
    uint64_t packets; /* that the hint tracks describe */
    uint64_t bytes;   /* length of the file */
    int32_t stream;   /* the one that `error` is about, or -1 */
    char error[256];  /* why the call failed */
} kst_pack_report;

/* Makes a packer without streams. `options` may be null. Returns null without memory, and for a
 * struct_size or flags that are unknown. */
KESTREL_API kst_packer* kst_packer_open(const kst_pack_options* options);

/* Takes the next `size` bytes at `data` of a stream; pieces may have any size. Returns
 * KST_PACK_DONE; KST_PACK_CUT once the stream is damaged, whose bytes are then passed over;
 * KST_PACK_BAD_ARGUMENT, also after kst_packer_write; KST_PACK_NO_MEMORY or KST_PACK_SPOOL_FAILED,
 * which all later calls of kst_packer_feed and kst_packer_write for the packer then return. */
KESTREL_API int kst_packer_feed(kst_packer* packer, uint32_t stream, const void* data, size_t size);

/* Describes a stream in `about`. After kst_packer_write too, and only then complete: that a stream
 * is shorter than declared shows at its end. Returns KST_PACK_DONE, or KST_PACK_BAD_ARGUMENT for a
 * stream that was never fed. */
KESTREL_API int kst_packer_describe(const kst_packer* packer, uint32_t stream,
                                    kst_pack_stream* about);

/* Writes the file, once all of every stream was fed: movie box first, then the media in turns of at
 * most a second. `destination` is an empty stream that stands at its start; it is written with
 * SeekNWrite in order. `report` may be null.
 *
 * Returns KST_PACK_DONE or KST_PACK_CUT with a file; otherwise why there is none, with a sentence
 * in report->error, and the destination holds no whole file. A packer writes once.
 *
 * Memory: at most 4 MiB and 14 times the bytes that were fed; with KST_PACK_HINT 40 times, and 9 MB
 * a stream. Samples and packets of usual length take far less. The media wait in memory up to 32
 * MiB for each stream, and beyond that in a temporary file. */
KESTREL_API int kst_packer_write(kst_packer* packer, KST_IOSTREAM_CALLBACK_INTERFACE* destination,
                                 kst_pack_report* report);

/* Frees the packer. Null is ignored. */
KESTREL_API void kst_packer_close(kst_packer* packer);

#ifdef __cplusplus
}
#endif

#endif
