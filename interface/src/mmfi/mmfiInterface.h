// SPDX-License-Identifier: Apache-2.0
// The conversion layer: opens a file for a mode, selects the track, and converts it to the native
// format call by call. The readers return statuses; mmfi_Open lets no exception out.
#ifndef KESTREL_INTERFACE_MMFIINTERFACE_H
#define KESTREL_INTERFACE_MMFIINTERFACE_H

#include "interface/src/mmfi/mm_interface.h"
#include "native/codec/payload_types.h"

namespace kestrel {

// Prepares the record for reading the track that `mode` names; record->file is set already and may
// be null. Returns a status.
int32_t mmfi_Open(mm_Interface* record, const char* mode);

// Parses a mode string into mode and direction and returns 1. A malformed string clears both, sets
// the status and throws SimpleException.
int mmfiParseModeInfo(mm_Interface* record, const char* mode);

// Closes the file and returns 0. The caller owns the record.
int32_t mmfi_Close(mm_Interface* record);

// Logs `size` bytes at debug level; reads up to nine bytes after them. The lines carry the source
// path of the caller.
void printInfo(const char* source, const unsigned char* data, int size);

// Calls the reader of the track's codec. Throws SimpleException for a null record.
int32_t mmfi_Read(mm_Interface* record, unsigned char* buffer, uint32_t* size, bool arriving);

int32_t mmfi_Read_AMRNB(mm_Interface* record, unsigned char* buffer, uint32_t* size, bool arriving);
int32_t mmfi_Read_AMRWB(mm_Interface* record, unsigned char* buffer, uint32_t* size, bool arriving);
int32_t mmfi_Read_H263(mm_Interface* record, unsigned char* buffer, uint32_t* size, bool arriving);
int32_t mmfi_Read_MPEG4(mm_Interface* record, unsigned char* buffer, uint32_t* size, bool arriving);
int32_t mmfi_Read_H264(mm_Interface* record, unsigned char* buffer, uint32_t* size, bool arriving);

// Reports to the host where the track's next data is: announces it or moves the stream there, as
// the file record's flag says. Returns 0, or 2 when the host fails.
int32_t mmfi_seek(iso_track* track, uint32_t offset);

// Stores whether the file is arriving, and counts the call. Every reader calls this first.
void begin_read(mm_Interface* record, bool arriving);

}  // namespace kestrel

#endif
