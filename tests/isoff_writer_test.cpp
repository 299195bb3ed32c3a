// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <climits>
#include <iomanip>
#include <random>
#include <sstream>

#include "common/bytes.h"
#include "interface/src/isoff/write/boxes.h"
#include "interface/src/isoff/write/writer.h"
#include "kestrel/codec.h"
#include "tests/support/opened.h"
#include "tests/support/writing.h"

// The ISO writer: what it writes is read back by the reader.

namespace {

using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

// From now on the host cannot leave its place.
void forbid_seeking(FaultyHost& host) {
    static KST_IOSTREAM_CALLBACK_INTERFACE* io;
    io = host.callbacks();
    io->Seek = [](void* context, uint32_t to) {
        uint32_t at = 0;
        io->GetOffset(context, &at);
        return uint32_t{to == at ? KST_HOST_OK : KST_HOST_FAILED};
    };
}

char* text_in_arena(iso_file* file, const std::string& characters) {
    return copy_to_arena(
        file, std::vector<char>(characters.c_str(), characters.c_str() + characters.size() + 1));
}

// --- tracks at random ---

struct Sample {
    Bytes bytes;
    int duration;
    int cts_offset;
};

Bytes random_bytes(Random& random, int size) {
    Bytes bytes(static_cast<size_t>(size));
    for (uint8_t& byte : bytes)
        byte = static_cast<uint8_t>(pick(random, 0, 255));
    return bytes;
}

std::vector<Sample> random_samples(Random& random) {
    std::vector<Sample> samples;
    const bool same_size = pick(random, 0, 2) == 0;
    const int offsets = pick(random, 0, 2);  // none, positive ones, of either sign
    const int size = pick(random, 0, 40);
    const int shortest = pick(random, 0, 1);
    int duration = pick(random, shortest, 3000);
    for (int left = pick(random, 0, 120); left > 0; --left) {
        if (pick(random, 0, 3) == 0) duration = pick(random, shortest, shortest * 2999 + 1);
        const int offset = offsets == 0 ? 0 : pick(random, offsets == 1 ? 0 : -2, 2) * 100;
        const int bytes = same_size ? size : pick(random, 0, 300);
        samples.push_back({random_bytes(random, bytes), duration, offset});
    }
    return samples;
}

constexpr iso_track* (*kMakers[])(iso_file*) = {amr_track, amr_wb_track, h263_track, mpeg4_track,
                                                h264_track};

enum class Mode { kQueued, kSpooled, kDirect };

struct Written {
    iso_track* track;
    std::vector<Sample> samples;
};

// Writes tracks at random, with their samples in turns.
std::vector<Written> write_file(Output& out, Random& random, Mode mode) {
    iso_file* file = out.file;
    file->own->direct_write = mode == Mode::kDirect;
    std::vector<Written> tracks;
    for (int i = pick(random, 0, 3); i >= 0; --i) {
        std::vector<Sample> samples = random_samples(random);
        iso_track* track = kMakers[pick(random, 0, 4)](file);
        if (mode == Mode::kSpooled) track->own->spool = std::tmpfile();
        tracks.push_back({track, std::move(samples)});
    }
    for (size_t i = 0, written = 1; written > 0; ++i) {
        written = 0;
        for (Written& to : tracks) {
            if (i >= to.samples.size()) continue;
            Sample& sample = to.samples[i];
            to.track->own->frame_default = 0;  // a duration of 0 is one
            isoFFwrite(to.track, sample.bytes.data(), static_cast<int>(sample.bytes.size()),
                       sample.duration, sample.cts_offset);
            ++written;
        }
    }
    EXPECT_EQ(out.close(), 0);
    return tracks;
}

void expect_samples(iso_track* track, const std::vector<Sample>& samples) {
    ASSERT_EQ(track->sample_count, static_cast<int>(samples.size()));
    Bytes buffer(1000);
    for (const Sample& sample : samples) {
        double duration = 0;
        double offset = 0;
        const int got = isoFFread(track, buffer.data(), 1000, &duration, &offset);
        ASSERT_EQ(got, static_cast<int>(sample.bytes.size()));
        ASSERT_TRUE(std::equal(sample.bytes.begin(), sample.bytes.end(), buffer.begin()));
        ASSERT_DOUBLE_EQ(duration * track->timescale, sample.duration);
        ASSERT_DOUBLE_EQ(offset * track->timescale, sample.cts_offset);
    }
}

class RandomFiles : public testing::TestWithParam<Mode> {};

TEST_P(RandomFiles, ComeBackEqual) {
    for (unsigned round = 1; round <= 60; ++round) {
        SCOPED_TRACE(round);
        Random random(round);
        Output out;
        CaptureStderr();
        const std::vector<Written> tracks = write_file(out, random, GetParam());
        EXPECT_EQ(GetCapturedStderr(), "");
        Opened reread(out.written());
        EXPECT_EQ(reread.printed, "");
        EXPECT_EQ(reread.file->own->lost_tracks, 0u);
        iso_track* track = reread.file->first_track;
        for (const Written& from : tracks) {
            ASSERT_NE(track, nullptr);
            expect_samples(track, from.samples);
            track = track->next;
        }
        EXPECT_EQ(track, nullptr);
    }
}

INSTANTIATE_TEST_SUITE_P(Modes, RandomFiles,
                         testing::Values(Mode::kQueued, Mode::kSpooled, Mode::kDirect));

// --- every byte ---

// A line for each box without children: where it is, and its bytes.
void list_boxes(std::span<const uint8_t> bytes, const std::string& path,
                std::vector<std::string>& lines) {
    const std::string containers = "moov trak mdia minf stbl dinf udta hnti tref edts";
    while (bytes.size() >= 8) {
        const auto box = bytes.first(kestrel::load_be32(bytes.data()));
        bytes = bytes.subspan(box.size());
        const std::string type(box.begin() + 4, box.begin() + 8);
        if (containers.find(type) != std::string::npos) {
            list_boxes(box.subspan(8), path + type + '/', lines);
            continue;
        }
        std::ostringstream line;
        line << path << type << std::hex << std::setfill('0');
        for (const uint8_t byte : box.subspan(8))
            line << ' ' << std::setw(2) << int{byte};
        lines.push_back(line.str());
    }
}

// What a file of all codecs and values has been like.
TEST(Writer, BoxesAreThoseRecorded) {
    Output out;
    out.file->creation_time = out.file->modification_time = 5;
    out.file->sdp_text = text_in_arena(out.file, "v=0\r\n");
    int delta = 100;
    for (const auto make : kMakers) {
        iso_track* media = make(out.file);
        media->max_bitrate = 64000, media->avg_bitrate = 48000, media->buffer_size = 0x10203;
        iso_track* hint = hint_track(media);
        hint->has_ts_offset = hint->has_seq_offset = make == amr_track;
        hint->rtp_ts_offset = 77, hint->rtp_seq_offset = 88;
        for (int i = 1; i < 4; ++i) {
            write(media, 10 * i, delta += 37 * i);
            if (make != mpeg4_track) continue;
            EXPECT_GT(isoFFwriteHint(hint, Bytes(2001).data(), 1000 * i - 999, delta, 0), 0);
        }
    }
    iso_track* speech = out.file->first_track;
    speech->own->edits = copy_to_arena<iso_elst_entry>(out.file, {{300, -1, 0x10000}});
    speech->own->edit_count = 1;
    speech->sync_samples = copy_to_arena<uint32_t>(out.file, {1, 3});
    speech->sync_count = 2;
    speech->own->header_flags = 5;
    speech->layer = 6, speech->alternate_group = 7, speech->volume = 0x80;
    speech->own->display_width = 8, speech->own->display_height = 9, speech->matrix[1] = 10;
    speech->own->language = 11, speech->channel_count = 1, speech->sample_bits = 8;
    speech->sbgp_list = copy_to_arena<iso_sbgp_entry>(out.file, {{3, 1, nullptr}});
    auto* records = copy_to_arena<iso_sgpd_record>(out.file, {{{1, 2, 3, 4, 5}}});
    speech->sgpd_list = copy_to_arena<iso_sgpd_entry>(out.file, {{1, records, nullptr}});
    speech->sbgp_count = speech->sgpd_count = 1;
    std::copy_n("avcb", 5, speech->sgpd_type);
    ASSERT_EQ(out.close(), 0);
    std::vector<std::string> lines;
    list_boxes(out.written(), "", lines);
    EXPECT_EQ(lines, golden_lines("written_boxes.txt", lines));
}

// --- where things stand in the file ---

std::vector<std::string> top_level_boxes(const Bytes& bytes) {
    std::vector<std::string> types;
    for (size_t at = 0; at + 8 <= bytes.size(); at += kestrel::load_be32(&bytes[at]))
        types.emplace_back(&bytes[at + 4], &bytes[at + 8]);
    return types;
}

TEST(Writer, TracksTakeTurnsNoLongerThanTheSpan) {
    for (const double span : {0.0, 0.25, 1.0, 100.0}) {
        Output out;
        out.file->interleave_span = span;
        iso_track* tracks[] = {amr_track(out.file), amr_track(out.file)};
        for (iso_track* track : tracks)
            for (int i = 0; i < 200; ++i)
                write(track, 13);
        ASSERT_EQ(out.close(), 0);
        Opened reread(out.written());
        // No run is longer than the span, or than one sample where that is longer.
        const double longest = isoFFgetInterleave(reread.file);
        EXPECT_LE(longest, std::max(span, 0.02) + 1e-9);
        EXPECT_GE(longest, std::min(std::max(span, 0.02), 4.0) - 0.02 - 1e-9);
    }
}

// Of tracks that are equally far on the first comes first, however many there are.
TEST(Writer, ManyTracksStandInTheOrderOfTheirTimes) {
    constexpr int kTracks = 8000, kSamples = 10;
    Output out;
    out.file->interleave_span = 0.0;
    std::vector<iso_track*> tracks(kTracks);
    for (iso_track*& track : tracks)
        track = amr_track(out.file);
    for (int sample = 0; sample < kSamples; ++sample) {
        for (iso_track* track : tracks)
            ASSERT_EQ(isoFFwrite(track, nullptr, 0, 160, 0), 0);
    }
    for (iso_track* track : tracks)
        ASSERT_EQ(write(track), 1);
    ASSERT_EQ(out.close(), 0);
    Opened reread(out.written());
    uint32_t next = static_cast<uint32_t>(out.written().size()) - kTracks;
    for (iso_track* track = reread.file->first_track; track != nullptr; track = track->next) {
        ASSERT_EQ(track->chunk_count, kSamples + 1);
        ASSERT_EQ(track->chunks[kSamples].start, next++);
    }
    EXPECT_EQ(next, out.written().size());
}

// A track whose clock does not run is laid out as if it ran once a second.
TEST(Writer, TrackWithoutATimescaleIsWritten) {
    Output out;
    iso_track* tracks[] = {isoFFtrack(out.file), amr_track(out.file)};
    tracks[0]->codec = ISO_CODEC_SAMR;
    for (int i = 0; i < 3; ++i) {
        for (iso_track* track : tracks)
            EXPECT_EQ(write(track, 1, 8000), 1);
    }
    EXPECT_EQ(out.close(), 0);
    Opened reread(out.written());
    for (const iso_track* track = reread.file->first_track; track != nullptr; track = track->next)
        EXPECT_EQ(track->sample_count, 3);
}

TEST(Writer, OutputThatHeldAFileStartsAfresh) {
    FaultyHost out;
    const Bytes before = read_sample("amrnb_plain_mdat_first.3gp");
    const KST_IOSTREAM_CALLBACK_INTERFACE& io = *out.callbacks();
    ASSERT_EQ(io.SeekNWrite(io.Context, before.data(), static_cast<uint32_t>(before.size()), -1),
              0u);
    ASSERT_EQ(io.Seek(io.Context, 0), 0u);
    KST_IOSTREAM_CALLBACK_INTERFACE* callbacks = out.callbacks();
    iso_file* file = isoFFopen(callbacks, "w", nullptr);
    EXPECT_EQ(file->first_track, nullptr);
    EXPECT_EQ(file->next_track_id, 1U);
    EXPECT_STREQ(file->major_brand, "3gp6");
    EXPECT_EQ(isoFFclose(file), 0);
    uint32_t end = 0;
    io.GetOffset(io.Context, &end);
    Bytes written = out.written();
    written.resize(end);
    EXPECT_THAT(top_level_boxes(written), testing::ElementsAre("ftyp", "moov", "mdat"));
}

TEST(Writer, BrandsAreFourCharacterCodes) {
    Output out;
    EXPECT_EQ(isoFFsetBrand(nullptr, "3gp4", 0), -1);
    for (const char* wrong : {"", "3gp", "3gp4 ", "3gp4 isom m"})
        EXPECT_EQ(isoFFsetBrand(out.file, wrong, 0), -1) << wrong;
    EXPECT_EQ(isoFFsetBrand(out.file, nullptr, 0), -1);
    EXPECT_EQ(isoFFsetBrand(out.file, "3gr6 isom", 512), 0);
    EXPECT_EQ(out.close(), 0);
    Opened reread(out.written());
    EXPECT_STREQ(reread.file->major_brand, "3gr6");
    EXPECT_STREQ(reread.file->compatible_brands, "3gr6 isom");
    EXPECT_EQ(reread.file->minor_version, 512);
    // A file that is being read keeps its brands, and so does one with media after them.
    Output direct(true);
    EXPECT_EQ(write(amr_track(direct.file)), 1);
    for (iso_file* file : {reread.file, direct.file})
        EXPECT_EQ(isoFFsetBrand(file, "3gp4", 0), -1);
    EXPECT_STREQ(reread.file->major_brand, "3gr6");
    EXPECT_EQ(direct.close(), 0);
    EXPECT_STREQ(Opened(direct.written()).file->compatible_brands, "3gp5 3gp4");
}

// --- limits and error codes ---

TEST(Writer, DurationOfZeroRepeatsTheOneBefore) {
    Output out;
    iso_track* track = amr_track(out.file);
    for (const int duration : {0, 160, 0, 320, 0})
        write(track, 1, duration);
    EXPECT_EQ(track->duration, 960U);
    EXPECT_EQ(out.close(), 0);
    Opened reread(out.written());
    EXPECT_EQ(reread.file->first_track->stts_count, 3);
}

TEST(Writer, BadArguments) {
    Output out;
    iso_track* track = amr_track(out.file);
    uint8_t sample[] = {1};
    EXPECT_EQ(write(nullptr, 1, 1), -1);
    EXPECT_EQ(isoFFwrite(track, sample, -1, 1, 0), -1);
    EXPECT_EQ(isoFFwrite(track, sample, 1, -1, 0), -1);
    EXPECT_EQ(isoFFwrite(track, nullptr, 1, 1, 0), -1);
    EXPECT_EQ(isoFFwrite(track, nullptr, 0, 1, 0), 0);
    // What is being written is not read.
    double duration = 0;
    EXPECT_EQ(isoFFread(track, sample, 1, &duration, nullptr), -1);
    EXPECT_EQ(isoFFreadAt(track, 0, 0, sample, 1, &duration, nullptr), -1);
    EXPECT_EQ(isoFFframeInfo(track, &duration, nullptr), -1);
    EXPECT_EQ(isoFFsetPosition(track, 0), -1);
    EXPECT_EQ(isoFFgetInterleave(out.file), 0.0);
    EXPECT_EQ(out.close(), 0);
    EXPECT_EQ(isoFFclose(nullptr), -1);
    Opened reread(out.written());
    EXPECT_EQ(write(reread.file->first_track, 1, 1), -1);
}

// The first sample of 10 bytes costs 10 + 4, an stts entry of 8 and 8 more; one of 11 bytes after
// it is refused when 11 + 30 + 24 is above the limit.
TEST(Writer, SizeLimitClosesTheTrack) {
    for (const uint32_t limit : {65U, 64U}) {
        Output out;
        out.file->size_limit = limit;
        iso_track* track = amr_track(out.file);
        ASSERT_EQ(write(track, 10), 10);
        EXPECT_EQ(write(track, 11), limit == 65 ? 11 : -6);
        EXPECT_EQ(write(track), limit == 65 ? -6 : -8);
        // Another track goes on, and the file is finished with what was taken.
        EXPECT_EQ(write(amr_track(out.file), 10), 10);
        EXPECT_EQ(out.close(), 0);
        Opened reread(out.written());
        EXPECT_EQ(reread.file->first_track->sample_count, limit == 65 ? 2 : 1);
    }
}

// Tracks that keep to the limit one by one do not grow beyond 32 bits together.
TEST(Writer, AllTracksTogetherHaveALimitToo) {
    for (const uint32_t beyond : {0U, 1U}) {
        Output out;
        iso_track* tracks[] = {amr_track(out.file), amr_track(out.file)};
        ASSERT_EQ(write(tracks[0], 10), 10);
        tracks[1]->own->header_cost =  // as if that much had been taken
            UINT32_MAX - out.file->header_size - tracks[0]->own->header_cost - 24 - 10 + beyond;
        out.file->own->track_cost += tracks[1]->own->header_cost;
        EXPECT_EQ(write(tracks[0], 10), beyond ? -6 : 10);
        EXPECT_EQ(write(tracks[0], 10), beyond ? -8 : -6);
        EXPECT_EQ(out.close(), 0);
    }
}

struct Step {
    int size, duration, offset;
    uint64_t cost;
};

void expect_costs(std::span<const Step> steps) {
    Output out;
    iso_track* track = amr_track(out.file);
    uint8_t sample[16] = {};
    uint64_t cost = 0;
    for (const Step& step : steps) {
        isoFFwrite(track, sample, step.size, step.duration, step.offset);
        EXPECT_EQ(track->own->header_cost, cost += step.cost);
    }
    out.close();
}

TEST(Writer, HeaderCostFollowsTheTables) {
    const Step steps[] = {
        {10, 160, 0, 10 + 4 + 8 + 8},  // a time entry, and the first sample
        {10, 160, 0, 10 + 4},
        {10, 320, 0, 10 + 4 + 8},
        {12, 320, 5, 12 + 4 + 8 + 4 + 4 * 3},  // sizes of the three before come in
        {12, 320, 5, 12 + 4 + 4},
    };
    expect_costs(steps);
    // A first sample that is empty needs the table of sizes from the start.
    const Step empty_first[] = {{0, 160, 0, 4 + 8 + 8 + 4}, {9, 160, 0, 9 + 4 + 4}};
    expect_costs(empty_first);
}

TEST(Writer, DurationLimitClosesTheTrack) {
    Output out;
    out.file->interleave_limit = 2.0;  // seconds
    iso_track* track = amr_track(out.file);
    EXPECT_EQ(track->own->duration_limit, 16000U);
    EXPECT_EQ(write(track, 1, 16000), 1);
    EXPECT_EQ(write(track, 1, 1), -7);
    EXPECT_EQ(write(track, 1, 1), -8);
    EXPECT_EQ(out.close(), 0);
}

TEST(Writer, FinishedFileTakesNothing) {
    Output out;
    iso_track* track = amr_track(out.file);
    EXPECT_EQ(kestrel::finalise(out.file), 0);
    EXPECT_EQ(write(track, 1, 1), -5);
    EXPECT_EQ(out.close(), -5);
}

TEST(Writer, FullTemporaryFileIsReported) {
    Output out;
    iso_track* track = amr_track(out.file);
    track->own->spool = std::fopen("/dev/full", "r+b");
    if (track->own->spool == nullptr) GTEST_SKIP() << "no /dev/full";
    std::setvbuf(track->own->spool, nullptr, _IONBF, 0);
    EXPECT_EQ(write(track, 1, 1), -5);
    EXPECT_EQ(out.close(), -5);
    EXPECT_TRUE(out.written().empty());
}

TEST(Writer, DirectModeRefusesTracksThatComeLate) {
    Output out(true);
    iso_track* early[] = {amr_track(out.file), amr_track(out.file)};
    EXPECT_EQ(write(early[0]), 1);
    EXPECT_EQ(write(amr_track(out.file)), -9);
    EXPECT_EQ(write(early[1]), 1);
    EXPECT_EQ(out.close(), 0);
}

TEST(Writer, FirstSampleSettlesTheMode) {
    using testing::ElementsAre;
    for (const bool direct : {false, true}) {
        for (const bool changes : {false, true}) {
            Output out(direct);
            if (!direct) forbid_seeking(out);
            iso_track* track = amr_track(out.file);
            for (int i = 0; i < 4; ++i) {
                EXPECT_EQ(write(track, 3), 3);
                EXPECT_EQ(out.written().empty(), !direct);
                out.file->own->direct_write = direct != changes;
            }
            EXPECT_EQ(out.close(), 0);
            EXPECT_THAT(top_level_boxes(out.written()), direct
                                                            ? ElementsAre("ftyp", "mdat", "moov")
                                                            : ElementsAre("ftyp", "moov", "mdat"));
            Opened reread(out.written());
            expect_samples(reread.file->first_track,
                           std::vector<Sample>(4, {Bytes(3, 0x3C), 160, 0}));
        }
    }
}

TEST(Writer, DirectModeNeedsAStreamThatSeeks) {
    Output out(true);
    EXPECT_EQ(write(amr_track(out.file)), 1);
    forbid_seeking(out);
    EXPECT_EQ(out.close(), -5);
    Opened reread(out.written());
    EXPECT_EQ(reread.file->first_track, nullptr);
}

TEST(Writer, MediaBeyondThirtyTwoBitsIsReported) {
    Output out;
    for (int i = 0; i < 3; ++i) {
        iso_track* track = amr_track(out.file);
        track->own->spool = std::tmpfile();
        write(track);
        track->own->first_frame->size = 0x7FFFFF00;  // as if that much had been taken
    }
    EXPECT_EQ(out.close(), -6);
    EXPECT_TRUE(out.written().empty());
}

// A track that is being written has no tables yet.
TEST(Writer, GivesOutNoPackets) {
    Output out;
    iso_track* media = amr_track(out.file);
    iso_track* hint = hint_track(media);
    uint8_t frame[32] = {0x3C};
    EXPECT_EQ(isoFFwrite(media, frame, sizeof frame, 160, 0), int{sizeof frame});
    EXPECT_GT(isoFFwriteHint(hint, frame, sizeof frame, 160, 0), 0);
    uint8_t packet[1400];
    ASSERT_EQ(isoFFrtpHinter(media, 1400), hint);
    EXPECT_EQ(isoFFrtpPacket(hint, packet), -1);
    EXPECT_EQ(out.close(), 0);
}

TEST(Writer, GroupsOfNoTypeAreLeftOut) {
    Output out;
    iso_track* track = amr_track(out.file);
    track->sbgp_list = copy_to_arena<iso_sbgp_entry>(out.file, {{1, 1, nullptr}});
    track->sbgp_count = 1;
    EXPECT_EQ(out.close(), 0);
    Opened reread(out.written());
    EXPECT_EQ(reread.file->first_track->sbgp_list, nullptr);
}

TEST(Writer, TrackHelpersRefuseBadArguments) {
    Output out;
    const uint8_t cut_avcc[] = {1, 66, 0, 30, 0xFF, 0xE1, 0, 9, 0x67};
    struct {
        uint32_t width, height, timescale;
    } const pictures[] = {{0x10000, 16, 1}, {16, 0x10000, 1}, {0, 16, 1}, {16, 0, 1}, {16, 16, 0}};
    H263VCFG cfg{};
    for (const auto& [width, height, timescale] : pictures) {
        cfg.width = width;
        cfg.height = height;
        cfg.timescale = timescale;
        if (std::max(width, height) > 0xFFFF) {
            EXPECT_EQ(h263_isoFFtrack(out.file, &cfg), nullptr);
        }
        EXPECT_EQ(mpeg4_isoFFtrack(out.file, "abc", 3, width, height, timescale), nullptr);
    }
    cfg.width = cfg.height = 0xFFFF;
    cfg.timescale = 1;
    EXPECT_EQ(h263_isoFFtrack(nullptr, &cfg), nullptr);
    EXPECT_EQ(h263_isoFFtrack(out.file, nullptr), nullptr);
    EXPECT_EQ(amr_isoFFtrack(out.file, 0, 0x10000, 1), nullptr);
    EXPECT_EQ(amr_isoFFtrack(out.file, 1, 0x81FF, 0), nullptr);
    EXPECT_EQ(amr_isoFFtrack(out.file, 1, 0x81FF, 16), nullptr);
    EXPECT_EQ(h264_isoFFtrack(out.file, cut_avcc, sizeof cut_avcc, 16, 16, 90000), nullptr);
    EXPECT_EQ(mpeg4_isoFFtrack(out.file, nullptr, 3, 16, 16, 90000), nullptr);
    EXPECT_EQ(out.file->first_track, nullptr);
    EXPECT_EQ(isoFFsetDecoderSpecificInfo(nullptr, cut_avcc, 1), -1);
    const uint32_t header = out.file->header_size;
    EXPECT_EQ(h263_isoFFtrack(out.file, &cfg)->own->frame_count, 1U);
    EXPECT_EQ(out.file->header_size, header + 325 + 121);
    EXPECT_EQ(out.close(), 0);
}

// What an H.263 track lacks at first is filled in before the file is closed.
TEST(Writer, H263TracksTakeTheirFormatLate) {
    Output out;
    H263VCFG cfg{};
    iso_track* track = h263_isoFFtrack(out.file, &cfg);
    ASSERT_NE(track, nullptr);
    uint8_t picture[] = {0, 0, 0x80, 2, 8};
    EXPECT_EQ(isoFFwrite(track, picture, sizeof picture, 3003, 0), 5);
    track->timescale = 90000;
    track->width = 176;
    track->height = 144;
    EXPECT_EQ(out.close(), 0);
    Opened reread(out.written());
    const iso_track* read = reread.file->first_track;
    EXPECT_EQ(read->timescale, 90000u);
    EXPECT_EQ(read->own->display_width, 176u << 16);
    EXPECT_EQ(read->own->display_height, 144u << 16);
    EXPECT_EQ(read->width, 176u);
    EXPECT_EQ(read->height, 144u);
    EXPECT_EQ(read->duration, 3003u);
    EXPECT_STREQ(read->vendor, "VXYZ");
}

// --- the two passes ---

TEST(Writer, TablesThatChangeBetweenThePassesAreReported) {
    using kestrel::BoxWriter;
    Output out;
    iso_track* track = amr_track(out.file);
    track->sync_samples = copy_to_arena<uint32_t>(out.file, {1, 2, 3});
    track->sbgp_list = copy_to_arena<iso_sbgp_entry>(out.file, {{1, 1, nullptr}});
    track->sbgp_count = track->sync_count = 1;
    std::copy_n("avcb", 5, track->sgpd_type);
    uint8_t sample[2] = {};
    isoFFwrite(track, sample, 1, 160, 3);
    kestrel::measure(kestrel::write_moov, out.file);
    kestrel::measure(kestrel::write_ctts, track);
    isoFFwrite(track, sample, 2, 161, 4);
    track->sync_count = 2;
    track->sbgp_list->next = copy_to_arena<iso_sbgp_entry>(out.file, {{1, 1, nullptr}});
    track->sbgp_count = 2;
    Bytes memory(64);
    const std::pair<uint64_t (*)(BoxWriter&, iso_track*), const char*> tables[] = {
        {kestrel::write_stts, "Pass1 1 24 Pass 2 32 --- dtd count 2\n"},
        {kestrel::write_ctts, "Pass1 1 24 Pass 2 32 --- cto count 2\n"},
        {kestrel::write_stsz, "Pass1 1 20 Pass 2 28 --- sample size = 0 sample count = 2\n"},
        {kestrel::write_stss, "Pass1 1 20 Pass 2 24 --- sample count = 2\n"},
        {kestrel::write_sbgp, "Pass1 1 28 Pass 2 36 --- sbgp count 2\n"},
    };
    for (const auto& [write, text] : tables) {
        CaptureStderr();
        BoxWriter second_pass(memory);
        write(second_pass, track);
        EXPECT_EQ(GetCapturedStderr(), text);
        // A destination that is too small is not written past.
        CaptureStderr();
        Bytes small(20, 0xAA);
        BoxWriter bounded(std::span<uint8_t>(small).first(12));
        write(bounded, track);
        EXPECT_EQ(Bytes(small.begin() + 12, small.end()), Bytes(8, 0xAA));
        GetCapturedStderr();
    }
    out.close();
}

}  // namespace
