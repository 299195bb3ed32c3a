/* SPDX-License-Identifier: Apache-2.0 */
/* What a file has, what of it the library plays, and why not the rest. Part of the companion
 * library kestrel_hosts. Usable from C11 and C++11.
 *
 * A host asks before it opens a file: whether kst_Open will take it, whether C3gpInterface::Open
 * could end the process, and what fixes a file that does not play.
 *
 *     kst_probe* probe = NULL;
 *     kst_probe_verdict verdict;
 *     verdict.struct_size = sizeof verdict;
 *     if (kst_probe_open(&probe, kst_host_callbacks(host)) == KST_SUCCESS &&
 *         kst_probe_judge(probe, KST_API_FUNCTION, KST_MEDIUM_VIDEO, &verdict) == KST_SUCCESS &&
 *         verdict.reason != KST_PROBE_NO_REASON) {
 *         printf("%s\n", verdict.why);
 *     }
 *     kst_probe_close(probe);
 *
 * The probe reads the boxes and the tables, opens the file as each API does, and reads a few hint
 * samples. It plays nothing: it does not find samples that are malformed, nor a hint track whose
 * tables place its samples wrongly, of which kst_ReadChunk may leave out pictures without a
 * failure. The functions print nothing, write nothing to the system log and never end the process.
 * Different probes may be used in different threads. Texts belong to the probe. They are UTF-8. Of
 * the file they have the characters of ASCII; for another byte a backslash, an x and two
 * hexadecimal digits.
 */
#ifndef KESTREL_PROBE_H
#define KESTREL_PROBE_H

#include <stdint.h>

#include "kestrel/api.h"
#include "kestrel/status.h"
#include "kestrel/stream.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The tracks of a file and the verdicts on them. */
typedef struct kst_probe kst_probe;

enum { KST_API_FUNCTION = 0, KST_API_CLASS = 1 };

enum { KST_MEDIUM_AUDIO = 0, KST_MEDIUM_VIDEO = 1, KST_MEDIUM_HINT = 2, KST_MEDIUM_OTHER = 3 };

/* Why an API does not play a medium of a file. Later versions may add reasons. */
enum {
    KST_PROBE_NO_REASON = 0,      /* the tables show no reason against it */
    KST_PROBE_NO_TRACK = 1,       /* the file has no track of the medium */
    KST_PROBE_NO_HINT_TRACK = 2,  /* the class API needs one */
    KST_PROBE_SELF_HINTED = 3,    /* the packets are in the hint track itself (class API) */
    KST_PROBE_CODEC = 4,          /* the API does not play the codec */
    KST_PROBE_ENCRYPTED = 5,      /* the track is encrypted */
    KST_PROBE_SEVERAL_TRACKS = 6, /* the class API plays a medium of one track only */
    KST_PROBE_FRAGMENTED = 7,     /* samples are in movie fragments */
    KST_PROBE_LARGE_BOX = 8,      /* a box declares its size in a form that the API does not read */
    KST_PROBE_UNKNOWN_TABLE = 9,  /* a table has a form that the API does not read */
    KST_PROBE_INCOMPLETE = 10,    /* samples, fragments or hint samples are missing */
    KST_PROBE_DAMAGED = 11,       /* a box or table is malformed, or the track has no samples */
    KST_PROBE_ENDS_PROCESS = 12,  /* opening ends the process (kestrel/c3gpinterface.h) */
    KST_PROBE_LARGE_FRAME = 13    /* a sample is larger than the API can hold */
};

/* A track. A number that the file does not give is 0. */
typedef struct kst_probe_track {
    uint32_t struct_size;    /* in: sizeof(kst_probe_track) */
    uint32_t track_id;       /* as in the track header */
    int32_t medium;          /* KST_MEDIUM_AUDIO ... */
    char codec[20];          /* four-character code of the first sample entry, NUL-terminated */
    const char* codec_name;  /* "AMR-NB", "H.264"...; "unknown" */
    uint32_t timescale;      /* units a second */
    uint64_t duration;       /* in these units */
    uint64_t samples;        /* of the file, those in movie fragments included */
    uint64_t fragmented;     /* of them, those in movie fragments that the library does not read */
    uint64_t bytes;          /* of all samples */
    uint32_t width, height;  /* pixels */
    uint32_t sync_samples;   /* entries of the table of sync samples */
    char language[4];        /* ISO 639-2/T, NUL-terminated; "und" */
    uint32_t hints_track;    /* hint track: the track that it describes */
    uint32_t longest_packet; /* hint track: bytes */
    int32_t is_encrypted;    /* not 0: a protected sample entry */
} kst_probe_track;

/* Whether an API plays a medium. */
typedef struct kst_probe_verdict {
    uint32_t struct_size;  /* in: sizeof(kst_probe_verdict) */
    int32_t reason;        /* KST_PROBE_NO_REASON ... */
    uint32_t track_id;     /* the track that is judged; 0 for none */
    const char* word;      /* of the reason, for scripts: "no-reason", "no-hint-track" */
    const char* why;       /* a sentence; empty for KST_PROBE_NO_REASON */
    const char* fix;       /* the command that may fix it, with FILE and OUT; empty for none */
    uint32_t hint_flags;   /* for kst_hint (kestrel/hinter.h), which does the same */
    int32_t can_be_hinted; /* not 0: kst_hint with these flags may fix it */
    /* Of a medium that the class API plays, not 0: SeekTo reaches another time than it is asked
     * for, because the hint track has another timescale than the media. kst_hint with
     * KST_HINT_REPLACE fixes it. */
    int32_t seeks_elsewhere;
} kst_probe_verdict;

/* Looks at the file that `stream` serves, which must be there as a whole, and stores a probe
 * through `out`. The stream is read during this call alone, with Seek, SeekNRead and IndexRead
 * among others, and stands at offset 0 afterwards. Memory and time are in proportion to the movie
 * box, to the other boxes at the top level (256 bytes each), to the samples of a table with one
 * size for all (8 bytes each, for at most 4,194,304) and, in a file with movie fragments or other
 * odd forms, to the fragment and index boxes and the number of samples. Time also to the bytes that
 * belong to no box or sample: zeros at the end, and media that no fragment refers to, are read.
 *
 * Returns:
 *
 * - KST_SUCCESS, also for a file of another kind;
 * - KST_BAD_ARGUMENT: a null pointer or slot;
 * - KST_NO_MEMORY. Where memory runs out while boxes are read, the verdicts may be
 *   KST_PROBE_DAMAGED instead;
 * - KST_NOT_YET: a slot answered not-yet;
 * - KST_IO_FAILURE: a slot failed.
 *
 * After each but the first `*out` is null. */
KESTREL_API int32_t kst_probe_open(kst_probe** out, KST_IOSTREAM_CALLBACK_INTERFACE* stream);

/* Frees a probe; null is ignored. */
KESTREL_API void kst_probe_close(kst_probe* probe);

/* Returns the number of tracks. */
KESTREL_API uint32_t kst_probe_tracks(const kst_probe* probe);

/* Describes the track at `index`, from 0: KST_SUCCESS; KST_NO_SUCH_TRACK; KST_BAD_ARGUMENT for a
 * null pointer or a struct_size that is smaller than that of this version. */
KESTREL_API int32_t kst_probe_describe(const kst_probe* probe, uint32_t index,
                                       kst_probe_track* track);

/* Judges a medium, KST_MEDIUM_AUDIO or KST_MEDIUM_VIDEO, for an API: KST_SUCCESS;
 * KST_BAD_ARGUMENT. */
KESTREL_API int32_t kst_probe_judge(const kst_probe* probe, int32_t api, int32_t medium,
                                    kst_probe_verdict* verdict);

#ifdef __cplusplus
}
#endif

#endif
