// SPDX-License-Identifier: Apache-2.0
// The file made of streams.
#ifndef KESTREL_COMPANION_PACKER_PACKED_FILE_H
#define KESTREL_COMPANION_PACKER_PACKED_FILE_H

#include <string>
#include <vector>

#include "companion/packer/stream_media.h"
#include "kestrel/packer.h"

namespace kestrel::packer {

// The reason for no file.
struct Failure {
    int status;  // KST_PACK_...
    std::string text;
    int stream = -1;  // the stream with the failure
};

// Writes the streams as tracks, in their order, and counts into `report`. Throws Failure and
// std::bad_alloc.
void write_file(const std::vector<StreamMedia*>& streams, bool with_hints,
                KST_IOSTREAM_CALLBACK_INTERFACE* destination, kst_pack_report& report);

}  // namespace kestrel::packer

#endif
