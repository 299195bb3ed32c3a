// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <optional>
#include <random>

#include "common/bytes.h"
#include "interface/src/isoff/write/hint_sample_planner.h"
#include "kestrel/codec.h"
#include "native/stream/depacketise.h"
#include "tests/support/opened.h"
#include "tests/support/writing.h"

// Hint tracks that the writer makes, read back packet by packet.

namespace {

constexpr int kRtpHeader = 12;

struct Sample {
    Bytes bytes;
    int duration;
    int cts_offset = 0;
};

struct Packet {
    bool marker;
    uint32_t timestamp;
    Bytes payload;
};

using kestrel::stream::Medium;
using MakeTrack = iso_track* (*)(iso_file*);

enum class Mode { kQueued, kSpooled, kDirect };

// A media track and its hint track, written and read back.
class Hinted {
  public:
    Hinted(MakeTrack make, int max_packet, const std::vector<Sample>& samples,
           Mode mode = Mode::kQueued, iso_h263_payload h263_payload = ISO_H263_RFC4629) {
        Output out;
        out.file->own->direct_write = mode == Mode::kDirect;
        iso_track* to = make(out.file);
        iso_track* to_hint = rtp_isoFFtrack(out.file, to, max_packet, 96, h263_payload);
        if (mode == Mode::kSpooled) to_hint->own->spool = std::tmpfile();
        for (const Sample& sample : samples) {
            Bytes copy = sample.bytes;
            const int size = static_cast<int>(copy.size());
            written = isoFFwrite(to, copy.data(), size, sample.duration, sample.cts_offset);
            if (written < 0) break;
            written =
                isoFFwriteHint(to_hint, copy.data(), size, sample.duration, sample.cts_offset);
            if (written < 0) break;
        }
        if (written == -7) {
            after_end = isoFFwriteHint(to_hint, samples[0].bytes.data(),
                                       static_cast<int>(samples[0].bytes.size()), 1, 0);
        }
        closed = out.close();
        file_bytes = out.written();
        opened_.emplace(file_bytes);
        media = opened_->track();
        hint = isoFFrtpHinter(media, max_packet);
    }

    std::vector<Packet> packets() const {
        std::vector<Packet> all;
        Bytes buffer(hint->rtp_max_packet);
        int length;
        while ((length = isoFFrtpPacket(hint, buffer.data())) > 0) {
            EXPECT_EQ(kestrel::load_be16(&buffer[2]), all.size() & 0xFFFF);  // sequence numbers
            EXPECT_EQ(buffer[0], 0x80);
            all.push_back({(buffer[1] & 0x80) != 0, kestrel::load_be32(&buffer[4]),
                           Bytes(buffer.begin() + kRtpHeader, buffer.begin() + length)});
        }
        EXPECT_EQ(length, 0);
        return all;
    }

    int written = 0;
    int after_end = 0;  // of a hint sample after one that came too late
    int closed = 0;
    Bytes file_bytes;
    iso_track* media;
    iso_track* hint;

  private:
    std::optional<Opened> opened_;
};

Bytes random_bytes(Random& random, size_t size) {
    Bytes bytes(size);
    for (uint8_t& byte : bytes)
        byte = static_cast<uint8_t>(pick(random, 1, 255));
    return bytes;
}

// --- payloads back to the samples they were made from ---

// Bytes of speech after the header byte of a frame.
size_t speech_bytes(int type, bool wide) {
    return (band_of(wide ? Medium::kWideBandSpeech : Medium::kNarrowBandSpeech).frame_bits[type] +
            7u) /
           8;
}

Bytes speech_sample(Random& random, bool wide) {
    Bytes sample;
    for (int frames = pick(random, 1, 16); frames > 0; --frames) {
        const int types[] = {pick(random, 0, wide ? 9 : 8), 15};
        const int type = types[pick(random, 0, 9) == 0];
        sample.push_back(static_cast<uint8_t>(type << 3 | 4));
        const Bytes speech = random_bytes(random, speech_bytes(type, wide));
        sample.insert(sample.end(), speech.begin(), speech.end());
    }
    return sample;
}

// Appends the frames of a packet in the storage format; returns how many.
size_t take_speech(const Bytes& payload, bool wide, Bytes& to) {
    EXPECT_EQ(payload.at(0), 0xF0);
    size_t count = 1;
    while (payload.at(count) & 0x80)
        ++count;
    size_t at = 1 + count;
    for (size_t i = 1; i <= count; ++i) {
        const auto header = static_cast<uint8_t>(payload[i] & 0x7F);
        const size_t size = speech_bytes(header >> 3, wide);
        to.push_back(header);
        to.insert(to.end(), payload.begin() + static_cast<long>(at),
                  payload.begin() + static_cast<long>(at + size));
        at += size;
    }
    EXPECT_EQ(at, payload.size());
    return count;
}

void append_unit(const Bytes& unit, Bytes& to) {
    const Bytes length = be32(static_cast<uint32_t>(unit.size()));
    to.insert(to.end(), length.begin(), length.end());
    to.insert(to.end(), unit.begin(), unit.end());
}

Bytes units_sample(Random& random) {
    Bytes sample;
    for (int units = pick(random, 1, 4); units > 0; --units) {
        Bytes unit = random_bytes(random, static_cast<size_t>(pick(random, 2, 900)));
        unit[0] = static_cast<uint8_t>(pick(random, 0, 3) << 5 | pick(random, 1, 5));
        append_unit(unit, sample);
    }
    return sample;
}

Bytes picture_sample(Random& random) {
    Bytes sample = {0, 0, 0x80, 0x02, 0x08};  // an H.263 picture start code, QCIF
    for (int pieces = pick(random, 0, 5); pieces > 0; --pieces) {
        const Bytes piece = random_bytes(random, static_cast<size_t>(pick(random, 1, 500)));
        sample.insert(sample.end(), piece.begin(), piece.end());
        sample.insert(sample.end(), {0, 0, 0x84});  // a GOB start code
    }
    return sample;
}

Bytes vop_sample(Random& random) {
    Bytes sample = picture_sample(random);
    sample[2] = 1;  // a start code of MPEG-4
    return sample;
}

struct Codec {
    const char* name;
    MakeTrack make;
    Bytes (*sample)(Random&);
    uint32_t clock;
    kestrel::stream::Medium medium;
};

const Codec kCodecs[] = {
    {"amr", amr_track, [](Random& random) { return speech_sample(random, false); }, 8000,
     Medium::kNarrowBandSpeech},
    {"amr_wb", amr_wb_track, [](Random& random) { return speech_sample(random, true); }, 16000,
     Medium::kWideBandSpeech},
    {"h264", h264_track, units_sample, 90000, Medium::kH264},
    {"mpeg4", mpeg4_track, vop_sample, 90000, Medium::kMpeg4},
    {"h263", h263_track, picture_sample, 90000, Medium::kH263Rfc4629},
};

// The sample that the packets of one timestamp carry.
Bytes put_together(const Codec& codec, std::span<const Packet> packets) {
    Bytes sample;
    if (is_speech(codec.medium)) {
        for (const Packet& packet : packets)
            take_speech(packet.payload, codec.medium == Medium::kWideBandSpeech, sample);
        return sample;
    }
    std::vector<Bytes> units(1);
    const auto joiner = kestrel::stream::make_depacketiser(
        codec.medium, {},
        {[&](auto bytes) { units.back().insert(units.back().end(), bytes.begin(), bytes.end()); },
         [&] { units.emplace_back(); }});
    for (const Packet& packet : packets)
        EXPECT_TRUE(joiner->packet(packet.payload));
    joiner->finish();
    for (size_t i = 1; i < units.size(); ++i)
        append_unit(units[i], sample);
    return units.size() > 1 ? sample : units[0];
}

class HintWriter : public testing::TestWithParam<Codec> {};

TEST_P(HintWriter, PacketsCarryTheSamplesAtTheirTimes) {
    const Codec& codec = GetParam();
    for (unsigned round = 1; round <= 30; ++round) {
        SCOPED_TRACE(round);
        Random random(round);
        const int max_packet = pick(random, 80, 700);
        std::vector<Sample> samples(static_cast<size_t>(pick(random, 0, 40)));
        for (Sample& sample : samples)
            sample = {codec.sample(random), pick(random, 1, 2000), pick(random, 0, 3) * 10};
        const Hinted hinted(codec.make, max_packet, samples, static_cast<Mode>(round % 3));
        ASSERT_EQ(hinted.closed, 0);
        ASSERT_NE(hinted.hint, nullptr);
        ASSERT_EQ(hinted.hint->sample_count, static_cast<int>(samples.size()));
        EXPECT_EQ(hinted.hint->rtp_timescale, codec.clock);
        EXPECT_EQ(hinted.hint->timescale, hinted.media->timescale);
        const std::vector<Packet> packets = hinted.packets();
        size_t at = 0;
        uint64_t media_time = 0;
        for (const Sample& sample : samples) {
            const uint32_t timestamp = static_cast<uint32_t>(std::llround(
                static_cast<double>(media_time) * codec.clock / hinted.media->timescale));
            const size_t first = at;
            while (at < packets.size() && packets[at].timestamp == timestamp)
                ++at;
            ASSERT_GT(at, first);
            EXPECT_EQ(put_together(codec, std::span(packets).subspan(first, at - first)),
                      sample.bytes);
            for (size_t i = first; i < at; ++i) {
                EXPECT_EQ(packets[i].marker, codec.clock == 90000 && i + 1 == at);
                EXPECT_LE(packets[i].payload.size() + kRtpHeader, static_cast<size_t>(max_packet));
            }
            media_time += static_cast<uint64_t>(sample.duration);
        }
        EXPECT_EQ(at, packets.size());
    }
}

INSTANTIATE_TEST_SUITE_P(Codecs, HintWriter, testing::ValuesIn(kCodecs),
                         [](const auto& codec) { return codec.param.name; });

TEST(HintTrack, SaysWhatItHolds) {
    const Bytes unit = {0, 0, 0, 2, 0x65, 9};
    const Hinted hinted(h264_track, 1400, {{unit, 512}});
    const iso_track* hint = hinted.hint;
    EXPECT_STREQ(hint->handler, "hint");
    EXPECT_EQ(hint->hint_track_ref, hinted.media->track_id);
    EXPECT_EQ(hint->rtp_max_packet, 1400U);
    EXPECT_STREQ(hint->sdp_text,
                 "m=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\na=fmtp:96 "
                 "profile-level-id=42C01E; packetization-mode=1; "
                 "sprop-parameter-sets=Z0LAHg==,aAk=\r\na=control:trackID=2\r\n");
}

// Parameter sets that are in the stream only are none that could be declared.
TEST(HintTrack, DescriptionNamesNoSetsWhereThereAreNone) {
    const auto bare = [](iso_file* file) {
        const uint8_t avcc[] = {1, 66, 0, 30, 0xFF, 0xE0, 0};
        return h264_isoFFtrack(file, avcc, sizeof avcc, 176, 144, 12800);
    };
    const Hinted hinted(bare, 1400, {});
    EXPECT_THAT(hinted.hint->sdp_text, testing::HasSubstr("packetization-mode=1\r\n"));
}

// Where a sample is split, the later packets' times are in the extra information (RTP units).
TEST(HintTrack, SplitSpeechKeepsItsTimes) {
    Bytes sample;
    for (int i = 0; i < 6; ++i) {
        sample.push_back(0x3C);
        sample.resize(sample.size() + 31, 7);
    }
    const Hinted hinted(amr_track, 12 + 1 + 4 * 32, {{sample, 960}});
    const auto packets = hinted.packets();
    ASSERT_EQ(packets.size(), 2U);
    EXPECT_EQ(packets[0].payload.size(), 1U + 4 * 32);
    Bytes stored(static_cast<size_t>(hinted.hint->total_bytes));
    isoFFreadAt(hinted.hint, 0, 0, stored.data(), static_cast<unsigned>(stored.size()), nullptr,
                nullptr);
    const Bytes offset = join({words({16, 12}), text("rtpo"), be32(4 * 160)});
    EXPECT_THAT(std::string(stored.begin(), stored.end()),
                testing::HasSubstr(std::string(offset.begin(), offset.end())));
}

TEST(HintTrack, EmptySampleKeepsTheClockRunning) {
    const Bytes picture = {0, 0, 1, 0xB6, 1};
    const Hinted hinted(mpeg4_track, 1400, {{picture, 1000}, {{}, 1000}, {picture, 1000}});
    const auto packets = hinted.packets();
    ASSERT_EQ(packets.size(), 3U);
    EXPECT_TRUE(packets[1].payload.empty());
    EXPECT_EQ(packets[2].timestamp, 6000U);
    // Nor does a picture header that is not there end an H.263 track.
    const Bytes intra = {0, 0, 0x80, 0x02, 0x08, 1};
    const Hinted rfc2190(h263_track, 1400, {{intra, 1000}, {{}, 1000}, {intra, 1000}},
                         Mode::kQueued, ISO_H263_RFC2190);
    EXPECT_EQ(rfc2190.packets().size(), 3U);
}

TEST(HintTrack, WhatCannotBeCutIsReported) {
    const Bytes cut_frame = {0x3C, 1, 2};
    EXPECT_EQ(Hinted(amr_track, 1400, {{cut_frame, 160}}).written, -3);
    Bytes long_frame(61, 1);
    long_frame[0] = 0x44;  // wide band, 23.85 kbit/s: 60 bytes after the header
    EXPECT_EQ(Hinted(amr_wb_track, 74, {{long_frame, 320}}).closed, 0);
    EXPECT_EQ(Hinted(amr_wb_track, 73, {{long_frame, 320}}).written, -3);
}

// A sample that makes more packets than a hint sample can count is refused, whatever its size.
TEST(HintTrack, TooManyPacketsAreReported) {
    Bytes units;
    for (int i = 0; i < 65535; ++i)
        append_unit({0x61}, units);
    EXPECT_EQ(Hinted(h264_track, 1400, {{units, 512}}).closed, 0);
    append_unit({0x61}, units);
    EXPECT_EQ(Hinted(h264_track, 1400, {{units, 512}}).written, -3);
    EXPECT_EQ(Hinted(amr_track, 1400, {{Bytes(65536, 0x7C), 160}}).written, -3);
    // However long a unit is, no more packets are laid out than can be counted.
    const size_t most = 1 + 50 * 65535;  // in packets of 64 bytes, 14 of them headers
    for (const size_t size : {most, most + 1, 3 * most}) {
        Bytes unit;
        append_unit(Bytes(size, 0x61), unit);
        kestrel::HintPackets packets;
        EXPECT_EQ(kestrel::packets_of_units(unit, 4, 64, packets), size == most);
        EXPECT_EQ(packets.size(), 65535U);
    }
}

// The class API counts hint times in the units of the media track.
TEST(HintTrack, CountsInTheUnitsOfItsMedium) {
    const auto slow = [](iso_file* file) {
        iso_track* track = mpeg4_track(file);
        track->timescale = 1;
        return track;
    };
    const Bytes picture = {0, 0, 1, 0xB6, 1};
    const std::vector<Sample> samples = {{picture, 40000, 1}, {picture, 10000}};
    const Hinted hinted(slow, 1400, samples);
    EXPECT_EQ(hinted.hint->timescale, 1U);
    EXPECT_EQ(hinted.hint->duration, 50000U);
    EXPECT_EQ(hinted.hint->rtp_timescale, 90000U);
    const auto packets = hinted.packets();
    ASSERT_EQ(packets.size(), 2U);
    EXPECT_EQ(packets[1].timestamp, static_cast<uint32_t>(90000ULL * 40000));

    const auto shortest = [](iso_file* file) {
        file->interleave_limit = 1000.0;  // seconds that a track may last
        iso_track* track = mpeg4_track(file);
        track->own->duration_limit = UINT32_MAX;
        return track;
    };
    const Hinted too_long(shortest, 1400, {{picture, 30000000}, {picture, 1}});
    EXPECT_EQ(too_long.written, -7);
    EXPECT_EQ(too_long.after_end, -8);
    EXPECT_EQ(too_long.closed, 0);
    EXPECT_EQ(Hinted(mpeg4_track, 1400, {{picture, -1}}).written, -1);
    // A composition time that an RTP timestamp cannot be moved by.
    EXPECT_EQ(Hinted(slow, 1400, {{picture, 1, 30000}}).written, -7);
    // One that moves the first packet of a sample, but not its last.
    Bytes speech;
    for (int frame = 0; frame < 100; ++frame) {
        speech.push_back(0x3C);
        speech.insert(speech.end(), 31, 0x11);
    }
    EXPECT_EQ(Hinted(amr_track, 1400, {{speech, 1, INT32_MAX}}).written, -7);
}

// Bytes of payload and RTP header, and the bits of a second: the fullest, and all together
// (ISO/IEC 14496-12, 8.4.5.4).
TEST(HintTrack, HeaderDeclaresThePacketsAndTheirRates) {
    constexpr int kSecond = 30000;
    const auto picture = [](size_t size) { return Bytes(size - kRtpHeader, 1); };
    struct {
        std::vector<Sample> samples;
        uint32_t most, average, highest_rate, rate;
    } const cases[] = {
        {{}, 0, 0, 0, 0},
        {{{picture(100), kSecond}}, 100, 100, 800, 800},
        // What lies a second apart is not in the same second.
        {{{picture(100), kSecond}, {picture(300), kSecond}}, 300, 200, 2400, 1600},
        {{{picture(100), kSecond - 1}, {picture(300), kSecond + 1}}, 300, 200, 3200, 1600},
        {{{picture(100), kSecond / 2},
          {picture(200), kSecond / 2},
          {picture(60), 3 * kSecond},
          {picture(240), 2 * kSecond}},
         240,
         150,
         2400,
         800},
    };
    for (const auto& wanted : cases) {
        const Hinted hinted(mpeg4_track, 1400, wanted.samples);
        const std::string bytes(hinted.file_bytes.begin(), hinted.file_bytes.end());
        const size_t hmhd = bytes.find("hmhd");
        ASSERT_NE(hmhd, std::string::npos);
        const uint8_t* body = hinted.file_bytes.data() + hmhd + 4;
        EXPECT_EQ(kestrel::load_be16(body + 4), wanted.most);
        EXPECT_EQ(kestrel::load_be16(body + 6), wanted.average);
        EXPECT_EQ(kestrel::load_be32(body + 8), wanted.highest_rate);
        EXPECT_EQ(kestrel::load_be32(body + 12), wanted.rate);
    }
}

// The caller may give the sample entry; it then stands alone.
TEST(HintTrack, EntryOfTheCallerIsTheWholeEntry) {
    const Bytes entry = join({Bytes(7, 0), {1, 0, 3, 0, 2}, be32(777)});
    Output out;
    iso_track* track = isoFFtrack(out.file);
    track->codec = ISO_CODEC_RTP;
    track->own->entry = entry.data();
    track->own->entry_length = static_cast<uint32_t>(entry.size());
    EXPECT_EQ(out.close(), 0);
    Opened reread(out.written());
    EXPECT_EQ(reread.track()->rtp_hint_version, 3);
    EXPECT_EQ(reread.track()->rtp_max_packet, 777U);
    EXPECT_EQ(reread.track()->rtp_timescale, 0U);  // no `tims` was given
}

TEST(HintTrack, NeedsAMediumAndALimit) {
    Output out, other;
    iso_track* speech = amr_track(out.file);
    const auto refuse = [&](iso_file* file, iso_track* media, int most = 1400, int type = 96) {
        EXPECT_EQ(rtp_isoFFtrack(file, media, most, type, ISO_H263_RFC4629), nullptr);
    };
    refuse(out.file, nullptr);
    refuse(other.file, speech);
    refuse(out.file, isoFFtrack(out.file));
    // Nor is there anything to declare of these two.
    for (const int32_t codec : {ISO_CODEC_AVC1, ISO_CODEC_MP4V}) {
        iso_track* unconfigured = isoFFtrack(out.file);
        unconfigured->codec = codec;
        unconfigured->timescale = 1000;
        refuse(out.file, unconfigured);
    }
    refuse(out.file, speech, 63);
    refuse(out.file, speech, 65536);
    refuse(out.file, speech, 1400, 128);
    EXPECT_EQ(isoFFwriteHint(speech, "", 0, 1, 0), -1);
    EXPECT_EQ(isoFFwriteHint(nullptr, "", 0, 1, 0), -1);
    other.close();
    out.close();
}

}  // namespace
