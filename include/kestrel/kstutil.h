// SPDX-License-Identifier: Apache-2.0
// Thin wrappers over the slots of a host's stream table. Usable from C++17.
//
// Each calls one slot with the context word of the table, and returns the low 16 bits of the slot's
// status: a host status whose low half is 0 counts as success. For a null table or a null slot it
// returns kst_no_slot. None throws, and none calls CheckStatus. Call them from one thread at a time
// for a table.
#ifndef KESTREL_KSTUTIL_H
#define KESTREL_KSTUTIL_H

#include <cstdint>

#include "kestrel/api.h"
#include "kestrel/stream.h"

inline constexpr uint16_t kst_no_slot = 0xFFFF;

// Calls GetOffset: stores the current offset, in bytes.
KESTREL_API uint16_t kstutil_getoffset(_TAG_KST_IOSTREAM_CALLBACK_INTERFACE*& callbacks,
                                       uint32_t* offset_out);

// Calls Seek: moves to an absolute offset, in bytes. The host takes its 32 bits as unsigned.
KESTREL_API uint16_t kstutil_seek(_TAG_KST_IOSTREAM_CALLBACK_INTERFACE*& callbacks, int32_t offset);

// Calls SeekNRead at the current position. The count is the bytes wanted before, and the bytes read
// after the call.
KESTREL_API uint16_t kstutil_seeknread(_TAG_KST_IOSTREAM_CALLBACK_INTERFACE*& callbacks, void* data,
                                       uint32_t* count_in_out);

// Calls IndexRead: reads `count` bytes at `offset`, and stores the number of bytes read.
KESTREL_API uint16_t kstutil_indexread(_TAG_KST_IOSTREAM_CALLBACK_INTERFACE*& callbacks, void* data,
                                       uint32_t offset, uint32_t count, uint32_t* read_out);

// Calls AdvanceRead: announces that reading has reached `offset`.
KESTREL_API uint16_t kstutil_advanceread(_TAG_KST_IOSTREAM_CALLBACK_INTERFACE*& callbacks,
                                         uint32_t offset);

// Writes a dump of `size` bytes to the system log if sx_Debug is above 3: a line with the size,
// then a line for every ten bytes. The last line always shows ten bytes, so nine readable bytes
// must follow `data`. A size below 1 writes nothing.
KESTREL_API void kstutil_printData(const unsigned char* data, int size);

#endif
