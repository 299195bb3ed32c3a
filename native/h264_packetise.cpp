#include <algorithm>

#include "common/bytes.h"
#include "kestrel/codec.h"
#include "native/orb_native.h"
#include "native/packet_output.h"

// H.264 access units into packets (RFC 3984): single NAL units and FU-A fragments.

namespace kestrel {
namespace {

constexpr uint8_t kNalType = 0x1F;
constexpr uint8_t kNalReferenceIdc = 0x60;
constexpr uint8_t kIdrSlice = 5;
constexpr uint8_t kSequenceSet = 7;
constexpr uint8_t kPictureSet = 8;
constexpr uint8_t kFuA = 28;
constexpr uint8_t kFuStart = 0x80;
constexpr uint8_t kFuEnd = 0x40;
constexpr int kFuHeaders = 2;  // indicator and header

using NalUnit = std::span<const uint8_t>;

// The length-prefixed NAL units of a run of bytes. One that claims more than there is ends with
// the bytes; empty ones are passed over.
class NalUnits {
  public:
    NalUnits(std::span<const uint8_t> bytes, int length_size)
        : bytes_(bytes), length_size_(static_cast<size_t>(std::clamp(length_size, 1, 4))) {}

    bool next(NalUnit& unit) {
        unit = {};
        while (unit.empty() && bytes_.size() > length_size_) {
            const size_t told = h264_get_nal_size(bytes_.data(), static_cast<int>(length_size_));
            bytes_ = bytes_.subspan(length_size_);
            unit = bytes_.first(std::min(told, bytes_.size()));
            bytes_ = bytes_.subspan(unit.size());
        }
        return !unit.empty();
    }

    bool has_more() const {
        NalUnits rest = *this;
        NalUnit unit;
        return rest.next(unit);
    }

  private:
    std::span<const uint8_t> bytes_;
    size_t length_size_;
};

NalUnits parameter_sets(const tel_native* state) {
    return NalUnits({state->dsi, state->dsi ? static_cast<size_t>(state->dsi_len) : 0},
                    state->nal_len_size);
}

// Writes one packet of the parts; the caller has seen to the room.
void put_packet(PacketOutput& output, tel_native* state, NalUnit head, NalUnit body) {
    state->hdr.size = static_cast<uint32_t>(head.size() + body.size());
    state->count++;
    tel_put_header(output.at(), &state->hdr, kH264PayloadType);
    output.advance(tel_header_size);
    output.append(head);
    output.append(body);
}

class AccessUnit {
  public:
    AccessUnit(tel_native* state, PacketOutput& output, int room)
        : state_(state), output_(output), room_(room) {}

    // False when the output is too small.
    bool put(NalUnit unit, bool is_last);

  private:
    bool put_parameter_sets();
    bool put_single(NalUnit unit, bool is_last);
    bool put_fragments(NalUnit unit);

    tel_native* state_;
    PacketOutput& output_;
    int room_;  // as the fragments account for it, which is not what they take
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
    const auto most = static_cast<size_t>(std::max(state_->max_payload - kFuHeaders, 0));
    if (most == 0) return false;
    const uint8_t indicator = static_cast<uint8_t>((unit[0] & kNalReferenceIdc) | kFuA);
    const uint8_t type = unit[0] & kNalType;
    uint8_t start = kFuStart;
    for (unit = unit.subspan(1); !unit.empty(); start = 0) {
        const bool last = unit.size() <= most;
        const NalUnit fragment = unit.first(std::min(unit.size(), most));
        if (static_cast<int>(fragment.size()) + tel_header_size > room_) return false;
        const uint8_t headers[kFuHeaders] = {
            indicator, static_cast<uint8_t>(start | (last ? kFuEnd : 0) | type)};
        // The last fragment carries the marker even when further units of the sample follow.
        state_->hdr.marker = last ? 1 : 0;
        put_packet(output_, state_, headers, fragment);
        // The two FU bytes are credited instead of charged: kept as it stands.
        room_ -= static_cast<int>(fragment.size()) + tel_header_size - kFuHeaders;
        unit = unit.subspan(fragment.size());
    }
    return true;
}

bool AccessUnit::put(NalUnit unit, bool is_last) {
    const uint8_t type = unit[0] & kNalType;
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
    // Room is accounted for in AccessUnit, by a rule of its own.
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
