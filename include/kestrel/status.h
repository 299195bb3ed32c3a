/* SPDX-License-Identifier: Apache-2.0 */
/* The status codes that both APIs of the library report. Usable from C and C++. */
#ifndef KESTREL_STATUS_H
#define KESTREL_STATUS_H

/* kst_StatusString gives the text of each code; the comments below say when a host meets it.
 * A value that is not listed has the text "Unknown status". */
enum {
    KST_SUCCESS = 0,             /* done */
    KST_END_OF_FILE = 1,         /* the track has been delivered to its end */
    KST_FAILURE = 2,             /* anything without a code of its own */
    KST_NO_SUCH_FILE = 3,        /* never reported: the library opens no files */
    KST_CORRUPT = 4,             /* a box that playback needs is missing or damaged */
    KST_BAD_HANDLE = 5,          /* null handle, or null pointer to one */
    KST_NO_MEMORY = 6,           /* allocation failed */
    KST_BAD_MODE = 7,            /* mode string not understood */
    KST_NOT_OPEN = 8,            /* the object is not open for this operation */
    KST_ALREADY_OPEN = 9,        /* the object is open already */
    KST_NOT_SUPPORTED = 10,      /* this operation is not offered */
    KST_TOO_MANY_TRACKS = 11,    /* more than one track of the medium */
    KST_NO_HINT_TRACK = 12,      /* the track has no RTP hint track */
    KST_BAD_ARGUMENT = 13,       /* null argument, or no room for the next chunk */
    KST_NO_SUCH_TRACK = 14,      /* the file has no track of the medium */
    KST_UNKNOWN_CODER = 15,      /* a codec that is not supported */
    KST_IO_FAILURE = 16,         /* one of the host's own callbacks failed */
    KST_NOT_YET = 17,            /* the data has not arrived yet: call again later */
    KST_BAD_TIMESTAMP = 18,      /* seek target past the end */
    KST_BAD_SEEK_FLAGS = 19,     /* seek flags not understood */
    KST_DIVIDE_BY_ZERO = 20,     /* a zero divisor in the file's tables; has no text */
    KST_TABLE_TOO_SHORT = 21,    /* a sample table ends too early; has no text */
    KST_NO_HINT_OFFSET = 22,     /* a hint sample could not be located; has no text */
    KST_CODEC_RECORD_FAILED = 23 /* the codec record could not be written; has no text */
};

#endif
