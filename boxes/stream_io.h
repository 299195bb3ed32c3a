// SPDX-License-Identifier: Apache-2.0
// Access of the box model to the host's stream. Each function classifies the status of a slot
// through the host's CheckStatus and throws SimpleException, with the raw status and the host's
// context word, unless it is a success; NotArrived for not yet. The functions and their results are
// prescribed, so they are not built on ByteReader and ByteWriter.
#ifndef KESTREL_BOXES_STREAM_IO_H
#define KESTREL_BOXES_STREAM_IO_H

#include <cstdint>
#include <span>

#include "common/simple_exception.h"
#include "kestrel/stream.h"

namespace Qvox3gp {

// Passed by reference, so that all layers use the host's one table.
using Stream = _TAG_KST_IOSTREAM_CALLBACK_INTERFACE*;

// The data has not arrived. The message is that of any other failure.
class NotArrived : public SimpleException {
  public:
    explicit NotArrived(const SimpleException& failure) : SimpleException(failure) {}
};

// Returns the host's classification of a status: KST_IO_OK, one of the two not-yets, or a failure.
uint32_t classify(Stream& callbacks, uint32_t status);
bool is_not_yet(uint32_t classification);

// Reads `count` bytes at the current position. Does not detect a short read, which leaves the rest
// of `data` as it was: clear it before.
void macro_Read(Stream& callbacks, void* data, uint32_t count);

// Reads like macro_Read. Returns how many bytes the host delivered, at most `count`.
uint32_t read_available(Stream& callbacks, void* data, uint32_t count);

// Fills `data` from the current position, in as many reads as the host needs. Returns false when
// the stream ends before; the rest of `data` is then unchanged.
bool read_all(Stream& callbacks, std::span<uint8_t> data);

// Writes `count` bytes at the current position.
void macro_Write(Stream& callbacks, const void* data, uint32_t count);

void macro_Seek(Stream& callbacks, uint32_t offset);

// Returns the current offset; 0 when the slot succeeds without storing one.
uint32_t macro_Tell(Stream& callbacks);

// Moves by `delta` bytes from the current offset, modulo 2^32.
void macro_SeekRel(Stream& callbacks, int32_t delta);

// Returns true when the slot returns non-zero. Never throws.
bool macro_IsEOF(Stream& callbacks);

// Returns the stream's length in bytes. Restores the position.
uint32_t GetFileSize(Stream& callbacks);

// Read and write big-endian values at the current position; the _noswap forms keep the byte order
// of memory.
void var8_read(Stream& callbacks, uint8_t& value);
void var8_read_noswap(Stream& callbacks, uint8_t& value);
void var16_read(Stream& callbacks, uint16_t& value);
void var16_read(Stream& callbacks, int16_t& value);
void var32_read(Stream& callbacks, uint32_t& value);
void var32_read(Stream& callbacks, int32_t& value);
void var32_read_noswap(Stream& callbacks, uint32_t& value);
void var8_write(Stream& callbacks, uint8_t value);
void var8_write_noswap(Stream& callbacks, uint8_t value);
void var16_write(Stream& callbacks, uint16_t value);
void var32_write(Stream& callbacks, uint32_t value);
void var32_write_noswap(Stream& callbacks, uint32_t value);

// Reads the length of an MPEG-4 descriptor (ISO/IEC 14496-1, 8.3.3): up to four bytes of seven
// bits, most significant first; the top bit is set in all but the last. Returns the number of bytes
// read.
unsigned int ReadDescriptorSize(Stream& callbacks, unsigned int& size, unsigned int most = 4);

}  // namespace Qvox3gp

#endif
