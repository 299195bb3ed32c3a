// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>

#include "kestrel/isoff.h"
#include "kestrel/native.h"
#include "native/codec/amr_format.h"
#include "tests/support/native_packets.h"

// Packet headers, header records, AMR frames and the AMR packetisers.

namespace {

using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

TEST(PacketHeaders, TelLayoutAndSequenceWrap) {
    TEL_RTP hdr{};
    hdr.size = 0;
    hdr.time = 0x01020304;
    hdr.marker = 1;
    hdr.seq = 65534;
    for (const uint32_t seq : {65534u, 65535u, 0u, 1u}) {
        Bytes out(20);
        EXPECT_EQ(tel_put_header(out.data(), &hdr, 34), 20);
        EXPECT_EQ(out,
                  join({le32(20), le32(0x01020304), le32(0x80000000u | 1u << 23 | 34u << 16 | seq),
                        le32(0x01020304), le32(0)}));
    }
}

TEST(PacketHeaders, OrbLayoutThereAndBack) {
    ORB_RTP hdr{};
    hdr.size = 300;
    hdr.marker = 1;
    hdr.type = 101 + 128;
    hdr.seq = 65535;
    hdr.time = 7;
    Bytes out(12);
    EXPECT_EQ(orb_put_header(out.data(), &hdr), 12);
    EXPECT_EQ(out, join({be16(0), be16(300), {13, 0x80 | 101}, be16(65535), be32(7)}));
    EXPECT_EQ(hdr.seq, 0u);
    hdr.seq = 70000;  // only 65536 becomes 0
    orb_put_header(out.data(), &hdr);
    EXPECT_EQ(hdr.seq, 70001u);
}

// An `orb` stream in memory.
struct OrbStream {
    Bytes bytes;
    size_t at = 0;
    static size_t read(void* buffer, size_t size, size_t count, void* handle) {
        auto& self = *static_cast<OrbStream*>(handle);
        const size_t taken = std::min(size * count, self.bytes.size() - self.at);
        std::memcpy(buffer, self.bytes.data() + self.at, taken);
        self.at += taken;
        return taken / size;
    }
};

TEST(PacketHeaders, OrbReadingReportsWhatIsWrong) {
    struct Case {
        uint32_t last;
        uint8_t magic;
        uint16_t seq;
        uint32_t flags;
        const char* printed;
    };
    const char* const header =
        "seq     9, size     1, time          5, marker 0, type  34, magic  13\n";
    const std::string broken = std::string("Packet out of sequence, last seq # = 3\n") + header;
    const Case cases[] = {
        {0xFFFFFFFE, 13, 9, 7u << 29, ""},
        {65535, 13, 0, 7u << 29, ""},
        {8, 13, 9, 7u << 29, ""},
        {3, 13, 9, 0, ""},
        {3, 13, 9, 1u << 29, ""},
        {3, 13, 9, 1u << 30, broken.c_str()},
        {3, 13, 9, 1u << 31, "Packet out of sequence, last seq # = 3\n"},
        {8, 14, 9, 1u << 31, "Bad magic number\n"},
        {65535, 14, 9, 1u << 31, "Bad magic number\nPacket out of sequence, last seq # = -1\n"},
    };
    for (const Case& c : cases) {
        OrbStream stream{join({be16(0), be16(1), {c.magic, 34}, be16(c.seq), be32(5), zeros(11)})};
        mfileio f{OrbStream::read, &stream};
        ORB_RTP hdr{};
        hdr.seq = c.last;
        hdr.flags = c.flags | orb_header_printed;
        CaptureStderr();
        EXPECT_EQ(orb_get_header(&f, &hdr), 1);
        EXPECT_EQ(GetCapturedStderr(), c.printed);
        EXPECT_EQ(hdr.seq, c.seq);
        EXPECT_EQ(hdr.size, 1u);
        EXPECT_EQ(hdr.flags, c.flags);
        EXPECT_EQ(orb_get_header(&f, &hdr), 0);  // 11 bytes are no header
    }
    ORB_RTP printed{};
    printed.flags = orb_header_printed;
    CaptureStderr();
    print_orb_header(&printed);
    EXPECT_EQ(GetCapturedStderr(), "");
    EXPECT_EQ(printed.flags, 0u);
}

TEST(PacketHeaders, RtpBecomesOrbBecomesTel) {
    Bytes packet =
        join({{0xBF, 0x80 | 96}, be16(0xABCD), be32(0x11223344), be32(0x55667788), zeros(30)});
    rtp2orb(packet.data(), static_cast<unsigned>(packet.size()), 34, 0);
    EXPECT_EQ(Bytes(packet.begin(), packet.begin() + 12),
              join({be16(0), be16(30), {13, 0x80 | 34}, be16(0xABCD), be32(0x11223344)}));
    Bytes tel(20);
    tel_put_header_orb2tel(packet.data(), tel.data(), 34 + 128);
    EXPECT_EQ(tel,
              join({le32(50), le32(0x11223344), le32(0x80000000u | 1u << 23 | 34u << 16 | 0xABCD),
                    le32(0x11223344), le32(0)}));
}

TEST(HeaderRecords, AudioLayouts) {
    Bytes out(24);
    EXPECT_EQ(tel_put_hdr_aud_prop(out.data(), 715), 24);
    EXPECT_EQ(out, join({text("AUDIO   "), le32(68), le32(10), le32(0), le32(715)}));
    out.resize(16);
    EXPECT_EQ(tel_put_hdr_aud_codec(out.data()), 16);
    EXPECT_EQ(out, join({le32(16), le32(33), le32(64), le32(8)}));
    EXPECT_EQ(tel_put_hdr_aud_codec_wb(out.data()), 16);
    EXPECT_EQ(out, join({le32(16), le32(51), le32(128), le32(16)}));
    EXPECT_EQ(tel_put_hdr_fileInfo(out.data(), 14.2809), 16);
    EXPECT_EQ(out, join({le32(14280), Bytes(12, 0xCC)}));
    out.assign(12, 1);
    EXPECT_EQ(tel_put_hdr_aud_index(out.data(), 9), 12);
    EXPECT_EQ(out, zeros(12));
    EXPECT_EQ(tel_put_hdr_aud_codec(nullptr), -1);

    tel_native state{};
    state.hdr.time = 480;
    state.hdr.seq = 65535;
    out.resize(20);
    EXPECT_EQ(tel_put_hdr_aud_frame(out.data(), &state, 57), 20);
    EXPECT_EQ(out, join({le32(57), le32(10), le32(480), le32(480), {0xFF, 0xFF, 0, 0}}));
    EXPECT_EQ(tel_put_hdr_aud_frame_wb(out.data(), &state, 57), 20);
    EXPECT_EQ(out, join({le32(57), le32(20), le32(640), le32(640), {0, 0, 0, 0}}));
    EXPECT_EQ(state.hdr.time, 960u);
    EXPECT_EQ(state.hdr.seq, 65537u);  // no wrap in these
}

// --- AMR frames ---

// All frames of a speech file, its magic left out.
Bytes speech_of(const char* name) {
    Bytes file = read_sample(std::string("truth/") + name);
    file.erase(file.begin(), file.begin() + 6);
    return file;
}

TEST(AmrFrames, ConvertThereAndBack) {
    for (const char* name : {"amrnb.amr", "amrnb_dtx.amr"}) {
        Bytes storage = speech_of(name);
        // An empty frame comes back without its quality bit.
        for (size_t at = 0; at < storage.size();
             at += static_cast<size_t>(amr_get_size(&storage[at], 1))) {
            if ((storage[at] >> 3 & 15) == 15) storage[at] = 0x78;
        }
        Bytes interface(storage.size());
        const int converted =
            amr1_to_amr2(storage.data(), interface.data(), static_cast<int>(storage.size()));
        ASSERT_GT(converted, 0);
        Bytes back(storage.size() + 32);
        const int returned = amr2_to_amr1(interface.data(), back.data(), converted);
        back.resize(static_cast<size_t>(returned));
        EXPECT_EQ(back, storage);
    }
}

TEST(AmrFrames, EachTypeThereAndBack) {
    for (int type = 0; type < 16; ++type) {
        SCOPED_TRACE(type);
        Bytes frame(static_cast<size_t>((kestrel::bits[type] + 7) / 8 + 1), 0xA7);
        frame[0] = static_cast<uint8_t>(type << 3 | 4);
        // Bits after the last speech bit are padding.
        if (type < 9) {
            frame.back() &= static_cast<uint8_t>(0xFF << ((8 - kestrel::bits[type] % 8) % 8));
        }
        if (type == 15) frame[0] = 0x78;
        int found = -1;
        Bytes there(40);
        const int length = amr2cod(frame.data(), there.data());
        if (type > 8 && type < 15) {
            there[0] = static_cast<uint8_t>(type);
            EXPECT_EQ(length | cod2amr(there.data(), there.data()), 0);
            EXPECT_EQ(amr_get_format(frame.data(), static_cast<int>(frame.size()), &found), -1);
            continue;
        }
        EXPECT_EQ(length, (kestrel::bits[type] + 11) / 8);
        EXPECT_EQ(amr_get_size(there.data(), 2), length);
        EXPECT_EQ(amr_get_format(there.data(), length, &found), 2);
        EXPECT_EQ(found, type);
        Bytes back(40);
        back.resize(static_cast<size_t>(cod2amr(there.data(), back.data())));
        EXPECT_EQ(back, frame);
        EXPECT_EQ(amr_get_format(frame.data(), static_cast<int>(frame.size()), &found), 1);
        EXPECT_EQ(found, type);
    }
    const uint8_t frame[] = {0x3C};
    EXPECT_EQ(amr_get_size(frame, 4), -1);
    EXPECT_EQ(amr_get_size(frame, 3), 59);
    EXPECT_EQ(amr_get_format(frame, 0, nullptr), -1);
    // A run stops at a cut frame.
    Bytes out(64);
    EXPECT_EQ(amr1_to_amr2(frame, out.data(), 1), 0);
}

// A known frame, worked by hand: type 7, first speech byte 0x12: nibbles 1 and 2 reversed are 8, 4.
TEST(AmrFrames, NibblesAreReversed) {
    Bytes frame(32);
    frame[0] = 0x3C;
    frame[1] = 0x12;
    Bytes out(32);
    EXPECT_EQ(amr2cod(frame.data(), out.data()), 31);
    EXPECT_EQ(out[0], 0x87);
    EXPECT_EQ(out[1], 0x04);
}

// --- AMR packetisers ---

iso_track track_of(int32_t codec) {
    iso_track track{};
    track.codec = codec;
    return track;
}

TEST(AmrPackets, InitAcceptsTheCodecsOfTheTable) {
    struct Case {
        int32_t codec;
        int result;
        uint32_t clock;
        bool tel, orb;
    };
    const Case cases[] = {
        {-1, -1, 0, false, false},  {0, 0, 90000, true, true},  {1, 0, 0, false, false},
        {2, 0, 90000, true, true},  {4, 0, 90000, true, false}, {3, 0, 8000, true, true},
        {5, 0, 16000, true, false}, {6, -1, 0, false, false},   {7, 0, 0, false, false},
        {8, -1, 0, false, false},   {9, -1, 0, false, false}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.codec);
        iso_track track = track_of(c.codec);
        tel_native tel{};
        orb_native orb{};
        EXPECT_EQ(tel_native_init(&tel, 101, 1000, 0, &track, 1), c.result);
        EXPECT_EQ(orb_native_init(&orb, 101, 1000, 0, &track, 1), c.result);
        if (c.result != 0) continue;
        EXPECT_EQ(tel.hdr.clock, c.clock);
        EXPECT_EQ(tel.hdr.magic, 13u);
        EXPECT_EQ(tel.max_payload, c.codec == ISO_CODEC_AVC1 ? 1000 : 1400);
        EXPECT_EQ(orb.max_payload, 988);
        EXPECT_EQ(tel.packetise != nullptr, c.tel);
        EXPECT_EQ(orb.packetise != nullptr, c.orb);
        Bytes in(1, 0x7C), out(100);
        if (!c.tel) {
            EXPECT_EQ(tel_native_packet(out.data(), 100, in.data(), 1, 0.0, &tel), -1);
        }
        if (!c.orb) {
            EXPECT_EQ(orb_native_packet(out.data(), 100, in.data(), 1, 0.0, &orb), -1);
        }
    }
}

TEST(AmrPackets, OneAFrameInBothFormats) {
    const Bytes speech = speech_of("amrnb_dtx.amr");
    iso_track track = track_of(ISO_CODEC_SAMR);
    Bytes out(speech.size() * 21);
    tel_native tel{};
    tel_native_init(&tel, 101, 1400, 0, &track, native_amr_format_1);
    const int written =
        tel_native_packet(out.data(), static_cast<int>(out.size()), Bytes(speech).data(),
                          static_cast<int>(speech.size()), 0.02, &tel);
    ASSERT_GT(written, 0);
    const std::vector<Packet> packets = packets_of(out, written);
    Bytes joined;
    for (size_t i = 0; i < packets.size(); ++i) {
        EXPECT_EQ(packets[i].time, i * 160);
        EXPECT_EQ(packets[i].seq, i);
        EXPECT_EQ(packets[i].type, 101u);
        joined.insert(joined.end(), packets[i].payload.begin(), packets[i].payload.end());
    }
    EXPECT_EQ(joined, speech);
    EXPECT_EQ(tel.count, packets.size());

    orb_native orb{};
    orb_native_init(&orb, 99, 1400, 0, &track, native_amr_format_1);
    Bytes orb_out(speech.size() * 14);
    const int orb_written =
        orb_native_packet(orb_out.data(), static_cast<int>(orb_out.size()), Bytes(speech).data(),
                          static_cast<int>(speech.size()), 0.02, &orb);
    EXPECT_EQ(orb_written, static_cast<int>(speech.size() + packets.size() * 12));
    EXPECT_EQ(orb_out[5], 99);
}

TEST(AmrPackets, NoDataFramesAreDroppedOnRequest) {
    const Bytes no_data = {0x78, 0x78, 0x0F};
    for (const uint32_t flags : {0u, 1u, 1u | native_verbose}) {
        iso_track track = track_of(ISO_CODEC_SAMR);
        tel_native tel{};
        tel_native_init(&tel, 101, 1400, 0, &track, static_cast<int>(flags | native_amr_format_1));
        tel.time_acc = 4294967295.0 - 160;
        Bytes out(100);
        CaptureStderr();
        const int written = tel_native_packet(out.data(), 100, Bytes(no_data).data(), 2, 0.0, &tel);
        const std::string printed = GetCapturedStderr();
        EXPECT_EQ(written, flags & 1 ? 0 : 42);
        EXPECT_EQ(printed, flags & native_verbose
                               ? "   removing \"no data\" amr frame, time=4294967135\n"
                                 "   removing \"no data\" amr frame, time=4294967295\n"
                               : "");
        // The wrap takes 2^32 - 1 off.
        EXPECT_DOUBLE_EQ(tel.time_acc, 160.0);
    }
}

// The time of the next frame is set also where there is none, or no room for it.
TEST(AmrPackets, EachCallSetsTheTime) {
    uint8_t frame[] = {0x7C};
    uint8_t out[100];
    iso_track track = track_of(ISO_CODEC_SAMR);
    tel_native tel{};
    orb_native orb{};
    tel_native_init(&tel, 101, 1400, 0, &track, 0);
    orb_native_init(&orb, 101, 1400, 0, &track, 0);
    tel.time_acc = orb.time_acc = 499.6;
    EXPECT_EQ(tel_native_packet(out, sizeof out, frame, 0, 0.0, &tel), 0);
    EXPECT_EQ(orb_native_packet(out, 12, frame, 1, 0.0, &orb), -1);
    EXPECT_EQ(tel.hdr.time, 500u);
    EXPECT_EQ(orb.hdr.time, 500u);
}

TEST(AmrPackets, StayWithinTheOutput) {
    Bytes frames(50, 0x7C);  // 50 frames of one byte
    iso_track track = track_of(ISO_CODEC_SAMR);
    for (int room = 0; room <= 50 * 21; ++room) {
        tel_native tel{};
        tel_native_init(&tel, 101, 1400, 0, &track, native_amr_format_1);
        const std::unique_ptr<uint8_t[]> out(new uint8_t[static_cast<size_t>(room)]);
        const int written = tel_native_packet(out.get(), room, frames.data(), 50, 0.0, &tel);
        ASSERT_EQ(written, room == 50 * 21 ? 50 * 21 : -1);
        ASSERT_EQ(tel.count, room < 62 ? 0u : static_cast<uint32_t>(room / 21));
    }
}

}  // namespace
