// SPDX-License-Identifier: Apache-2.0
// Internals of the packetisers: the functions that the init calls choose from.
#ifndef KESTREL_NATIVE_ORB_NATIVE_H
#define KESTREL_NATIVE_ORB_NATIVE_H

#include "kestrel/native.h"

namespace kestrel {

tel_packetiser tel_amr_packet;
orb_packetiser orb_amr_packet;
tel_packetiser tel_video_packet;
orb_packetiser orb_video_packet;
tel_packetiser tel_rfc3984_packet;

// Writes the state's parameter sets as packets with the current marker. Returns the bytes written.
// `out` must have h264_dsi_packets_size(state) bytes.
int tel_h264_packetise_dsi(void* out, tel_native* state);
size_t h264_dsi_packets_size(const tel_native* state);

}  // namespace kestrel

#endif
