// SPDX-License-Identifier: Apache-2.0
#include "interface/src/isoff/read/rtp_packets.h"
#include "kestrel/native.h"
#include "native/codec/payload_types.h"
#include "native/orb_native.h"

// The parameter sets of an H.264 track as packets of the native stream.

using namespace kestrel;

void isoFFgetAvccDsi(iso_track* hint, iso_track* media, int payload_type, unsigned char* buffer,
                     int* length) {
    const bool packets_produced = hint->seq_rebase == kRebased;
    tel_native state{};
    state.hdr.time = packets_produced ? hint->last_timestamp : hint->rtp_ts_offset;
    state.hdr.seq = packets_produced ? hint->last_seq : hint->rtp_seq_offset & 0xFFFF;
    state.hdr.clock = kVideoClock;
    state.hdr.type = static_cast<uint32_t>(payload_type);
    state.hdr.magic = native_magic;
    state.nal_len_size = media->nal_length_size;
    state.dsi = media->param_sets;
    state.dsi_len = static_cast<int32_t>(media->param_sets_length);
    *length = tel_h264_packetise_dsi(buffer, &state);
    hint->rtp_seq_offset += media->sps_count + media->pps_count;
    if (hint->seq_rebase == kNoRebase) hint->seq_rebase = kRebaseNext;
}
