/* SPDX-License-Identifier: Apache-2.0 */
/* Copies a clip of any form and adds an RTP hint track to each medium that has a
 * payload format (RFC 4867 for AMR, RFC 4629 or RFC 2190 for H.263, RFC 6416 for MPEG-4, RFC 6184
 * for H.264). Part of the companion library kestrel_hosts. Usable from C11 and C++11.
 *
 * The source is an ISO base media file (ISO/IEC 14496-12) of any form in use, including movie
 * fragments, or a QuickTime file. The result is a plain 3GP file: the movie box, then media and
 * hint samples, interleaved by at most a second. Its tracks have the samples of the source with
 * their sizes, times, composition offsets and sync samples; otherwise the call fails. Where hint
 * tracks need it, the timescale of a track becomes a multiple of 1,000, so that the numbers of
 * units change and the times in seconds do not. Fragments that are missing at the end are found by
 * what counts them: durations, segment indexes and `mfra`. A fragmented file without any of these
 * that was cut between two fragments is a whole, shorter file. Lines about a malformed source are
 * written to standard error, as by kst_Open.
 *
 *     kst_hint_report report;
 *     report.struct_size = sizeof report;
 *     if (kst_hint(kst_host_callbacks(upload), kst_host_callbacks(hinted), NULL, &report) !=
 *         KST_HINT_DONE) {
 *         fprintf(stderr, "%s\n", report.error);
 *     }
 */
#ifndef KESTREL_HINTER_H
#define KESTREL_HINTER_H

#include <stdint.h>

#include "kestrel/api.h"
#include "kestrel/stream.h"

#ifdef __cplusplus
extern "C" {
#endif

/* What kst_hint returns. */
enum {
    KST_HINT_DONE = 0,
    KST_HINT_CANCELLED = 1,    /* the progress function returned non-zero */
    KST_HINT_BAD_ARGUMENT = 2, /* a null table, a wrong struct_size, flag or max_packet */
    KST_HINT_NO_MEMORY = 3,
    KST_HINT_REFUSED = 4,            /* the source is malformed, or cannot be copied or hinted */
    KST_HINT_HAS_HINTS = 5,          /* the source has hint tracks; see KST_HINT_REPLACE */
    KST_HINT_SOURCE_FAILED = 6,      /* the source could not be read, or has not arrived yet */
    KST_HINT_DESTINATION_FAILED = 7, /* the destination took fewer bytes than it was given */
    KST_HINT_TOO_LARGE = 8           /* the result would have 4 GiB or more */
};

/* Flags of kst_hint_options. */
enum {
    /* Pack H.263 by RFC 2190 (payload type 34), not by RFC 4629. */
    KST_HINT_RFC2190 = 1,
    /* Replace the hint tracks of the source, instead of refusing it. */
    KST_HINT_REPLACE = 2,
    /* Leave out tracks that get no hint track: other codecs, text, metadata, encrypted tracks. */
    KST_HINT_DROP_OTHERS = 4,
    /* Keep the complete samples of a source that is truncated at its end or lacks fragments. Leave
     * out tracks that have none. */
    KST_HINT_SALVAGE = 8
};

enum {
    KST_HINT_SHORTEST_PACKET = 64,
    KST_HINT_DEFAULT_PACKET = 1400, /* the longest that the function API plays */
    KST_HINT_LONGEST_PACKET = 65535
};

/* Called from time to time, in the thread of kst_hint, with the bytes of samples processed and the
 * bytes of all. Both count a sample twice: for planning its packets and for copying it. Return
 * non-zero to cancel. */
typedef int (*kst_hint_progress)(void* context, uint64_t done, uint64_t all);

typedef struct kst_hint_options {
    uint32_t struct_size; /* sizeof(kst_hint_options) */
    uint32_t flags;       /* KST_HINT_REPLACE ... */
    uint32_t max_packet;  /* bytes, RTP header of 12 included; 0 for KST_HINT_DEFAULT_PACKET */
    kst_hint_progress progress; /* may be null */
    void* progress_context;
} kst_hint_options;

/* Result of kst_hint. Texts are UTF-8 or bytes of the source, without a full stop, or empty. */
typedef struct kst_hint_report {
    uint32_t struct_size;     /* in: sizeof(kst_hint_report) */
    uint32_t tracks;          /* written, hint tracks not counted */
    uint32_t hint_tracks;     /* written */
    uint32_t dropped_tracks;  /* left out by KST_HINT_DROP_OTHERS, or as KST_HINT_SALVAGE could keep
                               * none of their samples */
    uint32_t replaced_tracks; /* hint tracks left out by KST_HINT_REPLACE */
    uint64_t samples;         /* written, hint samples not counted */
    uint64_t packets;         /* that the hint tracks describe */
    uint64_t packet_bytes;    /* of these, RTP headers included */
    uint64_t bytes;           /* length of what was written */
    char error[256];          /* reason of a failure */
    char left_out[256];       /* tracks and samples that the flags left out; and what does not play
                               * right: implausible samples, seeks that land too early, media
                               * that no sample of a fragment takes */
} kst_hint_report;

/* Copies the file that `source` serves to `destination` and adds hint tracks.
 *
 *   source       a complete file; read twice, with IndexRead
 *   destination  an empty stream at offset 0; written in order, with SeekNWrite. If Seek can go
 *                back in it, the movie box becomes valid with the last byte
 *   options      may be null
 *   report       may be null
 *
 * The tables remain the caller's and are used during the call only.
 *
 * Returns KST_HINT_DONE, or the kind of failure, with a sentence in report->error. A source that
 * cannot be hinted is refused before the first byte is written. After a failure the destination
 * does not hold a complete file.
 *
 * Memory: about 35 to 110 bytes for each sample, the more of the durations, composition offsets and
 * chunks differ; about 10 for each packet after the first of a sample; the longest sample (at most
 * 16 MiB in a track that gets a hint track); at most 32 times the size of the ftyp, moov, moof,
 * sidx and mfra boxes, for files of many brands, references or sample entries; and 4 MiB.
 *
 * Threads: may be called from several threads at once, each with its own tables. */
KESTREL_API int kst_hint(KST_IOSTREAM_CALLBACK_INTERFACE* source,
                         KST_IOSTREAM_CALLBACK_INTERFACE* destination,
                         const kst_hint_options* options, kst_hint_report* report);

#ifdef __cplusplus
}
#endif

#endif
