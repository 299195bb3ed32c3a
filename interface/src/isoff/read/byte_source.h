// SPDX-License-Identifier: Apache-2.0
// The byte readers of boxes. Their names, the lines they print and their results for what cannot be
// read are prescribed, so they are not built on ByteReader.
#ifndef KESTREL_ISOFF_BYTE_SOURCE_H
#define KESTREL_ISOFF_BYTE_SOURCE_H

#include "common/box_header.h"
#include "interface/src/isoff/record/record.h"

namespace kestrel {

// Reads exactly `count` bytes of the stream. Returns false on a failure and for fewer bytes. Bytes
// that the host reports and did not write are 0.
bool read_stream(iso_file* file, void* to, uint32_t count);

// Read or skip bytes of the in-memory `moov`. For more than is left they print a line, move nothing
// and return false.
bool read_buf(iso_file* file, void* to, uint32_t count);
bool seek_buf(iso_file* file, uint32_t count);

// Prints the line of read_buf or seek_buf for a `count` of more than is left.
void remark_end_of_buffer(iso_file* file, const char* request, uint64_t count);

bool getbytes(iso_file* file, void* to, uint32_t count);

// Return 0 for a value that cannot be read; getint32 returns 0xFFFFFFFF.
uint8_t getbyte(iso_file* file);
uint16_t getint16(iso_file* file);
uint32_t getint24(iso_file* file);
uint32_t getint32(iso_file* file);

// Reads a four-character code and ends it with a NUL.
bool getID(iso_file* file, char (&code)[5]);

// Reads the length of an MPEG-4 descriptor (ISO/IEC 14496-1, 8.3.3). Returns the number of bytes
// read, or -1.
int getxlen(iso_file* file, uint32_t& length);

// Skips `count` bytes. Returns 1; 0 when they cannot be read; -1 when the stream does not report
// its offset.
int skip(iso_file* file, uint32_t count);

// Read and seek in the in-memory media data, with the arguments of fread and fseek.
size_t mread(void* destination, size_t size, size_t count, iso_file* file);
int mseek(iso_file* file, long offset, int whence);

}  // namespace kestrel

#endif
