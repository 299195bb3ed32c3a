// SPDX-License-Identifier: Apache-2.0
// One video frame at a time: its packets, from the hint track or cut from its sample, are staged.
#ifndef KESTREL_MMFI_VIDEO_FRAMES_H
#define KESTREL_MMFI_VIDEO_FRAMES_H

#include "interface/src/mmfi/mm_interface.h"

namespace kestrel {

// How to make packets of the samples of a codec, and the payload type of these packets.
struct VideoPacketisation {
    int payload_type;
    int mode;
};

struct Gathered {
    // KST_SUCCESS, KST_END_OF_FILE, KST_NOT_YET, or KST_FAILURE for a frame that cannot be read.
    int32_t status;
    uint32_t packets;  // staged ones
};

// Stages the next frame. The `first` frame of a stream follows its parameter sets. `hint` is the
// hint track; null to packetise the samples. At KST_NOT_YET the packets read so far may stay
// staged, and the next call continues with them. At any other status but KST_SUCCESS nothing is
// staged and nothing was consumed.
Gathered gather_frame(mm_Interface* record, const VideoPacketisation& how, iso_track* hint,
                      bool first);

}  // namespace kestrel

#endif
