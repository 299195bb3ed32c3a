/* SPDX-License-Identifier: Apache-2.0 */
/* Playing a 3GP file: open it over a stream that the host serves, and pull one track out chunk by
 * chunk as a native stream (docs/native-format.md). Usable from C and C++.
 *
 *     mm_Interface* handle;
 *     status = kst_Open(&handle, callbacks, "ar");
 *     while (status == KST_SUCCESS) {
 *         uint32_t size = sizeof buffer;
 *         status = kst_ReadChunk(handle, buffer, &size, false);
 *         if (status == KST_SUCCESS) consume(buffer, size);
 *     }
 *     kst_Close(&handle);
 *
 * Handles are independent of each other: any number may be open, each with a stream of its own, in
 * different threads. One handle must not be used from two threads at once. Every function returns a
 * status (kestrel/status.h) unless it says otherwise; none throws.
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
    /* A buffer of this many bytes has room for any chunk, but for that of a frame which takes more
     * than 64,000 bytes with the headers of its packets. For such a one kst_ReadChunk returns
     * KST_BAD_ARGUMENT with the bytes that it needs in `*size`. */
    KST_LARGEST_CHUNK = 64064,
    /* No chunk is larger. A longer frame is KST_FAILURE. */
    KST_MAX_CHUNK = (16 << 20) + 64
};

/* Opens the file behind `callbacks` and selects the track that `mode` names.
 *
 * The stream must stand at offset 0; to open a stream again, for instance one that had not arrived
 * far enough, move it back there first. `mode` is a string of letters in any order and case: `a`
 * (audio: AMR narrow or wide band) or `v` (video: MPEG-4, H.263, H.264), and `r` (read); of several
 * tracks the last one that fits is taken. On success the handle is stored through `handle_out` and
 * the stream is moved back to offset 0. The table must outlive the handle.
 *
 * KST_BAD_HANDLE: null `handle_out`. KST_BAD_ARGUMENT: null table or null slot in it. KST_BAD_MODE:
 * null or bad mode string. KST_NO_MEMORY. KST_FAILURE: the file has no track that fits, is no 3GP
 * file, or its movie box has not arrived yet; the system log tells which. After a failure the
 * handle variable is null, or untouched when an argument was at fault or memory ran out. */
KESTREL_API int32_t kst_Open(mm_Interface** handle_out, KST_IOSTREAM_CALLBACK_INTERFACE* callbacks,
                             const char* mode);

/* The same; `size` is accepted and ignored. */
KESTREL_API int32_t kst_Open2(mm_Interface** handle_out, KST_IOSTREAM_CALLBACK_INTERFACE* callbacks,
                              const char* mode, uint32_t size);

/* Delivers the next chunk of the native stream.
 *
 * `*size` is the room in `buffer` on the way in and the number of bytes delivered on the way out.
 * `arriving` says how the host serves the stream, and may differ from call to call: false for a
 * seekable stream (the library reads with Seek and SeekNRead, and moves the stream to the track's
 * next data), true for one that fills over time (the library reads with IndexRead and announces its
 * progress with AdvanceRead).
 *
 * KST_SUCCESS: a chunk was delivered. KST_END_OF_FILE: there are no more. KST_NOT_YET: the data
 * cannot be had now; nothing was consumed, so call again when more has arrived (a file that was cut
 * short answers so for ever). KST_BAD_HANDLE: null handle. KST_BAD_ARGUMENT: null buffer or size;
 * or no room for the chunk: then `*size` is the room that it needs, nothing was consumed, and the
 * call can be repeated. KST_FAILURE with `*size` 0: the track cannot be read on, or the data of the
 * first video frame cannot be had now; nothing was consumed, so while the file is incomplete the
 * call may be repeated as after KST_NOT_YET. KST_FAILURE with `*size` not 0: the chunk was
 * delivered, but the stream could not be repositioned behind it. 23 (no name in the table): the
 * codec record could not be written. */
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
