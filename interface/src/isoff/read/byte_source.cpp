// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <climits>
#include <cstdio>

#include "interface/src/isoff/read/byte_source.h"
#include "kestrel/kstutil.h"

// The byte readers. All read from one source: the in-memory `moov`, or the stream.

namespace kestrel {

bool read_stream(iso_file* file, void* to, uint32_t count) {
    uint32_t got = count;
    std::memset(to, 0, count);
    return kstutil_seeknread(file->stream, to, &got) == 0 && got == count;
}

void remark_end_of_buffer(iso_file* file, const char* request, uint64_t count) {
    remark(file, "%s, EOF %d left, %d requested\n", request, static_cast<int>(file->moov_left),
           static_cast<int>(std::min<uint64_t>(count, INT_MAX)));
}

bool read_buf(iso_file* file, void* to, uint32_t count) {
    if (count > file->moov_left) {
        remark_end_of_buffer(file, "read_buf", count);
        return false;
    }
    std::memcpy(to, file->moov_buffer, count);
    file->moov_buffer += count;
    file->moov_left -= count;
    return true;
}

bool seek_buf(iso_file* file, uint32_t count) {
    if (count > file->moov_left) {
        remark_end_of_buffer(file, "seek_buf", count);
        return false;
    }
    file->moov_buffer += count;
    file->moov_left -= count;
    return true;
}

bool getbytes(iso_file* file, void* to, uint32_t count) {
    return file->in_moov_buffer ? read_buf(file, to, count) : read_stream(file, to, count);
}

uint8_t getbyte(iso_file* file) {
    uint8_t raw = 0;
    return getbytes(file, &raw, 1) ? raw : uint8_t{0};
}

uint16_t getint16(iso_file* file) {
    uint8_t raw[2];
    return getbytes(file, raw, sizeof raw) ? load_be16(raw) : uint16_t{0};
}

uint32_t getint24(iso_file* file) {
    uint8_t raw[3];
    return getbytes(file, raw, sizeof raw) ? load_be24(raw) : 0;
}

uint32_t getint32(iso_file* file) {
    uint8_t raw[4];
    return getbytes(file, raw, sizeof raw) ? load_be32(raw) : 0xFFFFFFFF;
}

bool getID(iso_file* file, char (&code)[5]) {
    code[0] = code[4] = '\0';
    return getbytes(file, code, 4);
}

int getxlen(iso_file* file, uint32_t& length) {
    length = 0;
    for (int taken = 1;; ++taken) {
        uint8_t raw = 0;
        if (!getbytes(file, &raw, 1)) return -1;
        length = length << 7 | (raw & 0x7F);
        if ((raw & 0x80) == 0) return taken;
    }
}

namespace {

// Skips by reading, for a stream that does not seek forward.
int read_over(iso_file* file, uint32_t count) {
    uint8_t discarded[1024];
    while (count > 0) {
        const uint32_t piece = std::min<uint32_t>(count, sizeof discarded);
        if (!read_stream(file, discarded, piece)) return 0;
        count -= piece;
    }
    return 1;
}

}  // namespace

int skip(iso_file* file, uint32_t count) {
    if (file->in_moov_buffer) return seek_buf(file, count) ? 1 : 0;
    uint32_t offset = 0;
    if (kstutil_getoffset(file->stream, &offset) != 0) return -1;
    if (count > UINT32_MAX - offset) return 0;  // past the end of any stream
    // A position that stays or goes back would repeat the same boxes: at least a box header was
    // read since the last call.
    if (offset < uint64_t{file->own->skip_target} + kBoxHeader) return -1;
    file->own->skip_target = offset + count;
    if (kstutil_seek(file->stream, static_cast<int32_t>(offset + count)) == 0) return 1;
    return read_over(file, count);
}

size_t mread(void* destination, size_t size, size_t count, iso_file* file) {
    if (file->file_pos < file->mdat_start || file->file_pos >= file->mdat_end) return 0;
    const size_t left = file->mdat_end - file->file_pos;
    const size_t wanted = size != 0 && count > SIZE_MAX / size ? SIZE_MAX : size * count;
    const size_t copied = std::min(wanted, left);
    std::memcpy(destination, file->mdat_buffer + (file->file_pos - file->mdat_start), copied);
    return copied;
}

int mseek(iso_file* file, long offset, int whence) {
    int64_t target = offset;
    if (whence == SEEK_CUR) target += file->file_pos;
    if (whence == SEEK_END) target += file->mdat_end;
    if (target < 0 || target > UINT32_MAX) return -1;
    file->file_pos = static_cast<uint32_t>(target);
    return 0;
}

}  // namespace kestrel
