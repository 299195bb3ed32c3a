// SPDX-License-Identifier: Apache-2.0
#include "kestrel/packer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstring>
#include <functional>
#include <numeric>
#include <string_view>

#include "companion/importer/movie.h"
#include "companion/packer/h264_pictures.h"
#include "companion/packer/spool.h"
#include "fuzz/support/support.h"
#include "kestrel/native_records.h"
#include "tests/support/allocation_watch.h"
#include "tests/support/md5.h"
#include "tests/support/native_packets.h"
#include "tests/support/playing.h"

// kst_packer: native streams of all samples and both APIs to files and back.

namespace {

using namespace kestrel;
using fuzz::without_dates;
using testing::HasSubstr;

struct Packed {
    int status = -1;
    kst_pack_report report = {};
    std::vector<kst_pack_stream> streams;
    Bytes file;
};

struct How {
    uint32_t flags = 0;
    size_t piece = SIZE_MAX;  // bytes fed at once
};

Packed pack(const std::vector<Bytes>& streams, const How& how = {}) {
    Packed packed;
    const kst_pack_options options = {sizeof options, how.flags};
    kst_packer* packer = kst_packer_open(&options);
    const MemoryHost host;
    for (uint32_t i = 0; i < streams.size(); ++i) {
        for (std::span<const uint8_t> rest(streams[i]); !rest.empty();) {
            const auto piece = rest.first(std::min(how.piece, rest.size()));
            kst_packer_feed(packer, i, piece.data(), piece.size());
            rest = rest.subspan(piece.size());
        }
    }
    packed.report.struct_size = sizeof packed.report;
    packed.status = kst_packer_write(packer, host.table(), &packed.report);
    for (uint32_t i = 0; i < streams.size(); ++i) {
        kst_pack_stream about = {};
        about.struct_size = sizeof about;
        kst_packer_describe(packer, i, &about);
        packed.streams.push_back(about);
    }
    kst_packer_close(packer);
    packed.file = host.written();
    return packed;
}

// The samples of a file's last track of a kind.
struct MediaSample {
    double decoded_ms, shown_ms;
    bool is_sync;
    std::string digest;
};

std::vector<MediaSample> samples_of(const Bytes& file, const char* mode,
                                    importer::Track* about = nullptr) {
    importer::Movie movie;
    EXPECT_TRUE(import_movie(*MemoryHost(file).table(), {}, movie).ok);
    std::vector<MediaSample> samples;
    const uint32_t handler = fourcc(mode[0] == 'a' ? "soun" : "vide");
    for (const importer::Track& track : movie.tracks) {
        if (track.handler != handler) continue;
        samples.clear();
        double units = 0;
        for (const importer::Sample& sample : track.samples) {
            const auto bytes =
                std::span(file).subspan(static_cast<size_t>(sample.offset), sample.size);
            const double scale = track.timescale / 1000.0;
            samples.push_back({units / scale, (units + sample.composition_offset) / scale,
                               sample.is_sync != 0, md5(bytes)});
            units += sample.duration;
        }
        if (about != nullptr) *about = track;
    }
    return samples;
}

Bytes stream_of(const std::string& file, const char* mode, Api api = Api::kFunction) {
    return play(read_sample(file + ".3gp"), mode, {.api = api}).stream;
}

// --- every sample file, both ways ---

struct Case {
    Medium medium;
    Api api;
};

void PrintTo(const Case& about, std::ostream* out) {
    *out << name_of(about.medium, about.api);
}

std::vector<Case> playable() {
    std::vector<Case> cases;
    for (const Medium& medium : sample_media()) {
        for (const Api api : {Api::kFunction, Api::kClass}) {
            const Bytes file = read_sample(medium.file);
            if (play(file, medium.mode, {.api = api}).opened) cases.push_back({medium, api});
        }
    }
    return cases;
}

class PackedSample : public testing::TestWithParam<Case> {
  protected:
    const char* mode() const { return GetParam().medium.mode; }
    Bytes original() const { return read_sample(GetParam().medium.file); }
    Bytes stream_of(const Bytes& file) const {
        return play(file, mode(), {.api = GetParam().api}).stream;
    }
    bool is(const char* name) const { return GetParam().medium.file.starts_with(name); }
};

INSTANTIATE_TEST_SUITE_P(Packer, PackedSample, testing::ValuesIn(playable()),
                         [](const auto& about) {
                             return name_of(about.param.medium, about.param.api);
                         });

TEST_P(PackedSample, HasTheSamplesOfTheOriginal) {
    const Packed packed = pack({stream_of(original())});
    ASSERT_EQ(packed.status, KST_PACK_DONE) << packed.report.error;
    std::vector<MediaSample> expected = samples_of(original(), mode());
    const std::vector<MediaSample> samples = samples_of(packed.file, mode());
    // The hint track of this file, which the class API plays, ends before its media do.
    const bool is_cut = is("amrnb_hinted_1450") && GetParam().api == Api::kClass;
    if (is_cut) expected.resize(280);
    ASSERT_EQ(samples.size(), expected.size());
    const bool has_sync_table = !is("h263plus");
    for (size_t i = 0; i < samples.size(); ++i) {
        EXPECT_EQ(samples[i].digest, expected[i].digest) << i;
        EXPECT_EQ(!has_sync_table || samples[i].is_sync, expected[i].is_sync) << i;
        EXPECT_NEAR(samples[i].decoded_ms, expected[i].decoded_ms, 0.5) << i;
        EXPECT_NEAR(samples[i].shown_ms, expected[i].shown_ms, 0.5) << i;
    }
}

TEST_P(PackedSample, PlaysTheSamePayloads) {
    const Bytes stream = stream_of(original());
    const Packed packed = pack({stream}, {KST_PACK_HINT});
    ASSERT_EQ(packed.status, KST_PACK_DONE) << packed.report.error;
    EXPECT_EQ(packed.report.hint_tracks, 1u);
    const NativeContents before(stream);
    const NativeContents after(stream_of(packed.file));
    EXPECT_EQ(after.media, before.media);
    EXPECT_EQ(after.payloads, before.payloads);
}

TEST_P(PackedSample, IsTheSameInPiecesOfAnySize) {
    const Bytes stream = stream_of(original());
    const Bytes whole = without_dates(pack({stream}, {KST_PACK_HINT}).file);
    for (const size_t piece : {size_t{1}, size_t{97}, size_t{5000}})
        EXPECT_EQ(without_dates(pack({stream}, {KST_PACK_HINT, piece}).file), whole) << piece;
}

TEST_P(PackedSample, KeepsWhatIsWholeOfACutStream) {
    const Bytes stream = stream_of(original());
    const std::vector<MediaSample> all = samples_of(pack({stream}).file, mode());
    size_t most = 0;
    for (size_t parts = 1; parts < 8; ++parts) {
        const Bytes cut(stream.begin(),
                        stream.begin() + static_cast<long>(stream.size() * parts / 8) + 1);
        const Packed packed = pack({cut});
        if (packed.status == KST_PACK_REFUSED) continue;  // no whole frame
        ASSERT_EQ(packed.status, KST_PACK_CUT);
        EXPECT_THAT(packed.streams[0].damage,
                    testing::AnyOf(HasSubstr("ends inside"), HasSubstr("header records declare")));
        const std::vector<MediaSample> samples = samples_of(packed.file, mode());
        ASSERT_LT(samples.size(), all.size());
        EXPECT_GE(samples.size(), most);
        most = samples.size();
        for (size_t i = 0; i < samples.size(); ++i) {
            EXPECT_EQ(samples[i].digest, all[i].digest);
            EXPECT_NEAR(samples[i].decoded_ms, all[i].decoded_ms, 0.5);
        }
    }
    EXPECT_GT(most, all.size() / 2);
}

// --- times ---

// Calls `change` with the header of each packet of a video stream, and its payload.
template <typename Change>
Bytes with_packets_changed(Bytes stream, Change change) {
    uint32_t at = 0;
    std::memcpy(&at, &stream[8], sizeof at);  // length of the header records
    while (at < stream.size()) {
        VID_Frame_Record frame;
        std::memcpy(&frame, &stream[at], sizeof frame);
        uint32_t packet_at = at + sizeof frame + sizeof(VID_Frame_Words);
        for (uint32_t i = 0; i < frame.packet_count; ++i) {
            TEL_Packet_Header packet;
            std::memcpy(&packet, &stream[packet_at], sizeof packet);
            change(packet, &stream[packet_at + sizeof packet]);
            std::memcpy(&stream[packet_at], &packet, sizeof packet);
            packet_at += packet.packet_length;
        }
        at += frame.total_length;
    }
    return stream;
}

// Leaves the packets of a video stream out for which `is_left_out(at)` is true; they are at `at`.
template <typename Predicate>
Bytes with_packets_left_out(const Bytes& stream, Predicate is_left_out) {
    constexpr uint32_t kFront = sizeof(VID_Frame_Record) + sizeof(VID_Frame_Words);
    const auto word = [&](size_t at) {
        uint32_t value = 0;
        std::memcpy(&value, &stream[at], sizeof value);
        return value;
    };
    const auto part = [&](size_t at, size_t size) {
        return Bytes(&stream[at], &stream[at] + size);
    };
    size_t at = word(8);  // length of the header records
    Bytes left = part(0, at);
    for (; at < stream.size(); at += word(at)) {
        Bytes packets;
        uint32_t count = 0;
        size_t packet = at + kFront;
        for (uint32_t i = 0; i < word(at + 4); ++i, packet += word(packet)) {
            if (is_left_out(packet)) continue;
            packets = join({packets, part(packet, word(packet))});
            ++count;
        }
        const uint32_t length = kFront + static_cast<uint32_t>(packets.size());
        left = join({left, le32(length), le32(count), le32(0), part(at + 12, 8), packets});
    }
    return left;
}

Bytes with_times_moved(const Bytes& stream, uint32_t ticks) {
    return with_packets_changed(stream, [ticks](TEL_Packet_Header& packet, uint8_t*) {
        packet.time += ticks;
        packet.time_again += ticks;
    });
}

TEST(PackedTimes, WrapAt32Bits) {
    const Bytes stream = stream_of("h263_hinted", "vr");
    EXPECT_EQ(without_dates(pack({with_times_moved(stream, -100000U)}).file),
              without_dates(pack({stream}).file));
}

TEST(PackedTimes, OfTwoMediaBeginWhereTheClassApiDeclares) {
    const Bytes audio = stream_of("av_h263_amrnb_hinted", "ar", Api::kClass);
    Bytes video = stream_of("av_h263_amrnb_hinted", "vr", Api::kClass);
    for (const auto& [video_start, audio_start] : {std::pair{9000U, 0U}, {0U, 800U}, {0U, 0U}}) {
        const VID_Header_NTSInfo starts = {video_start, audio_start};
        std::memcpy(&video[sizeof(PROP_Header_Info)], &starts, sizeof starts);
        const Packed packed = pack({video, audio}, {KST_PACK_HINT});
        ASSERT_EQ(packed.status, KST_PACK_DONE);
        EXPECT_EQ(packed.report.tracks, 2u);
        importer::Track video_track;
        importer::Track audio_track;
        EXPECT_EQ(samples_of(packed.file, "vr", &video_track).size(), 30u);
        EXPECT_EQ(samples_of(packed.file, "ar", &audio_track).size(), 101u);
        const auto late = [](const importer::Track& track) {
            return track.edits.empty() || track.edits[0].media_time >= 0 ? 0U
                                                                         : track.edits[0].duration;
        };
        EXPECT_EQ(late(video_track), video_start / 90);
        EXPECT_EQ(late(audio_track), audio_start / 8);
        const auto again = play(packed.file, "vr", {.api = Api::kClass}).stream;
        EXPECT_EQ(std::memcmp(&again[sizeof(PROP_Header_Info)], &starts, sizeof starts), 0);
        // Chunks of at most a second take turns.
        EXPECT_LT(audio_track.samples.front().offset, video_track.samples.back().offset);
        EXPECT_LT(video_track.samples.front().offset, audio_track.samples.back().offset);
    }
}

// The last fragment of each NAL unit has one where the library cuts samples.
TEST(PackedStream, HasAPictureForEachFrameWhereverMarkersAre) {
    const Bytes stream = stream_of("h264_slices_b_hinted", "vr");
    const Bytes marked = with_packets_changed(
        stream, [](TEL_Packet_Header& packet, uint8_t*) { packet.rtp_word |= 1U << 23; });
    for (const uint32_t flags : {0U, uint32_t{KST_PACK_HINT}})
        EXPECT_EQ(without_dates(pack({marked}, {flags}).file),
                  without_dates(pack({stream}, {flags}).file));
}

// --- payloads of RFC 3640 ---

// The AU headers have a DTS-flag, and a DTS-delta of 15 bits.
TEST(PackedAuHeaders, AreKeptIfTheyHaveTheDelayFromDecodingToDisplay) {
    struct {
        int of_packet;  // whose headers are changed
        uint8_t byte, bits;
        bool are_kept;
    } const changes[] = {
        {3, 0, 0, true},      {3, 1, 0x01, false},  // another length
        {3, 2, 0x80, false},                        // no DTS-flag
        {3, 2, 0x01, false},   // another time than that of the picture's other packets
        {-1, 2, 0x01, false},  // a field of another meaning
        {-1, 3, 0x01, true},   // less than a millisecond
        {75, 1, 0xFF, false},  // longer than the packet
    };
    const Bytes stream = stream_of("mpeg4_b_hinted", "vr");
    const NativeContents before(stream);
    for (const auto& change : changes) {
        int number = 0;
        const Bytes changed = with_packets_changed(stream, [&](auto&, uint8_t* payload) {
            if (change.of_packet == -1 || change.of_packet == number)
                payload[change.byte] ^= change.bits;
            ++number;
        });
        const Packed packed = pack({changed}, {KST_PACK_HINT});
        const std::string text(packed.file.begin(), packed.file.end());
        EXPECT_EQ(text.find("mode=generic; DTSDeltaLength=15\r\n") != text.npos, change.are_kept);
        EXPECT_EQ(text.find("MP4V-ES") != text.npos, !change.are_kept);
        const NativeContents after(play(packed.file, "vr").stream);
        ASSERT_EQ(after.payloads.size(), before.payloads.size());
        const size_t headers = change.are_kept ? 0 : 4;
        EXPECT_EQ(after.payloads[5].size(), before.payloads[5].size() - headers);
    }
}

// --- what streams lack ---

TEST(PackedStream, ReportsWhatIsMissingOrMalformed) {
    const Bytes stream = stream_of("h263_hinted", "vr");
    const size_t first_packet = 92 + sizeof(VID_Frame_Record) + sizeof(VID_Frame_Words);
    Bytes gap = stream;
    const uint8_t three_before[] = {0xFE, 0xFF};  // of number 2, which follows
    std::copy_n(three_before, 2, &gap[first_packet + offsetof(TEL_Packet_Header, rtp_word)]);
    Packed packed = pack({gap});
    EXPECT_EQ(packed.status, KST_PACK_CUT);
    EXPECT_EQ(packed.streams[0].packets_missing, 3u);
    EXPECT_EQ(packed.streams[0].samples, 30u);

    const Bytes speech = stream_of("amrnb_plain", "ar");
    constexpr size_t kHeaders = 68, kFrame = 57;
    Bytes holed(speech.begin(), speech.begin() + kHeaders + 10 * kFrame);
    holed.insert(holed.end(), speech.begin() + kHeaders + 15 * kFrame, speech.end());
    packed = pack({holed});
    EXPECT_EQ(packed.status, KST_PACK_CUT);
    EXPECT_EQ(packed.streams[0].packets_missing, 5u);

    // Of the class API, a frame with the five speech frames of a packet.
    Bytes packets = stream_of("amrnb_hinted_multi", "ar", Api::kClass);
    uint32_t of_packet = 0;
    std::memcpy(&of_packet, &packets[kHeaders], sizeof of_packet);
    const auto second = packets.begin() + static_cast<long>(kHeaders + of_packet);
    packets.erase(second, second + of_packet);
    packed = pack({packets});
    EXPECT_EQ(packed.status, KST_PACK_CUT);
    EXPECT_EQ(packed.streams[0].packets_missing, 1u);

    // The last packet of the last picture has no number after it.
    const Bytes small = stream_of("h263_hinted_mtu500", "vr");
    size_t last = 0;
    with_packets_left_out(small, [&](size_t at) { return (last = at) == 0; });
    packed = pack({with_packets_left_out(small, [&](size_t at) { return at == last; })});
    EXPECT_EQ(packed.status, KST_PACK_CUT);
    EXPECT_THAT(packed.streams[0].damage, HasSubstr("bytes of pictures"));

    Bytes unnamed = stream;
    std::copy_n("\x1b[2J", 4, &unnamed[40]);  // the codec
    EXPECT_THAT(pack({unnamed}).streams[0].damage, HasSubstr("names no codec: ?[2J"));

    const std::vector<Bytes> none = {Bytes(stream.begin(), stream.begin() + 92), Bytes(500, 'x')};
    for (const Bytes& bytes : none) {
        packed = pack({bytes});
        EXPECT_EQ(packed.status, KST_PACK_REFUSED);
        EXPECT_EQ(packed.report.stream, 0);
        EXPECT_STRNE(packed.report.error, "");
        EXPECT_TRUE(packed.file.empty());
    }
}

TEST(PackedStream, IsLeftOutFromDamageOn) {
    constexpr size_t kFrame = 68 + 100 * 57;
    const struct {
        size_t at;
        uint8_t value;
        const char* damage;
    } kCases[] = {{kFrame + 4, 99, "another coder: 99"}, {kFrame + 3, 99, "no frame has a length"}};
    for (const auto& [at, value, damage] : kCases) {
        Bytes stream = stream_of("amrnb_plain", "ar");
        stream[at] = value;
        for (const size_t piece : {SIZE_MAX, size_t{1}}) {
            const Packed packed = pack({stream}, {.piece = piece});
            EXPECT_EQ(packed.status, KST_PACK_CUT);
            EXPECT_EQ(packed.streams[0].damage_offset, kFrame);
            EXPECT_THAT(packed.streams[0].damage, HasSubstr(damage));
            EXPECT_EQ(packed.streams[0].medium, KST_PACK_AUDIO);
            EXPECT_EQ(packed.report.samples, 100u);
        }
    }
}

// Those of the header records are no part of a sample.
TEST(PackedStream, HintsAPictureOfParameterSetsAlone) {
    const Bytes stream = stream_of("h264_hinted", "vr");
    const Bytes sets = with_packets_left_out(stream, [&](size_t at) {
        TEL_Packet_Header packet;
        std::memcpy(&packet, &stream[at], sizeof packet);
        const uint8_t type = stream[at + sizeof packet] & 0x1F;
        return packet.time == 0 && type != 7 && type != 8;
    });
    const Packed packed = pack({sets}, {KST_PACK_HINT});
    EXPECT_EQ(packed.status, KST_PACK_CUT) << packed.report.error;  // packets are missing
    EXPECT_EQ(packed.report.samples, 30u);
    EXPECT_EQ(packed.report.hint_tracks, 1u);
}

TEST(Packer, RefusesArgumentsThatItCannotServe) {
    kst_pack_options options = {sizeof options, 2};
    EXPECT_EQ(kst_packer_open(&options), nullptr);
    options = {1, 0};
    EXPECT_EQ(kst_packer_open(&options), nullptr);
    kst_packer* packer = kst_packer_open(nullptr);
    uint8_t byte = 0;
    EXPECT_EQ(kst_packer_feed(nullptr, 0, &byte, 1), KST_PACK_BAD_ARGUMENT);
    EXPECT_EQ(kst_packer_feed(packer, KST_PACK_MOST_STREAMS, &byte, 1), KST_PACK_BAD_ARGUMENT);
    EXPECT_EQ(kst_packer_feed(packer, 0, nullptr, 1), KST_PACK_BAD_ARGUMENT);
    EXPECT_EQ(kst_packer_write(packer, nullptr, nullptr), KST_PACK_BAD_ARGUMENT);
    const MemoryHost host;
    EXPECT_EQ(kst_packer_write(packer, host.table(), nullptr), KST_PACK_REFUSED);
    EXPECT_EQ(kst_packer_feed(packer, 0, &byte, 1), KST_PACK_BAD_ARGUMENT);
    kst_packer_close(packer);
    kst_packer_close(nullptr);
}

TEST(Spool, ReadsWhatItTookFromMemoryAndFromAFile) {
    for (const uint64_t most : {uint64_t{0}, uint64_t{100}, uint64_t{1} << 20}) {
        packer::Spool spool(most);
        Bytes all;
        for (uint32_t size = 0; size < 200; ++size) {
            const Bytes piece(size, static_cast<uint8_t>(size));
            ASSERT_TRUE(spool.append(piece));
            all.insert(all.end(), piece.begin(), piece.end());
            Bytes read(all.size() / 3);
            ASSERT_TRUE(spool.read(all.size() / 2, read));
            EXPECT_TRUE(std::equal(read.begin(), read.end(),
                                   all.begin() + static_cast<long>(all.size() / 2)));
        }
        Bytes too_many(1);
        EXPECT_FALSE(spool.read(all.size(), too_many));
    }
}

// --- the order of display ---

// Bits of H.264, most significant first.
class Bits {
  public:
    Bits& u(unsigned count, uint32_t value) {
        while (count-- > 0)
            bits_.push_back((value >> count & 1) != 0);
        return *this;
    }
    Bits& ue(uint32_t value) {
        const auto width = static_cast<unsigned>(std::bit_width(value + 1));
        return u(width - 1, 0).u(width, value + 1);
    }
    Bits& se(int32_t value) {
        return ue(value > 0 ? static_cast<uint32_t>(2 * value - 1)
                            : static_cast<uint32_t>(-2 * value));
    }
    // A unit with its length.
    Bytes unit(uint8_t header) {
        u(1, 1);
        while (bits_.size() % 8 != 0)
            bits_.push_back(false);
        Bytes out = {0, 0, 0, static_cast<uint8_t>(1 + bits_.size() / 8), header};
        for (size_t i = 0; i < bits_.size(); i += 8) {
            uint8_t byte = 0;
            for (size_t bit = 0; bit < 8; ++bit)
                byte = static_cast<uint8_t>(byte << 1 | (bits_[i + bit] ? 1 : 0));
            out.push_back(byte);
        }
        return out;
    }

  private:
    std::vector<bool> bits_;
};

struct OrderCase {
    const char* name;
    Bytes sequence_set;
    // Of each picture: frame number, what its order type adds, and whether others refer to it.
    struct Coded {
        uint32_t frame_number;
        std::function<void(Bits&)> order;
        bool is_reference;
    };
    std::vector<Coded> coded;
    std::vector<size_t> shown;  // in which order
};

Bits sequence_set(uint32_t order_type) {
    Bits bits;
    bits.u(8, 66).u(16, 0).ue(0).ue(0).ue(order_type);  // baseline; frame numbers of four bits
    return bits;
}

Bytes end_of_set(Bits bits) {
    return bits.ue(1).u(1, 0).ue(10).ue(8).u(1, 1).u(1, 1).u(1, 0).u(1, 0).unit(0x67);
}

// A set may have a cycle of 255 offsets; what has more of them is no set, and not read to its end.
TEST(H264Pictures, ReadNoMoreOffsetsThanACycleHas) {
    for (const uint32_t offsets : {255u, 256u, 1u << 20}) {
        Bits bits = sequence_set(1).u(1, 0).se(0).se(0).ue(offsets);
        for (uint32_t i = 0; i < offsets; ++i)
            bits.se(0);
        const Bytes unit = end_of_set(bits);
        const AllocationWatch watch;
        uint32_t id = 0;
        EXPECT_EQ(packer::read_h264_sequence(std::span(unit).subspan(4), id).has_value(),
                  offsets == 255);
        EXPECT_LE(watch.peak(), 4096 + 4 * unit.size());
    }
}

// ITU-T H.264, 8.2.1: the three ways in which the order is declared.
TEST(H264Pictures, AreShownInTheDeclaredOrder) {
    const auto low = [](uint32_t value) { return [=](Bits& bits) { bits.u(4, value); }; };
    const auto change = [](int32_t value) { return [=](Bits& bits) { bits.se(value); }; };
    const auto nothing = [](Bits&) {};
    const OrderCase cases[] = {
        // Four low bits, which wrap at 16.
        {"type 0",
         end_of_set(sequence_set(0).ue(0)),
         {{0, low(0), true},
          {1, low(8), true},
          {2, low(4), false},
          {2, low(0), true},
          {3, low(12), false},
          {3, low(8), true}},
         {0, 2, 1, 4, 3, 5}},
        // Each reference picture is two on; what none refers to is one before where it would be.
        {"type 1",
         end_of_set(sequence_set(1).u(1, 0).se(-3).se(0).ue(1).se(4)),
         {{0, change(0), true},
          {1, change(0), true},
          {2, change(0), false},
          {2, change(6), true},
          {3, change(0), true}},
         {0, 2, 1, 4, 3}},
        {"type 2",
         end_of_set(sequence_set(2)),
         {{0, nothing, true}, {1, nothing, true}, {2, nothing, false}, {2, nothing, true}},
         {0, 1, 2, 3}},
    };
    for (const OrderCase& about : cases) {
        SCOPED_TRACE(about.name);
        packer::H264Pictures pictures;
        std::vector<uint64_t> keys;
        for (const OrderCase::Coded& coded : about.coded) {
            const bool is_first = keys.empty();
            Bytes sample;
            if (is_first) {
                const Bytes picture_set = Bits().ue(0).ue(0).u(2, 0).unit(0x68);
                sample = join({about.sequence_set, picture_set});
            }
            Bits slice;
            slice.ue(0).ue(7).ue(0).u(4, coded.frame_number);
            if (is_first) slice.ue(0);  // idr_pic_id
            coded.order(slice);
            const uint8_t header =
                static_cast<uint8_t>((coded.is_reference ? 0x60 : 0) | (is_first ? 5 : 1));
            sample = join({sample, slice.unit(header)});
            const packer::Picture picture = pictures.look(sample);
            EXPECT_EQ(picture.is_sync, is_first);
            keys.push_back(picture.display_key);
        }
        std::vector<size_t> shown(keys.size());
        std::iota(shown.begin(), shown.end(), 0);
        std::stable_sort(shown.begin(), shown.end(),
                         [&](size_t a, size_t b) { return keys[a] < keys[b]; });
        EXPECT_EQ(shown, about.shown);
    }
}

}  // namespace
