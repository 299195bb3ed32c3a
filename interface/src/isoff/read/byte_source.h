// SPDX-License-Identifier: Apache-2.0
// Where the bytes of boxes come from.
#ifndef KESTREL_ISOFF_BYTE_SOURCE_H
#define KESTREL_ISOFF_BYTE_SOURCE_H

#include "common/box_header.h"
#include "interface/src/isoff/record/record.h"

namespace kestrel {

// Reads exactly `count` bytes of the stream; false on a failure or when fewer came. Bytes that the
// host claims and did not write are 0.
bool read_stream(iso_file* file, void* to, uint32_t count);

// Take bytes of, and move in, the in-memory `moov`. Asking for more than is left prints a line,
// changes nothing and answers false.
bool read_buf(iso_file* file, void* to, uint32_t count);
bool seek_buf(iso_file* file, uint32_t count);

// Prints the line of read_buf or seek_buf for a request of more than is left.
void remark_end_of_buffer(iso_file* file, const char* request, uint64_t count);

bool getbytes(iso_file* file, void* to, uint32_t count);

// A value that cannot be read is 0; that of getint32, 0xFFFFFFFF.
uint8_t getbyte(iso_file* file);
uint16_t getint16(iso_file* file);
uint32_t getint24(iso_file* file);
uint32_t getint32(iso_file* file);

// A four-character code, NUL-terminated.
bool getID(iso_file* file, char (&code)[5]);

// An MPEG-4 descriptor length (ISO/IEC 14496-1, 8.3.3): stores it and returns the number of bytes
// it took, -1 when it cannot be read.
int getxlen(iso_file* file, uint32_t& length);

// Passes over `count` bytes: 1, 0 when they cannot be read, -1 when the stream does not report its
// offset.
int skip(iso_file* file, uint32_t count);

// The in-memory media data, with fread's and fseek's arguments.
size_t mread(void* destination, size_t size, size_t count, iso_file* file);
int mseek(iso_file* file, long offset, int whence);

}  // namespace kestrel

#endif
