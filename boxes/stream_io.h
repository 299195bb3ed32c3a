// SPDX-License-Identifier: Apache-2.0
// The box model's way to the host's stream. Every function here classifies the status that a slot
// returned through the host's CheckStatus and throws SimpleException, with the raw status and the
// host's context word, when it is not a success; for a not-yet the exception is a NotArrived.
#ifndef KESTREL_BOXES_STREAM_IO_H
#define KESTREL_BOXES_STREAM_IO_H

#include <cstdint>
#include <span>

#include "common/simple_exception.h"
#include "kestrel/stream.h"

namespace Qvox3gp {

// Handed on by reference, so that every layer reaches the host's one table.
using Stream = _TAG_KST_IOSTREAM_CALLBACK_INTERFACE*;

// The data is not in the host's buffers yet. The message is that of any other failure.
class NotArrived : public SimpleException {
  public:
    explicit NotArrived(const SimpleException& failure) : SimpleException(failure) {}
};

// What the host's CheckStatus makes of a status: KST_IO_OK, one of the two not-yets, or a failure.
uint32_t classify(Stream& callbacks, uint32_t status);
bool is_not_yet(uint32_t classification);

// Reads `count` bytes at the current position. A short read is not detected: it leaves the rest of
// `data` as it was, so callers clear it first.
void macro_Read(Stream& callbacks, void* data, uint32_t count);

// The same. Returns how many bytes the host delivered, at most `count`.
uint32_t read_available(Stream& callbacks, void* data, uint32_t count);

// Fills `data` from the current position, however the host cuts the bytes. Returns false when the
// stream ends before; the rest of `data` then stays as it was.
bool read_all(Stream& callbacks, std::span<uint8_t> data);

// Writes `count` bytes at the current position.
void macro_Write(Stream& callbacks, const void* data, uint32_t count);

void macro_Seek(Stream& callbacks, uint32_t offset);

// The current offset; 0 when the slot succeeded without writing one.
uint32_t macro_Tell(Stream& callbacks);

// Moves by `delta` bytes from the current offset, modulo 2^32.
void macro_SeekRel(Stream& callbacks, int32_t delta);

// True when the slot answers non-zero; never throws of its own.
bool macro_IsEOF(Stream& callbacks);

// The stream's length in bytes; the position is put back to where it was.
uint32_t GetFileSize(Stream& callbacks);

// Big-endian values at the current position; the _noswap forms move the bytes as they lie.
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

// The length of an MPEG-4 descriptor (ISO/IEC 14496-1, 8.3.3): up to four bytes of seven bits, most
// significant first, going on while the top bit is set. Answers how many bytes it took.
unsigned int ReadDescriptorSize(Stream& callbacks, unsigned int& size, unsigned int most = 4);

}  // namespace Qvox3gp

#endif
