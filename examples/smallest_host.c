/* SPDX-License-Identifier: Apache-2.0 */
/* The smallest host: a table of callbacks over a file descriptor. Plays one track of a file and
 * writes it to standard output as a native stream.
 *
 *     smallest_host FILE MODE >STREAM
 */
#define _POSIX_C_SOURCE 200809L /* for pread */

#include <fcntl.h>
#include <kestrel/kestrel.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

/* The statuses of this host are its own affair; check_status translates them for the library. */
static const uint32_t kOk = 0;
static const uint32_t kFailed = 1;

static int fd_of(void* context) {
    return *(const int*)context;
}

static uint32_t seek(void* context, uint32_t offset) {
    return lseek(fd_of(context), (off_t)offset, SEEK_SET) < 0 ? kFailed : kOk;
}

static uint32_t get_offset(void* context, uint32_t* offset) {
    const off_t at = lseek(fd_of(context), 0, SEEK_CUR);
    *offset = (uint32_t)at;
    return at < 0 ? kFailed : kOk;
}

static uint32_t seek_n_read(void* context, void* data, uint32_t* count, int32_t offset) {
    if (offset != -1 && seek(context, (uint32_t)offset) != kOk) return kFailed;
    const ssize_t got = read(fd_of(context), data, *count);
    *count = got < 0 ? 0 : (uint32_t)got;
    return got < 0 ? kFailed : kOk;
}

/* Playing writes nothing. */
static uint32_t seek_n_write(void* context, const void* data, uint32_t count, int32_t offset) {
    (void)context, (void)data, (void)count, (void)offset;
    return kFailed;
}

static uint32_t get_stream_size(void* context, uint32_t* size) {
    struct stat about;
    if (fstat(fd_of(context), &about) != 0) return kFailed;
    *size = (uint32_t)about.st_size;
    return kOk;
}

static uint32_t is_eof(void* context) {
    uint32_t offset = 0;
    uint32_t size = 0;
    return get_offset(context, &offset) == kOk && get_stream_size(context, &size) == kOk &&
           offset >= size;
}

static uint32_t index_read(void* context, void* data, uint32_t offset, uint32_t count,
                           uint32_t* bytes_read) {
    const ssize_t got = pread(fd_of(context), data, count, (off_t)offset);
    *bytes_read = got < 0 ? 0 : (uint32_t)got;
    return got < 0 ? kFailed : kOk;
}

/* This host keeps the whole file, so that it need not know how far reading has come. */
static uint32_t advance_read(void* context, uint32_t offset) {
    (void)context, (void)offset;
    return kOk;
}

static uint32_t check_status(void* context, uint32_t* result, uint32_t status) {
    (void)context;
    *result = status; /* 0 is KST_IO_OK, and any number without a meaning is a failure */
    return kOk;
}

int main(int argc, char** argv) {
    if (argc != 3) return 2;
    int fd = open(argv[1], O_RDONLY);
    if (fd < 0) {
        perror(argv[1]);
        return 1;
    }
    KST_IOSTREAM_CALLBACK_INTERFACE host = {&fd,          get_offset,      seek,   seek_n_read,
                                            seek_n_write, get_stream_size, is_eof, index_read,
                                            advance_read, check_status};

    mm_Interface* handle = NULL;
    int32_t status = kst_Open(&handle, &host, argv[2]);
    uint32_t room = KST_LARGEST_CHUNK;
    unsigned char* chunk = malloc(room);
    while (status == KST_SUCCESS && chunk != NULL) {
        uint32_t size = room;
        status = kst_ReadChunk(handle, chunk, &size, false);
        if (status == KST_SUCCESS) fwrite(chunk, 1, size, stdout);
        if (status != KST_BAD_ARGUMENT || size <= room) continue;
        free(chunk); /* too small for a large frame */
        chunk = malloc(room = size);
        status = KST_SUCCESS;
    }
    free(chunk);
    kst_Close(&handle);

    close(fd);
    const int is_written = fflush(stdout) == 0 && !ferror(stdout);
    if (status == KST_END_OF_FILE && is_written) return 0;
    fprintf(stderr, "%s: %s\n", argv[1],
            is_written ? kst_StatusString(status) : "the output could not be written");
    return 1;
}
