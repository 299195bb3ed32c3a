/* SPDX-License-Identifier: Apache-2.0 */
/* Playing a 3GP file, the function API: open it over a stream that the host serves, and pull one
 * track out chunk by chunk as a native stream (docs/native-format.md). Usable from C11 and C++11.
 *
 *     mm_Interface* handle = NULL;
 *     uint32_t room = KST_LARGEST_CHUNK;
 *     unsigned char* chunk = (unsigned char*)malloc(room);
 *     int32_t status = kst_Open(&handle, callbacks, "ar");
 *     while (status == KST_SUCCESS && chunk != NULL) {
 *         uint32_t size = room;
 *         status = kst_ReadChunk(handle, chunk, &size, false);
 *         if (status == KST_SUCCESS) consume(chunk, size);
 *         if (status != KST_BAD_ARGUMENT || size <= room) continue;
 *         free(chunk);  // too small for a large frame
 *         chunk = (unsigned char*)malloc(room = size);
 *         status = KST_SUCCESS;
 *     }
 *     free(chunk);
 *     kst_Close(&handle);
 *
 * The loop for a file that arrives is in kestrel/hosts.h.
 *
 * Handles are independent of each other: any number may be open, each with a stream of its own, in
 * different threads. One handle must not be used from two threads at once. Every function returns a
 * status (kestrel/status.h) unless it says otherwise; none throws.
 *
 * The ISO reader writes short lines about damaged boxes and tables, and those that it does not
 * read, to standard error, at most 100 for a handle, and then "further remarks left out". Why
 * opening failed goes to the system log as an error (kestrel/log.h), one line for each kst_Open, so
 * also for each try at a file whose movie box has not arrived. Reading writes nothing to the log at
 * the default level, KST_NOT_YET neither.
 */
#ifndef KESTREL_KESTREL_H
#define KESTREL_KESTREL_H

#include <stdbool.h>
#include <stdint.h>

#include "kestrel/api.h"
#include "kestrel/status.h"
#include "kestrel/stream.h"

#ifdef __cplusplus
extern "C" {
#endif

/* One open file and one of its tracks. Made by kst_Open, owned by the library until kst_Close. */
typedef struct mm_Interface mm_Interface;

enum {
    /* Bytes of a buffer with room for any chunk, except that of a frame whose packets and their
     * headers take more than 64,000 bytes: for that kst_ReadChunk asks for more. */
    KST_LARGEST_CHUNK = 64064,
    /* Bytes of the largest chunk that is delivered. A longer frame is KST_FAILURE. */
    KST_MAX_CHUNK = (16 << 20) + 64
};

/* Opens the file of `callbacks` and selects the track that `mode` names.
 *
 * `mode` is a string of letters in any order and case: `a` (audio: AMR narrow or wide band) or `v`
 * (video: MPEG-4 Visual, H.263, H.264), and `r` (read). Of `a` and `v` the last one counts, and of
 * several tracks that fit the last one is taken. The stream must stand at offset 0. The table must
 * outlive the handle.
 *
 * Returns:
 *
 * - KST_SUCCESS: the handle is in `*handle_out`, the stream was moved back to offset 0.
 * - KST_BAD_HANDLE: `handle_out` is null.
 * - KST_BAD_ARGUMENT: the table, or a slot of it, is null. `*handle_out` was not touched.
 * - KST_BAD_MODE: `mode` is null (`*handle_out` was not touched) or not understood (it is null).
 * - KST_NO_MEMORY: `*handle_out` is null or was not touched: set it to null before the call.
 * - KST_FAILURE: no track fits, the file is no 3GP file, or its movie box has not arrived whole.
 *   `*handle_out` is null. kst_probe_open (kestrel/probe.h) has the reason; the system log has what
 *   the reader missed. While the file arrives, move the stream back to offset 0 and call again.
 *
 * KST_SUCCESS does not promise every sample of the file. Samples in movie fragments, and those that
 * 64-bit chunk offsets (`co64`) or compact sizes (`stz2`) locate, are not read: the stream ends
 * before them with KST_END_OF_FILE. Times of a version-1 `mdhd` read as 0. kst_probe_judge
 * (kestrel/probe.h) reports such files; kst_hint (kestrel/hinter.h) makes files that play whole.
 */
KESTREL_API int32_t kst_Open(mm_Interface** handle_out, KST_IOSTREAM_CALLBACK_INTERFACE* callbacks,
                             const char* mode);

/* The same; `size` is accepted and ignored. */
KESTREL_API int32_t kst_Open2(mm_Interface** handle_out, KST_IOSTREAM_CALLBACK_INTERFACE* callbacks,
                              const char* mode, uint32_t size);

/* Delivers the next chunk of the native stream.
 *
 * A chunk is what one call delivers: one fixed piece of the stream, often part of a frame. Speech:
 * one header record; or bytes 0 to 23 of a frame, and in the next call the rest. Video: the first
 * header record; then the other header records with the first frame record; then in turn the
 * packets of a frame and the next frame record. docs/native-format.md has the calls as a table. The
 * chunks, one after another, are the stream; where one ends has no meaning in it.
 *
 * `*size` is the room in `buffer` before the call. `arriving` says how the host serves the stream,
 * and may differ from call to call: false for a seekable stream (Seek and SeekNRead are called),
 * true for one that fills over time (IndexRead and AdvanceRead are called, see kestrel/stream.h).
 *
 * | Returns                 | `*size` after the call  | Delivered | Call again               |
 * |-------------------------|-------------------------|-----------|--------------------------|
 * | KST_SUCCESS             | bytes of the chunk      | yes       | for the next chunk       |
 * | KST_END_OF_FILE         | 0                       | no        | no; it stays so          |
 * | KST_NOT_YET             | 0                       | no        | when more has arrived    |
 * | KST_BAD_ARGUMENT        | room that is needed     | no        | with that room           |
 * | KST_BAD_ARGUMENT        | as before               | no        | not with a null argument |
 * | KST_FAILURE             | 0                       | no        | in some cases, (1)       |
 * | KST_FAILURE             | bytes of the chunk      | yes       | for the next chunk       |
 * | KST_CODEC_RECORD_FAILED | 0                       | no        | no                       |
 * | KST_BAD_HANDLE          | as before               | no        | not with a null handle   |
 *
 * (1) A video: the data of its first frame have not arrived; or it has a hint track, and the bytes
 * that come next lie after the end or, without `arriving`, were not served. Once the host serves
 * them the stream continues.
 *
 * Where nothing was delivered nothing was consumed: the next call delivers the same chunk. What was
 * delivered before stays good.
 *
 * - KST_END_OF_FILE: also after hint samples of a video that are malformed, whose pictures are left
 *   out without a report. KST_PROBE_NO_REASON (kestrel/probe.h) does not exclude them.
 * - KST_NOT_YET: a read was not served. Every call returns it, or for a video KST_FAILURE with a
 *   size of 0, where a host failed for good or a file was cut short (kestrel/stream.h has the
 *   cases): ask the host whether more can come.
 * - KST_FAILURE with a size of 0: the track cannot be read on, as a video with a hint track at the
 *   end of a file that was cut short; or the data of the first frame of a video has not arrived.
 * - KST_FAILURE with another size: the host refused the Seek or AdvanceRead after the frame.
 * - KST_CODEC_RECORD_FAILED (23): the codec record of an AMR stream could not be written. No file
 *   leads to it.
 * - Statuses 20 to 22 (KST_DIVIDE_BY_ZERO, KST_TABLE_TOO_SHORT, KST_NO_HINT_OFFSET) are reported by
 *   the class API alone. */
KESTREL_API int32_t kst_ReadChunk(mm_Interface* handle, unsigned char* buffer, uint32_t* size,
                                  bool arriving);

/* Closes the handle and stores null in the host's variable. A variable that holds null is
 * KST_SUCCESS, a null pointer KST_BAD_HANDLE. */
KESTREL_API int32_t kst_Close(mm_Interface** handle_in_out);

/* Seeking is not offered: KST_NOT_SUPPORTED; KST_BAD_ARGUMENT for position 0; KST_BAD_HANDLE for a
 * null handle. */
KESTREL_API int32_t kst_SeekTo(mm_Interface* handle, uint32_t position);

/* Reports nothing: KST_SUCCESS with `*status_out` left as it was; KST_BAD_HANDLE, KST_BAD_ARGUMENT
 * for null arguments. */
KESTREL_API int32_t kst_GetIOCallbackStatus(mm_Interface* handle, uint32_t* status_out);

/* The text of a status: constant, never null, "Unknown status" for a value outside the table. */
KESTREL_API const char* kst_StatusString(int32_t code);

#ifdef __cplusplus
}
#endif

#endif
