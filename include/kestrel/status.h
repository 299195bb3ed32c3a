/* SPDX-License-Identifier: Apache-2.0 */
/* The status codes that both APIs of the library report. Usable from C11 and C++11. */
#ifndef KESTREL_STATUS_H
#define KESTREL_STATUS_H

/* kst_StatusString returns the text of a code. It returns "Unknown status" for 20 to 23 and for a
 * value that is not listed. The text of 16 names kst_GetIOCallbackStatus, which reports nothing. */
enum {
    KST_SUCCESS = 0,             /* done */
    KST_END_OF_FILE = 1,         /* end of the track */
    KST_FAILURE = 2,             /* any other failure */
    KST_NO_SUCH_FILE = 3,        /* never reported: the library opens no files */
    KST_CORRUPT = 4,             /* a required box is missing or malformed */
    KST_BAD_HANDLE = 5,          /* null handle, or null pointer to a handle */
    KST_NO_MEMORY = 6,           /* allocation failed */
    KST_BAD_MODE = 7,            /* invalid mode string */
    KST_NOT_OPEN = 8,            /* the object is not open for this operation */
    KST_ALREADY_OPEN = 9,        /* the object is open already */
    KST_NOT_SUPPORTED = 10,      /* operation not supported */
    KST_TOO_MANY_TRACKS = 11,    /* more than one track of the medium */
    KST_NO_HINT_TRACK = 12,      /* the track has no RTP hint track */
    KST_BAD_ARGUMENT = 13,       /* null argument, or buffer too small */
    KST_NO_SUCH_TRACK = 14,      /* the file has no track of the medium */
    KST_UNKNOWN_CODER = 15,      /* unsupported codec */
    KST_IO_FAILURE = 16,         /* a callback of the host failed */
    KST_NOT_YET = 17,            /* data has not arrived yet: call again later; if all of the file
                                  * is there, it is cut short */
    KST_BAD_TIMESTAMP = 18,      /* seek target past the end */
    KST_BAD_SEEK_FLAGS = 19,     /* invalid seek flags */
    KST_DIVIDE_BY_ZERO = 20,     /* a zero divisor in a table */
    KST_TABLE_TOO_SHORT = 21,    /* a sample table ends too early */
    KST_NO_HINT_OFFSET = 22,     /* hint sample not found */
    KST_CODEC_RECORD_FAILED = 23 /* codec record not written */
};

#endif
