// SPDX-License-Identifier: Apache-2.0
// Any bytes as a media sample, cut into packets: they join to the sample again, and none is written
// past the buffer that was given.
#include <algorithm>
#include <cstring>
#include <memory>

#include "common/bytes.h"
#include "fuzz/support/support.h"
#include "kestrel/isoff.h"
#include "kestrel/native.h"
#include "kestrel/native_records.h"
#include "native/codec/h264_units.h"
#include "native/stream/depacketise.h"

namespace {

using namespace fuzz;

constexpr size_t kLongestSample = 8192;
constexpr size_t kMaxRoom = 1 << 19;

struct Case {
    int32_t codec = 0;
    int mode = 0;
    int max_payload = 0;
    int nal_length_size = 4;
    size_t room = 0;
    bool format_1 = true;
};

Case read_case(Choices& choices) {
    constexpr int32_t kCodecs[] = {ISO_CODEC_S263, ISO_CODEC_MP4V, ISO_CODEC_AVC1, ISO_CODEC_SAMR,
                                   ISO_CODEC_SAWB};
    constexpr int kModes[] = {NATIVE_MODE_PLAIN, NATIVE_MODE_RFC2190, NATIVE_MODE_RFC2190_MB,
                              NATIVE_MODE_RFC2429};
    Case how;
    how.codec = kCodecs[choices.u8() % std::size(kCodecs)];
    const uint8_t mode = choices.u8();
    how.mode = kModes[mode % 4];
    how.nal_length_size = 1 + ((mode >> 2) + 3) % 4;
    how.format_1 = (mode & 0x80) == 0;
    how.max_payload = choices.u16() % 1500;
    const size_t room = choices.u8();
    how.room = room == 255 ? kMaxRoom : room * room;
    return how;
}

// Parameter sets, each after its length.
Bytes parameter_sets(int nal_length_size) {
    Bytes sets(static_cast<size_t>(nal_length_size) + 3);
    sets[static_cast<size_t>(nal_length_size) - 1] = 3;
    sets[sets.size() - 3] = 0x67;
    return sets;
}

using Packets = std::vector<Bytes>;

Packets tel_packets(View out) {
    Packets packets;
    while (!out.empty()) {
        kestrel::TEL_Packet_Header header;
        check(out.size() >= sizeof header);
        std::memcpy(&header, out.data(), sizeof header);
        check(header.packet_length >= sizeof header && header.packet_length <= out.size());
        const View payload = out.first(header.packet_length).subspan(sizeof header);
        packets.emplace_back(payload.begin(), payload.end());
        out = out.subspan(header.packet_length);
    }
    return packets;
}

Packets orb_packets(View out) {
    constexpr size_t kSizeField = 2;
    Packets packets;
    while (!out.empty()) {
        check(out.size() >= orb_header_size);
        const size_t length = orb_header_size + size_t{kestrel::load_be16(&out[kSizeField])};
        check(length <= out.size());
        const View payload = out.first(length).subspan(orb_header_size);
        packets.emplace_back(payload.begin(), payload.end());
        out = out.subspan(length);
    }
    return packets;
}

Bytes concatenated(const Packets& packets) {
    Bytes joined;
    for (const Bytes& packet : packets)
        joined.insert(joined.end(), packet.begin(), packet.end());
    return joined;
}

Bytes depacketised(const Packets& packets, kestrel::stream::Medium medium) {
    Bytes joined;
    const auto joiner = kestrel::stream::make_depacketiser(
        medium, {}, {[&](View bytes) { joined.insert(joined.end(), bytes.begin(), bytes.end()); }});
    for (const Bytes& packet : packets)
        joiner->packet(packet);
    joiner->finish();
    return joined;
}

// The sample's NAL units after start codes, the parameter sets before the first IDR slice
// unless some came before it. False if the units look like aggregates or fragments,
// or if a fragment does not have a unit's first bit.
bool nal_stream(View sample, const Case& how, Bytes& stream) {
    constexpr uint8_t kStartCode[] = {0, 0, 0, 1};
    constexpr uint8_t kIdrSlice = 5, kSequenceSet = 7, kPictureSet = 8, kFirstAggregate = 24;
    bool sets_seen = false;
    const auto put = [&](View unit) {
        stream.insert(stream.end(), std::begin(kStartCode), std::end(kStartCode));
        stream.insert(stream.end(), unit.begin(), unit.end());
    };
    kestrel::NalUnits units(sample, how.nal_length_size);
    for (kestrel::NalUnit unit; units.next(unit);) {
        const uint8_t type = unit[0] & kestrel::kNalTypeBits;
        if (type >= kFirstAggregate || (unit[0] & 0x80) != 0) return false;
        if (type == kSequenceSet || type == kPictureSet) sets_seen = true;
        if (type == kIdrSlice && !sets_seen) {
            const Bytes sets = parameter_sets(how.nal_length_size);
            put(View(sets).last(3));
            sets_seen = true;
        }
        put(unit);
    }
    return true;
}

void check_joined(const Packets& packets, View sample, const Case& how) {
    Bytes wanted(sample.begin(), sample.end());
    if (how.codec == ISO_CODEC_AVC1) {
        wanted.clear();
        if (!nal_stream(sample, how, wanted)) return;
        check(depacketised(packets, kestrel::stream::Medium::kH264) == wanted);
    } else if (how.codec == ISO_CODEC_S263 && how.mode == NATIVE_MODE_RFC2429) {
        check(depacketised(packets, kestrel::stream::Medium::kH263Rfc4629) == wanted);
    } else if (how.codec == ISO_CODEC_S263 && how.mode != NATIVE_MODE_PLAIN) {
        check(depacketised(packets, kestrel::stream::Medium::kH263Rfc2190) == wanted);
    } else {
        check(concatenated(packets) == wanted);
    }
}

bool is_speech(const Case& how) {
    return how.codec == ISO_CODEC_SAMR || how.codec == ISO_CODEC_SAWB;
}

void packetise_tel(View sample, const Case& how) {
    Bytes sets = parameter_sets(how.nal_length_size);
    iso_track track{};
    track.codec = how.codec;
    track.nal_length_size = how.nal_length_size;
    track.param_sets = sets.data();
    track.param_sets_length = static_cast<uint32_t>(sets.size());
    tel_native state{};
    const int flags = how.format_1 ? static_cast<int>(native_amr_format_1) : 0;
    check(tel_native_init(&state, 96, how.max_payload, how.mode, &track, flags) == 0);
    state.max_payload = how.max_payload;
    // H.264 needs four bytes more than it was given for each fragment, which are at least one byte
    // after a header of 20.
    const size_t extra = how.codec == ISO_CODEC_AVC1 ? 4 * (how.room / 19 + 1) : 0;
    const std::unique_ptr<uint8_t[]> out(new uint8_t[how.room + extra]);
    Bytes in(sample.begin(), sample.end());
    const int written = tel_native_packet(out.get(), static_cast<int>(how.room), in.data(),
                                          static_cast<int>(in.size()), 0.04, &state);
    check(in == Bytes(sample.begin(), sample.end()));
    if (written < 0) {
        // With room enough only a payload that leaves none, or no picture header, is in the way.
        const bool has_room = how.room == kMaxRoom && (is_speech(how) || how.max_payload > 20);
        check(!has_room || written == -2);
        return;
    }
    check(static_cast<size_t>(written) <= how.room + extra);
    const Packets packets = tel_packets({out.get(), static_cast<size_t>(written)});
    check(packets.size() == state.count);
    if (!is_speech(how)) {
        for (const Bytes& packet : packets)
            check(packet.size() <= static_cast<size_t>(std::max(how.max_payload, 3)));
    }
    check_joined(packets, sample, how);
}

void packetise_orb(View sample, const Case& how) {
    iso_track track{};
    track.codec = how.codec;
    orb_native state{};
    const int flags = how.format_1 ? static_cast<int>(native_amr_format_1) : 0;
    check(orb_native_init(&state, 96, how.max_payload, how.mode, &track, flags) == 0);
    const std::unique_ptr<uint8_t[]> out(new uint8_t[how.room]);
    Bytes in(sample.begin(), sample.end());
    const int written = orb_native_packet(out.get(), static_cast<int>(how.room), in.data(),
                                          static_cast<int>(in.size()), 0.04, &state);
    if (written < 0) return;
    check(static_cast<size_t>(written) <= how.room);
    const Packets packets = orb_packets({out.get(), static_cast<size_t>(written)});
    check(concatenated(packets) == Bytes(sample.begin(), sample.end()));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Choices choices({data, size});
    const Case how = read_case(choices);
    const View sample = choices.take(kLongestSample);
    packetise_tel(sample, how);
    packetise_orb(sample, how);
    return 0;
}
