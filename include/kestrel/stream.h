/* SPDX-License-Identifier: Apache-2.0 */
/* The host's I/O stream callback table: the only way the library touches a file. Usable from C11
 * and C++11.
 *
 * The host fills one table per stream and passes its address to the library. The table and what its
 * context refers to belong to the host and must outlive the handle opened on it. The library calls
 * the slots only from the thread that called into the library, one call at a time per handle.
 *
 * ## A file that arrives
 *
 * The table lists the slots that each API calls while it opens a file (O), while it delivers with
 * `arriving` false (R), with `arriving` true (A), and while the class API seeks (S). A host must
 * fill every slot all the same.
 *
 * | Slot          | Function API | Class API  |
 * |---------------|--------------|------------|
 * | GetOffset     | O            | O          |
 * | Seek          | O, R         | O, R, S    |
 * | SeekNRead     | O, R         | O, R, S    |
 * | SeekNWrite    | never        | never      |
 * | GetStreamSize | never        | O          |
 * | IsEOF         | never        | O          |
 * | IndexRead     | A            | A          |
 * | AdvanceRead   | A            | R, A       |
 * | CheckStatus   | never        | O, R, A, S |
 *
 * What each slot answers. "not-yet" is a status that CheckStatus classifies as KST_IO_NOT_YET or
 * KST_IO_NOT_YET_ALSO, which mean the same; "failure" is any other status that is not a success.
 *
 * | Slot          | Data not there yet          | At the true end          | Failed for good |
 * |---------------|-----------------------------|--------------------------|-----------------|
 * | GetOffset     | success                     | success                  | failure         |
 * | Seek          | success, also beyond the    | success                  | failure         |
 * |               | bytes that have arrived     |                          |                 |
 * | SeekNRead     | not-yet, position kept      | success, fewer bytes     | failure         |
 * | GetStreamSize | success if the final length | success                  | failure         |
 * |               | is known, else not-yet      |                          |                 |
 * | IsEOF         | 0                           | 1                        | 1               |
 * | IndexRead     | not-yet                     | success, fewer bytes     | failure         |
 * | AdvanceRead   | success                     | success                  | failure         |
 *
 * A read that is served in part counts as not served: the library asks for the same bytes again.
 * While boxes are read the class API takes a short SeekNRead with success for the end, and the
 * bytes that it lacks for zeros: answer not-yet before the end.
 *
 * What the APIs report then:
 *
 * | Call                      | Slot says not-yet    | Bytes after the end  | Slot says failure |
 * |---------------------------|----------------------|----------------------|-------------------|
 * | kst_Open                  | KST_FAILURE (3)      | KST_FAILURE          | KST_FAILURE (3)   |
 * | kst_ReadChunk, both flags | KST_NOT_YET (1, 2)   | KST_NOT_YET (1, 2)   | KST_NOT_YET (1, 2) |
 * | C3gpInterface::Open       | KST_FAILURE          | KST_CORRUPT          | KST_CORRUPT       |
 * | ReadChunk, not arriving   | KST_FAILURE (4)      | KST_FAILURE          | KST_FAILURE (4)   |
 * | ReadChunk, arriving       | KST_NOT_YET          | KST_NOT_YET          | KST_IO_FAILURE    |
 * | SeekTo                    | KST_FAILURE          | KST_FAILURE          | KST_FAILURE       |
 *
 * (1) KST_FAILURE with a size of 0 for the first frame of a video.
 * (2) KST_FAILURE with a size of 0 for a video that is played by its hint track, in two cases: for
 * bytes after the end, whether the file arrives or is whole; and without `arriving` for all three
 * answers.
 * (3) It may succeed where only GetOffset, or the Seek back to offset 0, is not served.
 * (4) From AdvanceRead: KST_NOT_YET and KST_IO_FAILURE, as when arriving.
 *
 * The function API looks at the low 16 bits of a status, 0 for success, and never calls
 * CheckStatus. So a host that failed for good is answered KST_NOT_YET there, as most files are that
 * were cut short: the host must remember that it failed, or that its file is complete, and stop
 * calling (kst_host_failed() and kst_host_is_complete() do so for the ready hosts). When
 * AdvanceRead or the Seek after a frame fails, the chunk was delivered, and the status is
 * KST_FAILURE with its size.
 *
 * ## What may be discarded
 *
 * AdvanceRead announces where the next sample of the track begins, or of its hint track where that
 * is played. It is no lower bound: the media of a packet usually lie before its hint sample, and
 * **data before the announced offset is still read**. A host must not discard them. Until the open
 * call has succeeded nothing may be discarded, as each try begins at offset 0. After it, the chunks
 * of the file matter (`stco`) that have samples still to be delivered, of the media track and of
 * its hint track: what lies before the first of them may be discarded. A host that does not read
 * these tables keeps all bytes. SeekTo of the class API may go back to any sample.
 */
#ifndef KESTREL_STREAM_H
#define KESTREL_STREAM_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Ten pointer-sized words; slot order and argument order are part of the binary contract.
 *
 * Every function receives Context first. It returns a 32-bit status, whose numbers are the host's
 * own: the class API has CheckStatus classify each, the function API takes 0 in the low 16 bits for
 * success. So a host returns 0 for success, and a number from 1 to 65535 for anything else. IsEOF
 * and CheckStatus return no status.
 *
 * Offsets and counts are in bytes. No function slot may be null: opening refuses such a table with
 * KST_BAD_ARGUMENT.
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
     * advances the position by it. Fewer bytes than asked for, with success, mean the end of the
     * stream. */
    uint32_t (*SeekNRead)(void* context, void* data, uint32_t* count, int32_t offset);

    /* Writes `count` bytes from `data` at `offset`, or at the current position when `offset` is
     * -1 (the library always passes -1). */
    uint32_t (*SeekNWrite)(void* context, const void* data, uint32_t count, int32_t offset);

    /* Stores the stream's total length through `size`. May move the position. */
    uint32_t (*GetStreamSize)(void* context, uint32_t* size);

    /* Returns non-zero when the position is at the end of the stream. */
    uint32_t (*IsEOF)(void* context);

    /* Reads `count` bytes at the absolute `offset` into `data` without disturbing the sequential
     * position, and stores the number of bytes read through `bytes_read`. Fewer bytes than asked
     * for, with success, mean the end of the stream. While not all of the bytes have arrived, it
     * answers not-yet, and may be asked for them again at any time. */
    uint32_t (*IndexRead)(void* context, void* data, uint32_t offset, uint32_t count,
                          uint32_t* bytes_read);

    /* Announces that the next sample, or hint sample, begins at `offset`. A hint for fetching
     * ahead: data before it is still read (see above). */
    uint32_t (*AdvanceRead)(void* context, uint32_t offset);

    /* Classifies `status`, a value that one of the other slots returned: stores through `result`
     * KST_IO_OK, KST_IO_NOT_YET, KST_IO_NOT_YET_ALSO, or any other value for a failure. What it
     * returns is ignored; where it stores nothing, the status counts as a success. */
    uint32_t (*CheckStatus)(void* context, uint32_t* result, uint32_t status);
} KST_IOSTREAM_CALLBACK_INTERFACE;

/* What CheckStatus stores: success, or one of the two values that mean alike that the requested
 * data has not arrived yet. */
enum { KST_IO_OK = 0, KST_IO_NOT_YET = 5, KST_IO_NOT_YET_ALSO = 13 };

#ifdef __cplusplus
}
#endif

#endif
