// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <malloc.h>

#include <cstring>
#include <memory>
#include <random>
#include <sstream>

#include "kestrel/codec.h"
#include "kestrel/hosts.h"
#include "kestrel/isoff.h"
#include "kestrel/native.h"
#include "kestrel/native_records.h"
#include "native/codec/h263_parse.h"
#include "native/codec/h263_payload.h"
#include "native/stream/depacketise.h"
#include "tests/support/native_packets.h"
#include "tests/support/opened.h"

// Codec helpers, decoder configuration and the video packetisers.

namespace {

using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

// --- streams in pieces ---

std::vector<Bytes> pictures_of(const char* name) {
    return h263_pictures(read_sample(std::string("truth/") + name));
}

Bytes joined(const std::vector<Packet>& packets, kestrel::stream::Medium medium) {
    Bytes out;
    auto joiner = kestrel::stream::make_depacketiser(
        medium, {}, {[&](auto bytes) { out.insert(out.end(), bytes.begin(), bytes.end()); }});
    for (const Packet& packet : packets)
        joiner->packet(packet.payload);
    joiner->finish();
    return out;
}

iso_track track_of(int32_t codec) {
    iso_track track{};
    track.codec = codec;
    return track;
}

tel_native state_of(int32_t codec, int mode, int max_payload, int flags = 0) {
    iso_track track = track_of(codec);
    tel_native state{};
    EXPECT_EQ(tel_native_init(&state, 0, 1400, mode, &track, flags), 0);
    state.max_payload = max_payload;
    return state;
}

int packetise(tel_native& state, Bytes sample, Bytes& out, double duration = 0.0) {
    return tel_native_packet(out.data(), static_cast<int>(out.size()), sample.data(),
                             static_cast<int>(sample.size()), duration, &state);
}

// --- H.263 ---

struct ModeCase {
    int mode;
    kestrel::stream::Medium medium;
    size_t header;  // bytes before the payload
};

TEST(H263Packets, JoinToThePictureInEveryMode) {
    const ModeCase modes[] = {{NATIVE_MODE_RFC2190, kestrel::stream::Medium::kH263Rfc2190, 4},
                              {NATIVE_MODE_RFC2190_MB, kestrel::stream::Medium::kH263Rfc2190, 4},
                              {NATIVE_MODE_RFC2429, kestrel::stream::Medium::kH263Rfc4629, 2}};
    for (const char* name : {"mb_qcif.h263", "mb_qcif_gob.h263", "mb_qcif_lowrate.h263"}) {
        const std::vector<Bytes> pictures = pictures_of(name);
        ASSERT_GT(pictures.size(), 20u);
        for (const ModeCase& mode : modes) {
            for (const int max_payload : {40, 100, 333, 800, 1400}) {
                SCOPED_TRACE(std::string(name) + " mode " + std::to_string(mode.mode) + " size " +
                             std::to_string(max_payload));
                tel_native state = state_of(ISO_CODEC_S263, mode.mode, max_payload);
                Bytes out(200000);
                for (const Bytes& picture : pictures) {
                    const int length = packetise(state, picture, out, 1.0 / 15);
                    ASSERT_GT(length, 0);
                    const std::vector<Packet> packets = packets_of(out, length);
                    ASSERT_EQ(joined(packets, mode.medium), picture);
                    for (const Packet& packet : packets) {
                        ASSERT_LE(packet.payload.size(), static_cast<size_t>(max_payload));
                        ASSERT_EQ(packet.marker, &packet == &packets.back() ? 1u : 0u);
                        ASSERT_EQ(packet.type, 34u);
                    }
                }
            }
        }
    }
}

uint32_t bits_at(const Bytes& bytes, unsigned first, unsigned count) {
    uint32_t value = 0;
    for (unsigned i = first; i < first + count; ++i)
        value = value << 1 | (bytes[i / 8] >> (7 - i % 8) & 1);
    return value;
}

// What mode B declares of the macroblock that a packet begins with is what the walker finds there,
// and each cut is printed where that is asked for.
TEST(H263Packets, ModeBHeadersDeclareTheMacroblock) {
    tel_native state =
        state_of(ISO_CODEC_S263, NATIVE_MODE_RFC2190_MB, 500, static_cast<int>(native_verbose));
    Bytes out(200000);
    int checked = 0;
    for (const Bytes& picture : pictures_of("mb_qcif_gob.h263")) {
        CaptureStderr();
        const std::vector<Packet> packets = packets_of(out, packetise(state, picture, out));
        const std::string printed = GetCapturedStderr();
        std::ostringstream cuts;
        nch_state walker{};
        BitPosition position;
        size_t bit = 0;  // of the picture, where the packet begins
        for (size_t i = 0; i < packets.size(); ++i) {
            const Bytes& payload = packets[i].payload;
            const bool mode_b = (payload[0] & 0x80) != 0;
            ASSERT_EQ(mode_b, i > 0);
            const size_t header = mode_b ? 8 : 4;
            const unsigned sbit = payload[0] >> 3 & 7;
            const unsigned ebit = payload[0] & 7;
            ASSERT_EQ(sbit, bit % 8);
            if (mode_b) {
                while (position.byte * 8 + position.bit < bit)
                    ASSERT_EQ(get_start_of_mb(walker, picture, position), kNchWalked);
                ASSERT_EQ(position.byte * 8 + position.bit, bit);
                ASSERT_EQ(get_start_of_mb(walker, picture, position), kNchWalked);
                const nch_macroblock& there = walker.macroblock;
                const auto predictor = [&](unsigned at) {
                    return static_cast<int16_t>(static_cast<int8_t>(bits_at(payload, at, 7) << 1)) /
                               2 +
                           kNchVectorBias;
                };
                ASSERT_EQ(bits_at(payload, 8, 3), kNchQcif);
                ASSERT_EQ(bits_at(payload, 11, 5), there.quantiser);
                ASSERT_EQ(bits_at(payload, 16, 5), there.gob_number);
                ASSERT_EQ(bits_at(payload, 21, 9), there.address);
                ASSERT_EQ(bits_at(payload, 32, 1), walker.picture.coding_type);
                ASSERT_EQ(predictor(36), there.hmv1);
                ASSERT_EQ(predictor(43), there.vmv1);
                ASSERT_EQ(predictor(50), there.hmv2);
                ASSERT_EQ(predictor(57), there.vmv2);
                ++checked;
            }
            if (i + 1 < packets.size()) {
                cuts << "Fragmenting payload: old_len=" << picture.size() - bit / 8
                     << " new_len=" << payload.size() - header << ", at MB boundary, ebit=" << ebit
                     << '\n';
            }
            bit += (payload.size() - header) * 8 - sbit - ebit;
        }
        ASSERT_EQ(bit, picture.size() * 8);
        ASSERT_EQ(printed, cuts.str());
    }
    EXPECT_GT(checked, 80);
}

TEST(H263Packets, CutInFrontOfTheLastStartCodeElseAnywhere) {
    Bytes sample(3000, 0xAA);
    sample[0] = sample[1] = 0;
    sample[2] = 0x80;
    sample[500] = sample[501] = 0;
    sample[900] = sample[901] = 0;
    struct Case {
        int max_payload;
        std::vector<size_t> fragments;
        const char* printed;
    };
    const Case cases[] = {
        // The plain mode has no payload header.
        {1000,
         {900, 1000, 1000, 100},
         "Fragmenting payload: old_len=3000 new_len=900, at start code\n"
         "Fragmenting payload: old_len=2100 new_len=1000, at arbitrary position\n"
         "Fragmenting payload: old_len=1100 new_len=1000, at arbitrary position\n"},
        {902, {900, 902, 902, 296}, nullptr},  // the pair ends with the last byte looked at
        {901, {500, 400, 901, 901, 298}, nullptr},
        {3000, {3000}, ""},  // fills its packet to the byte
        {2999, {900, 2100}, nullptr},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.max_payload);
        tel_native state = state_of(ISO_CODEC_S263, NATIVE_MODE_PLAIN, c.max_payload,
                                    static_cast<int>(native_verbose));
        Bytes out(10000);
        CaptureStderr();
        const int length = packetise(state, sample, out);
        const std::string printed = GetCapturedStderr();
        if (c.printed != nullptr) {
            EXPECT_EQ(printed, c.printed);
        }
        std::vector<size_t> fragments;
        for (const Packet& packet : packets_of(out, length))
            fragments.push_back(packet.payload.size());
        EXPECT_EQ(fragments, c.fragments);
        EXPECT_EQ(state.count, c.fragments.size());
    }
}

TEST(H263Packets, PicturesWithoutAHeaderAndSmallRooms) {
    Bytes out(5000);
    const Bytes nonsense(2000, 0xAA);
    for (const int mode : {NATIVE_MODE_RFC2190 + 0, NATIVE_MODE_RFC2190_MB + 0}) {
        tel_native state = state_of(ISO_CODEC_S263, mode, 1400);
        EXPECT_EQ(packetise(state, nonsense, out), -2);
        EXPECT_EQ(state.count, 0u);
    }
    const Bytes picture = pictures_of("mb_qcif.h263")[0];
    for (const int mode : {NATIVE_MODE_PLAIN + 0, NATIVE_MODE_RFC2190 + 0,
                           NATIVE_MODE_RFC2190_MB + 0, NATIVE_MODE_RFC2429 + 0}) {
        tel_native whole = state_of(ISO_CODEC_S263, mode, 1400);
        Bytes large(20000);
        const int needed = packetise(whole, picture, large);
        ASSERT_GT(needed, 0);
        for (int room = 0; room <= needed; room += room + 200 < needed ? 97 : 1) {
            tel_native state = state_of(ISO_CODEC_S263, mode, 1400);
            const std::unique_ptr<uint8_t[]> exact(new uint8_t[static_cast<size_t>(room)]);
            Bytes in = picture;
            const int length = tel_native_packet(exact.get(), room, in.data(),
                                                 static_cast<int>(in.size()), 0.0, &state);
            ASSERT_EQ(length, room == needed ? needed : -1);
        }
        for (const int tiny : {-1, 0, 1, 2, 4, 8, 9}) {
            tel_native state = state_of(ISO_CODEC_S263, mode, tiny);
            Bytes huge(400000);
            const int length = packetise(state, picture, huge);
            EXPECT_TRUE(length > 0 || length == -1) << tiny;
        }
    }
}

TEST(VideoPackets, TimesAndSequenceNumbersWrap) {
    tel_native state = state_of(ISO_CODEC_MP4V, NATIVE_MODE_PLAIN, 1400);
    state.hdr.seq = 65534;
    state.time_acc = 4294967295.0 - 6000;
    Bytes out(5000);
    const Bytes sample(2000, 0x55);
    std::vector<uint32_t> sequence, times;
    for (int i = 0; i < 3; ++i) {
        for (const Packet& packet : packets_of(out, packetise(state, sample, out, 1.0 / 15))) {
            sequence.push_back(packet.seq);
            times.push_back(packet.time);
            EXPECT_EQ(packet.type, 102u);
        }
    }
    EXPECT_THAT(sequence, testing::ElementsAre(65534, 65535, 0, 1, 2, 3));
    EXPECT_THAT(times, testing::ElementsAre(4294961295u, 4294961295u, 4294967295u, 4294967295u,
                                            6000u, 6000u));
}

TEST(VideoPackets, OrbHasNoPayloadHeader) {
    iso_track track = track_of(ISO_CODEC_S263);
    for (const int mode :
         {NATIVE_MODE_PLAIN + 0, NATIVE_MODE_RFC2190 + 0, NATIVE_MODE_RFC2429 + 0}) {
        orb_native state{};
        ASSERT_EQ(orb_native_init(&state, 34, 400, mode, &track, 0), 0);
        Bytes picture = pictures_of("mb_qcif.h263")[1];
        Bytes out(20000);
        const int length =
            orb_native_packet(out.data(), static_cast<int>(out.size()), picture.data(),
                              static_cast<int>(picture.size()), 0.1, &state);
        Bytes payload;
        for (size_t at = 0; at < static_cast<size_t>(length);) {
            const size_t size = static_cast<size_t>(out[at + 2] << 8 | out[at + 3]);
            EXPECT_LE(size, 388u);
            const auto begin = out.begin() + static_cast<long>(at) + 12;
            payload.insert(payload.end(), begin, begin + static_cast<long>(size));
            at += 12 + size;
        }
        EXPECT_EQ(payload, picture);
        EXPECT_EQ(orb_native_packet(out.data(), length - 1, picture.data(),
                                    static_cast<int>(picture.size()), 0.1, &state),
                  -1);
    }
    track.sample_count = 100;
    track.timescale = 10;
    track.duration = 100;
    track.total_bytes = 50000;
    EXPECT_EQ(orb_buffer_estimate(&track, NATIVE_MODE_RFC2190, 1), 100 * 10 * 16 + 50000);
    EXPECT_EQ(orb_buffer_estimate(&track, 0, 20), 100 * 20 * 12 + 50000);
    EXPECT_EQ(orb_buffer_estimate(&track, 0, 1016), 100 * 10 * 12 + 50000);
    track.codec = ISO_CODEC_SAMR;
    EXPECT_EQ(orb_buffer_estimate(&track, 0, 1), 500 * 12 + 50000);
    track.codec = ISO_CODEC_MP4A;
    EXPECT_EQ(orb_buffer_estimate(&track, 0, 1), 100 * 12 + 50000);
    track.codec = ISO_CODEC_RTP;
    EXPECT_EQ(orb_buffer_estimate(&track, 0, 1), 0);
}

// --- H.264 ---

Bytes nal(uint8_t header, size_t size, int length_size) {
    Bytes unit(size, 0x5A);
    unit[0] = header;
    const Bytes length = be32(static_cast<uint32_t>(size));
    return join({Bytes(length.end() - length_size, length.end()), unit});
}

TEST(H264Packets, FragmentsAndParameterSets) {
    const Bytes sps = nal(0x67, 10, 4);
    const Bytes pps = nal(0x68, 4, 4);
    Bytes sets = join({sps, pps});
    iso_track track = track_of(ISO_CODEC_AVC1);
    track.nal_length_size = 4;
    track.param_sets = sets.data();
    track.param_sets_length = static_cast<uint32_t>(sets.size());
    struct Case {
        const char* what;
        Bytes sample;
        std::vector<size_t> sizes;
        std::vector<uint32_t> markers;
    };
    const Case cases[] = {
        {"an IDR picture gets the parameter sets", nal(0x65, 100, 4), {10, 4, 100}, {0, 0, 1}},
        {"one that has its own does not",
         join({sps, pps, nal(0x65, 100, 4)}),
         {10, 4, 100},
         {0, 0, 1}},
        {"once for all its slices",
         join({nal(0x65, 50, 4), nal(0x65, 60, 4)}),
         {10, 4, 50, 60},
         {0, 0, 0, 1}},
        {"other pictures do not", nal(0x41, 100, 4), {100}, {1}},
        {"a unit that fills its packet", nal(0x41, 500, 4), {500}, {1}},
        {"one byte more", nal(0x41, 501, 4), {500, 4}, {0, 1}},
        {"a fragmented unit in front carries the marker too",
         join({nal(0x41, 501, 4), nal(0x41, 9, 4)}),
         {500, 4, 9},
         {0, 1, 1}},
        {"a length that lies", join({be32(0xFFFFFFF0), {0x41, 1, 2}}), {3}, {1}},
        {"empty units and a cut length", join({be32(0), nal(0x41, 2, 4), {0, 0, 1}}), {2}, {1}},
        {"empty units after the last", join({nal(0x41, 2, 4), be32(0), be32(0)}), {2}, {1}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        tel_native state{};
        ASSERT_EQ(tel_native_init(&state, 103, 500, 0, &track, 0), 0);
        Bytes out(5000);
        const std::vector<Packet> packets = packets_of(out, packetise(state, c.sample, out));
        std::vector<size_t> sizes;
        std::vector<uint32_t> markers;
        for (const Packet& packet : packets) {
            sizes.push_back(packet.payload.size());
            markers.push_back(packet.marker);
            EXPECT_EQ(packet.type, 103u);
        }
        EXPECT_EQ(sizes, c.sizes);
        EXPECT_EQ(markers, c.markers);
    }
}

TEST(H264Packets, FragmentsJoinAndAccountForTheirRoom) {
    iso_track track = track_of(ISO_CODEC_AVC1);
    track.nal_length_size = 2;
    const Bytes sample = nal(0x61, 1000, 2);
    for (const int max_payload : {3, 50, 100, 999}) {
        tel_native state{};
        tel_native_init(&state, 103, max_payload, 0, &track, 0);
        Bytes out(40000);
        const int length = packetise(state, sample, out);
        const std::vector<Packet> packets = packets_of(out, length);
        EXPECT_EQ(joined(packets, kestrel::stream::Medium::kH264),
                  join({{0, 0, 0, 1}, Bytes(sample.begin() + 2, sample.end())}));
        EXPECT_EQ(packets[0].payload[0], (0x61 & 0x60) | 28);
        EXPECT_EQ(packets[0].payload[1], 0x80 | 1);
        EXPECT_EQ(packets.back().payload[1], 0x40 | 1);

        // Each fragment is charged its bytes and 18, so the smallest room that is accepted is below
        // what is written; within it lies all but four bytes for each fragment.
        const int fragments = static_cast<int>(packets.size());
        const int last = static_cast<int>(packets.back().payload.size()) - 2;
        const int charged = 999 - last + (fragments - 1) * 18 + last + 20;
        for (const int room : {charged - 1, charged}) {
            tel_native_init(&state, 103, max_payload, 0, &track, 0);
            Bytes in = sample;
            const std::unique_ptr<uint8_t[]> slack(
                new uint8_t[static_cast<size_t>(room + 4 * fragments)]);
            EXPECT_EQ(tel_native_packet(slack.get(), room, in.data(), static_cast<int>(in.size()),
                                        0.0, &state),
                      room == charged ? length : -1);
        }
    }
    tel_native state{};
    tel_native_init(&state, 103, 2, 0, &track, 0);
    Bytes out(4000);
    EXPECT_EQ(packetise(state, sample, out), -1);
}

// --- decoder configuration ---

Bytes with_entry(const Bytes& entry) {
    return join({ftyp(), movie({track({.handler = "vide",
                                       .timescale = 90000,
                                       .entry = entry,
                                       .tables = one_chunk_tables({1}, 1, 0)})})});
}

Bytes avcc(uint8_t length_size_minus_one) {
    const Bytes sps = {0x67, 66, 0xC0, 30, 1, 2, 3, 4, 5, 6};
    const Bytes pps = {0x68, 9, 8, 7};
    return box("avcC", {{1, 66, 0xC0, 30, static_cast<uint8_t>(0xFC | length_size_minus_one), 0xE1},
                        be16(10),
                        sps,
                        {1},
                        be16(4),
                        pps});
}

TEST(DecoderConfig, AvccParameterSetsInAllForms) {
    for (const int size : {1, 2, 3, 4}) {
        Opened file(with_entry(visual_entry("avc1", avcc(static_cast<uint8_t>(size - 1)))));
        iso_track* track = file.track();
        ASSERT_NE(track, nullptr);
        EXPECT_EQ(track->profile, 66);
        EXPECT_EQ(track->level, 30);
        EXPECT_EQ(track->profile_compat, 0xC0u);
        EXPECT_EQ(track->nal_length_size, size);
        const Bytes length10 = be32(10);
        EXPECT_EQ(track->param_sets_length, static_cast<uint32_t>(14 + 2 * size));
        EXPECT_EQ(Bytes(track->sps_block, track->sps_block + size),
                  Bytes(length10.end() - size, length10.end()));
        EXPECT_EQ(track->pps_block[size], 0x68);

        unsigned char* sets = nullptr;
        ASSERT_EQ(isoFFGetDSIin3GPP(track, 0, &sets), 22);
        EXPECT_EQ(Bytes(sets, sets + 5), (Bytes{0, 0, 0, 1, 0x67}));
        EXPECT_EQ(Bytes(sets + 14, sets + 19), (Bytes{0, 0, 0, 1, 0x68}));

        unsigned char* record = nullptr;
        int length = 0;
        ASSERT_EQ(convertDCI_3gpp_to_ISO(sets, 22, &record, &length), 1);
        EXPECT_EQ(length, 25);
        EXPECT_EQ(record[4], 0xFD);
        EXPECT_EQ(Bytes(record + 5, record + length), Bytes(track->dsi + 5, track->dsi + 25));
        EXPECT_GE(malloc_usable_size(record), 256u);
        systemfree(record);
        systemfree(sets);

        iso_track hint{};
        hint.rtp_seq_offset = 65535;
        hint.rtp_ts_offset = 77;
        Bytes out(100);
        isoFFgetAvccDsi(&hint, track, 96, out.data(), &length);
        const std::vector<Packet> packets = packets_of(out, length);
        ASSERT_EQ(packets.size(), 2u);
        EXPECT_EQ(packets[0].seq, 65535u);
        EXPECT_EQ(packets[1].seq, 0u);
        EXPECT_EQ(packets[1].time, 77u);
        EXPECT_EQ(packets[1].type, 103u);
        EXPECT_EQ(hint.rtp_seq_offset, 65537u);
        EXPECT_EQ(hint.seq_rebase, 1u);
        isoFFgetAvccDsi(&hint, track, 96, out.data(), &length);
        EXPECT_EQ(hint.rtp_seq_offset, 65539u);
    }
}

// Sets of no bytes are counted, and each makes a packet, so that no number is left out.
TEST(DecoderConfig, EmptyParameterSetsCount) {
    const Bytes sets = join({{0xE2}, be16(0), be16(2), {0x67, 66}, {1}, be16(0)});
    Opened file(with_entry(visual_entry("avc1", box("avcC", {{1, 66, 0, 30, 0xFD}, sets}))));
    ASSERT_NE(file.track(), nullptr);
    EXPECT_EQ(file.track()->sps_count, 2u);
    EXPECT_EQ(file.track()->pps_count, 1u);
    EXPECT_EQ(file.track()->param_sets_length, 3 * 2 + 2u);
    iso_track hint{};
    Bytes out(100);
    int length = 0;
    isoFFgetAvccDsi(&hint, file.track(), 96, out.data(), &length);
    const std::vector<Packet> packets = packets_of(out, length);
    ASSERT_EQ(packets.size(), 3u);
    EXPECT_EQ(packets[1].payload, (Bytes{0x67, 66}));
    EXPECT_EQ(packets[2].seq + 1, hint.rtp_seq_offset);
}

TEST(DecoderConfig, AvccDamage) {
    unsigned char* out = nullptr;
    int length = 0;
    EXPECT_EQ(isoFFGetDSIin3GPP(nullptr, 0, &out), -1);
    EXPECT_EQ(convertDCI_3gpp_to_ISO(nullptr, 0, &out, &length), 0);
    // Other units are left out; what does not fit 256 bytes is refused.
    const Bytes start = {0, 0, 0, 1};
    const Bytes sps = {0x67, 1, 2, 3, 4};
    const Bytes mixed = join({start, {0x06, 1}, start, sps, start, {0x68, 5}, start, {0x65, 9}});
    ASSERT_EQ(
        convertDCI_3gpp_to_ISO(mixed.data(), static_cast<unsigned>(mixed.size()), &out, &length),
        1);
    EXPECT_EQ(Bytes(out, out + length),
              join({{1, 1, 2, 3, 0xFD, 0xE1}, be16(5), sps, {1}, be16(2), {0x68, 5}}));
    systemfree(out);
    const Bytes large = join({start, sps, start, Bytes(300, 0x68)});
    EXPECT_EQ(
        convertDCI_3gpp_to_ISO(large.data(), static_cast<unsigned>(large.size()), &out, &length),
        0);
}

Bytes descriptor(uint8_t tag, const Bytes& body) {
    return join({{tag, 0x80, 0x80, 0x80, static_cast<uint8_t>(body.size())}, body});
}

TEST(DecoderConfig, Esds) {
    const auto esds = [](const Bytes& dsi) {
        const Bytes config =
            join({{0x20, 0x11}, {1, 2, 3}, be32(64000), be32(48000), descriptor(5, dsi)});
        return box(
            "esds",
            {be32(0), descriptor(9, {1, 2}),
             descriptor(3, join({be16(1), {0}, descriptor(4, config), descriptor(6, {2})}))});
    };
    const Bytes with_level = {0, 0, 1, 0xB0, 8, 9};
    Opened file(with_entry(visual_entry("mp4v", esds(with_level))));
    ASSERT_NE(file.track(), nullptr);
    EXPECT_EQ(file.printed, "esds: skipping tag 9\n");
    EXPECT_EQ(file.track()->object_type, 0x20);
    EXPECT_EQ(file.track()->stream_type, 4);
    EXPECT_EQ(file.track()->buffer_size, 0x010203u);
    EXPECT_EQ(file.track()->avg_bitrate, 48000u);
    EXPECT_EQ(file.track()->level, 8);
    int length = 0;
    const uint8_t* dsi = isoFFgetDecoderSpecificInfo(file.track(), &length, 0);
    EXPECT_EQ(Bytes(dsi, dsi + length), with_level);
    int size = 0;
    isoFFframeInfo(file.track(), nullptr, &size);
    EXPECT_EQ(size, 1);
    isoFFgetDecoderSpecificInfo(file.track(), nullptr, 1);
    for (int looks = 0; looks < 2; ++looks) {  // looking does not send it
        isoFFframeInfo(file.track(), nullptr, &size);
        EXPECT_EQ(size, 1 + 6);
    }

    uint8_t record[356];
    EXPECT_EQ(tel_put_hdr_vid_codecCfg(record, file.track()), 356);
    EXPECT_EQ(record[0], 8);
    EXPECT_EQ(Bytes(record + 4, record + 11), (Bytes{0, 0, 1, 0xB0, 8, 9, 0}));
    EXPECT_EQ(record[354], 6);

    Opened plain(with_entry(visual_entry("mp4v", esds({1, 2, 3, 4, 5, 6}))));
    EXPECT_EQ(plain.track()->level, 0);
    Bytes lying = esds(with_level);
    lying[12 + 4] = 200;  // the first descriptor claims more than the box has
    Opened damaged(with_entry(visual_entry("mp4v", lying)));
    EXPECT_EQ(damaged.track() == nullptr ? 0u : damaged.track()->dsi_length, 0u);
}

TEST(DecoderConfig, H263AndTheRecordsOfAll) {
    Opened file(with_entry(visual_entry("s263", box("d263", {text("test"), {1, 45, 3}}))));
    ASSERT_NE(file.track(), nullptr);
    EXPECT_STREQ(file.track()->vendor, "test");
    EXPECT_EQ(file.track()->level, 45);
    EXPECT_EQ(file.track()->profile, 3);
    EXPECT_EQ(file.track()->width, 176u);
    uint8_t record[28];
    for (const uint32_t type : {34u, 96u}) {
        file.track()->last_payload_type = type;
        EXPECT_EQ(tel_put_hdr_vid_codec263(record, file.track(), 64000), 28);
        EXPECT_EQ(Bytes(record, record + 8), type == 34 ? text(std::string("s263\0\0\0\0", 8))
                                                        : text(std::string("s263+\0\0\0", 8)));
        EXPECT_EQ(record[24] | record[25] << 8, 356);
    }
    EXPECT_EQ(tel_put_hdr_vid_codecCfg263(record, file.track()), 8);
    EXPECT_EQ(Bytes(record, record + 8), (Bytes{3, 0, 0, 0, 45, 0, 0, 0}));
    uint8_t prop[24];
    for (const auto& [put, length] :
         {std::pair{&tel_put_hdr_vid_prop, 440}, std::pair{&tel_put_hdr_vid_prop263, 92},
          std::pair{&tel_put_hdr_vid_prop264, 452}}) {
        EXPECT_EQ(put(prop, 15), 24);
        EXPECT_EQ(prop[8] | prop[9] << 8, length);
        EXPECT_EQ(std::memcmp(prop, "VIDEO   ", 8), 0);
        EXPECT_EQ(prop[20], 15);
    }

    Opened h264(with_entry(visual_entry("avc1", avcc(3))));
    Bytes config(368, 0xEE);
    EXPECT_EQ(tel_put_hdr_vid_codecCfg264(config.data(), h264.track()), 368);
    EXPECT_EQ(config[0], 66);
    EXPECT_EQ(config[4], 0xC0);
    EXPECT_EQ(config[8], 30);
    EXPECT_EQ(config[362], 22);
    EXPECT_EQ(Bytes(config.begin() + 364, config.end()), (Bytes{2, 0xEE, 0xEE, 0xEE}));
    tel_put_hdr_vid_codec264(record, h264.track(), 1);
    EXPECT_EQ(record[24] | record[25] << 8, 365);
    // Too little for a profile: the constraint word stays.
    iso_track none{};
    config.assign(368, 0xEE);
    tel_put_hdr_vid_codecCfg264(config.data(), &none);
    EXPECT_EQ(Bytes(config.begin(), config.begin() + 12),
              join({zeros(4), Bytes(4, 0xEE), zeros(4)}));
}

// A peer's packets, in modes A and B, join bit by bit to the samples of the same file.
TEST(H263Packets, OfAPeerJoinToItsSamples) {
    Opened file(read_sample("h263_rfc2190_hinted_1450.3gp"));
    iso_track* hint = isoFFrtpHinter(file.track(), 1450);
    ASSERT_NE(hint, nullptr);
    std::vector<Packet> packets;
    Bytes buffer(1450);
    int mode_b = 0;
    for (int length; (length = isoFFrtpPacket(hint, buffer.data())) > 0;) {
        packets.push_back({0, 0, 0, 0, Bytes(buffer.begin() + 12, buffer.begin() + length)});
        mode_b += (buffer[12] & 0x80) != 0;
    }
    EXPECT_GT(mode_b, 0);
    Bytes samples;
    Bytes sample(64000);
    ASSERT_EQ(isoFFsetPosition(file.track(), 0), 0);
    for (int length;
         (length = isoFFread(file.track(), sample.data(), 64000, nullptr, nullptr)) > 0;)
        samples.insert(samples.end(), sample.begin(), sample.begin() + length);
    EXPECT_EQ(joined(packets, kestrel::stream::Medium::kH263Rfc2190), samples);
}

// --- helpers ---

TEST(CodecHelpers, PictureHeaders) {
    constexpr uint32_t kNone = 0xFFFFFFFF, kUntouched = 77;
    struct Case {
        const char* what;
        Bytes bytes;
        uint32_t offset = kNone;
        uint32_t width = 0, height = 0, format = kUntouched, type = 0, plus = 0;
    };
    const Case cases[] = {
        {"CIF at 3", {9, 9, 9, 0, 0, 0x80, 2, 0x0E, 0}, 3, 352, 288, 3, 1},
        {"CIF intra", {0, 0, 0x80, 2, 0x0C, 0}, 0, 352, 288, 3},
        {"4CIF, then sub-QCIF", {0, 0, 0x80, 2, 0x10, 0, 0, 0x80, 2, 4, 0}, 5, 128, 96, 1},
        {"PLUSPTYPE and its option", {0, 0, 0x80, 2, 0x1C, 0xA0, 0, 4}, 0, 176, 144, 2, 1, 1},
        {"PLUSPTYPE without", {0, 0, 0x80, 2, 0x1C, 0x10}, 0, 176, 144, kUntouched, 1, 1},
        {"PLUSPTYPE with bits that must be 0", {0, 0, 0x80, 2, 0x1D, 0x10}},
        {"five bytes", {0, 0, 0x80, 2, 0x0C}},
        {"none", Bytes(50, 1)},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        H263VCFG cfg{};
        cfg.source_format = kUntouched;
        const std::unique_ptr<uint8_t[]> exact(new uint8_t[c.bytes.size()]);
        std::copy(c.bytes.begin(), c.bytes.end(), exact.get());
        EXPECT_EQ(h263_get_config(exact.get(), static_cast<unsigned>(c.bytes.size()), &cfg),
                  c.offset);
        EXPECT_EQ(cfg.width, c.width);
        EXPECT_EQ(cfg.height, c.height);
        EXPECT_EQ(cfg.coding_type, c.type);
        EXPECT_EQ(cfg.plusptype, c.plus);
        EXPECT_EQ(cfg.source_format, c.format);
        EXPECT_EQ(h263_get_frame_type(exact.get(), static_cast<int>(c.bytes.size())),
                  c.offset == kNone ? -1 : static_cast<int>(c.type));
    }
}

TEST(CodecHelpers, StartCodesAndLengths) {
    const auto intra = [](uint8_t last) {
        const Bytes vop = {5, 0, 0, 1, 0xB6, last};
        return CheckForIFrame(vop.data(), static_cast<int>(vop.size()));
    };
    EXPECT_EQ(intra(0x3F), 1);
    EXPECT_EQ(intra(0x40), 0);
    const Bytes codes = {0, 0, 1, 0xB0, 0x40, 0, 0, 1, 0xB0, 0x3F};
    EXPECT_EQ(FindStartCode(codes.data(), 10, 0xB0), 5);
    EXPECT_EQ(FindStartCode(codes.data(), 9, 0xB0), -1);
    EXPECT_EQ(FindStartCode(codes.data(), 10, 0xB6), -1);
    EXPECT_EQ(FindStartCode(codes.data(), 0, 0xB6), -1);
    const uint8_t p[] = {0, 0, 1, 0x2C};
    EXPECT_EQ(h264_get_nal_size(p, 4), 300u);
    EXPECT_EQ(h264_get_nal_size(p, 9), 300u);
    EXPECT_EQ(h264_get_nal_size(p + 1, 3), 300u);
    EXPECT_EQ(h264_get_nal_size(p + 2, 2), 300u);
    EXPECT_EQ(h264_get_nal_size(p + 2, 1), 1u);
}

}  // namespace
