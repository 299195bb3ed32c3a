// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <cstdio>
#include <cstring>

#include "common/clock.h"
#include "kestrel/isoff.h"
#include "native/codec/amr_format.h"
#include "native/codec/payload_types.h"
#include "native/orb_native.h"

// AMR packets of both formats: one packet per frame.

namespace kestrel {
namespace {

// The differences of the two formats.
struct Tel {
    using State = tel_native;
    static constexpr int kHeaderSize = tel_header_size;
    static int put_header(void* out, State* state) {
        state->count++;
        return tel_put_header(out, &state->hdr, kNativeAmrPayloadType);
    }
};

struct Orb {
    using State = orb_native;
    static constexpr int kHeaderSize = orb_header_size;
    static int put_header(void* out, State* state) { return orb_put_header(out, &state->hdr); }
};

int input_format(uint32_t codec, uint32_t flags) {
    if (codec == ISO_CODEC_SAWB) return 3;
    return flags & native_amr_format_1 ? 1 : 2;
}

bool is_no_data(const uint8_t* frame, int length) {
    return length == 1 && (frame[0] == kNoDataFormat1 || frame[0] == kNoDataFormat2);
}

template <typename Header>
bool drops(const Header& hdr, const uint8_t* frame, int length) {
    if (!(hdr.flags & native_drop_no_data) || !is_no_data(frame, length)) return false;
    if (hdr.flags & native_verbose) {
        std::fprintf(stderr, "   removing \"no data\" amr frame, time=%u\n", hdr.time);
    }
    return true;
}

template <typename Format>
int amr_packet(void* out, int out_size, const void* in, int in_len, typename Format::State* state) {
    state->hdr.time = clock_to_timestamp(state->time_acc);
    // The size check covers the whole sample once, with an `orb` header for either format.
    if (in_len < 0 || in_len > out_size - orb_header_size) return -1;
    const auto* frame = static_cast<const uint8_t*>(in);
    auto* to = static_cast<uint8_t*>(out);
    const int format = input_format(state->codec, state->hdr.flags);
    int written = 0;
    while (in_len > 0) {
        const int length = std::min(amr_get_size(frame, format), in_len);
        state->hdr.size = static_cast<uint32_t>(length);
        state->hdr.time = clock_to_timestamp(state->time_acc);
        state->time_acc = clock_after(state->time_acc, state->hdr.clock / kAmrFramesPerSecond);
        if (!drops(state->hdr, frame, length)) {
            // The check above does not count the headers of many short frames.
            if (Format::kHeaderSize + length > out_size - written) return -1;
            written += Format::put_header(to + written, state);
            std::memcpy(to + written, frame, static_cast<size_t>(length));
            written += length;
        }
        frame += length;
        in_len -= length;
    }
    return written;
}

}  // namespace

int tel_amr_packet(void* out, int out_size, void* in, int in_len, double, tel_native* state) {
    return amr_packet<Tel>(out, out_size, in, in_len, state);
}

int orb_amr_packet(void* out, int out_size, void* in, int in_len, double, orb_native* state) {
    return amr_packet<Orb>(out, out_size, in, in_len, state);
}

}  // namespace kestrel
