// SPDX-License-Identifier: Apache-2.0
#include <algorithm>

#include "native/codec/h264_units.h"
#include "native/codec/payload_types.h"
#include "native/orb_native.h"
#include "native/packet_output.h"

// H.264 access units into packets (RFC 6184): single NAL units and FU-A fragments.

namespace kestrel {
namespace {

// Empty sets make packets too, because the track counts them.
NalUnits parameter_sets(const tel_native* state) {
    return NalUnits({state->dsi, state->dsi ? static_cast<size_t>(state->dsi_len) : 0},
                    state->nal_len_size, EmptyUnits::kTaken);
}

// Writes one packet of the parts. The caller has checked the space.
void put_packet(PacketOutput& output, tel_native* state, NalUnit head, NalUnit body) {
    state->hdr.size = static_cast<uint32_t>(head.size() + body.size());
    state->count++;
    tel_put_header(output.at(), &state->hdr, kNativeH264PayloadType);
    output.advance(tel_header_size);
    output.append(head);
    output.append(body);
}

class AccessUnit {
  public:
    AccessUnit(tel_native* state, PacketOutput& output, int room)
        : state_(state), output_(output), room_(room) {}

    // Returns false when the output is too small.
    bool put(NalUnit unit, bool is_last);

  private:
    bool put_parameter_sets();
    bool put_single(NalUnit unit, bool is_last);
    bool put_fragments(NalUnit unit);

    tel_native* state_;
    PacketOutput& output_;
    int room_;  // by the rule of the fragments, which is not their real size
    bool sets_seen_ = false;
};

bool AccessUnit::put_parameter_sets() {
    const size_t size = h264_dsi_packets_size(state_);
    if (static_cast<int64_t>(size) > room_) return false;
    state_->hdr.marker = 0;
    tel_h264_packetise_dsi(output_.at(), state_);
    output_.advance(size);
    room_ -= static_cast<int>(size);
    return true;
}

bool AccessUnit::put_single(NalUnit unit, bool is_last) {
    const int size = tel_header_size + static_cast<int>(unit.size());
    if (size > room_) return false;
    state_->hdr.marker = is_last ? 1 : 0;
    put_packet(output_, state_, {}, unit);
    room_ -= size;
    return true;
}

bool AccessUnit::put_fragments(NalUnit unit) {
    FuFragments fragments(unit, state_->max_payload);
    if (!fragments.has_room()) return false;
    for (FuFragment fragment{}; fragments.next(fragment);) {
        const int size = static_cast<int>(fragment.bytes.size());
        if (size + tel_header_size > room_) return false;
        // The last fragment has the marker even when more units of the sample follow.
        state_->hdr.marker = fragment.is_last ? 1 : 0;
        put_packet(output_, state_, fragment.headers, fragment.bytes);
        // The two FU bytes are added to the space instead of subtracted. Kept on purpose.
        room_ -= size + tel_header_size - kFuHeaders;
    }
    return true;
}

bool AccessUnit::put(NalUnit unit, bool is_last) {
    const uint8_t type = nal_type(unit);
    if (type == kSequenceSet || type == kPictureSet) sets_seen_ = true;
    if (type == kIdrSlice && !sets_seen_) {
        if (!put_parameter_sets()) return false;
        sets_seen_ = true;
    }
    if (unit.size() <= static_cast<size_t>(std::max(state_->max_payload, 0))) {
        return put_single(unit, is_last);
    }
    return put_fragments(unit);
}

}  // namespace

size_t h264_dsi_packets_size(const tel_native* state) {
    size_t size = 0;
    NalUnits sets = parameter_sets(state);
    for (NalUnit set; sets.next(set);)
        size += tel_header_size + set.size();
    return size;
}

int tel_h264_packetise_dsi(void* out, tel_native* state) {
    PacketOutput output(out, INT32_MAX);
    NalUnits sets = parameter_sets(state);
    for (NalUnit set; sets.next(set);)
        put_packet(output, state, {}, set);
    return output.written();
}

int tel_rfc3984_packet(void* out, int out_size, void* in, int in_len, double duration,
                       tel_native* state) {
    begin_sample(state, duration);
    // AccessUnit counts the space by its own rule.
    PacketOutput output(out, INT32_MAX);
    AccessUnit access_unit(state, output, out_size);
    NalUnits units({static_cast<const uint8_t*>(in), in_len > 0 ? static_cast<size_t>(in_len) : 0},
                   state->nal_len_size);
    for (NalUnit unit; units.next(unit);) {
        if (!access_unit.put(unit, !units.has_more())) return -1;
    }
    return output.written();
}

}  // namespace kestrel
