// SPDX-License-Identifier: Apache-2.0
// Thin wrappers over the slots of a host's stream table (C++).
//
// Each calls one slot with the table's context word and returns the slot's status cut to its low
// 16 bits; a host status whose low half is zero is therefore seen as success. None throws and none
// calls CheckStatus. A null table or a null slot is answered with kst_no_slot.
#ifndef KESTREL_KSTUTIL_H
#define KESTREL_KSTUTIL_H

#include <cstdint>

#include "kestrel/api.h"
#include "kestrel/stream.h"

inline constexpr uint16_t kst_no_slot = 0xFFFF;

// GetOffset: stores the current offset, in bytes.
KESTREL_API uint16_t kstutil_getoffset(_TAG_KST_IOSTREAM_CALLBACK_INTERFACE*& callbacks,
                                       uint32_t* offset_out);

// Seek: moves to the absolute offset, whose 32 bits the host takes as unsigned.
KESTREL_API uint16_t kstutil_seek(_TAG_KST_IOSTREAM_CALLBACK_INTERFACE*& callbacks, int32_t offset);

// SeekNRead at the current position: count in bytes wanted, out bytes read.
KESTREL_API uint16_t kstutil_seeknread(_TAG_KST_IOSTREAM_CALLBACK_INTERFACE*& callbacks, void* data,
                                       uint32_t* count_in_out);

// IndexRead: `count` bytes at `offset`, the bytes read through `read_out`.
KESTREL_API uint16_t kstutil_indexread(_TAG_KST_IOSTREAM_CALLBACK_INTERFACE*& callbacks, void* data,
                                       uint32_t offset, uint32_t count, uint32_t* read_out);

// AdvanceRead: tells the host how far reading has come.
KESTREL_API uint16_t kstutil_advanceread(_TAG_KST_IOSTREAM_CALLBACK_INTERFACE*& callbacks,
                                         uint32_t offset);

// Debug dump to the system log, only when sx_Debug is above 3: a line with the size, then a line
// per ten bytes. The last line always shows ten bytes, so `data` must be followed by at least nine
// readable bytes. A size below 1 prints nothing.
KESTREL_API void kstutil_printData(const unsigned char* data, int size);

#endif
