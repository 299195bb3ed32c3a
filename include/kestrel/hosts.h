/* SPDX-License-Identifier: Apache-2.0 */
/* Ready-made hosts: stream tables for a file, for memory, and for a file that is still arriving.
 * Part of the companion library kestrel_hosts. Usable from C11 and C++11.
 *
 * A host owns its stream and its table. Open one, hand kst_host_callbacks() to kst_Open, and close
 * it after the handle. A host serves one handle at a time and is not safe to use from two threads
 * at once; whoever writes the file or the pipe that it reads may be another thread. Offsets are 32
 * bits wide, so a stream is at most 4 GiB - 1 bytes long.
 *
 * Playing a file that arrives, here from a pipe. `handle` is the address of the handle (an
 * mm_Interface**):
 *
 *     for (;;) {
 *         const int complete = kst_host_is_complete(host);
 *         const int32_t status = kst_Open(handle, kst_host_callbacks(host), mode);
 *         if (status != KST_FAILURE || complete) return status;
 *         if (kst_host_wait_to_open(host) == KST_HOST_FAULT) return KST_IO_FAILURE;
 *     }
 *
 * and then, for each chunk, where `handle` is the handle itself and `size` the address of the size:
 *
 *     for (;;) {
 *         const int complete = kst_host_is_complete(host);
 *         *size = room;
 *         const int32_t status = kst_ReadChunk(handle, chunk, size, kst_host_is_arriving(host));
 *         if (!is_not_yet(status, *size, delivered)) return status;
 *         if (kst_host_failed(host) != 0) return KST_IO_FAILURE;
 *         if (complete) return status;
 *         if (kst_host_wait(host) == KST_HOST_FAULT) return KST_IO_FAILURE;
 *     }
 *
 * where is_not_yet() is true for KST_NOT_YET, and for KST_FAILURE with a size of 0 as long as at
 * most one chunk was delivered: the second chunk of a video has its first frame, and that is the
 * answer while the frame has not arrived. Later it means that the file ends too early. "Complete?"
 * is asked before the call: bytes that are written between the two are then read by one more call.
 */
#ifndef KESTREL_HOSTS_H
#define KESTREL_HOSTS_H

#include <stddef.h>
#include <stdint.h>

#include "kestrel/api.h"
#include "kestrel/status.h"
#include "kestrel/stream.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct kst_host kst_host;

/* The statuses that the slots of these hosts return. CheckStatus classifies the first as success,
 * the second as a failure and the third as KST_IO_NOT_YET. */
enum { KST_HOST_OK = 0, KST_HOST_FAILED = 1, KST_HOST_NOT_YET = 2 };

/* What kst_host_wait answers. */
enum { KST_HOST_FAULT = -1, KST_HOST_COMPLETE = 0, KST_HOST_MORE = 1 };

/* Every opening function returns null on failure, with the reason in errno:
 *
 * - ENOMEM;
 * - EFBIG: 4 GiB and more;
 * - EINVAL: `data` is null and `size` is not 0;
 * - EBADF: `fd` is not open for reading;
 * - the error of the path.
 */

/* A complete file, read with positioned reads. */
KESTREL_API kst_host* kst_host_from_file(const char* path);

/* `size` complete bytes at `data`, which the caller keeps alive and unchanged. */
KESTREL_API kst_host* kst_host_from_memory(const void* data, size_t size);

/* An empty stream in memory that can be written and read back. SeekNWrite grows it: bytes between
 * its end and the place written to become zeros. What was written is kst_host_written(). */
KESTREL_API kst_host* kst_host_for_writing_memory(void);

/* A file served as if it were still arriving: nothing of it is there at first, and each
 * kst_host_wait reveals `step` bytes more (at least 1). Its whole length is known from the start,
 * as that of a download usually is. */
KESTREL_API kst_host* kst_host_from_growing_file(const char* path, uint32_t step);

/* The same over memory, which the caller keeps alive and unchanged. */
KESTREL_API kst_host* kst_host_from_growing_memory(const void* data, size_t size, uint32_t step);

/* What a pipe, a socket or a terminal delivers. The bytes are kept until the host is closed; `fd`
 * stays the caller's and may be non-blocking. A wait goes on after a signal whose handler returns.
 * The length is not known before the end: until then GetStreamSize answers not-yet. */
KESTREL_API kst_host* kst_host_from_pipe(int fd);

/* Closes the host and frees its table. Null is ignored. */
KESTREL_API void kst_host_close(kst_host* host);

/* The host's stream table, valid until kst_host_close. Of its slots, SeekNWrite always fails,
 * except for a host made by kst_host_for_writing_memory. */
KESTREL_API KST_IOSTREAM_CALLBACK_INTERFACE* kst_host_callbacks(kst_host* host);

/* The bytes of a host made by kst_host_for_writing_memory, `*size` of them, until the next write or
 * kst_host_close; null with a size of 0 for any other host. */
KESTREL_API const void* kst_host_written(const kst_host* host, size_t* size);

/* Non-zero for a host whose file arrives: pass it as the flag of kst_ReadChunk. */
KESTREL_API int kst_host_is_arriving(const kst_host* host);

/* Non-zero when no more bytes will come than are there now. */
KESTREL_API int kst_host_is_complete(const kst_host* host);

/* Returns 0, or an errno value when the host failed for good: a file could not be read (EIO where
 * it was cut meanwhile), or kst_host_wait answered KST_HOST_FAULT. Ask it when kst_ReadChunk
 * returns KST_NOT_YET, which it does for a host that failed as well. */
KESTREL_API int kst_host_failed(const kst_host* host);

/* Waits until more bytes are there (a pipe is read, blocking) and answers KST_HOST_MORE;
 * KST_HOST_COMPLETE when the stream has ended, which may be learned only here; KST_HOST_FAULT when
 * the stream failed, with the reason in errno. */
KESTREL_API int kst_host_wait(kst_host* host);

/* The same between two tries to open, and moves the stream back to offset 0. It waits until one of
 * these is so, which keeps the tries few:
 *
 * - the movie box ('moov') is there as a whole;
 * - a box header after 'moov' is there;
 * - the stream has grown by half since the call.
 *
 * After KST_HOST_COMPLETE try once more: the last bytes may have arrived with the end.
 */
KESTREL_API int kst_host_wait_to_open(kst_host* host);

/* Moves the stream back to offset 0, which opening the stream again needs. */
KESTREL_API void kst_host_rewind(kst_host* host);

/* How many bytes are there now. */
KESTREL_API uint32_t kst_host_bytes_available(const kst_host* host);

/* The end of the furthest byte that has been read, for showing progress. */
KESTREL_API uint32_t kst_host_bytes_used(const kst_host* host);

#ifdef __cplusplus
}
#endif

#endif
