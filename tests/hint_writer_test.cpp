// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include "common/bytes.h"
#include "interface/src/isoff/record/record.h"
#include "interface/src/isoff/write/hint_sample_planner.h"
#include "kestrel/codec.h"
#include "kestrel/hosts.h"
#include "tests/support/files.h"

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

using MakeTrack = iso_track* (*)(iso_file*);

iso_track* narrow_band(iso_file* file) {
    return amr_isoFFtrack(file, 0, 0x81FF, 10);
}
iso_track* wide_band(iso_file* file) {
    return amr_isoFFtrack(file, 1, 0x83FF, 10);
}
iso_track* h264(iso_file* file) {
    const uint8_t avcc[] = {1, 66, 0, 30, 0xFF, 0xE1, 0, 4, 0x67, 66, 0, 30, 1, 0, 2, 0x68, 9};
    return h264_isoFFtrack(file, avcc, sizeof avcc, 176, 144, 12800);
}
iso_track* mpeg4(iso_file* file) {
    const uint8_t config[] = {0, 0, 1, 0xB0, 8};
    return mpeg4_isoFFtrack(file, config, sizeof config, 176, 144, 30000);
}
iso_track* h263(iso_file* file) {
    H263VCFG cfg{};
    cfg.width = 176;
    cfg.height = 144;
    cfg.timescale = 29970;
    return h263_isoFFtrack(file, &cfg);
}

enum class Mode { kQueued, kSpooled, kDirect };

// A media track and its hint track, written and read back.
class Hinted {
  public:
    Hinted(MakeTrack make, int max_packet, const std::vector<Sample>& samples,
           Mode mode = Mode::kQueued, iso_h263_payload h263_payload = ISO_H263_RFC4629)
        : host_(kst_host_for_writing_memory()), callbacks_(kst_host_callbacks(host_)) {
        iso_file* out = isoFFopen(callbacks_, "w", nullptr);
        out->own->direct_write = mode == Mode::kDirect;
        iso_track* to = make(out);
        iso_track* to_hint = rtp_isoFFtrack(out, to, max_packet, 96, h263_payload);
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
        closed = isoFFclose(out);
        size_t size = 0;
        const auto* bytes = static_cast<const uint8_t*>(kst_host_written(host_, &size));
        file_bytes = Bytes(bytes, bytes + size);
        kst_host_rewind(host_);
        file_ = isoFFopen(callbacks_, "r", nullptr);
        media = isoFFselect(file_, nullptr, 1);
        hint = isoFFrtpHinter(media, max_packet);
    }
    Hinted(const Hinted&) = delete;
    Hinted& operator=(const Hinted&) = delete;
    ~Hinted() {
        isoFFclose(file_);
        kst_host_close(host_);
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
    kst_host* host_;
    KST_IOSTREAM_CALLBACK_INTERFACE* callbacks_;
    iso_file* file_;
};

using Random = std::mt19937;

int pick(Random& random, int from, int to) {
    return std::uniform_int_distribution<int>(from, to)(random);
}

Bytes random_bytes(Random& random, size_t size) {
    Bytes bytes(size);
    for (uint8_t& byte : bytes)
        byte = static_cast<uint8_t>(pick(random, 1, 255));
    return bytes;
}

// --- payloads back to the samples they were made from ---

// Bytes of speech after the header byte of a frame (3GPP TS 26.101 and 26.201).
size_t speech_bytes(int type, bool wide) {
    static constexpr size_t kNarrow[] = {12, 13, 15, 17, 19, 20, 26, 31, 5};
    static constexpr size_t kWide[] = {17, 23, 32, 36, 40, 46, 50, 58, 60, 5};
    if (wide) return type < 10 ? kWide[type] : 0;
    return type < 9 ? kNarrow[type] : 0;
}

Bytes speech_sample(Random& random, bool wide) {
    Bytes sample;
    for (int frames = pick(random, 1, 10); frames > 0; --frames) {
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

// Appends a unit to the sample when the packet ends one; `open` is its first part.
void take_unit(const Bytes& payload, Bytes& open, Bytes& to) {
    if ((payload.at(0) & 0x1F) != 28) {
        EXPECT_TRUE(open.empty());
        append_unit(payload, to);
        return;
    }
    const bool starts = (payload.at(1) & 0x80) != 0;
    EXPECT_EQ(starts, open.empty());
    if (starts) open = {static_cast<uint8_t>((payload[0] & 0x60) | (payload[1] & 0x1F))};
    open.insert(open.end(), payload.begin() + 2, payload.end());
    if ((payload[1] & 0x40) == 0) return;
    append_unit(open, to);
    open.clear();
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

struct Codec {
    const char* name;
    MakeTrack make;
    Bytes (*sample)(Random&);
    uint32_t clock;
};

const Codec kCodecs[] = {
    {"amr", narrow_band, [](Random& random) { return speech_sample(random, false); }, 8000},
    {"amr_wb", wide_band, [](Random& random) { return speech_sample(random, true); }, 16000},
    {"h264", h264, units_sample, 90000},
    {"mpeg4", mpeg4, picture_sample, 90000},
    {"h263", h263, picture_sample, 90000},
};

// The sample that the packets of one timestamp carry.
Bytes put_together(const Codec& codec, std::span<const Packet> packets) {
    Bytes sample;
    Bytes open;
    for (const Packet& packet : packets) {
        if (codec.make == narrow_band || codec.make == wide_band) {
            take_speech(packet.payload, codec.make == wide_band, sample);
        } else if (codec.make == h264) {
            take_unit(packet.payload, open, sample);
        } else {
            const bool h263_header = codec.make == h263;
            if (h263_header && packet.payload.at(0) == 4) sample.insert(sample.end(), {0, 0});
            sample.insert(sample.end(), packet.payload.begin() + (h263_header ? 2 : 0),
                          packet.payload.end());
        }
    }
    EXPECT_TRUE(open.empty());
    return sample;
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
    const Hinted hinted(h264, 1400, {{unit, 512}});
    const iso_track* hint = hinted.hint;
    EXPECT_STREQ(hint->handler, "hint");
    EXPECT_EQ(hint->hint_track_ref, hinted.media->track_id);
    EXPECT_EQ(hint->rtp_max_packet, 1400U);
    EXPECT_STREQ(hint->sdp_text,
                 "m=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\na=fmtp:96 "
                 "profile-level-id=42001E; packetization-mode=1; "
                 "sprop-parameter-sets=Z0IAHg==,aAk=\r\na=control:trackID=2\r\n");
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
    const Hinted hinted(narrow_band, 12 + 1 + 4 * 32, {{sample, 960}});
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
    const Hinted hinted(mpeg4, 1400, {{picture, 1000}, {{}, 1000}, {picture, 1000}});
    const auto packets = hinted.packets();
    ASSERT_EQ(packets.size(), 3U);
    EXPECT_TRUE(packets[1].payload.empty());
    EXPECT_EQ(packets[2].timestamp, 6000U);
    // Nor does a picture header that is not there end an H.263 track.
    const Bytes intra = {0, 0, 0x80, 0x02, 0x08, 1};
    const Hinted rfc2190(h263, 1400, {{intra, 1000}, {{}, 1000}, {intra, 1000}}, Mode::kQueued,
                         ISO_H263_RFC2190);
    EXPECT_EQ(rfc2190.packets().size(), 3U);
}

TEST(HintTrack, WhatCannotBeCutIsReported) {
    const Bytes cut_frame = {0x3C, 1, 2};
    EXPECT_EQ(Hinted(narrow_band, 1400, {{cut_frame, 160}}).written, -3);
    Bytes long_frame(61, 1);
    long_frame[0] = 0x44;  // wide band, 23.85 kbit/s: 60 bytes after the header
    EXPECT_EQ(Hinted(wide_band, 74, {{long_frame, 320}}).closed, 0);
    EXPECT_EQ(Hinted(wide_band, 73, {{long_frame, 320}}).written, -3);
}

// A sample that makes more packets than a hint sample can count is refused, whatever its size.
TEST(HintTrack, TooManyPacketsAreReported) {
    Bytes units;
    for (int i = 0; i < 65535; ++i)
        append_unit({0x61}, units);
    EXPECT_EQ(Hinted(h264, 1400, {{units, 512}}).closed, 0);
    append_unit({0x61}, units);
    EXPECT_EQ(Hinted(h264, 1400, {{units, 512}}).written, -3);
    EXPECT_EQ(Hinted(narrow_band, 1400, {{Bytes(65536, 0x7C), 160}}).written, -3);
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
        iso_track* track = mpeg4(file);
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
        iso_track* track = mpeg4(file);
        track->own->duration_limit = UINT32_MAX;
        return track;
    };
    const Hinted too_long(shortest, 1400, {{picture, 30000000}, {picture, 1}});
    EXPECT_EQ(too_long.written, -7);
    EXPECT_EQ(too_long.after_end, -8);
    EXPECT_EQ(too_long.closed, 0);
    EXPECT_EQ(Hinted(mpeg4, 1400, {{picture, -1}}).written, -1);
    // A composition time that an RTP timestamp cannot be moved by.
    EXPECT_EQ(Hinted(slow, 1400, {{picture, 1, 30000}}).written, -7);
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
        const Hinted hinted(mpeg4, 1400, wanted.samples);
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
    kst_host* host = kst_host_for_writing_memory();
    KST_IOSTREAM_CALLBACK_INTERFACE* callbacks = kst_host_callbacks(host);
    iso_file* file = isoFFopen(callbacks, "w", nullptr);
    iso_track* track = isoFFtrack(file);
    track->codec = ISO_CODEC_RTP;
    track->own->entry = entry.data();
    track->own->entry_length = static_cast<uint32_t>(entry.size());
    EXPECT_EQ(isoFFclose(file), 0);
    kst_host_rewind(host);
    file = isoFFopen(callbacks, "r", nullptr);
    EXPECT_EQ(file->first_track->rtp_hint_version, 3);
    EXPECT_EQ(file->first_track->rtp_max_packet, 777U);
    EXPECT_EQ(file->first_track->rtp_timescale, 0U);  // no `tims` was given
    isoFFclose(file);
    kst_host_close(host);
}

TEST(HintTrack, NeedsAMediumAndALimit) {
    kst_host* host = kst_host_for_writing_memory();
    KST_IOSTREAM_CALLBACK_INTERFACE* callbacks = kst_host_callbacks(host);
    iso_file* file = isoFFopen(callbacks, "w", nullptr);
    iso_file* other = isoFFopen(callbacks, "w", nullptr);
    iso_track* speech = narrow_band(file);
    iso_track* plain = isoFFtrack(file);
    EXPECT_EQ(rtp_isoFFtrack(file, nullptr, 1400, 96, ISO_H263_RFC4629), nullptr);
    EXPECT_EQ(rtp_isoFFtrack(other, speech, 1400, 96, ISO_H263_RFC4629), nullptr);
    EXPECT_EQ(rtp_isoFFtrack(file, plain, 1400, 96, ISO_H263_RFC4629), nullptr);
    // Nor is there anything to declare of these two.
    for (const int32_t codec : {ISO_CODEC_AVC1, ISO_CODEC_MP4V}) {
        iso_track* unconfigured = isoFFtrack(file);
        unconfigured->codec = codec;
        unconfigured->timescale = 1000;
        EXPECT_EQ(rtp_isoFFtrack(file, unconfigured, 1400, 96, ISO_H263_RFC4629), nullptr);
    }
    EXPECT_EQ(rtp_isoFFtrack(file, speech, 63, 96, ISO_H263_RFC4629), nullptr);
    EXPECT_EQ(rtp_isoFFtrack(file, speech, 65536, 96, ISO_H263_RFC4629), nullptr);
    EXPECT_EQ(rtp_isoFFtrack(file, speech, 1400, 128, ISO_H263_RFC4629), nullptr);
    EXPECT_EQ(isoFFwriteHint(speech, "", 0, 1, 0), -1);
    EXPECT_EQ(isoFFwriteHint(nullptr, "", 0, 1, 0), -1);
    isoFFclose(other);
    isoFFclose(file);
    kst_host_close(host);
}

}  // namespace
