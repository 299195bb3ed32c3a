/* SPDX-License-Identifier: Apache-2.0 */
/* The host's I/O stream callback table: the only way the library touches a file.
 *
 * The host fills one table per stream and passes its address to the library. The table and
 * whatever its context refers to belong to the host and must outlive the handle opened on it.
 * The library calls the slots only from the thread that called into the library, one call at a
 * time per handle. Usable from C and C++.
 */
#ifndef KESTREL_STREAM_H
#define KESTREL_STREAM_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Ten pointer-sized words; slot order and argument order are part of the binary contract.
 *
 * Every function receives Context first and returns a 32-bit status in the host's own numbering.
 * Only CheckStatus gives that number a meaning, except that callers which look at a status
 * directly take 0 for success and see no more than its low 16 bits. All offsets and counts are in
 * bytes. A function slot must not be null: opening refuses such a table with status 13.
 */
typedef struct _TAG_KST_IOSTREAM_CALLBACK_INTERFACE {
    /* The host's own stream context: never dereferenced by the library, only handed back and
     * printed in failure messages. */
    void* Context;

    /* Stores the stream's current offset through `offset`. */
    uint32_t (*GetOffset)(void* context, uint32_t* offset);

    /* Moves the stream to the absolute `offset`. */
    uint32_t (*Seek)(void* context, uint32_t offset);

    /* Reads `*count` bytes into `data` from `offset`, or from the current position when `offset`
     * is -1 (the library always passes -1). Stores the number of bytes read through `count` and
     * advances the position by it. Fewer bytes than asked for with a success status means the end
     * of the stream. */
    uint32_t (*SeekNRead)(void* context, void* data, uint32_t* count, int32_t offset);

    /* Writes `count` bytes from `data` at `offset`, or at the current position when `offset` is
     * -1 (the library always passes -1). */
    uint32_t (*SeekNWrite)(void* context, const void* data, uint32_t count, int32_t offset);

    /* Stores the stream's total length through `size`. May move the position. */
    uint32_t (*GetStreamSize)(void* context, uint32_t* size);

    /* Returns non-zero when the position is at the end of the stream. */
    uint32_t (*IsEOF)(void* context);

    /* Reads `count` bytes at the absolute `offset` into `data` without disturbing the sequential
     * position, and stores the number of bytes read through `bytes_read`. A host whose file is
     * still arriving answers a status that CheckStatus classifies as not-yet when not all of the
     * bytes are there; it may then be asked again for the same bytes at any later time. */
    uint32_t (*IndexRead)(void* context, void* data, uint32_t offset, uint32_t count,
                          uint32_t* bytes_read);

    /* Tells the host that reading has advanced to `offset`. Whether the host then discards what
     * lies before it is its own affair. */
    uint32_t (*AdvanceRead)(void* context, uint32_t offset);

    /* Classifies `status`, a value that one of the other slots returned: stores through `result`
     * KST_IO_OK, KST_IO_NOT_YET, KST_IO_NOT_YET_ALSO, or any other value for a failure. */
    uint32_t (*CheckStatus)(void* context, uint32_t* result, uint32_t status);
} KST_IOSTREAM_CALLBACK_INTERFACE;

/* What CheckStatus stores: success, or one of the two values that mean that the requested data is
 * not yet in the host's buffers. */
enum { KST_IO_OK = 0, KST_IO_NOT_YET = 5, KST_IO_NOT_YET_ALSO = 13 };

#ifdef __cplusplus
}
#endif

#endif
