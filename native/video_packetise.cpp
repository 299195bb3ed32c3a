// SPDX-License-Identifier: Apache-2.0
#include <cstdio>

#include "kestrel/isoff.h"
#include "native/codec/payload_types.h"
#include "native/codec/video_packets.h"
#include "native/orb_native.h"
#include "native/packet_output.h"

// H.263 and MPEG-4 packets of both formats.

namespace kestrel {
namespace {

std::span<const uint8_t> sample_of(const void* in, int in_len) {
    return {static_cast<const uint8_t*>(in), in_len > 0 ? static_cast<size_t>(in_len) : 0};
}

void report_cut(uint32_t flags, size_t remaining, const VideoFragment& fragment) {
    if (!(flags & native_verbose) || fragment.is_last()) return;
    std::fprintf(stderr, "Fragmenting payload: old_len=%d new_len=%d", static_cast<int>(remaining),
                 static_cast<int>(fragment.length));
    switch (fragment.cut) {
        case CutAt::kMacroblock:
            std::fprintf(stderr, ", at MB boundary, ebit=%d\n",
                         static_cast<int>((8 - fragment.end_bit) & 7));
            break;
        case CutAt::kStartCode:
            std::fputs(", at start code\n", stderr);
            break;
        default:
            std::fputs(", at arbitrary position\n", stderr);
    }
}

VideoPayload payload_kind(const tel_native* state) {
    if (state->codec != ISO_CODEC_S263) return VideoPayload::kPlain;
    switch (static_cast<int32_t>(state->hdr.mode)) {
        case NATIVE_MODE_RFC2429:
            return VideoPayload::kRfc4629;
        case NATIVE_MODE_RFC2190:
            return VideoPayload::kRfc2190;
        case NATIVE_MODE_RFC2190_MB:
            return VideoPayload::kRfc2190Macroblocks;
        default:
            return VideoPayload::kPlain;
    }
}

// Writes one packet of the sample. Returns false when it does not fit in the output.
bool put_packet(PacketOutput& output, tel_native* state, std::span<const uint8_t> sample,
                const VideoPacket& packet) {
    const auto& [header, fragment] = packet;
    if (!output.fits(header.size + fragment.length + tel_header_size)) return false;
    TEL_RTP& hdr = state->hdr;
    hdr.marker = fragment.is_last() ? 1 : 0;
    hdr.size = static_cast<uint32_t>(header.size + fragment.length);
    state->count++;
    const bool is_h263 = state->codec == ISO_CODEC_S263;
    tel_put_header(output.at(), &hdr, is_h263 ? kNativeH263PayloadType : kNativeMpeg4PayloadType);
    output.advance(tel_header_size);
    output.append(std::span(header.bytes).first(header.size));
    output.append(sample.subspan(fragment.begin, fragment.length));
    return true;
}

}  // namespace

int tel_video_packet(void* out, int out_size, void* in, int in_len, double duration,
                     tel_native* state) {
    begin_sample(state, duration);
    const auto sample = sample_of(in, in_len);
    PacketOutput output(out, out_size);
    VideoPackets packets(payload_kind(state), sample, state->max_payload);
    if (!packets.begin(state->h263_src)) return -2;
    for (VideoPacket packet; !packets.at_end();) {
        if (!packets.next(packet)) return -1;
        report_cut(state->hdr.flags, sample.size() - packet.fragment.begin, packet.fragment);
        if (!put_packet(output, state, sample, packet)) return -1;
    }
    return output.written();
}

int orb_video_packet(void* out, int out_size, void* in, int in_len, double duration,
                     orb_native* state) {
    begin_sample(state, duration);
    if (state->max_payload < 1) return -1;
    const auto sample = sample_of(in, in_len);
    PacketOutput output(out, out_size);
    for (size_t at = 0; at < sample.size();) {
        const VideoFragment fragment =
            cut_at_start_code(sample, at, static_cast<size_t>(state->max_payload));
        report_cut(state->hdr.flags, sample.size() - at, fragment);
        if (!output.fits(fragment.length + orb_header_size)) return -1;
        state->hdr.marker = fragment.is_last() ? 1 : 0;
        state->hdr.size = static_cast<uint32_t>(fragment.length);
        orb_put_header(output.at(), &state->hdr);
        output.advance(orb_header_size);
        output.append(sample.subspan(at, fragment.length));
        at = fragment.next();
    }
    return output.written();
}

}  // namespace kestrel
