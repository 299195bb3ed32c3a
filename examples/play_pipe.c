/* SPDX-License-Identifier: Apache-2.0 */
/* Plays one track of a file that arrives on standard input, while it arrives, and writes it to
 * standard output as a native stream. Where the next data is not there yet, the library answers 17
 * (KST_NOT_YET): wait for more, and make the same call again.
 *
 *     download | play_pipe MODE >STREAM
 */
#include <kestrel/hosts.h>
#include <kestrel/kestrel.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

/* What has not arrived may be what opening needs. */
static int32_t open_arriving(mm_Interface** handle, kst_host* host, const char* mode) {
    for (;;) {
        const int complete = kst_host_is_complete(host);
        const int32_t status = kst_Open(handle, kst_host_callbacks(host), mode);
        if (status != KST_FAILURE || complete) return status;
        if (kst_host_wait_to_open(host) == KST_HOST_FAULT) return KST_IO_FAILURE;
    }
}

/* A first video frame that has not arrived is a failure without a byte; it is in the second chunk.
 */
static bool is_not_yet(int32_t status, uint32_t size, int delivered) {
    return status == KST_NOT_YET || (status == KST_FAILURE && size == 0 && delivered < 2);
}

static int32_t read_arriving(mm_Interface* handle, kst_host* host, unsigned char* chunk,
                             uint32_t room, uint32_t* size, int delivered) {
    for (;;) {
        const int complete = kst_host_is_complete(host);
        *size = room;
        const int32_t status = kst_ReadChunk(handle, chunk, size, kst_host_is_arriving(host));
        if (!is_not_yet(status, *size, delivered)) return status;
        if (kst_host_failed(host) != 0) return KST_IO_FAILURE;
        if (complete) return status;
        if (kst_host_wait(host) == KST_HOST_FAULT) return KST_IO_FAILURE;
    }
}

/* At the end of the input nothing can be awaited any more. */
static const char* ending_of(int32_t status) {
    return status == KST_NOT_YET ? "the file is cut: it ends before the track"
                                 : kst_StatusString(status);
}

int main(int argc, char** argv) {
    if (argc != 2) return 2;
    kst_host* host = kst_host_from_pipe(STDIN_FILENO);
    if (host == NULL) {
        perror("play_pipe");
        return 1;
    }

    mm_Interface* handle = NULL;
    int32_t status = open_arriving(&handle, host, argv[1]);
    uint32_t room = KST_LARGEST_CHUNK;
    unsigned char* chunk = malloc(room);
    int delivered = 0; /* chunks, counted up to 2 */
    while (status == KST_SUCCESS && chunk != NULL) {
        uint32_t size = 0;
        status = read_arriving(handle, host, chunk, room, &size, delivered);
        if (status == KST_SUCCESS) {
            fwrite(chunk, 1, size, stdout);
            delivered += delivered < 2;
        }
        if (status != KST_BAD_ARGUMENT || size <= room) continue;
        free(chunk); /* too small for a large frame */
        chunk = malloc(room = size);
        status = KST_SUCCESS;
    }
    free(chunk);
    kst_Close(&handle);
    kst_host_close(host);

    const int is_written = fflush(stdout) == 0 && !ferror(stdout);
    if (status == KST_END_OF_FILE && is_written) return 0;
    fprintf(stderr, "play_pipe: %s\n",
            is_written ? ending_of(status) : "the output could not be written");
    return 1;
}
